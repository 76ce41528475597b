/* A JACK client that separates its stereo input live: two input ports, and
 * a stereo pair of output ports for each of the eight outputs (vocals_l,
 * vocals_r, drum_l, ..., mix_r), each delayed by the latency it reports to
 * JACK.
 *
 *   tonwerk-live-jack MODEL [SECONDS]
 *
 * Runs until SECONDS have passed (default: until Ctrl-C), then prints the
 * frames that came out without model output (underruns). The adapter's
 * largest block is JACK's buffer size at start.
 */
#include "tonwerk/tonwerk_live.h"

#include <jack/jack.h>

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const char* const kOutputNames[TW_OUTPUT_COUNT] = {
    "vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass", "residual", "mix"};

typedef struct Host {
    tw_live_adapter* live;
    jack_port_t* in[2];
    jack_port_t* out[TW_OUTPUT_COUNT][2];
    jack_nframes_t max_block;
    size_t latency;
    float* interleaved_in;                  /* 2 * max_block, made before the first callback */
    float* interleaved_out[TW_OUTPUT_COUNT];
} Host;

static volatile sig_atomic_t stop = 0;
static void on_signal(int sig) { (void)sig; stop = 1; }

/* The audio thread: interleave, separate, deinterleave. Nothing here
 * allocates, locks or waits. */
static int process(jack_nframes_t frames, void* arg) {
    Host* host = arg;
    if (frames > host->max_block) return 1; /* tonwerk-live-jack stops on buffer size changes */
    const float* left = jack_port_get_buffer(host->in[0], frames);
    const float* right = jack_port_get_buffer(host->in[1], frames);
    for (jack_nframes_t i = 0; i < frames; ++i) {
        host->interleaved_in[2 * i] = left[i];
        host->interleaved_in[2 * i + 1] = right[i];
    }
    tw_live_adapter_process(host->live, host->interleaved_in, host->interleaved_out, frames);
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) {
        for (int c = 0; c < 2; ++c) {
            float* port = jack_port_get_buffer(host->out[s][c], frames);
            for (jack_nframes_t i = 0; i < frames; ++i) port[i] = host->interleaved_out[s][2 * i + c];
        }
    }
    return 0;
}

/* The widest of the ranges of `ports` in `mode`. */
static jack_latency_range_t widest(jack_port_t* const* ports, int count, jack_latency_callback_mode_t mode) {
    jack_latency_range_t all = {UINT32_MAX, 0};
    for (int i = 0; i < count; ++i) {
        jack_latency_range_t range;
        jack_port_get_latency_range(ports[i], mode, &range);
        if (range.min < all.min) all.min = range.min;
        if (range.max > all.max) all.max = range.max;
    }
    if (all.min > all.max) all.min = all.max;
    return all;
}

/* Every output lags the inputs by the adapter's latency. JACK asks twice:
 * for capture latency, which flows downstream (what reaches our outputs is
 * that much older than what reached our inputs), and for playback latency,
 * which flows upstream (what enters our inputs is heard that much later
 * than what leaves our outputs). */
static void report_latency(jack_latency_callback_mode_t mode, void* arg) {
    Host* host = arg;
    jack_port_t* outs[2 * TW_OUTPUT_COUNT];
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) {
        for (int c = 0; c < 2; ++c) outs[2 * s + c] = host->out[s][c];
    }
    const int capture = mode == JackCaptureLatency;
    jack_latency_range_t range = capture ? widest(host->in, 2, mode) : widest(outs, 2 * TW_OUTPUT_COUNT, mode);
    range.min += (jack_nframes_t)host->latency;
    range.max += (jack_nframes_t)host->latency;
    jack_port_t* const* targets = capture ? outs : host->in;
    const int count = capture ? 2 * TW_OUTPUT_COUNT : 2;
    for (int i = 0; i < count; ++i) jack_port_set_latency_range(targets[i], mode, &range);
}

static int buffer_size_changed(jack_nframes_t frames, void* arg) {
    Host* host = arg;
    if (frames > host->max_block) {
        fprintf(stderr, "tonwerk-live-jack: JACK's buffer grew to %u frames beyond %u; restart me\n", frames,
                host->max_block);
        stop = 1;
    }
    return 0;
}

static unsigned char* read_file(const char* path, size_t* size) {
    FILE* file = fopen(path, "rb");
    if (!file) return NULL;
    fseek(file, 0, SEEK_END);
    long length = ftell(file);
    fseek(file, 0, SEEK_SET);
    unsigned char* bytes = length > 0 ? malloc((size_t)length) : NULL;
    *size = bytes && fread(bytes, 1, (size_t)length, file) == (size_t)length ? (size_t)length : 0;
    fclose(file);
    return bytes;
}

static int register_ports(jack_client_t* client, Host* host) {
    char name[64];
    for (int c = 0; c < 2; ++c) {
        snprintf(name, sizeof name, "in_%c", c == 0 ? 'l' : 'r');
        host->in[c] = jack_port_register(client, name, JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        if (!host->in[c]) return -1;
        for (int s = 0; s < TW_OUTPUT_COUNT; ++s) {
            snprintf(name, sizeof name, "%s_%c", kOutputNames[s], c == 0 ? 'l' : 'r');
            host->out[s][c] = jack_port_register(client, name, JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
            if (!host->out[s][c]) return -1;
        }
    }
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: tonwerk-live-jack MODEL [SECONDS]\n");
        return 2;
    }
    const double seconds = argc > 2 ? atof(argv[2]) : 0;
    jack_client_t* client = jack_client_open("tonwerk-live", JackNoStartServer, NULL);
    if (!client) {
        fprintf(stderr, "tonwerk-live-jack: no JACK server is running\n");
        return 1;
    }
    Host host = {0};
    host.max_block = jack_get_buffer_size(client);
    size_t size = 0;
    unsigned char* model = read_file(argv[1], &size);
    tw_live_settings settings;
    tw_live_default_settings(&settings);
    settings.max_block = host.max_block;
    settings.sample_rate = jack_get_sample_rate(client); /* other rates than 44100 are converted */
    if (!model || tw_live_adapter_create(model, size, &settings, &host.live) != TW_OK) {
        fprintf(stderr, "tonwerk-live-jack: %s\n", model ? tw_live_last_error() : "cannot read the model");
        return 1;
    }
    free(model);
    tw_live_latency latency;
    tw_live_adapter_latency(host.live, &latency);
    host.latency = latency.total;
    host.interleaved_in = calloc(2 * host.max_block, sizeof(float));
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) host.interleaved_out[s] = calloc(2 * host.max_block, sizeof(float));
    if (register_ports(client, &host) != 0) {
        fprintf(stderr, "tonwerk-live-jack: cannot register ports\n");
        return 1;
    }
    jack_set_process_callback(client, process, &host);
    jack_set_latency_callback(client, report_latency, &host);
    jack_set_buffer_size_callback(client, buffer_size_changed, &host);
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    if (jack_activate(client) != 0) {
        fprintf(stderr, "tonwerk-live-jack: cannot activate the client\n");
        return 1;
    }
    printf("latency: %zu frames (%.1f ms at %u Hz), largest block %u frames\n", latency.total,
           1000.0 * (double)latency.total / settings.sample_rate, settings.sample_rate, host.max_block);
    fflush(stdout);
    for (double waited = 0; !stop && (seconds <= 0 || waited < seconds); waited += 0.1) usleep(100000);
    jack_deactivate(client);
    jack_client_close(client);
    uint64_t underruns = 0;
    tw_live_adapter_underruns(host.live, &underruns);
    printf("underruns: %llu frames\n", (unsigned long long)underruns);
    tw_live_adapter_destroy(host.live);
    free(host.interleaved_in);
    for (int s = 0; s < TW_OUTPUT_COUNT; ++s) free(host.interleaved_out[s]);
    return 0;
}
