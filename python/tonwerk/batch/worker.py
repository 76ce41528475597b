"""The workers' side of a batch: the task of one song. Each worker thread
keeps one tonwerk-separate server, started by its first song and kept for
the next, so the model loads once per worker process. Runs inside Dask
worker processes."""
import atexit
import os
import socket
import threading
import time

from tonwerk.batch.leftovers import name_pattern, remove_leftovers
from tonwerk.batch.limits import time_limit
from tonwerk.batch.manifest import song_record
from tonwerk.batch.server import Server, ServerTrouble, TimedOut

# The servers of this worker process, by (worker thread, program, arguments).
_servers = {}


def worker_name():
    try:
        from distributed import get_worker
        return get_worker().address
    except (ImportError, ValueError):
        return "%s pid %d" % (socket.gethostname(), os.getpid())


def separate_song(song, program, arguments, timeout=None):
    """The task of one song: its manifest record. A failure of the song is
    a record with status "failed" and the reason, never an exception, so
    that Dask retries only songs whose worker died."""
    started = time.monotonic()
    record = song_record(song, "failed", worker=worker_name())
    if any(c in path for path in (song.path, song.outdir) for c in "\t\n"):
        record["reason"] = "its path holds a tab or a line break, which cannot be passed on"
    else:
        try:
            _ask(record, song, (threading.get_ident(), program, arguments), time_limit(song.path, timeout))
        except OSError as error:  # no tonwerk-separate to start
            record["reason"] = str(error)
    record["wall_seconds"] = round(time.monotonic() - started, 4)
    return record


def _ask(record, song, key, seconds):
    """A server that died or answered out of turn is replaced and the song
    asked once more, as the fault was most likely the server's; a song over
    its time limit is not, as it would most likely hang again."""
    for retry in (False, True):
        server = _servers.get(key) or _servers.setdefault(key, Server(key[1], key[2]))
        record["server_pid"] = server.pid
        try:
            return _answered(record, server.ask(song, seconds))
        except TimedOut:
            _discard(key, song)
            record["reason"] = "timed out after %g s" % seconds
            return
        except ServerTrouble as trouble:
            _discard(key, song)
            record["reason" if retry else "retried"] = str(trouble)


def _discard(key, song):
    server = _servers.pop(key)
    server.stop(busy=True)
    remove_leftovers(song, name_pattern(key[2]), server.tag)


def _answered(record, answer):
    if "error" in answer:
        record["reason"] = answer["error"]
    elif answer.get("skipped"):
        record["status"] = "skipped"
    else:
        record["status"] = "separated"
        record["seconds"] = answer["seconds"]
        record["outputs"] = {stem: facts["file"] for stem, facts in answer["stems"].items()}


def _stop_all():
    for server in _servers.values():
        server.stop(busy=False)


atexit.register(_stop_all)
