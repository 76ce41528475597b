/* Tonwerk Multistem, C interface: streaming separation of stereo music into
 * stems, for hosts in C or any language that can call C (and for C++ hosts
 * built with another compiler than the library).
 *
 * Usage:
 *
 *   tw_context* context = NULL;
 *   tw_processor* proc = NULL;
 *   if (tw_context_create(bytes, size, NULL, 0, &context) != TW_OK ||
 *       tw_processor_create(context, TW_STEMS_ALL, &proc) != TW_OK) {
 *       fprintf(stderr, "%s\n", tw_last_error());
 *   }
 *   tw_context_release(context);    // the processor keeps the model alive
 *   tw_output out;
 *   for (each block of `frames` interleaved stereo frames at 44100 Hz) {
 *       if (tw_processor_process(proc, block, frames, is_last, &out) != TW_OK) { ... }
 *       for (int s = 0; s < TW_OUTPUT_COUNT; ++s)
 *           use(out.stems[s], 2 * out.frames);  // nothing when out.frames == 0
 *   }
 *   tw_processor_destroy(proc);
 *
 * examples/separate_raw.c is this example as a complete program.
 *
 * Errors: failures are reported as a tw_status; TW_OK is 0. On
 * failure tw_last_error() gives a one-line message, kept per thread until
 * that thread's next failing call. No exception and no signal leaves the
 * library for bad input; a NULL handle or pointer is an error status too.
 *
 * Ownership: handles are opaque and owned by the caller until released or
 * destroyed. Model bytes and key are read only during tw_context_create. A
 * processor holds its context: releasing the context while processors live
 * is allowed, the model stays loaded until the last of them is destroyed.
 *
 * Threading: the library starts no thread. One processor must be used by one
 * thread at a time, and processors of one context share one model session,
 * so their tw_processor_create and tw_processor_process calls must not
 * overlap. Different contexts may be created, used and freed on different
 * threads at once. The first context created while no logger exists sets up
 * logging and tears it down when its model is freed; records other threads
 * are printing then are finished first, and nothing is printed afterwards
 * until another context is created.
 *
 * Logging: the library writes its warnings and errors as text lines to the
 * process's standard output (for example that a GPU execution provider could
 * not be set up), and ONNX Runtime may write to standard error. A host that
 * uses standard output for data must redirect it around library calls.
 *
 * Stem choice: tw_processor_create stores its stem mask in the context's
 * model session, and the processor created last decides the stems for every
 * processor of that context. Use one context per stem choice.
 *
 * Units: samples are 32-bit floats at 44100 Hz, interleaved stereo
 * (L R L R ...); sizes are frames (one left and one right sample).
 *
 * Latency: output comes in bursts, one per model run. Nothing is returned
 * until the stream holds tw_processor_latency() frames (257024, 5.83 s); the
 * call that gets there returns the first burst. After that the model runs
 * again each time roughly another 250880 frames have arrived (the exact
 * points follow the block sizes), each burst holding at most 259072 frames.
 * The call with
 * `eof` returns the rest: over a whole stream every stem is exactly as long
 * as the input. With a real model the stems depend slightly on the block
 * schedule, since the model runs on chunks whose borders follow the blocks.
 *
 * Every function that can fail returns a tw_status; the four that cannot
 * (tw_version, tw_last_error, tw_context_release, tw_processor_destroy) do not.
 */
#ifndef TONWERK_C_H
#define TONWERK_C_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  if defined(TONWERK_C_BUILDING_LIBRARY)
#    define TW_API __declspec(dllexport)
#  else
#    define TW_API __declspec(dllimport)
#  endif
#else
#  define TW_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum tw_status {
    TW_OK = 0,
    TW_ERROR_INVALID_ARGUMENT = 1, /* a NULL pointer, a size or mask out of range, input that is not frames */
    TW_ERROR_BUFFER_OVERFLOW = 2,  /* the block does not fit; nothing was taken, send smaller blocks */
    TW_ERROR_RUNTIME = 3,          /* the runtime or the model could not be loaded, or another failure */
    TW_ERROR_OUT_OF_MEMORY = 4
} tw_status;

/* Stem bits for tw_processor_create, in the order of the outputs. */
#define TW_STEM_VOCALS 0x01u
#define TW_STEM_DRUM 0x02u
#define TW_STEM_PIANO 0x04u
#define TW_STEM_ACOUSTIC_GUITAR 0x08u
#define TW_STEM_ELECTRIC_GUITAR 0x10u
#define TW_STEM_BASS 0x20u
#define TW_STEMS_ALL 0x3Fu

/* Outputs of a processor, indexes into tw_output.stems. */
enum {
    TW_OUTPUT_VOCALS = 0,
    TW_OUTPUT_DRUM,
    TW_OUTPUT_PIANO,
    TW_OUTPUT_ACOUSTIC_GUITAR,
    TW_OUTPUT_ELECTRIC_GUITAR,
    TW_OUTPUT_BASS,
    TW_OUTPUT_RESIDUAL, /* the input minus the six stems */
    TW_OUTPUT_MIX,      /* the six stems summed */
    TW_OUTPUT_COUNT
};

typedef struct tw_context tw_context;
typedef struct tw_processor tw_processor;

/* The result of one tw_processor_process call. */
typedef struct tw_output {
    size_t frames; /* frames in each stem; 0 when the call returned nothing */
    /* Interleaved stereo, 2 * frames floats each; NULL when frames is 0.
     * Owned by the processor and valid until its next tw_processor_process
     * call or its destruction. */
    const float* stems[TW_OUTPUT_COUNT];
} tw_output;

/* Library version, "MAJOR.MINOR.PATCH"; static storage. */
TW_API const char* tw_version(void);

/* The calling thread's message of its last failed call ("" if none). Valid
 * until that thread's next failed call. */
TW_API const char* tw_last_error(void);

/* Loads a model from `size` bytes. `key` (key_len bytes, may be NULL when
 * key_len is 0) undoes XOR scrambling of the bytes. Loads the ONNX Runtime
 * from beside the library on first use. On success *context is a new handle;
 * on failure it is set to NULL. */
TW_API tw_status tw_context_create(const void* bytes, size_t size, const char* key, size_t key_len,
                                   tw_context** context);

/* Gives up the caller's handle; NULL is ignored. Processors made from it
 * keep the model loaded; the model is freed with the last of them. */
TW_API void tw_context_release(tw_context* context);

/* A processor for one stream of interleaved stereo. `stem_mask` is a set of
 * TW_STEM_* bits: the stems to ask the model for (the others come back silent
 * and their share stays in the residual). The mask applies to every
 * processor of `context` from now on (see "Stem choice" above). */
TW_API tw_status tw_processor_create(tw_context* context, uint32_t stem_mask, tw_processor** processor);

/* Ends the stream and frees the processor; NULL is ignored. */
TW_API void tw_processor_destroy(tw_processor* processor);

/* Frames one tw_processor_process call should carry at most right now
 * (257024 before the first model run, 254976 afterwards). */
TW_API tw_status tw_processor_max_input(const tw_processor* processor, size_t* frames);

/* Frames of input before the first output (257024). */
TW_API tw_status tw_processor_latency(const tw_processor* processor, size_t* frames);

/* Pushes `frames` interleaved stereo frames (2 * frames floats; `input` may
 * be NULL when frames is 0) and fills *out. `eof` non-zero ends the stream
 * and returns everything still held; a processor serves one stream. On
 * failure *out is empty; after TW_ERROR_INVALID_ARGUMENT and
 * TW_ERROR_BUFFER_OVERFLOW the stream is as it was before the call. */
TW_API tw_status tw_processor_process(tw_processor* processor, const float* input, size_t frames, int eof,
                                      tw_output* out);

#ifdef __cplusplus
}
#endif

#endif /* TONWERK_C_H */
