"""Writes one-track Standard MIDI Files: the parts the synthetic songs render."""
import struct
from dataclasses import dataclass, field

TICKS_PER_BEAT = 480


@dataclass
class Part:
    """One instrument: notes are (start beat, length in beats, key, velocity);
    bends are (beat, value -8192..8191) on the part's channel."""
    program: int
    channel: int = 0
    notes: list = field(default_factory=list)
    bends: list = field(default_factory=list)
    controls: dict = field(default_factory=dict)  # controller number -> value, set at the start


def _variable_length(value):
    out = [value & 0x7F]
    value >>= 7
    while value:
        out.append(0x80 | (value & 0x7F))
        value >>= 7
    return bytes(reversed(out))


def _events(part):
    """(tick, order, bytes): at one tick note-offs go before note-ons, so a
    repeated key is released before it sounds again."""
    ch = part.channel
    events = [(0, 0, bytes([0xC0 | ch, part.program]))]
    events += [(0, 0, bytes([0xB0 | ch, number, value])) for number, value in sorted(part.controls.items())]
    for start, length, key, velocity in part.notes:
        on = max(0, round(start * TICKS_PER_BEAT))
        off = max(on + 1, round((start + length) * TICKS_PER_BEAT))
        events.append((on, 2, bytes([0x90 | ch, key, max(1, min(127, int(velocity)))])))
        events.append((off, 1, bytes([0x80 | ch, key, 0])))
    for beat, value in part.bends:
        value = max(0, min(16383, int(value) + 8192))
        events.append((max(0, round(beat * TICKS_PER_BEAT)), 1, bytes([0xE0 | ch, value & 0x7F, value >> 7])))
    return sorted(events, key=lambda e: (e[0], e[1]))


def write_midi(path, part, tempo_bpm):
    track = bytearray(b"\x00\xFF\x51\x03" + struct.pack(">I", round(60e6 / tempo_bpm))[1:])
    now = 0
    for tick, _, data in _events(part):
        track += _variable_length(tick - now) + data
        now = tick
    track += b"\x00\xFF\x2F\x00"
    with open(path, "wb") as out:
        out.write(b"MThd" + struct.pack(">IHHH", 6, 0, 1, TICKS_PER_BEAT))
        out.write(b"MTrk" + struct.pack(">I", len(track)) + track)
