"""The network: compressed magnitudes of a spectrum to a share of each bin for Speech, Music and Rest.

Per window and channel:

    features   (|X|^2 + FLOOR)^EXPONENT of bins 1 to 256, less a mean and by a scale per bin; with those of
               the two windows before as three input channels
    encoder    three convolutions over the bins, which leave 64, 32 and 16 bands of them
    middle     two gated recurrent layers between two dense layers: what it recalls is of all bands
    decoder    three convolutions over the bands, each adds the encoder's output of its size to its input;
               their outputs are interleaved to 32, 64 and 256
    blocks     where there are 32 bands, in the encoder and in the decoder: a recurrent layer along time in each
               band, which adds to its input; all bands share its weights, only a bias per band tells them apart
    shares     softmax over the three classes per bin, so that Speech, Music and Rest sum to the input

The layer of a block holds, for each unit, h = z * (h before) + (1 - z) * c, with z and c from its input alone: a
product of matrices for all windows at once, and little to do one after another. Channels are independent: they take
the place of a batch.
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
WIDTHS = (24, 32, 48)  # channels of the encoder's outputs
STRIDES = (4, 2, 2)
KERNELS = (8, 3, 3)
HIDDEN = 128
LAYERS = 2
BANDS, WIDTH = 32, WIDTHS[1]   # where the blocks are
UNITS = 64             # of a block
BLOCKS = 2
SLOWEST = 60.0         # windows that a block remembers for at first: from one up to this


def features(spectra):
    """Complex [..., bin] to [..., 256]; bin 0 has none, it has the shares of bin 1."""
    power = spectra.real ** 2 + spectra.imag ** 2
    return (power[..., 1:] + FLOOR) ** EXPONENT


class Recurrence(torch.autograd.Function):
    """h[t] = z[t] * h[t - 1] + (1 - z[t]) * c[t] over the first dimension, from `state`; z is the sigmoid of the first
    half of the features of `x`, c what is positive in the second."""

    @staticmethod
    def forward(ctx, x, state):
        z, c = (part.contiguous() for part in x.chunk(2, dim=-1))
        z.sigmoid_()
        c.clamp_min_(0.0)
        held = torch.empty(len(x) + 1, *state.shape)
        held[0] = state
        steps = held.unbind(0)
        for before, after, gate, value in zip(steps, steps[1:], z.unbind(0), c.unbind(0)):
            torch.lerp(value, before, gate, out=after)
        ctx.save_for_backward(z, c, held)
        return held[1:]

    @staticmethod
    def backward(ctx, gradient):
        z, c, held = ctx.saved_tensors
        total = gradient.clone(memory_format=torch.contiguous_format)
        steps, gates = total.unbind(0), z.unbind(0)
        for i in range(len(z) - 1, 0, -1):
            steps[i - 1].addcmul_(gates[i], steps[i])
        result = torch.empty(*z.shape[:-1], 2 * z.shape[-1])
        to_z, to_c = result.chunk(2, dim=-1)
        torch.mul(total, 1.0 - z, out=to_c)                    # before the limit of c
        torch.mul((held[:-1] - c).mul_(z), to_c, out=to_z)
        to_c.mul_(c > 0.0)
        return result, None


class Block(nn.Module):
    """`x` [time * batch, WIDTH, BANDS] to the same; `state` is [batch * BANDS, UNITS]. At first it changes nothing."""

    def __init__(self):
        super().__init__()
        self.norm = nn.LayerNorm(WIDTH)
        self.place = nn.Parameter(torch.zeros(BANDS, WIDTH))
        self.inner, self.outer = nn.Linear(WIDTH, 2 * UNITS), nn.Linear(UNITS, WIDTH)
        nn.init.zeros_(self.outer.weight)
        nn.init.zeros_(self.outer.bias)
        with torch.no_grad():
            self.inner.bias[:UNITS] = math.log(SLOWEST) * torch.linspace(0.0, 1.0, UNITS)

    def forward(self, x, state):
        y = self.norm(x.transpose(1, 2)) + self.place
        y = Recurrence.apply(self.inner(y).reshape(-1, len(state), 2 * UNITS), state)
        return x + self.outer(y).reshape(-1, BANDS, WIDTH).transpose(1, 2), y[-1]


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
        self.memory = nn.GRU(HIDDEN, HIDDEN, LAYERS)
        self.widen = nn.Linear(HIDDEN, flat)
        self.blocks = nn.ModuleList(Block() for _ in range(BLOCKS))

    def forward(self, spectra):
        """Complex [batch, time, bin] to the same of the classes, [batch, class, time, bin]."""
        return self.proceed(spectra, self.empty(len(spectra)))[0]

    @staticmethod
    def empty(batch):
        """The states before a stream: past features, what the recurrent layers hold, and what each block holds; one
        mixture after another in memory."""
        return [torch.zeros(batch, CONTEXT, BINS - 1), torch.zeros(batch, LAYERS, HIDDEN),
                *(torch.zeros(batch * BANDS, UNITS) for _ in range(BLOCKS))]

    def proceed(self, spectra, states):
        """The classes, and the states after them."""
        batch, time, _ = spectra.shape
        x = torch.cat([states[0], (features(spectra) - self.mean) * self.scale], dim=1)
        past, x = x[:, time:], x.transpose(0, 1)
        x = torch.stack([x[i:i + time] for i in range(CONTEXT + 1)], dim=2).flatten(0, 1)
        first = functional.relu(self.encoder[0](x))
        second, before = self.blocks[0](functional.relu(self.encoder[1](first)), states[2])
        third = functional.relu(self.encoder[2](second))
        hidden = functional.relu(self.narrow(third.flatten(1)))
        recalled, held = self.memory(hidden.reshape(time, batch, HIDDEN), states[1].transpose(0, 1).contiguous())
        x = functional.relu(self.widen(hidden + recalled.flatten(0, 1))).reshape(third.shape)
        x, behind = self.blocks[1](functional.relu(interleave(self.decoder[0](x + third), STRIDES[2])), states[3])
        x = functional.relu(interleave(self.decoder[1](x + second), STRIDES[1]))
        shares = torch.softmax(interleave(self.decoder[2](x + first), STRIDES[0]), dim=1)[:, :len(CLASSES)]
        shares = torch.cat([shares[..., :1], shares], dim=-1).reshape(time, batch, len(CLASSES), BINS)
        states = [past, held.transpose(0, 1).contiguous(), before, behind]
        return shares.permute(1, 2, 0, 3) * spectra[:, None], states


def interleave(x, count):
    """[row, count * channel, band] to [row, channel, band * count]."""
    rows, channels, bands = x.shape
    return x.reshape(rows, count, channels // count, bands).permute(0, 2, 3, 1).flatten(2)
