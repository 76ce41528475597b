"""The workers' side of a batch: one tonwerk-separate --serve process per
worker process, started by its first song and kept for the next, so the
model loads once per process. Runs inside Dask worker processes."""
import atexit
import glob
import json
import os
import shutil
import signal
import socket
import subprocess
import threading
import time

from tonwerk.batch.manifest import song_record

# Per worker process: the servers by worker thread (a worker with several
# threads separates several songs at once) and tonwerk-separate arguments.
_servers = {}


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


class ServerStopped(Exception):
    pass


class Server:
    def __init__(self, program, arguments):
        self.process = subprocess.Popen([find_program(program), "--serve", "--quiet", *arguments],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def ask(self, song):
        request = os.fsencode(song.path) + b"\t" + os.fsencode(song.outdir) + b"\n"
        try:
            self.process.stdin.write(request)
            self.process.stdin.flush()
            answer = self.process.stdout.readline()
        except BrokenPipeError:
            answer = b""
        if not answer:
            raise ServerStopped(_describe_exit(self.process.wait()))
        return json.loads(answer)

    def close(self):
        self.process.stdin.close()
        self.process.wait()


def _describe_exit(status):
    if status < 0:
        try:
            return "killed by " + signal.Signals(-status).name
        except ValueError:
            return "killed by signal %d" % -status
    return "exit status %d" % status


def _remove_leftovers(outdir, pid):
    """What a server killed mid-song could not remove: its temporary files,
    named .NAME.part-PID beside the stems."""
    for path in glob.glob(os.path.join(glob.escape(outdir), "**", ".*.part-%d" % pid), recursive=True):
        try:
            os.remove(path)
        except OSError:
            pass


def _close_all():
    for server in _servers.values():
        server.close()


atexit.register(_close_all)


def worker_name():
    try:
        from distributed import get_worker
        return get_worker().address
    except (ImportError, ValueError):
        return "%s pid %d" % (socket.gethostname(), os.getpid())


def _answered(record, answer):
    if "error" in answer:
        record["reason"] = answer["error"]
    elif answer.get("skipped"):
        record["status"] = "skipped"
    else:
        record["status"] = "separated"
        record["seconds"] = answer["seconds"]
        record["outputs"] = {stem: facts["file"] for stem, facts in answer["stems"].items()}


def separate_song(song, program, arguments):
    """The task of one song: its manifest record. A failure of the song is
    a record with status "failed" and the reason, never an exception, so
    that Dask retries only songs whose worker died."""
    started = time.monotonic()
    record = song_record(song, "failed", worker=worker_name())
    if any(c in path for path in (song.path, song.outdir) for c in "\t\n"):
        record["reason"] = "its path holds a tab or a line break, which cannot be passed on"
    else:
        key = (threading.get_ident(), program, arguments)
        server = _servers.get(key)
        try:
            if server is None:
                server = _servers[key] = Server(program, arguments)
            record["server_pid"] = server.process.pid
            _answered(record, server.ask(song))
        except ServerStopped as stopped:
            del _servers[key]
            _remove_leftovers(song.outdir, server.process.pid)
            record["reason"] = "tonwerk-separate stopped while separating it (%s)" % stopped
        except OSError as error:
            record["reason"] = str(error)
    record["wall_seconds"] = round(time.monotonic() - started, 4)
    return record
