"""Training examples: segments of cached songs, augmented on the fly, in batches."""
import numpy as np
import torch

from tonwerk_train.model import SOURCES
from tonwerk_train.stems import STEMS
from tonwerk_train.stft import FFT_SIZE, HOP

OTHER = len(STEMS)  # row of "other" in the source arrays


def make_example(cache, length, rng, remix):
    """(sources (7, 2, L), known (6,)): one song's segment, every source from
    the same moment, or with probability `remix` each source from a random
    song (a stem only from a song that labels it; sources that come from one
    song stay aligned with each other). Each source gets a gain, and maybe a
    channel swap and a polarity flip; the mixture (their sum) is scaled down
    when it would clip, the sources with it."""
    song = int(rng.integers(len(cache)))
    mixing = rng.random() < remix
    lenders = []
    for source in range(SOURCES):
        pick = int(rng.integers(len(cache))) if mixing else song
        labels = cache.known[pick]
        lenders.append(pick if source == OTHER or labels[source] else song)
    # A stem is labelled exactly when the song that lent "other" labels it:
    # then "other" hides none of it (where the stem's own lender does not
    # label it, that row is silence, and so is the stem).
    known = cache.known[lenders[OTHER]].copy()
    starts = {pick: cache.start(pick, length, rng) for pick in dict.fromkeys(lenders)}
    sources = np.zeros((SOURCES, 2, length), np.float32)
    for source, pick in enumerate(lenders):
        audio = cache.segment(pick, source, starts[pick], length)
        audio *= 10 ** (rng.uniform(-6, 3) / 20) * (-1 if rng.random() < 0.5 else 1)
        sources[source] = audio[::-1] if rng.random() < 0.5 else audio
    peak = float(np.abs(sources.sum(0)).max())
    if peak > 1.0:
        sources /= peak
    return sources, known


def batch(cache, config, rng):
    """(sources (B, 7, 2, samples), known (B, 6)) as tensors: segments of config["frames"] STFT frames."""
    length = (config["frames"] - 1) * HOP + FFT_SIZE
    examples = [make_example(cache, length, rng, config["remix"]) for _ in range(config["batch"])]
    return torch.from_numpy(np.stack([e[0] for e in examples])), torch.from_numpy(np.stack([e[1] for e in examples]))
