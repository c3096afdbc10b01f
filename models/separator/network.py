"""The network: the last windows of a spectrum to a share and a complex filter of each bin for Speech and Music.

Per window and channel:

    features   of each of the bins 1 to 256: its compressed magnitude over the mean that magnitudes had lately, so that
               the level of a stream does not matter, and how its phase differs from the bin below; the magnitudes of
               some windows before, and how its phase went on since each of them
    bands      32, narrow where most of the power of voices and music is: each has a dense layer of its own, to WIDTH
               features. The lowest bands see more windows
    blocks     each adds to the features: a recurrent layer along time in each band, whose weights all bands share (a
               bias per band tells them apart), then dense layers over all bands, one for each of SQUEEZED features
    memory     between the blocks, a gated recurrent layer over all bands, between dense layers; adds likewise
    output     in each band two dense layers of its own, which see the band's features, too, of the windows that the
               filter is over; then for each bin a softmax over the three classes, so that the shares of Speech, Music
               and Rest sum to the input; and for Speech and Music a filter, whose part is added: complex factors of the
               bin and, where bands are narrow, of the same bin in windows before. They change the phase, and over
               several windows can tell two tones in one bin apart

The recurrent layer of a block holds, for each unit, h = z * (h before) + (1 - z) * c, and lets h * g * sigmoid(g) out,
with z, c and g from its input alone: a product of matrices for all windows at once, and little to do one after
another. Channels are independent: they take the place of a batch.
"""

import collections
import ctypes
import math
import pathlib
import subprocess
import tempfile

import torch
from torch import nn
from torch.nn import functional

SAMPLE_RATE = 16000
WINDOW = 512
HOP = WINDOW // 2
BINS = WINDOW // 2 + 1
CLASSES = ("Speech", "Music")

FLOOR = 1e-5           # power that counts as silence; a full-scale tone has some 2e4
EXPONENT = 0.15        # of the power
DECAY = 0.98           # of the mean of the magnitudes, per window
CENTRE = 0.5           # is taken from each feature: about their mean
# The bands, from the lowest on: how many there are, and their bins; how many windows, the present one among them, their
# features see and their filter is over. No row has more windows than the row before it.
Row = collections.namedtuple("Row", "bands bins seen taps")
LAYOUT = (Row(8, 2, 6, 6), Row(8, 4, 3, 3), Row(8, 8, 3, 1), Row(8, 18, 3, 1))
BANDS = sum(row.bands for row in LAYOUT)
SIZES = [row.bands * row.bins for row in LAYOUT]
CONTEXT = LAYOUT[0].seen - 1       # windows of the past
FEATURES = 3           # of a bin in each window: magnitude, real and imaginary part of what the phase did
FACTORS = 2 * len(CLASSES)     # of a bin in each window: real parts for the classes, then imaginary ones
WIDTH = 48
UNITS = 64             # of a block, in each band
SQUEEZED = 24          # of a band in a block, for the layers over all bands
GATHERED = 16          # likewise in the memory
BLOCKS = 6
HIDDEN = 128           # of the memory
INNER = 64             # of a band's output layers
SLOWEST = 60.0         # windows that a block remembers for at first: from one up to this


def native():
    """recurrence.c as a library, built for this machine."""
    if not hasattr(native, "library"):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "recurrence.so"
            source = pathlib.Path(__file__).with_name("recurrence.c")
            subprocess.run(["cc", "-O3", "-march=native", "-ffast-math", f"-DUNITS={UNITS}", f"-DHIDDEN={HIDDEN}",
                            "-shared", "-fPIC", source, "-o", path, "-lm"], check=True)
            native.library = ctypes.CDLL(str(path))
    return native.library


def call(name, tensors, sizes):
    getattr(native(), name)(*(ctypes.c_void_p(t.data_ptr()) for t in tensors), *(ctypes.c_int64(n) for n in sizes))


class Held(torch.autograd.Function):
    """The recurrence: `x` [band, time, item, 3 * UNITS] with z before the sigmoid, c before it is limited to positive
    values, and g; `before` [band, item, UNITS]. Returns what is let out and what is held, [band, time, item, UNITS];
    there are derivatives of the first by `x`."""

    @staticmethod
    def forward(ctx, x, before):
        x, before = x.contiguous(), before.contiguous()
        held, out = (torch.empty(*x.shape[:3], UNITS) for _ in range(2))
        call("Forward", (x, before, held, out), x.shape[:3])
        ctx.save_for_backward(x, before, held)
        ctx.mark_non_differentiable(held)
        return out, held

    @staticmethod
    def backward(ctx, gradient, _):
        x, before, held = ctx.saved_tensors
        result = torch.empty_like(x)
        call("Backward", (x, before, held, gradient.contiguous(), result), x.shape[:3])
        return result, None


class Recalled(torch.autograd.Function):
    """A gated recurrent layer after its product with the input, as in nn.GRU: `x` [time, item, 3 * HIDDEN], its
    recurrent `weight` and `bias`, and `before` [item, HIDDEN]. Returns what is held, [time, item, HIDDEN]."""

    @staticmethod
    def forward(ctx, x, weight, bias, before):
        x, before = x.contiguous(), before.contiguous()
        held, gates = torch.empty(*x.shape[:2], HIDDEN), torch.empty(*x.shape[:2], 4 * HIDDEN)
        call("RecallForward", (x, weight.t().contiguous(), bias, before, held, gates), x.shape[:2])
        ctx.save_for_backward(weight, before, held, gates)
        return held

    @staticmethod
    def backward(ctx, gradient):
        weight, before, held, gates = ctx.saved_tensors
        by_input, by_recalled = (torch.empty(*held.shape[:2], 3 * HIDDEN) for _ in range(2))
        call("RecallBackward", (weight, before, held, gates, gradient.contiguous(), by_input, by_recalled),
             held.shape[:2])
        rows = by_recalled.flatten(0, 1)
        by_weight = rows.t() @ torch.cat([before[None], held[:-1]]).flatten(0, 1)
        return by_input, by_weight, rows.sum(0), None


def scaled(*shape, gain=1.0):
    """Random weights, so that a product with them keeps the power: the last but one dimension is summed over."""
    return nn.Parameter(torch.randn(*shape) * gain / math.sqrt(shape[-2]))


class Block(nn.Module):
    """`x` [band, time, item, WIDTH] to the same; `state` is [band, item, UNITS]. `squeeze` needs no bias, since
    the norm before it has one."""

    def __init__(self):
        super().__init__()
        self.norm, self.second_norm = nn.LayerNorm(WIDTH), nn.LayerNorm(WIDTH)
        self.place = nn.Parameter(torch.zeros(BANDS, 1, 1, WIDTH))
        self.inner, self.outer = nn.Linear(WIDTH, 3 * UNITS), nn.Linear(UNITS, WIDTH)
        self.squeeze, self.spread = nn.Linear(WIDTH, SQUEEZED, bias=False), nn.Linear(SQUEEZED, WIDTH)
        self.across = scaled(SQUEEZED, BANDS, BANDS)
        with torch.no_grad():
            self.inner.bias[:UNITS] = math.log(SLOWEST) * torch.linspace(0.0, 1.0, UNITS)
            self.outer.weight *= 0.3
            self.spread.weight *= 0.3

    def forward(self, x, state):
        y, held = Held.apply(self.inner(self.norm(x) + self.place), state)
        x = x + self.outer(y)
        y = functional.silu(self.squeeze(self.second_norm(x)))
        rows = y.reshape(BANDS, -1, SQUEEZED).permute(2, 0, 1)
        rows = functional.relu(torch.bmm(self.across, rows)).permute(1, 2, 0)
        return x + self.spread(rows.reshape(y.shape)), held[:, -1]


class Memory(nn.Module):
    """`x` [band, time, item, WIDTH] to the same; `state` is [1, item, HIDDEN]."""

    def __init__(self):
        super().__init__()
        self.norm = nn.LayerNorm(WIDTH)
        self.squeeze, self.spread = nn.Linear(WIDTH, GATHERED, bias=False), nn.Linear(GATHERED, WIDTH)
        self.narrow, self.widen = nn.Linear(BANDS * GATHERED, HIDDEN), nn.Linear(HIDDEN, BANDS * GATHERED)
        self.recall = nn.GRU(HIDDEN, HIDDEN)

    def forward(self, x, state):
        y = self.squeeze(self.norm(x)).permute(1, 2, 0, 3)
        layer = self.recall
        inner = functional.linear(functional.relu(self.narrow(y.flatten(2))), layer.weight_ih_l0, layer.bias_ih_l0)
        held = Recalled.apply(inner, layer.weight_hh_l0, layer.bias_hh_l0, state[0])
        y = functional.relu(self.widen(held)).reshape(y.shape)
        return x + self.spread(y.permute(2, 0, 1, 3)), held[-1:]


class Separator(nn.Module):
    def __init__(self):
        super().__init__()
        self.enter = nn.ParameterList()
        self.enter_bias = nn.Parameter(torch.zeros(BANDS, 1, WIDTH))
        self.blocks = nn.ModuleList(Block() for _ in range(BLOCKS))
        self.memory = Memory()
        self.norm = nn.LayerNorm(WIDTH)
        self.leave, self.leave_bias = scaled(BANDS, WIDTH, INNER), nn.Parameter(torch.zeros(BANDS, 1, INNER))
        self.direct, self.last, self.last_bias = (nn.ParameterList() for _ in range(3))
        for row in LAYOUT:
            outputs = (len(CLASSES) + 1 + FACTORS * row.taps) * row.bins
            self.enter.append(scaled(row.bands, FEATURES * row.seen * row.bins, WIDTH))
            self.direct.append(nn.Parameter(torch.zeros(row.bands, FEATURES * row.taps * row.bins, INNER)))
            self.last.append(scaled(row.bands, INNER, outputs, gain=0.3))
            self.last[-1].data[..., (len(CLASSES) + 1) * row.bins:] = 0.0     # no filter yet
            self.last_bias.append(nn.Parameter(torch.zeros(row.bands, 1, outputs)))

    def forward(self, spectra):
        """Complex [item, time, bin] to the same of the classes, [item, class, time, bin]."""
        return self.proceed(spectra, self.empty(len(spectra)))[0]

    def matrices(self):
        """The parameters that are matrices: one each, and three each, one below another; but for the last layer, which
        learns faster as vectors do."""
        three = [block.inner.weight for block in self.blocks]
        three += [self.memory.recall.weight_ih_l0, self.memory.recall.weight_hh_l0]
        others = {id(p) for p in [*three, *self.last]}
        return [p for p in self.parameters() if min(p.shape[-2:]) > 1 and p.dim() > 1 and id(p) not in others], three

    @staticmethod
    def empty(items):
        """The states before a stream, [item, ...]: past windows; sums of past magnitudes and of their weights; the
        memory; what each block holds."""
        return [torch.zeros(items, CONTEXT, BINS, dtype=torch.cfloat), torch.zeros(items, 2),
                torch.zeros(items, 1, HIDDEN), *(torch.zeros(items, BANDS, UNITS) for _ in range(BLOCKS))]

    @staticmethod
    def features(windows, sums):
        """Complex [item, CONTEXT + time, bin] to those of each row of LAYOUT, [item, time, window and feature, bin],
        the present window first, and the sums after."""
        log_power = torch.log(windows.real ** 2 + windows.imag ** 2 + FLOOR)
        magnitude, phase = torch.exp(EXPONENT * log_power), windows * torch.exp((0.5 * EXPONENT - 0.5) * log_power)
        means, time = [], windows.shape[1] - CONTEXT
        for mean in magnitude[:, CONTEXT:, 1:].mean(-1).unbind(1):
            sums = DECAY * sums + torch.stack([mean, torch.ones_like(mean)], 1)
            means.append(sums[:, 0] / sums[:, 1])
        scale = torch.stack(means, 1)[..., None, None, None]
        # From one window to the next the phase of a steady tone in the middle of bin k goes on by pi * k; at an instant
        # in the middle of the window that of two bins differs by pi.
        turn = torch.ones(BINS - 1)
        turn[::2] = -1.0
        rows, begin = [], 0
        for size, row in zip(SIZES, LAYOUT):
            spans = [(slice(CONTEXT - lag, CONTEXT - lag + time), slice(begin + 1, begin + 1 + size))
                     for lag in range(row.seen)]
            others = [-phase[:, CONTEXT:, begin:begin + size]]
            others += [phase[:, when, where] * turn[begin:begin + size] ** lag
                       for lag, (when, where) in enumerate(spans) if lag]
            turns = phase[:, spans[0][0], None, spans[0][1]] * torch.stack(others, 2).conj()
            loud = torch.stack([magnitude[:, when, where] for when, where in spans], 2)
            rows.append((torch.stack([loud, turns.real, turns.imag], 3) / scale).flatten(2, 3))
            begin += size
        return rows, sums

    def proceed(self, spectra, states):
        """The classes, and the states after them."""
        items, time, _ = spectra.shape
        windows = torch.cat([states[0], spectra], dim=1)
        with torch.no_grad():
            x, sums = self.features(windows, states[1])
            x = [(part - CENTRE).unflatten(-1, (row.bands, row.bins)).permute(3, 1, 0, 2, 4).flatten(3).flatten(1, 2)
                 for part, row in zip(x, LAYOUT)]
        direct = torch.cat([torch.bmm(part[..., :weight.shape[1]], weight) for part, weight in zip(x, self.direct)])
        direct = direct + self.leave_bias
        x = torch.cat([torch.bmm(*pair) for pair in zip(x, self.enter)]) + self.enter_bias
        x = x.reshape(BANDS, time, items, WIDTH)
        held = [state.transpose(0, 1) for state in states[2:]]
        for number, block in enumerate(self.blocks):
            if number == BLOCKS // 2:
                x, held[0] = self.memory(x, held[0].contiguous())
            x, held[number + 1] = block(x, held[number + 1])
        x = functional.silu(torch.baddbmm(direct, self.norm(x).flatten(1, 2), self.leave))
        classes = self.apply_outputs(x.split([row.bands for row in LAYOUT]), windows)
        return classes, [windows[:, time:], sums, *(state.transpose(0, 1) for state in held)]

    def apply_outputs(self, x, windows):
        """What the last layers say, [band, time and item, INNER] for each row of LAYOUT, done to the windows: the
        classes."""
        items, time, named = len(windows), windows.shape[1] - CONTEXT, len(CLASSES)
        found = []
        for y, bias, last, row in zip(x, self.last_bias, self.last, LAYOUT):
            y = torch.baddbmm(bias, y, last).reshape(row.bands, time, items, -1, row.bins)
            y = y.permute(2, 3, 1, 0, 4).flatten(3)       # [item, output, time, bin]
            found.append(y if found else torch.cat([y[..., :1], y], dim=-1))     # the lowest bin as the next
        shares = torch.softmax(torch.cat([y[:, :named + 1] for y in found], dim=-1), dim=1)[:, :named]
        result = shares * windows[:, None, CONTEXT:]
        for tap in range(LAYOUT[0].taps):
            begin = named + 1 + FACTORS * tap
            y = torch.cat([y[:, begin:begin + FACTORS] for y, row in zip(found, LAYOUT) if tap < row.taps], dim=-1)
            bins = y.shape[-1]
            past = torch.complex(*y.chunk(2, dim=1)) * windows[:, None, CONTEXT - tap:CONTEXT - tap + time, :bins]
            result = result + functional.pad(past, (0, BINS - bins))
        return result
