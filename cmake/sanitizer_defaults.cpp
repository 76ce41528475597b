// Sanitizer defaults, built into every program of a sanitizer build.
//
// The runtime is built without the sanitizers, and the first environment it
// creates keeps one small allocation for the rest of the process (14 bytes
// with 1.30) that LeakSanitizer reports as lost. Only that allocation is
// suppressed, by the wrapper constructor that triggers it; reaching that
// frame needs the slow unwinder and a deeper stack than the default, since
// the runtime's own frames carry no frame pointers.
//
// Settings given in ASAN_OPTIONS / LSAN_OPTIONS still override these.

extern "C" {

__attribute__((used, visibility("default"))) const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0:malloc_context_size=64";
}

__attribute__((used, visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:Ort::Env::Env\n";
}

}  // extern "C"
