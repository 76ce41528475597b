"""Where a training step's time goes: data (segments, augmentation), the
transforms, the forward pass, the loss, the backward pass and the optimiser
(clipping, the step, the weights' average), for one preset and batch shape.

    PYTHONPATH=python python3 bench/train_step_bench.py [--preset cpu] [--batch 8] [--frames 128]
                                                        [--steps 20] [--threads N] [--data KIND:ROOT]

Without --data it trains on eight noise songs of 30 s written to a temporary
folder: the step's cost does not depend on what the audio holds. Prints a
table of milliseconds per step and per example, and one JSON line.
"""
import argparse
import json
import os
import sys
import tempfile
import time

import numpy as np
import soundfile
import torch

from tonwerk_train import train
from tonwerk_train.model import PRESETS, ModelConfig, Separator
from tonwerk_train.song_cache import SongCache
from tonwerk_train.stems import STEMS

PHASES = ("data", "transform", "forward", "loss", "backward", "optimiser")


def noise_songs(folder, count=8, seconds=30):
    rng = np.random.default_rng(1)
    for index in range(count):
        song = os.path.join(folder, "song%d" % index)
        os.makedirs(song)
        for name in STEMS + ("other",):
            audio = (0.05 * rng.standard_normal((seconds * 44100, 2))).astype(np.float32)
            soundfile.write(os.path.join(song, name + ".flac"), audio, 44100, subtype="PCM_16")
    return ["folder:" + folder]


class Clock:
    """Adds the wall time of each phase; torch runs eagerly on the CPU, so a phase ends when its call returns."""

    def __init__(self):
        self.totals = dict.fromkeys(PHASES, 0.0)
        self.last = time.perf_counter()

    def lap(self, phase):
        now = time.perf_counter()
        self.totals[phase] += now - self.last
        self.last = now


def measure(args, cache):
    config = {**train.SETTINGS, "batch": args.batch, "frames": args.frames}
    torch.manual_seed(1)
    model = Separator(ModelConfig.from_dict(PRESETS[args.preset].to_dict()))
    average = train.Average(model, config["ema"])
    optimizer = torch.optim.AdamW(model.parameters(), lr=1e-3, weight_decay=1e-4)
    for step in range(args.warmup + args.steps):
        if step in (0, args.warmup):  # the warm-up's times are dropped
            clock = Clock()
        rng = np.random.default_rng([1, step])
        train.train_step(model, average, optimizer, cache, config, rng, step, "cpu", clock.lap)
    return {phase: 1000 * total / args.steps for phase, total in clock.totals.items()}


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--preset", choices=sorted(PRESETS), default="cpu")
    parser.add_argument("--batch", type=int, default=8)
    parser.add_argument("--frames", type=int, default=128)
    parser.add_argument("--steps", type=int, default=20)
    parser.add_argument("--warmup", type=int, default=3)
    parser.add_argument("--threads", type=int, default=os.cpu_count())
    parser.add_argument("--data", action="append")
    parser.add_argument("--system-allocation", action="store_true",
                        help="leave glibc's allocator as it is instead of as training sets it")
    args = parser.parse_args(argv)
    torch.set_num_threads(args.threads)
    if not args.system_allocation:
        train.keep_freed_memory()
    with tempfile.TemporaryDirectory() as folder:
        locations = args.data or noise_songs(os.path.join(folder, "songs"))
        cache = SongCache(train.read_songs(locations), os.path.join(folder, "cache"))
        times = measure(args, cache)
    step = sum(times.values())
    print("%-10s %10s %12s" % ("phase", "ms/step", "ms/example"))
    for phase, ms in list(times.items()) + [("step", step)]:
        print("%-10s %10.1f %12.2f" % (phase, ms, ms / args.batch))
    print(json.dumps({"preset": args.preset, "batch": args.batch, "frames": args.frames, "threads": args.threads,
                      "ms_per_step": step, "ms_per_example": step / args.batch, "phases_ms": times}))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
