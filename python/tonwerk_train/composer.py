"""Composes the synthetic songs: a key, a chord progression and a tempo, then
one part per stem (and some parts that belong to none) with styles drawn at
random, humanised timing and dynamics, and bars where a part rests.

Programs follow General MIDI: the families decide which stem a part is.

By default each stem keeps to its own register, so "the lowest notes" and
"the bass" nearly coincide, and a network can learn the one for the other.
Songs that spread registers (`compose(..., spread=True)`) break that: pianos
play a left hand down where the bass is, guitars reach their low strings,
basses sometimes play an octave up, and parts that belong to no stem (a
cello, bassoon, trombone or tuba) may double the bass line. Then only the
sound tells the stems apart.
"""
import math

from tonwerk_train.midi_file import Part

DRUM_CHANNEL = 9
# General MIDI programs per stem; "other" parts go into the mixture only.
PROGRAMS = {
    "vocals": [52, 53, 54],
    "piano": [0, 1, 2, 3, 4, 5],
    "acoustic_guitar": [24, 25],
    "electric_guitar": [26, 27, 28, 29, 30],
    "bass": [32, 33, 34, 35, 36, 37, 38, 39],
    "other": [16, 17, 19, 40, 42, 48, 49, 56, 57, 61, 65, 66, 71, 73, 80, 81, 88, 89, 91, 94],
}
LOW_PROGRAMS = [42, 57, 58, 70]  # cello, trombone, tuba, bassoon: lines in the bass's register
MODES = {"major": [0, 2, 4, 5, 7, 9, 11], "minor": [0, 2, 3, 5, 7, 8, 10],
         "dorian": [0, 2, 3, 5, 7, 9, 10], "mixolydian": [0, 2, 4, 5, 7, 9, 10]}
PROGRESSIONS = [[0, 4, 5, 3], [0, 5, 3, 4], [0, 3, 4, 4], [5, 3, 0, 4], [1, 4, 0, 0], [0, 6, 5, 4],
                [0, 0, 3, 3, 0, 0, 4, 3], [0, 2, 5, 4], [0, 3, 0, 4]]
KICK, SNARE, CLAP, HAT, PEDAL_HAT, OPEN_HAT, RIDE, CRASH = 36, 38, 39, 42, 44, 46, 51, 49
TOMS = [41, 43, 45, 47, 48, 50]


class Song:
    """Harmony and time shared by every part of one song."""

    def __init__(self, rng, bars, spread=False):
        self.rng = rng
        self.bars = bars
        self.spread = spread
        self.tempo = float(rng.uniform(70, 170))
        self.root = int(rng.integers(0, 12))
        self.scale = MODES[rng.choice(list(MODES))]
        self.degrees = PROGRESSIONS[rng.integers(len(PROGRESSIONS))]
        self.swing = float(rng.choice([0.0, 0.0, 0.08, 0.16]))

    def chord(self, bar, size=3):
        """Pitch classes of the bar's chord: stacked scale thirds."""
        degree = self.degrees[bar % len(self.degrees)]
        return [(self.root + self.scale[(degree + 2 * i) % 7] + 12 * ((degree + 2 * i) // 7)) for i in range(size)]

    def scale_keys(self, low, high):
        return [k for k in range(low, high + 1) if (k - self.root) % 12 in self.scale]

    def human(self, beat, amount=0.015):
        """Swing on off-beat eighths plus timing jitter, in beats."""
        if abs(beat * 2 - round(beat * 2)) < 1e-6 and round(beat * 2) % 2 == 1:
            beat += self.swing
        return max(0.0, beat + float(self.rng.normal(0, amount)))

    def velocity(self, base, spread=10):
        return int(max(20, min(127, base + self.rng.normal(0, spread))))


def near(pitch_class, low, high):
    """The key of a pitch class closest to the middle of [low, high]."""
    middle = (low + high) // 2
    key = middle - ((middle - pitch_class) % 12)
    return key + 12 if key + 6 < middle else key


def resting_bars(song, share):
    """Bars where a part is silent, in blocks of two, so songs have sections."""
    rest = set()
    for block in range(0, song.bars, 2):
        if song.rng.random() < share:
            rest.update({block, block + 1})
    return rest


def drums(song):
    part = Part(program=0, channel=DRUM_CHANNEL)
    style = song.rng.choice(["rock", "funk", "four", "half", "ride", "latin"])
    sixteenths = style == "funk"
    for bar in range(song.bars):
        if bar in song.rests:
            continue
        base = bar * 4
        steps = 16 if sixteenths else 8
        for i in range(steps):
            beat = i * 4 / steps
            cymbal = RIDE if style == "ride" else (OPEN_HAT if style == "four" and i % 2 == 1 else HAT)
            if style != "latin" or i % 2 == 0:
                part.notes.append((song.human(base + beat), 0.2, cymbal, song.velocity(70 if i % 2 else 90)))
        kicks = {"rock": [0, 2.5], "funk": [0, 0.75, 2.5], "four": [0, 1, 2, 3], "half": [0],
                 "ride": [0, 2.5], "latin": [0, 1.5, 2.5]}[style]
        snares = {"half": [2], "latin": []}.get(style, [1, 3])
        for beat in kicks:
            part.notes.append((song.human(base + beat), 0.25, KICK, song.velocity(105)))
        for beat in snares:
            part.notes.append((song.human(base + beat), 0.25, CLAP if style == "four" else SNARE, song.velocity(100)))
        if style == "latin":
            for beat in (0.5, 1, 1.75, 3, 3.5):
                part.notes.append((song.human(base + beat), 0.2, int(song.rng.choice([60, 61, 62, 63, 64])),
                                   song.velocity(85)))
        if bar % 4 == 3 and song.rng.random() < 0.5:  # a fill into the next phrase
            for i in range(4):
                part.notes.append((song.human(base + 3 + i / 4), 0.2, TOMS[-1 - i], song.velocity(95)))
        if bar % 8 == 0:
            part.notes.append((song.human(base), 1.0, CRASH, song.velocity(100)))
    return part


def bass(song, program, low=28):
    part = Part(program=program)
    high = low + 20
    style = song.rng.choice(["whole", "quarters", "eighths", "walking", "synco"])
    rhythm = {"whole": [(0, 3.8)], "quarters": [(b, 0.9) for b in range(4)],
              "eighths": [(b / 2, 0.45) for b in range(8)], "walking": [(b, 0.95) for b in range(4)],
              "synco": [(0, 0.7), (0.75, 0.5), (1.5, 0.4), (2.5, 0.9), (3.5, 0.4)]}[style]
    for bar in range(song.bars):
        if bar in song.rests:
            continue
        chord = song.chord(bar)
        root = near(chord[0], low, high)
        for i, (beat, length) in enumerate(rhythm):
            key = root
            if style == "walking":
                key = near(chord[i % 3], low, high + 2) if i < 3 else root + int(song.rng.choice([-1, 1, 2]))
            elif style == "synco" and i == 3:
                key = near(chord[2], low, high + 2)
            part.notes.append((song.human(bar * 4 + beat), length, key, song.velocity(95)))
    return part


def keys_part(song, program, low, high, strum, left_hand=False):
    """Piano and guitars: block chords, arpeggios or strums over the chords;
    with `left_hand`, the chord's root (maybe in octaves) down in the bass's
    register on the bar's strong beats."""
    part = Part(program=program)
    style = song.rng.choice(["block", "arpeggio", "strum", "broken"] if strum else ["block", "arpeggio", "broken", "stride"])
    size = int(song.rng.choice([3, 4]))
    octaves = left_hand and song.rng.random() < 0.5
    for bar in range(song.bars):
        if bar in song.rests:
            continue
        keys = sorted(near(pc, low, high) for pc in song.chord(bar, size))
        base = bar * 4
        if left_hand and style != "stride":
            root = near(song.chord(bar)[0], 28, 47)
            for beat in (0, 2):
                for key in (root, root + 12) if octaves else (root,):
                    part.notes.append((song.human(base + beat), 1.9, key, song.velocity(80)))
        if style == "block":
            for beat in ([0, 2] if song.rng.random() < 0.5 else [0, 1, 2, 3]):
                for key in keys:
                    part.notes.append((song.human(base + beat), 1.8, key, song.velocity(80)))
        elif style in ("arpeggio", "broken"):
            step = 0.5 if style == "arpeggio" else 0.25
            order = keys + keys[1:-1][::-1] if style == "broken" else keys + [k + 12 for k in keys]
            for i in range(int(4 / step)):
                part.notes.append((song.human(base + i * step), step * 1.5, order[i % len(order)], song.velocity(75)))
        elif style == "stride":
            part.notes.append((song.human(base), 0.9, near(song.chord(bar)[0], low - 12, low), song.velocity(85)))
            part.notes.append((song.human(base + 2), 0.9, near(song.chord(bar)[2], low - 12, low), song.velocity(80)))
            for beat in (1, 3):
                for key in keys:
                    part.notes.append((song.human(base + beat), 0.8, key, song.velocity(75)))
        else:  # strum: strings sound one after another, up-strokes reversed and softer
            voicing = keys + [k + 12 for k in keys[:2]]
            for i, beat in enumerate([0, 1, 1.5, 2.5, 3, 3.5][: int(song.rng.integers(3, 7))]):
                spread = float(song.rng.uniform(0.01, 0.04))
                strings = voicing if i % 2 == 0 else voicing[::-1]
                for j, key in enumerate(strings):
                    part.notes.append((song.human(base + beat) + j * spread, 0.9, key,
                                       song.velocity(85 if i % 2 == 0 else 65)))
    return part


def electric_guitar(song, program):
    if program < 29 or song.rng.random() < 0.3:
        return keys_part(song, program, *window(song, 52, 76, 38), strum=True)
    part = Part(program=program)  # overdriven: power chords or a riff
    riff = song.rng.random() < 0.5
    pentatonic = [k for k in song.scale_keys(40, 64) if (k - song.root) % 12 in (0, 3, 5, 7, 10, 2, 4, 9)]
    for bar in range(song.bars):
        if bar in song.rests:
            continue
        root = near(song.chord(bar)[0], 40, 52)
        for i in range(8):
            beat = bar * 4 + i / 2
            if riff:
                key = int(song.rng.choice(pentatonic))
                part.notes.append((song.human(beat), 0.45, key, song.velocity(90)))
            else:
                for key in (root, root + 7, root + 12):
                    part.notes.append((song.human(beat, 0.008), 0.42, key, song.velocity(95)))
    return part


def melody(song, program, low, high, vibrato=True):
    """A sung line: phrases of one or two bars with breaths between, mostly
    chord tones on strong beats, steps between them, vibrato on long notes."""
    part = Part(program=program)
    keys = song.scale_keys(low, high)
    index = len(keys) // 2
    for bar in range(song.bars):
        if bar in song.rests or (bar % 2 == 1 and song.rng.random() < 0.3):
            continue
        beat = float(song.rng.choice([0, 0.5, 1]))
        while beat < 3.6:
            length = float(song.rng.choice([0.5, 0.5, 1, 1, 1.5, 2]))
            length = min(length, 4 - beat)
            if beat == int(beat):
                tones = [k for k in keys if k % 12 in [pc % 12 for pc in song.chord(bar)]]
                index = keys.index(min(tones, key=lambda k: abs(k - keys[index])))
            else:
                index = max(0, min(len(keys) - 1, index + int(song.rng.choice([-2, -1, 1, 2]))))
            start = song.human(bar * 4 + beat, 0.02)
            part.notes.append((start, length * 0.95, keys[index], song.velocity(90, 12)))
            if vibrato and length >= 1:
                add_vibrato(song, part, start, length)
            beat += length
    return part


def add_vibrato(song, part, start, length):
    """Pitch bends: about +-30 cents at 5-6 Hz, easing in after the onset."""
    rate = float(song.rng.uniform(4.5, 6.5)) * 60 / song.tempo  # cycles per beat
    depth = float(song.rng.uniform(600, 1400))
    steps = int(length * 16)
    for i in range(steps):
        t = i / 16
        ease = min(1.0, t / 0.5)
        part.bends.append((start + t, depth * ease * math.sin(2 * math.pi * rate * t)))
    part.bends.append((start + length, 0))


def compose(rng, seconds, spread=False):
    """All parts of one song: {stem: Part}, with "other" parts under
    "other", "other2". At least three stems sound. `spread`: registers
    overlap across stems (see above)."""
    song = Song(rng, bars=1, spread=spread)
    song.bars = max(2, int(seconds * song.tempo / 240) + 1)
    present = [s for s in ("vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass")
               if rng.random() < 0.75]
    while len(present) < 3:
        extra = str(rng.choice(["vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass"]))
        present = sorted(set(present) | {extra})
    parts = {}
    for stem in present + ["other"] * int(rng.integers(0, 3)):
        song.rests = resting_bars(song, 0.0 if stem == "drum" and rng.random() < 0.5 else 0.2)
        program = int(rng.choice(PROGRAMS.get(stem, PROGRAMS["other"])))
        name = stem if stem not in parts else stem + str(len(parts))
        parts[name] = make_part(song, stem, program)
    return song.tempo, parts


def window(song, low, high, lowest):
    """A part's keys: [low, high], or in songs that spread registers, that
    window moved down by a random amount, as far as `lowest`."""
    if not song.spread:
        return low, high
    shift = int(song.rng.integers(0, low - lowest + 1))
    return low - shift, high - shift


def make_part(song, stem, program):
    if stem == "drum":
        return drums(song)
    if stem == "bass":
        return bass(song, program, 40 if song.spread and song.rng.random() < 0.3 else 28)
    if stem == "vocals":
        return melody(song, program, 55, 79)
    if stem == "piano":
        return keys_part(song, program, *window(song, 48, 84, 36), strum=False,
                         left_hand=song.spread and song.rng.random() < 0.5)
    if stem == "acoustic_guitar":
        return keys_part(song, program, *window(song, 48, 76, 34), strum=True)
    if stem == "electric_guitar":
        return electric_guitar(song, program)
    # other: a pad, a counter-melody or chords on a non-stem instrument, or
    # in songs that spread registers maybe a low instrument on the bass line
    if song.spread and song.rng.random() < 0.4:
        return bass(song, int(song.rng.choice(LOW_PROGRAMS)), int(song.rng.choice([28, 36, 40])))
    if program in (56, 57, 61, 65, 66, 71, 73, 80, 81) and song.rng.random() < 0.6:
        return melody(song, program, 60, 84, vibrato=False)
    part = keys_part(song, program, 48, 76, strum=False)
    part.notes = [(s, max(l, 1.5), k, v) for s, l, k, v in part.notes]
    return part
