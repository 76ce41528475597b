"""What a server stopped in the middle of a song may leave: the song's stems
under tonwerk-separate's temporary names, .NAME.part-TAG beside each stem
file NAME, TAG being the one its worker gave that server. Only this song's
names with that tag are looked for, in the song's own stem folders: the
output tree is never walked, and files of other songs and other servers
stay, also those of a server on another machine with the same process id."""
import glob
import os
import re

# Every file a song can have: the model's six stems, the residual and the mix.
STEM_FILES = ("vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass", "residual", "mix")
# tonwerk-separate's names when it serves, unless --name says otherwise.
DEFAULT_NAME = "{input}/{stem}"


def name_pattern(arguments):
    """--name comes first among the options passed on, so the first such
    word is the option itself, never another option's value."""
    return arguments[arguments.index("--name") + 1] if "--name" in arguments else DEFAULT_NAME


def _substitute(pattern, input_name, stem):
    """In one pass, as tonwerk-separate does: an input named "a {stem}"
    stays "a {stem}"."""
    return re.sub(r"\{input\}|\{stem\}", lambda m: input_name if m.group() == "{input}" else stem, pattern)


def leftovers(song, pattern, tag):
    input_name = os.path.splitext(os.path.basename(song.path))[0]
    found = set()
    for stem in STEM_FILES:
        final = os.path.normpath(os.path.join(song.outdir, _substitute(pattern, input_name, stem)))
        folder, name = os.path.split(final)
        hidden = os.path.join(glob.escape(folder), "." + glob.escape(name))
        # The format's extension follows the name unless --name ends in one.
        for suffix in (".part-" + glob.escape(tag), ".*.part-" + glob.escape(tag)):
            found.update(glob.glob(hidden + suffix))
    return found


def remove_leftovers(song, pattern, tag):
    for path in leftovers(song, pattern, tag):
        try:
            os.remove(path)
        except OSError:  # gone already, or not ours to remove after all
            pass
