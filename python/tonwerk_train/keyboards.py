"""Pianos that come from no General MIDI bank: the instruments of Debian's
mda-lv2 (GPL-3+), played through lv2_host with MIDI events: Piano (a
sampled grand), EPiano (a sampled electric piano) and DX10 (an FM synth,
here with its electric piano presets), each with its factory presets read
from the installed bundle.
"""
import dataclasses
import functools
import os
import re

import numpy as np

from tonwerk_train.lv2_host import Plugin, quiet
from tonwerk_train.stems import SAMPLE_RATE

PACKAGE = "mda-lv2"
BUNDLE = "/usr/lib/lv2/mda.lv2"
URI = "http://drobilla.net/plugins/mda/"
# Source name -> (plugin, the presets that are pianos).
SOURCES = {"mda-piano": ("Piano", ".*"), "mda-epiano": ("EPiano", ".*"), "mda-dx10": ("DX10", ".*E\\.Piano")}
TAIL_SECONDS = 3.0  # after the last note off: the release rings out


@dataclasses.dataclass(frozen=True)
class Preset:
    label: str
    controls: dict


@functools.lru_cache(maxsize=None)
def presets(plugin):
    """The factory presets of an mda plugin, in the file's order."""
    with open(os.path.join(BUNDLE, plugin + "-presets.ttl")) as file:
        text = file.read()
    found = []
    for block in text.split("a pset:Preset")[1:]:
        label = re.search(r'rdfs:label "([^"]*)"', block).group(1)
        values = re.findall(r'lv2:symbol "(\w+)" ;\s*pset:value ([-0-9.eE]+)', block)
        found.append(Preset(label, {symbol: float(value) for symbol, value in values}))
    return found


def installed():
    return os.path.isfile(os.path.join(BUNDLE, "Piano.so"))


def draw_settings(rng, source):
    """A preset of the source: {"source", "preset", "controls"}."""
    plugin, pattern = SOURCES[source]
    chosen = [preset for preset in presets(plugin) if re.fullmatch(pattern, preset.label)]
    preset = chosen[int(rng.integers(len(chosen)))]
    return {"source": source, "preset": preset.label, "controls": preset.controls}


@functools.lru_cache(maxsize=None)
def _instrument(plugin):
    with quiet():
        return Plugin(URI + plugin, SAMPLE_RATE)


def midi_events(notes, tempo):
    """(start beat, length in beats, key, velocity) notes -> [(frame, MIDI bytes)] in frame order, note
    offs before note ons at one frame so a repeated key sounds again."""
    frame = lambda beat: int(round(beat * 60 / tempo * SAMPLE_RATE))
    events = []
    for start, length, key, velocity in notes:
        events.append((frame(start), 1, bytes([0x90, key, velocity])))
        events.append((frame(start + length), 0, bytes([0x80, key, 0])))
    return [(at, data) for at, _, data in sorted(events, key=lambda event: event[:2])]


def part_events(notes, tempo):
    """The part's MIDI events and its length in frames, the release rung out after the last note off."""
    events = midi_events(notes, tempo)
    return events, (events[-1][0] if events else 0) + int(TAIL_SECONDS * SAMPLE_RATE)


def play(notes, tempo, settings):
    """A part on the settings' instrument as float32 (2, n)."""
    events, length = part_events(notes, tempo)
    plugin = _instrument(SOURCES[settings["source"]][0])
    with quiet():
        out = plugin.process(np.zeros((0, length), np.float32), settings["controls"], events)
    return out if out.shape[0] == 2 else np.repeat(out[:1], 2, axis=0)
