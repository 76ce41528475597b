"""python3 -m tonwerk.batch on a local cluster of two worker processes,
against one tonwerk-separate process on the same songs."""
import glob
import json
import os
import signal
import subprocess
import sys
import threading
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


def batch(*args):
    command = [sys.executable, "-m", "tonwerk.batch", "--workers", "2", *args]
    return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            start_new_session=True)


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


def manifest(outdir):
    with open(os.path.join(outdir, "tonwerk-batch.jsonl")) as lines:
        return {os.path.basename(record["input"]): record for record in map(json.loads, lines)}


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


def parts(folder):
    return glob.glob(os.path.join(folder, "**", ".*.part-*"), recursive=True)


def test_a_worker_killed_mid_song_leaves_no_partial_files_and_the_song_is_redone(tmp_path):
    songs = tmp_path / "songs"
    os.makedirs(songs)
    write_song(str(songs / "long.wav"), 150, seed=4)
    for i in range(3):
        write_song(str(songs / ("short%d.wav" % i)), 4, seed=5 + i)
    out = str(tmp_path / "batch")
    run = batch(str(songs), "-o", out)
    try:
        assert wait_for(lambda: parts(os.path.join(out, "long")), 120)
        server = int(parts(os.path.join(out, "long"))[0].rsplit("-", 1)[1])
        worker = state_and_parent(server)[1]
        assert worker > 1
        os.kill(worker, signal.SIGKILL)
        # Orphaned, the server abandons the song at once instead of finishing it.
        assert wait_for(lambda: state_and_parent(server)[0] in ("gone", "Z"), 5)
        code, log = finished(run)
    finally:
        stop(run)
    assert code == 0, log
    assert {r["status"] for r in manifest(out).values()} == {"separated"} and len(manifest(out)) == 4
    assert len(stem_files(out)) == 32
    assert not glob.glob(os.path.join(out, "**", ".*"), recursive=True)

    # A server killed itself (by the kernel's OOM killer, say): the song
    # fails with why, and its worker removes what the server left.
    from tonwerk.batch.server import separate_song
    from tonwerk.batch.songs import Song
    answer = []
    worker = threading.Thread(target=lambda: answer.append(separate_song(
        Song(str(songs / "long.wav"), out), SEPARATE, ("--overwrite",))))
    worker.start()
    assert wait_for(lambda: parts(os.path.join(out, "long")), 60)
    os.kill(int(parts(os.path.join(out, "long"))[0].rsplit("-", 1)[1]), signal.SIGKILL)
    worker.join()
    assert answer[0]["status"] == "failed" and "killed by SIGKILL" in answer[0]["reason"]
    assert not parts(out)
