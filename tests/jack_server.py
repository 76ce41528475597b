"""A private JACK server on the dummy driver for tests, and the clients a
test starts beside it; all of them stopped again however the test ends."""
import contextlib
import os
import signal
import subprocess
import time


@contextlib.contextmanager
def private_server(env, log, period, realtime=False):
    """Starts jackd (named in env's JACK_DEFAULT_SERVER) and waits until it
    answers; yields start(*command), which starts a client with the same
    environment and output. Everything started is asked to stop first: a
    server killed outright stays registered, and a handful of those keep any
    new one from starting."""
    started = []

    def start(*command, **options):
        started.append(subprocess.Popen(command, env=env, stdout=log, stderr=log, start_new_session=True, **options))
        return started[-1]

    # Real-time scheduling where the user may have it keeps the machine's
    # other load from delaying the clients; without it JACK runs all the same.
    start("jackd", *(["-R"] if realtime else []), "-d", "dummy", "-r", "44100", "-p", str(period))
    try:
        deadline = time.monotonic() + 20
        while subprocess.run(["jack_lsp"], env=env, capture_output=True).returncode != 0 and \
                time.monotonic() < deadline:
            time.sleep(0.2)
        yield start
    finally:
        for process in reversed(started):
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGTERM)
            try:
                process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
