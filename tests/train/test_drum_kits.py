"""The Hydrogen kit sampler on a kit written here: notes find their
instruments by name, velocities their layers, and a closed hi-hat cuts an
open one that rings."""
import numpy as np
import pytest
import soundfile

from tonwerk_train import drum_kits

KIT = """<?xml version="1.0" encoding="UTF-8"?>
<drumkit_info xmlns="http://www.hydrogen-music.org/drumkit"><name>t</name><instrumentList>
 <instrument><name>Kick</name><volume>0.5</volume><pan_L>1</pan_L><pan_R>0.5</pan_R>
  <layer><filename>soft.wav</filename><min>0</min><max>0.5</max><gain>1</gain></layer>
  <layer><filename>hard.wav</filename><min>0.5</min><max>1</max><gain>2</gain></layer></instrument>
 <instrument><name>Snare Rimshot</name><filename>rim.wav</filename></instrument>
 <instrument><name>Snare</name><filename>snare.wav</filename></instrument>
 <instrument><name>Closed HH</name><filename>closed.wav</filename></instrument>
 <instrument><name>Open HH</name><filename>open.wav</filename></instrument>
</instrumentList></drumkit_info>"""
SAMPLES = {"soft": (0.25, 100), "hard": (0.5, 100), "rim": (0.03125, 100), "snare": (0.0625, 100),
           "closed": (0.015625, 100), "open": (0.125, 20000)}
RATE = 44100


@pytest.fixture
def kit(tmp_path):
    (tmp_path / "drumkit.xml").write_text(KIT)
    for name, (value, length) in SAMPLES.items():
        soundfile.write(str(tmp_path / (name + ".wav")), np.full(length, value, np.float32), RATE, subtype="FLOAT")
    return drum_kits.read_hydrogen_kit(str(tmp_path))


def test_notes_play_their_instrument_layer_and_pan(kit):
    # At 60 bpm a beat is a second: (start beat, length, key, velocity).
    notes = [(0, 0.1, 36, 127 // 4), (1, 0.1, 36, 127), (2, 0.1, 38, 127), (3, 0.1, 46, 127), (3.1, 0.1, 42, 127)]
    out = drum_kits.play_hydrogen_kit(kit, notes, 60, 5 * RATE)
    at = lambda beat: out[:, int(beat * RATE) + 10]
    np.testing.assert_allclose(at(0), [0.25 * 0.5 * 31 / 127, 0.25 * 0.5 * 0.5 * 31 / 127], rtol=1e-6)
    np.testing.assert_allclose(at(1), [0.5 * 2 * 0.5, 0.5 * 2 * 0.5 * 0.5], rtol=1e-6)
    np.testing.assert_allclose(at(2), [0.0625, 0.0625], rtol=1e-6)  # the snare, not the rimshot
    np.testing.assert_allclose(at(3), [0.125, 0.125], rtol=1e-6)  # the open hi-hat rings ...
    assert np.all(out[:, int(3.1 * RATE) + int(drum_kits.CHOKE_SECONDS * RATE):] == 0)  # ... until the closed one
