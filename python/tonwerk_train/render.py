"""Renders composed songs into multitrack folders, one part at a time, with
Debian's General MIDI sounds, and places each part at a random stereo
position, width and level, so no mixing convention can be learned. A song's
drums come from the bank's own kit or from a recorded kit (drum_kits.py),
its electric guitar mostly through an amp and cabinet (guitar_amp.py), its
piano from the bank or an instrument plugin (keyboards.py), its acoustic
guitar from the bank or a plucked-string model (plucked_string.py), any
pitched part maybe from a synthesizer's instruments (synth_presets.py), its
vocals mostly sung by a synthetic voice (voices.py) rather than choir pads.
Most songs are then mixed and mastered (production.py): each part through a
channel strip of its own, the whole through a mix bus.

Output: OUT/<banks>-<index>/<stem>.flac for all six stems (silent where the
song has no such part) and other.flac for the parts that belong to no stem,
the plain folder layout, plus song.json: the bank, drum kit, amp, voice,
instruments, production, register spread and tempo the song was made with.
"""
import argparse
import dataclasses
import json
import multiprocessing
import os
import shutil
import subprocess
import tempfile

import numpy as np
import soundfile

from tonwerk_train import drum_kits, guitar_amp, keyboards, plucked_string, synth_presets, voices
from tonwerk_train.composer import DRUM_CHANNEL, compose
from tonwerk_train.midi_file import write_midi
from tonwerk_train.production import channel_strip, master
from tonwerk_train.stems import SAMPLE_RATE, STEMS

# The only sounds used for training and held-out tests. FreePats ships as
# patches that fluidsynth cannot read, so TiMidity++ renders it.
FONTS = {
    "FluidR3_GM": ("fluidsynth", "/usr/share/sounds/sf2/FluidR3_GM.sf2"),
    "TimGM6mb": ("fluidsynth", "/usr/share/sounds/sf2/TimGM6mb.sf2"),
    "FreePats": ("timidity", "/etc/timidity/freepats.cfg"),
}


# What fluidsynth can play: the banks and the SoundFont drum kits.
SOUNDS = {**FONTS, **{kit: ("fluidsynth", path) for kit, path in drum_kits.SOUNDFONT_KITS.items()}}
BANK_KIT = "bank"  # a song's drums from its General MIDI bank
BANK_KIT_SHARE = 0.25  # of the songs whose drums may come from the bank or a recorded kit
DRUM_KITS = (BANK_KIT, *drum_kits.PACKAGES)
AMP_STYLES = tuple(str(style) for style in guitar_amp.TONE_STACKS)
AMP_SHARE = 0.85  # of the electric guitars, when amps are allowed; the rest keep the bank's sound
# Where a stem's part may come from besides the banks (a song draws one evenly), and who plays each source.
INSTRUMENTS = {"piano": (BANK_KIT, *keyboards.SOURCES), "acoustic_guitar": (BANK_KIT, *plucked_string.SOURCES)}
PLAYERS = {**{source: keyboards for source in keyboards.SOURCES},
           **{source: plucked_string for source in plucked_string.SOURCES}, synth_presets.SOURCE: synth_presets}


def pick(listing, catalogue, what):
    """"all", "none", names and "-name" exclusions, comma-separated -> names in catalogue order."""
    chosen = set()
    for item in filter(None, (part.strip() for part in listing.split(","))):
        name = item.lstrip("-")
        names = catalogue if name == "all" else () if name == "none" else (name,)
        unknown = [name for name in names if name not in catalogue]
        if unknown:
            raise ValueError("unknown %s %r; one of %s" % (what, unknown[0], ", ".join(catalogue)))
        chosen = chosen - set(names) if item.startswith("-") else chosen | set(names)
    return [name for name in catalogue if name in chosen]


def missing_material(kits, amps, sung, pianos=(), synths=0.0):
    """The Debian packages that the drum kits, amps, voices, pianos and synths need and that are not installed."""
    present = lambda kit: os.path.isfile(drum_kits.SOUNDFONT_KITS[kit]) if kit in drum_kits.SOUNDFONT_KITS \
        else os.path.isdir(os.path.join(drum_kits.HYDROGEN_DIR, kit))
    missing = {drum_kits.PACKAGES[kit] for kit in kits if kit != BANK_KIT and not present(kit)}
    missing |= {guitar_amp.PACKAGE} if amps and not guitar_amp.installed() else set()
    missing |= {keyboards.PACKAGE} if set(pianos) - {BANK_KIT} and not keyboards.installed() else set()
    missing |= {synth_presets.PACKAGE} if synths > 0 and not synth_presets.installed() else set()
    return sorted(missing | set(voices.missing_tools() if sung else ()))


def render_command(font, midi, wav, rng):
    renderer, path = SOUNDS[font]
    if renderer == "fluidsynth":
        effects = ["-R", str(int(rng.random() < 0.6)), "-C", str(int(rng.random() < 0.3))]
        return ["fluidsynth", "-ni", "-q", "-g", "0.5", "-r", str(SAMPLE_RATE), "-O", "float", "-T", "wav",
                "-F", wav, *effects, path, midi]
    return ["timidity", "-c", path, "-Ow", "-s", str(SAMPLE_RATE), "-A", "60", "-o", wav, midi]


def render_part(part, tempo, font, folder, rng, kit=BANK_KIT, amp=None, sung=False, instrument=None):
    """The part alone as float32 (2, n); a drum part on `kit`, a guitar through `amp` settings, a melody
    `sung` by a voice, a part on an `instrument` (settings from draw_instrument) rather than the bank."""
    if instrument is not None:
        return PLAYERS[instrument["source"]].play(part.notes, tempo, instrument)
    if sung:
        return voices.sing(part.notes, tempo, rng, folder)
    if amp is not None:
        clean = render_part(dataclasses.replace(part, program=guitar_amp.CLEAN_PROGRAM), tempo, font, folder, rng)
        return guitar_amp.play_through_amp(clean, amp)
    if part.channel == DRUM_CHANNEL and kit in drum_kits.SOUNDFONT_KITS:
        part, font = dataclasses.replace(part, channel=0, program=0), kit  # these kits sit on bank 0
    elif part.channel == DRUM_CHANNEL and kit != BANK_KIT:
        end = max((start + length for start, length, _, _ in part.notes), default=0) * 60 / tempo + 3
        kit_map = drum_kits.read_hydrogen_kit(os.path.join(drum_kits.HYDROGEN_DIR, kit))
        return drum_kits.play_hydrogen_kit(kit_map, part.notes, tempo, int(end * SAMPLE_RATE))
    midi, wav = os.path.join(folder, "part.mid"), os.path.join(folder, "part.wav")
    write_midi(midi, part, tempo)
    result = subprocess.run(render_command(font, midi, wav, rng), stdout=subprocess.DEVNULL,
                            stderr=subprocess.PIPE, text=True)
    if result.returncode != 0 or not os.path.exists(wav):
        raise RuntimeError("rendering with %s failed: %s" % (font, result.stderr.strip()[-500:]))
    audio, rate = soundfile.read(wav, dtype="float32", always_2d=True)
    os.remove(wav)
    if rate != SAMPLE_RATE:
        raise RuntimeError("%s rendered at %d Hz, not %d" % (font, rate, SAMPLE_RATE))
    return audio.T if audio.shape[1] == 2 else np.repeat(audio.T, 2, axis=0)


def place(audio, rng):
    """A random level (0 to -12 dB after equalising loudness), balance
    across the stereo field and width."""
    rms = float(np.sqrt(np.mean(audio ** 2))) + 1e-9
    gain = 0.1 / rms * 10 ** (rng.uniform(-12, 0) / 20)
    angle = (rng.uniform(-0.9, 0.9) + 1) * np.pi / 4
    mid, side = (audio[0] + audio[1]) / 2, (audio[0] - audio[1]) / 2 * rng.uniform(0, 1)
    left, right = mid * np.cos(angle) * np.sqrt(2) + side, mid * np.sin(angle) * np.sqrt(2) - side
    return (np.stack([left, right]) * gain).astype(np.float32)


def fit(audio, samples):
    out = np.zeros((2, samples), np.float32)
    out[:, : min(samples, audio.shape[1])] = audio[:, :samples]
    return out


@dataclasses.dataclass(frozen=True)
class Recipe:
    """What the songs of one generate run are made of."""
    banks: tuple  # General MIDI banks; each tonal part draws one
    seed: int
    seconds: float
    production: float  # share of songs mixed and mastered
    kits: tuple  # drum kits (the bank's own kit for a quarter of the songs when it is among others)
    amps: tuple  # amp styles for electric guitars; none: the banks' guitars
    voices: float  # share of songs with vocals that a voice sings
    pianos: tuple = (BANK_KIT,)  # where piano parts come from (INSTRUMENTS)
    acoustics: tuple = (BANK_KIT,)  # where acoustic guitar parts come from
    spread: float = 0.0  # share of songs whose stems' registers overlap (see composer)
    synths: float = 0.0  # share of pitched parts (synth_presets.STEMS) played by a synthesizer's instrument


def draw_instrument(rng, sources):
    """Settings of the instrument that plays the stem's part, None for the bank's. A single source draws
    no number (integers(1) takes nothing from the generator), so bank-only runs render as they always have."""
    source = sources[int(rng.integers(len(sources)))]
    if source == BANK_KIT:
        return None
    return PLAYERS[source].draw_settings(rng, source)


def draw_synths(rng, parts, share):
    """{stem: synth settings} for the pitched parts a synthesizer plays instead. A share of 0 draws no
    number, so songs of runs without synths keep their seeds."""
    if share <= 0:
        return {}
    return {stem: synth_presets.draw_settings(rng, stem) for stem in synth_presets.STEMS
            if stem in parts and rng.random() < share}


def make_song(out_dir, index, recipe):
    """Composes, renders and writes one song folder, whole or not at all."""
    final = os.path.join(out_dir, "%s-%05d" % ("+".join(recipe.banks), index))
    if os.path.isdir(final):
        return final
    seed, seconds, production, kits, amps = recipe.seed, recipe.seconds, recipe.production, recipe.kits, recipe.amps
    rng = np.random.default_rng([seed, index])
    spread = recipe.spread > 0 and rng.random() < recipe.spread  # no draw at 0: older sets keep their songs
    tempo, parts = compose(rng, seconds, spread)
    samples = int(seconds * SAMPLE_RATE)
    produced = rng.random() < production
    recorded = [kit for kit in kits if kit != BANK_KIT]
    bank = not recorded or (BANK_KIT in kits and rng.random() < BANK_KIT_SHARE)
    kit = BANK_KIT if bank else recorded[int(rng.integers(len(recorded)))]
    amp = None
    if amps and "electric_guitar" in parts and rng.random() < AMP_SHARE:
        amp = guitar_amp.draw_settings(rng, [int(style) for style in amps])
    sung = "vocals" in parts and rng.random() < recipe.voices
    sources = {"piano": recipe.pianos, "acoustic_guitar": recipe.acoustics}
    instruments = {stem: draw_instrument(rng, sources[stem]) for stem in sources if stem in parts}
    # One bank draws no number, so a single-bank run renders as it always has.
    banks = {name: recipe.banks[int(rng.integers(len(recipe.banks))) if len(recipe.banks) > 1 else 0]
             for name in parts}
    instruments.update(draw_synths(rng, parts, recipe.synths))
    amp = None if "electric_guitar" in instruments else amp  # the synth's guitars bring their own tone
    with tempfile.TemporaryDirectory(dir=out_dir, prefix=".") as work:
        tracks = {}
        for name, part in parts.items():
            audio = render_part(part, tempo, banks[name], work, rng, kit, amp if name == "electric_guitar" else None,
                                sung and name == "vocals", instruments.get(name))
            audio = fit(place(audio, rng), samples)
            tracks[name] = channel_strip(audio, rng) if produced else audio
        # Silent stems are written too (a few bytes of FLAC): the folder
        # layout reads a missing stem as unlabelled, a silent one as absent.
        stems = {name: tracks.get(name, np.zeros((2, samples), np.float32)) for name in STEMS}
        others = [audio for name, audio in tracks.items() if name not in STEMS]
        if others:
            stems["other"] = sum(others)
        if produced:
            stems = dict(zip(stems, master(list(stems.values()), rng)))
        peak = max(1e-9, float(np.abs(sum(stems.values())).max()))
        # A master keeps its loudness (only a stray peak over full scale is
        # turned down); a plain mix gets a random level.
        scale = min(1.0, 0.99 / peak) if produced else rng.uniform(0.3, 0.95) / peak
        song = os.path.join(work, "song")
        os.makedirs(song)
        for name, audio in stems.items():
            soundfile.write(os.path.join(song, name + ".flac"), (audio * scale).T, SAMPLE_RATE, subtype="PCM_24")
        with open(os.path.join(song, "song.json"), "w") as file:  # what it was made of, for evaluations
            json.dump({"banks": banks, "drum_kit": kit, "amp": amp, "sung": sung, "instruments": instruments,
                       "produced": produced, "spread": spread, "tempo": tempo, "seed": seed, "index": index}, file)
        os.rename(song, final)
    return final


def _make_song(job):
    return make_song(*job)


def add_arguments(parser):
    parser.add_argument("out_dir", help="folder for the song folders (created)")
    parser.add_argument("--songs", type=int, default=100)
    parser.add_argument("--seconds", type=float, default=20.0)
    parser.add_argument("--font", default="FluidR3_GM", metavar="BANKS",
                        help="General MIDI banks, comma-separated (%s); with several, each part of a song "
                             "draws its own (default FluidR3_GM)" % ", ".join(FONTS))
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--first", type=int, default=0, help="index of the first song (to extend a set)")
    parser.add_argument("--production", type=float, default=0.8, metavar="P",
                        help="share of songs mixed and mastered (EQ, compression, reverb and delay per part; "
                             "bus EQ, compression, loudness and a limiter on the whole)")
    parser.add_argument("--drums", default="all", metavar="KITS",
                        help="drum kits to draw from per song, comma-separated: %s; \"all\", and \"-KIT\" to "
                             "leave one out (default all)" % ", ".join(DRUM_KITS))
    parser.add_argument("--amps", default="all", metavar="STYLES",
                        help="amp styles (the amp plugin's tone stacks, 0 to 25) for electric guitars, like "
                             "--drums; \"none\" keeps the bank's guitars (default all)")
    parser.add_argument("--pianos", default="all", metavar="SOURCES",
                        help="where piano parts come from, drawn evenly per song, like --drums: %s (mda-lv2's "
                             "instruments with their piano presets; default all)" % ", ".join(INSTRUMENTS["piano"]))
    parser.add_argument("--acoustic", default="all", metavar="SOURCES",
                        help="where acoustic guitar parts come from, like --pianos: %s (a plucked-string model "
                             "with a guitar body; default all)" % ", ".join(INSTRUMENTS["acoustic_guitar"]))
    parser.add_argument("--voices", type=float, default=0.8, metavar="P",
                        help="share of the songs with vocals whose melody a synthetic voice sings (the rest: "
                             "General MIDI choir and voice pads)")
    parser.add_argument("--spread", type=float, default=0.0, metavar="P",
                        help="share of songs whose stems overlap in register: piano left hands and guitars' low "
                             "strings down where the bass plays, basses an octave up, low instruments doubling the "
                             "bass line, so that the sound, not the pitch, tells the stems apart (default 0)")
    parser.add_argument("--synths", type=float, default=0.0, metavar="P",
                        help="share of the piano, guitar and bass parts that one of a synthesizer's factory "
                             "instruments plays instead (ZynAddSubFX's pianos, electric pianos, plucked and "
                             "distorted guitars and basses, chosen per stem; default 0)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())


def run(args):
    banks = pick(args.font, tuple(FONTS), "bank")
    if not banks:
        raise ValueError("--font %s names no bank" % args.font)
    for tool in {FONTS[bank][0] for bank in banks}:
        if shutil.which(tool) is None:
            raise SystemExit("generate: %s is not installed (scripts/bootstrap.sh installs it)" % tool)
    kits, amps = pick(args.drums, DRUM_KITS, "drum kit"), pick(args.amps, AMP_STYLES, "amp style")
    if not kits:
        raise ValueError("--drums %s leaves no drum kit" % args.drums)
    pianos = pick(args.pianos, INSTRUMENTS["piano"], "piano source")
    acoustics = pick(args.acoustic, INSTRUMENTS["acoustic_guitar"], "acoustic guitar source")
    if not pianos or not acoustics:
        raise ValueError("--pianos and --acoustic must leave a source")
    missing = missing_material(kits, amps, args.voices > 0, pianos, args.synths)
    if missing:
        raise SystemExit("generate: the material needs the Debian packages %s (bash scripts/bootstrap.sh "
                         "--workshop installs all the workshop's material)" % ", ".join(missing))
    os.makedirs(args.out_dir, exist_ok=True)
    recipe = Recipe(tuple(banks), args.seed, args.seconds, args.production, tuple(kits), tuple(amps), args.voices,
                    tuple(pianos), tuple(acoustics), args.spread, args.synths)
    jobs = [(args.out_dir, i, recipe) for i in range(args.first, args.first + args.songs)]
    with multiprocessing.Pool(max(1, args.jobs)) as pool:
        for done, path in enumerate(pool.imap_unordered(_make_song, jobs), 1):
            print("\rgenerate: %d/%d %s" % (done, len(jobs), os.path.basename(path)), end="", flush=True)
    print()
    return 0


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    add_arguments(parser)
    raise SystemExit(run(parser.parse_args()))
