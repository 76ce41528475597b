"""The synthesizer's instruments: every one a stem may draw is installed and
builds no voice on a thread of its own, each sounds as itself, and a part
sounds the same whatever the process played before it."""
import numpy as np
import pytest

from tonwerk_train import synth_presets
from tonwerk_train.render import draw_synths

if not synth_presets.installed():
    pytest.skip("zynaddsubfx-lv2 is not installed (scripts/bootstrap.sh installs it)", allow_module_level=True)

NOTES = [(0, 1, 48, 100), (1, 1, 52, 90), (2, 1, 55, 110), (2, 1, 60, 110)]


def test_every_choice_is_an_installed_instrument_without_wavetable_voices():
    for stem, banks in synth_presets.CHOICES.items():
        for bank, names in banks.items():
            presets = synth_presets.bank_presets(bank)
            for name in names:
                assert name in presets, (stem, bank, name)
                assert 'name="PADsynth_used" value="yes"' not in presets[name], (stem, bank, name)


def test_a_part_sounds_as_its_instrument_whatever_played_before():
    bass = {"source": "zyn", "bank": "Bass", "preset": "FM Bass 1", "seed": 7}
    guitar = {"source": "zyn", "bank": "Guitar", "preset": "Dist Guitar 3", "seed": 7}
    first = synth_presets.play(NOTES, 120, bass)
    other = synth_presets.play(NOTES, 120, guitar)
    again = synth_presets.play(NOTES, 120, bass)
    assert first.shape == other.shape and np.sqrt(np.mean(first ** 2)) > 1e-3
    assert np.abs(first - other).max() > 0.1  # each preset's own sound, not the synth's default
    assert np.abs(first - again).max() < 1e-7  # below what 24-bit files keep


@pytest.mark.parametrize("share", [0.0, 0.5])
def test_synths_play_present_stems_at_their_share_and_none_draw_nothing(share):
    rng = np.random.default_rng(0)
    parts = {"piano": None, "bass": None, "drum": None}
    drawn = [draw_synths(rng, parts, share) for _ in range(400)]
    assert all(set(found) <= {"piano", "bass"} for found in drawn)
    assert abs(sum(len(found) for found in drawn) / 800 - share) < 0.07
    if share == 0:
        assert rng.random() == np.random.default_rng(0).random()
