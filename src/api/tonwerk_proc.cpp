#include "api/tonwerk_proc_impl.h"

#include <stdexcept>
#include <utility>

namespace tonwerk {

TonwerkProc::TonwerkProc(std::shared_ptr<InferenceContext> context, TonwerkProcConfig config)
    : impl(new TonwerkProcImpl(std::move(context), config)) {}

TonwerkProc::~TonwerkProc() {
    delete impl;
}

// Handles share the implementation after an assignment; ownership stays the
// host's business (see the public header).
TonwerkProc& TonwerkProc::operator=(const TonwerkProc& other) {
    impl = other.impl;
    return *this;
}

std::uint64_t TonwerkProc::maxInputSize() const {
    if (impl == nullptr || !impl->chunkEngine || !impl->backend) {
        throw std::runtime_error("Processor is not prepared");
    }
    const ChunkProcessor& engine = *impl->chunkEngine;
    return engine.preProcessor().maxInputLength() - 2 * engine.transformLength();
}

std::vector<std::vector<float>> TonwerkProc::process(const std::vector<float>& input, bool eof) {
    if (impl == nullptr) {
        throw std::runtime_error("Processor is not prepared");
    }
    return impl->process(input, eof);
}

}  // namespace tonwerk
