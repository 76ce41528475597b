"""The JACK example on a private dummy server: the latency it reports to
JACK is what its adapter adds, downstream (capture) on its outputs and
upstream (playback) on its inputs, so a client that records the stems and
one that plays them line up with the input. Nothing here depends on pace:
every wait is for a state, with a deadline that only guards against hangs."""
import operator
import os
import re
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from jack_server import private_server, wait_until  # noqa: E402

EXAMPLE, MODEL = os.environ.get("TONWERK_LIVE_JACK"), os.environ.get("TONWERK_BASELINE_MODEL")


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
    # Printed once the client is active: JACK refuses to connect an inactive client's ports.
    printed = wait_until(lambda: re.search(r"latency: (\d+) frames", open(tmp_path / "jack.log").read()), 60,
                         "the example printed no latency")
    added = int(printed.group(1))
    assert added > 0 and example.poll() is None
    for source, target in [("system:capture_1", "tonwerk-live:in_l"), ("system:capture_2", "tonwerk-live:in_r"),
                           ("tonwerk-live:vocals_l", "system:playback_1")]:
        subprocess.run(["jack_connect", source, target], env=env, check=True)

    def reported_and_expected():
        ports = latencies(env)
        captured, played = ports["system:capture_1"]["capture"], ports["system:playback_1"]["playback"]
        # What leaves an output was captured `added` frames before what enters the inputs...
        # ...and what enters an input is played `added` frames after what leaves the outputs
        # (the unconnected outputs, played nowhere, make the range's low end).
        return ((ports["tonwerk-live:vocals_l"]["capture"], ports["tonwerk-live:in_l"]["playback"]),
                ((captured[0] + added, captured[1] + added), (added, played[1] + added)))

    # JACK recomputes the latencies a cycle or more after a connection: wait for them, then compare.
    try:
        wait_until(lambda: operator.eq(*reported_and_expected()), 30, "the latencies did not settle")
    except AssertionError:  # the comparison below shows both sides
        pass
    reported, expected = reported_and_expected()
    assert reported == expected
