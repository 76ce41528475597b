"""A one-line progress bar for a terminal; silent anywhere else."""
import time


class ProgressBar:
    def __init__(self, total, stream, enabled):
        self.total, self.stream, self.enabled = total, stream, enabled and total > 0
        self.done = self.failed = 0
        self.started = time.monotonic()
        self._draw()

    def advance(self, record):
        self.done += 1
        self.failed += record["status"] == "failed"
        self._draw()

    def _draw(self):
        if not self.enabled:
            return
        elapsed = time.monotonic() - self.started
        left = "~%ds left" % (elapsed / self.done * (self.total - self.done)) if self.done else "starting"
        filled = 30 * self.done // self.total
        self.stream.write("\r[%s%s] %d/%d songs, %d failed, %ds elapsed, %s \x1b[K" % (
            "#" * filled, "." * (30 - filled), self.done, self.total, self.failed, elapsed, left))
        self.stream.flush()

    def close(self):
        if self.enabled:
            self.stream.write("\n")
            self.stream.flush()
