"""python3 -m tonwerk.batch on a local cluster of two worker processes,
against one tonwerk-separate process on the same songs, and with a
stand-in server that misbehaves on cue (standin_server.py)."""
import glob
import json
import os
import shlex
import signal
import subprocess
import sys
import time

import numpy as np
import pytest
import soundfile as sf

SEPARATE = os.environ.get("TONWERK_SEPARATE")
pytestmark = pytest.mark.skipif(not SEPARATE, reason="needs TONWERK_SEPARATE (the build's tonwerk-separate)")


def write_song(path, seconds, rate=44100, channels=2, seed=0):
    t = np.arange(int(seconds * rate)) / rate
    tones = [0.3 * np.sin(2 * np.pi * (110 + 50 * seed + 70 * c) * t + c) for c in range(channels)]
    noise = 0.05 * np.random.default_rng(seed).standard_normal((t.size, channels))
    sf.write(path, np.stack(tones, axis=1) + noise, rate, subtype="PCM_16" if path.endswith("wav") else "PCM_24")


def batch(*args, **environment):
    command = [sys.executable, "-m", "tonwerk.batch", "--workers", "2", *args]
    return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            start_new_session=True, env=dict(os.environ, **environment))


def report(outdir):
    command = [sys.executable, "-m", "tonwerk.batch", "--report", os.path.join(outdir, "tonwerk-batch.jsonl")]
    return subprocess.run(command, capture_output=True, text=True)


def stop(process):
    """The run, its cluster and servers: none may outlive a failed test."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def finished(process):
    try:
        out, err = process.communicate(timeout=300)
    finally:
        stop(process)
    return process.returncode, out + err


def lines(outdir):
    try:
        with open(os.path.join(outdir, "tonwerk-batch.jsonl")) as manifest:
            return [line for line in manifest if line.endswith("\n")]
    except FileNotFoundError:
        return []


def manifest(outdir):
    """The last record of each song, by file name."""
    return {os.path.basename(record["input"]): record for record in map(json.loads, lines(outdir))}


def write_songs(folder, *names, seconds=2):
    os.makedirs(folder, exist_ok=True)
    for seed, name in enumerate(names):
        write_song(str(folder / name), seconds, seed=seed)


@pytest.fixture
def standin(tmp_path):
    program = tmp_path / "standin"
    program.write_text("#!/bin/sh\nexec %s %s \"$@\"\n" % (
        shlex.quote(sys.executable), shlex.quote(os.path.join(os.path.dirname(__file__), "standin_server.py"))))
    program.chmod(0o755)
    return str(program)


def stem_files(outdir):
    return {os.path.relpath(path, outdir): path for path in glob.glob(os.path.join(outdir, "**", "*.*"),
                                                                       recursive=True) if not path.endswith("jsonl")}


@pytest.fixture(scope="module")
def songs(tmp_path_factory):
    folder = tmp_path_factory.mktemp("songs")
    os.makedirs(folder / "album")
    write_song(str(folder / "one.wav"), 9, seed=1)
    write_song(str(folder / "album" / "two.flac"), 7, rate=48000, seed=2)
    write_song(str(folder / "album" / "three.wav"), 5, channels=1, seed=3)
    (folder / "album" / "broken.wav").write_bytes(b"RIFF\x10\x00\x00\x00WAVEfmt not really")
    return folder


def test_stems_equal_one_process_a_broken_song_fails_alone_and_a_rerun_does_no_work(songs, tmp_path):
    out = str(tmp_path / "batch")
    code, log = finished(batch(str(songs), "-o", out))
    assert code == 1, log
    records = manifest(out)
    assert records["broken.wav"]["status"] == "failed"
    assert "not a readable audio file" in records["broken.wav"]["reason"]
    assert {name: r["status"] for name, r in records.items() if name != "broken.wav"} == \
        dict.fromkeys(["one.wav", "two.flac", "three.wav"], "separated")
    assert "3 separated, 0 skipped, 1 failed" in log
    assert len({r["server_pid"] for r in records.values()}) <= 2, "one model load per worker process"

    reference = str(tmp_path / "reference")
    for song, place in (("one.wav", ""), ("album/two.flac", "album"), ("album/three.wav", "album")):
        subprocess.run([SEPARATE, "-q", str(songs / song), "-o", os.path.join(reference, place), "--name",
                        "{input}/{stem}"], check=True)
    expected, written = stem_files(reference), stem_files(out)
    assert sorted(written) == sorted(expected) and len(written) == 24
    for name, path in expected.items():
        with open(path, "rb") as a, open(written[name], "rb") as b:
            assert a.read() == b.read(), name

    before = {name: os.stat(path) for name, path in written.items()}
    code, log = finished(batch(str(songs), "-o", out))
    assert code == 1 and "0 separated, 3 skipped, 1 failed" in log, log
    assert {name: (s.st_ino, s.st_mtime_ns) for name, s in before.items()} == \
        {name: (os.stat(path).st_ino, os.stat(path).st_mtime_ns) for name, path in written.items()}


def state_and_parent(pid):
    try:
        with open("/proc/%d/stat" % pid) as stat:
            state, parent = stat.read().rsplit(")", 1)[1].split()[:2]
        return state, int(parent)
    except FileNotFoundError:
        return "gone", 0


def wait_for(condition, seconds):
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.01)
    return condition()


def server_writing(folder, seconds, not_pid=None):
    """(process id, tag) of the server writing a song's stems into `folder`,
    once its temporary files (.NAME.part-TAG) appear."""
    def servers():
        tags = {path.rsplit(".part-", 1)[1] for path in glob.glob(os.path.join(folder, ".*.part-*"))}
        return [(pid, tag) for tag in tags for pid in processes_with(tag) if pid != not_pid]
    assert wait_for(servers, seconds)
    return servers()[0]


def processes_with(word):
    """Process ids whose command line holds `word`."""
    found = []
    for entry in os.listdir("/proc"):
        try:
            with open("/proc/%s/cmdline" % entry, "rb") as cmdline:
                if os.fsencode(word) in cmdline.read().split(b"\0"):
                    found.append(int(entry))
        except (OSError, ValueError):
            pass
    return found


def test_a_killed_worker_or_server_leaves_no_partial_files_and_the_song_is_redone(tmp_path):
    songs = tmp_path / "songs"
    write_songs(songs, "short0.wav", "short1.wav", "short2.wav", seconds=4)
    write_song(str(songs / "long.wav"), 150, seed=4)
    out = str(tmp_path / "batch")
    run = batch(str(songs), "-o", out)
    try:
        server, _ = server_writing(os.path.join(out, "long"), 120)
        worker = state_and_parent(server)[1]
        assert worker > 1
        os.kill(worker, signal.SIGKILL)
        # Orphaned, the server abandons the song instead of finishing it: when
        # it goes, none of the song's stems is in place (a retry cannot have
        # separated all 150 s in the moment an orphan takes to stop).
        assert wait_for(lambda: state_and_parent(server)[0] in ("gone", "Z"), 240)
        assert not glob.glob(os.path.join(out, "long", "*.*"))
        # Another worker takes the song on. Its server killed by itself (the
        # kernel's OOM killer, say), the song is asked of a new one, and only
        # the song's own files are removed: not another machine's with the same process id.
        server, tag = server_writing(os.path.join(out, "long"), 120, not_pid=server)
        host, pid, _ = tag.rsplit("-", 2)
        elsewhere = os.path.join(out, "long", ".vocals.wav.part-%s-%s-%s" % (host + "2", pid, "0" * 8))
        open(elsewhere, "w").close()
        os.kill(server, signal.SIGKILL)
        code, log = finished(run)
    finally:
        stop(run)
    assert code == 0, log
    records = manifest(out)
    assert {r["status"] for r in records.values()} == {"separated"} and len(records) == 4
    assert "killed by SIGKILL" in records["long.wav"]["retried"]
    assert len(stem_files(out)) == 32
    assert glob.glob(os.path.join(out, "**", ".*"), recursive=True) == [elsewhere]


@pytest.mark.parametrize("stray", ['{"input": "/elsewhere/ghost.wav", "error": "an answer about another song"}',
                                   "a warning on standard output"])
def test_a_server_answering_out_of_turn_is_replaced_and_every_record_names_its_own_song(tmp_path, standin, stray):
    songs, out, cue = tmp_path / "songs", str(tmp_path / "batch"), str(tmp_path / "stray")
    write_songs(songs, "a.wav", "b.wav", "c.wav", "d.wav")
    os.mkdir(cue)
    code, log = finished(batch(str(songs), "-o", out, "--program", standin, STANDIN_STRAY=cue, STANDIN_LINE=stray))
    assert code == 0 and not os.path.exists(cue), log
    records = manifest(out)
    assert sorted(records) == ["a.wav", "b.wav", "c.wav", "d.wav"]
    for name, record in records.items():
        assert record["status"] == "separated"
        assert {os.path.dirname(f) for f in record["outputs"].values()} == {os.path.join(out, name[0])}
    assert [r["retried"][:25] for r in records.values() if r["retried"]] == ["tonwerk-separate answered"]


def test_a_song_over_its_time_limit_fails_alone_and_leaves_no_files(tmp_path, standin):
    songs, out = tmp_path / "songs", str(tmp_path / "batch")
    write_songs(songs, "hangs.wav", "a.wav", "b.wav", "c.wav")
    code, log = finished(batch(str(songs), "-o", out, "--program", standin, "--timeout", "45",
                               STANDIN_HANG="hangs.wav"))
    assert code == 1, log
    assert {name: (r["status"], r["reason"]) for name, r in manifest(out).items()} == {
        "hangs.wav": ("failed", "timed out after 45 s"), **dict.fromkeys(["a.wav", "b.wav", "c.wav"],
                                                                        ("separated", None))}
    assert not glob.glob(os.path.join(out, "**", ".*"), recursive=True)
    summary = report(out)
    assert summary.returncode == 1 and "failed: %s: timed out after 45 s" % (songs / "hangs.wav") in summary.stdout


def test_a_killed_driver_leaves_every_finished_songs_record_and_a_rerun_completes_the_rest(tmp_path, standin):
    songs, out = tmp_path / "songs", str(tmp_path / "batch")
    write_songs(songs, "a.wav", "b.wav", "c.wav", "d.wav")
    write_song(str(songs / "waits.wav"), 20)
    # waits.wav is never answered, so the run is still going when it is killed.
    run = batch(str(songs), "-o", out, "--program", standin, STANDIN_HANG="waits.wav")
    try:
        assert wait_for(lambda: len(lines(out)) >= 4, 120)
        os.kill(run.pid, signal.SIGKILL)
    finally:
        stop(run)
    assert {name: r["status"] for name, r in manifest(out).items()} == dict.fromkeys(
        ["a.wav", "b.wav", "c.wav", "d.wav"], "separated")
    with open(os.path.join(out, "tonwerk-batch.jsonl"), "a") as torn:  # killed while writing a record
        torn.write('{"input": "/somewhere/e.wav", "sta')

    code, log = finished(batch(str(songs), "-o", out))
    assert code == 0, log
    summary = report(out)
    assert summary.returncode == 0 and "5 songs: 1 separated, 4 skipped, 0 failed" in summary.stdout, summary
    assert "tonwerk-batch.jsonl line 5 is no record" in summary.stderr
