#include "capi/status.h"

#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>

namespace tonwerk::capi {
namespace {

thread_local std::string lastErrorText;

// The processor's block size check is the only runtime error a host can
// recover from by itself (smaller blocks); it is told apart by its message.
bool isBufferOverflow(const std::runtime_error& e) {
    static const char kPrefix[] = "Buffer overflow";
    return std::strncmp(e.what(), kPrefix, sizeof kPrefix - 1) == 0;
}

}  // namespace

tw_status fail(tw_status status, const char* function, const std::string& message) {
    try {
        lastErrorText = std::string(function) + ": " + message;
    } catch (...) {
        lastErrorText.clear();  // no memory for the text: the status still tells
    }
    return status;
}

tw_status failFromCurrentException(const char* function) {
    try {
        throw;
    } catch (const std::logic_error& e) {  // invalid_argument, and length_error for absurd sizes
        return fail(TW_ERROR_INVALID_ARGUMENT, function, e.what());
    } catch (const std::bad_alloc&) {
        return fail(TW_ERROR_OUT_OF_MEMORY, function, "out of memory");
    } catch (const std::runtime_error& e) {
        return fail(isBufferOverflow(e) ? TW_ERROR_BUFFER_OVERFLOW : TW_ERROR_RUNTIME, function, e.what());
    } catch (const std::exception& e) {
        return fail(TW_ERROR_RUNTIME, function, e.what());
    } catch (...) {
        return fail(TW_ERROR_RUNTIME, function, "unknown error");
    }
}

std::string stemMaskProblem(std::uint32_t mask) {
    if ((mask & ~static_cast<std::uint32_t>(TW_STEMS_ALL)) == 0) return {};
    return "stem_mask " + std::to_string(mask) + " has bits outside TW_STEMS_ALL (63)";
}

const char* lastError() {
    return lastErrorText.c_str();
}

}  // namespace tonwerk::capi
