"""The library's short-time Fourier transform, in numpy and torch.

Frames of 4096 samples every 1024, a periodic Blackman window computed in
single precision, an unscaled forward transform, bins 0..2047 (the Nyquist
bin is dropped). The model tensor packs channel c's real parts in plane 2c and
its imaginary parts in plane 2c + 1. Synthesis is the least-squares
overlap-add: window the inverse transform, add, divide by the summed squared
window.
"""
import numpy as np
import torch

FFT_SIZE = 4096
HOP = 1024
BINS = FFT_SIZE // 2
SEGMENT_FRAMES = 256


def blackman(length=FFT_SIZE):
    """The periodic Blackman window as the library computes it (float32 steps)."""
    step = np.float32(2.0 * np.pi / float(np.float32(length)))
    n = np.arange(length, dtype=np.float32)
    first = np.cos(n * step, dtype=np.float32)
    second = np.cos(n * np.float32(step + step), dtype=np.float32)
    return (np.float32(0.42) - np.float32(0.5) * first) + np.float32(0.08) * second


def stft(audio):
    """audio (..., samples) float tensor -> complex (..., frames, BINS); frame
    t covers samples [t*HOP, t*HOP + FFT_SIZE)."""
    window = torch.from_numpy(blackman()).to(audio.device)
    frames = audio.unfold(-1, FFT_SIZE, HOP) * window
    return torch.fft.rfft(frames, dim=-1)[..., :BINS]


def overlap_add(pieces):
    """(..., frames, FFT_SIZE) -> (..., (frames - 1) * HOP + FFT_SIZE): each
    frame added at its hop, a quarter frame at a time."""
    frames, quarters = pieces.shape[-2], FFT_SIZE // HOP
    out = pieces.new_zeros(*pieces.shape[:-2], frames + quarters - 1, HOP)
    for q in range(quarters):
        out[..., q:q + frames, :] += pieces[..., q * HOP:(q + 1) * HOP]
    return out.flatten(-2)


def istft(spectrum):
    """complex (..., frames, BINS) -> (..., (frames - 1) * HOP + FFT_SIZE)
    by the least-squares overlap-add; samples covered by fewer than the full
    four frames are normalised by what covered them."""
    window = torch.from_numpy(blackman()).to(spectrum.device)
    full = torch.nn.functional.pad(spectrum, (0, 1))
    folded = overlap_add(torch.fft.irfft(full, n=FFT_SIZE, dim=-1) * window)
    weight = overlap_add((window * window).expand(spectrum.shape[-2], FFT_SIZE))
    return folded / weight.clamp_min(1e-8)


def to_planes(spectrum):
    """complex (channels, frames, BINS) -> model planes (2*channels, frames, BINS)."""
    return torch.stack([spectrum.real, spectrum.imag], dim=1).reshape(-1, *spectrum.shape[-2:])


def from_planes(planes):
    """model planes (..., 2*channels, frames, BINS) -> complex (..., channels, frames, BINS)."""
    pairs = planes.reshape(*planes.shape[:-3], -1, 2, *planes.shape[-2:])
    return torch.complex(pairs[..., 0, :, :], pairs[..., 1, :, :])
