"""The songs of a batch, from files, folders searched recursively and text
files listing paths, each with the folder its stems are named under."""
import os
from dataclasses import dataclass

# The extensions tonwerk-separate takes from a folder.
AUDIO_EXTENSIONS = frozenset((".wav", ".wave", ".flac", ".ogg", ".oga", ".opus", ".mp3", ".aif", ".aiff", ".aifc",
                              ".w64", ".rf64", ".caf", ".au", ".snd", ".m1a"))


@dataclass(frozen=True)
class Song:
    path: str
    # tonwerk-separate's -o for this song: OUTDIR, or for a song found in a
    # folder given as input, its subfolder's place below OUTDIR.
    outdir: str


def is_audio(path):
    return os.path.splitext(path)[1].lower() in AUDIO_EXTENSIONS


def _in_folder(folder, outdir):
    for root, folders, files in os.walk(folder):
        # Stems written into a folder given as input are no songs of it.
        folders[:] = sorted(name for name in folders if not name.startswith(".") and
                            os.path.realpath(os.path.join(root, name)) != os.path.realpath(outdir))
        place = os.path.normpath(os.path.join(outdir, os.path.relpath(root, folder)))
        for name in sorted(files):
            if is_audio(name) and not name.startswith("."):
                yield Song(os.path.join(root, name), place)


def _listed(list_file, outdir):
    """Paths one per line, relative ones to the list's folder; blank lines
    and lines starting with # are left out."""
    base = os.path.dirname(list_file)
    with open(list_file, encoding="utf-8", errors="surrogateescape") as lines:
        for line in lines:
            entry = line.rstrip("\r\n")
            if entry.strip() and not entry.lstrip().startswith("#"):
                yield from _expand(os.path.join(base, entry), outdir, lists=False)


def _expand(path, outdir, lists):
    if os.path.isdir(path):
        yield from _in_folder(path, outdir)
    elif lists and os.path.isfile(path) and not is_audio(path):
        yield from _listed(path, outdir)
    else:
        # Whatever it is, a song: a file that is missing or is no audio
        # fails on its own with tonwerk-separate's reason.
        yield Song(path, outdir)


def gather(inputs, outdir):
    """Returns (songs, refused): each file once, in the order given, and
    (song, reason) for songs whose stems would take another song's names.
    Paths are absolute, as the workers may run anywhere."""
    songs, refused, seen, names = [], [], set(), {}
    for given in inputs:
        for song in _expand(os.path.abspath(given), os.path.abspath(outdir), lists=True):
            real = os.path.realpath(song.path)
            if real in seen:
                continue
            seen.add(real)
            # Stem names come from OUTDIR and the file's name without extension.
            name = (song.outdir, os.path.splitext(os.path.basename(song.path))[0])
            if name in names:
                refused.append((song, "its stems would have the names of those of %s; separate it in a run "
                                      "with another -o" % names[name]))
                continue
            names[name] = song.path
            songs.append(song)
    return songs, refused
