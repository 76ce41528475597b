"""Multitrack datasets as songs: which files sum to which of our six stems.

Layouts read (names are sorted; a song's name is its folder relative to root):
  musdb     root/<song>/{vocals,drums,bass,other}.wav, root one split folder
            of MUSDB18-HQ (train/ or test/). Piano and guitars hide in other.wav.
  moisesdb  root/<track-uuid>/data.json plus <stem folder>/<source-uuid>.<ext>
            (also one folder deeper, root/<provider>/<track-uuid>). data.json
            lists "stems": [{"stemName", "tracks": [{"id", "trackType",
            "extension"}]}]; MOISESDB maps each source.
  slakh     root/TrackXXXXX/ with metadata.yaml and stems/SXX.flac, root one
            split folder of Slakh2100 (train/, validation/, test/ or omitted/);
            General MIDI program classes pick the stem.
  folder    root/<song>/<stem>.<ext>, stem one of STEMS (or "drums"), ext
            wav/flac/ogg/aiff/aif; other audio files are "other".
The mixture is always the sum of every file of the song, so no mixture file
is read. A dataset root that holds split folders is refused: reading every
split at once is how test songs end up in training.
"""
import json
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np
import yaml

from .audio import read_audio
from .stems import STEMS

AUDIO_EXTENSIONS = (".wav", ".flac", ".ogg", ".aiff", ".aif")

# (stemName, trackType) -> our stem, None for "other", or a tuple of stems the
# source may belong to when the label cannot tell which. Names are compared
# normalised (see _norm). The trackType None row is the stemName's default;
# stemNames without a row are "other".
MOISESDB = {
    ("vocals", None): "vocals",
    ("drums", None): "drum",
    ("percussion", None): "drum",  # claps, shakers, congas: a drum kit's job
    ("percussion", "pitched percussion"): None,  # mallets, glockenspiel: tonal
    ("bass", None): "bass",  # bass guitar and synth, contrabass, tuba: the bass line
    ("piano", None): "piano",  # grand and electric piano; organs and synths are "other keys"
    ("guitar", "acoustic guitar"): "acoustic_guitar",
    ("guitar", "clean electric guitar"): "electric_guitar",
    ("guitar", "distorted electric guitar"): "electric_guitar",
    ("guitar", "lap steel guitar or slide guitar"): "electric_guitar",  # mostly amplified
    ("guitar", None): ("acoustic_guitar", "electric_guitar"),
}

# General MIDI program number (0-based) ranges -> stem; drums go by is_drum.
SLAKH_PROGRAMS = ((range(0, 8), "piano"), (range(24, 26), "acoustic_guitar"),
                  (range(26, 32), "electric_guitar"), (range(32, 40), "bass"))


@dataclass
class Song:
    name: str
    stems: dict[str, list[str]] = field(default_factory=dict)  # stem -> files summed into it
    other: list[str] = field(default_factory=list)  # files in the mixture but in none of our stems
    # Stems whose content is labelled: a known stem without files is silent;
    # an unknown one hides in `other`, so a loss may only compare the sum of
    # the unknown stems and other.
    known: frozenset[str] = frozenset(STEMS)


def load_song(song):
    """(stems float32 (6, 2, n), other float32 (2, n), known bool (6,)), shorter files zero-padded."""
    parts = [[read_audio(p) for p in song.stems.get(s, [])] for s in STEMS] + [[read_audio(p) for p in song.other]]
    n = max((a.shape[1] for part in parts for a in part), default=0)
    summed = np.zeros((len(parts), 2, n), np.float32)
    for row, part in zip(summed, parts):
        for audio in part:
            row[:, :audio.shape[1]] += audio
    return summed[:-1], summed[-1], np.array([s in song.known for s in STEMS])


def _dirs(path):
    """Subfolders, hidden ones (work in progress) left out."""
    if not Path(path).is_dir():
        return []
    return sorted(p for p in Path(path).iterdir() if p.is_dir() and not p.name.startswith("."))


def _found(songs, root, layout, why):
    """The songs sorted by name; none means root is not that layout."""
    if not songs:
        raise ValueError(f"{root}: not a {layout} folder ({why})")
    return sorted(songs, key=lambda song: song.name)


# The split folders of the layouts that have them; "test" is for evaluation only.
SPLITS = {"musdb": ("train", "test"), "slakh": ("train", "validation", "test", "omitted")}
TEST_SPLIT = "test"


def split_of(kind, root):
    """The split a dataset location reads (its folder's name), or None for layouts without splits."""
    name = Path(root).name
    return name if name in SPLITS.get(kind, ()) else None


def _split_songs(root, kind, looks_like_song):
    """Song folders directly under root, which must be one split, not the dataset root."""
    root = Path(root)
    held = [s for s in SPLITS[kind] if any(looks_like_song(d) for d in _dirs(root / s))]
    if held:
        raise ValueError(f"{root}: holds the splits {', '.join(held)}; name the one to read, e.g. {root / held[0]}")
    return [d for d in _dirs(root) if looks_like_song(d)]


def read_musdb(root):
    mapping = {"vocals": "vocals", "drums": "drum", "bass": "bass"}
    songs = []
    names = (*mapping, "other")
    for d in _split_songs(root, "musdb", lambda d: any((d / f"{n}.wav").is_file() for n in names)):
        missing = [f"{n}.wav" for n in names if not (d / f"{n}.wav").is_file()]
        if missing:
            raise ValueError(f"{d}: MUSDB song folder without {', '.join(missing)}")
        songs.append(Song(d.relative_to(root).as_posix(), {s: [str(d / f"{n}.wav")] for n, s in mapping.items()},
                          [str(d / "other.wav")], frozenset(mapping.values())))
    return _found(songs, root, "MUSDB18-HQ", "no <song>/{vocals,drums,bass,other}.wav")


def _norm(label):
    """'Clean_Electric-Guitar (x, y)' -> 'clean electric guitar': the taxonomy's
    labels appear with spaces or underscores and with or without examples."""
    return " ".join(label.split("(")[0].replace("_", " ").replace("-", " ").lower().split())


def moisesdb_stem(stem_name, track_type):
    """MOISESDB's answer for one source: a stem, None for other, or a tuple of candidates."""
    stem_name, track_type = _norm(stem_name), _norm(track_type or "")
    return MOISESDB.get((stem_name, track_type), MOISESDB.get((stem_name, None)))


def _moisesdb_song(track_dir, root):
    data = json.loads((track_dir / "data.json").read_text())
    # Sources are found by id in any stem folder, so neither the folder's
    # spelling of the stemName nor a conversion to another format matters.
    files = {p.stem: p for p in track_dir.glob("*/*") if p.suffix.lower() in AUDIO_EXTENSIONS}
    song = Song(track_dir.relative_to(root).as_posix())
    unknown = set()
    for stem in data.get("stems", []):
        for track in stem.get("tracks", []):
            path = files.get(track["id"])
            if path is None:
                raise ValueError(f"{track_dir}: no audio file {track['id']}.* for stem {stem['stemName']!r}")
            target = moisesdb_stem(stem["stemName"], track.get("trackType"))
            if isinstance(target, str):
                song.stems.setdefault(target, []).append(str(path))
            else:
                song.other.append(str(path))
                unknown.update(target or ())
    song.known = frozenset(STEMS) - unknown
    return song


def read_moisesdb(root):
    root = Path(root)
    tracks = sorted(p.parent for p in root.glob("*/data.json")) or sorted(p.parent for p in root.glob("*/*/data.json"))
    return _found([_moisesdb_song(t, root) for t in tracks], root, "MoisesDB", "no <track>/data.json")


def slakh_stem(info):
    if info.get("is_drum"):
        return "drum"
    return next((stem for programs, stem in SLAKH_PROGRAMS if info.get("program_num") in programs), None)


def _slakh_song(track_dir, root):
    meta = yaml.safe_load((track_dir / "metadata.yaml").read_text()) or {}
    song = Song(track_dir.relative_to(root).as_posix())
    for key, info in sorted((meta.get("stems") or {}).items()):
        path = track_dir / "stems" / f"{key}.flac"
        # Unrendered stems have no audio and some renders were removed: both
        # are simply absent from the mixture.
        if not info.get("audio_rendered", True) or not path.is_file():
            continue
        stem = slakh_stem(info)
        (song.stems.setdefault(stem, []) if stem else song.other).append(str(path))
    return song


def read_slakh(root):
    tracks = _split_songs(root, "slakh", lambda d: (d / "metadata.yaml").is_file())
    return _found([_slakh_song(t, Path(root)) for t in tracks], root, "Slakh2100", "no TrackXXXXX/metadata.yaml")


def _folder_song(song_dir, root):
    song = Song(song_dir.relative_to(root).as_posix())
    for path in sorted(song_dir.iterdir()):
        name = path.stem.lower()
        if not path.is_file() or path.suffix.lower() not in AUDIO_EXTENSIONS or name in ("mix", "mixture"):
            continue  # a mixture file would count every source twice
        stem = "drum" if name == "drums" else name
        (song.stems.setdefault(stem, []) if stem in STEMS else song.other).append(str(path))
    song.known = frozenset(song.stems)
    return song


def read_folder(root):
    root = Path(root)
    songs = [s for s in (_folder_song(d, root) for d in _dirs(root)) if s.stems or s.other]
    return _found(songs, root, "song-folder", "no <song>/<stem>.wav|flac|ogg|aiff")


READERS = {"musdb": read_musdb, "moisesdb": read_moisesdb, "slakh": read_slakh, "folder": read_folder}


def read_dataset(kind, root):
    if kind not in READERS:
        raise ValueError(f"unknown dataset kind {kind!r}; one of {', '.join(READERS)}")
    return READERS[kind](root)
