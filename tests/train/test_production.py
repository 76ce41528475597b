"""Mixing and mastering of generated songs: each processor does what its
settings say, and the mix bus leaves the stems the parts of the mixture."""
import numpy as np
import pytest

from tonwerk_train import production as p

RATE = 44100
T = np.arange(2 * RATE) / RATE
db = lambda x: 10 * np.log10(np.mean(np.square(x, dtype=np.float64)))
sine = lambda hertz, level_db: np.tile(np.sqrt(2) * 10 ** (level_db / 20) * np.sin(2 * np.pi * hertz * T), (2, 1))
BURST = sine(440, 3) * (T > 1.0003)


def decay_rate(tail):
    """dB per second over the part of a decaying tail between -5 and -35 dB of its start."""
    energy = np.cumsum(np.sum(tail ** 2, axis=0)[::-1])[::-1]  # backward integration
    level = 10 * np.log10(energy / energy[0])
    inside = (level < -5) & (level > -35)
    return -np.polyfit(np.flatnonzero(inside) / RATE, level[inside], 1)[0]


@pytest.mark.parametrize("name, measure, expected, tolerance", [
    # +6 dB bell at 1 kHz, an octave wide: the tone gains 6 dB, a tone three octaves away nothing.
    ("bell", lambda: db(p.apply_curve(sine(1000, -20), p.eq_curve([("bell", 1000, 6, 1)]))) + 20, 6, 0.1),
    ("bell far", lambda: db(p.apply_curve(sine(8000, -20), p.eq_curve([("bell", 1000, 6, 1)]))) + 20, 0, 0.1),
    ("highpass", lambda: db(p.apply_curve(sine(30, -20), p.eq_curve([("highpass", 60, 0, 1)]))) + 20, -12.3, 0.3),
    # 4:1 above -20 dB RMS: a tone at -8 dB settles at -17 dB.
    ("compressor", lambda: db((sine(440, -8) * p.compressor_gain(sine(440, -8)[0], -20, 4, 0.005, 0.1))[:, RATE:]),
     -17, 0.3),
    # The limiter holds a tone burst 6 dB over its ceiling at the ceiling, from its first peak on.
    ("limiter", lambda: 20 * np.log10(np.abs(BURST * p.limiter_gain(np.abs(BURST[0]), 0.5, 0.1)).max()),
     20 * np.log10(0.5), 0.05),
    ("reverb", lambda: decay_rate(p.reverb_response(np.random.default_rng(1), 1.0, 0.0)), 60, 8),
])
def test_processors_do_what_their_settings_say(name, measure, expected, tolerance):
    assert measure() == pytest.approx(expected, abs=tolerance)


def test_the_mix_bus_treats_a_mix_and_its_stems_alike():
    rng = np.random.default_rng(3)
    stems = [(rng.standard_normal((2, T.size)) * (T < 1) * 0.3).astype(np.float32), sine(220, -10), sine(3000, -25)]
    mastered = p.master(stems, np.random.default_rng(9))
    whole = p.master([np.sum(stems, axis=0)], np.random.default_rng(9))[0]
    np.testing.assert_allclose(np.sum(mastered, axis=0), whole, atol=1e-5)
    # The bus compressor lets go once the noise stops: the tone comes up.
    assert db(mastered[1][:, RATE // 5:RATE * 9 // 10]) < db(mastered[1][:, RATE * 6 // 5:RATE * 19 // 10]) - 0.5
