"""Songs that spread registers put other stems' notes where the bass plays
(and the bass above its usual octave), so pitch alone cannot tell the bass;
other songs keep the registers they always had."""
import numpy as np
import pytest

from tonwerk_train.composer import compose


def overlaps(spread):
    """{part: share of the songs with it and a bass where it plays at or below
    the bass's highest key}, and the basses' highest keys."""
    met, seen, tops = {}, {}, []
    for index in range(80):
        _, parts = compose(np.random.default_rng([5, index]), 12, spread)
        if not parts.get("bass") or not parts["bass"].notes:
            continue
        tops.append(max(key for _, _, key, _ in parts["bass"].notes))
        for name, part in parts.items():
            kind = name.rstrip("0123456789")
            if kind not in ("drum", "bass") and part.notes:
                seen[kind] = seen.get(kind, 0) + 1
                met[kind] = met.get(kind, 0) + (min(key for _, _, key, _ in part.notes) <= tops[-1])
    return {kind: met[kind] / seen[kind] for kind in seen}, np.array(tops)


@pytest.mark.parametrize("kind, kept, spread", [
    ("piano", (0.0, 0.3), (0.45, 1.0)),  # only its stride style reaches down, until a left hand does
    ("acoustic_guitar", (0.0, 0.0), (0.15, 1.0)),
    ("electric_guitar", (0.0, 0.15), (0.2, 1.0)),  # power chords on the low strings, then strums there too
    ("other", (0.0, 0.3), (0.33, 1.0)),  # a stride style too, then low instruments doubling the bass line
])
def test_spread_songs_share_the_bass_register_among_stems(kind, kept, spread):
    for setting, (least, most) in ((False, kept), (True, spread)):
        assert least <= overlaps(setting)[0][kind] <= most, (kind, setting)


def test_only_spread_songs_have_basses_above_their_usual_octave():
    assert (overlaps(False)[1] <= 50).all()
    assert 0.1 < (overlaps(True)[1] > 50).mean() < 0.5
