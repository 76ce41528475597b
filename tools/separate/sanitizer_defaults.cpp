// Built into tonwerk-separate only for sanitizer builds. ONNX Runtime is not
// built with the sanitizers, and its environment keeps one small allocation
// until the process ends, which LeakSanitizer would report and turn into a
// failing exit status. That allocation alone is suppressed; finding its
// frame needs the slow unwinder, since the runtime has no frame pointers.
extern "C" {

__attribute__((used, visibility("default"))) const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0:malloc_context_size=64";
}

__attribute__((used, visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:Ort::Env::Env\n";
}

}  // extern "C"
