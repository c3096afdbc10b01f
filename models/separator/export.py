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
from network import (BANDS, BINS, BLOCKS, CENTRE, CLASSES, CONTEXT, DECAY, EXPONENT, FEATURES, FLOOR, HIDDEN, HOP,
                     INNER, LAYOUT, OUTPUTS, SAMPLE_RATE, SQUEEZED, TAPS, UNITS, WIDTH, Separator)
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


def lagged(g, x, lag):
    """Of [channel, CONTEXT + sequence, ...] the windows that are `lag` before those of the input."""
    return part(g, x, CONTEXT - lag, LAST if lag == 0 else -lag, 1)


def stack(g, found):
    """[channel, sequence, bin] each, to [channel, sequence, one of them, bin]."""
    return g("Concat", *(g("Unsqueeze", x, g.indices(2)) for x in found), axis=2)


def features(g, windows):
    """Of `windows` [channel, CONTEXT + sequence, bin, 2]: [channel, sequence, feature, bin] from bin 1 on."""
    log_power = g("Log", g("Add", g("ReduceSumSquare", windows, axes=[3], keepdims=0), g.constant(FLOOR)))
    magnitude = part(g, g("Exp", g("Mul", log_power, g.constant(EXPONENT))), 1, LAST, 2)
    scale = g("Unsqueeze", g("Exp", g("Mul", log_power, g.constant(0.5 * EXPONENT - 0.5))), g.indices(3))
    mean = g("ReduceMean", lagged(g, magnitude, 0), axes=[2])
    step = g("Concat", mean, g("Add", g("Mul", mean, g.constant(0.0)), g.constant(1.0)), axis=2)
    after, sums = scan(g, "level", ("channels", 2), "level_in", [step], lambda inner, before, new: inner(
        "Add", inner("Mul", before, inner.constant(DECAY)), new))
    g("Identity", after, name="level_out")
    total, weight = g("Split", sums, axis=2, outputs=2)

    turn = np.where(np.arange(1, BINS) % 2, -1.0, 1.0)
    signs = g.constant(np.stack([turn ** lag for lag in range(1, TAPS)] + [-np.ones(BINS - 1)]))
    now, others = [], []
    for x in parts(g, g("Mul", windows, scale)):
        high = part(g, x, 1, LAST, 2)
        found = [lagged(g, high, lag) for lag in range(TAPS)] + [lagged(g, part(g, x, 0, -1, 2), 0)]
        now.append(stack(g, found[:1]))
        others.append(g("Mul", stack(g, found[1:]), signs))
    real = g("Add", g("Mul", now[0], others[0]), g("Mul", now[1], others[1]))
    imaginary = g("Sub", g("Mul", now[1], others[0]), g("Mul", now[0], others[1]))
    loud = stack(g, [lagged(g, magnitude, lag) for lag in range(TAPS)])
    return g("Mul", g("Concat", loud, real, imaginary, axis=2), g("Unsqueeze", g("Div", weight, total), g.indices(3)))


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


def enter(g, network, x):
    """Of [channel, sequence, feature, bin] what the first layers of the bands make, to WIDTH and to INNER features:
    [band, sequence, channel, ...]."""
    x = g("Split", g("Sub", x, g.constant(CENTRE)), g.indices(*(count * bins for count, bins in LAYOUT)), axis=3,
          outputs=len(LAYOUT))
    bands = []
    for y, (count, bins), *weights in zip(x, LAYOUT, network.enter, network.direct):
        y = g("Transpose", g("Reshape", y, g.indices(0, 0, FEATURES, count, bins)), perm=[3, 1, 0, 2, 4])
        y = g("Reshape", y, g.indices(0, 0, 0, FEATURES * bins))
        weights = np.concatenate([values(w) for w in weights], axis=2)
        bands.append(g("MatMul", y, g.constant(weights[:, None])))
    bias = np.concatenate([values(network.enter_bias), values(network.leave_bias)], axis=2)
    x = g("Add", g("Concat", *bands, axis=0), g.constant(bias[:, None]))
    return g("Split", x, g.indices(WIDTH, INNER), axis=3, outputs=2)


def classes(g, network, x, direct, windows):
    """The output from `x` [band, sequence, channel, WIDTH] and what the bands begin with. The softmax is written with
    differences from Rest; the limit keeps the exponential finite."""
    named = len(CLASSES)
    x = g("MatMul", norm(g, network.norm, x), g.constant(values(network.leave)[:, None]))
    x = g("Split", silu(g, g("Add", x, direct)), g.indices(*(count for count, _ in LAYOUT)), axis=0,
          outputs=len(LAYOUT))
    rows = []
    for y, (count, bins), *layer in zip(x, LAYOUT, network.last, network.last_bias):
        y = dense(g, y, *(values(w)[:, None] for w in layer))
        y = g("Transpose", g("Reshape", y, g.indices(0, 0, 0, OUTPUTS, bins)), perm=[3, 2, 1, 0, 4])
        rows.append(g("Reshape", y, g.indices(0, 0, 0, count * bins)))
    y = g("Concat", part(g, rows[0], 0, 1, 3), *rows, axis=3)     # [output, channel, sequence, bin]
    shares, rest, *factors = g("Split", y, g.indices(named, 1, *[named] * 2 * TAPS), axis=0, outputs=2 + 2 * TAPS)
    odds = g("Exp", g("Min", g("Sub", shares, rest), g.constant(80.0)))
    shares = g("Div", odds, g("Add", g("ReduceSum", odds, g.indices(0)), g.constant(1.0)))
    factors[0] = g("Add", factors[0], shares)
    sound, sums = parts(g, windows), [[], []]
    for tap in range(TAPS):
        a, b = factors[2 * tap:2 * tap + 2]
        re, im = (lagged(g, x, tap) for x in sound)
        sums[0].append(g("Sub", g("Mul", a, re), g("Mul", b, im)))
        sums[1].append(g("Add", g("Mul", a, im), g("Mul", b, re)))
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
