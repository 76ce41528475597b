#!/usr/bin/env python3
"""The tonwerk Python package as a whole program: raw 32-bit float interleaved
stereo at 44100 Hz in (the machine's byte order), one raw file per stem out,
each as long as the input.

    separate_raw.py MODEL INPUT.f32 OUTDIR [BLOCK_FRAMES]

Exit status: 0 done, 2 usage error, 3 any other error.
"""
import os
import sys

import numpy as np

import tonwerk


def main(argv):
    if len(argv) not in (4, 5) or (len(argv) == 5 and not (argv[4].isdigit() and 0 < int(argv[4]) <= 10**8)):
        print("usage: separate_raw.py MODEL INPUT.f32 OUTDIR [BLOCK_FRAMES]", file=sys.stderr)
        return 2
    model, source, out_dir = argv[1:4]
    block = int(argv[4]) if len(argv) == 5 else 4096
    try:
        audio = np.fromfile(source, dtype=np.float32)
        audio = audio[: audio.size // 2 * 2].reshape(-1, 2)
        stems = tonwerk.Separator(model).separate(audio, block_frames=block)
        for name, samples in stems.items():
            samples.tofile(os.path.join(out_dir, name + ".f32"))
    except (OSError, tonwerk.TonwerkError) as error:
        print("separate_raw.py: %s" % error, file=sys.stderr)
        return 3
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
