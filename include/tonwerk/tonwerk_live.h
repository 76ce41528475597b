/* Tonwerk Multistem live, C interface: separation with a fixed delay of a
 * fraction of a second, for live input and audio callbacks.
 *
 * Two levels:
 *   - an engine (tw_live_engine) runs the model on the caller's thread, one
 *     run per block of tw_live_engine_block_frames() frames;
 *   - an adapter (tw_live_adapter) takes blocks of any size up to a declared
 *     maximum from an audio callback and returns exactly as many frames of
 *     every output at once, delayed by a fixed latency; its engine runs on a
 *     worker thread the adapter owns.
 *
 * Usage from an audio callback:
 *
 *   tw_live_settings settings;
 *   tw_live_default_settings(&settings);
 *   settings.max_block = 256;            // the host's largest block
 *   tw_live_adapter* live = NULL;
 *   if (tw_live_adapter_create(bytes, size, &settings, &live) != TW_OK)
 *       fprintf(stderr, "%s\n", tw_live_last_error());
 *   tw_live_latency latency;
 *   tw_live_adapter_latency(live, &latency);   // report latency.total to the host
 *   ...
 *   callback(in, frames): float* outs[TW_OUTPUT_COUNT] = {...};
 *                         tw_live_adapter_process(live, in, outs, frames);
 *   ...
 *   tw_live_adapter_destroy(live);
 *
 * examples/live_jack.c is a complete JACK client.
 *
 * How it works: the model sees the same 256-frame spectrogram (4096-sample
 * Blackman frames, hop 1024) as the offline processor, but runs on it every
 * `update` hops; each run hands out the `update` frames that now have
 * `lookahead` frames of future context after them. Compute grows as
 * 256 / update model runs per 256 hops. A model whose input declares fewer
 * frames (a live export, e.g. 96) is run on that many, the newest ones:
 * enough for a network that reaches a few seconds around a frame, at a
 * fraction of the work; update + lookahead must fit in its frames.
 *
 * Latency (frames at 44100 Hz), fixed at creation and known before the
 * first block:
 *   engine:  lookahead = 1024 * lookahead
 *            output delay = 3072 (overlap-add)
 *   adapter: lookahead as above
 *            output delay = 3072 + 2 * 1024 * update + max_block (one block
 *            to gather, one block's time for the model, one host block)
 * With the defaults (update 4, lookahead 4, max_block 512) the adapter's
 * total is 15872 frames, 0.36 s.
 *
 * Host rates: an adapter made with another sample_rate (22050 to 192000
 * Hz) converts its input to 44100 Hz and every output back with a
 * windowed-sinc converter (16 zero crossings, Kaiser window, 92 % of the
 * lower Nyquist band kept), on the audio thread, without allocating. Its
 * latency, lookahead, max_block and underrun counts are then in host
 * frames; the latency adds both converters' reach, and output frame n is
 * still exactly input frame n - total.
 *
 * Outputs: eight buffers of interleaved stereo in the order of
 * tonwerk_c.h's TW_OUTPUT_*: six stems, residual (the delayed input minus
 * the stems), mix (the stems summed). Frames whose model output was not
 * ready in time (an underrun) hold the delayed input instead, shared out
 * over the stems and the residual as the model's last block shared it, so
 * the residual plus the stems is always the delayed input and a stem a
 * host turns down stays about as quiet as it was. Each switch between the
 * model's output and the input is a linear crossfade of 128 frames.
 *
 * Threading: the library starts one thread per adapter, none for engines,
 * and each model run uses `threads` threads: with more than one, ONNX
 * Runtime keeps threads - 1 helpers per handle, asleep between runs. One
 * thread per instance leaves the other cores to the host and to other
 * instances; more shortens each run where cores are free.
 * An engine must be used by one thread at a time. An adapter's process,
 * reset and set_offline calls belong to one thread at a time (the audio
 * thread); in real-time mode tw_live_adapter_process never allocates, locks,
 * waits or makes a system call once created (only its error path writes a
 * message). The other functions may be called from any thread.
 *
 * Ownership: handles are owned by the caller until destroyed. Model bytes
 * are read only during creation. Each handle loads its own copy of the model.
 *
 * Tests of hosts can place underruns on any machine, read when an adapter
 * is created: TONWERK_LIVE_TEST_HOLD="3,7-9" holds input blocks 3, 7, 8 and
 * 9 of each stream back until the adapter decides on them (missed in real
 * time, waited for offline); TONWERK_LIVE_TEST_STALL makes them late even
 * offline. Never set them in production.
 *
 * Errors: as in tonwerk_c.h, a tw_status, with the calling thread's message
 * in tw_live_last_error(); no exception or signal leaves the library.
 */
#ifndef TONWERK_LIVE_H
#define TONWERK_LIVE_H

#include "tonwerk_c.h"

#if defined(_WIN32)
#  if defined(TONWERK_LIVE_BUILDING_LIBRARY)
#    define TW_LIVE_API __declspec(dllexport)
#  else
#    define TW_LIVE_API __declspec(dllimport)
#  endif
#else
#  define TW_LIVE_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Fill it with tw_live_default_settings and change what you need: the
 * library reads `size` to know which version of this record the host was
 * compiled with. Later versions only add fields at the end and give a host
 * that passes a smaller record the defaults for them, so a host keeps
 * working with a newer library. */
typedef struct tw_live_settings {
    uint32_t size;      /* sizeof(tw_live_settings) as the host was compiled; tw_live_default_settings sets it */
    uint32_t stem_mask; /* TW_STEM_* bits: the stems to ask the model for */
    uint32_t update;    /* hops (1024 frames) of new input per model run, 1..256 */
    uint32_t lookahead; /* frames of future context, 0..F - update (F: the model's frames, 256 or fewer) */
    uint32_t max_block; /* adapter: most frames per tw_live_adapter_process call, >= 1 */
    int offline;        /* adapter: non-zero waits for the model instead of counting underruns */
    uint32_t threads;   /* threads one model run uses, the caller's (or the worker's) included, 1..64;
                           the helpers sleep between runs instead of spinning */
    int gpu;            /* non-zero tries the GPU execution providers the offline processor tries,
                           in its order; zero (the default) runs on the CPU and tries none */
    uint32_t sample_rate; /* adapter: the host's rate in Hz, 22050..192000 (default 44100, the model's);
                             engines run at 44100 only */
} tw_live_settings;

typedef struct tw_live_latency {
    size_t lookahead;    /* frames of future input each output frame was computed with */
    size_t output_delay; /* frames of delay beyond the lookahead */
    size_t total;        /* lookahead + output_delay: output frame n is input frame n - total */
} tw_live_latency;

typedef struct tw_live_engine tw_live_engine;
typedef struct tw_live_adapter tw_live_adapter;

/* All stems, update 4, lookahead 4, max_block 512, real time, one thread,
 * CPU only, 44100 Hz. The macro passes the record's size as the host was
 * compiled, so the library never writes past it; call the function itself
 * only from bindings that state the size of their own record. */
TW_LIVE_API void tw_live_settings_init(tw_live_settings* settings, size_t size);
#define tw_live_default_settings(settings) tw_live_settings_init((settings), sizeof *(settings))

/* The calling thread's message of its last failed call ("" if none). */
TW_LIVE_API const char* tw_live_last_error(void);

/* An engine for one stream from `size` bytes of a plain (unscrambled) model;
 * `settings` NULL means the defaults. On failure *engine is NULL. */
TW_LIVE_API tw_status tw_live_engine_create(const void* bytes, size_t size, const tw_live_settings* settings,
                                            tw_live_engine** engine);
TW_LIVE_API void tw_live_engine_destroy(tw_live_engine* engine);
TW_LIVE_API tw_status tw_live_engine_latency(const tw_live_engine* engine, tw_live_latency* latency);
/* Frames every tw_live_engine_process call takes and gives: 1024 * update. */
TW_LIVE_API tw_status tw_live_engine_block_frames(const tw_live_engine* engine, size_t* frames);
/* Runs the model once: `input` holds block-frames interleaved stereo frames,
 * each of the TW_OUTPUT_COUNT `outputs` room for as many. */
TW_LIVE_API tw_status tw_live_engine_process(tw_live_engine* engine, const float* input, float* const* outputs);
/* Forgets the stream: the next block starts a new one. */
TW_LIVE_API tw_status tw_live_engine_reset(tw_live_engine* engine);

/* An adapter with its worker thread; `settings` NULL means the defaults. */
TW_LIVE_API tw_status tw_live_adapter_create(const void* bytes, size_t size, const tw_live_settings* settings,
                                             tw_live_adapter** adapter);
/* Stops the worker and frees everything; NULL is ignored. */
TW_LIVE_API void tw_live_adapter_destroy(tw_live_adapter* adapter);
TW_LIVE_API tw_status tw_live_adapter_latency(const tw_live_adapter* adapter, tw_live_latency* latency);
/* `frames` (0..max_block) interleaved stereo frames in; exactly `frames`
 * frames of every output out, each of the TW_OUTPUT_COUNT `outputs` with
 * room for 2 * frames floats. */
TW_LIVE_API tw_status tw_live_adapter_process(tw_live_adapter* adapter, const float* input, float* const* outputs,
                                              size_t frames);
/* For a transport jump: the stream starts anew, output is silent for the
 * latency. Call it from the thread that calls process. */
TW_LIVE_API tw_status tw_live_adapter_reset(tw_live_adapter* adapter);
/* Non-zero: wait for the model (deterministic renders); zero: real time. */
TW_LIVE_API tw_status tw_live_adapter_set_offline(tw_live_adapter* adapter, int offline);
/* Frames so far that came out without model output. */
TW_LIVE_API tw_status tw_live_adapter_underruns(const tw_live_adapter* adapter, uint64_t* frames);

#ifdef __cplusplus
}
#endif

#endif /* TONWERK_LIVE_H */
