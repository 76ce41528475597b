/* The usage example of tonwerk/tonwerk_c.h as a whole program: raw 32-bit
 * float interleaved stereo at 44100 Hz in (the machine's byte order), one raw
 * file per stem out, each as long as the input.
 *
 *   tonwerk-example-c MODEL INPUT.f32 OUTDIR [BLOCK_FRAMES]
 *
 * Exit status: 0 done, 2 usage error, 3 any other error. */
#include "tonwerk/tonwerk_c.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char* const kStems[TW_OUTPUT_COUNT] = {"vocals", "drum", "piano", "acoustic_guitar",
                                                     "electric_guitar", "bass", "residual", "mix"};

static int fail(const char* what) {
    fprintf(stderr, "tonwerk-example-c: %s\n", what);
    return 3;
}

/* The whole file in one malloc'ed buffer; NULL if it cannot be read. */
static void* readFile(const char* path, size_t* size) {
    FILE* file = fopen(path, "rb");
    void* bytes = NULL;
    long length;
    if (file == NULL) return NULL;
    if (fseek(file, 0, SEEK_END) == 0 && (length = ftell(file)) >= 0 && fseek(file, 0, SEEK_SET) == 0) {
        bytes = malloc((size_t)length + 1);
        if (bytes != NULL && fread(bytes, 1, (size_t)length, file) != (size_t)length) {
            free(bytes);
            bytes = NULL;
        }
        *size = (size_t)length;
    }
    fclose(file);
    return bytes;
}

static int run(tw_processor* proc, const float* input, size_t frames, size_t block, FILE** files) {
    size_t at = 0;
    do {
        const size_t n = frames - at < block ? frames - at : block;
        tw_output out;
        int s;
        if (tw_processor_process(proc, input + 2 * at, n, at + n == frames, &out) != TW_OK) return fail(tw_last_error());
        for (s = 0; s < TW_OUTPUT_COUNT; ++s) {
            if (out.frames > 0 && fwrite(out.stems[s], sizeof(float), 2 * out.frames, files[s]) != 2 * out.frames) {
                return fail("cannot write the stems");
            }
        }
        at += n;
    } while (at < frames);
    return 0;
}

int main(int argc, char** argv) {
    char* end = NULL;
    const long block = argc == 5 ? strtol(argv[4], &end, 10) : 4096;
    size_t modelSize = 0, inputSize = 0;
    void *model, *input;
    tw_context* context = NULL;
    tw_processor* proc = NULL;
    FILE* files[TW_OUTPUT_COUNT] = {NULL};
    int status = 0, s;
    if ((argc != 4 && argc != 5) || (end != NULL && *end != '\0') || block <= 0 || block > 100000000) {
        fprintf(stderr, "usage: tonwerk-example-c MODEL INPUT.f32 OUTDIR [BLOCK_FRAMES]\n");
        return 2;
    }
    model = readFile(argv[1], &modelSize);
    input = readFile(argv[2], &inputSize);
    if (model == NULL || input == NULL) {
        status = fail("cannot read the model or the input");
    } else if (tw_context_create(model, modelSize, NULL, 0, &context) != TW_OK ||
               tw_processor_create(context, TW_STEMS_ALL, &proc) != TW_OK) {
        status = fail(tw_last_error());
    }
    for (s = 0; s < TW_OUTPUT_COUNT && status == 0; ++s) {
        char path[4096];
        snprintf(path, sizeof path, "%s/%s.f32", argv[3], kStems[s]);
        if ((files[s] = fopen(path, "wb")) == NULL) status = fail("cannot write the stems");
    }
    if (status == 0) status = run(proc, (const float*)input, inputSize / (2 * sizeof(float)), (size_t)block, files);
    for (s = 0; s < TW_OUTPUT_COUNT; ++s) {
        if (files[s] != NULL && fclose(files[s]) != 0 && status == 0) status = fail("cannot write the stems");
    }
    tw_processor_destroy(proc);
    tw_context_release(context);
    free(model);
    free(input);
    return status;
}
