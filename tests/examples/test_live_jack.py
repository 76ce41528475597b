"""The JACK example on a private dummy server: the latency it reports to
JACK is what its adapter adds, downstream (capture) on its outputs and
upstream (playback) on its inputs, so a client that records the stems and
one that plays them line up with the input. Nothing here depends on pace:
every wait is for a state, with a deadline that only guards against hangs."""
import os
import re
import subprocess
import sys
import time

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from jack_server import private_server  # noqa: E402

EXAMPLE, MODEL = os.environ.get("TONWERK_LIVE_JACK"), os.environ.get("TONWERK_BASELINE_MODEL")


def wait_for(probe, seconds=60):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        found = probe()
        if found:
            return found
        time.sleep(0.1)
    raise AssertionError("still waiting after %d s" % seconds)


def latencies(env):
    """{port: {"playback": (min, max), "capture": (min, max)}} from jack_lsp -l."""
    text = subprocess.run(["jack_lsp", "-l"], env=env, capture_output=True, text=True).stdout
    ports = {}
    current = None
    for line in text.splitlines():
        found = re.match(r"\tport (playback|capture) latency = \[ (\d+) (\d+) \]", line)
        if found and current:
            ports[current][found.group(1)] = (int(found.group(2)), int(found.group(3)))
        elif not line.startswith("\t"):
            current = line.strip()
            ports[current] = {}
    return ports


@pytest.fixture
def jack(tmp_path):
    env = dict(os.environ, JACK_DEFAULT_SERVER="tonwerk-example-%d" % os.getpid(), JACK_NO_START_SERVER="1")
    with open(tmp_path / "jack.log", "w") as log, private_server(env, log, 256) as start:
        yield env, start


@pytest.mark.skipif(not EXAMPLE, reason="built without JACK")
def test_the_latency_reaches_capture_and_playback(jack, tmp_path):
    env, start = jack
    example = start(EXAMPLE, MODEL, "600")
    wait_for(lambda: "tonwerk-live:mix_r" in latencies(env))
    for source, target in [("system:capture_1", "tonwerk-live:in_l"), ("system:capture_2", "tonwerk-live:in_r"),
                           ("tonwerk-live:vocals_l", "system:playback_1")]:
        subprocess.run(["jack_connect", source, target], env=env, check=True)
    added = int(wait_for(lambda: re.search(r"latency: (\d+) frames", open(tmp_path / "jack.log").read())).group(1))
    assert added > 0 and example.poll() is None
    ports = latencies(env)
    captured, played = ports["system:capture_1"]["capture"], ports["system:playback_1"]["playback"]
    # What leaves an output was captured `added` frames before what enters the inputs...
    assert ports["tonwerk-live:vocals_l"]["capture"] == (captured[0] + added, captured[1] + added)
    # ...and what enters an input is played `added` frames after what leaves the outputs
    # (the unconnected outputs, played nowhere, make the range's low end).
    assert ports["tonwerk-live:in_l"]["playback"] == (added, played[1] + added)
