"""The measures that training's validation and the evaluation share."""
import numpy as np

EPS = 1e-7      # added to both SDR sums, so silence against silence scores 0 dB
SILENT = 1e-8   # mean square per sample below which a reference counts as absent


def energy(signal):
    # float64 sums: minutes of float32 squares would lose the small errors.
    return float(np.sum(np.square(signal, dtype=np.float64)))


def sdr(reference, estimate):
    """The challenge SDR over the whole signal: 10 log10 sum s^2 / sum (s - est)^2."""
    return 10 * np.log10((energy(reference) + EPS) / (energy(reference - estimate) + EPS))


def sounds(reference):
    return energy(reference) / reference.size >= SILENT
