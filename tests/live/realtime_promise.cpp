// tonwerk-realtime-promise: streams through the live adapter for minutes
// while every call into the heap, a mutex or a sleep made on the audio
// thread inside process() or reset() is counted. Exits 1 if any was.
//
//   tonwerk-realtime-promise MODEL [--minutes M [--rate HZ]]
//   tonwerk-realtime-promise MODEL --canary KIND
//
// MODEL is one of the build's test models, e.g. identity.onnx.
//
// The canary commits one violation of KIND (malloc, free, new, delete,
// mutex, sleep) where the real-time calls run, to prove each interposer
// bites: the canary run must fail.
//
// glibc's allocator is reached through its __libc_* entry points and the
// thread functions through the next definition in the lookup order, both
// resolved before any thread starts. Not for sanitizer builds, which
// interpose the same functions themselves.
#include "test_models.h"
#include "tonwerk/tonwerk_live.hpp"

#include <dlfcn.h>
#include <pthread.h>
#include <time.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {

enum Kind { kMalloc, kFree, kMutex, kSleep, kKinds };
const char* const kKindNames[kKinds] = {"allocation", "release", "mutex", "sleep"};

thread_local bool watching = false;
std::array<std::atomic<long>, kKinds> violations{};

void note(Kind kind) {
    if (watching) violations[kind].fetch_add(1, std::memory_order_relaxed);
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

using MutexCall = int (*)(pthread_mutex_t*);
using NanosleepCall = int (*)(const timespec*, timespec*);
using ClockNanosleepCall = int (*)(clockid_t, int, const timespec*, timespec*);
MutexCall realLock = nullptr;
MutexCall realTrylock = nullptr;
NanosleepCall realNanosleep = nullptr;
ClockNanosleepCall realClockNanosleep = nullptr;

// Before main, while the process has one thread.
__attribute__((constructor)) void resolve() {
    realLock = next<MutexCall>("pthread_mutex_lock");
    realTrylock = next<MutexCall>("pthread_mutex_trylock");
    realNanosleep = next<NanosleepCall>("nanosleep");
    realClockNanosleep = next<ClockNanosleepCall>("clock_nanosleep");
}

}  // namespace

extern "C" {
void* malloc(size_t size) { note(kMalloc); return __libc_malloc(size); }
void* calloc(size_t count, size_t size) { note(kMalloc); return __libc_calloc(count, size); }
void* realloc(void* p, size_t size) { note(kMalloc); return __libc_realloc(p, size); }
void* aligned_alloc(size_t alignment, size_t size) { note(kMalloc); return __libc_memalign(alignment, size); }
void* memalign(size_t alignment, size_t size) { note(kMalloc); return __libc_memalign(alignment, size); }
int posix_memalign(void** out, size_t alignment, size_t size) {
    note(kMalloc);
    *out = __libc_memalign(alignment, size);
    return *out == nullptr && size != 0 ? ENOMEM : 0;
}
void free(void* p) { note(kFree); __libc_free(p); }
int pthread_mutex_lock(pthread_mutex_t* m) { note(kMutex); return realLock(m); }
int pthread_mutex_trylock(pthread_mutex_t* m) { note(kMutex); return realTrylock(m); }
int nanosleep(const timespec* t, timespec* rest) { note(kSleep); return realNanosleep(t, rest); }
int clock_nanosleep(clockid_t c, int flags, const timespec* t, timespec* rest) {
    note(kSleep);
    return realClockNanosleep(c, flags, t, rest);
}
}

// new and delete in every form end in malloc and free above, except that a
// program may replace them; these make sure they are counted even then.
void* operator new(std::size_t size) {
    note(kMalloc);
    if (void* p = __libc_malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { note(kFree); __libc_free(p); }
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { operator delete(p); }

namespace {

// Runs `body` as the audio thread's real-time section.
template <typename Body>
void realtime(Body&& body) {
    watching = true;
    body();
    watching = false;
}

// One violation of `kind` inside the watched section, as a faulty adapter
// would commit it.
void commit(const std::string& kind) {
    static std::mutex mutex;
    void* block = kind == "free" ? std::malloc(16) : nullptr;
    int* object = kind == "delete" ? new int(1) : nullptr;
    realtime([&] {
        if (kind == "malloc") block = std::malloc(16);
        if (kind == "free") std::free(block);
        if (kind == "new") object = new int(1);
        if (kind == "delete") delete object;
        if (kind == "mutex") std::lock_guard<std::mutex> hold(mutex);
        if (kind == "sleep") std::this_thread::sleep_for(std::chrono::microseconds(1));
    });
    if (kind == "malloc") std::free(block);
    if (kind == "new") delete object;
}

// Streams `minutes` of a tone at `rate` at four times real time in blocks
// of 1 to 512 frames, after a first stretch fed all at once so that the
// underrun path runs too, with a transport jump halfway.
int stream(const std::vector<unsigned char>& model, double minutes, std::uint32_t rate) {
    tw_live_settings settings = tonwerk::live::defaultSettings();
    settings.sample_rate = rate;
    tonwerk::live::Adapter adapter(model, settings);
    const std::size_t total = static_cast<std::size_t>(minutes * 60 * rate);
    std::vector<float> input(2 * 512);
    std::vector<std::vector<float>> buffers(TW_OUTPUT_COUNT, std::vector<float>(2 * 512));
    float* outputs[TW_OUTPUT_COUNT];
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) outputs[s] = buffers[s].data();
    std::size_t calls = 0;
    bool ok = true;
    const std::size_t burst = 20 * 4096;  // fed at once, then paced
    std::chrono::steady_clock::time_point paced_from;
    for (std::size_t at = 0, frames = 1; at < total; at += frames, frames = (frames * 97 + 31) % 512 + 1) {
        for (std::size_t i = 0; i < frames; ++i) {
            input[2 * i] = input[2 * i + 1] = static_cast<float>(0.3 * std::sin(0.03 * static_cast<double>(at + i)));
        }
        realtime([&] {
            ok = adapter.process(input.data(), outputs, frames) && ok;
            if (at < total / 2 && at + frames >= total / 2) adapter.reset();
        });
        ++calls;
        if (at > burst) {
            // Against one start, so the overshoot of each wake-up does not add up over the run.
            if (paced_from == std::chrono::steady_clock::time_point{}) paced_from = std::chrono::steady_clock::now();
            std::this_thread::sleep_until(paced_from + std::chrono::microseconds((at + frames - burst) * 250000 / rate));
        }
    }
    std::printf("%zu process calls over %.1f minutes of audio, %llu frames of underrun\n", calls, minutes,
                static_cast<unsigned long long>(adapter.underruns()));
    return ok ? 0 : 1;
}

int report() {
    long total = 0;
    for (int k = 0; k < kKinds; ++k) {
        const long count = violations[k].load();
        if (count != 0) std::printf("audio thread: %ld calls of kind %s\n", count, kKindNames[k]);
        total += count;
    }
    return total == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: tonwerk-realtime-promise MODEL [--minutes M [--rate HZ] | --canary KIND]\n");
        return 2;
    }
    const std::string option = argc > 2 ? argv[2] : "";
    if (option == "--canary" && argc > 3) {
        commit(argv[3]);
        return report();
    }
    const double minutes = option == "--minutes" && argc > 3 ? std::atof(argv[3]) : 2.0;
    const auto rate = static_cast<std::uint32_t>(argc > 5 && std::string(argv[4]) == "--rate" ? std::atol(argv[5]) : 44100);
    if (stream(tonwerk::test::readModel(argv[1]), minutes, rate) != 0) {
        std::printf("process refused a call: %s\n", tw_live_last_error());
        return 1;
    }
    return report();
}
