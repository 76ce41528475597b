"""Pitched parts from a synthesizer's factory instruments: ZynAddSubFX
(Debian's zynaddsubfx-lv2, GPL-2+) played through lv2_host. Its additive,
subtractive and FM voices sound like no sample bank, so a stem's part
heard through them teaches the network what a piano, a guitar or a bass
does (attack, decay, harmonics, register) rather than how one bank's
recordings of them sound.

Each stem draws from the instruments named for it below, chosen by name
among the bundle's presets. A preset is the plugin's whole saved state (an
XML document under one key), handed back through the LV2 state interface.

The synth draws its random numbers (phases, detuning, noise) from one
generator that all its instances in a process share. Every part gets a
fresh instance and reseeds that generator from the song's settings, so a
song renders the same whatever the process rendered before it.
"""
import ctypes
import functools
import os
import re
import urllib.parse

import numpy as np

from tonwerk_train import keyboards
from tonwerk_train.lv2_host import Plugin, quiet
from tonwerk_train.stems import SAMPLE_RATE

PACKAGE = "zynaddsubfx-lv2"
URI = "http://zynaddsubfx.sourceforge.net"
LIBRARY = "/usr/lib/lv2/ZynAddSubFX.lv2/ZynAddSubFX.so"
PRESET_DIR = "/usr/lib/lv2/ZynAddSubFX.lv2presets"
STATE_KEY = "urn:distrho:state"
GENERATOR = "_ZN3zyn10prng_stateE"  # the shared random generator's state, a uint32
# Stem -> {preset bank: instrument names}. Chosen by their names: instruments that play the stem's role in a
# band; pads, bells and effects stay out, and so do instruments with wavetable (PADsynth) voices, whose tables
# the synth builds on a thread of its own, so that what they play depends on the machine's timing.
CHOICES = {
    "piano": {
        "Collection": ["Soft Piano1", "Soft Piano2", "Tunnel Piano"],
        "SynthPiano": ["Soft Piano 1", "Soft Piano 2", "Synth Piano1", "Synth Piano2", "Analog Piano 1",
                       "Analog Piano 2", "Analog Piano 3"],
        "Cormi_Sound": ["Piano", "Pianola"],
        "Rhodes": ["DX Rhodes 1", "DX Rhodes 3", "Dig Rhodes", "FM Rhodes 1", "FM Rhodes 3", "Soft Rhodes",
                   "Hard Rhodes1", "Steel Rhodes", "Ice Rhodes1", "Synth Rhodes1"],
    },
    "acoustic_guitar": {
        "Collection": ["Nylon Guitar"],
        "Plucked": ["Plucked 1", "Plucked 2", "Plucked 3", "Plucked 4", "Plucked 5", "Plucked 6",
                    "Plucked String1", "Plucked String2"],
        "Laba170bank": ["PluckedWithTail", "PluckedWithTail2"],
    },
    "electric_guitar": {
        "Guitar": ["Dist Guitar 1", "Dist Guitar 2", "Dist Guitar 3", "Dist Guitar 4", "Dist Guitar 5",
                   "Trash Guitar 1", "Trash Guitar 2", "Short", "Clean Guitar1", "Electric Guitar"],
        "Collection": ["Power Guitar 1", "Power Guitar 2", "Lite Guitar", "Trem Guitar", "Smooth Guitar"],
        "Laba170bank": ["NoisyGuitar", "NoisyGuitar2", "NoisyGuitar3", "guitar-PowerChorder"],
        "olivers-100": ["Dist Jazz Guitar", "Dist Jazz Guitar 2"],
        "the_mysterious_bank_2": ["heavy_metal_guitar"],
        "the_mysterious_bank_4": ["jazz_guitar"],
    },
    "bass": {
        "Bass": ["Bass 1", "Bass 2", "Bass 3 _analog_", "Bass 4", "Bass 5", "Analogue Bass", "FM Bass 1",
                 "FM Bass 2"],
        "Collection": ["Fretless Bass", "Decay Bass", "Distorted Bass"],
        "olivers-100": ["Funky Reso Bass", "Basic Thick Bass", "Punch Bass"],
        "olivers-other": ["Funk Bass", "Crunchy Bass"],
        "Laba170bank": ["AnalogBass", "PluckedAnalogBass"],
    },
}
STEMS = tuple(CHOICES)
SOURCE = "zyn"


def installed():
    return os.path.isfile(LIBRARY) and os.path.isdir(PRESET_DIR)


@functools.lru_cache(maxsize=None)
def bank_presets(bank):
    """{instrument name: saved state} of one preset file of the bundle."""
    with open(os.path.join(PRESET_DIR, bank + ".ttl"), encoding="utf-8") as file:
        text = file.read()
    pattern = r'#preset_%s_\d+-([^>]*)>\s*state:state \[\s*<%s>\s*"""(.*?)"""' % (re.escape(bank), re.escape(STATE_KEY))
    return {urllib.parse.unquote(name): state for name, state in re.findall(pattern, text, re.S)}


def draw_settings(rng, stem):
    """An instrument for the stem's part: {"source", "bank", "preset", "seed"}."""
    choices = [(bank, name) for bank, names in CHOICES[stem].items() for name in names]
    bank, name = choices[int(rng.integers(len(choices)))]
    return {"source": SOURCE, "bank": bank, "preset": name, "seed": int(rng.integers(1, 1 << 31))}


def play(notes, tempo, settings):
    """A part on the settings' instrument as float32 (2, n), its release rung out."""
    states = bank_presets(settings["bank"])
    if settings["preset"] not in states:
        raise ValueError("no instrument %r among the %s presets" % (settings["preset"], settings["bank"]))
    events, length = keyboards.part_events(notes, tempo)
    with quiet():
        plugin = Plugin(URI, SAMPLE_RATE)
    try:
        ctypes.c_uint32.in_dll(ctypes.CDLL(LIBRARY), GENERATOR).value = settings["seed"]
        with quiet():
            plugin.restore({STATE_KEY: states[settings["preset"]]})
            return plugin.process(np.zeros((0, length), np.float32), {}, events)
    finally:
        plugin.close()
