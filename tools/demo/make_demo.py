#!/usr/bin/python3
"""Synthesises a short demo song from known parts, for trying out separation.

Usage: make_demo.py OUTPUT_DIR [SECONDS]

Writes, as 32-bit float stereo WAV at 44100 Hz:
  OUTPUT_DIR/demo.wav                 the mixture
  OUTPUT_DIR/stems/<stem>.wav         each part alone, for vocals, drum, piano,
                                      acoustic_guitar, electric_guitar and bass,
                                      plus mix.wav (equal to the mixture)
The parts sum exactly to the mixture, so a separation can be scored against
them (tonwerk-separate --reference-dir OUTPUT_DIR/stems).

The arrangement (120 bpm, C Am F G) places every part where the default
model looks for it: drums and bass in the centre, the voice in the centre
above 250 Hz, piano moderately left, acoustic guitar moderately right,
electric guitar hard right. Real recordings are rarely this tidy.
"""

import os
import struct
import sys

import numpy as np

RATE = 44100
BPM = 120.0
BEAT = 60.0 / BPM
BAR = 4 * BEAT
CHORDS = ["C", "Am", "F", "G"]
# Chord tones as MIDI notes, voiced from middle C upwards.
VOICINGS = {"C": [60, 64, 67, 72], "Am": [57, 60, 64, 69], "F": [57, 60, 65, 69], "G": [59, 62, 67, 71]}
BASS_ROOTS = {"C": 36, "Am": 33, "F": 29, "G": 31}
# Power-chord roots of the electric guitar (root and fifth), from middle C upwards.
GUITAR_ROOTS = {"C": 60, "Am": 69, "F": 65, "G": 67}
# One vocal note per beat over each chord, MIDI numbers; 0 is a rest.
MELODY = {"C": [72, 71, 67, 0], "Am": [69, 67, 64, 0], "F": [65, 67, 69, 72], "G": [71, 69, 67, 0]}

PANS = {"vocals": 0.0, "drum": 0.0, "bass": 0.0, "piano": -0.55, "acoustic_guitar": 0.55,
        "electric_guitar": 0.95}
STEMS = ["vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass"]


def hz(midi):
    return 440.0 * 2.0 ** ((midi - 69) / 12.0)


def pan_gains(pan):
    angle = (pan + 1.0) * np.pi / 4.0
    return np.cos(angle), np.sin(angle)


def envelope(length, attack, decay_rate, release=0.01):
    t = np.arange(length) / RATE
    env = np.minimum(t / attack, 1.0) * np.exp(-decay_rate * t)
    fade = int(release * RATE)
    if fade and length > fade:
        env[-fade:] *= np.linspace(1.0, 0.0, fade)
    return env


def add(track, start_s, sound):
    start = int(round(start_s * RATE))
    end = min(len(track), start + len(sound))
    if end > start:
        track[start:end] += sound[:end - start]


def kick():
    n = int(0.35 * RATE)
    t = np.arange(n) / RATE
    freq = 50.0 + 100.0 * np.exp(-t * 30.0)
    return np.sin(2 * np.pi * np.cumsum(freq) / RATE) * np.exp(-t * 9.0)


def snare(rng):
    n = int(0.2 * RATE)
    t = np.arange(n) / RATE
    noise = rng.standard_normal(n) * np.exp(-t * 22.0)
    body = np.sin(2 * np.pi * 185.0 * t) * np.exp(-t * 30.0)
    return 0.5 * noise + 0.6 * body


def hihat(rng):
    n = int(0.06 * RATE)
    noise = rng.standard_normal(n)
    bright = np.diff(noise, prepend=0.0)  # first difference tilts the noise towards high frequencies
    return 0.25 * bright * np.exp(-np.arange(n) / RATE * 70.0)


def drums(seconds, rng):
    track = np.zeros(int(seconds * RATE))
    beats = int(seconds / BEAT)
    for b in range(beats):
        at = b * BEAT
        add(track, at, kick() if b % 2 == 0 else 0.8 * snare(rng))
        add(track, at, hihat(rng))
        add(track, at + BEAT / 2, hihat(rng))
    return track


def bass(seconds, chords):
    track = np.zeros(int(seconds * RATE))
    for bar, chord in enumerate(chords):
        for beat in range(4):
            f = hz(BASS_ROOTS[chord] + (12 if beat == 2 else 0))
            n = int(BEAT * 0.95 * RATE)
            t = np.arange(n) / RATE
            tone = np.sin(2 * np.pi * f * t) + 0.2 * np.sin(4 * np.pi * f * t)
            add(track, bar * BAR + beat * BEAT, 0.4 * tone * envelope(n, 0.005, 2.0, 0.03))
    return track


def piano_note(f, length_s):
    n = int(length_s * RATE)
    t = np.arange(n) / RATE
    tone = np.zeros(n)
    for k in range(1, 13):
        fk = k * f * np.sqrt(1.0 + 0.0004 * k * k)  # slightly stretched partials, like a real string
        if fk > 0.45 * RATE:
            break
        tone += np.sin(2 * np.pi * fk * t) * np.exp(-t * (1.2 + 0.6 * k)) / k ** 1.3
    return tone * envelope(n, 0.003, 0.0, 0.05)


def piano(seconds, chords):
    track = np.zeros(int(seconds * RATE))
    for bar, chord in enumerate(chords):
        for half in range(2):
            for note in VOICINGS[chord]:
                add(track, bar * BAR + half * 2 * BEAT, 0.18 * piano_note(hz(note + 12), 2 * BEAT * 0.95))
    return track


def pluck(f, length_s, rng, damping):
    """Karplus-Strong: a noise burst circulating through a delay line with a gentle low-pass."""
    n = int(length_s * RATE)
    period = max(2, int(round(RATE / f)))
    y = np.zeros(n + period + 1)
    burst = rng.uniform(-1.0, 1.0, period + 1)
    burst = np.convolve(burst, np.ones(3) / 3.0, mode="same")  # a finger, not a pick: a softer attack
    y[:period + 1] = burst - burst.mean()  # the loop keeps any offset, which would hum below the note
    for start in range(period + 1, len(y), period):
        end = min(start + period, len(y))
        y[start:end] = damping * 0.5 * (y[start - period:end - period] + y[start - period - 1:end - period - 1])
    return y[:n] * envelope(n, 0.001, 0.0, 0.05)


def acoustic_guitar(seconds, chords, rng):
    track = np.zeros(int(seconds * RATE))
    for bar, chord in enumerate(chords):
        tones = VOICINGS[chord]
        pattern = [0, 1, 2, 3, 2, 1, 2, 3]
        for step, idx in enumerate(pattern):
            add(track, bar * BAR + step * BEAT / 2, 0.8 * pluck(hz(tones[idx] + 12), BEAT * 1.5, rng, 0.996))
    return track


def electric_guitar(seconds, chords, rng):
    track = np.zeros(int(seconds * RATE))
    for bar, chord in enumerate(chords):
        root = GUITAR_ROOTS[chord]
        for hit in range(4):
            if hit == 3 and bar % 2 == 1:
                continue
            sound = pluck(hz(root), BEAT * 0.9, rng, 0.999) + pluck(hz(root + 7), BEAT * 0.9, rng, 0.999)
            add(track, bar * BAR + hit * BEAT + BEAT / 2, 0.3 * np.tanh(2.5 * sound))
    return track


FORMANTS = {  # (frequency Hz, bandwidth Hz) of the first three formants
    "a": [(800, 80), (1200, 90), (2500, 120)],
    "e": [(400, 70), (2000, 100), (2600, 120)],
    "o": [(450, 70), (800, 80), (2500, 120)],
    "u": [(350, 60), (600, 80), (2400, 120)],
}


def formant_gain(freqs, vowel):
    gain = np.zeros_like(freqs)
    for i, (fc, bw) in enumerate(FORMANTS[vowel]):
        gain += (0.6 ** i) / (1.0 + ((freqs - fc) / bw) ** 2)
    return gain


def voice_note(f, length_s, vowel):
    """A sung vowel: harmonics of a vibrato-modulated pitch, weighted by the vowel's formants."""
    n = int(length_s * RATE)
    t = np.arange(n) / RATE
    vibrato = 1.0 + 0.012 * np.sin(2 * np.pi * 5.5 * t) * np.minimum(t / 0.3, 1.0)
    phase = 2 * np.pi * np.cumsum(f * vibrato) / RATE
    tone = np.zeros(n)
    for k in range(1, 40):
        if k * f > 6000:
            break
        tone += np.sin(k * phase) * formant_gain(k * f * vibrato, vowel) / k ** 0.7
    return tone * envelope(n, 0.04, 0.3, 0.08)


def vocals(seconds, chords):
    track = np.zeros(int(seconds * RATE))
    vowels = "aeou"
    for bar, chord in enumerate(chords):
        for beat, note in enumerate(MELODY[chord]):
            if note:
                add(track, bar * BAR + beat * BEAT, 0.5 * voice_note(hz(note), BEAT * 0.98,
                                                                     vowels[(bar + beat) % 4]))
    return track


def write_float_wav(path, stereo):
    """32-bit IEEE float WAV (format 3) with the fact chunk such files carry."""
    data = np.ascontiguousarray(stereo.astype("<f4"))
    frames, channels = data.shape
    payload = data.tobytes()
    fmt = struct.pack("<HHIIHHH", 3, channels, RATE, RATE * channels * 4, channels * 4, 32, 0)
    fact = struct.pack("<I", frames)
    body = b"WAVE" + b"fmt " + struct.pack("<I", len(fmt)) + fmt + b"fact" + struct.pack("<I", 4) + fact
    body += b"data" + struct.pack("<I", len(payload)) + payload
    temp = path + ".tmp"
    with open(temp, "wb") as out:
        out.write(b"RIFF" + struct.pack("<I", len(body)) + body)
    os.replace(temp, path)


def main(argv):
    if len(argv) not in (2, 3):
        sys.stderr.write(__doc__)
        return 2
    out_dir = argv[1]
    seconds = float(argv[2]) if len(argv) == 3 else 20.0
    bars = int(np.ceil(seconds / BAR))
    chords = [CHORDS[i % len(CHORDS)] for i in range(bars)]
    rng = np.random.default_rng(20240611)

    mono = {
        "vocals": vocals(seconds, chords),
        "drum": drums(seconds, rng),
        "piano": piano(seconds, chords),
        "acoustic_guitar": acoustic_guitar(seconds, chords, rng),
        "electric_guitar": electric_guitar(seconds, chords, rng),
        "bass": bass(seconds, chords),
    }
    parts = {}
    for stem, track in mono.items():
        gl, gr = pan_gains(PANS[stem])
        parts[stem] = np.stack([gl * track, gr * track], axis=1)
    mixture = sum(parts.values())
    scale = 0.89 / np.max(np.abs(mixture))  # about -1 dBFS peak
    # Round to float32 first and sum afterwards, so the written parts add up to the written mixture.
    parts = {stem: (part * scale).astype(np.float32) for stem, part in parts.items()}
    mixture = np.zeros_like(parts["vocals"])
    for stem in STEMS:
        mixture += parts[stem]

    os.makedirs(os.path.join(out_dir, "stems"), exist_ok=True)
    for stem in STEMS:
        write_float_wav(os.path.join(out_dir, "stems", stem + ".wav"), parts[stem])
    write_float_wav(os.path.join(out_dir, "stems", "mix.wav"), mixture)
    write_float_wav(os.path.join(out_dir, "demo.wav"), mixture)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
