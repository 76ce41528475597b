"""The manifest of a batch: JSON Lines, one record per song, appended as
each song finishes. A rerun appends to it; where a song has several
records, the last one counts."""
import json
import os
import time

STATUSES = ("separated", "skipped", "failed", "cancelled")
SUCCEEDED = ("separated", "skipped")
SUMMED = ("input", "status", "reason", "seconds", "wall_seconds")
# A lost machine loses at most the records of this many last seconds.
SYNC_SECONDS = 2


def song_record(song, status, reason=None, worker=None):
    """A song's record as it starts: what its worker learns fills it in."""
    return {"input": song.path, "status": status, "reason": reason, "retried": None, "outputs": {},
            "seconds": None, "wall_seconds": None, "worker": worker}


class Manifest:
    """Each record is one write of one line, straight to the file, so a
    driver killed at any moment leaves the record of every song it was
    told of, and at worst one torn line."""

    def __init__(self, path):
        os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
        self._file = os.open(path, os.O_RDWR | os.O_APPEND | os.O_CREAT, 0o644)
        self._synced = time.monotonic()
        size = os.fstat(self._file).st_size
        if size and os.pread(self._file, 1, size - 1) != b"\n":
            self._write(b"\n")  # the torn last line of a killed run stays a line of its own

    def append(self, record):
        self._write((json.dumps(record, ensure_ascii=False) + "\n").encode("utf-8", "surrogateescape"))
        if time.monotonic() - self._synced >= SYNC_SECONDS:
            self._sync()

    def _write(self, data):
        while data:
            data = data[os.write(self._file, data):]

    def _sync(self):
        os.fsync(self._file)
        self._synced = time.monotonic()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self._sync()
        os.close(self._file)


def latest_records(path, warn):
    """The last record of each song in the manifest at `path`; a line that
    is no record (torn by a killed run, say) is left out and warn(text) told."""
    latest = {}
    with open(path, "rb") as lines:
        for number, line in enumerate(lines, 1):
            record = _parsed(line)
            if record is None and line.strip():
                warn("%s line %d is no record: left out" % (path, number))
            elif record:
                # Only what a summary needs: a catalog may have millions of songs.
                latest[record["input"]] = {key: record.get(key) for key in SUMMED}
    return list(latest.values())


def _parsed(line):
    try:
        record = json.loads(line.decode("utf-8", "surrogateescape"))
    except ValueError:
        return None
    valid = isinstance(record, dict) and isinstance(record.get("input"), str) and record.get("status") in STATUSES
    return record if valid else None
