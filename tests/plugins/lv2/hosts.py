# The plugin in stock hosts.
#   hosts.py render BUNDLE
# lv2apply (no host features, one frame per run) renders tones offline
# through BUNDLE (the identity model) at 44.1, 48 and 96 kHz: the output must
# be the input, delayed by the adapter's latency, times what the controls
# leave of it.
#   hosts.py realtime BUNDLE SECONDS
# jalv runs BUNDLE on JACK's dummy driver for SECONDS: the plugin must report
# the adapter's latency and an underrun count. How many underruns a busy
# machine causes is the live benchmark's business, never a reason to fail.
# A bundle with presets runs the baseline's: the plugin must say that it
# separates with that file of the bundle.
import os
import re
import subprocess
import sys
import tempfile
import time

import numpy as np
import soundfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
from jack_server import client_ports, private_server, wait_until  # noqa: E402

URI = "urn:tonwerk:stems"
# Controls, and the output over the delayed input: the identity model puts
# everything in the vocals.
RENDERS = [({}, 1.0), ({"vocals": 0}, 0.0), ({"drum": 0}, 1.0), ({"vocals": 2, "residual": 0}, 2.0)]


def latency(max_block):
    # tonwerk_live.h's adapter latency at the default settings (update 4,
    # lookahead 4), which the plugin uses.
    return 3072 + 1024 * 4 + 2 * 1024 * 4 + max_block


def render_at(env, work, rate):
    t = np.arange(2 * rate) / rate
    tones = np.stack([0.4 * np.sin(2 * np.pi * 220 * t), 0.3 * np.sin(2 * np.pi * 331 * t + 1)], 1)
    soundfile.write(os.path.join(work, "in.wav"), tones.astype(np.float32), rate, subtype="FLOAT")
    failures = []
    for controls, factor in RENDERS:
        command = ["lv2apply", "-i", os.path.join(work, "in.wav"), "-o", os.path.join(work, "out.wav")]
        # Free-wheeling, as a file render is: the plugin waits for the model.
        command += [word for control in dict(controls, freewheel=1).items() for word in ("-c", *map(str, control))]
        run = subprocess.run(command + [URI], env=env, check=True, timeout=600, stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, text=True)
        # No host feature: the plugin's own block limit. At other rates than
        # the model's it converts, and says the latency that makes.
        stated = re.search(r"latency (\d+) frames", run.stderr)
        delay = int(stated.group(1)) if rate != 44100 and stated else latency(512)
        delayed = np.concatenate([np.zeros((delay, 2)), tones[:len(t) - delay]])
        # The model's rounding; within two model frames of the stream's start
        # the step from silence adds more, and the rate conversion rings a
        # little longer after it.
        edge = delay + (8192 if rate == 44100 else rate // 10)
        fine = 1e-6 if rate == 44100 else 1e-3
        tolerance = np.where(np.arange(len(t)) < edge, 1e-3 if rate == 44100 else 0.25, fine)[:, None]
        error = np.abs(soundfile.read(os.path.join(work, "out.wav"))[0] - factor * delayed)
        if not (error <= tolerance).all():
            failures.append("%d Hz, %s: off by %.3g at frame %d (latency %d)"
                            % (rate, controls, error.max(), np.argmax(error.max(1)), delay))
    return failures


def render(env, work):
    return [failure for rate in (44100, 48000, 96000) for failure in render_at(env, work, rate)]


def realtime(env, work, seconds, bundle):
    env.update(JACK_DEFAULT_SERVER="tonwerk-lv2-%d" % os.getpid(), JACK_NO_START_SERVER="1")
    block, log = 256, open(os.path.join(work, "jalv.log"), "w")
    presets = os.path.exists(os.path.join(bundle, "presets.ttl"))
    with private_server(env, log, block, realtime=True) as start:
        # jalv takes commands until its input ends: "monitors" prints the
        # control outputs.
        jalv = start("jalv", URI, stdin=subprocess.PIPE, text=True)
        if presets:  # jalv reads them in with its list
            jalv.stdin.write("presets\npreset %s#preset-baseline\n" % URI)
            jalv.stdin.flush()
        # Its ports appear once the plugin is active: only then does the time it runs for start.
        wait_until(lambda: client_ports(env), 120, "jalv registered no ports")
        time.sleep(seconds)
        jalv.communicate("monitors\n", timeout=60)
    log.close()
    text = open(log.name).read()
    printed = dict(re.findall(r"^(?:> )*(latency|underruns) = (\S+)$", text, re.M))
    reported, underruns = float(printed.get("latency", "nan")), float(printed.get("underruns", "nan"))
    print("jalv, %g s: latency %g, underruns %g" % (seconds, reported, underruns))
    # jalv states its JACK period as the longest block.
    chosen = not presets or "separating with %s/tonwerk-dsp-baseline.onnx" % bundle in text
    return [] if reported == latency(block) and underruns >= 0 and chosen else [text[-3000:]]


def main():
    bundle = os.path.abspath(sys.argv[2])
    with tempfile.TemporaryDirectory() as work:
        env = dict(os.environ, LV2_PATH=os.path.dirname(bundle))  # lilv needs it absolute
        failures = render(env, work) if sys.argv[1] == "render" else realtime(env, work, float(sys.argv[3]), bundle)
    for failure in failures:
        print("FAIL:", failure)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
