"""Sung vocals for generated songs: a syllable on every note of the melody.

espeak-ng (GPL-3+) speaks each syllable in one of many voices; rubberband
(GPL-2+) fits it to the note's pitch and length, keeping the voice's
formants; then come vibrato on long notes and breaths before phrases.
espeak-ng sings at 22050 Hz, so nothing of its own reaches above 11 kHz: an
exciter adds the air a microphone hears above that, following the voice,
and the breaths are full-band noise, so the network does not learn that
vocals stop where this synthesiser does.
"""
import os
import shutil
import subprocess

import numpy as np
import soundfile

from tonwerk_train.audio import read_audio
from tonwerk_train.production import apply_curve, eq_curve
from tonwerk_train.stems import SAMPLE_RATE

PACKAGES = {"espeak-ng": "espeak-ng", "rubberband": "rubberband-cli"}
# Languages and voice variants: several timbres, both registers.
LANGUAGES = ("en", "en-us", "de", "fr", "es", "it", "pt", "nl", "sv", "pl")
MALE, FEMALE = tuple("m%d" % i for i in range(1, 8)), tuple("f%d" % i for i in range(1, 6))
ONSETS = ("", "l", "n", "m", "d", "b", "t", "s", "sh", "y", "w", "h", "r", "k", "g", "f", "v", "ch")
VOWELS = ("aa", "ee", "oo", "ay", "oh", "ai", "ow", "ah", "eh", "ih")
CODAS = ("", "", "", "n", "l", "s", "t", "m")


def missing_tools():
    return sorted(package for tool, package in PACKAGES.items() if shutil.which(tool) is None)


def pitch(audio):
    """The median fundamental of a voiced mono signal in Hz, by autocorrelation of 2048-sample frames."""
    frames = [audio[i:i + 2048] for i in range(0, audio.size - 2048, 1024)]
    lags = np.arange(SAMPLE_RATE // 1000, SAMPLE_RATE // 60)
    found = []
    for frame in frames:
        spectrum = np.fft.rfft(frame * np.hanning(frame.size), 4096)
        correlation = np.fft.irfft(np.abs(spectrum) ** 2)[:lags[-1] + 1]
        if correlation[0] <= 0:
            continue
        lag = lags[np.argmax(correlation[lags])]
        if correlation[lag] > 0.5 * correlation[0]:
            found.append(SAMPLE_RATE / lag)
    return float(np.median(found)) if found else None


def vibrato(audio, rng, start):
    """Pitch wobble of about +-30 cents at 5 to 6.5 Hz, easing in after `start` samples."""
    t = np.arange(audio.size) / SAMPLE_RATE
    rate, cents = rng.uniform(5, 6.5), rng.uniform(15, 40)
    depth = (2 ** (cents / 1200) - 1) / (2 * np.pi * rate)  # seconds of delay swing for that many cents
    ease = np.clip((t - start / SAMPLE_RATE) / 0.3, 0, 1)
    delay = depth * ease * np.sin(2 * np.pi * rate * t)
    return np.interp(t - delay, t, audio).astype(np.float32)


def breath(rng, seconds):
    """An inhalation: full-band noise shaped like a breath, swelling and fading."""
    n = int(seconds * SAMPLE_RATE)
    noise = rng.standard_normal((1, n)).astype(np.float32)
    noise = apply_curve(noise, eq_curve([("highpass", rng.uniform(300, 800), 0, 1),
                                         ("bell", rng.uniform(1500, 4000), 8, 1.5)]))[0]
    return noise * np.sin(np.pi * np.arange(n) / n) ** 2


def air(audio, rng):
    """An exciter: the voice's upper harmonics regenerated above its synthesiser's 11 kHz."""
    rms = lambda x: float(np.sqrt(np.mean(np.square(x, dtype=np.float64)))) + 1e-9
    bright = apply_curve(audio[None], eq_curve([("highpass", 3000, 0, 1)]))[0]
    harmonics = np.tanh(bright * 4 / (np.abs(bright).max() + 1e-9))
    harmonics = apply_curve(harmonics[None], eq_curve([("highpass", 11000, 0, 1)] * 3))[0]  # 36 dB/octave
    return harmonics * (rms(audio) / rms(harmonics) * 10 ** (rng.uniform(-26, -16) / 20))


def _run(command):
    result = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if result.returncode != 0:
        raise RuntimeError("%s failed: %s" % (command[0], result.stderr.strip()[-300:]))


def syllable(rng, voice, key, seconds, folder):
    """One sung syllable at MIDI `key` lasting `seconds`, mono float32."""
    text = ONSETS[rng.integers(len(ONSETS))] + VOWELS[rng.integers(len(VOWELS))] + CODAS[rng.integers(len(CODAS))]
    spoken, sung = os.path.join(folder, "spoken.wav"), os.path.join(folder, "sung.wav")
    _run(["espeak-ng", "-v", voice, "-p", str(int(rng.integers(30, 70))), "-s", "90", "-w", spoken, text])
    audio = read_audio(spoken)[0]
    audio = audio[np.flatnonzero(np.abs(audio) > 1e-3)[0]:] if np.any(np.abs(audio) > 1e-3) else audio
    found = pitch(audio)
    if found is None or audio.size < 256:
        return np.zeros(int(seconds * SAMPLE_RATE), np.float32)
    shift = 12 * np.log2(440 * 2 ** ((key - 69) / 12) / found)
    trimmed = os.path.join(folder, "trimmed.wav")
    soundfile.write(trimmed, audio, SAMPLE_RATE, subtype="FLOAT")
    _run(["rubberband", "-q", "-F", "-t", "%.4f" % (seconds * SAMPLE_RATE / audio.size),
          "-p", "%.3f" % shift, trimmed, sung])
    out = read_audio(sung)[0]
    fade = min(out.size // 4, int(0.015 * SAMPLE_RATE))
    if fade:
        out[:fade] *= np.linspace(0, 1, fade)
        out[-fade:] *= np.linspace(1, 0, fade)
    return out


def sing(notes, tempo, rng, folder):
    """The melody's notes (start beat, length, key, velocity) sung by one
    voice drawn for the song, as (2, n) float32."""
    keys = [key for _, _, key, _ in notes]
    male = rng.random() < 0.5
    voice = "%s+%s" % (LANGUAGES[rng.integers(len(LANGUAGES))],
                       (MALE if male else FEMALE)[rng.integers(len(MALE if male else FEMALE))])
    shift = -12 if male and keys and np.mean(keys) > 62 else 0  # a lower register for the lower voices
    beat = 60 / tempo
    end = max((start + length for start, length, _, _ in notes), default=0) * beat + 1
    out = np.zeros(int(end * SAMPLE_RATE) + SAMPLE_RATE, np.float32)
    previous_end = -10.0
    for start, length, key, velocity in sorted(notes):
        at, seconds = start * beat, max(0.08, length * beat)
        if at - previous_end > 0.45:  # a breath before a phrase
            gasp = breath(rng, rng.uniform(0.2, 0.4)) * 10 ** (rng.uniform(-32, -22) / 20)
            begin = max(0, int((at - 0.05) * SAMPLE_RATE) - gasp.size)
            out[begin:begin + gasp.size] += gasp[:out.size - begin]
        note = syllable(rng, voice, key + shift, seconds, folder)
        if seconds > 0.4:
            note = vibrato(note, rng, int(0.15 * SAMPLE_RATE))
        first = int(at * SAMPLE_RATE)
        note = note[:out.size - first] * (0.3 + 0.7 * velocity / 127)
        out[first:first + note.size] += note
        previous_end = at + seconds
    out += air(out, rng)
    return np.stack([out, out])
