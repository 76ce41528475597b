// A fixed number of floats in memory aligned as PFFFT's SIMD code needs it,
// zeroed at construction. Move-only.
#pragma once

#include <cstddef>

namespace tonwerk {

class AlignedFloats {
public:
    // Throws std::bad_alloc. A count of 0 still holds a valid pointer.
    explicit AlignedFloats(std::size_t count);
    ~AlignedFloats();
    AlignedFloats(AlignedFloats&& other) noexcept;
    AlignedFloats& operator=(AlignedFloats&& other) noexcept;
    AlignedFloats(const AlignedFloats&) = delete;
    AlignedFloats& operator=(const AlignedFloats&) = delete;

    float* data() { return data_; }
    const float* data() const { return data_; }
    std::size_t size() const { return size_; }

private:
    float* data_;
    std::size_t size_;
};

}  // namespace tonwerk
