"""The built command-line tools as child processes, and the audio files they read and write."""
import os
import subprocess

import numpy as np
import soundfile

BUILD = os.environ.get("TONWERK_BUILD_DIR", os.path.join(os.path.dirname(__file__), "../../build"))


def model_path(name):
    """A generated test model by name ("identity" for BUILD/models/identity.onnx)."""
    return os.path.join(BUILD, "models", name + ".onnx")


def run_tool(program, *args):
    """Exit status, standard output and standard error of a built tool."""
    return subprocess.run([os.path.join(BUILD, program), *map(str, args)], capture_output=True, text=True)


def tones(rate, channels, seconds, base_hz):
    """Tones faded in and out over 50 ms, so resampling has no edges to ring at:
    channel c holds a sine of base_hz * (c + 1) plus a quieter octave; shape (frames, channels)."""
    frames = int(seconds * rate)
    i = np.arange(frames)
    edge = np.minimum(1.0, np.minimum(i, frames - 1 - i) / (0.05 * rate))
    phase = 2 * np.pi * np.outer(i / rate, base_hz * np.arange(1, channels + 1))
    return ((0.5 - 0.5 * np.cos(np.pi * edge))[:, None] * (0.4 * np.sin(phase) + 0.1 * np.sin(2 * phase))).astype(
        np.float32)


def write_tones(path, rate, channels, seconds, base_hz, subtype, kind=None):
    soundfile.write(str(path), tones(rate, channels, seconds, base_hz), rate, subtype=subtype, format=kind)
    return path


def read(path):
    """Samples as float32 (frames, channels), and the file's facts."""
    return soundfile.read(str(path), dtype="float32", always_2d=True)[0], soundfile.info(str(path))
