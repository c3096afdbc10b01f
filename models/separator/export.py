#!/usr/bin/python3
"""Writes the trained network as a model for kalvrin.

usage: export.py CHECKPOINT MODEL.onnx
The graph is built node by node from the averaged weights. Its states are the windows of the past and what the
layers along time hold; all start at zero, as in the training. CHECKPOINT may be `untrained`: the cost is the same.
"""

import pathlib
import sys

import numpy as np
import onnx
import torch

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1]))
# pylint: disable=wrong-import-position
from network import (ACROSS, BANDS, BINS, BLOCKS, CLASSES, EXPONENT, FINE, FLOOR, HOP, LIMIT, NARROW, SAMPLE_RATE,
                     TAPS, WIDTH, Separator)
from onnx_model import Graph, make_model, tensor

POWER_LIMIT = 1e12   # more, or no number at all, is a broken window: it counts as silence
LAST = np.iinfo(np.int64).max


def values(parameter):
    return parameter.detach().numpy()


def gates(parameter):
    """Reset, update, new in the network; update, reset, new in the graph."""
    reset, update, new = np.split(values(parameter), 3)
    return np.concatenate([update, reset, new])


def recurrent(graph, layer, x, state=""):
    """A layer over `x` [step, row, feature]: the results [step, direction, row, unit] and the last state."""
    endings = ("", "_reverse") if layer.bidirectional else ("",)
    weights = [np.stack([gates(getattr(layer, f"weight_{kind}_l0{end}")) for end in endings]) for kind in ("ih", "hh")]
    biases = np.stack([np.concatenate([gates(getattr(layer, f"bias_{kind}_l0{end}")) for kind in ("ih", "hh")])
                       for end in endings])
    return graph("GRU", x, *(graph.constant(w) for w in weights), graph.constant(biases), "", state, outputs=2,
                 hidden_size=layer.hidden_size, linear_before_reset=1,
                 direction="bidirectional" if layer.bidirectional else "forward")


def dense(graph, layer, x):
    return graph("Add", graph("MatMul", x, graph.constant(values(layer.weight).T)), graph.constant(values(layer.bias)))


def norm(graph, layer, x):
    return graph("LayerNormalization", x, graph.constant(values(layer.weight)), graph.constant(values(layer.bias)),
                 axis=-1, epsilon=layer.eps)


def convolution(graph, layer, x):
    return graph("Conv", x, graph.constant(values(layer.weight)), graph.constant(values(layer.bias)),
                 kernel_shape=list(layer.kernel_size), strides=list(layer.stride), pads=list(layer.padding) * 2)


def interleave(graph, x, count, channels, bands):
    """[row, count * channel, sequence, band] to [row, channel, sequence, band * count]."""
    x = graph("Reshape", x, graph.indices(0, count, channels, -1, bands))
    x = graph("Transpose", x, perm=[0, 2, 3, 4, 1])
    return graph("Reshape", x, graph.indices(0, channels, -1, bands * count))


def block(g, network, x, number):
    """`x` [band, sequence, channel, WIDTH] to the same. A block of the network, with its state."""
    layers, name = network.blocks[number], f"along{number}"
    shape = g("Shape", x)
    rows = g("Reshape", norm(g, layers.norm_across, x), g.indices(BANDS, -1, WIDTH))
    y = g("Transpose", recurrent(g, layers.across, rows)[0], perm=[0, 2, 1, 3])
    y = dense(g, layers.out_across, g("Reshape", y, g.indices(BANDS, -1, 2 * ACROSS)))
    x = g("Add", x, g("Reshape", y, shape))
    swapped = g("Transpose", norm(g, layers.norm_along, x), perm=[1, 0, 2, 3])
    state = g("Reshape", f"{name}_in", g.indices(1, -1, WIDTH))
    # [sequence, band * channel, WIDTH]; 0 keeps the sequence
    y, after = recurrent(g, layers.along, g("Reshape", swapped, g.indices(0, -1, WIDTH)), state)
    g("Reshape", after, g("Shape", f"{name}_in"), name=f"{name}_out")
    y = g("Reshape", dense(g, layers.out_along, g("Squeeze", y, g.indices(1))), g("Shape", swapped))
    return g("Add", x, g("Transpose", y, perm=[1, 0, 2, 3]))


def filtered(g, factors, heard):
    """The classes [class, channel, sequence, bin, 2]: `factors` [channel, tap * class * 2, sequence, BINS] on
    `heard` [channel, 2, TAPS - 1 + sequence, BINS]."""
    sums = []
    for tap in range(TAPS):
        window = g("Slice", heard, g.indices(tap), g.indices(tap - TAPS + 1 if tap + 1 < TAPS else LAST), g.indices(2))
        real, imaginary = g("Split", window, axis=1, outputs=2)
        part = g("Slice", factors, g.indices(tap * len(CLASSES) * 2), g.indices((tap + 1) * len(CLASSES) * 2),
                 g.indices(1))
        a = g("Slice", part, g.indices(0), g.indices(LAST), g.indices(1), g.indices(2))
        b = g("Slice", part, g.indices(1), g.indices(LAST), g.indices(1), g.indices(2))
        sums.append((g("Sub", g("Mul", a, real), g("Mul", b, imaginary)),
                     g("Add", g("Mul", a, imaginary), g("Mul", b, real))))
    both = [g("Unsqueeze", g("Sum", *parts), g.indices(4)) for parts in zip(*sums)]
    g("Transpose", g("Concat", *both, axis=4), perm=[1, 0, 2, 3, 4], name="output")


def build(network):
    g = Graph()
    heard = g("Concat", "past_in", "input", axis=1)
    whole = g("LessOrEqual", g("ReduceSumSquare", heard, axes=[3], keepdims=1), g.constant(POWER_LIMIT))
    heard = g("Where", whole, heard, g.constant(0.0))
    g("Slice", heard, g.indices(1 - TAPS), g.indices(LAST), g.indices(1), name="past_out")
    heard = g("Transpose", heard, perm=[0, 3, 1, 2])

    x = g("Slice", heard, g.indices(1), g.indices(LAST), g.indices(3))
    power = g("Add", g("ReduceSumSquare", x, axes=[1], keepdims=1), g.constant(FLOOR))
    scale = g("Pow", power, g.constant((EXPONENT - 1.0) / 2.0))
    x = g("Concat", g("Mul", x, scale), g("Mul", g("Sqrt", power), scale), axis=1)

    fine = g("Relu", convolution(g, network.first, x))
    coarse = g("Relu", convolution(g, network.second, fine))
    x = g("Add", g("Transpose", coarse, perm=[3, 2, 0, 1]), g.constant(values(network.place)))
    for number in range(BLOCKS):
        x = block(g, network, x, number)
    x = g("Add", g("Transpose", x, perm=[2, 3, 1, 0]), coarse)
    x = g("Relu", interleave(g, convolution(g, network.widen, x), 2, NARROW, BANDS))
    x = convolution(g, network.filters, g("Add", x, fine))
    x = g("Mul", g("Tanh", interleave(g, x, 4, 2 * len(CLASSES) * TAPS, FINE)), g.constant(LIMIT))
    lowest = g("Slice", x, g.indices(0), g.indices(1), g.indices(3))
    filtered(g, g("Concat", lowest, x, axis=3), heard)

    states = [("past", ("channels", TAPS - 1, BINS, 2))]
    states += [(f"along{number}", (BANDS, "channels", WIDTH)) for number in range(BLOCKS)]
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
