// The plugin as a full host drives it, loaded from its test bundle (the
// identity model): a URID map, a block-length option and a worker, state
// naming another model, host blocks longer than that length, real time,
// free-wheeling with and without waiting, and thread counts changed through
// the worker or at activation. hosts.py covers hosts that offer less.
#include "live/live_signal.h"
#include "ports.h"
#include "test_models.h"
#include "tonwerk/tonwerk_live.hpp"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <lv2/atom/atom.h>
#include <lv2/atom/forge.h>
#include <lv2/atom/util.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/options/options.h>
#include <lv2/patch/patch.h>
#include <lv2/state/state.h>
#include <lv2/worker/worker.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

namespace tonwerk::test {
namespace {

constexpr std::int32_t kMaxBlock = 100;
using State = std::map<LV2_URID, std::pair<LV2_URID, std::string>>;  // key: type, text

LV2_State_Status store(void* state, uint32_t key, const void* value, size_t size, uint32_t type, uint32_t) {
    (*static_cast<State*>(state))[key] = {type, std::string(static_cast<const char*>(value), size - 1)};
    return LV2_STATE_SUCCESS;
}

const void* retrieve(void* state, uint32_t key, size_t* size, uint32_t* type, uint32_t*) {
    const auto found = static_cast<State*>(state)->find(key);
    if (found == static_cast<State*>(state)->end()) return nullptr;
    std::tie(*type, *size) = std::make_pair(found->second.first, found->second.second.size() + 1);
    return found->second.second.c_str();
}

using Jobs = std::deque<std::string>;

LV2_Worker_Status queueJob(Jobs* jobs, uint32_t size, const void* data) {
    jobs->emplace_back(static_cast<const char*>(data), size);
    return LV2_WORKER_SUCCESS;
}

struct Host {
    // Block lengths of 0 are left out of the options.
    explicit Host(bool offersWorker = true, std::int32_t nominalBlock = 0, std::int32_t maxBlock = kMaxBlock)
        : blocks{nominalBlock, maxBlock} {
        library = dlopen(TONWERK_LV2_TEST_BUNDLE "tonwerk_stems.so", RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) throw std::runtime_error(dlerror());
        plugin = reinterpret_cast<LV2_Descriptor_Function>(dlsym(library, "lv2_descriptor"))(0);
        const char* keys[] = {LV2_BUF_SIZE__nominalBlockLength, LV2_BUF_SIZE__maxBlockLength};
        for (std::size_t k = 0, o = 0; k < 2; ++k) {
            if (blocks[k] > 0) options[o++] = {LV2_OPTIONS_INSTANCE, 0, urid(keys[k]), 4, urid(LV2_ATOM__Int), &blocks[k]};
        }
        const LV2_Feature mapFeature{LV2_URID__map, &map}, optionsFeature{LV2_OPTIONS__options, options};
        const LV2_Feature workerFeature{LV2_WORKER__schedule, &schedule};
        const LV2_Feature* features[] = {&mapFeature, &optionsFeature, offersWorker ? &workerFeature : nullptr, nullptr};
        instance = plugin->instantiate(plugin, 44100.0, TONWERK_LV2_TEST_BUNDLE, features);
        controls[lv2::kThreads] = 1;
        for (uint32_t p = lv2::kFirstGain; p < lv2::kControl; ++p) plugin->connect_port(instance, p, &controls[p]);
        plugin->connect_port(instance, lv2::kControl, control.data());
        plugin->connect_port(instance, lv2::kNotify, notify.data());
        lv2_atom_forge_init(&forge, &map);
        message();
        stateInterface = static_cast<const LV2_State_Interface*>(plugin->extension_data(LV2_STATE__interface));
        worker = static_cast<const LV2_Worker_Interface*>(plugin->extension_data(LV2_WORKER__interface));
    }

    // The worker thread's turn, then the answers' between runs, until no
    // job is left (an answer may schedule another job); `between` runs
    // after the first turn of the worker, before its answers.
    void runJobs(const std::function<void()>& between = [] {}) {
        while (!jobs.empty()) {
            Jobs answers;
            for (; !jobs.empty(); jobs.pop_front()) {
                const auto respond = [](void* to, uint32_t size, const void* data) {
                    return queueJob(static_cast<Jobs*>(to), size, data);
                };
                ASSERT_EQ(worker->work(instance, respond, &answers, jobs.front().size(), jobs.front().data()), 0);
            }
            between();
            for (const std::string& answer : answers) {
                ASSERT_EQ(worker->work_response(instance, answer.size(), answer.data()), 0);
            }
        }
    }
    ~Host() {
        plugin->cleanup(instance);
        dlclose(library);
    }
    LV2_URID urid(const std::string& uri) { return uris.emplace(uri, uris.size() + 1).first->second; }

    // Interleaved stereo through the plugin in host blocks of `block`.
    std::vector<float> run(const std::vector<float>& input, std::size_t block) {
        plugin->activate(instance);
        std::vector<float> output(input.size());
        planar.assign(4 * block, 0.0F);  // in left, in right, out left, out right
        for (std::uint32_t p = 0; p < 4; ++p) plugin->connect_port(instance, p, &planar[p * block]);
        for (std::size_t at = 0; at < input.size() / 2; at += block) {
            const std::size_t frames = std::min(block, input.size() / 2 - at);
            for (std::size_t i = 0; i < 2 * frames; ++i) planar[i % 2 * block + i / 2] = input[2 * at + i];
            reinterpret_cast<LV2_Atom*>(notify.data())->size = notify.size() - sizeof(LV2_Atom);
            plugin->run(instance, static_cast<std::uint32_t>(frames));
            if (at == 0) {  // the message was for the first run, and so is the answer
                message();
                firstNotice = notified();
            }
            for (std::size_t i = 0; i < 2 * frames; ++i) output[2 * at + i] = planar[(2 + i % 2) * block + i / 2];
        }
        return output;
    }

    // The control port's sequence for the next run: a patch:Set of the
    // model to `path`, a patch:Get without one, nothing with `get` false.
    void message(const std::string& path = "", bool get = false) {
        lv2_atom_forge_set_buffer(&forge, control.data(), control.size());
        LV2_Atom_Forge_Frame sequence, object;
        lv2_atom_forge_sequence_head(&forge, &sequence, 0);
        if (!path.empty() || get) {
            lv2_atom_forge_frame_time(&forge, 0);
            lv2_atom_forge_object(&forge, &object, 0, urid(path.empty() ? LV2_PATCH__Get : LV2_PATCH__Set));
            if (!path.empty()) {
                lv2_atom_forge_key(&forge, urid(LV2_PATCH__property));
                lv2_atom_forge_urid(&forge, urid(TONWERK_LV2_URI "#model"));
                lv2_atom_forge_key(&forge, urid(LV2_PATCH__value));
                lv2_atom_forge_path(&forge, path.c_str(), static_cast<uint32_t>(path.size()));
            }
            lv2_atom_forge_pop(&forge, &object);
        }
        lv2_atom_forge_pop(&forge, &sequence);
    }

    // The model paths the notify port's last sequence reports.
    std::vector<std::string> notified() {
        std::vector<std::string> paths;
        LV2_ATOM_SEQUENCE_FOREACH(reinterpret_cast<const LV2_Atom_Sequence*>(notify.data()), event) {
            const LV2_Atom* value = nullptr;
            lv2_atom_object_get(reinterpret_cast<const LV2_Atom_Object*>(&event->body), urid(LV2_PATCH__value),
                                &value, 0);
            if (value != nullptr) paths.emplace_back(static_cast<const char*>(LV2_ATOM_BODY_CONST(value)));
        }
        return paths;
    }

    Jobs jobs;
    LV2_Worker_Schedule schedule{&jobs, [](void* to, uint32_t size, const void* data) {
                                     return queueJob(static_cast<Jobs*>(to), size, data);
                                 }};
    const LV2_Worker_Interface* worker = nullptr;
    std::map<std::string, LV2_URID> uris;
    LV2_URID_Map map{this, [](void* self, const char* uri) { return static_cast<Host*>(self)->urid(uri); }};
    std::int32_t blocks[2];
    std::vector<float> planar;
    alignas(8) std::array<std::uint8_t, 4096> control{};
    alignas(8) std::array<std::uint8_t, 8192> notify{};
    LV2_Atom_Forge forge{};
    std::vector<std::string> firstNotice;  // what the notify port said after a run()'s first block
    LV2_Options_Option options[3]{};
    void* library = nullptr;
    const LV2_Descriptor* plugin = nullptr;
    LV2_Handle instance = nullptr;
    const LV2_State_Interface* stateInterface = nullptr;
    std::array<float, lv2::kPortCount> controls{};
    State state;
};

struct PluginCase {
    const char* model;  // "" keeps the bundle's
    lv2::Gains gains;
    float offline;
    float freeWheel;
    float factor;  // the output over the delayed input
};

TEST(StemsPlugin, MixesTheStemsBackAfterTheReportedLatency) {
    // Through gains.onnx stem k is k + 1 times the input and the residual
    // -20 times it; gains all different make each one count in the sum:
    // 1 * .1 + 2 * .2 + ... + 6 * .6 - 20 * .7 = -4.9. That sum multiplies
    // the model's rounding by up to 14, most within two model frames of the
    // stream's start; with unit gains the residual gives back exactly what
    // the stems miss.
    const PluginCase cases[] = {
        {"", {1, 1, 1, 1, 1, 1, 1}, 1, 1, 1.0F},
        {"gains.onnx", {.1F, .2F, .3F, .4F, .5F, .6F, .7F}, 1, 1, -4.9F},
        // Without waiting for the model, in real time even with the
        // offline control on, or free-wheeling with it off: the model
        // block the library's test hook holds back is missed (a waiting
        // plugin gets it), and the delayed input takes its place.
        {"", {1, 1, 1, 1, 1, 1, 1}, 1, 0, 1.0F},
        {"", {1, 1, 1, 1, 1, 1, 1}, 0, 1, 1.0F},
    };
    tw_live_settings settings = live::defaultSettings();
    settings.max_block = kMaxBlock;
    const long latency = static_cast<long>(live::Adapter(readModel("identity.onnx"), settings).latency().total);
    const std::vector<float> input = tones(latency + 3 * 4096, 3);
    for (const PluginCase& c : cases) {
        SCOPED_TRACE(c.model);
        const bool waits = c.offline * c.freeWheel != 0.0F;
        setenv("TONWERK_LIVE_TEST_HOLD", "3", 1);  // read as the plugin loads a model
        Host host;
        const std::string path = TONWERK_TEST_MODELS_DIR "/" + std::string(c.model);
        State chosen;  // the bundle's model needs no entry
        if (*c.model != '\0') chosen[host.urid(TONWERK_LV2_URI "#model")] = {host.urid(LV2_ATOM__Path), path};
        host.state = chosen;
        ASSERT_EQ(host.stateInterface->restore(host.instance, retrieve, &host.state, 0, nullptr), 0);
        unsetenv("TONWERK_LIVE_TEST_HOLD");
        host.state.clear();  // a session saved now names the same model
        ASSERT_EQ(host.stateInterface->save(host.instance, store, &host.state, 0, nullptr), 0);
        EXPECT_EQ(host.state, chosen);
        std::copy(c.gains.begin(), c.gains.end(), host.controls.begin() + lv2::kFirstGain);
        host.controls[lv2::kOffline] = c.offline;
        host.controls[lv2::kFreeWheel] = c.freeWheel;
        const std::vector<float> output = host.run(input, 3 * kMaxBlock);
        ASSERT_EQ(host.controls[lv2::kLatency], static_cast<float>(latency));
        EXPECT_EQ(host.controls[lv2::kUnderruns] > 0.0F, !waits);
        for (long i = 0; i < static_cast<long>(output.size()); ++i) {
            const long from = i - 2 * latency;
            const float expected = from < 0 ? 0.0F : c.factor * input[static_cast<std::size_t>(from)];
            ASSERT_NEAR(output[static_cast<std::size_t>(i)], expected, from < 2 * 8192 ? 1e-4 : 1e-5) << i;
        }
    }
}

// A host with a file chooser sets the model with patch:Set: it loads on the
// worker, the notify port reports it (and answers patch:Get), and sessions
// save it.
TEST(StemsPlugin, TakesTheModelAHostSetsAndReportsIt) {
    Host host;
    const lv2::Gains gains = {.1F, .2F, .3F, .4F, .5F, .6F, .7F};
    std::copy(gains.begin(), gains.end(), host.controls.begin() + lv2::kFirstGain);
    const std::string path = TONWERK_TEST_MODELS_DIR "/gains.onnx";
    const std::vector<float> input = tones(15872 - 512 + kMaxBlock + 2 * 4096, 6);
    host.message(path);
    host.run(input, kMaxBlock);
    EXPECT_EQ(host.firstNotice, std::vector<std::string>{TONWERK_LV2_TEST_BUNDLE "model.onnx"});
    host.runJobs();
    host.controls[lv2::kFreeWheel] = host.controls[lv2::kOffline] = 1;
    const std::vector<float> output = host.run(input, kMaxBlock);
    EXPECT_EQ(host.firstNotice, std::vector<std::string>{path});
    host.run(input, kMaxBlock);
    EXPECT_EQ(host.firstNotice, std::vector<std::string>{});  // said once
    host.message("", true);
    host.run(input, kMaxBlock);
    EXPECT_EQ(host.firstNotice, std::vector<std::string>{path});  // and again when asked
    const long latency = static_cast<long>(host.controls[lv2::kLatency]);
    for (long i = 2 * latency + 2 * 8192; i < static_cast<long>(output.size()); ++i) {
        ASSERT_NEAR(output[static_cast<std::size_t>(i)], -4.9F * input[static_cast<std::size_t>(i - 2 * latency)], 1e-4)
            << i;
    }
    ASSERT_EQ(host.stateInterface->save(host.instance, store, &host.state, 0, nullptr), 0);
    EXPECT_EQ(host.state[host.urid(TONWERK_LV2_URI "#model")].second, path);

    // A session restored while a chosen model loads wins: the late answer is dropped.
    host.message(TONWERK_TEST_MODELS_DIR "/flag_gated.onnx");
    host.run(input, kMaxBlock);
    host.runJobs([&] {
        State bundle;
        ASSERT_EQ(host.stateInterface->restore(host.instance, retrieve, &bundle, 0, nullptr), 0);
    });
    host.run(input, kMaxBlock);
    EXPECT_EQ(host.firstNotice, std::vector<std::string>{TONWERK_LV2_TEST_BUNDLE "model.onnx"});
}

struct ShapeCase {
    bool worker;
    std::int32_t nominal;  // the host's options, 0 for none
    std::int32_t maximum;
    std::size_t period;  // frames per run()
    float threads;       // the control
    std::size_t block;   // the adapter's block limit that follows
};

// The latency holds the adapter's block limit: the host's usual period when
// it states one, else its maximum, else 512; a longer period in real time
// gets a slot that takes it whole (cut up, each run would reach the model
// at once with too little time left). A model run on n threads keeps
// n - 1 helpers beside the adapter's worker, so the process's thread count
// shows that a slot with the new count is in use and the old one was
// freed. Both through the worker, or at the next activation without one;
// free-wheeling then, the output is the input delayed by the new latency.
TEST(StemsPlugin, TakesItsBlockLimitAndThreadsFromTheHost) {
    const ShapeCase cases[] = {
        {true, 256, 8192, 256, 1, 256}, {true, 0, 0, 300, 3, 512},      {true, 0, 0, 4096, 1, 4096},
        {false, 0, 0, 4096, 2, 4096},   {true, 0, 64, 1000, 1, 1000},   {false, 0, 100, 100, 3, 100},
    };
    std::vector<std::unique_ptr<Host>> hosts;  // all kept, so that only a replaced slot's threads end
    for (const ShapeCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "period " << c.period << (c.worker ? "" : ", no worker"));
        const std::size_t before = threadsOfThisProcess();
        Host& host = *hosts.emplace_back(std::make_unique<Host>(c.worker, c.nominal, c.maximum));
        const std::size_t oneThread = threadsOfThisProcess() - before;
        std::fill_n(host.controls.begin() + lv2::kFirstGain, lv2::kGainCount, 1.0F);
        host.controls[lv2::kThreads] = c.threads;
        const long latency = static_cast<long>(15872 - 512 + c.block);
        const std::vector<float> input = tones(static_cast<std::size_t>(latency) + 2 * 4096, 4);
        host.run(input, c.period);
        host.runJobs();
        const std::size_t expected = before + oneThread + static_cast<std::size_t>(c.threads) - 1;
        EXPECT_EQ(threadsSettlingAt(expected), expected);
        host.controls[lv2::kFreeWheel] = 1;
        host.controls[lv2::kOffline] = 1;
        const std::vector<float> output = host.run(input, c.period);
        ASSERT_EQ(host.controls[lv2::kLatency], static_cast<float>(latency));
        for (long i = 0; i < static_cast<long>(output.size()); ++i) {
            const float expected = i < 2 * latency ? 0.0F : input[static_cast<std::size_t>(i - 2 * latency)];
            ASSERT_NEAR(output[static_cast<std::size_t>(i)], expected, 1e-3) << i;
        }
    }
}

}  // namespace
}  // namespace tonwerk::test
