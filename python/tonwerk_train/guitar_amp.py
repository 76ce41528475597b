"""Electric guitars through amp and cabinet simulation: guitarix's
GxAmplifier-X LV2 plugin (Debian's guitarix-lv2, GPL-2+), run by lv2_host.

A part rendered with the bank's clean electric guitar stands in for the
guitar's own signal; it goes in at a guitar's level and comes out through a
tube model, one of the plugin's tone stacks ("amp styles") and a cabinet,
with a gain drawn from three families: clean, crunch and high gain.
"""
import functools
import os

import numpy as np

from tonwerk_train.lv2_host import Plugin, quiet
from tonwerk_train.stems import SAMPLE_RATE

URI = "http://guitarix.sourceforge.net/plugins/gx_amp#GUITARIX"
PACKAGE = "guitarix-lv2"
CLEAN_PROGRAM = 27  # General MIDI "Electric Guitar (clean)": the signal the amp gets
TONE_STACKS = tuple(range(26))  # the plugin's t_model scale points but "Off"
TUBES, CABINETS = 18, 18  # model 0..17 (18 is "--"), c_model 0..17 (18 is "Off")
INPUT_DB = -18.0  # RMS of the signal into the amp, as a guitar's pickup gives it
# Gain families: (share of songs, {control: (low, high)}), fixed controls apart.
GAINS = {
    "clean": (0.35, {"Drive": (0.02, 0.2), "PreGain": (-12, -3), "Distortion": (1, 10)}, {"HIGHGAIN": 0}),
    "crunch": (0.35, {"Drive": (0.3, 0.6), "PreGain": (-2, 6), "Distortion": (20, 50)}, {"HIGHGAIN": 0}),
    "high gain": (0.3, {"Drive": (0.8, 1.0), "PreGain": (6, 20), "Distortion": (70, 100)}, {"HIGHGAIN": 1}),
}


def draw_settings(rng, tone_stacks):
    """One amp setting: {"gain": family, "controls": {symbol: value}}."""
    names = list(GAINS)
    family = names[int(rng.choice(len(names), p=[GAINS[name][0] for name in names]))]
    _, ranges, fixed = GAINS[family]
    controls = {symbol: float(rng.uniform(*span)) for symbol, span in ranges.items()}
    controls.update(fixed, model=int(rng.integers(TUBES)), t_model=int(rng.choice(tone_stacks)),
                    c_model=int(rng.integers(CABINETS)), Bass=float(rng.uniform(0.2, 0.8)),
                    Middle=float(rng.uniform(0.2, 0.8)), Treble=float(rng.uniform(0.2, 0.8)),
                    Presence=float(rng.uniform(2, 8)))
    return {"gain": family, "controls": controls}


@functools.lru_cache(maxsize=1)
def _amp():
    with quiet():
        return Plugin(URI, SAMPLE_RATE)


def installed():
    return os.path.isdir("/usr/lib/lv2/gx_amp.lv2")


def play_through_amp(audio, settings):
    """A part (2, n) through the amp, mono like a guitar, as (2, n)."""
    mono = audio.mean(0)
    rms = float(np.sqrt(np.mean(mono.astype(np.float64) ** 2))) + 1e-9
    mono = (mono * (10 ** (INPUT_DB / 20) / rms)).astype(np.float32)
    with quiet():
        out = _amp().process(mono[None], settings["controls"])[0]
    return np.stack([out, out])
