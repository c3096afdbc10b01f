#!/usr/bin/python3
"""Writes the trained network as a model for kalvrin.

usage: export.py CHECKPOINT MODEL.onnx
The graph is built node by node from the averaged weights. Its states are the windows before, the sums of past
magnitudes, and what the memory and the blocks hold; all start at zero, as in the training. CHECKPOINT may be
`untrained`: the cost is the same.
"""

import pathlib
import sys

import numpy as np
import onnx
import torch
from onnx import helper

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1]))
# pylint: disable=wrong-import-position
from network import (BANDS, BINS, BLOCKS, CENTRE, CLASSES, CONTEXT, DECAY, EXPONENT, FACTORS, FEATURES, FLOOR,
                     GATHERED, HIDDEN, HOP, LAYOUT, SAMPLE_RATE, SIZES, UNITS, WIDTH, Separator)
from onnx_model import Graph, make_model, tensor

LARGEST = 1e6        # of a part of a bin; more, or no number at all, is broken and must not enter the states
LAST = np.iinfo(np.int64).max


def values(parameter):
    return parameter.detach().numpy()


def part(g, x, begin, end, axis):
    """`x` from `begin` on and before `end` along an axis."""
    return g("Slice", x, g.indices(begin), g.indices(end), g.indices(axis))


def split(g, x, sizes, axis):
    return g("Split", x, g.indices(*sizes), axis=axis, outputs=len(sizes)) if len(sizes) > 1 else [x]


def join(g, found, axis):
    return g("Concat", *found, axis=axis) if len(found) > 1 else found[0]


def norm(g, layer, x):
    return g("LayerNormalization", x, g.constant(values(layer.weight)), g.constant(values(layer.bias)), axis=-1,
             epsilon=layer.eps)


def dense(g, x, weight, bias):
    return g("Add", g("MatMul", x, g.constant(weight)), g.constant(bias))


def product(g, x, layer):
    return g("MatMul", x, g.constant(values(layer.weight).T))


def linear(g, layer, x):
    return dense(g, x, values(layer.weight).T, values(layer.bias))


def added_to(g, x, layer, y):
    return g("Sum", x, product(g, y, layer), g.constant(values(layer.bias)))


def silu(g, x):
    return g("Mul", x, g("Sigmoid", x))


def held(g, name, share, new):
    """A loop over the windows, axis 1: what is held, `name`_in at first, moves by `share` towards `new`. Returns what
    is held after each window; the last is `name`_out."""
    inner = Graph(f"{name}_")
    step = inner("Mul", inner("Sub", "new", "before"), "share")
    # The engine takes one name as both outputs, too, and then reads memory that nothing has written.
    inner("Identity", inner("Add", "before", step, name="after"), name="result")
    types = [tensor(n, BANDS, "channels", UNITS) for n in ("before", "share", "new", "after", "result")]
    body = helper.make_graph(inner.nodes, f"{name}_window", types[:3], types[3:])
    return g("Scan", f"{name}_in", share, new, outputs=2, name=f"{name}_out", body=body, num_scan_inputs=2,
             scan_input_axes=[1, 1], scan_output_axes=[1])[1]


def lagged(g, x, lag, bins=LAST):
    """Of [..., CONTEXT + sequence, bin] the windows `lag` before those of the input, `bins` of each."""
    span = g.indices(CONTEXT - lag, 0), g.indices(LAST if lag == 0 else -lag, bins)
    return g("Slice", x, *span, g.indices(-2, -1))


def spans(kind):
    """The windows that features ("seen") or filter ("taps") are of, in parts that the same rows have: how far before
    the present one a part begins and ends, and the number of rows, from the lowest on."""
    found = [getattr(row, kind) for row in LAYOUT]
    numbers = sorted(set(found))
    return [(first, end, sum(number >= end for number in found)) for first, end in zip([0, *numbers], numbers)]


def features(g, windows):
    """Of `windows` [channel, CONTEXT + sequence, bin, 2]: those of each row of LAYOUT, [channel, window, feature,
    sequence, bin] from the present window back."""
    log_power = g("Log", g("Add", g("ReduceSumSquare", windows, axes=[3], keepdims=0), g.constant(FLOOR)))
    magnitude = part(g, g("Exp", g("Mul", log_power, g.constant(EXPONENT))), 1, LAST, 2)
    scale = g("Unsqueeze", g("Exp", g("Mul", log_power, g.constant(0.5 * EXPONENT - 0.5))), g.indices(3))
    # Sums of the mean and of ones; a power of zero is one.
    mean = g("ReduceMean", lagged(g, magnitude, 0), axes=[2])
    pair = g("Transpose", g("Concat", mean, g("Pow", mean, g.constant(0.0)), axis=2), perm=[1, 0, 2])
    one = np.eye(2)[None]
    sums, _ = g("RNN", pair, g.constant(one), g.constant(DECAY * one), "", "", "level_in", outputs=2,
                name=[None, "level_out"], hidden_size=2, activations=["Affine"], activation_alpha=[1.0])
    total, weight = g("Split", g("Transpose", sums, perm=[2, 1, 0, 3]), axis=3, outputs=2)
    loudness = g("Unsqueeze", g("Div", weight, total), g.indices(1))

    # Products of the present window with others: a real part is the sum of (re, im) times these, an imaginary one that
    # of (im, -re).
    turn = np.where(np.arange(1, BINS) % 2, -1.0, 1.0)
    magnitude = g("Unsqueeze", magnitude, g.indices(1, 2))
    phase = g("Transpose", g("Mul", windows, scale), perm=[0, 3, 1, 2])
    phase = g("Unsqueeze", phase, g.indices(1, 2))       # [channel, window, kind of part, part, sequence, bin]
    high = part(g, phase, 1, LAST, 5)
    re, im = g("Split", high, axis=3, outputs=2)
    both = g("Concat", high, g("Concat", im, g("Neg", re), axis=3), axis=2)
    found = [[] for _ in LAYOUT]
    for first, end, rows in spans("seen"):
        bins, lags = sum(SIZES[:rows]), range(first, end)
        signs = np.stack([turn[:bins] ** lag if lag else -np.ones(bins) for lag in lags])
        others = g("Concat", *(lagged(g, high if lag else phase, lag, bins) for lag in lags), axis=1)
        others = g("Mul", others, g.constant(signs[:, None, None, None]))
        turns = g("ReduceSum", g("Mul", lagged(g, both, 0, bins), others), g.indices(3), keepdims=0)
        loud = g("Concat", *(lagged(g, magnitude, lag, bins) for lag in lags), axis=1)
        y = g("Sub", g("Mul", g("Concat", loud, turns, axis=2), loudness), g.constant(CENTRE))
        for row, x in zip(found, split(g, y, SIZES[:rows], 4)):
            row.append(x)
    return [join(g, row, 1) for row in found]


def block(g, layers, x, number):
    """`x` [band, sequence, channel, WIDTH] to the same."""
    weight, bias = values(layers.inner.weight).T, values(layers.inner.bias)
    bias = bias + values(layers.place) @ weight
    sign = np.repeat([-1.0, 1.0, 1.0], UNITS)      # the network's gate is the share that stays
    y = dense(g, norm(g, layers.norm, x), weight * sign, bias * sign)
    gate, new, out = g("Split", y, axis=3, outputs=3)
    y = g("Mul", held(g, f"block{number}", g("Sigmoid", gate), g("Relu", new)), silu(g, out))
    x = added_to(g, x, layers.outer, y)
    y = silu(g, product(g, norm(g, layers.second_norm, x), layers.squeeze))
    y = g("Transpose", y, perm=[2, 3, 0, 1])
    y = g("Transpose", g("Relu", g("MatMul", g.constant(values(layers.across)), y)), perm=[2, 3, 0, 1])
    return added_to(g, x, layers.spread, y)


def memory(g, layers, x):
    """The same over all bands. The gates are ordered reset, update, new in the network and update, reset, new in the
    graph."""
    def gates(kind):
        reset, update, new = np.split(values(getattr(layers.recall, f"{kind}_l0")), 3)
        return np.concatenate([update, reset, new])
    biases = np.concatenate([gates("bias_ih"), gates("bias_hh")])
    y = g("Transpose", product(g, norm(g, layers.norm, x), layers.squeeze), perm=[1, 2, 0, 3])
    y = g("Relu", linear(g, layers.narrow, g("Reshape", y, g.indices(0, 0, BANDS * GATHERED))))
    y, _ = g("GRU", y, g.constant(gates("weight_ih")[None]), g.constant(gates("weight_hh")[None]),
             g.constant(biases[None]), "", "memory_in", outputs=2, name=[None, "memory_out"], hidden_size=HIDDEN,
             linear_before_reset=1)
    y = g("Relu", linear(g, layers.widen, g("Squeeze", y, g.indices(1))))
    y = g("Transpose", g("Reshape", y, g.indices(0, 0, BANDS, GATHERED)), perm=[2, 0, 1, 3])
    return added_to(g, x, layers.spread, y)


def enter(g, network, x):
    """Of the features of each row what the first layers of the bands make, to WIDTH and to INNER features: [band,
    sequence, channel, ...]."""
    bands = [[], []]
    for y, row, *weights in zip(x, LAYOUT, network.enter, network.direct):
        y = g("Reshape", y, g.indices(0, FEATURES * row.seen, -1, row.bands, row.bins))
        y = g("Reshape", g("Transpose", y, perm=[3, 2, 0, 1, 4]), g.indices(0, 0, 0, FEATURES * row.seen * row.bins))
        bands[0].append(g("MatMul", y, g.constant(values(weights[0])[:, None])))
        if row.taps < row.seen:
            y = part(g, y, 0, FEATURES * row.taps * row.bins, 3)
        bands[1].append(g("MatMul", y, g.constant(values(weights[1])[:, None])))
    return [g("Add", g("Concat", *found, axis=0), g.constant(values(bias)[:, None]))
            for found, bias in zip(bands, (network.enter_bias, network.leave_bias))]


def classes(g, network, x, direct, windows):
    """The output from `x` [band, sequence, channel, WIDTH] and what the bands begin with. The softmax is written with
    differences from Rest; the limit keeps the exponential finite."""
    named = len(CLASSES)
    x = g("MatMul", norm(g, network.norm, x), g.constant(values(network.leave)[:, None]))
    x = split(g, silu(g, g("Add", x, direct)), [row.bands for row in LAYOUT], 0)
    found = [[] for _ in spans("taps")]
    for y, row, *layer in zip(x, LAYOUT, network.last, network.last_bias):
        y = dense(g, y, *(values(w)[:, None] for w in layer))
        y = g("Transpose", g("Reshape", y, g.indices(0, 0, 0, -1, row.bins)), perm=[3, 2, 1, 0, 4])
        y = g("Reshape", y, g.indices(0, 0, 0, row.bands * row.bins))    # [output, channel, sequence, bin]
        if not found[0]:
            y = g("Concat", part(g, y, 0, 1, 3), y, axis=3)              # the lowest bin as the next
        sizes = [FACTORS * (end - first) for first, end, _ in spans("taps") if end <= row.taps]
        sizes[0] += named + 1
        for outputs, y in zip(found, split(g, y, sizes, 0)):
            outputs.append(y)
    # A complex product is (re, im) of the factors times (re, -im) and (im, re) of the windows.
    re, im = g("Split", g("Transpose", windows, perm=[3, 0, 1, 2]), axis=0, outputs=2)
    sound = [[re] * named + [g("Neg", im)] * named, [im] * named + [re] * named]
    sound = g("Concat", *(g("Unsqueeze", g("Concat", *x, axis=0), g.indices(0)) for x in sound), axis=0)
    sums = []
    for (first, end, rows), outputs in zip(spans("taps"), found):
        y, bins = join(g, outputs, 3), 1 + sum(SIZES[:rows])
        if first == 0:
            shares, rest, y = split(g, y, [named, 1, FACTORS * end], 0)
            odds = g("Exp", g("Min", g("Sub", shares, rest), g.constant(80.0)))
            shares = g("Div", odds, g("Add", g("ReduceSum", odds, g.indices(0)), g.constant(1.0)))
            y = g("Add", y, g("Pad", shares, g.indices(*[0] * 4, FACTORS * end - named, *[0] * 3)))
        factors = split(g, y, [FACTORS] * (end - first), 0)
        terms = [g("Mul", lagged(g, sound, lag, bins), y) for lag, y in zip(range(first, end), factors)]
        y = g("Sum", *terms) if terms[1:] else terms[0]
        sums.append(y if bins == BINS else g("Pad", y, g.indices(*[0] * 9, BINS - bins)))
    y = g("Add", *g("Split", g("Sum", *sums), axis=1, outputs=2))
    g("Transpose", y, perm=[1, 2, 3, 4, 0], name="output")


def build(network):
    g = Graph()
    whole = g("LessOrEqual", g("Abs", "input"), g.constant(LARGEST))
    windows = g("Concat", "windows_in", g("Where", whole, "input", g.constant(0.0)), axis=1)
    g("Slice", windows, g.indices(-CONTEXT), g.indices(LAST), g.indices(1), name="windows_out")

    x, direct = enter(g, network, features(g, windows))
    for number, layers in enumerate(network.blocks):
        if number == BLOCKS // 2:
            x = memory(g, network.memory, x)
        x = block(g, layers, x, number)
    classes(g, network, x, direct, windows)

    states = [("windows", ("channels", CONTEXT, BINS, 2)), ("level", (1, "channels", 2)),
              ("memory", (1, "channels", HIDDEN))]
    states += [(f"block{number}", (BANDS, "channels", UNITS)) for number in range(BLOCKS)]
    return make_model(
        g,
        [tensor("input", "channels", "sequence", BINS, 2)] +
        [tensor(f"{name}_in", *shape) for name, shape in states],
        [tensor("output", len(CLASSES), "channels", "sequence", BINS, 2)] +
        [tensor(f"{name}_out", *shape) for name, shape in states],
        name="Speech and music", sample_rate=SAMPLE_RATE, classes=CLASSES, overlap=HOP, sequence_size=4)


def load(checkpoint):
    network = Separator()
    if str(checkpoint) != "untrained":
        network.load_state_dict(torch.load(checkpoint, map_location="cpu")["average"])
    return network.eval()


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    onnx.save(build(load(sys.argv[1])), sys.argv[2])
