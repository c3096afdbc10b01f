#!/usr/bin/python3
"""Writes the trained network as a model for kalvrin.

usage: export.py CHECKPOINT MODEL.onnx
The graph is built node by node from the averaged weights. Its states are the two windows before, the sums of past
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
                     GATHERED, HIDDEN, HOP, LAYOUT, SAMPLE_RATE, SIZES, SQUEEZED, UNITS, WIDTH, Separator)
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


def linear(g, layer, x):
    return dense(g, x, values(layer.weight).T, values(layer.bias))


def silu(g, x):
    return g("Mul", x, g("Sigmoid", x))


def scan(g, name, shape, before, steps, build):
    """A loop over the windows, axis 1: `build` gets a graph, the names of the state and of one window of each of
    `steps`, and returns the name of the state after it. The result is the state after all windows, and after each."""
    inner = Graph(f"{name}_")
    names = ["before", *(f"step{i}" for i in range(len(steps)))]
    inner("Identity", build(inner, *names), name="after")
    inner("Identity", "after", name="result")
    types = [tensor(n, *shape) for n in [*names, "after", "result"]]
    body = helper.make_graph(inner.nodes, f"{name}_window", types[:len(names)], types[len(names):], inner.initializers)
    return g("Scan", before, *steps, outputs=2, body=body, num_scan_inputs=len(steps),
             scan_input_axes=[1] * len(steps), scan_output_axes=[1])


def parts(g, x):
    """Real and imaginary part of [..., 2]."""
    return [g("Squeeze", y, g.indices(-1)) for y in g("Split", x, axis=-1, outputs=2)]


def lagged(g, x, lag, bins=LAST):
    """Of [channel, CONTEXT + sequence, ..., bin] the windows `lag` before those of the input, `bins` of each."""
    span = g.indices(CONTEXT - lag, 0), g.indices(LAST if lag == 0 else -lag, bins)
    return g("Slice", x, *span, g.indices(1, -1))


def spans(kind):
    """The windows that features ("seen") or filter ("taps") are of, in parts that the same rows have: how far before
    the present one a part begins and ends, and the number of rows, from the lowest on."""
    found = [getattr(row, kind) for row in LAYOUT]
    numbers = sorted(set(found))
    return [(first, end, sum(number >= end for number in found)) for first, end in zip([0, *numbers], numbers)]


def features(g, windows):
    """Of `windows` [channel, CONTEXT + sequence, bin, 2]: those of each row of LAYOUT, [channel, sequence, window,
    feature, bin] from the present window back."""
    log_power = g("Log", g("Add", g("ReduceSumSquare", windows, axes=[3], keepdims=0), g.constant(FLOOR)))
    magnitude = part(g, g("Exp", g("Mul", log_power, g.constant(EXPONENT))), 1, LAST, 2)
    scale = g("Unsqueeze", g("Exp", g("Mul", log_power, g.constant(0.5 * EXPONENT - 0.5))), g.indices(3))
    mean = g("ReduceMean", lagged(g, magnitude, 0), axes=[2])
    step = g("Concat", mean, g("Add", g("Mul", mean, g.constant(0.0)), g.constant(1.0)), axis=2)
    after, sums = scan(g, "level", ("channels", 2), "level_in", [step], lambda inner, before, new: inner(
        "Add", inner("Mul", before, inner.constant(DECAY)), new))
    g("Identity", after, name="level_out")
    total, weight = g("Split", sums, axis=2, outputs=2)
    loudness = g("Unsqueeze", g("Div", weight, total), g.indices(3, 4))

    turn = np.where(np.arange(1, BINS) % 2, -1.0, 1.0)
    magnitude = g("Unsqueeze", magnitude, g.indices(2))
    low = [g("Unsqueeze", x, g.indices(2)) for x in parts(g, g("Mul", windows, scale))]
    high = [part(g, x, 1, LAST, 3) for x in low]
    found = [[] for _ in LAYOUT]
    for first, end, rows in spans("seen"):
        bins = sum(SIZES[:rows])
        signs = g.constant(np.stack([turn[:bins] ** lag if lag else -np.ones(bins) for lag in range(first, end)]))
        now = [lagged(g, x, 0, bins) for x in high]
        others = [join(g, [lagged(g, x if lag else below, lag, bins) for lag in range(first, end)], 2)
                  for x, below in zip(high, low)]
        others = [g("Mul", x, signs) for x in others]
        real = g("Add", g("Mul", now[0], others[0]), g("Mul", now[1], others[1]))
        imaginary = g("Sub", g("Mul", now[1], others[0]), g("Mul", now[0], others[1]))
        loud = join(g, [lagged(g, magnitude, lag, bins) for lag in range(first, end)], 2)
        y = g("Concat", *(g("Unsqueeze", x, g.indices(3)) for x in (loud, real, imaginary)), axis=3)
        y = g("Sub", g("Mul", y, loudness), g.constant(CENTRE))
        for row, x in zip(found, split(g, y, SIZES[:rows], 4)):
            row.append(x)
    return [join(g, row, 2) for row in found]


def block(g, layers, x, number):
    """`x` [band, sequence, channel, WIDTH] to the same."""
    bias = values(layers.place) @ values(layers.inner.weight).T + values(layers.inner.bias)
    y = dense(g, norm(g, layers.norm, x), values(layers.inner.weight).T, bias)
    gate, new, out = g("Split", y, axis=3, outputs=3)
    gate, new = g("Sigmoid", gate), g("Relu", new)
    added = g("Sub", new, g("Mul", gate, new))
    after, held = scan(g, f"block{number}", (BANDS, "channels", UNITS), f"block{number}_in", [gate, added],
                       lambda inner, before, z, c: inner("Add", inner("Mul", before, z), c))
    g("Identity", after, name=f"block{number}_out")
    x = g("Add", x, linear(g, layers.outer, g("Mul", held, silu(g, out))))
    y = silu(g, linear(g, layers.squeeze, norm(g, layers.second_norm, x)))
    shape = g("Shape", y)
    y = g("Transpose", g("Reshape", y, g.indices(BANDS, -1, SQUEEZED)), perm=[2, 0, 1])
    y = g("Transpose", g("Relu", g("MatMul", g.constant(values(layers.across)), y)), perm=[1, 2, 0])
    return g("Add", x, linear(g, layers.spread, g("Reshape", y, shape)))


def memory(g, layers, x):
    """The same over all bands. The gates are ordered reset, update, new in the network and update, reset, new in the
    graph."""
    def gates(kind):
        reset, update, new = np.split(values(getattr(layers.recall, f"{kind}_l0")), 3)
        return np.concatenate([update, reset, new])
    biases = np.concatenate([gates("bias_ih"), gates("bias_hh")])
    y = g("Transpose", linear(g, layers.squeeze, norm(g, layers.norm, x)), perm=[1, 2, 0, 3])
    y = g("Relu", linear(g, layers.narrow, g("Reshape", y, g.indices(0, 0, BANDS * GATHERED))))
    y, last = g("GRU", y, g.constant(gates("weight_ih")[None]), g.constant(gates("weight_hh")[None]),
                g.constant(biases[None]), "", "memory_in", outputs=2, hidden_size=HIDDEN, linear_before_reset=1)
    g("Identity", last, name="memory_out")
    y = g("Relu", linear(g, layers.widen, g("Squeeze", y, g.indices(1))))
    y = g("Transpose", g("Reshape", y, g.indices(0, 0, BANDS, GATHERED)), perm=[2, 0, 1, 3])
    return g("Add", x, linear(g, layers.spread, y))


def enter(g, network, x):
    """Of the features of each row what the first layers of the bands make, to WIDTH and to INNER features: [band,
    sequence, channel, ...]."""
    bands = [[], []]
    for y, row, *weights in zip(x, LAYOUT, network.enter, network.direct):
        y = g("Reshape", y, g.indices(0, 0, FEATURES * row.seen, row.bands, row.bins))
        y = g("Reshape", g("Transpose", y, perm=[3, 1, 0, 2, 4]), g.indices(0, 0, 0, FEATURES * row.seen * row.bins))
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
        for outputs, some in zip(found, split(g, y, sizes, 0)):
            outputs.append(some)
    sound, sums = parts(g, windows), [[], []]
    for (first, end, rows), outputs in zip(spans("taps"), found):
        y, sizes = join(g, outputs, 3), [named] * 2 * (end - first)
        if first == 0:
            shares, rest, *factors = split(g, y, [named, 1, *sizes], 0)
            odds = g("Exp", g("Min", g("Sub", shares, rest), g.constant(80.0)))
            shares = g("Div", odds, g("Add", g("ReduceSum", odds, g.indices(0)), g.constant(1.0)))
            factors[0] = g("Add", factors[0], shares)
        else:
            factors = split(g, y, sizes, 0)
        bins, terms = 1 + sum(SIZES[:rows]), [[], []]
        for lag, a, b in zip(range(first, end), factors[::2], factors[1::2]):
            re, im = (lagged(g, x, lag, bins) for x in sound)
            terms[0].append(g("Sub", g("Mul", a, re), g("Mul", b, im)))
            terms[1].append(g("Add", g("Mul", a, im), g("Mul", b, re)))
        for whole, some in zip(sums, terms):
            some = g("Sum", *some) if some[1:] else some[0]
            whole.append(some if bins == BINS else g("Pad", some, g.indices(*[0] * 7, BINS - bins)))
    g("Concat", *(g("Unsqueeze", g("Sum", *terms), g.indices(4)) for terms in sums), axis=4, name="output")


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

    states = [("windows", ("channels", CONTEXT, BINS, 2)), ("level", ("channels", 2)),
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
