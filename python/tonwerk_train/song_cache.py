"""Songs decoded once into float16 arrays (7 sources, 2, samples) that are
memory-mapped, so a segment costs a read of just that segment, and each
source's content fingerprint, so training and validation can be proven to
share no audio.

A cache entry is named after the song and a digest of its files (absolute
path, size, modification time) and labels: two datasets with songs of the
same name get two entries, and an edited file a new one.
"""
import hashlib
import json
import os
import re

import numpy as np

from tonwerk_train import datasets
from tonwerk_train.stems import STEMS


def _files(song):
    """(label, absolute path) of every file the song sums, in a fixed order."""
    labelled = [(stem, path) for stem in sorted(song.stems) for path in song.stems[stem]]
    return [(label, os.path.abspath(path)) for label, path in labelled + [("other", p) for p in song.other]]


def entry_name(song):
    identity = [(label, path, info.st_size, info.st_mtime_ns)
                for (label, path), info in ((entry, os.stat(entry[1])) for entry in _files(song))]
    identity.append(sorted(song.known))
    digest = hashlib.sha256(json.dumps(identity).encode()).hexdigest()[:20]
    return "%s-%s" % (re.sub(r"[^\w.-]", "_", song.name)[-80:], digest)


def fingerprints(sources):
    """Digests of the sources that sound, over their float16 samples: equal
    audio gives equal digests whatever file format or layout it came from."""
    return sorted(hashlib.sha256(np.ascontiguousarray(row).tobytes()).hexdigest()
                  for row in sources if np.any(row))


def _write_entry(song, base):
    """The song's array and fingerprints, each renamed into place when whole."""
    stems, other, _ = datasets.load_song(song)
    sources = np.concatenate([stems, other[None]]).astype(np.float16)
    with open(base + ".json.tmp", "w") as file:
        json.dump({"song": song.name, "fingerprints": fingerprints(sources)}, file)
    np.save(base + ".tmp.npy", sources)
    os.replace(base + ".tmp.npy", base + ".npy")
    os.replace(base + ".json.tmp", base + ".json")


class SongCache:
    def __init__(self, songs, folder):
        os.makedirs(folder, exist_ok=True)
        self.names, self.arrays, self.known, self.fingerprints = [], [], [], []
        for song in songs:
            base = os.path.join(folder, entry_name(song))
            if not (os.path.exists(base + ".npy") and os.path.exists(base + ".json")):
                _write_entry(song, base)
            self.names.append(song.name)
            self.arrays.append(np.load(base + ".npy", mmap_mode="r"))
            self.known.append(np.array([s in song.known for s in STEMS]))
            with open(base + ".json") as file:
                self.fingerprints.append(json.load(file)["fingerprints"])

    def __len__(self):
        return len(self.arrays)

    def start(self, song, length, rng):
        """A random segment start in the song; every source of one example
        that comes from this song uses it, so beats and harmony line up."""
        return int(rng.integers(0, max(1, self.arrays[song].shape[-1] - length)))

    def segment(self, song, source, start, length):
        out = np.zeros((2, length), np.float32)
        piece = self.arrays[song][source, :, start:start + length]
        out[:, :piece.shape[-1]] = piece
        return out

    def song(self, index):
        """(stems (6, 2, n), other (2, n), known (6,)) as float32."""
        array = np.asarray(self.arrays[index], np.float32)
        return array[:-1], array[-1], self.known[index]


def check_disjoint(train, valid):
    """Refuses validation songs that share a sounding source with a training song."""
    seen = {digest: name for name, digests in zip(train.names, train.fingerprints) for digest in digests}
    shared = sorted({(seen[d], name) for name, digests in zip(valid.names, valid.fingerprints)
                     for d in digests if d in seen})
    if shared:
        pairs = ", ".join("%s (training) = %s (validation)" % pair for pair in shared[:5])
        raise ValueError("training and validation share audio: %s%s; validate on songs the run does not train on"
                         % (pairs, " and %d more" % (len(shared) - 5) if len(shared) > 5 else ""))
