import os

import numpy as np
import pytest


@pytest.fixture(scope="session")
def models():
    folder = os.environ.get("TONWERK_TEST_MODELS", os.path.join(os.path.dirname(__file__), "../../build/models"))
    return lambda name: os.path.join(folder, name)


@pytest.fixture(scope="session")
def stereo():
    """Sines, different in each channel, shape (frames, 2). Band-limited: the
    models' spectrogram has no Nyquist bin, so the identity model would drop
    that part of noise."""
    def make(frames):
        t = np.arange(frames) / 44100.0
        left = 0.4 * np.sin(2 * np.pi * 220 * t) + 0.2 * np.sin(2 * np.pi * 3100.7 * t + 0.5)
        right = 0.35 * np.sin(2 * np.pi * 331 * t + 1) + 0.15 * np.sin(2 * np.pi * 12345.6 * t + 2)
        return np.stack([left, right], axis=1).astype(np.float32)
    return make
