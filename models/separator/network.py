"""The network: compressed magnitudes of a spectrum to a share of each bin for Speech, Music and Rest.

Per window and channel:

    features   (|X|^2 + FLOOR)^EXPONENT of bins 1 to 256, less a mean and by a scale per bin; with those of
               the two windows before as three input channels
    encoder    three convolutions over the bins, which leave 64, 32 and 16 of them
    middle     two gated recurrent layers between two dense layers: the only memory but for the features
    decoder    three convolutions over the bins, each adds the encoder's output of its size to its input;
               their outputs are interleaved to 32, 64 and 256 bins
    shares     softmax over the three classes per bin, so that Speech, Music and Rest sum to the input

Channels are independent: they take the place of a batch.
"""

import math

import torch
from torch import nn
from torch.nn import functional

SAMPLE_RATE = 16000
WINDOW = 512
HOP = WINDOW // 2
BINS = WINDOW // 2 + 1
CLASSES = ("Speech", "Music")

CONTEXT = 2            # windows of the past in the features
FLOOR = 1e-5           # power that counts as silence; a full-scale tone has some 2e4
EXPONENT = 0.15        # of the power
WIDTHS = (24, 32, 48)   # channels of the encoder's outputs
STRIDES = (4, 2, 2)
KERNELS = (8, 3, 3)
HIDDEN = 128
LAYERS = 2


def features(spectra):
    """Complex [batch, time, bin] to [batch, time, 256]; bin 0 has none, it has the shares of bin 1."""
    power = spectra.real ** 2 + spectra.imag ** 2
    return (power[..., 1:] + FLOOR) ** EXPONENT


class Separator(nn.Module):
    def __init__(self):
        super().__init__()
        self.register_buffer("mean", torch.zeros(BINS - 1))
        self.register_buffer("scale", torch.ones(BINS - 1))
        inputs = (CONTEXT + 1,) + WIDTHS[:-1]
        self.encoder = nn.ModuleList(
            nn.Conv1d(inputs[i], WIDTHS[i], kernel, stride=stride, padding=(kernel - stride + 1) // 2)
            for i, (kernel, stride) in enumerate(zip(KERNELS, STRIDES)))
        outputs = (len(CLASSES) + 1,) + WIDTHS[:-1]
        self.decoder = nn.ModuleList(
            nn.Conv1d(WIDTHS[i], STRIDES[i] * outputs[i], 3, padding=1) for i in reversed(range(len(WIDTHS))))
        flat = WIDTHS[-1] * (BINS - 1) // math.prod(STRIDES)
        self.narrow = nn.Linear(flat, HIDDEN)
        self.memory = nn.GRU(HIDDEN, HIDDEN, LAYERS, batch_first=True)
        self.widen = nn.Linear(HIDDEN, flat)

    def forward(self, spectra):
        """Complex [batch, time, bin] to shares [batch, class, time, bin]; the last class is Rest."""
        return self.proceed(spectra, None)[0]

    def proceed(self, spectra, state):
        """The shares, and what the recurrent layers hold after them, [LAYERS, batch, HIDDEN]; they begin with
        `state`, or with zeros without one."""
        batch, time, _ = spectra.shape
        x = (features(spectra) - self.mean) * self.scale
        padded = functional.pad(x, (0, 0, CONTEXT, 0))
        x = torch.stack([padded[:, i:i + time] for i in range(CONTEXT + 1)], dim=2)
        x = x.reshape(batch * time, CONTEXT + 1, -1)
        levels = []
        for layer in self.encoder:
            x = functional.relu(layer(x))
            levels.append(x)
        hidden = functional.relu(self.narrow(x.reshape(batch, time, -1)))
        recalled, state = self.memory(hidden, state)
        hidden = hidden + recalled
        x = functional.relu(self.widen(hidden)).reshape(x.shape)
        for layer, level, stride in zip(self.decoder, reversed(levels), reversed(STRIDES)):
            if layer is not self.decoder[0]:
                x = functional.relu(x)
            x = layer(x + level)
            count, width, bins = x.shape
            x = x.reshape(count, stride, width // stride, bins).permute(0, 2, 3, 1).flatten(2)
        shares = torch.softmax(x, dim=1)
        shares = torch.cat([shares[..., :1], shares], dim=-1)
        return shares.reshape(batch, time, len(CLASSES) + 1, BINS).transpose(1, 2), state
