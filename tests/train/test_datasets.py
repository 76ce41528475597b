"""The dataset readers on tiny folders of each layout. Every audio file holds its
own power of two, so a stem's value tells exactly which files were summed into it."""
import json
import re

import numpy as np
import pytest
import soundfile
import yaml

from tonwerk_train.audio import read_audio
from tonwerk_train.datasets import load_song, moisesdb_stem, read_dataset
from tonwerk_train.stems import STEMS
from tonwerk_train.train import read_songs

GUITARS_UNKNOWN = {"acoustic_guitar": None, "electric_guitar": None}


def make(root, files):
    """files: {path: text, sample value (300 frames) or (value, frames)}."""
    for rel, content in files.items():
        (root / rel).parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, str):
            (root / rel).write_text(content)
        else:
            value, frames = content if isinstance(content, tuple) else (content, 300)
            soundfile.write(str(root / rel), np.full((frames, 2), value, np.float32), 44100)


def moises(track, sources):
    """A MoisesDB track folder from (stemName, stem folder, trackType, value), one per source."""
    files, stems = {}, {}
    for i, (stem, folder, kind, value) in enumerate(sources):
        files[f"{track}/{folder}/src{i}.wav"] = value
        stems.setdefault(stem, []).append({"id": f"src{i}", "trackType": kind, "extension": "wav"})
    meta = {"song": "s", "stems": [{"stemName": k, "id": k, "tracks": t} for k, t in stems.items()]}
    return {f"{track}/data.json": json.dumps(meta), **files}


MUSDB = {f"{song}/{f}.wav": top / 2 ** (i + 1) for song, top in (("train/A", 1), ("test/B", 32))
         for i, f in enumerate(("vocals", "drums", "bass", "other", "mixture"))}
MUSDB_STEMS = {"vocals": 1 / 2, "drum": 1 / 4, "bass": 1 / 8, "piano": None, **GUITARS_UNKNOWN}
MOISES = moises("t1", [
    ("vocals", "vocals", "lead female singer", 1 / 2), ("vocals", "vocals", "background vocals", 1 / 4),
    ("guitar", "guitar", "acoustic guitar", 1 / 8), ("guitar", "guitar", "distorted electric guitar", 1 / 16),
    ("other keys", "other_keys", "synth pad", 1 / 32), ("percussion", "percussion", "a-tonal percussion", 1 / 64),
]) | moises("t2", [("guitar", "guitar", "baritone", 1 / 2), ("bass", "bass", "bass guitar", 1 / 4)])
# General MIDI class edges, a drum kit on program 0, an unrendered stem with a file, a rendered one without.
SLAKH = {f"S{i:02d}": {"program_num": p, "is_drum": i == 6, "audio_rendered": i != 7}
         for i, p in enumerate((7, 8, 24, 26, 39, 40, 0, 1, 2))}


@pytest.mark.parametrize("kind, sub, files, name, stems, other", [
    ("musdb", "train", MUSDB, "A", MUSDB_STEMS, 1 / 16),
    ("moisesdb", "", MOISES, "t1", {"vocals": 3 / 4, "acoustic_guitar": 1 / 8, "electric_guitar": 1 / 16,
                                    "drum": 1 / 64}, 1 / 32),
    ("moisesdb", "", MOISES, "t2", {"bass": 1 / 4, **GUITARS_UNKNOWN}, 1 / 2),
    ("slakh", "test", {"test/Track1/metadata.yaml": yaml.safe_dump({"stems": SLAKH}),
                   **{f"test/Track1/stems/S{i:02d}.flac": 2.0 ** -(i + 1) for i in range(8)}}, "Track1",
     {"piano": 1 / 2, "acoustic_guitar": 1 / 8, "electric_guitar": 1 / 16, "bass": 1 / 32, "drum": 1 / 128}, 17 / 64),
    ("folder", "", {"s/vocals.wav": 1 / 2, "s/drums.flac": (1 / 4, 200), "s/Piano.aiff": 1 / 8, "s/crowd.wav": 1 / 16,
                    "s/mixture.wav": 1.0, "s/notes.txt": "not audio"},
     "s", {"vocals": 1 / 2, "drum": 1 / 4, "piano": 1 / 8, "bass": None, **GUITARS_UNKNOWN}, 1 / 16),
])
def test_reader(tmp_path, kind, sub, files, name, stems, other):
    """stems: {stem: its first sample, or None if not known}; stems left out are silent and known."""
    make(tmp_path, files)
    songs = read_dataset(kind, tmp_path / sub)
    assert [s.name for s in songs] == sorted(s.name for s in songs)
    s, o, known = load_song(next(song for song in songs if song.name == name))
    assert s.shape == (6, 2, 300) and o.shape == (2, 300)
    np.testing.assert_array_equal(s[:, :, 0], [[stems.get(x) or 0] * 2 for x in STEMS])
    assert o[0, 0] == o[1, 0] == other
    assert list(known) == [stems.get(x, 0) is not None for x in STEMS]


@pytest.mark.parametrize("stem_name, track_type, stem", [
    ("Guitar", "Clean_Electric_Guitar", "electric_guitar"),
    ("guitar", "lap steel guitar or slide guitar", "electric_guitar"),
    ("percussion", "pitched percussion (mallets, glockenspiel, ...)", None),
    ("piano", "electric piano (rhodes, wurlitzer, piano sound alike)", "piano"),
])
def test_moisesdb_mapping(stem_name, track_type, stem):
    assert moisesdb_stem(stem_name, track_type) == stem


@pytest.mark.parametrize("kind, files, culprit, why", [
    ("musdb", ["A/vocals.wav", "A/drums.wav"], "A", "without bass.wav"),
    ("musdb", ["t1/guitar/src0.wav"], "", "not a MUSDB"),
    ("musdb", MUSDB, "", "holds the splits train, test; name the one to read"),  # reading both is a leak
    ("moisesdb", ["train/A/vocals.wav"], "", "not a MoisesDB"),
    ("moisesdb", {"t1/data.json": MOISES["t1/data.json"]}, "t1", "no audio file"),
    ("slakh", ["Track00001/stems/S00.flac"], "", "not a Slakh"),
    ("slakh", {"validation/T/metadata.yaml": "{}"}, "", "holds the splits validation;"),
    ("folder", ["train/A/vocals.wav"], "", "not a song-folder"),
])
def test_wrong_layout_names_the_folder(tmp_path, kind, files, culprit, why):
    make(tmp_path, files if isinstance(files, dict) else dict.fromkeys(files, 0.5))
    with pytest.raises(ValueError, match=re.escape(str(tmp_path / culprit).rstrip("/") + ": ") + ".*" + why):
        read_dataset(kind, tmp_path)


def test_training_refuses_a_test_split(tmp_path):
    make(tmp_path, MUSDB)
    assert [song.name for song in read_songs(["musdb:%s" % (tmp_path / "train")])] == ["A"]
    with pytest.raises(ValueError, match="test/: the test split is for evaluation only"):
        read_songs(["musdb:%s/" % (tmp_path / "test")])


@pytest.mark.parametrize("rate", [22050, 48000, 96000])
def test_read_audio_resamples_and_duplicates_mono(tmp_path, rate):
    def tone(t):  # 3 and 9 kHz faded in over 20 ms, cut off at the end: its ringing must not wrap round
        fade = np.sin(np.pi / 2 * np.clip(t / 0.02, 0, 1)) ** 2
        return fade * (0.4 * np.sin(2 * np.pi * 3000 * t) + 0.2 * np.sin(2 * np.pi * 9000 * t))
    soundfile.write(str(tmp_path / "mono.wav"), tone(np.arange(rate // 5) / rate), rate, subtype="FLOAT")
    audio = read_audio(tmp_path / "mono.wav")
    assert audio.dtype == np.float32 and audio.shape == (2, 44100 // 5)
    expected = np.broadcast_to(tone(np.arange(44100 // 10) / 44100), (2, 44100 // 10))
    np.testing.assert_allclose(audio[:, :44100 // 10], expected, atol=1e-4)  # the first half, away from the cut
    soundfile.write(str(tmp_path / "three.wav"), np.zeros((10, 3)), 44100)
    with pytest.raises(ValueError, match="3 channels"):
        read_audio(tmp_path / "three.wav")
