"""tonwerk-separate end to end: real files in, the real library and runtime, the
generated test models (identity: vocals = input, the other five silent)."""
import os
import re

import numpy as np
import pytest
import soundfile

from conftest import model_path, read, run_tool, write_tones

IDENTITY = model_path("identity")


def separate(*args):
    return run_tool("tonwerk-separate", *args)


def identity(folder, name, out, *extra):
    """folder/name separated through the identity model into folder/out."""
    return separate(folder / name, "-o", folder / out, "--model", "identity", *extra)  # found by name


def summary_row(text, stem):
    return next(line.split() for line in text.splitlines() if line.startswith(stem + " "))


# The library logs to standard output and the runtime to standard error;
# neither may reach the summary, and standard error holds only the tool's lines.
def test_identity_stems_are_scored_and_the_summaries_stay_clean(tmp_path):
    song = write_tones(tmp_path / "song.wav", 44100, 2, 2.0, 220.0, "FLOAT")
    audio, _ = read(song)
    (tmp_path / "refs").mkdir()
    write_tones(tmp_path / "refs" / "Vocals.WAV", 44100, 2, 2.0, 220.0, "FLOAT", "WAV")
    write_tones(tmp_path / "refs" / "drum.wav", 44100, 2, 2.0, 220.0, "FLOAT")  # drum is silent: SDR exactly 0 dB
    run = identity(tmp_path, "song.wav", "out", "--stems-out", "vocals,drum,piano,residual,mix",
                   "--reference-dir", tmp_path / "refs", "--json", tmp_path / "run.json")
    assert run.returncode == 0, run.stderr
    names = ["drum", "mix", "piano", "residual", "vocals"]
    assert sorted(os.listdir(tmp_path / "out")) == [f"song.{n}.wav" for n in names]  # and no temporary files
    stems = {n: read(tmp_path / "out" / f"song.{n}.wav") for n in names}
    for samples, info in stems.values():
        assert (info.format, info.subtype, samples.shape) == ("WAV", "FLOAT", audio.shape)
    assert np.abs(stems["vocals"][0] - audio).max() <= 1e-6
    assert not stems["drum"][0].any() and not stems["piano"][0].any()
    assert np.abs(stems["mix"][0] + stems["residual"][0] - audio).max() <= 1e-6

    out = run.stdout.splitlines()
    assert len(out) == 8, run.stdout
    assert out[0] == f"{song}: 0:02.0, 44100 Hz, stereo -> {tmp_path / 'out'} (32-bit float WAV)"
    assert out[7].startswith("wall time ")
    assert float(summary_row(run.stdout, "vocals")[3]) > 100.0
    assert summary_row(run.stdout, "drum") == ["drum", "silent", "0.000", "0.00"]
    assert summary_row(run.stdout, "piano")[-1] == "-"
    assert all(line.startswith("tonwerk-separate: separating on ") for line in run.stderr.splitlines())

    text = (tmp_path / "run.json").read_text()
    assert ('"drum":{"file":"%s","rms_dbfs":null,"peak":0.000000,"clipped_samples":0,"sdr_db":0.0000}'
            % (tmp_path / "out" / "song.drum.wav")) in text
    assert '"sample_rate":44100,"channels":2,' in text and '],"audio_seconds":2.0000,"wall_seconds":' in text
    # Quiet prints nothing at all; JSON on standard output replaces the table.
    quiet = identity(tmp_path, "song.wav", "out", "--overwrite", "--quiet")
    assert (quiet.returncode, quiet.stdout + quiet.stderr) == (0, "")
    to_stdout = identity(tmp_path, "song.wav", "out", "--overwrite", "--json", "-")
    assert to_stdout.stdout.startswith('{"tool":"tonwerk-separate","version":"') and to_stdout.stdout.count("\n") == 1


# Rate, channels and resolution follow the input unless --format or the name's
# extension say otherwise. Two rate conversions and one more 16-bit rounding
# stay within two steps of 2^-15; 24-bit and float within 1e-5; lossy: length only.
@pytest.mark.parametrize("rate, channels, kind, subtype, extra, file, out_kind, out_subtype, tolerance", [
    (22050, 1, "WAV", "PCM_16", [], "take.vocals.wav", "WAV", "PCM_16", 6.2e-5),
    (48000, 2, "WAV", "PCM_24", ["--format", "float", "--block", "1000"], "take.vocals.wav", "WAV", "FLOAT", 1e-5),
    (44100, 2, "FLAC", "PCM_16", [], "take.vocals.flac", "FLAC", "PCM_16", 6.2e-5),
    (44100, 2, "OGG", "VORBIS", [], "take.vocals.flac", "FLAC", "PCM_24", 1e-5),
    (44100, 2, "WAV", "FLOAT", ["--format", "pcm24", "--name", "{stem}/{input}.FLAC"], "vocals/take.FLAC", "FLAC",
     "PCM_24", 1e-5),
    (32000, 1, "WAV", "FLOAT", ["--name", "{input}-{stem}.mp3"], "take-vocals.mp3", "MP3", "MPEG_LAYER_III", None),
    (44100, 2, "WAV", "FLOAT", ["--format", "ogg"], "take.vocals.ogg", "OGG", "VORBIS", None),
])
def test_stem_formats_follow_the_input_the_format_option_and_the_extension(
        tmp_path, rate, channels, kind, subtype, extra, file, out_kind, out_subtype, tolerance):
    name = "take." + kind.lower()
    audio, _ = read(write_tones(tmp_path / name, rate, channels, 1.5, 180.0 * channels, subtype, kind))
    run = identity(tmp_path, name, "out", *extra, "--stems-out", "vocals", "--quiet")
    assert run.returncode == 0, run.stderr
    assert len(os.listdir(tmp_path / "out")) == 1
    vocals, info = read(tmp_path / "out" / file)
    assert (info.format, info.subtype, info.samplerate, vocals.shape) == (out_kind, out_subtype, rate, audio.shape)
    assert tolerance is None or np.abs(vocals - audio).max() <= tolerance


# Integer stems are rounded to the nearest step: the identity model returns
# k + f steps within 1e-3 of a step, so f = ±0.3 rounds to k and f = ±0.7 to
# k ± 1. TPDF dither stays within 1.5 steps and averages out.
@pytest.mark.parametrize("dither", [False, True])
def test_integer_stems_round_to_nearest_and_dither_on_request(tmp_path, dither):
    i = np.arange(2 * 44100)
    k, f = np.round(2000.0 * np.sin(i * 0.01)), np.array([0.3, 0.7, -0.3, -0.7])[(i // 7) % 4]
    steps = ((k + f) / 32768.0).astype(np.float32)
    soundfile.write(str(tmp_path / "steps.wav"), steps.reshape(-1, 2), 44100, subtype="FLOAT")
    run = identity(tmp_path, "steps.wav", "out", "--format", "pcm16", "--stems-out", "vocals",
                   *(["--dither"] if dither else []))
    assert run.returncode == 0, run.stderr
    vocals = read(tmp_path / "out" / "steps.vocals.wav")[0].reshape(-1).astype(np.float64) * 32768.0
    error = vocals - steps.astype(np.float64) * 32768.0
    exact = np.count_nonzero(vocals == k + np.round(f))
    assert exact == len(i) if not dither else exact < len(i) * 3 // 4
    assert np.abs(error).max() <= (1.5 if dither else 0.7)
    assert abs(error.mean()) <= 0.01


# Folders and files in one run, one output folder per input; existing stems
# are refused, skipped or replaced as asked.
def test_batch_runs_refuse_skip_or_replace_existing_stems(tmp_path):
    album, out = tmp_path / "album", tmp_path / "out"
    album.mkdir()
    write_tones(album / "a.wav", 44100, 2, 0.6, 300.0, "PCM_16")
    write_tones(album / "b.flac", 48000, 1, 0.4, 200.0, "PCM_24")
    (album / "cover.jpg").write_text("not audio")
    write_tones(tmp_path / "c.wav", 22050, 2, 0.3, 500.0, "FLOAT")
    args = [album, tmp_path / "c.wav", "-o", out, "--model", IDENTITY, "--stems-out", "vocals,mix", "--json", "-"]

    assert separate(*args).returncode == 0
    assert sorted(os.listdir(out)) == ["a", "b", "c"] and sorted(os.listdir(out / "b")) == ["mix.flac", "vocals.flac"]
    b, info = read(out / "b" / "vocals.flac")
    assert (info.format, info.subtype) == ("FLAC", "PCM_24")
    assert np.abs(b - read(album / "b.flac")[0]).max() <= 1e-5
    assert read(out / "c" / "mix.wav")[1].samplerate == 22050

    written = os.stat(out / "a" / "mix.wav").st_mtime_ns
    refused = separate(*args)
    assert refused.returncode == 3
    assert refused.stderr == (f"tonwerk-separate: {out / 'a' / 'vocals.wav'} exists (and 1 more); use --overwrite "
                              "to replace or --skip-existing to keep existing stems\n")
    os.remove(out / "c" / "mix.wav")
    skipped = separate(*args, "--skip-existing")
    assert skipped.returncode == 0, skipped.stderr
    assert len(skipped.stderr.splitlines()) == 3  # two skips, the provider line
    assert '{"input":"%s","skipped":true}' % (album / "b.flac") in skipped.stdout
    assert '{"input":"%s","skipped":false,' % (tmp_path / "c.wav") in skipped.stdout
    assert (out / "c" / "mix.wav").exists() and os.stat(out / "a" / "mix.wav").st_mtime_ns == written
    assert separate(*args, "--overwrite").returncode == 0
    assert os.stat(out / "a" / "mix.wav").st_mtime_ns != written

    # Two inputs of one name would write the same files.
    write_tones(tmp_path / "a.wav", 44100, 2, 0.3, 300.0, "PCM_16")
    clash = separate(album, tmp_path / "a.wav", "-o", tmp_path / "new")
    assert clash.returncode == 2 and "/new/a/vocals.wav would hold both the vocals stem of " in clash.stderr
    assert not (tmp_path / "new").exists()


# A model that answers nothing for audible input fails the run instead of
# writing silent stems; the last line names the library's logged reason.
def test_a_failing_model_fails_the_run_and_unasked_stems_land_in_the_residual(tmp_path):
    song = write_tones(tmp_path / "in.wav", 44100, 2, 1.0, 440.0, "FLOAT")
    broken = separate(song, "-o", tmp_path / "out", "--model", model_path("broken_runtime_error"))
    assert (broken.returncode, broken.stdout) == (3, "")
    assert (f"tonwerk-separate: {song}: the model produced no output: every stem asked for is silent from 0:00.0 to "
            "0:01.0 where the input is not; the library's log says: [INFERENCE_onnx] Exception during inference: "
            ) in broken.stderr.splitlines()[-1]
    assert "\033[" not in broken.stderr  # the runtime's colours, not for a file
    assert not (tmp_path / "out").exists()

    # Drum and bass each return the input, so the mix is twice the input and the residual minus it.
    gated = tmp_path / "gated.bin"
    assert run_tool("tonwerk-model", "scramble", model_path("flag_gated"), gated, "--key", "k3y!").returncode == 0
    keyed = separate(song, "-o", tmp_path / "keyed", "--model", gated, "--key", "k3y!", "--stems", "drum,bass",
                     "--verbose")
    assert keyed.returncode == 0, keyed.stderr
    assert sorted(os.listdir(tmp_path / "keyed")) == ["in.bass.wav", "in.drum.wav", "in.mix.wav", "in.residual.wav"]
    assert np.abs(read(tmp_path / "keyed" / "in.residual.wav")[0] + read(song)[0]).max() <= 1e-6


@pytest.fixture
def failures(tmp_path):
    """Inputs for runs that must fail; the output folder new/out must never appear."""
    for name, rate, channels, seconds, subtype in (("good", 44100, 2, 0.5, "FLOAT"), ("hifi", 96000, 2, 0.2, "FLOAT"),
                                                   ("ultra", 700000, 1, 0.01, "FLOAT"), ("six", 44100, 6, 0.2, "PCM_16")):
        write_tones(tmp_path / (name + ".wav"), rate, channels, seconds, 440.0, subtype)
    (tmp_path / "taken" / "good.mix.wav").mkdir(parents=True)
    (tmp_path / "notes.wav").write_text("just some text, not audio\n")
    (tmp_path / "plain-file").write_text("x")
    for folder, channels, seconds in (("empty", 0, 0), ("short", 2, 0.4), ("mono", 1, 0.5)):
        (tmp_path / folder).mkdir()
        if channels:
            write_tones(tmp_path / folder / "bass.wav", 44100, channels, seconds, 440.0, "FLOAT")
    assert run_tool("tonwerk-model", "scramble", IDENTITY, tmp_path / "keyed.onnx", "--key", "right").returncode == 0
    return tmp_path


# Bad input exits with 3, usage errors with 2; either way one line, and not
# even the output folder it had to create is left behind. "{d}" is the scratch folder.
@pytest.mark.parametrize("args, status, text", [
    (["absent.wav", "-m"], 3, "absent.wav: no such file"),
    (["notes.wav", "-m"], 3, "not a readable audio file"),
    (["six.wav", "-m"], 3, "has 6 channels; only mono and stereo"),
    (["empty", "-m"], 3, "empty: the folder holds no audio files"),
    (["hifi.wav", "-o", "{o}", "--format", "mp3"], 3, "this libsndfile cannot write MP3 at 96000 Hz"),
    (["ultra.wav", "-o", "{o}", "--format", "flac"], 3, "this libsndfile cannot write 24-bit FLAC at 700000 Hz"),
    (["good.wav", "-o", "{o}", "--json", "{d}/plain-file/run.json"], 3,
     "cannot write the JSON summary {d}/plain-file/run.json: "),
    (["good.wav", "-o", "{d}/taken", "--overwrite"], 3, "good.mix.wav is a folder, not a stem file"),
    (["good.wav", "-o", "{o}", "--json", "{d}/good.wav"], 2, "--json {d}/good.wav is input {d}/good.wav"),
    (["good.wav", "-o", "{o}", "--name", "{stem}", "--reference-dir", "{o}", "--stems-out", "vocals"], 3,
     "reference folder {o}: no such folder"),
    (["good.wav", "-o", "{d}/mono", "--name", "{stem}", "--reference-dir", "{d}/mono", "--overwrite"], 2,
     "would hold both reference "),
    (["good.wav", "--stems", "vocals", "--stems-out", "drum,vocals"], 2,
     "--stems-out drum: the model is not asked for it (see --stems)"),
    (["good.wav", "-o", "{o}", "--reference-dir", "{d}/short"], 3,
     "short/bass.wav is 17640 frames long, the input 22050: SDR compares sample by sample"),
    (["good.wav", "-o", "{o}", "--reference-dir", "{d}/mono"], 3,
     "mono/bass.wav has 44100 Hz and 1 channel, the input has 44100 Hz and 2 channels"),
    (["good.wav", "-o", "{o}", "--model", model_path("broken_misnamed_output")], 3,
     "does not fit the model contract: output \"bass_output\" is missing; unexpected output \"bass_out\""),
    (["good.wav", "-o", "{o}", "--model", "{d}/keyed.onnx", "--key", "wrong"], 3, "not a readable ONNX model"),
    (["good.wav", "-o", "{o}", "--model", "{d}/nothing.onnx"], 3, "no such file"),
    (["good.wav", "-o", "{o}", "--model", "nothing"], 3, "models/nothing.onnx: no such file"),
    # Silent stems where the input is not: no reason logged (a failing model's is in the test above).
    (["good.wav", "-m", "--stems", "drum", "-q"], 3, "is not; the library logged no reason\n"),
    ([], 2, "no INPUT given"),
    (["good.wav", "--frobnicate"], 2, "unknown option '--frobnicate'"),
    (["good.wav", "--stems", "vocals,voice"], 2, "--stems: unknown stem 'voice'"),
    (["good.wav", "--stems-out", "mix,"], 2, "--stems-out: unknown stem ''"),
    (["good.wav", "--format", "aac"], 2, "--format must be wav, flac"),
    (["good.wav", "--format", "flac", "--name", "{stem}.wav"], 2, "--format flac does not match the extension .wav"),
    (["good.wav", "--format", "float", "--name", "{stem}.flac"], 2, "FLAC holds no float samples"),
    (["good.wav", "--format", "float", "--dither"], 2, "--dither applies to 16- and 24-bit output"),
    (["good.wav", "--name", "{input}"], 2, "--name must contain {stem}"),
    (["good.wav", "{d}/good.wav", "--name", "{stem}"], 2, "--name must contain {input} when there are several inputs"),
    (["good.wav", "--name", "../{stem}"], 2, "--name must stay inside OUTDIR"),
    (["good.wav", "--name", "{Stem}{stem}"], 2, "--name knows only {input} and {stem}, not '{Stem}{stem}'"),
    (["good.wav", "{d}/good.wav", "--reference-dir", "."], 2, "--reference-dir holds the parts of one song"),
    (["good.wav", "--quiet", "--verbose"], 2, "--quiet and --verbose exclude each other"),
    (["good.wav", "--overwrite", "--skip-existing"], 2, "--skip-existing and --overwrite exclude each other"),
    (["good.wav", "--block", "0"], 2, "--block needs a positive number of frames, not '0'"),
    (["good.wav", "-o"], 2, "-o needs a value"),
    (["good.wav", "--part-tag", "../x"], 2, "--part-tag takes up to 100 letters, digits, '.', '_' and '-', not '../x'"),
])
def test_failures_say_one_line_and_leave_nothing_behind(failures, args, status, text):
    fill = {"{d}": str(failures), "{o}": str(failures / "new" / "out")}

    def filled(arg):
        for key, value in fill.items():
            arg = arg.replace(key, value)
        return arg

    expanded = [str(failures / args[0])] + [filled(a) for a in args[1:]] if args else []
    if "-m" in expanded:
        at = expanded.index("-m")
        expanded[at:at + 1] = ["-o", fill["{o}"], "--model", IDENTITY]
    run = separate(*expanded)
    assert (run.returncode, run.stdout) == (status, ""), run.stderr
    assert len(run.stderr.splitlines()) == 1 and run.stderr.startswith("tonwerk-separate: "), run.stderr
    assert filled(text) in run.stderr
    assert not (failures / "new").exists()


def test_errors_known_only_once_the_outputs_are_open_and_the_version(failures):
    good, out = failures / "good.wav", failures / "new" / "out"
    too_large = separate(good, "-o", out, "--model", IDENTITY, "--block", "300000", "-q")
    assert too_large.returncode == 2
    assert too_large.stderr == "tonwerk-separate: --block may be at most 257024 frames (see --help)\n"
    assert not (failures / "new").exists()
    unwritable = separate(good, "-o", failures / "plain-file" / "out", "--model", IDENTITY)
    assert unwritable.returncode == 3
    assert unwritable.stderr == (f"tonwerk-separate: output folder {failures / 'plain-file' / 'out'}: "
                                 f"{failures / 'plain-file'} is not a folder\n")
    version = separate("--version").stdout
    assert re.fullmatch(r"tonwerk-separate %s \(libsndfile-%s, \S+\)\n" % (
        re.escape(os.environ.get("TONWERK_VERSION", r"\S+")), re.escape(soundfile.__libsndfile_version__)), version)
