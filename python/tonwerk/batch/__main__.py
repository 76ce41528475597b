"""python3 -m tonwerk.batch INPUT... -o OUTDIR [--workers N | --scheduler ADDRESS] [options]"""
import argparse
import logging
import os
import subprocess
import sys
import time

from tonwerk.batch.manifest import SUCCEEDED, song_record, summary, write_manifest
from tonwerk.batch.progress import ProgressBar
from tonwerk.batch.songs import gather

DESCRIPTION = """\
Separates every INPUT into stems on a Dask cluster, one task per song. An INPUT is an audio file, a
folder (searched recursively for audio files; their subfolders are kept below OUTDIR) or a text file
listing one path per line. Stems are named and written as tonwerk-separate writes them (default
OUTDIR/{input}/{stem}.<ext>); a song's stems appear together under their final names or not at all.
Songs whose stems all exist are skipped, so a rerun resumes where a run stopped. Every song gets a
record in the manifest (JSON Lines). Exit status: 0 every song separated or skipped, 1 some failed,
2 usage error, 130 interrupted."""

# Options passed on to tonwerk-separate as they are: (flag, takes a value).
SEPARATE_OPTIONS = (("--name", True), ("--model", True), ("--key", True), ("--stems", True),
                    ("--stems-out", True), ("--format", True), ("--block", True), ("--dither", False),
                    ("--overwrite", False))


def parse(argv):
    parser = argparse.ArgumentParser(prog="python3 -m tonwerk.batch", description=DESCRIPTION,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("inputs", nargs="+", metavar="INPUT")
    parser.add_argument("-o", dest="outdir", required=True, metavar="OUTDIR")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, default=os.cpu_count() or 1, metavar="N",
                       help="worker processes of a cluster on this machine (default: one per core)")
    where.add_argument("--scheduler", metavar="ADDRESS", help="use the running Dask scheduler at ADDRESS")
    parser.add_argument("--manifest", metavar="FILE", help="default: OUTDIR/tonwerk-batch.jsonl")
    parser.add_argument("--program", metavar="PATH",
                        help="tonwerk-separate on the workers (default: found there, see README)")
    for flag, valued in SEPARATE_OPTIONS:
        parser.add_argument(flag, **({"metavar": flag[2:].upper()} if valued else {"action": "store_true"}),
                            help="as in tonwerk-separate" + ("" if flag != "--overwrite" else
                                                              " (default: skip songs whose stems exist)"))
    options = parser.parse_args(argv)
    if options.scheduler is None and options.workers < 1:
        parser.error("--workers needs at least 1")
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


def connect(options):
    from distributed import Client, LocalCluster
    if options.scheduler:
        return Client(options.scheduler)
    cluster = LocalCluster(n_workers=options.workers, threads_per_worker=1, processes=True,
                           dashboard_address=None, silence_logs=logging.ERROR)
    return Client(cluster)


def separate_all(options, songs, refused, records):
    """Appends every song's record to `records`, also when the run is cut
    short; returns the exit status."""
    from tonwerk.batch.run import run_songs
    progress = ProgressBar(len(songs) + len(refused), sys.stderr, sys.stderr.isatty())

    def keep(record):
        records.append(record)
        progress.advance(record)

    for song, reason in refused:
        keep(song_record(song, "failed", reason))
    stopped = None
    try:
        with connect(options) as client:
            run_songs(client, songs, options.program, separate_arguments(options), keep)
    except KeyboardInterrupt:
        stopped = (130, "the run was interrupted")
    except Exception as error:  # the cluster went away, say: keep what is done
        stopped = (1, "the run stopped: %s: %s" % (type(error).__name__, error))
    finally:
        progress.close()
    if stopped:
        done = {record["input"] for record in records}
        records += [song_record(song, "cancelled", stopped[1]) for song in songs if song.path not in done]
        print("tonwerk.batch: " + stopped[1], file=sys.stderr)
        return stopped[0]
    return 0 if all(record["status"] in SUCCEEDED for record in records) else 1


def main(argv=None):
    started = time.monotonic()
    options = parse(argv)
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
    records = []
    status = separate_all(options, songs, refused, records)
    manifest = options.manifest or os.path.join(options.outdir, "tonwerk-batch.jsonl")
    write_manifest(manifest, records)
    sys.stdout.write(summary(records, time.monotonic() - started, manifest))
    return status


if __name__ == "__main__":
    sys.exit(main())
