// libFuzzer target: the input ring buffer against a plain model of a ring
// (one queue per batch row and channel). The fuzzer's bytes choose the
// geometry (small capacities, so that wrapping and overflow come often) and a
// sequence of pushes (rank 2, rank 3, strided host blocks), takes and
// flushes. After every operation both must hold the same samples; refused
// operations must throw the documented error and change nothing.
#include "pipeline/buffer_aggregator.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

[[noreturn]] void broken(const std::string& what) {
    std::fprintf(stderr, "buffer aggregator: %s\n", what.c_str());
    std::abort();
}

// The reference: every row (batch entry × channel) a queue of samples.
struct ReferenceRing {
    std::size_t capacity;
    std::vector<std::deque<float>> rows;

    std::size_t held() const { return rows[0].size(); }
};

class Session {
public:
    Session(std::size_t batch, std::size_t channels, std::size_t capacity)
        : batch_(batch), channels_(channels), ring_(channels, capacity, static_cast<int>(batch)),
          reference_{capacity, std::vector<std::deque<float>>(batch * channels)} {}

    // Row r of a new block holds next_ + r * 1e6 + i: every sample traceable.
    xt::xarray<float> newBlock(std::size_t perRowBatch, std::size_t n) {
        xt::xarray<float> block = perRowBatch > 1 ? xt::xarray<float>::from_shape({perRowBatch, channels_, n})
                                                  : xt::xarray<float>::from_shape({channels_, n});
        for (std::size_t r = 0; r < perRowBatch * channels_; ++r) {
            for (std::size_t i = 0; i < n; ++i) block.data()[r * n + i] = static_cast<float>(next_ + i + r * 1000000);
        }
        next_ += n;
        return block;
    }

    void push(const xt::xarray<float>& block) {
        const std::size_t n = block.shape()[block.dimension() - 1];
        if (!expectOverflowIfFull(n, [&] { ring_.push(block); })) return;
        const bool perRow = block.dimension() == 3 && block.shape()[0] > 1;
        for (std::size_t b = 0; b < batch_; ++b) {
            for (std::size_t c = 0; c < channels_; ++c) {
                const float* row = block.data() + ((perRow ? b : 0) * channels_ + c) * n;
                reference_.rows[b * channels_ + c].insert(reference_.rows[b * channels_ + c].end(), row, row + n);
            }
        }
    }

    // A host block read in place, interleaved or planar.
    void pushFrames(std::size_t n, bool interleaved) {
        const xt::xarray<float> planar = newBlock(1, n);
        std::vector<float> host(planar.size());
        for (std::size_t c = 0; c < channels_; ++c) {
            for (std::size_t i = 0; i < n; ++i) host[interleaved ? i * channels_ + c : c * n + i] = planar(c, i);
        }
        const std::size_t channelStride = interleaved ? 1 : n;
        const std::size_t sampleStride = interleaved ? channels_ : 1;
        if (!expectOverflowIfFull(n, [&] { ring_.pushFrames(host.data(), n, channelStride, sampleStride); })) return;
        for (std::size_t r = 0; r < batch_ * channels_; ++r) {
            for (std::size_t i = 0; i < n; ++i) reference_.rows[r].push_back(planar(r % channels_, i));
        }
    }

    void get(std::size_t requested, std::size_t keep, bool into) {
        const std::size_t n = requested != 0 ? requested : reference_.held();
        const bool served = reference_.held() != 0 && n <= reference_.held();
        xt::xarray<float> out;
        bool ok = false;
        try {
            ok = into ? ring_.getInto(requested, keep, out) : (out = ring_.get(requested, keep)).dimension() != 0;
        } catch (const std::invalid_argument&) {
            if (!served || keep <= n) broken("get threw std::invalid_argument although keep <= n");
            return;
        }
        if (ok != served) broken("get served " + std::to_string(ok) + ", expected " + std::to_string(served));
        if (!served) return;
        if (keep > n) broken("get accepted keep > n");
        expectBlock(out, n);
        for (auto& row : reference_.rows) row.erase(row.begin(), row.begin() + static_cast<std::ptrdiff_t>(n - keep));
    }

    void flush() {
        const xt::xarray<float> out = ring_.flush();
        const std::size_t rank = batch_ == 1 ? 2 : 3;
        if (out.dimension() != rank) broken("flush returned rank " + std::to_string(out.dimension()));
        expectBlock(out, reference_.held());
        for (auto& row : reference_.rows) row.clear();
    }

    void expectSameHeld() const {
        if (ring_.heldLength() != reference_.held()) {
            broken("holds " + std::to_string(ring_.heldLength()) + ", expected " + std::to_string(reference_.held()));
        }
    }

private:
    // Runs a push of n samples; returns whether it was accepted. It must
    // be refused, with the buffer untouched, exactly when it does not fit.
    template <typename Push>
    bool expectOverflowIfFull(std::size_t n, Push&& doPush) {
        const bool fits = n <= reference_.capacity - reference_.held();
        try {
            doPush();
        } catch (const std::runtime_error& e) {
            if (fits) broken(std::string("a block that fits was refused: ") + e.what());
            if (e.what() != "Buffer overflow: cannot accept chunk of size " + std::to_string(n)) broken(e.what());
            return false;
        }
        if (!fits) broken("a block larger than the free space was accepted");
        return true;
    }

    // `out` holds the oldest n samples of every row, in order.
    void expectBlock(const xt::xarray<float>& out, std::size_t n) const {
        const std::size_t returned = out.shape()[out.dimension() - 1];
        if (returned != n) broken("returned " + std::to_string(returned) + " samples, expected " + std::to_string(n));
        for (std::size_t r = 0; r < batch_ * channels_; ++r) {
            for (std::size_t i = 0; i < n; ++i) {
                if (out.data()[r * n + i] != reference_.rows[r][i]) broken("row " + std::to_string(r) + " sample " +
                                                                           std::to_string(i) + " differs");
            }
        }
    }

    std::size_t batch_;
    std::size_t channels_;
    tonwerk::BufferAggregator ring_;
    ReferenceRing reference_;
    std::size_t next_ = 1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::size_t batch = input.ConsumeIntegralInRange<std::size_t>(1, 3);
    const std::size_t channels = input.ConsumeIntegralInRange<std::size_t>(1, 3);
    const std::size_t capacity = input.ConsumeIntegralInRange<std::size_t>(1, 64);
    Session session(batch, channels, capacity);
    while (input.remaining_bytes() > 0) {
        const int operation = input.ConsumeIntegralInRange(0, 5);
        const std::size_t n = input.ConsumeIntegralInRange<std::size_t>(0, capacity + 2);
        switch (operation) {
            case 0: session.push(session.newBlock(1, n)); break;
            case 1: session.push(session.newBlock(batch, n)); break;
            case 2: session.pushFrames(n, input.ConsumeBool()); break;
            case 3:
            case 4: session.get(n, input.ConsumeIntegralInRange<std::size_t>(0, capacity + 2), operation == 4); break;
            default: session.flush(); break;
        }
        session.expectSameHeld();
    }
    return 0;
}
