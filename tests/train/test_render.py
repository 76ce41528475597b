"""Which material a generate run may draw from: a kit or amp style left out
for evaluation must never reach the training songs."""
import pytest

from tonwerk_train.render import pick

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
