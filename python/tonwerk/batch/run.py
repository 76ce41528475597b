"""Submitting a batch's songs to a Dask cluster, a bounded number at a
time, and turning each finished task into its song's record."""
import itertools
import uuid

from distributed import as_completed

from tonwerk.batch.manifest import song_record
from tonwerk.batch.worker import separate_song

# Tasks in flight at once: enough to keep hundreds of workers busy, few
# enough that a catalog of a million songs never sits in the scheduler.
WINDOW = 2000


def _lost(song, future):
    """The record of a song whose task itself failed: the scheduler gave it
    up after its workers died under it (KilledWorker), or it was cancelled."""
    if future.status == "cancelled":
        return song_record(song, "cancelled", "its task was cancelled")
    error = future.exception()
    return song_record(song, "failed", "%s: %s" % (type(error).__name__, error))


def run_songs(client, songs, program, arguments, timeout, on_record, window=WINDOW):
    """Calls on_record(record) for every song as it finishes, in any order."""
    batch = uuid.uuid4().hex[:8]
    queue = iter(enumerate(songs))
    owners = {}

    def submit(index, song):
        future = client.submit(separate_song, song, program, arguments, timeout,
                               key="tonwerk-%s-%d" % (batch, index), pure=False)
        owners[future] = song
        return future

    finished = as_completed([submit(i, song) for i, song in itertools.islice(queue, window)])
    for future in finished:
        song = owners.pop(future)
        if future.status == "finished":
            on_record(future.result())
        else:
            on_record(_lost(song, future))
        future.release()
        following = next(queue, None)
        if following is not None:
            finished.add(submit(*following))
