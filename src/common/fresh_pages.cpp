#include "common/fresh_pages.h"

#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace tonwerk {

void prepareForWriting(void* data, std::size_t bytes) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
    // Only blocks of many pages pay for the call.
    constexpr std::size_t kWorthwhile = 256 * 1024;
    if (bytes < kWorthwhile) {
        return;
    }
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = (reinterpret_cast<std::uintptr_t>(data) + page - 1) & ~(page - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(data) + bytes) & ~(page - 1);
    if (end > begin) {
        // Any failure leaves the pages to be faulted in as usual.
        (void)madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
    }
#else
    (void)data;
    (void)bytes;
#endif
}

}  // namespace tonwerk
