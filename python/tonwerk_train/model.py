"""The separation network: band-split features, a stack of convolutional
blocks over (band, frame), and masks.

The mixture's spectrum is cut into bands (narrow in the bass, wide in the
treble); each band's log-magnitudes become one feature vector. Residual
blocks mix along frames (dilated, so a block sees seconds of context) and
along bands (neighbours, and every few blocks all bands at once, which is
where harmonics an octave apart meet). Each band's vector is decoded into
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
    # (bin width, band count) from DC upward; together they cover the 2048 bins.
    bands: tuple = ((2, 32), (4, 32), (8, 32), (16, 32), (32, 34))

    def to_dict(self):
        return asdict(self)

    @classmethod
    def from_dict(cls, settings):
        """The inverse of to_dict, also after a round trip through JSON or a checkpoint (bands as lists)."""
        return cls(**{**settings, "bands": tuple(map(tuple, settings["bands"]))})


PRESETS = {
    "tiny": ModelConfig(channels=4, blocks=2),
    "cpu": ModelConfig(),
    "gpu": ModelConfig(channels=96, blocks=12, expansion=4),
}


def band_count(config):
    return sum(count for _, count in config.bands)


class BandGroups(nn.Module):
    """Per-band linear maps, one weight per band, grouped by bin width so a
    group is one batched matrix product."""

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
        """encode: (B, T, BINS, per_bin_in) -> (B, bands, T, per_bin_out);
        decode: (B, bands, T, per_bin_in) -> (B, T, BINS, per_bin_out)."""
        outputs, start_bin, start_band = [], 0, 0
        for (width, count), weight, bias in zip(self.config.bands, self.weights, self.biases):
            if self.encode:
                part = x[:, :, start_bin:start_bin + width * count, :]
                part = part.reshape(x.shape[0], x.shape[1], count, width * self.per_bin_in).transpose(1, 2)
                outputs.append(torch.matmul(part, weight) + bias)
            else:
                part = x[:, start_band:start_band + count]
                out = torch.matmul(part, weight) + bias  # (B, count, T, width * out)
                outputs.append(out.transpose(1, 2).reshape(x.shape[0], x.shape[2], width * count, self.per_bin_out))
            start_bin, start_band = start_bin + width * count, start_band + count
        return torch.cat(outputs, dim=1 if self.encode else 2)


class Block(nn.Module):
    """Depthwise (3 bands x 3 frames, dilated in time), then a pointwise MLP;
    optionally a linear mix across all bands. Residual, pre-normalised per
    position so nothing depends on the segment's length."""

    def __init__(self, config, dilation, mix_bands):
        super().__init__()
        c = config.channels
        self.norm = nn.LayerNorm(c)
        self.depthwise = nn.Conv2d(c, c, (3, 3), padding=(1, dilation), dilation=(1, dilation), groups=c)
        self.mlp = nn.Sequential(nn.Conv2d(c, c * config.expansion, 1), nn.GELU(),
                                 nn.Conv2d(c * config.expansion, c, 1))
        self.band_mix = nn.Linear(band_count(config), band_count(config)) if mix_bands else None
        if self.band_mix is not None:
            nn.init.zeros_(self.band_mix.weight)
            nn.init.zeros_(self.band_mix.bias)

    def forward(self, x):  # (B, C, bands, T)
        y = self.norm(x.permute(0, 2, 3, 1)).permute(0, 3, 1, 2)
        x = x + self.mlp(self.depthwise(y))
        if self.band_mix is not None:
            x = x + self.band_mix(x.transpose(2, 3)).transpose(2, 3)
        return x


class Separator(nn.Module):
    def __init__(self, config=None):
        super().__init__()
        self.config = config or ModelConfig()
        c = self.config.channels
        self.encoder = BandGroups(self.config, 2, c, encode=True)
        self.blocks = nn.ModuleList(
            Block(self.config, dilation=2 ** (i % 5), mix_bands=(i + 1) % self.config.mix_bands_every == 0)
            for i in range(self.config.blocks))
        self.out_norm = nn.LayerNorm(c)
        self.decoder = BandGroups(self.config, c, SOURCES * 2, encode=False)

    def masks(self, magnitude):
        """|mixture| (B, 2, T, BINS) -> masks (B, 7, 2, T, BINS) summing to 1
        over the sources. The level is normalised away: the same music
        louder gets the same masks."""
        scale = magnitude.pow(2).mean(dim=(1, 2, 3), keepdim=True).sqrt() + 1e-5
        features = torch.log(magnitude / scale + 1e-3).permute(0, 2, 3, 1)  # (B, T, BINS, 2)
        x = self.encoder(features).permute(0, 3, 1, 2)  # (B, C, bands, T)
        for block in self.blocks:
            x = block(x)
        x = self.out_norm(x.permute(0, 2, 3, 1))  # (B, bands, T, C)
        logits = self.decoder(x)  # (B, T, BINS, 14)
        logits = logits.reshape(*logits.shape[:3], SOURCES, 2).permute(0, 3, 4, 1, 2)
        return torch.softmax(logits, dim=1)

    def forward(self, mixture):
        """complex (B, 2, T, BINS) -> complex estimates (B, 7, 2, T, BINS)."""
        return self.masks(mixture.abs()) * mixture.unsqueeze(1)
