"""python3 -m tonwerk.batch INPUT... -o OUTDIR [--workers N | --scheduler ADDRESS] [options]
python3 -m tonwerk.batch --report MANIFEST"""
import argparse
import contextlib
import logging
import os
import subprocess
import sys
import time

from tonwerk.batch.limits import REAL_TIME_FACTOR, STARTUP_SECONDS
from tonwerk.batch.manifest import Manifest, latest_records, song_record
from tonwerk.batch.progress import ProgressBar
from tonwerk.batch.songs import gather
from tonwerk.batch.summary import Tally

DESCRIPTION = """\
Separates every INPUT into stems on a Dask cluster, one task per song. An INPUT is an audio file, a
folder (searched recursively for audio files; their subfolders are kept below OUTDIR) or a text file
listing one path per line. Stems are named and written as tonwerk-separate writes them (default
OUTDIR/{input}/{stem}.<ext>); a song's stems appear together under their final names or not at all.
Songs whose stems all exist are skipped, so a rerun resumes where a run stopped. A song over its time
limit fails; one whose tonwerk-separate died or answered out of turn is retried once. Every song's
record is appended to the manifest (JSON Lines) as it finishes; --report summarises a manifest.
Exit status: 0 every song separated or skipped, 1 some failed, 2 usage error, 130 interrupted."""

# Options passed on to tonwerk-separate as they are: (flag, takes a value).
SEPARATE_OPTIONS = (("--name", True), ("--model", True), ("--key", True), ("--stems", True),
                    ("--stems-out", True), ("--format", True), ("--block", True), ("--dither", False),
                    ("--overwrite", False))


def parse(argv):
    parser = argparse.ArgumentParser(prog="python3 -m tonwerk.batch", description=DESCRIPTION,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("inputs", nargs="*", metavar="INPUT")
    parser.add_argument("-o", dest="outdir", metavar="OUTDIR")
    parser.add_argument("--report", metavar="MANIFEST",
                        help="print the summary of MANIFEST (the last record of each song) and exit")
    where = parser.add_mutually_exclusive_group()
    # ONNX Runtime spreads one song over all cores: more processes on one
    # machine only contend for them.
    where.add_argument("--workers", type=int, default=1, metavar="N",
                       help="worker processes of a cluster on this machine (default: 1, using all its cores)")
    where.add_argument("--scheduler", metavar="ADDRESS", help="use the running Dask scheduler at ADDRESS")
    parser.add_argument("--manifest", metavar="FILE", help="default: OUTDIR/tonwerk-batch.jsonl")
    parser.add_argument("--timeout", type=float, metavar="SECONDS",
                        help="time limit per song (default: %d s + %d x the song's length)" % (
                            STARTUP_SECONDS, REAL_TIME_FACTOR))
    parser.add_argument("--program", metavar="PATH",
                        help="tonwerk-separate on the workers (default: found there, see README)")
    for flag, valued in SEPARATE_OPTIONS:
        parser.add_argument(flag, **({"metavar": flag[2:].upper()} if valued else {"action": "store_true"}),
                            help="as in tonwerk-separate" + ("" if flag != "--overwrite" else
                                                              " (default: skip songs whose stems exist)"))
    options = parser.parse_args(argv)
    if options.report and (options.inputs or options.outdir):
        parser.error("--report takes no INPUT or -o")
    if not options.report and not (options.inputs and options.outdir):
        parser.error("give INPUT... and -o OUTDIR, or --report MANIFEST")
    if options.scheduler is None and options.workers < 1:
        parser.error("--workers needs at least 1")
    if options.timeout is not None and not options.timeout > 0:
        parser.error("--timeout needs a number of seconds above 0")
    return options


def separate_arguments(options):
    arguments = []
    for flag, valued in SEPARATE_OPTIONS:
        value = getattr(options, flag[2:].replace("-", "_"))
        if valued and value is not None:
            arguments += [flag, value]
        elif value is True:
            arguments.append(flag)
    return tuple(arguments if options.overwrite else arguments + ["--skip-existing"])


def check_arguments(program, arguments):
    """Mistakes in the options fail here, once, rather than in every song;
    where tonwerk-separate is not on this machine the workers find them."""
    from tonwerk.batch.server import find_program
    try:
        found = find_program(program)
    except FileNotFoundError:
        return None
    checked = subprocess.run([found, "--serve", *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE)
    return checked.stderr.decode(errors="replace").strip() if checked.returncode != 0 else None


@contextlib.contextmanager
def connect(options):
    """The client; a cluster of this machine's is closed with it, however
    the run ends."""
    from distributed import Client, LocalCluster
    if options.scheduler:
        with Client(options.scheduler) as client:
            yield client
        return
    with LocalCluster(n_workers=options.workers, threads_per_worker=1, processes=True, dashboard_address=None,
                      silence_logs=logging.ERROR) as cluster, Client(cluster) as client:
        yield client


def separate_all(options, songs, refused, manifest, tally):
    """Records every song in the manifest and the tally, also when the run
    is cut short; returns the exit status."""
    from tonwerk.batch.run import run_songs
    progress = ProgressBar(len(songs) + len(refused), sys.stderr, sys.stderr.isatty())
    done = set()

    def keep(record):
        manifest.append(record)
        tally.add(record)
        done.add(record["input"])

    def finished(record):
        keep(record)
        progress.advance(record)

    for song, reason in refused:
        finished(song_record(song, "failed", reason))
    stopped = None
    try:
        with connect(options) as client:
            run_songs(client, songs, options.program, separate_arguments(options), options.timeout, finished)
    except KeyboardInterrupt:
        stopped = (130, "the run was interrupted")
    except Exception as error:  # the cluster went away, say: keep what is done
        stopped = (1, "the run stopped: %s: %s" % (type(error).__name__, error))
    finally:
        progress.close()
    if stopped:
        for song in songs:
            if song.path not in done:
                keep(song_record(song, "cancelled", stopped[1]))
        print("tonwerk.batch: " + stopped[1], file=sys.stderr)
        return stopped[0]
    return 0 if tally.succeeded() else 1


def report(path):
    try:
        records = latest_records(path, lambda text: print("tonwerk.batch: " + text, file=sys.stderr))
    except OSError as error:
        print("tonwerk.batch: cannot read %s: %s" % (path, error.strerror or error), file=sys.stderr)
        return 2
    tally = Tally()
    for record in records:
        tally.add(record)
    sys.stdout.write(tally.text(path))
    return 0 if tally.succeeded() else 1


def main(argv=None):
    started = time.monotonic()
    options = parse(argv)
    if options.report:
        return report(options.report)
    # Dask's own notes (stale worker folders, restarts) would break the
    # progress bar; its errors still show. The worker processes read this too.
    os.environ.setdefault("DASK_LOGGING__DISTRIBUTED", "error")
    problem = check_arguments(options.program, separate_arguments(options))
    if problem:
        print(problem, file=sys.stderr)
        return 2
    songs, refused = gather(options.inputs, options.outdir)
    if not songs and not refused:
        print("tonwerk.batch: no audio files in " + " ".join(options.inputs), file=sys.stderr)
        return 2
    path = options.manifest or os.path.join(options.outdir, "tonwerk-batch.jsonl")
    try:
        manifest = Manifest(path)
    except OSError as error:
        print("tonwerk.batch: cannot write the manifest %s: %s" % (path, error.strerror or error), file=sys.stderr)
        return 2
    tally = Tally()
    with manifest:
        status = separate_all(options, songs, refused, manifest, tally)
    sys.stdout.write(tally.text(path, time.monotonic() - started))
    return status


if __name__ == "__main__":
    sys.exit(main())
