"""Renders composed songs into multitrack folders, one part at a time, with
Debian's General MIDI sounds, and places each part at a random stereo
position, width and level, so no mixing convention can be learned.

Output: OUT/<font>-<index>/<stem>.flac for all six stems (silent where the
song has no such part) and other.flac for the parts that belong to no stem:
the plain folder layout.
"""
import argparse
import multiprocessing
import os
import shutil
import subprocess
import tempfile

import numpy as np
import soundfile

from tonwerk_train.composer import compose
from tonwerk_train.midi_file import write_midi
from tonwerk_train.stems import SAMPLE_RATE, STEMS

# The only sounds used for training and held-out tests. FreePats ships as
# patches that fluidsynth cannot read, so TiMidity++ renders it.
FONTS = {
    "FluidR3_GM": ("fluidsynth", "/usr/share/sounds/sf2/FluidR3_GM.sf2"),
    "TimGM6mb": ("fluidsynth", "/usr/share/sounds/sf2/TimGM6mb.sf2"),
    "FreePats": ("timidity", "/etc/timidity/freepats.cfg"),
}


def render_command(font, midi, wav, rng):
    renderer, path = FONTS[font]
    if renderer == "fluidsynth":
        effects = ["-R", str(int(rng.random() < 0.6)), "-C", str(int(rng.random() < 0.3))]
        return ["fluidsynth", "-ni", "-q", "-g", "0.5", "-r", str(SAMPLE_RATE), "-O", "float", "-T", "wav",
                "-F", wav, *effects, path, midi]
    return ["timidity", "-c", path, "-Ow", "-s", str(SAMPLE_RATE), "-A", "60", "-o", wav, midi]


def render_part(part, tempo, font, folder, rng):
    """The part alone as float32 (2, n)."""
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


def make_song(out_dir, font, index, seed, seconds):
    """Composes, renders and writes one song folder, whole or not at all."""
    final = os.path.join(out_dir, "%s-%05d" % (font, index))
    if os.path.isdir(final):
        return final
    rng = np.random.default_rng([seed, index])
    tempo, parts = compose(rng, seconds)
    samples = int(seconds * SAMPLE_RATE)
    with tempfile.TemporaryDirectory(dir=out_dir, prefix=".") as work:
        tracks = {name: fit(place(render_part(part, tempo, font, work, rng), rng), samples)
                  for name, part in parts.items()}
        # Silent stems are written too (a few bytes of FLAC): the folder
        # layout reads a missing stem as unlabelled, a silent one as absent.
        stems = {name: tracks.get(name, np.zeros((2, samples), np.float32)) for name in STEMS}
        others = [audio for name, audio in tracks.items() if name not in STEMS]
        if others:
            stems["other"] = sum(others)
        peak = max(1e-9, float(np.abs(sum(stems.values())).max()))
        scale = rng.uniform(0.3, 0.95) / peak
        song = os.path.join(work, "song")
        os.makedirs(song)
        for name, audio in stems.items():
            soundfile.write(os.path.join(song, name + ".flac"), (audio * scale).T, SAMPLE_RATE, subtype="PCM_24")
        os.rename(song, final)
    return final


def _make_song(job):
    return make_song(*job)


def add_arguments(parser):
    parser.add_argument("out_dir", help="folder for the song folders (created)")
    parser.add_argument("--songs", type=int, default=100)
    parser.add_argument("--seconds", type=float, default=20.0)
    parser.add_argument("--font", choices=sorted(FONTS), default="FluidR3_GM")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--first", type=int, default=0, help="index of the first song (to extend a set)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())


def run(args):
    for tool in {FONTS[args.font][0]}:
        if shutil.which(tool) is None:
            raise SystemExit("generate: %s is not installed (scripts/bootstrap.sh installs it)" % tool)
    os.makedirs(args.out_dir, exist_ok=True)
    jobs = [(args.out_dir, args.font, i, args.seed, args.seconds) for i in range(args.first, args.first + args.songs)]
    with multiprocessing.Pool(max(1, args.jobs)) as pool:
        for done, path in enumerate(pool.imap_unordered(_make_song, jobs), 1):
            print("\rgenerate: %d/%d %s" % (done, len(jobs), os.path.basename(path)), end="", flush=True)
    print()
    return 0


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    add_arguments(parser)
    raise SystemExit(run(parser.parse_args()))
