// Sanitizer defaults, built into every program of a sanitizer build.
//
// AddressSanitizer: ONNX Runtime is built without the sanitizers and keeps a
// few allocations for the life of the process, which LeakSanitizer would
// report as lost: one made when the first environment is created (14 bytes
// with 1.30), and what its worker threads allocate in one-time initialisers.
// Only those are suppressed, by the frames that make them; reaching those
// frames needs the slow unwinder and a deeper stack than the default, since
// the runtime's own frames carry no frame pointers.
//
// The report of used suppressions is left out: it would land on the standard
// error of every tool run, which the tool tests read.
//
// ThreadSanitizer: ONNX Runtime is loaded as a prebuilt, uninstrumented
// library. Its worker threads and the lock-free queues and atomics that hand
// work to them and back are invisible to the sanitizer, which only sees the
// runtime's calls to intercepted functions (memcpy, malloc, pthread). Any
// access made there, or a free at exit of memory one of its threads last
// touched, looks unsynchronised although the runtime orders it. Races with a
// runtime frame on either side are therefore suppressed; everything between
// the project's own threads, its logger and its processors stays checked.
// Every buffer the runtime copies is a new racy address, and the sanitizer's
// de-duplication of reports by address searches a list of all earlier ones:
// quadratic, minutes per stream. It is turned off; halt_on_error stops at the
// first report that is not suppressed anyway.
//
// Settings given in ASAN_OPTIONS / LSAN_OPTIONS / TSAN_OPTIONS still override these.

extern "C" {

__attribute__((used, visibility("default"))) const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0:malloc_context_size=64";
}

__attribute__((used, visibility("default"))) const char* __lsan_default_options() {
    return "print_suppressions=0";
}

__attribute__((used, visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:Ort::Env::Env\n"
           "leak:__pthread_once_slow\n";
}

__attribute__((used, visibility("default"))) const char* __tsan_default_options() {
    return "print_suppressions=0:halt_on_error=1:suppress_equal_addresses=0";
}

__attribute__((used, visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:libonnxruntime_pelagrin.so\n";
}

}  // extern "C"
