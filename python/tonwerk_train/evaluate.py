"""SDR of a model run through the library, per stem, beside two yardsticks.

    python3 -m tonwerk_train evaluate MODEL SONGS_DIR [--json OUT.json] [--dataset KIND]
                                      [--live LOOKAHEAD [--update U]] [--where]

Every song's mixture (its stems plus its other sources) goes through the
`tonwerk` binding with all six stems asked for. Per stem the table shows the
mean over songs of the challenge SDR, 10 log10(sum s^2 / sum (s - est)^2)
over the whole song and both channels, for the model, for the trivial guess
(a sixth of the mixture as every stem) and for the ideal ratio mask: what
masking the library's frames reaches when it knows the sources. A stem
silent in a song counts in no mean of that song; for the model, its "leak"
is what the model still puts there, in dB relative to the mixture. A stem
the song's labels do not know counts nowhere.

With --live the songs go through the live engine instead, each from
silence, with its latency taken off: what live use costs in quality.

With --where a second table tells where each source's sound went: per true
source (the six stems and "other"), the share of it that each output (the
six stems and the residual) carries, mean over the songs where it sounds.
"""
import json

import numpy as np
import tonwerk
import torch

from tonwerk_train import stft as spectral
from tonwerk_train.datasets import READERS, load_song, read_dataset
from tonwerk_train.metrics import EPS, energy, sdr, sounds
from tonwerk_train.stems import STEMS

BLOCK_FRAMES = 256  # mask frames per step: bounds the memory on long songs
COLUMNS = ("model", "trivial", "ceiling", "leak")
OUTPUTS = STEMS + ("residual",)  # together they make up the mixture
SOURCE_NAMES = STEMS + ("other",)  # what a song is made of
WHERE_SAMPLES = 1 << 18  # samples per channel per piece of the --where sums


def _span(signal, start, stop):
    """signal[..., start:stop] of a tensor, zeros where the range runs past either end."""
    low, high = max(start, 0), min(stop, signal.shape[-1])
    return torch.nn.functional.pad(signal[..., low:high], (low - start, stop - high))


def ideal_ratio_mask(stems, other):
    """Each stem's estimate from the mask |S_s| / (sum_j |S_j| + |S_other|) on
    the mixture's spectrum, as long as the song. The song gets FFT_SIZE - HOP
    zeros in front so that every sample, the first included, lies under a full
    four frames; each block of frames takes the three before it along, so the
    samples kept come out as from one transform of the whole song."""
    sources = torch.from_numpy(np.concatenate([stems, other[None]]))
    lead, step, samples = spectral.FFT_SIZE - spectral.HOP, BLOCK_FRAMES * spectral.HOP, stems.shape[-1]
    estimates = np.zeros_like(stems)
    for start in range(0, samples, step):
        spectra = spectral.stft(_span(sources, start - lead, start + step + lead))
        magnitude = spectra.abs()
        mask = magnitude[:-1] / (magnitude.sum(0) + 1e-12)
        block = spectral.istft(mask * spectra.sum(0))[..., lead:lead + step]
        estimates[..., start:start + step] = block[..., :samples - start].numpy()
    return estimates


def score_song(separate, stems, other, known):
    """One song's ({column: value} per stem, None where the column does not
    apply; where_song's shares). `separate` maps a mixture (frames, 2) to the
    eight outputs."""
    mixture = stems.sum(0) + other
    outputs = separate(mixture.T)
    # Lists and broadcasts, not stacked copies: a long song's stems are large.
    estimates = {"model": [outputs[name].T for name in STEMS],
                 "trivial": np.broadcast_to(mixture / len(STEMS), stems.shape),
                 "ceiling": ideal_ratio_mask(stems, other)}
    rows = []
    for index in range(len(STEMS)):
        row = dict.fromkeys(COLUMNS)
        reference = stems[index]
        if not known[index]:
            pass  # nobody knows what this song's stem would be: no score at all
        elif not sounds(reference):
            model = estimates["model"][index]
            row["leak"] = 10 * np.log10((energy(model) + EPS) / (energy(mixture) + EPS))
        else:
            row.update({column: sdr(reference, estimates[column][index]) for column in COLUMNS[:3]})
        rows.append(row)
    return rows, where_song(outputs, stems, other, known)


def where_song(outputs, stems, other, known):
    """{source: {output: share}} for each true source that sounds: the
    weights of the least-squares fit of every output by the true sources, read
    per source. The outputs add up to the mixture, so a source's shares add up
    to one; sources that coincide split their share evenly (the fit of least
    norm)."""
    named = [(name, audio) for name, audio, labelled in zip(SOURCE_NAMES, [*stems, other], [*known, True])
             if labelled and sounds(audio)]
    if not named:
        return {}
    sources, targets = [audio for _, audio in named], [outputs[name].T for name in OUTPUTS]
    gram, cross = np.zeros((len(sources),) * 2), np.zeros((len(sources), len(targets)))

    def piece(signals, start):
        return np.stack([x[:, start:start + WHERE_SAMPLES].ravel() for x in signals]).astype(np.float64)

    # The products in pieces: a long song's sources in double precision would not fit.
    for start in range(0, sources[0].shape[-1], WHERE_SAMPLES):
        s = piece(sources, start)
        gram += s @ s.T
        cross += s @ piece(targets, start).T
    weights = np.linalg.pinv(gram) @ cross  # (sources, outputs)
    return {name: dict(zip(OUTPUTS, map(float, row))) for (name, _), row in zip(named, weights)}


def _mean(values):
    values = [value for value in values if value is not None]
    return float(np.mean(values)) if values else None


def evaluate(model, root, dataset="folder", live=None, update=4):
    """({stem: {column: mean over songs, "songs": songs scored, "absent":
    songs leaked into}, "mean": the means over stems that have a value},
    {source: {output: mean share, "songs": songs it sounds in}}). `live`: the
    lookahead of the live engine to use instead of the stream."""
    songs = read_dataset(dataset, root)
    if live is None:
        separate = tonwerk.Separator(model, stems=STEMS).separate
    else:
        with open(model, "rb") as file:
            data = file.read()
        separate = lambda audio: tonwerk.LiveSeparator(data, update, live, STEMS).separate(audio)
    per_song, shares = zip(*[score_song(separate, *load_song(song)) for song in songs])
    table = {}
    for index, stem in enumerate(STEMS):
        rows = [song[index] for song in per_song]
        table[stem] = {column: _mean(row[column] for row in rows) for column in COLUMNS}
        table[stem]["songs"] = sum(row["model"] is not None for row in rows)
        table[stem]["absent"] = sum(row["leak"] is not None for row in rows)
    table["mean"] = {column: _mean(table[stem][column] for stem in STEMS) for column in COLUMNS}
    table["mean"]["songs"] = len(songs)
    return table, _where(shares)


def _where(shares):
    where = {}
    for source in SOURCE_NAMES:
        rows = [song[source] for song in shares if source in song]
        if rows:
            where[source] = {output: _mean(row[output] for row in rows) for output in OUTPUTS}
            where[source]["songs"] = len(rows)
    return where


def format_table(table):
    cell = lambda value: "%9s" % "-" if value is None else "%9.2f" % value
    lines = ["%-16s" % "stem" + "".join("%9s" % name for name in COLUMNS + ("songs",))]
    for name, row in table.items():
        lines.append("%-16s" % name + "".join(cell(row[column]) for column in COLUMNS) + "%9d" % row["songs"])
    return "\n".join(lines)


def format_where(where):
    lines = ["%-16s" % "source -> output" + "".join("%7s" % name[:6] for name in OUTPUTS) + "%7s" % "songs"]
    for source, row in where.items():
        lines.append("%-16s" % source + "".join("%7.2f" % row[name] for name in OUTPUTS) + "%7d" % row["songs"])
    return "\n".join(lines)


def add_arguments(parser):
    parser.add_argument("model", help="ONNX model of the library's contract")
    parser.add_argument("songs", help="folder of songs")
    parser.add_argument("--json", help="also write the table here")
    parser.add_argument("--dataset", default="folder", choices=sorted(READERS),
                        help="layout of the songs folder")
    parser.add_argument("--live", type=int, metavar="LOOKAHEAD",
                        help="separate with the live engine and this lookahead (frames of 1024)")
    parser.add_argument("--update", type=int, default=4, help="with --live: hops per model run")
    parser.add_argument("--where", action="store_true",
                        help="also print where each source's sound went (the json always has it)")


def run(args):
    """Prints the table, its last row the means over stems; 0 is the exit status."""
    table, where = evaluate(args.model, args.songs, args.dataset, args.live, args.update)
    print(format_table(table))
    if args.where:
        print(format_where(where))
    if args.json:
        with open(args.json, "w") as file:
            json.dump({"model": str(args.model), "live": args.live, "update": args.update, "stems": table,
                       "where": where}, file, indent=2)
    return 0
