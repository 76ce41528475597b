"""How long one song may take before it counts as hung: an allowance for
starting a server and loading its model, plus a multiple of the song's
length. The models run many times faster than real time even on two busy
cores, so a song over its limit is stuck, not slow."""
import math
import os
import stat

STARTUP_SECONDS = 60
REAL_TIME_FACTOR = 4
# The length assumed for a song whose length cannot be read.
UNKNOWN_SECONDS = 600


def time_limit(path, fixed=None):
    """`fixed` (--timeout) or the limit from the song's length, in seconds."""
    if fixed is not None:
        return fixed
    length = song_seconds(path)
    return math.ceil(STARTUP_SECONDS + REAL_TIME_FACTOR * (UNKNOWN_SECONDS if length is None else length))


def song_seconds(path):
    """The length as libsndfile (tonwerk-separate's reader) sees it, or None:
    without the soundfile package, or for a file that is missing, unreadable
    or not a regular file (opening a named pipe could wait forever)."""
    try:
        import soundfile
        if stat.S_ISREG(os.stat(path).st_mode):
            return soundfile.info(path).duration
    except (ImportError, OSError, RuntimeError):  # soundfile's errors are RuntimeErrors
        pass
    return None
