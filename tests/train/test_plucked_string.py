"""The plucked-string guitar: every string in tune across the neck, and a
note falls silent soon after its length."""
import numpy as np
import pytest

from tonwerk_train import plucked_string

RATE = 44100


@pytest.mark.parametrize("brightness", [0.52, 0.85])  # the loop filter's extremes: its delay differs
@pytest.mark.parametrize("key", [40, 52, 64, 76, 88])
def test_strings_ring_in_tune_and_stop_when_released(brightness, key):
    rng = np.random.default_rng(key)
    settings = {**plucked_string.draw_settings(rng), "brightness": brightness}
    hertz = 440 * 2 ** ((key - 69) / 12)
    note = plucked_string.string(hertz, 100, 1.0, settings, rng).astype(np.float64)
    size = 1 << 21
    spectrum = np.abs(np.fft.rfft(note[2205:2205 + 32768] * np.hanning(32768), size))
    low, high = int(hertz * 0.94 * size / RATE), int(hertz * 1.06 * size / RATE)
    found = (low + np.argmax(spectrum[low:high])) * RATE / size
    assert abs(1200 * np.log2(found / hertz)) < 2, found
    level = lambda start: np.sqrt(np.mean(note[int(start * RATE):int((start + 0.05) * RATE)] ** 2))
    assert level(1.1) < 1e-2 * level(0.9)
