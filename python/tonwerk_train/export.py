"""Writes a trained network as a model the library runs: opset 17, fixed
shapes, input "unified_input" (1, 4, 256, 2048) of packed planes, the six
boolean "<stem>_flag" inputs, the six "<stem>_output" spectra. A live
export (--live-frames N) takes N frames instead: the live library needs only
the frames the network's receptive field reaches around the ones it hands
out, and runs N/256 of the work; the offline processor needs 256.

Given several checkpoints, the model averages their networks' masks:
networks trained apart err in different places, so their average is better
than each (by 0.3 dB mean SDR on held-out songs for two), at the cost of
one network's time per member. --soften P writes each network's masks as
mask^P renormalised, at no cost at run time: below 1 the masks are softer,
which the networks trained here score better with."""
import json
import os
import sys

import numpy as np
import onnx
import torch
from torch import nn

from tonwerk_train.model import MaskAverage, ModelConfig, Separator, soften
from tonwerk_train.stems import FLAG_STEMS, STEMS
from tonwerk_train.stft import BINS, FFT_SIZE, HOP, SEGMENT_FRAMES, from_planes, istft, stft, to_planes

OPSET = 17


class ContractModel(nn.Module):
    """The network between the library's tensors: planes in, each stem's
    masked planes out, zeroed by its flag."""

    def __init__(self, network, frames=SEGMENT_FRAMES):
        super().__init__()
        self.network = network
        self.frames = frames

    def forward(self, unified_input, *flags):
        planes = unified_input.reshape(1, 2, 2, self.frames, BINS)  # (1, channel, re/im, T, F)
        masks = self.network.masks(planes.pow(2).sum(dim=2).sqrt())
        gate = dict(zip(FLAG_STEMS, flags))
        # One product per stem: the flag scales the mask, the mask both parts.
        return tuple((masks[:, index] * gate[stem].float()).unsqueeze(2).mul(planes).reshape(unified_input.shape)
                     for index, stem in enumerate(STEMS))


def load_network(checkpoint):
    """The network a checkpoint exports: its weights' moving average where it has one."""
    state = torch.load(checkpoint, map_location="cpu")
    network = Separator(ModelConfig.from_dict(state["config"]["model"]))
    network.load_state_dict(state.get("ema", state["model"]))
    return network.eval(), state


def load_networks(checkpoints):
    """(network, description) of one checkpoint, or of several as one
    network that averages their masks."""
    networks, descriptions = [], []
    for checkpoint in checkpoints:
        network, state = load_network(checkpoint)
        networks.append(network)
        descriptions.append("step %d, settings %s" % (state["step"], json.dumps(state["config"], sort_keys=True)))
    if len(networks) == 1:
        return networks[0], "Mask network trained by tonwerk_train: " + descriptions[0]
    return MaskAverage(networks), "Average of %d mask networks trained by tonwerk_train: %s" % (
        len(networks), "; ".join(descriptions))


def export(network, path, description="", frames=SEGMENT_FRAMES):
    """Writes the model beside `path` and renames it into place."""
    contract = ContractModel(network.eval(), frames)
    example = (torch.zeros(1, 4, frames, BINS),) + tuple(torch.ones(1, dtype=torch.bool) for _ in FLAG_STEMS)
    temp = path + ".tmp"
    with torch.no_grad():
        torch.onnx.export(contract, example, temp, opset_version=OPSET, do_constant_folding=True,
                          input_names=["unified_input"] + [s + "_flag" for s in FLAG_STEMS],
                          output_names=[s + "_output" for s in STEMS])
    model = onnx.load(temp)
    model.producer_name = "tonwerk_train"
    model.doc_string = description
    onnx.checker.check_model(model)
    onnx.save(model, temp)
    os.replace(temp, path)


def library_reference(network, audio):
    """What the library returns for `audio` (2, n) sent as one block with
    end of stream, computed in PyTorch: the stream padded by reflection at
    both ends, its frames at the end of an otherwise silent 256-frame
    spectrogram, one network run, overlap-add, padding cut. For streams
    shorter than one chunk (n < 257024), longer than one frame."""
    samples = audio.shape[-1]
    if not FFT_SIZE < samples < 257024:
        raise ValueError("the reference covers one chunk: 4096 < samples < 257024, not %d" % samples)
    end_pad = (-samples) % HOP + FFT_SIZE
    reflected = min(samples - 1, end_pad)
    data = np.pad(audio, ((0, 0), (0, reflected)), mode="reflect")
    data = np.pad(data, ((0, 0), (0, end_pad - reflected)))
    data = np.pad(data, ((0, 0), (FFT_SIZE, 0)), mode="reflect")
    spectrum = stft(torch.from_numpy(data))
    frames = spectrum.shape[1]
    planes = torch.nn.functional.pad(to_planes(spectrum), (0, 0, SEGMENT_FRAMES - frames, 0))
    flags = tuple(torch.ones(1, dtype=torch.bool) for _ in FLAG_STEMS)
    with torch.no_grad():
        outputs = ContractModel(network.eval())(planes[None], *flags)
    stems = torch.stack([from_planes(out[0, :, -frames:]) for out in outputs])
    return istft(stems)[..., FFT_SIZE:FFT_SIZE + samples].numpy()


def add_arguments(parser):
    parser.add_argument("checkpoints", nargs="+", metavar="checkpoint",
                        help="a .pt file written by train (best.pt or checkpoint.pt); with several, the model "
                             "averages their networks' masks and takes as long as all of them together")
    parser.add_argument("output", help="the .onnx file to write")
    parser.add_argument("--live-frames", type=int, default=SEGMENT_FRAMES, metavar="N",
                        help="frames of spectrogram per run (default 256, what the processor takes); fewer makes "
                             "a model for the live library alone, e.g. 96")
    parser.add_argument("--soften", type=float, default=1.0, metavar="P",
                        help="each network's masks become mask^P, renormalised over the sources (default 1: as "
                             "trained); below 1 they are softer. Pick P by evaluating exports on validation songs")


def run(args):
    if not 8 <= args.live_frames <= SEGMENT_FRAMES:
        sys.stderr.write("export: --live-frames must be between 8 and %d, not %d\n" % (SEGMENT_FRAMES, args.live_frames))
        return 2
    if not args.soften > 0:
        sys.stderr.write("export: --soften must be above 0, not %g\n" % args.soften)
        return 2
    network, description = load_networks(args.checkpoints)
    if args.soften != 1:
        network, description = soften(network, args.soften), description + "; masks softened to mask^%g" % args.soften
    export(network, args.output, description, args.live_frames)
    print("export: wrote %s (%.1f MB)" % (args.output, os.path.getsize(args.output) / 1e6))
    return 0
