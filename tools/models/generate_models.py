#!/usr/bin/python3
"""Writes the small ONNX models the tests run through the real runtime.

Usage: generate_models.py OUTPUT_DIR [MODEL_NAME ...]
Without names every model is written. See README.md next to this script for
what each model computes.

All models share the separation network's interface unless their name starts
with "broken_":
  inputs  "unified_input" float32 [1, 4, 256, 2048], then the bool [1] flags
          vocals, drum, bass, piano, acoustic_guitar, electric_guitar
          ("<stem>_flag", in that order)
  outputs float32 [1, 4, 256, 2048] "<stem>_output" for vocals, drum, piano,
          acoustic_guitar, electric_guitar, bass (in that order)
They are built from a handful of cheap operators so that the files stay a few
hundred bytes and a run costs little.
"""

import os
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

IR_VERSION = 8
OPSET = 17

SHAPE = [1, 4, 256, 2048]
BINS = SHAPE[-1]
INPUT = "unified_input"
FLAG_STEMS = ["vocals", "drum", "bass", "piano", "acoustic_guitar", "electric_guitar"]
OUTPUT_STEMS = ["vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass"]

# Bin ranges [first, end) of the last axis that band_split.onnx routes to each
# output, in output order. Together they cover every bin exactly once.
BAND_EDGES = [0, 64, 256, 512, 1024, 1536, BINS]


def flag_name(stem):
    return stem + "_flag"


def output_name(stem):
    return stem + "_output"


def float_info(name, shape):
    return helper.make_tensor_value_info(name, TensorProto.FLOAT, shape)


def flag_inputs(stems=FLAG_STEMS):
    return [helper.make_tensor_value_info(flag_name(s), TensorProto.BOOL, [1]) for s in stems]


def scalar(name, value, dtype=np.float32):
    return numpy_helper.from_array(np.array(value, dtype=dtype), name)


def vector(name, values):
    return numpy_helper.from_array(np.array(values, dtype=np.int64), name)


def save(graph, path):
    model = helper.make_model(graph, producer_name="tonwerk-test-models",
                              opset_imports=[helper.make_opsetid("", OPSET)])
    model.ir_version = IR_VERSION
    onnx.checker.check_model(model)
    onnx.save(model, path)


def contract_graph(name, nodes, initializers, input_shape=SHAPE, output_shape=SHAPE,
                   flag_stems=FLAG_STEMS, output_names=None):
    output_names = output_names or [output_name(s) for s in OUTPUT_STEMS]
    inputs = [float_info(INPUT, input_shape)] + flag_inputs(flag_stems)
    outputs = [float_info(n, output_shape) for n in output_names]
    return helper.make_graph(nodes, name, inputs, outputs, initializer=initializers)


def zero_nodes(source, targets):
    """Each target becomes source * 0 (same shape, all zeros for finite input)."""
    nodes = [helper.make_node("Mul", [source, "zero"], [t]) for t in targets]
    return nodes, [scalar("zero", 0.0)]


def identity(output_names=None, flag_stems=FLAG_STEMS, input_shape=SHAPE, output_shape=SHAPE):
    """vocals_output = unified_input; the other five outputs are zero."""
    names = output_names or [output_name(s) for s in OUTPUT_STEMS]
    nodes = [helper.make_node("Identity", [INPUT], [names[0]])]
    zeros, inits = zero_nodes(INPUT, names[1:])
    return contract_graph("identity", nodes + zeros, inits, input_shape, output_shape, flag_stems, names)


def band_split():
    """Output i keeps bins BAND_EDGES[i] .. BAND_EDGES[i+1]-1 of the last axis, zero elsewhere."""
    nodes, inits = [], [vector("axis", [3])]
    for i, stem in enumerate(OUTPUT_STEMS):
        first, end = BAND_EDGES[i], BAND_EDGES[i + 1]
        inits += [vector(f"start_{i}", [first]), vector(f"end_{i}", [end]),
                  vector(f"pads_{i}", [0, 0, 0, first, 0, 0, 0, BINS - end])]
        nodes += [helper.make_node("Slice", [INPUT, f"start_{i}", f"end_{i}", "axis"], [f"band_{i}"]),
                  helper.make_node("Pad", [f"band_{i}", f"pads_{i}"], [output_name(stem)], mode="constant")]
    return contract_graph("band_split", nodes, inits)


def gains():
    """Output i (in output order) = unified_input * (i + 1)."""
    nodes, inits = [], []
    for i, stem in enumerate(OUTPUT_STEMS):
        inits.append(scalar(f"gain_{i}", float(i + 1)))
        nodes.append(helper.make_node("Mul", [INPUT, f"gain_{i}"], [output_name(stem)]))
    return contract_graph("gains", nodes, inits)


def flag_gated():
    """<stem>_output = unified_input * float(<stem>_flag): the network itself honours the flags."""
    nodes = []
    for stem in OUTPUT_STEMS:
        nodes += [helper.make_node("Cast", [flag_name(stem)], [f"gate_{stem}"], to=TensorProto.FLOAT),
                  helper.make_node("Mul", [INPUT, f"gate_{stem}"], [output_name(stem)])]
    return contract_graph("flag_gated", nodes, [])


def broken_missing_flag():
    """identity without the electric_guitar_flag input: every run is refused by the runtime."""
    return identity(flag_stems=FLAG_STEMS[:-1])


def broken_misnamed_output():
    """identity whose last output is called "bass_out" instead of "bass_output"."""
    names = [output_name(s) for s in OUTPUT_STEMS[:-1]] + ["bass_out"]
    return identity(output_names=names)


def broken_dynamic_output():
    """identity with a free batch dimension, so the declared output shape is not static."""
    free = ["batch"] + SHAPE[1:]
    return identity(input_shape=free, output_shape=free)


def broken_oversized_output():
    """Outputs twice as wide as the input along the last axis (input concatenated with itself)."""
    names = [output_name(s) for s in OUTPUT_STEMS]
    nodes = [helper.make_node("Concat", [INPUT, INPUT], [names[0]], axis=3)]
    zeros, inits = zero_nodes(names[0], names[1:])
    wide = SHAPE[:-1] + [2 * BINS]
    return contract_graph("broken_oversized_output", nodes + zeros, inits, output_shape=wide)


def broken_runtime_error():
    """Loads fine but fails in every run, before any output is written: every output is computed from
    the input's bin 5000 (of 2048), an index computed from vocals_flag (5000 * (cast(f) + cast(not f)))
    so that nothing can be folded or checked when the session is built."""
    names = [output_name(s) for s in OUTPUT_STEMS]
    nodes = [
        helper.make_node("Cast", ["vocals_flag"], ["flag_i"], to=TensorProto.INT64),
        helper.make_node("Not", ["vocals_flag"], ["not_flag"]),
        helper.make_node("Cast", ["not_flag"], ["not_flag_i"], to=TensorProto.INT64),
        helper.make_node("Add", ["flag_i", "not_flag_i"], ["one"]),
        helper.make_node("Mul", ["one", "far_bin"], ["bin"]),
        helper.make_node("Gather", [INPUT, "bin"], ["column"], axis=3),
        helper.make_node("Mul", [INPUT, "column"], ["scaled"]),
        helper.make_node("Identity", ["scaled"], [names[0]]),
    ]
    zeros, inits = zero_nodes("scaled", names[1:])
    inits.append(vector("far_bin", [5000]))
    return contract_graph("broken_runtime_error", nodes + zeros, inits)


def identity_short():
    """identity over 96 frames: a model made for the live engine, which
    needs only the frames around the ones it hands out."""
    shape = SHAPE[:2] + [96] + SHAPE[3:]
    return identity(input_shape=shape, output_shape=shape)


MODELS = {
    "identity": identity,
    "identity_short": identity_short,
    "band_split": band_split,
    "gains": gains,
    "flag_gated": flag_gated,
    "broken_missing_flag": broken_missing_flag,
    "broken_misnamed_output": broken_misnamed_output,
    "broken_dynamic_output": broken_dynamic_output,
    "broken_oversized_output": broken_oversized_output,
    "broken_runtime_error": broken_runtime_error,
}


def main(argv):
    if len(argv) < 2:
        sys.stderr.write(__doc__)
        return 2
    out_dir = argv[1]
    names = argv[2:] or list(MODELS)
    os.makedirs(out_dir, exist_ok=True)
    for name in names:
        save(MODELS[name](), os.path.join(out_dir, name + ".onnx"))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
