"""One tonwerk-separate --serve process, asked about one song at a time.
Its answers are read with a deadline and checked against the song asked
about, so a hung, dead or confused server is noticed instead of waited
for or believed."""
import json
import math
import os
import secrets
import select
import shutil
import signal
import socket
import subprocess
import time

# A server asked to stop removes its song's unfinished files between two
# blocks of audio, well within this; one that does not is killed.
GRACE_SECONDS = 5


def find_program(configured=None):
    """tonwerk-separate on this machine: `configured`, $TONWERK_SEPARATE,
    beside the C library ($TONWERK_LIBRARY), beside this package, or on PATH."""
    if configured and not _executable(configured):
        raise FileNotFoundError("%s is not an executable tonwerk-separate" % configured)
    candidates = [configured, os.environ.get("TONWERK_SEPARATE")]
    library = os.environ.get("TONWERK_LIBRARY")
    if library:
        folder = library if os.path.isdir(library) else os.path.dirname(library)
        candidates.append(os.path.join(folder, "tonwerk-separate"))
    candidates.append(os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tonwerk-separate"))
    for candidate in candidates:
        if candidate and _executable(candidate):
            return candidate
    found = shutil.which("tonwerk-separate")
    if not found:
        raise FileNotFoundError("tonwerk-separate is not on this machine: install it, or name it with --program or "
                                "TONWERK_SEPARATE")
    return found


def _executable(path):
    return os.access(path, os.X_OK) and not os.path.isdir(path)


class ServerTrouble(Exception):
    """The server cannot be trusted with another song: it stopped, or it
    answered something other than the song asked about."""


class TimedOut(Exception):
    pass


def part_tag():
    """A tag for one server's temporary names: host, process and a random
    part, so no other server (on this machine or another that shares the
    output folders) writes the same names."""
    host = "".join(c if c.isalnum() or c in "._-" else "_" for c in socket.gethostname())[:40] or "host"
    return "%s-%d-%s" % (host, os.getpid(), secrets.token_hex(4))


class Server:
    def __init__(self, program, arguments):
        # Chosen here and passed on, so the worker knows the names its server writes.
        self.tag = part_tag()
        self.process = subprocess.Popen([find_program(program), "--serve", "--quiet", "--part-tag", self.tag,
                                         *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.pid = self.process.pid
        self._unread = b""  # what was read past the last answer's line end
        # poll, not select: a worker process may hold more than 1024 files.
        self._readable = select.poll()
        self._readable.register(self.process.stdout.fileno(), select.POLLIN)

    def ask(self, song, seconds):
        """The answer about `song`, given within `seconds`."""
        deadline = time.monotonic() + seconds
        try:
            self.process.stdin.write(os.fsencode(song.path) + b"\t" + os.fsencode(song.outdir) + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            raise ServerTrouble(self._stopped()) from None
        return _checked(self._line(deadline), song)

    def _line(self, deadline):
        """Read from the pipe as it comes (not with readline, which would
        wait past any deadline)."""
        while b"\n" not in self._unread:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimedOut()
            # poll takes a C int of milliseconds: a long limit is waited out a day at a time.
            if not self._readable.poll(math.ceil(1000 * min(left, 86400))):
                continue
            chunk = os.read(self.process.stdout.fileno(), 65536)
            if not chunk:
                raise ServerTrouble(self._stopped())
            self._unread += chunk
        line, _, self._unread = self._unread.partition(b"\n")
        return line

    def _stopped(self):
        try:
            how = _describe_exit(self.process.wait(GRACE_SECONDS))
        except subprocess.TimeoutExpired:  # running still, but deaf or mute: stop() ends it
            how = "it closed its standard input or output"
        return "tonwerk-separate stopped while separating it (%s)" % how

    def stop(self, busy):
        """An idle server ends at the end of its input; a busy one is also
        terminated, so that it abandons its song and removes the song's
        temporary files. One that has not ended within GRACE_SECONDS is
        killed."""
        _close(self.process.stdin)
        if busy:
            self.process.terminate()
        try:
            self.process.wait(GRACE_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        _close(self.process.stdout)


def _close(pipe):
    try:
        pipe.close()
    except OSError:  # what is left to flush has nobody to read it
        pass


def _checked(line, song):
    """The answer on `line`, if it is one and it is about `song`. The server
    passes the request's input back unchanged, so the paths must be equal."""
    text = line.decode("utf-8", "surrogateescape")
    try:
        answer = json.loads(text)
    except ValueError:
        answer = None
    if not isinstance(answer, dict):
        raise ServerTrouble("tonwerk-separate answered with a line that is no answer: %.200s" % text)
    if answer.get("input") != song.path:
        raise ServerTrouble("tonwerk-separate answered about another input: %.200s" % answer.get("input"))
    return answer


def _describe_exit(status):
    if status < 0:
        try:
            return "killed by " + signal.Signals(-status).name
        except ValueError:
            return "killed by signal %d" % -status
    return "exit status %d" % status
