"""The summary of a batch: printed at the end of a run, and made from a
manifest by --report. Kept as a tally, not as the records themselves, as
a run may have millions of songs."""
from tonwerk.batch.manifest import STATUSES, SUCCEEDED


class Tally:
    def __init__(self):
        self.counts = dict.fromkeys(STATUSES, 0)
        self.failures = []  # (input, reason)
        self.audio_seconds = self.work_seconds = 0.0

    def add(self, record):
        self.counts[record["status"]] += 1
        if record["status"] == "failed":
            self.failures.append((record["input"], record["reason"]))
        self.audio_seconds += record["seconds"] or 0
        self.work_seconds += record["wall_seconds"] or 0

    def succeeded(self):
        return all(count == 0 for status, count in self.counts.items() if status not in SUCCEEDED)

    def text(self, manifest_path, wall_seconds=None):
        """With `wall_seconds`, a run's summary; without, the report of a
        manifest, which knows its songs' work but not how long runs took."""
        songs = sum(self.counts.values())
        head = "%d songs: %d separated, %d skipped, %d failed%s" % (
            songs, self.counts["separated"], self.counts["skipped"], self.counts["failed"],
            ", %d cancelled" % self.counts["cancelled"] if self.counts["cancelled"] else "")
        if wall_seconds is None:
            head += " (%s of audio, %s of work on the workers)" % (_clock(self.audio_seconds),
                                                                    _clock(self.work_seconds))
        else:
            rate = 60 * self.counts["separated"] / wall_seconds if wall_seconds > 0 else 0
            head += " in %s (%.1f songs/min, %s of audio)" % (_clock(wall_seconds), rate, _clock(self.audio_seconds))
        lines = [head] + ["failed: %s: %s" % failure for failure in self.failures]
        return "\n".join(lines + ["manifest: " + manifest_path]) + "\n"


def _clock(seconds):
    minutes, seconds = divmod(int(round(seconds)), 60)
    return "%d:%02d:%02d" % (minutes // 60, minutes % 60, seconds) if minutes >= 60 else "%d:%02d" % (minutes, seconds)
