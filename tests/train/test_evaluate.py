import argparse
import json
import os

import numpy as np
import pytest
import soundfile

from tonwerk_train import evaluate

MODELS = os.environ.get("TONWERK_TEST_MODELS", os.path.join(os.path.dirname(__file__), "../../build/models"))
T = np.arange(3 * 44100) / 44100
NOISE = 0.3 * np.random.default_rng(1).standard_normal(T.size)
tone = lambda hertz, level=0.3: level * np.sin(2 * np.pi * hertz * T)
# Sources apart in time or frequency; "extra" is in the mixture only. In song b
# it doubles the piano: the ratio mask gives the piano back only if the extra
# is in both the mask's sum and the spectrum masked. Song a has a silent
# piano, song b silent vocals and no bass file.
SONGS = {"a": {"vocals": tone(440) * (T < 1.5), "drum": NOISE * (T >= 1.5), "bass": tone(55), "piano": 0 * T,
               "extra": tone(3000)},
         "b": {"vocals": 0 * T, "drum": NOISE * (T > 2), "piano": tone(880, 0.2), "extra": tone(880, 0.2)}}
MIX = {song: sum(sources.values()) for song, sources in SONGS.items()}
sdr = lambda reference, estimate: 10 * np.log10(np.sum(reference ** 2) / np.sum((reference - estimate) ** 2))
trivial = lambda song, stem: sdr(SONGS[song][stem], MIX[song] / 6)
VOCALS = sdr(SONGS["a"]["vocals"], MIX["a"])  # the identity model: the mixture as vocals, silence elsewhere


# The stream, and the live engine with its latency taken off: the same table.
@pytest.fixture(scope="module", params=[[], ["--live", "2", "--update", "3"]], ids=["stream", "live"])
def report(tmp_path_factory, request):
    root = tmp_path_factory.mktemp("songs")
    for song, sources in SONGS.items():
        for name, mono in sources.items():
            (root / song).mkdir(exist_ok=True)
            soundfile.write(str(root / song / (name + ".wav")), mono.astype(np.float32), 44100, subtype="FLOAT")
    evaluate.add_arguments(parser := argparse.ArgumentParser())
    args = parser.parse_args([os.path.join(MODELS, "identity.onnx"), str(root), "--json", str(root / "out.json"),
                              "--where"] + request.param)
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(evaluate, "BLOCK_FRAMES", 16)  # the ratio mask in many blocks, the last one short
        patch.setattr(evaluate, "WHERE_SAMPLES", 10000)  # so are the --where sums
        assert evaluate.run(args) == 0  # the exit status
    with open(args.json) as file:
        return json.load(file)


@pytest.fixture
def table(report):
    return report["stems"]


@pytest.mark.parametrize("stem, column, expected, tolerance", [
    ("vocals", "model", VOCALS, 0.05), ("vocals", "leak", 0.0, 0.05), ("drum", "model", 0.0, 1e-6),
    ("mean", "model", VOCALS / 4, 0.05), ("vocals", "trivial", trivial("a", "vocals"), 1e-3),
    ("drum", "trivial", (trivial("a", "drum") + trivial("b", "drum")) / 2, 1e-3)])
def test_columns_match_hand_computation(table, stem, column, expected, tolerance):
    assert table[stem][column] == pytest.approx(expected, abs=tolerance)


def test_songs_counted_and_ceiling_high(table):
    # (songs scored, songs absent from): a stem without a file is unknown, in neither.
    counted = {stem: (row["songs"], row["absent"]) for stem, row in table.items() if stem != "mean"}
    assert counted == {"vocals": (1, 1), "drum": (2, 0), "piano": (1, 1), "acoustic_guitar": (0, 0),
                       "electric_guitar": (0, 0), "bass": (1, 0)}
    assert table["piano"]["leak"] < -60  # silence where the identity model puts nothing
    assert all(table[stem]["ceiling"] > 20 for stem, (songs, _) in counted.items() if songs)


def test_where_every_source_went(report):
    # The identity model passes the whole mixture as vocals: every source that
    # sounds lands there whole. In song b the extra doubles the piano exactly,
    # so the two split the vocals' fit evenly instead of making it singular.
    where = report["where"]
    assert {source: row["songs"] for source, row in where.items()} == {
        "vocals": 1, "drum": 2, "piano": 1, "bass": 1, "other": 2}
    for row in where.values():
        shares = {output: row[output] for output in evaluate.OUTPUTS}
        assert shares == pytest.approx({output: float(output == "vocals") for output in evaluate.OUTPUTS}, abs=0.02)
