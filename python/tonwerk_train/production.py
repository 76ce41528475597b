"""Mixing and mastering for generated songs, in numpy.

Each part of a song gets a channel strip: an EQ, a compressor, and sends to
a reverb and a delay whose returns belong to the part (a stem holds its own
effects, as the stems of a produced record do). The mix bus then gets an EQ,
a compressor and a limiter, and the song a loudness. The bus works linked:
its gain follows the whole mix and is applied to every stem alike, and its
EQ and loudness are linear, so the stems stay exactly the parts of the
mastered mixture.

Every setting is drawn from the song's generator, so a seed renders the
same song. Audio is float (2, n) at SAMPLE_RATE.
"""
import numpy as np

from tonwerk_train.stems import SAMPLE_RATE

BLOCK = 64  # samples per step of the dynamics processors' gain computers
_GUARD = 8192  # zeros after a signal before a circular transform, so nothing wraps round


def _fft_size(n):
    return 1 << int(np.ceil(np.log2(n)))


def apply_curve(audio, gain_at):
    """Filters audio by a zero-phase gain curve: gain_at(frequencies in Hz) -> linear gains."""
    n = audio.shape[-1]
    size = _fft_size(n + _GUARD)
    spectrum = np.fft.rfft(audio, size) * gain_at(np.fft.rfftfreq(size, 1 / SAMPLE_RATE))
    return np.fft.irfft(spectrum, size)[..., :n].astype(np.float32)


def eq_curve(bands):
    """bands: (kind, hertz, gain dB, width in octaves); kinds "bell", "low" and
    "high" shelves, and "highpass" (gain unused, a 12 dB/octave slope)."""
    def gain_at(freqs):
        octaves = np.log2(np.maximum(freqs, 1.0)[None] / np.array([b[1] for b in bands])[:, None])
        db = np.zeros_like(freqs)
        for (kind, _, gain, width), x in zip(bands, octaves):
            if kind == "bell":
                db += gain * np.exp(-0.5 * (x / width) ** 2)
            elif kind in ("low", "high"):
                db += gain / (1 + np.exp((x if kind == "low" else -x) * 4 / width))
            else:
                db += -10 * np.log10(1 + 2.0 ** (-4 * x))
        return 10 ** (db / 20)
    return gain_at


def convolve(audio, response):
    """Each channel of audio (2, n) with its channel of response (2, m), cut to n + m - 1."""
    length = audio.shape[-1] + response.shape[-1] - 1
    size = _fft_size(length)
    return np.fft.irfft(np.fft.rfft(audio, size) * np.fft.rfft(response, size), size)[..., :length]


def reverb_response(rng, rt60, predelay):
    """A stereo room: sparse early reflections, then decorrelated noise whose
    treble dies faster than its bass. Unit energy."""
    length = int((predelay + 1.2 * rt60) * SAMPLE_RATE)
    t = np.arange(length) / SAMPLE_RATE
    noise = rng.standard_normal((2, length))
    spectrum = np.fft.rfft(noise, axis=-1)
    freqs = np.fft.rfftfreq(length, 1 / SAMPLE_RATE)
    tail = np.zeros((2, length))
    for low, high, decay in ((0, 500, 1.2), (500, 4000, 1.0), (4000, None, 0.45)):
        band = (freqs >= low) & (freqs < (high or np.inf))
        part = np.fft.irfft(spectrum * band, length, axis=-1)
        tail += part * np.exp(-6.9 * np.maximum(t - predelay, 0) / (rt60 * decay))
    tail[:, t < predelay] = 0
    # Early reflections ahead of the tail, each about as strong as 10 ms of it.
    strength = np.sqrt(np.mean(tail ** 2) * 0.01 * SAMPLE_RATE)
    for _ in range(int(rng.integers(3, 9))):
        at = int((predelay * rng.uniform(0.2, 1.0)) * SAMPLE_RATE)
        tail[int(rng.integers(2)), at] += rng.uniform(0.5, 2.0) * strength
    return tail / np.sqrt(np.sum(tail ** 2) / 2)


def delay_response(rng, seconds, feedback, taps=5):
    """Ping-pong echoes: tap k after k delays, alternating channels, each feedback times the last."""
    step = int(seconds * SAMPLE_RATE)
    response = np.zeros((2, step * taps + 1))
    for k in range(1, taps + 1):
        response[k % 2, k * step] = feedback ** (k - 1)
    return response


def _block_levels(signal, reduce):
    """Per BLOCK of the mono signal: reduce(|x|) over the block."""
    n = -(-signal.shape[-1] // BLOCK) * BLOCK
    return reduce(np.abs(np.pad(signal, (0, n - signal.shape[-1]))).reshape(-1, BLOCK), axis=1)


def _smooth(target_db, attack, release):
    """One-pole smoothing at block rate: faster where the reduction grows."""
    rate = lambda seconds: 1 - np.exp(-BLOCK / (SAMPLE_RATE * seconds))
    up, down, state = rate(attack), rate(release), 0.0
    out = np.empty_like(target_db)
    for i, value in enumerate(target_db):
        state += (value - state) * (up if value > state else down)
        out[i] = state
    return out


def _to_samples(reduction_db, n):
    """Block-rate gain reduction in dB -> linear gains per sample."""
    centres = np.arange(len(reduction_db)) * BLOCK + BLOCK / 2
    return (10 ** (-np.interp(np.arange(n), centres, reduction_db) / 20)).astype(np.float32)


def compressor_gain(signal, threshold_db, ratio, attack, release, window=0.01):
    """Gains per sample that compress the mono signal's RMS (over `window`
    seconds) above the threshold by the ratio."""
    power = _block_levels(signal, lambda x, axis: np.mean(x * x, axis=axis))
    blocks = max(1, round(window * SAMPLE_RATE / BLOCK))
    power = np.convolve(power, np.ones(blocks) / blocks, mode="same")
    over = np.maximum(10 * np.log10(power + 1e-18) - threshold_db, 0)
    return _to_samples(_smooth(over * (1 - 1 / ratio), attack, release), signal.shape[-1])


def limiter_gain(signal, ceiling, release, lookahead=4):
    """Gains per sample that hold the signal's peaks under the ceiling: the
    reduction starts `lookahead` blocks ahead of a peak and lets go slowly."""
    peaks = _block_levels(signal, np.max)
    need = np.maximum(20 * np.log10(np.maximum(peaks, 1e-9) / ceiling), 0)
    padded = np.pad(need, (1, lookahead))
    ahead = np.max([padded[k:k + len(need)] for k in range(lookahead + 2)], axis=0)
    return _to_samples(_smooth(ahead, 1e-4, release), signal.shape[-1])


def loudness(audio):
    """An approximate integrated loudness in LUFS: mean square after a
    high-pass at 60 Hz and a 4 dB shelf above 1.5 kHz, over both channels."""
    weighted = apply_curve(audio, eq_curve([("highpass", 60, 0, 1), ("high", 1500, 4, 1)]))
    return -0.691 + 10 * np.log10(np.mean(weighted.astype(np.float64) ** 2) * 2 + 1e-12)


def _random_eq(rng, bands, spread):
    choices = [("bell", float(np.exp(rng.uniform(np.log(80), np.log(12000)))), rng.uniform(-spread, spread),
                rng.uniform(0.3, 1.5)) for _ in range(bands)]
    if rng.random() < 0.5:
        choices.append(("low", rng.uniform(80, 300), rng.uniform(-spread, spread) / 2, 1.0))
    if rng.random() < 0.5:
        choices.append(("high", rng.uniform(3000, 10000), rng.uniform(-spread, spread) / 2, 1.0))
    if rng.random() < 0.5:
        choices.append(("highpass", rng.uniform(20, 120), 0, 1.0))
    return eq_curve(choices)


def channel_strip(audio, rng):
    """One part's own processing: EQ, maybe compression, maybe reverb and delay returns."""
    out = apply_curve(audio, _random_eq(rng, int(rng.integers(1, 4)), 8))
    if rng.random() < 0.6:
        level = 10 * np.log10(np.mean(out.astype(np.float64) ** 2) + 1e-12)
        gain = compressor_gain(out.mean(0), level + rng.uniform(-12, 0), rng.uniform(2, 8),
                               rng.uniform(0.002, 0.03), rng.uniform(0.05, 0.4))
        out = out * gain * (1 / max(np.sqrt(np.mean(gain ** 2)), 1e-3))
    dry = out
    if rng.random() < 0.7:
        wet = convolve(dry, reverb_response(rng, rng.uniform(0.3, 3.0), rng.uniform(0.0, 0.04)))
        out = out + wet[..., :out.shape[-1]] * 10 ** (rng.uniform(-24, -8) / 20)
    if rng.random() < 0.3:
        wet = convolve(dry, delay_response(rng, rng.uniform(0.12, 0.6), rng.uniform(0.2, 0.55)))
        out = out + wet[..., :out.shape[-1]] * 10 ** (rng.uniform(-22, -10) / 20)
    return out.astype(np.float32)


def master(stems, rng):
    """The mix bus on a list of stems (2, n): the same EQ, gains and loudness for
    every stem, computed from their sum; returns the processed stems."""
    curve = _random_eq(rng, 1, 3)
    stems = [apply_curve(stem, curve) for stem in stems]
    mix = np.sum(stems, axis=0).mean(0)
    level = 10 * np.log10(np.mean(mix.astype(np.float64) ** 2) + 1e-12)
    gain = compressor_gain(mix, level + rng.uniform(-10, -2), rng.uniform(1.5, 4), rng.uniform(0.01, 0.04),
                           rng.uniform(0.1, 0.4))
    stems = [stem * gain for stem in stems]
    target = rng.uniform(-18, -8)
    scale = 10 ** ((target - loudness(np.sum(stems, axis=0))) / 20)
    stems = [stem * scale for stem in stems]
    ceiling = 10 ** (-rng.uniform(0.3, 1.5) / 20)
    gain = limiter_gain(np.abs(np.sum(stems, axis=0)).max(0), ceiling, rng.uniform(0.05, 0.3))
    return [(stem * gain).astype(np.float32) for stem in stems]
