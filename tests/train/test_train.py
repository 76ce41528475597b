"""What a wrong loss or a wrong label would teach silently: sources a song
does not label, and examples remixed from songs that label different stems."""
import numpy as np
import pytest
import torch

from tonwerk_train.train import OTHER, loss_fn, make_example

FRAMES, BINS = 3, 5


def spectra(seed):
    """Seven random complex sources (1, 7, 2, T, F) and their sum, the mixture."""
    g = torch.Generator().manual_seed(seed)
    parts = torch.complex(torch.rand(1, 7, 2, FRAMES, BINS, generator=g), torch.rand(1, 7, 2, FRAMES, BINS, generator=g))
    return parts, parts.sum(1)


def masks_giving(estimates, mixture):
    """Real masks whose product with the mixture is `estimates` (real-ratio sources make that exact)."""
    return (estimates / mixture.unsqueeze(1)).real


@pytest.mark.parametrize("unlabelled, moved_to, zero", [
    ((), None, True),            # every stem labelled, estimates exact
    ((2, 3), 3, True),           # piano's share put into a guitar: both unlabelled, only their sum counts
    ((2, 3), OTHER, True),       # ... or into "other"
    ((2, 3), 0, False),          # ... but not into vocals, which is labelled
    ((2, 3), -1, False),         # ... nor dropped: the sum must still match
    ((), 3, False),              # labelled piano moved into a labelled guitar
])
def test_unlabelled_stems_count_only_as_their_sum_with_other(unlabelled, moved_to, zero):
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
    loss = float(loss_fn(masks_giving(estimates, mixture), mixture, targets, known))
    assert (loss < 1e-5) == zero, loss


class Cache:
    """Song 0 labels every stem; song 1 only vocals, drum and bass (its "other"
    holds the rest, as in a four-stem dataset). Remembers who lent what."""
    known = [np.ones(6, bool), np.array([1, 1, 0, 0, 0, 1], bool)]
    arrays = [None, None]

    def __init__(self):
        self.lenders = {}

    def segment(self, song, source, length, rng):
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
