"""The mda instruments played through the LV2 host: notes start on their
frame wherever it falls in the host's blocks, sound at their pitch, and a
key struck again as it is released sounds again."""
import numpy as np
import pytest

from tonwerk_train import keyboards

RATE = 44100
if not keyboards.installed():
    pytest.skip("mda-lv2 is not installed (scripts/bootstrap.sh installs it)", allow_module_level=True)


def peak_hertz(audio):
    spectrum = np.abs(np.fft.rfft(audio * np.hanning(audio.size), 1 << 18))
    hertz = np.fft.rfftfreq(1 << 18, 1 / RATE)
    band = (hertz > 100) & (hertz < 2000)
    return hertz[band][np.argmax(spectrum[band])]


@pytest.mark.parametrize("source", list(keyboards.SOURCES))
def test_notes_sound_on_their_frame_at_their_pitch(source):
    settings = keyboards.draw_settings(np.random.default_rng(0), source)
    # At 60 bpm a beat is a second: the notes start at frames 26460 and 74970, inside host blocks.
    out = keyboards.play([(0.6, 0.5, 57, 100), (1.7, 0.5, 69, 100)], 60, settings)[0]
    onset = int(np.argmax(np.abs(out) > 1e-3 * np.abs(out).max()))
    assert 26460 <= onset < 26460 + 16, onset
    assert abs(peak_hertz(out[77175:77175 + 16384]) / 440 - 1) < 0.01


@pytest.mark.parametrize("source", list(keyboards.SOURCES))
def test_a_key_struck_again_as_it_is_released_sounds_again(source):
    settings = keyboards.draw_settings(np.random.default_rng(0), source)
    out = keyboards.play([(0, 1, 60, 100), (1, 1, 60, 100)], 60, settings)[0]
    level = lambda start: np.sqrt(np.mean(out[int(start * RATE):int((start + 0.3) * RATE)] ** 2))
    assert level(1.05) > 0.8 * level(0.05)
