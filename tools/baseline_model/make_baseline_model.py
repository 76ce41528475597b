#!/usr/bin/python3
"""Writes tonwerk-dsp-baseline.onnx: a separation model made of classic DSP.

Usage: make_baseline_model.py OUTPUT_FILE

The network takes the library's packed spectrogram (planes: real and
imaginary parts of the left channel, then of the right channel; 256 frames of
a 4096-point STFT at 44100 Hz; 2048 bins from DC) and multiplies it by six
soft masks that add up to one in every time-frequency cell:

  1. Harmonic/percussive split. The magnitude of each cell is compared with
     its neighbourhood smoothed along time (sustained tones stand out) and
     along frequency (broadband clicks and hits stand out). Smoothing is a
     geometric mean, an average of log-magnitudes, which like a median is
     barely moved by a few strong outliers. percussive share = P^2 / (H^2 + P^2).
     The time neighbourhood reaches mostly ahead (3 frames back, 13 on), so
     the onset of a note that then sustains still counts as harmonic; the
     frequency neighbourhood is narrower in the bass band, where partials lie
     close together.
  2. Percussive share -> drum.
  3. Harmonic share below about 200 Hz -> bass.
  4. Harmonic share above that is divided by where the cell sits in the
     stereo image, pan = (|R| - |L|) / (|R| + |L|):
       centre (|pan| < 0.15)          -> vocals
       hard left/right (|pan| > 0.7)  -> electric_guitar
       moderately left                -> piano
       moderately right               -> acoustic_guitar
     That is a mixing convention, not a property of the instruments.

Each output is additionally multiplied by its flag, so an unselected stem is
silent and its share shows up in the library's residual stem.
"""

import os
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

IR_VERSION = 8
OPSET = 17

SAMPLE_RATE = 44100.0
FFT_SIZE = 4096
SHAPE = [1, 4, 256, 2048]
FLAG_STEMS = ["vocals", "drum", "bass", "piano", "acoustic_guitar", "electric_guitar"]
OUTPUT_STEMS = ["vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass"]

# Tuning. Smoothing spans are odd so that a cell sits in the middle of its window.
TIME_SPAN_FRAMES = 17        # ~0.4 s at hop 1024
TIME_LOOKBACK_FRAMES = 3     # of those, frames before the cell: a note's onset is judged by its sustain
FREQ_SPAN_BINS = 31          # ~330 Hz at 10.8 Hz per bin
LOW_FREQ_SPAN_BINS = 5       # in the bass band
MAG_FLOOR = 1e-3             # keeps log() finite in silence
BASS_CUTOFF_HZ = 200.0
BASS_ORDER = 8.0             # steepness of the bass crossover
CENTRE_WIDTH = 0.15
HARD_PAN = 0.7
PAN_SLOPE = 20.0             # how sharply the pan regions hand over


def const(name, value):
    return numpy_helper.from_array(np.array(value, dtype=np.float32), name)


def ints(name, values):
    return numpy_helper.from_array(np.array(values, dtype=np.int64), name)


class Graph:
    """Collects nodes; each helper returns the name of the value it makes."""

    def __init__(self):
        self.nodes = []
        self.initializers = []
        self.count = 0

    def op(self, op_type, inputs, name=None, **attrs):
        self.count += 1
        out = name or f"{op_type.lower()}_{self.count}"
        self.nodes.append(helper.make_node(op_type, inputs, [out], **attrs))
        return out

    def const(self, name, value):
        self.initializers.append(const(name, value))
        return name

    def smooth(self, x, frames, bins, name=None, frames_before=None):
        """Mean over a frames x bins neighbourhood, edges averaged over what exists."""
        before = frames // 2 if frames_before is None else frames_before
        return self.op("AveragePool", [x], name, kernel_shape=[frames, bins],
                       pads=[before, bins // 2, frames - 1 - before, bins // 2], count_include_pad=0)


def bass_curve(g):
    """1 / (1 + (f / cutoff)^order) over the bins' frequencies: ~1 in the bass band, ~0 above."""
    one = g.const("curve_one", 1.0)
    bin_index = g.op("Range", [g.const("bin_first", 0.0), g.const("bin_count", float(SHAPE[3])), one])
    bin_hz = g.op("Mul", [bin_index, g.const("hz_per_bin", SAMPLE_RATE / FFT_SIZE)])
    ratio = g.op("Div", [bin_hz, g.const("bass_cutoff", BASS_CUTOFF_HZ)])
    return g.op("Reciprocal", [g.op("Add", [one, g.op("Pow", [ratio, g.const("bass_order", BASS_ORDER)])])],
                "bass_curve")


def build_graph():
    g = Graph()
    g.initializers.append(ints("plane_split", [1, 1, 1, 1]))
    g.nodes.append(helper.make_node("Split", ["unified_input", "plane_split"], ["l_re", "l_im", "r_re", "r_im"],
                                    axis=1))

    def magnitude(re, im):
        return g.op("Sqrt", [g.op("Add", [g.op("Mul", [re, re]), g.op("Mul", [im, im])])])

    mag_l = magnitude("l_re", "l_im")
    mag_r = magnitude("r_re", "r_im")
    mag = g.op("Add", [mag_l, mag_r], "magnitude")

    # 1. harmonic / percussive shares from geometric means along each axis
    log_mag = g.op("Log", [g.op("Add", [mag, g.const("mag_floor", MAG_FLOOR)])])
    along_time = g.smooth(log_mag, TIME_SPAN_FRAMES, 1, frames_before=TIME_LOOKBACK_FRAMES)
    harmonic = g.op("Exp", [along_time], "harmonic_level")
    # Low notes have few bins between partials, so the bass band gets a narrower span.
    low_curve = bass_curve(g)
    wide = g.smooth(log_mag, 1, FREQ_SPAN_BINS)
    narrow = g.smooth(log_mag, 1, LOW_FREQ_SPAN_BINS)
    blended = g.op("Add", [wide, g.op("Mul", [g.op("Sub", [narrow, wide]), low_curve])])
    percussive = g.op("Exp", [blended], "percussive_level")
    h2 = g.op("Mul", [harmonic, harmonic])
    p2 = g.op("Mul", [percussive, percussive])
    tiny = g.const("tiny", 1e-20)
    # 2. the percussive share is the drum stem
    drum = g.op("Div", [p2, g.op("Add", [g.op("Add", [h2, p2]), tiny])], "drum_mask")
    one = g.const("one", 1.0)
    tonal = g.op("Sub", [one, drum], "tonal_mask")

    # 3. bass: tonal share under a steep low-pass curve over bin frequency
    bass = g.op("Mul", [tonal, low_curve], "bass_mask")
    upper = g.op("Sub", [tonal, bass])

    # 4. the rest by stereo position
    pan = g.op("Div", [g.op("Sub", [mag_r, mag_l]),
                       g.op("Add", [mag, g.const("pan_floor", MAG_FLOOR)])], "pan")
    width = g.op("Abs", [pan])
    slope = g.const("pan_slope", PAN_SLOPE)
    centre = g.op("Sigmoid", [g.op("Mul", [g.op("Sub", [g.const("centre_width", CENTRE_WIDTH), width]), slope])])
    hard = g.op("Sigmoid", [g.op("Mul", [g.op("Sub", [width, g.const("hard_pan", HARD_PAN)]), slope])])
    to_right = g.op("Sigmoid", [g.op("Mul", [pan, slope])])

    vocals = g.op("Mul", [upper, centre], "vocals_mask")
    off_centre = g.op("Sub", [upper, vocals])
    electric = g.op("Mul", [off_centre, hard], "electric_guitar_mask")
    moderate = g.op("Sub", [off_centre, electric])
    acoustic = g.op("Mul", [moderate, to_right], "acoustic_guitar_mask")
    piano = g.op("Sub", [moderate, acoustic], "piano_mask")

    masks = {"vocals": vocals, "drum": drum, "piano": piano, "acoustic_guitar": acoustic,
             "electric_guitar": electric, "bass": bass}
    for stem in OUTPUT_STEMS:
        gate = g.op("Cast", [stem + "_flag"], to=TensorProto.FLOAT)
        gated_mask = g.op("Mul", [masks[stem], gate])
        g.op("Mul", ["unified_input", gated_mask], stem + "_output")

    inputs = [helper.make_tensor_value_info("unified_input", TensorProto.FLOAT, SHAPE)]
    inputs += [helper.make_tensor_value_info(s + "_flag", TensorProto.BOOL, [1]) for s in FLAG_STEMS]
    outputs = [helper.make_tensor_value_info(s + "_output", TensorProto.FLOAT, SHAPE) for s in OUTPUT_STEMS]
    return helper.make_graph(g.nodes, "tonwerk_dsp_baseline", inputs, outputs, initializer=g.initializers)


def main(argv):
    if len(argv) != 2:
        sys.stderr.write(__doc__)
        return 2
    model = helper.make_model(build_graph(), producer_name="tonwerk-dsp-baseline",
                              opset_imports=[helper.make_opsetid("", OPSET)])
    model.ir_version = IR_VERSION
    model.doc_string = "Harmonic/percussive, bass-band and stereo-position masks; see make_baseline_model.py."
    onnx.checker.check_model(model, full_check=True)
    out_dir = os.path.dirname(os.path.abspath(argv[1]))
    os.makedirs(out_dir, exist_ok=True)
    # Write beside the target and rename, so an interrupted build leaves no half file.
    temp = argv[1] + ".tmp"
    onnx.save(model, temp)
    os.replace(temp, argv[1])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
