"""The separation network: band-split features, a stack of convolutional
blocks over (band, frame), and masks.

The mixture's spectrum is cut into bands (narrow in the bass, wide in the
treble); each band's log-magnitudes become one feature vector. Residual
blocks mix along frames (dilated, so a block sees seconds of context) and
along bands (neighbours, and every few blocks all bands at once, which is
where harmonics an octave apart meet; optionally also by attention, whose
weights depend on the music). Each band's vector is decoded into
per-bin, per-channel logits for the six stems plus "other"; a softmax over
those seven makes masks that sum to one, so the stems together never exceed
the mixture, and "other" lands in the library's residual.

The same code scales by ModelConfig: the default is sized for training on
a laptop CPU, a wider and deeper setting for a GPU.
"""
from dataclasses import asdict, dataclass

import torch
from torch import nn

from tonwerk_train.stft import BINS

SOURCES = 7  # the six stems, then everything else


@dataclass
class ModelConfig:
    channels: int = 24
    blocks: int = 6
    expansion: int = 2
    mix_bands_every: int = 2
    # every this many blocks, attention across the bands (0: none); its query and key width
    attend_every: int = 0
    attend_width: int = 16
    # (bin width, band count) from DC upward; together they cover the 2048 bins.
    bands: tuple = ((2, 32), (4, 32), (8, 32), (16, 32), (32, 34))

    def to_dict(self):
        return asdict(self)

    @classmethod
    def from_dict(cls, settings):
        """The inverse of to_dict, also after a round trip through JSON or a checkpoint (bands as lists)."""
        return cls(**{**settings, "bands": tuple(map(tuple, settings["bands"]))})


PRESETS = {
    # The tests' network: it has every kind of layer, and grows into `cpu-attend`.
    "tiny": ModelConfig(channels=4, blocks=3, attend_every=3),
    "cpu": ModelConfig(),
    # Twice the blocks with twice the MLP, or twice the channels: a trained `cpu` network grows into either (see grow).
    "cpu-deep": ModelConfig(blocks=12, expansion=4),
    "cpu-wide": ModelConfig(channels=48),
    # Attention across the bands after every third block: a trained `cpu` network grows into it too.
    "cpu-attend": ModelConfig(attend_every=3),
    "gpu": ModelConfig(channels=96, blocks=12, expansion=4),
}


def band_count(config):
    return sum(count for _, count in config.bands)


class BandGroups(nn.Module):
    """Per-band linear maps, one weight per band, grouped by bin width so a
    group is one batched matrix product.

    encode: features (B, T, BINS, per_bin_in) -> (B, bands, T, per_bin_out);
    decode: (B, bands, T, per_bin_in) -> (B, per_bin_out, T, BINS), so the
    decoded logits come out in the layout of the spectra they mask."""

    def __init__(self, config, per_bin_in, per_bin_out, encode):
        super().__init__()
        self.config, self.encode = config, encode
        self.per_bin_in, self.per_bin_out = per_bin_in, per_bin_out
        self.weights = nn.ParameterList()
        self.biases = nn.ParameterList()
        for width, count in config.bands:
            fan_in = per_bin_in * width if encode else per_bin_in
            fan_out = per_bin_out if encode else per_bin_out * width
            self.weights.append(nn.Parameter(torch.randn(count, fan_in, fan_out) / fan_in ** 0.5))
            self.biases.append(nn.Parameter(torch.zeros(count, 1, fan_out)))
        if sum(w * c for w, c in config.bands) != BINS:
            raise ValueError("bands cover %d bins, not %d" % (sum(w * c for w, c in config.bands), BINS))

    def forward(self, x):
        outputs, start_bin, start_band = [], 0, 0
        batch, frames = x.shape[0], x.shape[1] if self.encode else x.shape[2]
        for (width, count), weight, bias in zip(self.config.bands, self.weights, self.biases):
            if self.encode:
                part = x[:, :, start_bin:start_bin + width * count, :]
                part = part.reshape(batch, frames, count, width * self.per_bin_in).transpose(1, 2)
                outputs.append(torch.matmul(part, weight) + bias)
            else:
                out = torch.matmul(x[:, start_band:start_band + count], weight) + bias  # (B, count, T, out * width)
                out = out.reshape(batch, count, frames, self.per_bin_out, width).permute(0, 3, 2, 1, 4)
                outputs.append(out.reshape(batch, self.per_bin_out, frames, count * width))
            start_bin, start_band = start_bin + width * count, start_band + count
        return torch.cat(outputs, dim=1 if self.encode else 3)


class TimeConv(nn.Module):
    """Depthwise 3 bands x 3 frames, dilated in time, on (B, bands, T, C).

    Differentiating a dilated depthwise convolution is slow on CPUs, so
    training folds the dilation into the batch (frame t = q*d + r goes to
    sequence r, position q) and runs an undilated one; the exported graph
    keeps the plain dilated convolution. Both compute the same."""

    def __init__(self, channels, dilation):
        super().__init__()
        self.dilation = dilation
        self.conv = nn.Conv2d(channels, channels, (3, 3), padding=(1, dilation), dilation=(1, dilation),
                              groups=channels)

    def forward(self, x):
        d = self.dilation
        batch, bands, frames, channels = x.shape
        if torch.onnx.is_in_onnx_export() or d == 1 or frames % d:
            return self.conv(x.permute(0, 3, 1, 2)).permute(0, 2, 3, 1)
        folded = x.reshape(batch, bands, frames // d, d, channels).permute(0, 3, 1, 2, 4)
        folded = folded.reshape(batch * d, bands, frames // d, channels).permute(0, 3, 1, 2)
        y = nn.functional.conv2d(folded, self.conv.weight, self.conv.bias, padding=1, groups=channels)
        y = y.permute(0, 2, 3, 1).reshape(batch, d, bands, frames // d, channels)
        return y.permute(0, 2, 3, 1, 4).reshape(batch, bands, frames, channels)


def pointwise(layer, x):
    """A linear layer over the channels of (B, bands, T, C), run as a 1x1
    convolution: on channels-last data that is faster than a matrix product."""
    out = nn.functional.conv2d(x.permute(0, 3, 1, 2), layer.weight[:, :, None, None], layer.bias)
    return out.permute(0, 2, 3, 1)


def zero_layer(layer):
    nn.init.zeros_(layer.weight)
    nn.init.zeros_(layer.bias)


class Block(nn.Module):
    """Depthwise (3 bands x 3 frames, dilated in time), then a pointwise MLP;
    optionally a linear mix across all bands. Residual, pre-normalised per
    position so nothing depends on the segment's length. Works on
    channels-last (B, bands, T, C)."""

    def __init__(self, config, dilation, mix_bands):
        super().__init__()
        c = config.channels
        self.norm = nn.LayerNorm(c)
        self.time = TimeConv(c, dilation)
        self.expand = nn.Linear(c, c * config.expansion)
        self.contract = nn.Linear(c * config.expansion, c)
        self.band_mix = nn.Linear(band_count(config), band_count(config)) if mix_bands else None
        if self.band_mix is not None:
            zero_layer(self.band_mix)

    def residual_outputs(self):
        """The layers that write into the residual path: zero, they make the block an identity."""
        return [layer for layer in (self.contract, self.band_mix) if layer is not None]

    def forward(self, x):
        y = self.time(self.norm(x))
        x = x + pointwise(self.contract, nn.functional.gelu(pointwise(self.expand, y)))
        if self.band_mix is not None:
            # One matrix product over the band axis for the whole batch.
            batch, bands, frames, channels = x.shape
            mixed = self.band_mix.weight @ x.transpose(0, 1).reshape(bands, -1) + self.band_mix.bias[:, None]
            x = x + mixed.reshape(bands, batch, frames, channels).transpose(0, 1)
        return x


class BandAttention(nn.Module):
    """Attention across the bands of each frame, residual: a band takes from
    the bands its content points to (the harmonics of its notes, the body of
    the hit it starts), where a band mix's fixed weights cannot depend on the
    music. Each band has a learnt position in the queries and keys, since
    the bands' spacing makes harmonic relations differ from band to band.
    The output layer starts at zero, so the layer starts as an identity.
    Works on channels-last (B, bands, T, C)."""

    def __init__(self, config):
        super().__init__()
        c, width = config.channels, config.attend_width
        self.norm = nn.LayerNorm(c)
        self.query_key = nn.Linear(c, 2 * width)
        self.position = nn.Parameter(torch.randn(band_count(config), 2 * width) * 0.5)
        self.value = nn.Linear(c, c)
        self.out = nn.Linear(c, c)
        zero_layer(self.out)

    def residual_outputs(self):
        return [self.out]

    def forward(self, x):
        y = self.norm(x).transpose(1, 2)  # (B, T, bands, C)
        query, key = (nn.functional.linear(y, self.query_key.weight, self.query_key.bias) + self.position).chunk(2, -1)
        weights = torch.softmax(query @ key.transpose(-1, -2) / query.shape[-1] ** 0.5, dim=-1)
        taken = weights @ nn.functional.linear(y, self.value.weight, self.value.bias)
        return x + nn.functional.linear(taken, self.out.weight, self.out.bias).transpose(1, 2)


def source_softmax(logits):
    """Softmax over the sources (axis 1). The exported graph spells it out:
    the runtime's Softmax on an inner axis transposes the whole tensor
    twice and took more than half of a model call."""
    if not torch.onnx.is_in_onnx_export():
        return torch.softmax(logits, dim=1)
    weights = torch.exp(logits - logits.max(dim=1, keepdim=True).values)
    return weights / weights.sum(dim=1, keepdim=True)


class Separator(nn.Module):
    def __init__(self, config=None):
        super().__init__()
        self.config = config or ModelConfig()
        c = self.config.channels
        self.encoder = BandGroups(self.config, 2, c, encode=True)
        self.blocks = nn.ModuleList(
            Block(self.config, dilation=2 ** (i % 5), mix_bands=(i + 1) % self.config.mix_bands_every == 0)
            for i in range(self.config.blocks))
        every = self.config.attend_every
        self.attend = nn.ModuleDict({str(i): BandAttention(self.config) for i in range(self.config.blocks)
                                     if every and (i + 1) % every == 0})
        self.out_norm = nn.LayerNorm(c)
        self.decoder = BandGroups(self.config, c, SOURCES * 2, encode=False)

    def masks(self, magnitude):
        """|mixture| (B, 2, T, BINS) -> masks (B, 7, 2, T, BINS) summing to 1
        over the sources. The level is normalised away: the same music
        louder gets the same masks."""
        scale = magnitude.pow(2).mean(dim=(1, 2, 3), keepdim=True).sqrt() + 1e-5
        features = torch.log(magnitude / scale + 1e-3).permute(0, 2, 3, 1)  # (B, T, BINS, 2)
        x = self.encoder(features)  # (B, bands, T, C)
        for i, block in enumerate(self.blocks):
            x = block(x)
            if str(i) in self.attend:
                x = self.attend[str(i)](x)
        logits = self.decoder(self.out_norm(x))  # (B, 14, T, BINS)
        return source_softmax(logits.reshape(logits.shape[0], SOURCES, 2, *logits.shape[2:]))

    def forward(self, mixture):
        """complex (B, 2, T, BINS) -> complex estimates (B, 7, 2, T, BINS)."""
        return self.masks(mixture.abs()) * mixture.unsqueeze(1)


class MaskAverage(nn.Module):
    """Networks side by side, their masks averaged: networks trained apart
    err in different places. Each network's masks sum to one over the
    sources, so the average does too."""

    def __init__(self, networks):
        super().__init__()
        self.networks = nn.ModuleList(networks)

    def masks(self, magnitude):
        return sum(network.masks(magnitude) for network in self.networks) / len(self.networks)


def soften(network, power):
    """Makes each network's masks mask^power, renormalised over the sources,
    by scaling its logits (the decoder's output) by `power`: free at run
    time. Below 1 it softens them. Networks trained here are too sure of
    themselves on sounds they have not heard, and even on their own
    validation songs; softened masks leave a stem more of what it was
    unsure of, and score better (see models/README.md)."""
    members = network.networks if isinstance(network, MaskAverage) else [network]
    with torch.no_grad():
        for member in members:
            for parameter in (*member.decoder.weights, *member.decoder.biases):
                parameter.mul_(power)
    return network


def channel_axes(name):
    """(axes that carry a layer's output channels, axes that carry its input
    channels) of the parameter `name`; block MLP units count as channels."""
    if name.startswith("encoder."):
        return (2,), ()
    if name.startswith("decoder.weights"):
        return (), (1,)
    if name.startswith("decoder.biases") or ".band_mix." in name or name.endswith(("query_key.bias", "position")):
        return (), ()
    if name.endswith("query_key.weight"):
        return (), (1,)
    if name.endswith(("expand.weight", "contract.weight", "value.weight", "out.weight")):
        return (0,), (1,)
    return (0,), ()  # norms, depthwise convolutions, biases


def widen(weights, factor, generator):
    """The same function with `factor` times the channels: every channel
    (and block MLP unit) is copied, and each layer reading the copies gets its
    original weight split among them in random shares. The sum is unchanged,
    so the output is; the unequal shares give the copies unequal gradients,
    so training drives them apart."""
    wide = {}
    for name, value in weights.items():
        outputs, inputs = channel_axes(name)
        for axis in outputs:
            value = torch.cat([value] * factor, dim=axis)
        for axis in inputs:
            shares = 0.5 + torch.rand((factor,) + value.shape, generator=generator)
            value = torch.cat(list(value * shares / shares.sum(0)), dim=axis)
        wide[name] = value
    return wide


def grow(network, config, weights):
    """Loads the weights of a smaller network of this family (`config`) into
    `network` so that it computes exactly what the smaller one did, and
    training carries on from there instead of from scratch. Channels may grow
    by a whole factor (see widen), blocks may be added and block MLPs widened;
    the added blocks and attention layers start as identities (their output
    layers zero) and the added MLP units feed nothing yet. Bands must match,
    and attention the network had stays where it was."""
    mine = network.config
    factor, remainder = divmod(mine.channels, config.channels)
    if remainder or mine.bands != config.bands or mine.mix_bands_every != config.mix_bands_every or \
            mine.blocks < config.blocks or mine.expansion < config.expansion or \
            config.attend_every and (mine.attend_every, mine.attend_width) != (config.attend_every, config.attend_width):
        raise ValueError("a %s network cannot grow into a %s one: only channels (by a whole factor), blocks, "
                         "expansion and attention (where it had none) may grow" % (config.to_dict(), mine.to_dict()))
    if factor > 1:
        weights = widen(weights, factor, torch.Generator().manual_seed(0))
    with torch.no_grad():
        for module in network.modules():
            for layer in getattr(module, "residual_outputs", list)():
                zero_layer(layer)
        for name, value in network.state_dict().items():
            if name in weights:
                value[tuple(slice(0, size) for size in weights[name].shape)] = weights[name]
    return network
