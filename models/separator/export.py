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
from network import (BANDS, BINS, BLOCKS, CENTRE, CLASSES, CONTEXT, DECAY, EXPONENT, FLOOR, HIDDEN, HOP, LAYOUT,
                     SAMPLE_RATE, SQUEEZED, UNITS, WIDTH, Separator, spans)
from onnx_model import Graph, make_model, tensor

LARGEST = 1e6        # of a part of a bin; more, or no number at all, is broken and must not enter the states
LAST = np.iinfo(np.int64).max


def values(parameter):
    return parameter.detach().numpy()


def part(g, x, begin, end, axis):
    """`x` from `begin` on and before `end` along an axis."""
    return g("Slice", x, g.indices(begin), g.indices(end), g.indices(axis))


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


def features(g, windows):
    """Of `windows` [channel, CONTEXT + sequence, bin, 2]: [channel, sequence, feature, bin] for each row of LAYOUT."""
    log_power = g("Log", g("Add", g("ReduceSumSquare", windows, axes=[3], keepdims=0), g.constant(FLOOR)))
    magnitude = g("Exp", g("Mul", log_power, g.constant(EXPONENT)))
    scale = g("Unsqueeze", g("Exp", g("Mul", log_power, g.constant(0.5 * EXPONENT - 0.5))), g.indices(3))
    phase = parts(g, g("Mul", windows, scale))
    mean = g("ReduceMean", part(g, part(g, magnitude, CONTEXT, LAST, 1), 1, LAST, 2), axes=[2])
    step = g("Concat", mean, g("Add", g("Mul", mean, g.constant(0.0)), g.constant(1.0)), axis=2)
    after, sums = scan(g, "level", ("channels", 2), "level_in", [step], lambda inner, before, new: inner(
        "Add", inner("Mul", before, inner.constant(DECAY)), new))
    g("Identity", after, name="level_out")
    total, weight = g("Split", sums, axis=2, outputs=2)
    level = g("Unsqueeze", g("Div", weight, total), g.indices(3))

    def product(a, b, sign):
        """a times the conjugate of b."""
        (ar, ai), (br, bi) = a, b
        both = (g("Add", g("Mul", ar, br), g("Mul", ai, bi)), g("Sub", g("Mul", ai, br), g("Mul", ar, bi)))
        return [g("Mul", x, g.constant(sign)) for x in both]

    result = []
    for (_, _, count), (bins, _, _) in zip(LAYOUT, spans()):
        turn = np.where(np.arange(bins.start, bins.stop) % 2, -1.0, 1.0).astype(np.float32)
        past = [(CONTEXT - lag, LAST if lag == 0 else -lag) for lag in range(count)]
        loud, real, imaginary = (part(g, x, bins.start, bins.stop, 2) for x in (magnitude, *phase))
        found = [part(g, loud, *span, 1) for span in past]
        turns = [[part(g, x, *span, 1) for x in (real, imaginary)] for span in past]
        for lag in range(1, count):
            found += product(turns[0], turns[lag], turn ** lag)
        low = [part(g, part(g, x, bins.start - 1, bins.stop - 1, 2), CONTEXT, LAST, 1) for x in phase]
        found += product(turns[0], low, np.float32(-1.0))
        result += [g("Mul", g("Concat", *(g("Unsqueeze", y, g.indices(2)) for y in found), axis=2), level)]
    return result


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
    y = g("Relu", linear(g, layers.narrow, g("Reshape", y, g.indices(0, 0, BANDS * SQUEEZED))))
    y, last = g("GRU", y, g.constant(gates("weight_ih")[None]), g.constant(gates("weight_hh")[None]),
                g.constant(biases[None]), "", "memory_in", outputs=2, hidden_size=HIDDEN, linear_before_reset=1)
    g("Identity", last, name="memory_out")
    y = g("Relu", linear(g, layers.widen, g("Squeeze", y, g.indices(1))))
    y = g("Transpose", g("Reshape", y, g.indices(0, 0, BANDS, SQUEEZED)), perm=[2, 0, 1, 3])
    return g("Add", x, linear(g, layers.spread, y))


def in_bands(g, bands, weights):
    """The product of each band and its own weights: [band, row, ...]."""
    return g("Concat", *(g("MatMul", x, g.constant(values(w))) for x, w in zip(bands, weights)), axis=0)


def classes(g, network, x, direct, windows):
    """The output from `x` [band, sequence, channel, WIDTH] and what the bands begin with. The softmax is written with
    differences from Rest; the limit keeps the exponential finite."""
    named = len(CLASSES)
    x = g("Reshape", norm(g, network.norm, x), g.indices(BANDS, -1, WIDTH))
    x = dense(g, x, values(network.leave), values(network.leave_bias))
    x = silu(g, g("Add", x, in_bands(g, direct, network.direct)))
    sequence = g("Shape", "input", start=1, end=2)
    rows = g("Split", x, g.indices(*(count for count, _, _ in LAYOUT)), axis=0, outputs=len(LAYOUT))
    result = []
    for y, last, bias, (count, width, taps), (bins, _, outputs) in zip(rows, network.last, network.last_bias, LAYOUT,
                                                                      spans()):
        y = dense(g, y, values(last), values(bias))
        y = g("Reshape", y, g("Concat", g.indices(count), sequence, g.indices(-1, outputs, width), axis=0))
        y = g("Reshape", g("Transpose", y, perm=[3, 2, 1, 0, 4]), g.indices(0, 0, 0, count * width))
        if not result:
            y, bins = g("Concat", part(g, y, 0, 1, 3), y, axis=3), slice(0, bins.stop)
        rest = part(g, y, named, named + 1, 0)
        odds = g("Exp", g("Min", g("Sub", part(g, y, 0, named, 0), rest), g.constant(80.0)))
        shares = g("Div", odds, g("Add", g("ReduceSum", odds, g.indices(0)), g.constant(1.0)))
        sums, sound = [[], []], [part(g, z, bins.start, bins.stop, 2) for z in parts(g, windows)]
        for tap in range(taps):
            first = named + 1 + 2 * named * tap
            a, b = part(g, y, first, first + named, 0), part(g, y, first + named, first + 2 * named, 0)
            if tap == 0:
                a = g("Add", a, shares)
            re, im = (part(g, z, CONTEXT - tap, LAST if tap == 0 else -tap, 1) for z in sound)
            sums[0] += [g("Sub", g("Mul", a, re), g("Mul", b, im))]
            sums[1] += [g("Add", g("Mul", a, im), g("Mul", b, re))]
        result += [g("Concat", *(g("Unsqueeze", g("Sum", *terms), g.indices(4)) for terms in sums), axis=4)]
    g("Concat", *result, axis=3, name="output")     # [class, channel, sequence, bin, 2]


def build(network):
    g = Graph()
    whole = g("LessOrEqual", g("Abs", "input"), g.constant(LARGEST))
    windows = g("Concat", "windows_in", g("Where", whole, "input", g.constant(0.0)), axis=1)
    g("Slice", windows, g.indices(-CONTEXT), g.indices(LAST), g.indices(1), name="windows_out")

    bands = []
    for y, (count, width, _), (_, number, _) in zip(features(g, windows), LAYOUT, spans()):
        y = g("Reshape", g("Sub", y, g.constant(CENTRE)), g.indices(0, 0, number, count, width))
        bands += [g("Reshape", g("Transpose", y, perm=[3, 1, 0, 2, 4]), g.indices(count, -1, number * width))]
    x = g("Add", in_bands(g, bands, network.enter), g.constant(values(network.enter_bias)))
    sequence = g("Shape", "input", start=1, end=2)
    x = g("Reshape", x, g("Concat", g.indices(BANDS), sequence, g.indices(-1, WIDTH), axis=0))
    for number, layers in enumerate(network.blocks):
        if number == BLOCKS // 2:
            x = memory(g, network.memory, x)
        x = block(g, layers, x, number)
    classes(g, network, x, bands, windows)

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
