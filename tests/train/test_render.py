"""Which material a generate run may draw from: a kit or amp style left out
for evaluation must never reach the training songs, and instruments are
drawn as often as their options say."""
import numpy as np
import pytest

from tonwerk_train.render import draw_instrument, pick

CATALOGUE = ("bank", "kit c", "kit a", "kit b")  # not sorted: the catalogue's order is kept, for the seeds


@pytest.mark.parametrize("listing, chosen", [
    ("all", list(CATALOGUE)), ("all,-kit b", ["bank", "kit c", "kit a"]), ("kit a, bank", ["bank", "kit a"]),
    ("-kit a,all", list(CATALOGUE)), ("all,-all", []), ("none", []), ("none,kit a", ["kit a"]),
])
def test_lists_choose_and_leave_out_in_order(listing, chosen):
    assert pick(listing, CATALOGUE, "kit") == chosen


def test_unknown_names_are_refused_with_the_catalogue():
    with pytest.raises(ValueError, match="unknown kit 'kit d'; one of bank, kit c"):
        pick("all,-kit d", CATALOGUE, "kit")


@pytest.mark.parametrize("sources, share", [
    (("bank",), 0.0), (("bank", "mda-piano", "mda-epiano", "mda-dx10"), 0.75), (("plucked",), 1.0),
    (("bank", "plucked"), 0.5),
])
def test_instruments_are_drawn_evenly_and_bank_only_runs_draw_nothing(sources, share):
    rng = np.random.default_rng(0)
    drawn = [draw_instrument(rng, sources) for _ in range(400)]
    assert abs(sum(settings is not None for settings in drawn) / 400 - share) < 0.07
    assert {settings["source"] for settings in drawn if settings} <= set(sources) - {"bank"}
    if share == 0:  # songs of runs without the instruments keep the seeds they always had
        assert rng.random() == np.random.default_rng(0).random()
