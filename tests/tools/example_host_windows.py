#!/usr/bin/env python3
"""The Windows example host under Wine, with the DLL but without
onnxruntime_pelagrin.dll beside it: the host must get a clear error naming the
file and the folder instead of a crash."""
import argparse
import os
import shutil
import subprocess
import sys

import numpy as np


def main():
    parser = argparse.ArgumentParser()
    for option in ("wine-run", "windows-exe", "library", "models", "work"):
        parser.add_argument("--" + option, required=True)
    args = parser.parse_args()
    folder = os.path.join(args.work, "no-runtime")
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(folder)
    for path in (args.windows_exe, args.library):
        shutil.copy(path, folder)
    source = os.path.join(args.work, "input.f32")
    np.zeros((4096, 2), dtype=np.float32).tofile(source)
    out_dir = os.path.join(args.work, "out")
    os.makedirs(out_dir)
    exe = os.path.join(folder, os.path.basename(args.windows_exe))
    result = subprocess.run([args.wine_run, exe, os.path.join(args.models, "identity.onnx"), source, out_dir],
                            capture_output=True, text=True)
    message = result.stderr.strip()
    print(message)
    if result.returncode != 3:
        sys.exit(f"FAIL: exit status {result.returncode} (3 expected: an ordinary exception, not a crash)")
    expected = "tonwerk-example: Failed to load ONNX Runtime onnxruntime_pelagrin.dll from folder "
    if expected not in message or "no-runtime\\:" not in message:
        sys.exit("FAIL: the error does not name the runtime file and the folder searched")


if __name__ == "__main__":
    main()
