// The C interface over the library's two classes.
#include "capi/status.h"
#include "tonwerk/tonwerk_c.h"
#include "tonwerk/tonwerk_proc_multistem.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct tw_context {
    std::shared_ptr<tonwerk::InferenceContext> model;
};

struct tw_processor {
    tonwerk::TonwerkProc proc;
    std::size_t latency;
    std::vector<float> input;                 // reused: the C++ interface takes a vector
    std::vector<std::vector<float>> stems;    // the last result, lent to the caller
};

namespace {

using tonwerk::capi::fail;
using tonwerk::capi::guarded;

tonwerk::TonwerkProcConfig interleavedStereo(std::uint32_t mask) {
    tonwerk::TonwerkProcConfig config{};
    config.vocals = mask & TW_STEM_VOCALS ? 1 : 0;
    config.drum = mask & TW_STEM_DRUM ? 1 : 0;
    config.piano = mask & TW_STEM_PIANO ? 1 : 0;
    config.acousticGuitar = mask & TW_STEM_ACOUSTIC_GUITAR ? 1 : 0;
    config.electricGuitar = mask & TW_STEM_ELECTRIC_GUITAR ? 1 : 0;
    config.bass = mask & TW_STEM_BASS ? 1 : 0;
    config.channels = 2;
    config.interleaved = true;
    return config;
}

void clear(tw_output* out) {
    *out = tw_output{};
}

void lend(const std::vector<std::vector<float>>& stems, tw_output* out) {
    clear(out);
    if (stems.empty()) return;
    out->frames = stems[0].size() / 2;
    for (int i = 0; i < TW_OUTPUT_COUNT; ++i) out->stems[i] = stems[static_cast<std::size_t>(i)].data();
}

}  // namespace

extern "C" {

const char* tw_version(void) {
    return TONWERK_VERSION;
}

const char* tw_last_error(void) {
    return tonwerk::capi::lastError();
}

tw_status tw_context_create(const void* bytes, size_t size, const char* key, size_t key_len, tw_context** context) {
    static const char* const kFunction = "tw_context_create";
    if (context == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "context is NULL");
    *context = nullptr;
    if (bytes == nullptr && size > 0) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "bytes is NULL");
    if (key == nullptr && key_len > 0) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "key is NULL");
    return guarded(kFunction, [&] {
        tonwerk::ModelData data{static_cast<const unsigned char*>(bytes), size,
                                key_len > 0 ? std::string(key, key_len) : std::string()};
        auto model = std::make_shared<tonwerk::InferenceContext>(std::move(data));
        *context = new tw_context{std::move(model)};
        return TW_OK;
    });
}

void tw_context_release(tw_context* context) {
    delete context;
}

tw_status tw_processor_create(tw_context* context, uint32_t stem_mask, tw_processor** processor) {
    static const char* const kFunction = "tw_processor_create";
    if (processor == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "processor is NULL");
    *processor = nullptr;
    if (context == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "context is NULL");
    if (const std::string problem = tonwerk::capi::stemMaskProblem(stem_mask); !problem.empty()) {
        return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, problem);
    }
    return guarded(kFunction, [&] {
        tonwerk::TonwerkProc proc(context->model, interleavedStereo(stem_mask));
        const auto latency = static_cast<std::size_t>(proc.maxInputSize());
        *processor = new tw_processor{std::move(proc), latency, {}, {}};
        return TW_OK;
    });
}

void tw_processor_destroy(tw_processor* processor) {
    delete processor;
}

tw_status tw_processor_max_input(const tw_processor* processor, size_t* frames) {
    static const char* const kFunction = "tw_processor_max_input";
    if (processor == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "processor is NULL");
    if (frames == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "frames is NULL");
    return guarded(kFunction, [&] {
        *frames = static_cast<std::size_t>(processor->proc.maxInputSize());
        return TW_OK;
    });
}

tw_status tw_processor_latency(const tw_processor* processor, size_t* frames) {
    static const char* const kFunction = "tw_processor_latency";
    if (processor == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "processor is NULL");
    if (frames == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "frames is NULL");
    *frames = processor->latency;
    return TW_OK;
}

tw_status tw_processor_process(tw_processor* processor, const float* input, size_t frames, int eof, tw_output* out) {
    static const char* const kFunction = "tw_processor_process";
    if (out == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "out is NULL");
    clear(out);
    if (processor == nullptr) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "processor is NULL");
    if (input == nullptr && frames > 0) return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "input is NULL");
    if (frames > SIZE_MAX / (2 * sizeof(float))) {
        return fail(TW_ERROR_INVALID_ARGUMENT, kFunction, "frames " + std::to_string(frames) + " is beyond any buffer");
    }
    return guarded(kFunction, [&] {
        processor->input.assign(input, input + 2 * frames);
        processor->stems = processor->proc.process(processor->input, eof != 0);
        lend(processor->stems, out);
        return TW_OK;
    });
}

}  // extern "C"
