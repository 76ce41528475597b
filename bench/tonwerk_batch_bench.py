"""Batch throughput: songs per minute of python3 -m tonwerk.batch with 1 and
2 local worker processes, and one tonwerk-separate process on the same
files for comparison. Every figure comes from this one run; wall times
include starting the processes and the cluster, and loading the model.

    python3 bench/tonwerk_batch_bench.py --separate build/tonwerk-separate [--songs 16] [--seconds 30]
        [--workers 1,2] [--model NAME]
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

import numpy as np
import soundfile as sf


def make_songs(folder, count, seconds):
    rate = 44100
    t = np.arange(int(seconds * rate)) / rate
    for i in range(count):
        noise = np.random.default_rng(i).standard_normal((t.size, 2))
        chord = sum(np.sin(2 * np.pi * (110 + 30 * i) * k * t) / k for k in (1, 1.5, 2))
        sf.write(os.path.join(folder, "song%03d.wav" % i), 0.2 * chord[:, None] + 0.05 * noise, rate, "PCM_16")


def timed(command, environment):
    started = time.monotonic()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, env=environment)
    return time.monotonic() - started


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--separate", required=True)
    parser.add_argument("--songs", type=int, default=16)
    parser.add_argument("--seconds", type=float, default=30)
    parser.add_argument("--workers", default="1,2")
    parser.add_argument("--model", default=None)
    options = parser.parse_args()
    model = ["--model", options.model] if options.model else []
    environment = dict(os.environ, TONWERK_SEPARATE=os.path.abspath(options.separate),
                       PYTHONPATH=os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))
    figures = {"songs": options.songs, "seconds_per_song": options.seconds}
    with tempfile.TemporaryDirectory() as work:
        songs = os.path.join(work, "songs")
        os.makedirs(songs)
        make_songs(songs, options.songs, options.seconds)
        files = sorted(os.path.join(songs, name) for name in os.listdir(songs))
        single = timed([options.separate, "-q", *files, "-o", os.path.join(work, "single"), *model], environment)
        figures["separate_songs_per_min"] = round(60 * options.songs / single, 2)
        for workers in map(int, options.workers.split(",")):
            wall = timed([sys.executable, "-m", "tonwerk.batch", songs, "-o", os.path.join(work, "w%d" % workers),
                          "--workers", str(workers), *model], environment)
            figures["batch_%d_songs_per_min" % workers] = round(60 * options.songs / wall, 2)
            figures["batch_%d_time_vs_separate" % workers] = round(wall / single, 3)
    print(json.dumps(figures))


if __name__ == "__main__":
    main()
