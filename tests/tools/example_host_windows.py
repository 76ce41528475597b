#!/usr/bin/env python3
"""The Windows builds of the example hosts, run under Wine.

matches-linux:   the stems of the C++ host (tonwerk-example) and of the C host
                 (tonwerk-example-c, through tonwerk_c.dll) equal those of the
                 Linux build for the same input and model, sample for sample
                 within 1e-6.
missing-runtime: with the DLL but without onnxruntime_pelagrin.dll beside it,
                 the host gets a clear error naming the file and the folder
                 instead of a crash.
"""
import argparse
import os
import shutil
import subprocess
import sys

import numpy as np

STEMS = ["vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass", "residual", "mix"]
TOLERANCE = 1e-6
FRAMES = 400_000  # two model runs and a flush


def fail(message):
    print("FAIL: " + message, file=sys.stderr)
    sys.exit(1)


def write_input(path):
    rng = np.random.default_rng(7)
    t = np.arange(FRAMES) / 44100.0
    left = 0.3 * np.sin(2 * np.pi * 220 * t) + 0.05 * rng.standard_normal(FRAMES)
    right = 0.3 * np.sin(2 * np.pi * 3300 * t + 1) + 0.05 * rng.standard_normal(FRAMES)
    np.stack([left, right], axis=1).astype(np.float32).tofile(path)


def separate(command, model, source, out_dir, block):
    os.makedirs(out_dir)
    result = subprocess.run(command + [model, source, out_dir, str(block)], capture_output=True, text=True)
    if result.returncode != 0:
        fail(f"{' '.join(command)} exited {result.returncode}: {result.stderr.strip()}")


def matches_linux(args):
    if not os.path.exists(args.linux_exe):
        fail(f"no Linux build of tonwerk-example at {args.linux_exe} (scripts/build-windows.sh builds it)")
    source = os.path.join(args.work, "input.f32")
    write_input(source)
    # Blocks of 1000 frames are not whole hops: the chunking must still agree.
    for model, block in (("identity.onnx", 4096), ("band_split.onnx", 1000)):
        outputs = {}
        for platform, command in (("linux", [args.linux_exe]), ("windows", [args.wine_run, args.windows_exe]),
                                  ("windows-c", [args.wine_run, args.windows_c_exe])):
            outputs[platform] = os.path.join(args.work, f"{model}.{platform}")
            separate(command, os.path.join(args.models, model), source, outputs[platform], block)
        worst = 0.0
        for stem, host in ((stem, host) for stem in STEMS for host in ("windows", "windows-c")):
            linux = np.fromfile(os.path.join(outputs["linux"], stem + ".f32"), dtype=np.float32)
            windows = np.fromfile(os.path.join(outputs[host], stem + ".f32"), dtype=np.float32)
            if linux.size != 2 * FRAMES or windows.size != 2 * FRAMES:
                fail(f"{model} {stem}: {linux.size} Linux and {windows.size} {host} samples, {2 * FRAMES} expected")
            difference = float(np.max(np.abs(linux.astype(np.float64) - windows)))
            if difference > TOLERANCE:
                fail(f"{model} {stem}: {host} differs from Linux by up to {difference:.3g}")
            worst = max(worst, difference)
        print(f"{model}, blocks of {block}: eight stems of {FRAMES} frames, largest difference {worst:.3g}")


def missing_runtime(args):
    folder = os.path.join(args.work, "no-runtime")
    os.makedirs(folder)
    for path in (args.windows_exe, args.library):
        shutil.copy(path, folder)
    source = os.path.join(args.work, "input.f32")
    np.zeros((4096, 2), dtype=np.float32).tofile(source)
    exe = os.path.join(folder, os.path.basename(args.windows_exe))
    out_dir = os.path.join(args.work, "out")
    os.makedirs(out_dir)
    result = subprocess.run([args.wine_run, exe, os.path.join(args.models, "identity.onnx"), source, out_dir],
                            capture_output=True, text=True)
    message = result.stderr.strip()
    print(message)
    if result.returncode != 3:
        fail(f"exit status {result.returncode} (3 expected: an ordinary exception, not a crash)")
    expected = "tonwerk-example: Failed to load ONNX Runtime onnxruntime_pelagrin.dll from folder "
    if expected not in message or "no-runtime\\:" not in message:
        fail("the error does not name the runtime file and the folder searched")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("check", choices=["matches-linux", "missing-runtime"])
    parser.add_argument("--wine-run", required=True)
    parser.add_argument("--windows-exe", required=True)
    parser.add_argument("--windows-c-exe", required=True)
    parser.add_argument("--library", required=True)
    parser.add_argument("--linux-exe", required=True)
    parser.add_argument("--models", required=True)
    parser.add_argument("--work", required=True)
    args = parser.parse_args()
    args.work = os.path.join(args.work, args.check)
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    {"matches-linux": matches_linux, "missing-runtime": missing_runtime}[args.check](args)


if __name__ == "__main__":
    main()
