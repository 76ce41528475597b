"""The Python binding over the real library: layouts, stem names, streaming
against whole-array separation, errors, and installing the package."""
import os
import shutil
import subprocess
import sys

import numpy as np
import pytest

import tonwerk

EDGE = 4096  # frames near either end, where the mirrored padding adds up to 1e-4


def test_identity_stream_gives_the_input_back_in_any_block_schedule(models, stereo):
    assert tonwerk.library_version() == tonwerk.__version__
    audio = stereo(300000)
    separator = tonwerk.Separator(models("identity.onnx"))
    assert separator.latency == 257024
    rng = np.random.default_rng(5)
    parts, start = [], 0
    while start < len(audio):
        end = min(len(audio), start + int(rng.integers(1, 40000)))
        result = separator.process(audio[start:end], eof=end == len(audio))
        if start < 257024 - 40000:
            assert result is None
        if result is not None:
            assert set(result) == set(tonwerk.OUTPUTS)
            assert all(v.shape == result["vocals"].shape and v.dtype == np.float32 for v in result.values())
            parts.append(result)
        start = end
    stems = {name: np.concatenate([p[name] for p in parts]) for name in tonwerk.OUTPUTS}
    np.testing.assert_allclose(stems["vocals"][EDGE:-EDGE], audio[EDGE:-EDGE], atol=1e-6)
    np.testing.assert_allclose(stems["vocals"], audio, atol=1e-4)
    np.testing.assert_allclose(stems["residual"] + stems["mix"], audio, atol=2.5e-7)
    assert not stems["drum"].any()


def test_stem_names_select_the_model_outputs(models, stereo):
    audio = stereo(30000)
    everything = tonwerk.Separator(models("band_split.onnx")).separate(audio)
    for name in tonwerk.STEMS:
        stems = tonwerk.Separator(models("band_split.onnx"), stems=[name]).separate(audio, block_frames=1000)
        for other in tonwerk.STEMS:
            np.testing.assert_array_equal(stems[other], everything[other] if other == name else 0, err_msg=other)


def test_separate_leaves_the_stream_alone_and_handles_empty_audio(models, stereo):
    audio = stereo(20000)
    separator = tonwerk.Separator(models("band_split.onnx"))
    assert separator.process(audio[:5000]) is None
    whole = separator.separate(audio, block_frames=5000)
    rest = separator.process(audio[5000:], eof=True)
    for name in tonwerk.OUTPUTS:
        np.testing.assert_array_equal(rest[name], whole[name])
    # Blocks beyond what the processor takes are cut to fit.
    long_audio = stereo(600000)
    np.testing.assert_allclose(separator.separate(long_audio, block_frames=10**6)["mix"], long_audio, atol=1e-4)
    assert all(v.shape == (0, 2) for v in separator.separate(np.zeros((0, 2), np.float32)).values())


def test_bad_input_is_refused_and_loses_nothing(models, stereo, tmp_path):
    with pytest.raises(ValueError, match="unknown stem 'voice'"):
        tonwerk.Separator(models("identity.onnx"), stems=["voice"])
    shared = tonwerk.Model(models("identity.onnx"))
    tonwerk.Separator(shared, stems=["vocals", "bass"])
    with pytest.raises(ValueError, match=r"serves separators of the stems \['vocals', 'bass'\]; load another Model"):
        tonwerk.Separator(shared, stems=["drum"])
    with pytest.raises(FileNotFoundError):
        tonwerk.Separator(str(tmp_path / "missing.onnx"))
    with pytest.raises(tonwerk.TonwerkError, match="^tw_context_create: ") as error:
        tonwerk.Model(b"not a model")
    assert error.value.status == 3

    audio = stereo(20000)
    separator = tonwerk.Separator(models("identity.onnx"))
    assert separator.process(audio[:10000]) is None
    with pytest.raises(ValueError, match=r"shape \(frames, 2\), not \(10000,\)"):
        separator.process(audio[10000:, 0])
    with pytest.raises(tonwerk.TonwerkError, match="Buffer overflow: cannot accept chunk of size 600000") as error:
        separator.process(np.zeros((600000, 2), np.float32), eof=True)
    assert error.value.status == 2
    np.testing.assert_allclose(separator.process(audio[10000:], eof=True)["vocals"], audio, atol=1e-4)
    separator.close()
    with pytest.raises(tonwerk.TonwerkError, match="processor is NULL"):
        separator.process(audio)


def test_installs_with_pip_and_finds_the_library_beside_itself(tmp_path, models):
    # pip builds in the package's folder: build a copy, not the source tree.
    package, site = tmp_path / "package", tmp_path / "site"
    shutil.copytree(os.path.join(os.path.dirname(__file__), ".."), package,
                    ignore=shutil.ignore_patterns("tests", "__pycache__", "build", "*.egg-info"))
    subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--root-user-action=ignore", "--no-deps",
                    "--no-build-isolation", "--target", str(site), str(package)], check=True)
    folder = os.path.dirname(os.path.realpath(tonwerk._library.load()._name))
    for name in os.listdir(folder):
        if name.startswith(("libtonwerk_", "libonnxruntime_pelagrin")):
            os.symlink(os.path.join(folder, name), site / "tonwerk" / name)
    env = dict(os.environ, PYTHONPATH=str(site))
    env.pop("TONWERK_LIBRARY", None)
    script = ("import tonwerk, numpy as np; s = tonwerk.Separator(%r); "
              "print(s.separate(np.zeros((10, 2), np.float32))['mix'].shape)" % models("identity.onnx"))
    result = subprocess.run([sys.executable, "-c", script], env=env, cwd=tmp_path, capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip().endswith("(10, 2)")
