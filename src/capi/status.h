// Turning C++ failures into C status codes and a per-thread message.
#pragma once

#include "tonwerk/tonwerk_c.h"

#include <cstdint>
#include <string>

namespace tonwerk::capi {

// Records `message` (prefixed by the function's name) as the calling
// thread's last error and returns `status`.
tw_status fail(tw_status status, const char* function, const std::string& message);

// Maps the exception in flight to a status; only called from a catch block.
tw_status failFromCurrentException(const char* function);

// Runs `body` (which returns a tw_status) so that no exception leaves it.
template <typename Body>
tw_status guarded(const char* function, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return failFromCurrentException(function);
    }
}

const char* lastError();

// Empty when every bit of `mask` is one of TW_STEMS_ALL; otherwise the
// message that refuses it.
std::string stemMaskProblem(std::uint32_t mask);

}  // namespace tonwerk::capi
