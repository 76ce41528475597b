#!/usr/bin/env python3
"""The Windows builds of the example hosts, run under Wine.

matches-linux:   the stems of the C++ host (tonwerk-example) and of the C host
                 (tonwerk-example-c, through tonwerk_c.dll) equal those of the
                 Linux build for the same input and model, sample for sample
                 within 1e-6, in blocks of 1000 frames (not whole hops).
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
FRAMES = 400_000  # two model runs and a flush


def fail(message):
    sys.exit("FAIL: " + message)


def separate(command, args, source, name, *block):
    out_dir = os.path.join(args.work, name)
    os.makedirs(out_dir)
    model = os.path.join(args.models, "band_split.onnx")
    return out_dir, subprocess.run(command + [model, source, out_dir, *block], capture_output=True, text=True)


def matches_linux(args):
    source = os.path.join(args.work, "input.f32")
    t = np.arange(FRAMES) / 44100.0
    tones = np.stack([np.sin(2 * np.pi * 220 * t), np.sin(2 * np.pi * 3300 * t + 1)], axis=1)
    noise = np.random.default_rng(7).standard_normal((FRAMES, 2))
    (0.3 * tones + 0.05 * noise).astype(np.float32).tofile(source)
    outputs = {}
    for name, command in (("linux", [args.linux_exe]), ("windows", [args.wine_run, args.windows_exe]),
                          ("windows-c", [args.wine_run, args.windows_c_exe])):
        outputs[name], result = separate(command, args, source, name, "1000")
        if result.returncode != 0:
            fail(f"{name} host exited {result.returncode}: {result.stderr.strip()}")
    for stem in STEMS:
        linux = np.fromfile(os.path.join(outputs["linux"], stem + ".f32"), dtype=np.float32)
        for host in ("windows", "windows-c"):
            windows = np.fromfile(os.path.join(outputs[host], stem + ".f32"), dtype=np.float32)
            if linux.size != 2 * FRAMES or windows.shape != linux.shape:
                fail(f"{stem}: {linux.size} Linux and {windows.size} {host} samples, {2 * FRAMES} expected")
            if np.max(np.abs(linux.astype(np.float64) - windows)) > 1e-6:
                fail(f"{stem}: {host} differs from Linux by more than 1e-6")
    print(f"eight stems of {FRAMES} frames from three hosts agree")


def missing_runtime(args):
    folder = os.path.join(args.work, "no-runtime")
    os.makedirs(folder)
    for path in (args.windows_exe, args.library):
        shutil.copy(path, folder)
    source = os.path.join(args.work, "input.f32")
    np.zeros((4096, 2), dtype=np.float32).tofile(source)
    exe = os.path.join(folder, os.path.basename(args.windows_exe))
    _, result = separate([args.wine_run, exe], args, source, "out")
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
    for option in ("wine-run", "windows-exe", "windows-c-exe", "library", "linux-exe", "models", "work"):
        parser.add_argument("--" + option, required=True)
    args = parser.parse_args()
    args.work = os.path.join(args.work, args.check)
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    {"matches-linux": matches_linux, "missing-runtime": missing_runtime}[args.check](args)


if __name__ == "__main__":
    main()
