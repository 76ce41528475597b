"""Training examples: segments of cached songs, augmented on the fly, in batches.

Timbre augmentation, when a run asks for it, is meant to stretch a few sound
banks into more: an example may be played back a little faster or slower
(pitch and formants move together, as they do between two sample sets of one
instrument), a source may be driven into soft saturation, and each source may
get its own random EQ curve, which the training step applies to its spectrum
(`colour`).
"""
import numpy as np
import torch

from tonwerk_train.model import SOURCES
from tonwerk_train.stems import SAMPLE_RATE, STEMS
from tonwerk_train.stft import BINS, FFT_SIZE, HOP

OTHER = len(STEMS)  # row of "other" in the source arrays
SHIFT_SEMITONES = 1.5  # playback-rate change at most, either way
EQ_LIMIT_DB = 12.0
# each STFT bin's frequency in octaves from 1 kHz (DC counted as the first bin)
OCTAVES = np.log2(np.maximum(np.arange(BINS), 1) * SAMPLE_RATE / FFT_SIZE / 1000.0)


def drawn(rng, share):
    """True with probability `share`; draws nothing when the share is 0, so
    runs without an augmentation see the same random stream as before it."""
    return share > 0 and rng.random() < share


def retime(audio, length, factor):
    """`length` samples of `audio` played back `factor` times as fast (linear
    interpolation; `audio` holds at least (length - 1) * factor + 2 samples)."""
    where = np.arange(length) * factor
    left = where.astype(np.int64)
    frac = (where - left).astype(np.float32)
    return audio[..., left] * (1 - frac) + audio[..., left + 1] * frac


def playback_rate(rng, timbre):
    """1, or with probability `timbre` a rate up to SHIFT_SEMITONES away."""
    return 2 ** (rng.uniform(-SHIFT_SEMITONES, SHIFT_SEMITONES) / 12) if drawn(rng, timbre) else 1.0


def saturate(audio, rng):
    """Soft clipping with a random drive; quiet passages keep their level."""
    drive = 10 ** (rng.uniform(0, 18) / 20)
    return np.tanh(audio * drive) / drive


def colour(rng, timbre):
    """(SOURCES, BINS) linear gains over the STFT bins: per source, with
    probability `timbre`, a tilt and two bells on a log-frequency axis."""
    gains = np.zeros((SOURCES, BINS))
    for source in range(SOURCES):
        if not drawn(rng, timbre):
            continue
        curve = rng.uniform(-1.5, 1.5) * OCTAVES
        for _ in range(2):
            centre, width = rng.uniform(-3.3, 3.3), rng.uniform(0.3, 1.5)
            curve += rng.uniform(-9, 9) * np.exp(-0.5 * ((OCTAVES - centre) / width) ** 2)
        gains[source] = np.clip(curve, -EQ_LIMIT_DB, EQ_LIMIT_DB)
    return (10 ** (gains / 20)).astype(np.float32)


def make_example(cache, length, rng, remix, timbre=0.0):
    """(sources (7, 2, L), known (6,)): one song's segment, every source from
    the same moment, or with probability `remix` each source from a random
    song (a stem only from a song that labels it; sources that come from one
    song stay aligned with each other). With probability `timbre` the sources
    of one song share a playback-rate change, and each source may be
    saturated. Each source gets a gain, and maybe a channel swap and a
    polarity flip; the mixture (their sum) is scaled down when it would clip,
    the sources with it."""
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
    picks = list(dict.fromkeys(lenders))
    factors = {pick: playback_rate(rng, timbre) for pick in picks}
    reads = {pick: length if factors[pick] == 1.0 else int((length - 1) * factors[pick]) + 2 for pick in picks}
    starts = {pick: cache.start(pick, reads[pick], rng) for pick in picks}
    sources = np.zeros((SOURCES, 2, length), np.float32)
    for source, pick in enumerate(lenders):
        audio = cache.segment(pick, source, starts[pick], reads[pick])
        if factors[pick] != 1.0:
            audio = retime(audio, length, factors[pick])
        if drawn(rng, timbre / 4):
            audio = saturate(audio, rng)
        audio *= 10 ** (rng.uniform(-6, 3) / 20) * (-1 if rng.random() < 0.5 else 1)
        sources[source] = audio[::-1] if rng.random() < 0.5 else audio
    peak = float(np.abs(sources.sum(0)).max())
    if peak > 1.0:
        sources /= peak
    return sources, known


def batch(cache, config, rng):
    """(sources (B, 7, 2, samples), known (B, 6), colour (B, 7, BINS)) as
    tensors: segments of config["frames"] STFT frames."""
    length = (config["frames"] - 1) * HOP + FFT_SIZE
    timbre = config["timbre"]
    examples = [make_example(cache, length, rng, config["remix"], timbre) for _ in range(config["batch"])]
    tint = np.stack([colour(rng, timbre) for _ in examples])
    return (torch.from_numpy(np.stack([e[0] for e in examples])), torch.from_numpy(np.stack([e[1] for e in examples])),
            torch.from_numpy(tint))
