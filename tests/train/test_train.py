"""What a wrong loss, a wrong label or wrong data would teach silently:
sources a song does not label, examples remixed from songs that label
different stems, sources out of step with each other (also when an example
is played back faster), a playback rate that moves pitch the wrong way, cache
entries mixed up between datasets, validation songs that are also training
songs, and validation that sees only part of a song."""
import argparse

import numpy as np
import pytest
import soundfile
import torch

from tonwerk_train.datasets import read_dataset
from tonwerk_train.examples import OTHER, make_example, retime
from tonwerk_train.model import PRESETS, Separator
from tonwerk_train.song_cache import SongCache, check_disjoint
from tonwerk_train.stems import STEMS
from tonwerk_train.train import SETTINGS, Average, loss_fn, sdr_loss, songs_to_use, train_step, validate

FRAMES, BINS = 3, 5


def spectra(seed):
    """Seven random complex sources (1, 7, 2, T, F) and their sum, the mixture."""
    g = torch.Generator().manual_seed(seed)
    parts = torch.complex(torch.rand(1, 7, 2, FRAMES, BINS, generator=g), torch.rand(1, 7, 2, FRAMES, BINS, generator=g))
    return parts, parts.sum(1)


def masks_giving(estimates, mixture):
    """Real masks whose product with the mixture is `estimates` (real-ratio sources make that exact)."""
    return (estimates / mixture.unsqueeze(1)).real


@pytest.mark.parametrize("loss_of", [loss_fn, sdr_loss])
@pytest.mark.parametrize("unlabelled, moved_to, zero", [
    ((), None, True),            # every stem labelled, estimates exact
    ((2, 3), 3, True),           # piano's share put into a guitar: both unlabelled, only their sum counts
    ((2, 3), OTHER, True),       # ... or into "other"
    ((2, 3), 0, False),          # ... but not into vocals, which is labelled
    ((2, 3), -1, False),         # ... nor dropped: the sum must still match
    ((), 3, False),              # labelled piano moved into a labelled guitar
])
def test_unlabelled_stems_count_only_as_their_sum_with_other(unlabelled, moved_to, zero, loss_of):
    parts, _ = spectra(1)
    parts = parts.real.to(torch.complex64) * (1 + 0.5j)  # one phase everywhere: masks are exact
    mixture = parts.sum(1)
    known = torch.ones(1, 6, dtype=torch.bool)
    known[0, list(unlabelled)] = False
    targets = parts.clone()
    for stem in unlabelled:  # the dataset folds unlabelled stems into "other"
        targets[:, OTHER] += targets[:, stem]
        targets[:, stem] = 0
    estimates = parts.clone()
    if moved_to is not None:
        estimates[:, moved_to] += estimates[:, 2] if moved_to >= 0 else 0
        estimates[:, 2] = 0
    loss, best = (float(loss_of(masks_giving(e, mixture), mixture, targets, known)) for e in (estimates, parts))
    assert (abs(loss - best) < 1e-4) == zero, (loss, best)


def test_the_sdr_loss_takes_each_sounding_stem_at_its_own_level():
    parts, _ = spectra(3)
    parts = parts.real.to(torch.complex64) * (1 + 0.5j)
    parts[:, 1] *= 0.5  # a quiet stem
    parts[:, 4] = 0  # a silent one
    mixture, known = parts.sum(1), torch.ones(1, 6, dtype=torch.bool)

    def loss(lost=None, leaked=0):  # every stem at half its level, `lost` missing, `leaked` in the silent one
        estimates = parts * 0.5
        if lost is not None:
            estimates[:, lost] = 0
        estimates[:, 4] = leaked * mixture
        return float(sdr_loss(masks_giving(estimates, mixture), mixture, parts, known))

    # Losing a stem whole costs about 6 dB of its own SDR over losing half, loud or quiet; what lands in a
    # silent stem is not scored there (it is scored where it went missing).
    assert loss(lost=0) - loss() == pytest.approx(loss(lost=1) - loss(), abs=0.5)
    assert loss(leaked=0.3) == pytest.approx(loss(), abs=1e-6)
    # A silent segment beside it is left out, and leaves loss and gradient finite.
    masks = masks_giving(parts * 0.5, mixture).repeat(2, 1, 1, 1, 1).requires_grad_()
    both = sdr_loss(masks, torch.cat([mixture, 0 * mixture]), torch.cat([parts, 0 * parts]), known.repeat(2, 1))
    both.backward()
    assert float(both) == pytest.approx(loss(), abs=1e-6) and torch.isfinite(masks.grad).all()


@pytest.mark.parametrize("labels", [[[1] * 6, [1] * 6], [[1] * 6, [1, 0, 1, 1, 0, 1]]],
                         ids=["labelled", "partly-labelled"])
def test_the_loss_gradient_matches_finite_differences(labels):
    """The loss computes its own gradient in the masks; through the softmax it must match the numeric one."""
    g = torch.Generator().manual_seed(2)
    shape = (2, 7, 2, FRAMES, BINS)
    logits = torch.randn(shape, generator=g, dtype=torch.double, requires_grad=True)
    targets = torch.complex(torch.randn(shape, generator=g, dtype=torch.double),
                            torch.randn(shape, generator=g, dtype=torch.double))
    mixture = targets.sum(1) * 1.3  # not the targets' sum: no error is exactly zero
    known = torch.tensor(labels, dtype=torch.bool)
    assert torch.autograd.gradcheck(lambda x: loss_fn(torch.softmax(x, 1), mixture, targets, known), (logits,))


class Cache:
    """Song 0 labels every stem; song 1 only vocals, drum and bass (its "other"
    holds the rest, as in a four-stem dataset). Remembers who lent what."""
    known = [np.ones(6, bool), np.array([1, 1, 0, 0, 0, 1], bool)]

    def __init__(self):
        self.lenders = {}

    def __len__(self):
        return len(self.known)

    def start(self, song, length, rng):
        return 0

    def segment(self, song, source, start, length):
        self.lenders[source] = song
        return np.ones((2, length), np.float32)


def test_remixed_examples_label_only_what_their_sources_label():
    cases = set()
    for seed in range(300):
        cache = Cache()
        _, known = make_example(cache, 8, np.random.default_rng(seed), remix=0.7)
        other = cache.lenders[OTHER]
        # piano or a guitar hidden in song 1's "other" must not pass for known
        assert list(known) == list(cache.known[other]), (seed, cache.lenders, known)
        cases.add((other, tuple(sorted(set(cache.lenders.values())))))
    assert {(0, (0,)), (1, (1,)), (0, (0, 1)), (1, (0, 1))} <= cases


def write_song(folder, signal, fmt="WAV"):
    """Six stems and "other", each its own gain of one mono signal."""
    folder.mkdir(parents=True)
    for i, name in enumerate(STEMS + ("other",)):
        soundfile.write(str(folder / (name + "." + fmt.lower())), signal * (i + 1) / 8, 44100, format=fmt,
                        subtype="PCM_16")


@pytest.fixture(scope="module")
def songs(tmp_path_factory):
    """Folders a: s, t; b: another s; c: t again as FLAC under another name;
    d: a song whose vocals start after 12.5 s. Each returns its SongCache."""
    root = tmp_path_factory.mktemp("songs")
    noise = np.round(np.random.default_rng(5).uniform(-0.4, 0.4, (3, 20000)) * 4096) / 4096  # exact in 16 bits
    write_song(root / "a/s", noise[0])
    write_song(root / "a/t", noise[1])
    write_song(root / "b/s", noise[2])
    write_song(root / "c/t-copy", noise[1], "FLAC")
    write_song(root / "d/late", np.sin(np.arange(13 * 44100) / 10.0) * (np.arange(13 * 44100) > 12.5 * 44100))

    def cache(*folders):
        return SongCache([s for f in folders for s in read_dataset("folder", root / f)], root / "cache")
    cache.root = root
    return cache


@pytest.mark.parametrize("timbre", [0, 1])
def test_sources_of_one_song_come_from_one_moment(songs, timbre):
    cache = songs("a")
    for seed in range(20):
        sources, _ = make_example(cache, 4096, np.random.default_rng(seed), remix=0, timbre=timbre)
        rows = sources.reshape(len(sources), -1)
        rows = rows / np.linalg.norm(rows, axis=1, keepdims=True)
        # saturation bends a source a little; another moment or rate makes noise unrelated
        np.testing.assert_allclose(np.abs(rows @ rows.T), 1, atol=0.05, err_msg="seed %d" % seed)


@pytest.mark.parametrize("semitones", [1.5, -1.5])
def test_playback_rate_moves_pitch_by_its_factor(semitones):
    factor = 2 ** (semitones / 12)
    tone = np.sin(2 * np.pi * 1000 * np.arange(50000) / 44100)[None]
    played = retime(tone, 32768, factor)[0]
    peak = np.argmax(np.abs(np.fft.rfft(played * np.hanning(len(played))))) * 44100 / len(played)
    assert abs(peak - 1000 * factor) < 3, peak


def test_songs_of_equal_names_keep_their_own_audio(songs):
    cache = songs("a", "b")
    assert cache.names == ["s", "t", "s"]
    assert not np.array_equal(cache.arrays[0], cache.arrays[2])


@pytest.mark.parametrize("valid, refused", [("b", None), ("c", "t \\(training\\) = t-copy \\(validation\\)")])
def test_validation_songs_must_not_be_training_songs(songs, valid, refused):
    if refused is None:
        check_disjoint(songs("a"), songs(valid))
    else:
        with pytest.raises(ValueError, match=refused):
            check_disjoint(songs("a"), songs(valid))


@pytest.mark.parametrize("holdout, trained, validated", [(0, ["s", "t"], []), (1, ["t"], ["s"]), (2, None, None)])
def test_holdout_moves_training_songs_to_validation(songs, holdout, trained, validated):
    args = argparse.Namespace(data=["folder:%s" % (songs.root / "a")], valid=[], holdout=holdout, valid_songs=0)
    if trained is None:
        with pytest.raises(ValueError, match="no songs left to train on"):
            songs_to_use(args, songs.root / "cache")
        return
    train, valid = songs_to_use(args, songs.root / "cache")
    assert (train.names, valid.names if valid else []) == (trained, validated)


def test_validation_hears_whole_songs(songs):
    torch.manual_seed(0)
    _, per_stem = validate(Separator(PRESETS["tiny"]), songs("d"))
    assert np.isfinite(per_stem["vocals"])


@pytest.mark.parametrize("share", [0.5, 1.0])
def test_a_teacher_takes_its_share_of_every_target(songs, share):
    """Taught by itself, a network's error shrinks by the teacher's share."""
    torch.manual_seed(0)
    network = Separator(PRESETS["tiny"])
    config = {**SETTINGS, "batch": 2, "frames": 8, "distill": share}

    def loss(config):
        still = torch.optim.SGD(network.parameters(), lr=0)
        return train_step(network, Average(network, 0.9), still, songs("a"), config, np.random.default_rng(3), 0,
                          "cpu", teacher=network)
    alone = loss({**config, "distill": 0})
    assert alone > 0.01
    assert loss(config) == pytest.approx((1 - share) * alone, rel=1e-4, abs=1e-6)
    # Wholly taught, the SDR loss is its floor: below -3 dB for every stem that sounds.
    assert loss({**config, "distill": 1, "loss": "sdr"}) < -3
