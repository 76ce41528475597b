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
        wait_until(lambda: ports(env) is not None, 60, "jackd did not answer")
        yield start
    finally:
        for process in reversed(started):
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGTERM)
            try:
                process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)


def ports(env):
    """The ports the server lists, or None while it does not answer."""
    listed = subprocess.run(["jack_lsp"], env=env, capture_output=True, text=True)
    return [line for line in listed.stdout.splitlines() if line] if listed.returncode == 0 else None


def client_ports(env):
    """The ports of clients other than the server's own driver."""
    return [port for port in ports(env) or [] if not port.startswith("system:")]


def wait_until(probe, seconds, failure):
    """Waits for a state and returns what probe() found; the deadline only guards against a hang."""
    deadline = time.monotonic() + seconds
    while True:
        found = probe()
        if found:
            return found
        if time.monotonic() > deadline:
            raise AssertionError("%s within %d s" % (failure, seconds))
        time.sleep(0.1)
