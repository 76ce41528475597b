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

class Session {
public:
    Session(std::size_t batch, std::size_t channels, std::size_t capacity)
        : batch_(batch), channels_(channels), capacity_(capacity), ring_(channels, capacity, static_cast<int>(batch)),
          rows_(batch * channels) {}

    // A rank-2 block, or one of rank 3 with a row per batch entry when
    // `perBatch`. Row r holds next + r * 1e6 + i: every sample traceable.
    void push(std::size_t n, bool perBatch) {
        const std::size_t entries = perBatch ? batch_ : 1;
        xt::xarray<float> block = entries > 1 ? xt::xarray<float>::from_shape({entries, channels_, n})
                                              : xt::xarray<float>::from_shape({channels_, n});
        for (std::size_t r = 0; r < entries * channels_; ++r) {
            for (std::size_t i = 0; i < n; ++i) block.data()[r * n + i] = static_cast<float>(next_ + i + r * 1000000);
        }
        if (accepted(n, [&] { ring_.push(block); })) {
            for (std::size_t r = 0; r < rows_.size(); ++r) {
                append(r, block.data() + (entries > 1 ? r : r % channels_) * n, n);
            }
        }
    }

    // A host block read in place, interleaved or planar; every batch entry gets it.
    void pushFrames(std::size_t n, bool interleaved) {
        std::vector<float> host(channels_ * n), planar(channels_ * n);
        for (std::size_t c = 0; c < channels_; ++c) {
            for (std::size_t i = 0; i < n; ++i) {
                planar[c * n + i] = static_cast<float>(next_ + i + c * 1000000);
                host[interleaved ? i * channels_ + c : c * n + i] = planar[c * n + i];
            }
        }
        const auto read = [&] { ring_.pushFrames(host.data(), n, interleaved ? 1 : n, interleaved ? channels_ : 1); };
        if (accepted(n, read)) {
            for (std::size_t r = 0; r < rows_.size(); ++r) append(r, planar.data() + (r % channels_) * n, n);
        }
    }

    void get(std::size_t requested, std::size_t keep, bool into) {
        const std::size_t n = requested != 0 ? requested : held();
        const bool served = held() != 0 && n <= held();
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
        for (auto& row : rows_) row.erase(row.begin(), row.begin() + static_cast<std::ptrdiff_t>(n - keep));
    }

    void flush() {
        const xt::xarray<float> out = ring_.flush();
        if (out.dimension() != (batch_ == 1 ? 2u : 3u)) broken("flush gave rank " + std::to_string(out.dimension()));
        expectBlock(out, held());
        for (auto& row : rows_) row.clear();
    }

    void expectSameHeld() const {
        if (ring_.heldLength() != held()) {
            broken("holds " + std::to_string(ring_.heldLength()) + ", not " + std::to_string(held()));
        }
    }

private:
    std::size_t held() const { return rows_[0].size(); }

    void append(std::size_t row, const float* samples, std::size_t n) {
        rows_[row].insert(rows_[row].end(), samples, samples + n);
    }

    // Runs a push of n samples; returns whether it was accepted. It must
    // be refused, with the buffer untouched, exactly when it does not fit.
    template <typename Push>
    bool accepted(std::size_t n, Push&& doPush) {
        const bool fits = n <= capacity_ - held();
        try {
            doPush();
        } catch (const std::runtime_error& e) {
            if (fits) broken(std::string("a block that fits was refused: ") + e.what());
            if (e.what() != "Buffer overflow: cannot accept chunk of size " + std::to_string(n)) broken(e.what());
            return false;
        }
        if (!fits) broken("a block larger than the free space was accepted");
        next_ += n;
        return true;
    }

    // `out` holds the oldest n samples of every row, in order.
    void expectBlock(const xt::xarray<float>& out, std::size_t n) const {
        const std::size_t returned = out.shape()[out.dimension() - 1];
        if (returned != n) broken("returned " + std::to_string(returned) + " samples, expected " + std::to_string(n));
        for (std::size_t r = 0; r < rows_.size(); ++r) {
            for (std::size_t i = 0; i < n; ++i) {
                if (out.data()[r * n + i] != rows_[r][i]) {
                    broken("row " + std::to_string(r) + " differs at sample " + std::to_string(i));
                }
            }
        }
    }

    std::size_t batch_;
    std::size_t channels_;
    std::size_t capacity_;
    tonwerk::BufferAggregator ring_;
    std::vector<std::deque<float>> rows_;  // the reference: every row (batch entry × channel) a queue of samples
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
            case 0:
            case 1: session.push(n, operation == 1); break;
            case 2: session.pushFrames(n, input.ConsumeBool()); break;
            case 3:
            case 4: session.get(n, input.ConsumeIntegralInRange<std::size_t>(0, capacity + 2), operation == 4); break;
            default: session.flush(); break;
        }
        session.expectSameHeld();
    }
    return 0;
}
