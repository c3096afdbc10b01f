"""The network: spectra to filters that pull Speech and Music out of them; the rest stays in Rest.

Per channel, with F windows of the past (F = TAPS - 1):

    features   real part, imaginary part and magnitude of bins 1 to 256, all with the magnitude to the power
               of EXPONENT
    encoder    a convolution over TAPS windows and the bins, then one over the bins: 64 bands, then 32
    blocks     BLOCKS times: a recurrent layer up and down the bands of one window, then one along time in each
               band; each adds to its input. All bands share their weights: only a bias per band, added before
               the first block, tells them apart
    decoder    a convolution over the bands for each of the encoder's, which adds the encoder's output to its
               input and whose outputs are interleaved to 64 and 256 bins
    filters    TAPS complex factors per class and bin, each part from -LIMIT to LIMIT: the class is the sum over
               the last TAPS windows of factor times bin, so that it may differ from the mix in phase

Channels are independent: they take the place of a batch.
"""

import torch
from torch import nn
from torch.nn import functional

SAMPLE_RATE = 16000
WINDOW = 512
HOP = WINDOW // 2
BINS = WINDOW // 2 + 1
CLASSES = ("Speech", "Music")

TAPS = 3
LIMIT = 2.0
FLOOR = 1e-5           # power that counts as silence; a full-scale tone has some 2e4
EXPONENT = 0.3
FINE, BANDS = 64, 32   # bands after the first and the second convolution
NARROW, WIDTH = 24, 48   # their channels
ACROSS = 24            # units of the layers along the bands, each way
BLOCKS = 3


def features(spectra):
    """Complex [batch, time, bin] to [batch, 3, time, 256]; bin 0 has none, it has the filters of bin 1."""
    spectra = spectra[..., 1:]
    power = spectra.real ** 2 + spectra.imag ** 2 + FLOOR
    scale = power ** ((EXPONENT - 1.0) / 2.0)
    return torch.stack([spectra.real * scale, spectra.imag * scale, torch.sqrt(power) * scale], dim=1)


class Block(nn.Module):
    """`x` [band, time, batch, WIDTH] to the same; `state` is [1, band * batch, WIDTH]."""

    def __init__(self):
        super().__init__()
        self.norm_across, self.norm_along = nn.LayerNorm(WIDTH), nn.LayerNorm(WIDTH)
        self.across = nn.GRU(WIDTH, ACROSS, bidirectional=True)
        self.along = nn.GRU(WIDTH, WIDTH)
        self.out_across, self.out_along = nn.Linear(2 * ACROSS, WIDTH), nn.Linear(WIDTH, WIDTH)

    def forward(self, x, state):
        bands, time, batch, width = x.shape
        y, _ = self.across(self.norm_across(x).reshape(bands, time * batch, width))
        x = x + self.out_across(y).reshape(x.shape)
        y = self.norm_along(x).transpose(0, 1).reshape(time, bands * batch, width)
        y, state = self.along(y, state)
        return x + self.out_along(y).reshape(time, bands, batch, width).transpose(0, 1), state


class Separator(nn.Module):
    def __init__(self):
        super().__init__()
        self.first = nn.Conv2d(3, NARROW, (TAPS, 8), stride=(1, 4), padding=(0, 2))
        self.second = nn.Conv2d(NARROW, WIDTH, (1, 5), stride=(1, 2), padding=(0, 2))
        self.place = nn.Parameter(torch.zeros(BANDS, 1, 1, WIDTH))
        self.blocks = nn.ModuleList(Block() for _ in range(BLOCKS))
        self.widen = nn.Conv2d(WIDTH, 2 * NARROW, (1, 3), padding=(0, 1))
        self.filters = nn.Conv2d(NARROW, 4 * len(CLASSES) * TAPS * 2, (1, 3), padding=(0, 1))
        nn.init.normal_(self.place, std=0.1)

    def forward(self, spectra):
        """Complex [batch, time, bin] to the same of the classes, [batch, class, time, bin]."""
        return self.proceed(spectra, self.empty(len(spectra), spectra.device))[0]

    @staticmethod
    def empty(batch, device=None):
        """The states before a stream: past windows and what each block's layer along time holds."""
        return [torch.zeros(batch, TAPS - 1, BINS, dtype=torch.complex64, device=device),
                *(torch.zeros(1, BANDS * batch, WIDTH, device=device) for _ in range(BLOCKS))]

    def proceed(self, spectra, states):
        """The classes, and the states after them."""
        batch, time, _ = spectra.shape
        heard = torch.cat([states[0], spectra], dim=1)
        fine = functional.relu(self.first(features(heard)))
        coarse = functional.relu(self.second(fine))
        x, after = coarse.permute(3, 2, 0, 1) + self.place, [heard[:, time:]]
        for block, state in zip(self.blocks, states[1:]):
            x, state = block(x, state)
            after.append(state)
        x = interleave(self.widen(x.permute(2, 3, 1, 0) + coarse), 2)
        x = interleave(self.filters(functional.relu(x) + fine), 4)
        x = LIMIT * torch.tanh(torch.cat([x[..., :1], x], dim=-1))
        x = x.reshape(batch, TAPS, len(CLASSES), 2, time, BINS)
        factors = torch.complex(x[:, :, :, 0], x[:, :, :, 1])
        return sum(factors[:, i] * heard[:, None, i:i + time] for i in range(TAPS)), after


def interleave(x, count):
    """[batch, count * channel, time, band] to [batch, channel, time, band * count]."""
    batch, channels, time, bands = x.shape
    x = x.reshape(batch, count, channels // count, time, bands)
    return x.permute(0, 2, 3, 4, 1).flatten(3)
