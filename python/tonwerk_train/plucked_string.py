"""Acoustic guitars from a plucked-string model of our own (numpy), so the
acoustic guitar stem is not only the General MIDI banks' few samples.

Each note is a string: a burst of noise shaped by the pick (how hard, where
along the string) circulates through a delay line one period long whose
loop filter loses treble on every trip, so highs die first as on a real
string. Chords are strummed (the strings a few milliseconds apart, down or
up), and the whole part sounds through a body: a wooden box's low air and
plate resonances and a spread of higher modes, drawn per song. Steel
strings ring longer and brighter than nylon ones.
"""
import numpy as np

from tonwerk_train.stems import SAMPLE_RATE

# String kind -> (loop brightness, ring time in seconds of a low E string).
STRINGS = {"steel": ((0.62, 0.85), (3.0, 7.0)), "nylon": ((0.52, 0.68), (1.5, 3.5))}
RELEASE_SECONDS = 0.08  # a lifted finger damps the string this fast
LOW_E = 82.41
SOURCES = ("plucked",)


def draw_settings(rng, source="plucked"):
    """One guitar: {"source", "strings", "brightness", "ring", "pick", "strum", "body", "seed"}."""
    strings = str(rng.choice(list(STRINGS)))
    (bright_low, bright_high), (ring_low, ring_high) = STRINGS[strings]
    modes = [(rng.uniform(90, 125), rng.uniform(0.02, 0.05), 1.0), (rng.uniform(180, 260), rng.uniform(0.01, 0.03), 0.7)]
    modes += [(rng.uniform(300, 3500), rng.uniform(0.003, 0.015), rng.uniform(0.1, 0.5)) for _ in range(8)]
    return {"source": source, "strings": strings, "brightness": float(rng.uniform(bright_low, bright_high)),
            "ring": float(rng.uniform(ring_low, ring_high)), "pick": float(rng.uniform(0.08, 0.3)),
            "strum": float(rng.uniform(0.004, 0.02)), "body": [[float(v) for v in mode] for mode in modes],
            "seed": int(rng.integers(1 << 31))}


def string(hertz, velocity, seconds, settings, rng):
    """One plucked note of `seconds` (then damped) as float32 mono, its tail included."""
    period = SAMPLE_RATE / hertz
    bright = settings["brightness"]
    # The loop: a two-tap treble loss [b, 1 - b] delays (1 - b) samples and a linear interpolation the
    # fraction that tunes the loop; the rest is the integer delay.
    whole = int(np.floor(period - (1 - bright)))
    fraction = period - whole - (1 - bright)
    taps = np.convolve([bright, 1 - bright], [1 - fraction, fraction])
    ring = settings["ring"] * np.sqrt(LOW_E / hertz)  # higher strings die sooner
    loss = 10 ** (-3 / (ring * hertz))  # 60 dB over the ring time
    # A softer pluck is darker: the noise burst averaged over more samples.
    burst = rng.uniform(-1, 1, whole)
    smooth = max(1, int(round((1.2 - velocity / 127) * 6)))
    burst = np.convolve(burst, np.ones(smooth) / smooth, mode="same") * velocity / 127
    pick = max(1, int(round(settings["pick"] * whole)))
    burst[pick:] -= burst[:-pick].copy()  # plucked away from the bridge: that point's overtones vanish
    total = int((seconds + RELEASE_SECONDS * 4) * SAMPLE_RATE)
    out = np.zeros(total + 2, np.float64)  # two zeros ahead: the loop's taps reach back whole + 2
    out[2:2 + whole] = burst[:total]
    # Every sample a period on depends only on samples a period back, so the loop runs a period at a time.
    for start in range(2 + whole, total + 2, whole):
        end = min(start + whole, total + 2)
        back = np.arange(start, end) - whole
        out[start:end] += loss * (taps[0] * out[back] + taps[1] * out[back - 1] + taps[2] * out[back - 2])
    out = out[2:]
    held = int(seconds * SAMPLE_RATE)
    out[held:] *= np.exp(-np.arange(total - held) / (RELEASE_SECONDS * SAMPLE_RATE / 7))
    return out.astype(np.float32)


def body(signal, modes):
    """The string's sound through the box: itself plus each mode's decaying ring, by FFT convolution."""
    t = np.arange(int(0.3 * SAMPLE_RATE)) / SAMPLE_RATE
    response = np.zeros(t.size)
    response[0] = 1.0
    for hertz, decay, gain in modes:
        response += gain * 0.02 * np.sin(2 * np.pi * hertz * t) * np.exp(-t / decay)
    size = 1 << int(np.ceil(np.log2(signal.size + t.size)))
    out = np.fft.irfft(np.fft.rfft(signal, size) * np.fft.rfft(response, size), size)
    return out[:signal.size].astype(np.float32)


def play(notes, tempo, settings):
    """(start beat, length in beats, key, velocity) notes on the settings' guitar as float32 (2, n)."""
    rng = np.random.default_rng(settings["seed"])
    beat = 60 / tempo
    end = max((start + length for start, length, _, _ in notes), default=0) * beat
    out = np.zeros(int((end + 1) * SAMPLE_RATE), np.float32)
    down = True
    for start in sorted({start for start, _, _, _ in notes}):
        chord = sorted((key, length, velocity) for at, length, key, velocity in notes if at == start)
        down = not down if len(chord) > 1 and rng.random() < 0.5 else down
        for order, (key, length, velocity) in enumerate(chord if down else chord[::-1]):
            hertz = 440 * 2 ** ((key - 69) / 12)
            sound = string(hertz, velocity, length * beat, settings, rng)
            first = int((start * beat + order * settings["strum"]) * SAMPLE_RATE)
            out[first:first + sound.size] += sound[:out.size - first]
    out = body(out, settings["body"])
    return np.stack([out, out])
