"""tonwerk-model on the generated test models, and its contract check on
models built here, each with one kind of deviation of its own."""
from onnx import TensorProto, helper
import pytest

from conftest import model_path, run_tool

IDENTITY = model_path("identity")
OUTPUTS = ["vocals_output", "drum_output", "piano_output", "acoustic_guitar_output", "electric_guitar_output",
           "bass_output"]
FREE_BATCH = 'dimension 0 is free ("batch"), expected 1'


def tool(*args):
    return run_tool("tonwerk-model", *args)


def check(tmp_path, data):
    """The violations tonwerk-model check names in `data` (bytes or an ONNX graph)."""
    path = tmp_path / "model.onnx"
    path.write_bytes(data if isinstance(data, bytes) else helper.make_model(data).SerializeToString())
    run = tool("check", path)
    assert run.returncode == (1 if run.stdout.count("\n") > 1 else 0), run.stderr
    return [line[4:] for line in run.stdout.splitlines()[1:]]


SPECTRUM = [1, 4, 256, 2048]
FLAGS = ["vocals_flag", "drum_flag", "bass_flag", "piano_flag", "acoustic_guitar_flag", "electric_guitar_flag"]


def value(name, elem_type=TensorProto.FLOAT, shape=SPECTRUM):
    return helper.make_tensor_value_info(name, elem_type, shape)


def contract_graph(initializers=()):
    inputs = [value("unified_input")] + [value(f, TensorProto.BOOL, [1]) for f in FLAGS]
    return helper.make_graph([], "g", inputs, [value(o) for o in OUTPUTS],
                             [helper.make_tensor(name, TensorProto.FLOAT, [1], [0.0]) for name in initializers])


def test_the_contract_graph_passes_with_initializers_listed_as_inputs(tmp_path):
    assert check(tmp_path, contract_graph()) == []
    graph = contract_graph(["weights"])
    graph.input.insert(1, value("weights", shape=[1]))
    assert check(tmp_path, graph) == []


def test_each_deviation_is_named(tmp_path):
    graph = contract_graph()
    inputs = [value("unified_input", shape=[1, 4, "frames"]), graph.input[2], graph.input[1],
              value("bass_flag", shape=[1])] + list(graph.input[4:])
    outputs = [value("vocals_output", TensorProto.INT64, [1, 4, 256, 4096])] + list(graph.output[1:5]) + [
        value("bass_output", shape=None), value("extra_output")]
    order = "unified_input, " + ", ".join(FLAGS)
    assert check(tmp_path, helper.make_graph([], "g", inputs, outputs)) == [
        "inputs are in the order " + order.replace("vocals_flag, drum_flag", "drum_flag, vocals_flag") +
        ", expected " + order,
        'input "unified_input" has 3 dimensions [1, 4, frames], expected [1, 4, 256, 2048]',
        'input "bass_flag" has element type float32, expected bool',
        'unexpected output "extra_output"',
        'output "vocals_output" has element type int64, expected float32',
        'output "vocals_output" dimension 3 is 4096, expected 2048',
        'output "bass_output" declares no shape, expected [1, 4, 256, 2048]',
    ]


def test_bytes_that_are_no_model_give_one_violation(tmp_path):
    good = helper.make_model(contract_graph()).SerializeToString()
    unreadable = ["the file is not a readable ONNX model (damaged, or scrambled with another key)"]
    assert check(tmp_path, good[:len(good) // 2]) == unreadable
    assert check(tmp_path, b"\x38\x05") == unreadable  # the graph field as a number
    assert check(tmp_path, b"") == ["the file is empty"]
    assert check(tmp_path, b"\x08\x08") == ["the model has no graph"]  # an IR version and nothing else


@pytest.mark.parametrize("name, violations", [
    ("broken_missing_flag", ['input "electric_guitar_flag" is missing']),
    ("broken_misnamed_output", ['output "bass_output" is missing', 'unexpected output "bass_out"']),
    ("broken_dynamic_output", [f'input "unified_input" {FREE_BATCH}'] + [f'output "{o}" {FREE_BATCH}' for o in OUTPUTS]),
    ("identity", []),
    ("flag_gated", []),
    ("tonwerk-dsp-baseline", []),
    ("tonwerk-stems", []),
])
def test_check_accepts_conforming_models_and_names_every_violation_of_the_broken_ones(name, violations):
    run = tool("check", model_path(name))
    n = len(violations)
    assert run.returncode == (1 if n else 0)
    verdict = f"{n} violation{'s' if n > 1 else ''} of the model contract" if n else "fits the model contract"
    assert run.stdout.splitlines() == [f"{model_path(name)}: {verdict}"] + ["  - " + v for v in violations]


def test_scramble_and_unscramble_round_trip_with_the_key(tmp_path):
    scrambled, restored = tmp_path / "scrambled.bin", tmp_path / "restored.onnx"
    assert tool("scramble", IDENTITY, scrambled, "--key", "Ab").returncode == 0
    original = open(IDENTITY, "rb").read()
    mixed = scrambled.read_bytes()
    assert len(mixed) == len(original)
    assert all(m ^ o == b"Ab"[i % 2] for i, (m, o) in enumerate(zip(mixed, original)))

    plain_check = tool("check", scrambled)
    assert plain_check.returncode == 1 and "not a readable ONNX model" in plain_check.stdout
    assert tool("check", scrambled, "--key", "Ab").returncode == 0
    assert tool("unscramble", scrambled, restored, "--key", "Ab").returncode == 0
    assert restored.read_bytes() == original
    assert sorted(p.name for p in tmp_path.iterdir()) == ["restored.onnx", "scrambled.bin"]

    # In place works, through another spelling of the same path too, but never silently.
    in_place = tool("unscramble", scrambled, tmp_path / "." / "scrambled.bin", "--key", "Ab")
    assert in_place.returncode == 0
    assert in_place.stderr == (f"tonwerk-model: warning: IN and OUT are the same file; {scrambled} is replaced by "
                               "its unscrambled bytes\n")
    assert scrambled.read_bytes() == original


@pytest.mark.parametrize("args, status", [
    ([], 2),
    (["scramble", IDENTITY, "{d}/x"], 2),
    (["inspect", IDENTITY], 2),
    (["check", IDENTITY, "--key", ""], 2),
    (["check", "{d}/none.onnx"], 3),
    (["scramble", IDENTITY, "{d}/no/dir/x", "--key", "k"], 3),
])
def test_usage_and_file_errors_say_one_line(tmp_path, args, status):
    run = tool(*[a.replace("{d}", str(tmp_path)) for a in args])
    assert run.returncode == status
    assert len(run.stderr.splitlines()) == 1 and run.stderr.startswith("tonwerk-model: "), run.stderr
