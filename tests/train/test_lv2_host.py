"""The offline LV2 host on this project's own plugin with the identity
model: its output is the input delayed by the adapter's latency, which
depends on the block limit the host states, times what the controls leave."""
import os

import numpy as np
import pytest

from tonwerk_train.lv2_host import BLOCK, Plugin

BUILD = os.environ.get("TONWERK_BUILD_DIR", os.path.join(os.path.dirname(__file__), "../../build"))
BUNDLES = os.path.abspath(os.path.join(BUILD, "tests/lv2/identity"))  # lilv crashes on a relative LV2_PATH
# The adapter's latency at the plugin's default settings for a host block limit.
LATENCY = 3072 + 1024 * 4 + 2 * 1024 * 4 + BLOCK


@pytest.mark.parametrize("controls, factor", [({}, 1.0), ({"vocals": 0}, 0.0), ({"vocals": 2, "residual": 0}, 2.0)])
def test_the_plugin_renders_with_the_host_features(monkeypatch, controls, factor):
    if not os.path.isdir(BUNDLES):
        pytest.skip("this build has no LV2 plugin (no LV2 headers when it was configured)")
    monkeypatch.setenv("LV2_PATH", BUNDLES)
    t = np.arange(44100) / 44100
    tones = np.stack([0.4 * np.sin(2 * np.pi * 220 * t), 0.3 * np.sin(2 * np.pi * 331 * t + 1)]).astype(np.float32)
    plugin = Plugin("urn:tonwerk:stems", 44100)
    try:
        out = plugin.process(tones, {"freewheel": 1, **controls})  # a render: the plugin waits for the model
    finally:
        plugin.close()
    expected = factor * np.pad(tones, ((0, 0), (LATENCY, 0)))[:, :t.size]
    # The model's rounding; within two model frames of the stream's start the step from silence adds more.
    tolerance = np.where(np.arange(t.size) < LATENCY + 8192, 1e-3, 1e-6)
    assert (np.abs(out - expected) <= tolerance).all(), np.abs(out - expected).max()
