"""The manifest of a batch (JSON Lines, one record per song) and the
summary printed at its end."""
import json
import os

SUCCEEDED = ("separated", "skipped")


def song_record(song, status, reason=None, worker=None):
    """A song's record as it starts: what its worker learns fills it in."""
    return {"input": song.path, "status": status, "reason": reason, "outputs": {}, "seconds": None,
            "wall_seconds": None, "worker": worker}


def write_manifest(path, records):
    """Whole or not at all: written beside, then renamed into place."""
    folder = os.path.dirname(os.path.abspath(path))
    os.makedirs(folder, exist_ok=True)
    part = os.path.join(folder, ".%s.part-%d" % (os.path.basename(path), os.getpid()))
    try:
        with open(part, "w", encoding="utf-8", errors="surrogateescape") as out:
            for record in records:
                out.write(json.dumps(record, ensure_ascii=False) + "\n")
        os.replace(part, path)
    except BaseException:
        if os.path.exists(part):
            os.remove(part)
        raise


def _clock(seconds):
    minutes, seconds = divmod(int(round(seconds)), 60)
    return "%d:%02d:%02d" % (minutes // 60, minutes % 60, seconds) if minutes >= 60 else "%d:%02d" % (minutes, seconds)


def counts(records):
    tally = {"separated": 0, "skipped": 0, "failed": 0, "cancelled": 0}
    for record in records:
        tally[record["status"]] += 1
    return tally


def summary(records, wall_seconds, manifest_path):
    tally = counts(records)
    audio = sum(record["seconds"] or 0 for record in records)
    rate = 60 * tally["separated"] / wall_seconds if wall_seconds > 0 else 0
    lines = ["%d songs: %d separated, %d skipped, %d failed%s in %s (%.1f songs/min, %s of audio)" % (
        len(records), tally["separated"], tally["skipped"], tally["failed"],
        ", %d cancelled" % tally["cancelled"] if tally["cancelled"] else "", _clock(wall_seconds), rate,
        _clock(audio))]
    lines += ["failed: %s: %s" % (record["input"], record["reason"]) for record in records
              if record["status"] == "failed"]
    lines.append("manifest: " + manifest_path)
    return "\n".join(lines) + "\n"
