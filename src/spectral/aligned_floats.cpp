#include "spectral/aligned_floats.h"

#include <pffft.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace tonwerk {

AlignedFloats::AlignedFloats(std::size_t count)
    : data_(static_cast<float*>(pffft_aligned_malloc(std::max<std::size_t>(count, 1) * sizeof(float)))),
      size_(count) {
    if (data_ == nullptr) {
        throw std::bad_alloc();
    }
    std::memset(data_, 0, std::max<std::size_t>(count, 1) * sizeof(float));
}

AlignedFloats::~AlignedFloats() { pffft_aligned_free(data_); }

AlignedFloats::AlignedFloats(AlignedFloats&& other) noexcept : data_(other.data_), size_(other.size_) {
    other.data_ = nullptr;
    other.size_ = 0;
}

AlignedFloats& AlignedFloats::operator=(AlignedFloats&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
}

}  // namespace tonwerk
