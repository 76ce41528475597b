"""The voice's building blocks that need no synthesiser: the pitch it is
tuned by, and the air added above the synthesiser's band."""
import numpy as np
import pytest

from tonwerk_train import voices

RATE = 44100
T = np.arange(RATE // 2) / RATE


def voiced(hertz):
    """A glottal-like tone: ten harmonics falling 6 dB per octave."""
    return sum(np.sin(2 * np.pi * hertz * k * T) / k for k in range(1, 11)).astype(np.float32)


@pytest.mark.parametrize("hertz", [82.4, 196.0, 440.0, 880.0])
def test_pitch_finds_the_fundamental(hertz):
    assert voices.pitch(voiced(hertz)) == pytest.approx(hertz, rel=0.01)


def test_air_follows_the_voice_above_its_band():
    band_limited = voiced(220.0) * (T < 0.25)  # harmonics up to 2.2 kHz, then silence
    added = voices.air(band_limited, np.random.default_rng(1))
    spectrum = np.abs(np.fft.rfft(added[:RATE // 4])) ** 2
    assert spectrum[np.fft.rfftfreq(RATE // 4, 1 / RATE) > 11000].sum() > 0.5 * spectrum.sum()
    assert np.abs(added[int(0.3 * RATE):]).max() < 1e-3 * np.abs(added).max()
