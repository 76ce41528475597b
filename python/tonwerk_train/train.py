"""Training: random segments of multitrack songs, augmented on the fly,
an L1 loss on the stems' spectra, validation SDR per epoch, checkpoints.

Every step's data comes from a generator seeded by (seed, step), so a run
resumed from its checkpoint continues exactly as if it had not stopped.
"""
import json
import math
import os
import sys
import time

import numpy as np
import torch

from tonwerk_train import datasets
from tonwerk_train.metrics import sdr, sounds
from tonwerk_train.model import PRESETS, SOURCES, ModelConfig, Separator
from tonwerk_train.stems import STEMS
from tonwerk_train.stft import FFT_SIZE, HOP, SEGMENT_FRAMES, istft, stft

OTHER = len(STEMS)  # row of "other" in the source arrays


class SongCache:
    """Songs decoded once into float16 arrays (7 sources, 2, samples) that
    are memory-mapped, so a segment costs a read of just that segment."""

    def __init__(self, songs, folder):
        os.makedirs(folder, exist_ok=True)
        self.arrays, self.known = [], []
        for song in songs:
            path = os.path.join(folder, song.name.replace("/", "_") + ".npy")
            if not os.path.exists(path):
                stems, other, known = datasets.load_song(song)
                temp = path + ".tmp.npy"
                np.save(temp, np.concatenate([stems, other[None]]).astype(np.float16))
                os.replace(temp, path)
            self.arrays.append(np.load(path, mmap_mode="r"))
            self.known.append(np.array([s in song.known for s in STEMS]))
        if not self.arrays:
            raise ValueError("no songs to train on in %s" % folder)

    def segment(self, song, source, length, rng):
        array = self.arrays[song]
        start = int(rng.integers(0, max(1, array.shape[-1] - length)))
        out = np.zeros((2, length), np.float32)
        piece = array[source, :, start:start + length]
        out[:, :piece.shape[-1]] = piece
        return out


def make_example(cache, length, rng, remix=0.5):
    """(sources (7, 2, L), known (6,)): one song's segment, or with
    probability `remix` each source from a random song (a stem only from a
    song that labels it). Each source gets a gain, and maybe a
    channel swap and a polarity flip; the mixture (their sum) is scaled down
    when it would clip, the sources with it."""
    song = int(rng.integers(len(cache.arrays)))
    mixing = rng.random() < remix
    lenders = []
    for source in range(SOURCES):
        pick = int(rng.integers(len(cache.arrays))) if mixing else song
        labels = cache.known[pick]
        lenders.append(pick if source == OTHER or labels[source] else song)
    # A stem is labelled exactly when the song that lent "other" labels it:
    # then "other" hides none of it (where the stem's own lender does not
    # label it, that row is silence, and so is the stem).
    known = cache.known[lenders[OTHER]].copy()
    sources = np.zeros((SOURCES, 2, length), np.float32)
    for source, pick in enumerate(lenders):
        audio = cache.segment(pick, source, length, rng)
        audio *= 10 ** (rng.uniform(-6, 3) / 20) * (-1 if rng.random() < 0.5 else 1)
        sources[source] = audio[::-1] if rng.random() < 0.5 else audio
    peak = float(np.abs(sources.sum(0)).max())
    if peak > 1.0:
        sources /= peak
    return sources, known


def loss_fn(masks, mixture, targets, known):
    """L1 between masked mixture and target spectra (real and imaginary
    parts), relative to the mixture's level. Where a song does not label
    some stems, those and "other" are compared only as their sum."""
    error_re = masks * mixture.real.unsqueeze(1) - targets.real
    error_im = masks * mixture.imag.unsqueeze(1) - targets.imag
    labelled = known.all(1, keepdim=True)
    weight = torch.cat([known, labelled], dim=1).float()
    per_source = (error_re.abs() + error_im.abs()).mean(dim=(2, 3, 4))  # (B, 7)
    pooled = torch.cat([~known, torch.ones_like(labelled)], dim=1).float()[:, :, None, None, None]
    grouped = ((error_re * pooled).sum(1).abs() + (error_im * pooled).sum(1).abs()).mean(dim=(1, 2, 3))
    loss = (per_source * weight).sum(1) + grouped * (~labelled[:, 0]).float()
    return (loss / (mixture.abs().mean(dim=(1, 2, 3)) + 1e-6)).mean()


def batch(cache, config, rng):
    length = (config["frames"] - 1) * HOP + FFT_SIZE
    examples = [make_example(cache, length, rng) for _ in range(config["batch"])]
    sources = torch.from_numpy(np.stack([e[0] for e in examples]))
    known = torch.from_numpy(np.stack([e[1] for e in examples]))
    spectra = stft(sources)  # (B, 7, 2, T, BINS)
    return spectra.sum(1), spectra, known


def separate(model, mixture):
    """Whole-song separation in PyTorch, segment by segment as the library
    does in steady state: mixture (2, n) -> estimates (7, 2, n)."""
    samples = mixture.shape[-1]
    pad = FFT_SIZE + (-samples) % HOP
    padded = torch.nn.functional.pad(torch.as_tensor(mixture)[None], (FFT_SIZE, pad), mode="reflect")[0]
    spectrum = stft(padded)
    pieces = []
    with torch.no_grad():
        for start in range(0, spectrum.shape[1], SEGMENT_FRAMES):
            part = spectrum[:, start:start + SEGMENT_FRAMES][None]
            pieces.append(model(part)[0])
    estimates = istft(torch.cat(pieces, dim=2))
    return estimates[..., FFT_SIZE:FFT_SIZE + samples].numpy()


def validate(model, songs, seconds=12.0):
    """Mean SDR over stems of the mean over songs where the stem sounds."""
    model.eval()
    scores = [[] for _ in STEMS]
    for song in songs:
        stems, other, known = datasets.load_song(song)
        stems, other = stems[..., :int(seconds * 44100)], other[..., :int(seconds * 44100)]
        estimates = separate(model, stems.sum(0) + other)
        for i in range(len(STEMS)):
            if known[i] and sounds(stems[i]):
                scores[i].append(sdr(stems[i], estimates[i]))
    model.train()
    per_stem = {stem: float(np.mean(s)) if s else float("nan") for stem, s in zip(STEMS, scores)}
    return float(np.nanmean(list(per_stem.values()))), per_stem


class Progress:
    """A bar rewritten in place on a terminal; elsewhere (a log file) a line
    every 50 steps."""

    def __init__(self, total, first_step):
        self.total, self.first, self.start, self.tty = total, first_step, time.time(), sys.stderr.isatty()

    def update(self, step, loss):
        pace = (time.time() - self.start) / max(1, step - self.first)
        text = "%d/%d loss %.4f %.2f s/step" % (step, self.total, loss, pace)
        if self.tty:
            sys.stderr.write("\r[%-30s] %s" % ("#" * int(30 * step / self.total), text))
            sys.stderr.flush()
        elif step % 50 == 0:
            print("train: " + text, flush=True)


def save(path, state):
    temp = path + ".tmp"
    torch.save(state, temp)
    os.replace(temp, path)


def add_arguments(parser):
    parser.add_argument("--data", action="append", required=True, metavar="KIND:ROOT",
                        help="training songs, e.g. folder:songs/ or musdb:/data/musdb18hq (repeatable)")
    parser.add_argument("--valid", action="append", default=[], metavar="KIND:ROOT")
    parser.add_argument("--out", required=True, help="folder for checkpoints and the log")
    parser.add_argument("--preset", choices=sorted(PRESETS), default="cpu")
    parser.add_argument("--epochs", type=int, default=10)
    parser.add_argument("--steps", type=int, default=200, help="steps per epoch")
    parser.add_argument("--batch", type=int, default=8)
    parser.add_argument("--frames", type=int, default=128, help="STFT frames per training segment")
    parser.add_argument("--stop-after", type=int, default=0, metavar="EPOCHS",
                        help="end this invocation after EPOCHS epochs; the same command resumes the run")
    parser.add_argument("--lr", type=float, default=1e-3)
    parser.add_argument("--init", metavar="CHECKPOINT",
                        help="start from this checkpoint's network (its preset too) with a fresh schedule: fine-tuning")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--valid-songs", type=int, default=8)
    parser.add_argument("--threads", type=int, default=os.cpu_count())
    parser.add_argument("--device", default="cuda" if torch.cuda.is_available() else "cpu")


def read_songs(locations):
    songs = []
    for location in locations:
        kind, _, root = location.partition(":")
        songs += datasets.read_dataset(kind, root)
    return songs


def run(args):
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    os.makedirs(args.out, exist_ok=True)
    checkpoint = os.path.join(args.out, "checkpoint.pt")
    start = torch.load(args.init) if args.init else None
    config = {"preset": args.preset, "batch": args.batch, "frames": args.frames, "lr": args.lr, "seed": args.seed,
              "steps": args.steps, "epochs": args.epochs, "init": args.init,
              "model": start["config"]["model"] if start else PRESETS[args.preset].to_dict()}
    state = torch.load(checkpoint) if os.path.exists(checkpoint) else None
    if state:  # the run's settings stay; only its length may grow
        config = {**state["config"], "epochs": args.epochs}
    model = Separator(ModelConfig.from_dict(config["model"]))
    if start and not state:  # a resumed fine-tuning run continues from its own checkpoint
        model.load_state_dict(start["model"])
    model.to(args.device)
    optimizer = torch.optim.AdamW(model.parameters(), lr=config["lr"], weight_decay=1e-4)
    total = config["epochs"] * config["steps"]
    schedule = torch.optim.lr_scheduler.LambdaLR(
        optimizer, lambda s: min(1.0, (s + 1) / 100) * 0.5 * (1 + math.cos(math.pi * min(s, total) / total)))
    step, best = 0, -float("inf")
    if state:
        model.load_state_dict(state["model"])
        optimizer.load_state_dict(state["optimizer"])
        schedule.load_state_dict(state["schedule"])
        step, best = state["step"], state["best"]
        print("train: resuming at step %d of %d" % (step, total))
    cache = SongCache(read_songs(args.data), os.path.join(args.out, "cache"))
    valid = read_songs(args.valid)[: args.valid_songs]
    log = open(os.path.join(args.out, "log.jsonl"), "a")
    progress = Progress(total, step)
    stop = min(total, step + args.stop_after * config["steps"]) if args.stop_after else total
    while step < stop:
        started, losses = time.time(), []
        for _ in range(config["steps"] - step % config["steps"]):
            mixture, targets, known = batch(cache, config, np.random.default_rng([config["seed"], step]))
            masks = model.masks(mixture.abs().to(args.device))
            loss = loss_fn(masks, mixture.to(args.device), targets.to(args.device), known.to(args.device))
            optimizer.zero_grad()
            loss.backward()
            torch.nn.utils.clip_grad_norm_(model.parameters(), 5.0)
            optimizer.step()
            schedule.step()
            step += 1
            losses.append(float(loss))
            progress.update(step, float(np.mean(losses[-20:])))
        score, per_stem = validate(model.cpu(), valid) if valid else (float("nan"), {})
        model.to(args.device)
        record = {"epoch": step // config["steps"], "step": step, "loss": float(np.mean(losses)),
                  "valid_sdr": score, "valid_per_stem": per_stem, "seconds": time.time() - started}
        log.write(json.dumps(record) + "\n")
        log.flush()
        print("\nepoch %d: loss %.4f, validation SDR %.2f dB, %.0f s" % (
            record["epoch"], record["loss"], score, record["seconds"]), flush=True)
        state = {"model": model.state_dict(), "optimizer": optimizer.state_dict(), "schedule": schedule.state_dict(),
                 "step": step, "best": max(best, score if score == score else best), "config": config}
        save(checkpoint, state)
        if score == score and score > best or not valid:
            best = score if valid else best
            save(os.path.join(args.out, "best.pt"), state)
    return 0
