"""Drum parts played on recorded drum kits instead of a General MIDI bank.

Two kinds of kit come from Debian packages:
  - Hydrogen drum kits (hydrogen-drumkits, GPL): folders of recorded samples
    with a drumkit.xml naming each instrument and its velocity layers. The
    sampler here maps the General MIDI drum notes the composer writes to the
    kit's instruments by name, picks the layer by velocity, pans as the kit
    says and lets a closed hi-hat choke an open one.
  - SoundFont kits (avldrums.lv2-soundfont, CC-BY-SA 4.0): multi-sampled
    acoustic kits with the General MIDI drum map on bank 0, program 0, which
    fluidsynth plays.
Kits without a kick, a snare and a hi-hat (hand percussion collections) are
not in the catalogue.
"""
import functools
import os
import re
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field

import numpy as np

from tonwerk_train.audio import read_audio
from tonwerk_train.stems import SAMPLE_RATE

HYDROGEN_DIR = "/usr/share/hydrogen/data/drumkits"
HYDROGEN_KITS = ("Audiophob", "BJA_Pacific", "ColomboAcousticDrumkit", "ElectricEmpireKit", "ForzeeStereo",
                 "HardElectro1", "Millo-Drums_v.1", "Millo_MultiLayered2", "Millo_MultiLayered3",
                 "The Black Pearl 1.0", "VariBreaks", "rumpf_kit_z01_h2")
SOUNDFONT_KITS = {name: "/usr/share/sounds/sf2/%s.sf2" % name for name in ("Black_Pearl_4_LV2", "Red_Zeppelin_4_LV2")}
PACKAGES = {**dict.fromkeys(HYDROGEN_KITS, "hydrogen-drumkits"),
            **dict.fromkeys(SOUNDFONT_KITS, "avldrums.lv2-soundfont")}

# General MIDI drum notes -> instrument name patterns, best first; the first
# pattern some instrument of the kit matches wins.
CLOSED_HAT = r"(clos|\bcl\b|tight).*(hh|hat)|(hh|hat).*(clos|\bcl\b)"
ROLES = {
    36: [r"kick|bass ?drum|\bbd\b|bass drum"],
    38: [r"snare(?!.*(rim|roll|stick|side))", r"snare"],
    39: [r"clap", r"snare"],
    42: [CLOSED_HAT, r"hh|hat"],
    44: [r"pedal|\bpd\b", CLOSED_HAT, r"hh|hat"],
    46: [r"open|\bop\b|\bohh", r"hh|hat"],
    49: [r"crash", r"ride"],
    51: [r"ride(?!.*(bell|cup))", r"ride|crash"],
    **{note: [r"floor|\btom.*lo|lo.*\btom", r"\btom"] for note in (41, 43)},
    **{note: [r"\btom.*mid|mid.*\btom", r"\btom"] for note in (45, 47)},
    **{note: [r"\btom.*hi|hi.*\btom", r"\btom"] for note in (48, 50)},
    **{note: [r"bongo|conga|djembe|cowbell|block|clave|tamb", r"\btom"] for note in range(60, 65)},
}
OPEN_HAT, CHOKERS = 46, (42, 44)
CHOKE_SECONDS = 0.01


@dataclass
class Instrument:
    name: str
    layers: list = field(default_factory=list)  # (lowest velocity 0..1, highest, gain, file)
    gain: float = 1.0
    pan: tuple = (1.0, 1.0)

    def layer(self, velocity):
        """The layer for a velocity 0..1: the one whose range holds it, else the nearest."""
        return min(self.layers, key=lambda l: 0 if l[0] <= velocity <= l[1] else min(abs(velocity - l[0]),
                                                                                     abs(velocity - l[1])))


# "{*}" matches a tag in the kit namespace of newer kits and in none, as older kits write it.
def _text(node, tag, default=None):
    found = node.find("{*}" + tag)
    return found.text if found is not None and found.text is not None else default


def _children(node, tag):
    return node.findall("{*}" + tag)


def read_hydrogen_kit(folder):
    """{General MIDI note: Instrument} for the notes the kit can play."""
    root = ElementTree.parse(os.path.join(folder, "drumkit.xml")).getroot()
    instruments = []
    for node in (i for lists in _children(root, "instrumentList") for i in _children(lists, "instrument")):
        if _text(node, "isMuted", "false") == "true":
            continue
        layers = [(float(_text(l, "min", 0)), float(_text(l, "max", 1)), float(_text(l, "gain", 1)),
                   os.path.join(folder, _text(l, "filename"))) for l in _children(node, "layer")]
        if not layers and _text(node, "filename"):
            layers = [(0.0, 1.0, 1.0, os.path.join(folder, _text(node, "filename")))]
        layers = [l for l in layers if os.path.isfile(l[3])]
        if layers:
            instruments.append(Instrument(_text(node, "name", ""), layers, float(_text(node, "volume", 1)),
                                          (float(_text(node, "pan_L", 1)), float(_text(node, "pan_R", 1)))))
    mapping = {}
    for note, patterns in ROLES.items():
        for pattern in patterns:
            matches = [i for i in instruments if re.search(pattern, i.name.lower())]
            if matches:
                mapping[note] = matches[note % len(matches)]  # toms and friends spread over the matches
                break
    if not all(note in mapping for note in (36, 38, 42)):
        raise ValueError("%s: no kick, snare and hi-hat among %s" % (folder, [i.name for i in instruments]))
    return mapping


@functools.lru_cache(maxsize=256)
def _sample(path):
    return read_audio(path)


def play_hydrogen_kit(kit, notes, tempo, samples):
    """The notes (start beat, length, key, velocity 0..127) on a kit from
    read_hydrogen_kit, as float32 (2, samples)."""
    out = np.zeros((2, samples), np.float32)
    open_hats = np.zeros((2, samples), np.float32)  # apart, so a closed hi-hat can cut them
    ringing_until = 0
    fade = int(CHOKE_SECONDS * SAMPLE_RATE)
    for start, _, key, velocity in sorted(notes):
        instrument = kit.get(key)
        if instrument is None:
            continue
        at = int(start * 60 / tempo * SAMPLE_RATE)
        if at >= samples:
            continue
        low, high, gain, path = instrument.layer(velocity / 127)
        sound = _sample(path)[:, :samples - at] * (gain * instrument.gain * velocity / 127)
        sound *= np.array(instrument.pan, np.float32)[:, None]
        if key in CHOKERS and at < ringing_until:  # the open hi-hat ringing so far stops
            open_hats[:, at:ringing_until] *= np.clip(1 - np.arange(ringing_until - at) / fade, 0, 1)
        if key == OPEN_HAT:
            open_hats[:, at:at + sound.shape[1]] += sound
            ringing_until = max(ringing_until, at + sound.shape[1])
        else:
            out[:, at:at + sound.shape[1]] += sound
    return out + open_hats
