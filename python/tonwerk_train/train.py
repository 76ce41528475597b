"""Training: aligned segments of multitrack songs, remixed and augmented on
the fly, an L1 loss on the stems' spectra (or, with --loss sdr, minus each
stem's SDR), an exponential moving average of the weights, validation SDR
over whole songs per epoch, checkpoints.

With --teacher, trained networks (their masks averaged) make part of every
target: a network learns what several trained apart agree on, at the cost
of one.

Every step's data comes from a generator seeded by (seed, step), so a run
resumed from its checkpoint continues exactly as if it had not stopped. A
run's settings, its learning-rate schedule among them, are fixed when it
starts; resuming with other values is refused.
"""
import copy
import ctypes
import json
import math
import os
import sys
import time

import numpy as np
import torch

from tonwerk_train import datasets
from tonwerk_train.examples import batch
from tonwerk_train.export import load_networks
from tonwerk_train.metrics import sdr, sounds
from tonwerk_train.model import PRESETS, ModelConfig, Separator, grow
from tonwerk_train.song_cache import SongCache, check_disjoint
from tonwerk_train.stems import STEMS
from tonwerk_train.stft import FFT_SIZE, HOP, SEGMENT_FRAMES, istft, stft

# The settings a run keeps from its start, with their defaults.
SETTINGS = {"preset": "cpu", "epochs": 10, "steps": 200, "batch": 8, "frames": 128, "lr": 1e-3, "seed": 1,
            "remix": 0.5, "timbre": 0.0, "ema": 0.999, "teacher": [], "distill": 0.5,
            "loss": "l1"}
WARMUP_STEPS = 100


def planes(spectrum, dim):
    """complex (...) -> real with a new axis of size 2 (re, im) at `dim`, contiguous."""
    return torch.view_as_real(spectrum).movedim(-1, dim).contiguous()


class MaskedL1(torch.autograd.Function):
    """sum_b,k weights[b,k] |m[b,k] X[b] - S[b,k]|_1 + pooled_weight[b] |sum_k pooled[b,k] (m X - S)[b,k]|_1
    and its gradient in the masks m. Masks (B, 7, 2, T, F); the spectra as
    real and imaginary planes: X (B, 1, 2, 2, T, F), S (B, 7, 2, 2, T, F).

    Autograd would walk the full-size tensors a dozen times, each walk a
    trip through main memory. Here each example's error is made, measured
    and turned into its gradient while it is still in the cache, mostly in
    place."""

    @staticmethod
    def forward(ctx, masks, mixture, targets, weights, pooled, pooled_weight):
        loss = masks.new_zeros(())
        gradient = torch.empty_like(masks)
        for b, (x, pool) in enumerate(zip(mixture[:, 0], pooled.tolist())):
            grouped = x.new_zeros(x.shape) if pooled_weight[b] != 0 else None
            for k, weight in enumerate(weights[b]):
                error = masks[b, k].unsqueeze(0) * x  # (re/im, channels, T, F)
                error -= targets[b, k]
                loss += torch.linalg.vector_norm(error, 1) * weight
                if grouped is not None:
                    grouped.add_(error, alpha=pool[k])
                torch.sum(error.sign_().mul_(x), 0, out=gradient[b, k])
                gradient[b, k] *= weight
            if grouped is not None:
                loss += torch.linalg.vector_norm(grouped, 1) * pooled_weight[b]
                shared = grouped.sign_().mul_(x).sum(0) * pooled_weight[b]
                gradient[b] += pooled[b, :, None, None, None] * shared
        ctx.save_for_backward(gradient)
        return loss

    @staticmethod
    def backward(ctx, grad_loss):
        gradient, = ctx.saved_tensors
        return gradient * grad_loss, None, None, None, None, None


def scored_alone_or_pooled(known):
    """(whether each example labels every stem (B, 1), the sources scored on
    their own (B, 7), the sources scored only as their sum (B, 7)): where a
    song does not label some stems, those and "other" count only together."""
    labelled = known.all(1, keepdim=True)
    return labelled, torch.cat([known, labelled], dim=1), torch.cat([~known, torch.ones_like(labelled)], dim=1)


def loss_fn(masks, mixture, targets, known):
    """L1 between masked mixture and target spectra (real and imaginary
    parts), averaged over channels and bins, relative to the mixture's
    level, averaged over the batch. Where a song does not label some stems,
    those and "other" are compared only as their sum."""
    labelled, alone, pooled = scored_alone_or_pooled(known)
    per_example = 1 / ((mixture.abs().mean(dim=(1, 2, 3)) + 1e-6) * masks[0, 0].numel() * len(masks))
    weights = alone.to(masks.dtype) * per_example[:, None]
    pooled = pooled.to(masks.dtype)
    return MaskedL1.apply(masks, planes(mixture, 1).unsqueeze(1), planes(targets, 2), weights, pooled,
                          (~labelled[:, 0]).to(masks.dtype) * per_example)


def sdr_loss(masks, mixture, targets, known, floor=1e-3):
    """Minus the SDR of every stem of every example, in dB, averaged: each
    stem's error energy against its own, so a quiet stem counts as much as
    a loud one, as it does in evaluation. Where a song does not label some
    stems, those and "other" count as their sum. A stem near silence would
    make the ratio explode, so both energies get `floor` times the mixture's
    added, and a hair more, so that a silent segment (a rest in every part)
    is left out instead of turning loss and weights into NaN. L1's best
    mask for a cell the network cannot place is all or nothing (the
    median); squared errors are best served by the mean."""
    labelled, alone, pooled = scored_alone_or_pooled(known)
    error = masks * mixture.unsqueeze(1) - targets  # (B, 7, 2, T, F)
    floor = floor * mixture.abs().pow(2).sum(dim=(1, 2, 3))[:, None] + 1e-12

    def ratio(err, target):
        """(dB, whether the target sounds): silent targets are left out, as evaluation leaves them out."""
        energy = target.abs().pow(2).sum(dim=(-3, -2, -1))
        return 10 * (torch.log10(err.abs().pow(2).sum(dim=(-3, -2, -1)) + floor) - torch.log10(energy + floor)), \
            energy > floor

    own, sounding = ratio(error, targets)
    weights = alone & sounding
    terms, count = (own * weights).sum(), weights.sum()
    if not labelled.all():
        pooled = pooled.to(masks.dtype)[:, :, None, None, None]
        grouped, sounding = ratio((error * pooled).sum(1, keepdim=True), (targets * pooled).sum(1, keepdim=True))
        weights = ~labelled & sounding
        terms, count = terms + (grouped * weights).sum(), count + weights.sum()
    return terms / count.clamp(min=1)


LOSSES = {"l1": loss_fn, "sdr": sdr_loss}


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


def validate(model, songs):
    """Mean SDR over stems of the mean over songs where the stem sounds, each
    song separated whole. `songs`: a SongCache."""
    model.eval()
    scores = [[] for _ in STEMS]
    for index in range(len(songs)):
        stems, other, known = songs.song(index)
        estimates = separate(model, stems.sum(0) + other)
        for i in range(len(STEMS)):
            if known[i] and sounds(stems[i]):
                scores[i].append(sdr(stems[i], estimates[i]))
    model.train()
    per_stem = {stem: float(np.mean(s)) if s else float("nan") for stem, s in zip(STEMS, scores)}
    return float(np.nanmean(list(per_stem.values()))), per_stem


class Average:
    """An exponential moving average of a network's weights: what validation
    scores and export writes. The decay ramps up over the first steps, so
    the average does not remember the random start."""

    def __init__(self, network, decay):
        self.decay = decay
        self.network = copy.deepcopy(network)
        self.network.requires_grad_(False)

    @torch.no_grad()
    def update(self, network, step):
        rate = min(self.decay, (1 + step) / (10 + step))
        for mine, theirs in zip(self.network.parameters(), network.parameters()):
            mine.lerp_(theirs, 1 - rate)


def taught(targets, mixture, teacher, share):
    """The targets with `share` of each given over to the teacher's estimate
    of it. Where the true stems are known the teacher adds no facts, but its
    estimates are ones a network can reach: it shows what of a stem can be
    told from the mixture, and its errors are smoothed over several networks."""
    with torch.no_grad():
        estimates = teacher.masks(mixture.abs()) * mixture.unsqueeze(1)
    return targets + share * (estimates - targets)


def train_step(model, average, optimizer, cache, config, rng, step, device, lap=lambda phase: None, teacher=None):
    """One optimiser step on one batch; returns the loss. `lap(phase)` is
    called as each phase ends, so a benchmark can time them."""
    sources, known, colour = batch(cache, config, rng)
    lap("data")
    targets = stft(sources.to(device)) * colour.to(device)[:, :, None, None]  # (B, 7, 2, T, BINS)
    mixture = targets.sum(1)
    if teacher is not None:
        targets = taught(targets, mixture, teacher, config["distill"])
    lap("transform")
    masks = model.masks(mixture.abs())
    lap("forward")
    loss = LOSSES[config["loss"]](masks, mixture, targets, known.to(device))
    lap("loss")
    optimizer.zero_grad()
    loss.backward()
    lap("backward")
    torch.nn.utils.clip_grad_norm_(model.parameters(), 5.0)
    optimizer.step()
    average.update(model, step)
    lap("optimiser")
    return float(loss)


def keep_freed_memory():
    """Every step allocates and frees tensors of hundreds of MB. glibc gives
    such blocks back to the kernel on free, and the next step faults them in
    again page by page: a third of a CPU step. Served from the heap instead,
    an allocation costs next to nothing; the process keeps its peak size."""
    try:
        libc = ctypes.CDLL("libc.so.6")
    except OSError:
        return  # not glibc: its allocator has its own policy
    libc.mallopt(-4, 0)  # M_MMAP_MAX: no block gets its own mapping
    libc.mallopt(-1, 2 ** 31 - 1)  # M_TRIM_THRESHOLD: the heap's top is not given back


def learning_rate(step, total):
    """The factor on --lr: a linear warm-up, then a half cosine to zero at `total`."""
    return min(1.0, (step + 1) / WARMUP_STEPS) * 0.5 * (1 + math.cos(math.pi * min(step, total) / total))


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
                        help="training songs, e.g. folder:songs/ or musdb:/data/musdb18hq/train (repeatable)")
    parser.add_argument("--valid", action="append", default=[], metavar="KIND:ROOT",
                        help="validation songs (repeatable); they may share no audio with the training songs")
    parser.add_argument("--holdout", type=int, default=0, metavar="N",
                        help="validate on N of the training songs (evenly spread), left out of training")
    parser.add_argument("--out", required=True, help="folder for checkpoints and the log")
    parser.add_argument("--preset", choices=sorted(PRESETS))
    parser.add_argument("--epochs", type=int, help="the run's length; fixed at its start (default 10)")
    parser.add_argument("--steps", type=int, help="steps per epoch (default 200)")
    parser.add_argument("--batch", type=int, help="segments per step (default 8)")
    parser.add_argument("--frames", type=int, help="STFT frames per training segment (default 128)")
    parser.add_argument("--remix", type=float,
                        help="share of examples whose sources come from different songs (default 0.5)")
    parser.add_argument("--timbre", type=float,
                        help="share of examples played back up to 1.5 semitones off, and of sources given a "
                             "random EQ (a quarter of that share saturated), so a few sound banks stand for more "
                             "(default 0: off)")
    parser.add_argument("--ema", type=float, help="decay per step of the weights' moving average (default 0.999)")
    parser.add_argument("--teacher", action="append", metavar="CHECKPOINT",
                        help="a trained network whose estimates make part of every target (repeatable: their "
                             "masks averaged, as export does); each costs a forward pass per step")
    parser.add_argument("--distill", type=float,
                        help="with --teacher: the share of each target that is the teacher's estimate (default 0.5)")
    parser.add_argument("--loss", choices=sorted(LOSSES),
                        help="l1: of the stems' spectra, relative to the mixture's level (default); sdr: minus "
                             "each stem's SDR in dB, so quiet stems count as much as loud ones")
    parser.add_argument("--stop-after", type=int, default=0, metavar="EPOCHS",
                        help="end this invocation after EPOCHS epochs; the same command resumes the run")
    parser.add_argument("--lr", type=float, help="peak learning rate (default 1e-3)")
    parser.add_argument("--init", metavar="CHECKPOINT",
                        help="start from this checkpoint's network (its preset too) with a fresh schedule: fine-tuning; "
                             "with --preset of more channels, more blocks or a wider block MLP (cpu into cpu-wide or "
                             "cpu-deep) the network grows from it, computing at first exactly what it did")
    parser.add_argument("--seed", type=int, help="seed of the network and of every step's data (default 1)")
    parser.add_argument("--valid-songs", type=int, default=0, metavar="N",
                        help="validate on N of the validation songs, evenly spread (default all)")
    parser.add_argument("--threads", type=int, default=os.cpu_count())
    parser.add_argument("--device", default="cuda" if torch.cuda.is_available() else "cpu")


def read_songs(locations):
    """Songs from KIND:ROOT locations; a test split is refused."""
    songs = []
    for location in locations:
        kind, _, root = location.partition(":")
        if datasets.split_of(kind, root) == datasets.TEST_SPLIT:
            raise ValueError("%s: the test split is for evaluation only; train and validate on other songs "
                             "(--holdout N validates on N of the training songs)" % location)
        songs += datasets.read_dataset(kind, root)
    return songs


def spread(songs, count):
    """`count` songs evenly spread over the list (all of them for 0)."""
    if not 0 < count < len(songs):
        return list(songs)
    return [songs[i * len(songs) // count] for i in range(count)]


def settings(args, state, start):
    """The run's settings: those it started with when it resumes (options
    that disagree are refused), else the options over the defaults."""
    given = {name: getattr(args, name) for name in SETTINGS if getattr(args, name) is not None}
    if state:
        config = {**SETTINGS, **state["config"]}
        differ = ["--%s %s" % (name, config[name]) for name, value in given.items() if config[name] != value]
        if differ:
            raise ValueError("%s was started with %s; a resumed run keeps its settings and schedule (train "
                             "longer by fine-tuning from it with --init)" % (args.out, ", ".join(differ)))
        return config
    config = {**SETTINGS, **given, "init": args.init}
    if start and not args.preset:  # a fine-tune keeps its checkpoint's network, and says so
        config["preset"], config["model"] = start["config"]["preset"], start["config"]["model"]
    else:  # a fresh network, or one grown from the checkpoint's
        config["model"] = PRESETS[config["preset"]].to_dict()
    return config


def songs_to_use(args, cache_folder):
    """(training cache, validation cache or None), proven to share no audio."""
    songs = read_songs(args.data)
    valid = read_songs(args.valid)
    held = spread(songs, args.holdout) if args.holdout else []
    songs = [song for song in songs if song not in held]
    if not songs:
        raise ValueError("no songs left to train on (--holdout %d of them validates)" % args.holdout)
    valid = spread(valid, args.valid_songs) + held
    train = SongCache(songs, cache_folder)
    valid = SongCache(valid, cache_folder) if valid else None
    if valid:
        check_disjoint(train, valid)
    return train, valid


def run(args):
    torch.set_num_threads(args.threads)
    keep_freed_memory()
    os.makedirs(args.out, exist_ok=True)
    checkpoint = os.path.join(args.out, "checkpoint.pt")
    start = torch.load(args.init) if args.init else None
    state = torch.load(checkpoint) if os.path.exists(checkpoint) else None
    config = settings(args, state, start)
    if config["teacher"] and not 0 < config["distill"] <= 1:
        raise ValueError("--distill is the teacher's share of each target: above 0, at most 1, not %g"
                         % config["distill"])
    cache, valid = songs_to_use(args, os.path.join(args.out, "cache"))
    torch.manual_seed(config["seed"])
    model = Separator(ModelConfig.from_dict(config["model"]))
    if start and not state:  # a resumed fine-tuning run continues from its own checkpoint
        grow(model, ModelConfig.from_dict(start["config"]["model"]), start.get("ema", start["model"]))
    model.to(args.device)
    teacher = load_networks(config["teacher"])[0].to(args.device) if config["teacher"] else None
    average = Average(model, config["ema"])
    optimizer = torch.optim.AdamW(model.parameters(), lr=config["lr"], weight_decay=1e-4)
    total = config["epochs"] * config["steps"]
    schedule = torch.optim.lr_scheduler.LambdaLR(optimizer, lambda s: learning_rate(s, total))
    step, best = 0, -float("inf")
    if state:
        model.load_state_dict(state["model"])
        average.network.load_state_dict(state.get("ema", state["model"]))
        optimizer.load_state_dict(state["optimizer"])
        schedule.load_state_dict(state["schedule"])
        step, best = state["step"], state["best"]
        print("train: resuming at step %d of %d" % (step, total))
    log = open(os.path.join(args.out, "log.jsonl"), "a")
    progress = Progress(total, step)
    stop = min(total, step + args.stop_after * config["steps"]) if args.stop_after else total
    while step < stop:
        started, losses = time.time(), []
        for _ in range(config["steps"] - step % config["steps"]):
            rng = np.random.default_rng([config["seed"], step])
            losses.append(train_step(model, average, optimizer, cache, config, rng, step, args.device,
                                     teacher=teacher))
            schedule.step()
            step += 1
            progress.update(step, float(np.mean(losses[-20:])))
        score, per_stem = validate(average.network.cpu(), valid) if valid else (float("nan"), {})
        average.network.to(args.device)
        record = {"epoch": step // config["steps"], "step": step, "loss": float(np.mean(losses)),
                  "valid_sdr": score, "valid_per_stem": per_stem, "seconds": time.time() - started}
        log.write(json.dumps(record) + "\n")
        log.flush()
        print("\nepoch %d: loss %.4f, validation SDR %.2f dB, %.0f s" % (
            record["epoch"], record["loss"], score, record["seconds"]), flush=True)
        state = {"model": model.state_dict(), "ema": average.network.state_dict(),
                 "optimizer": optimizer.state_dict(), "schedule": schedule.state_dict(),
                 "step": step, "best": max(best, score if score == score else best), "config": config}
        save(checkpoint, state)
        if score == score and score > best or not valid:
            best = score if valid else best
            save(os.path.join(args.out, "best.pt"), state)
    return 0
