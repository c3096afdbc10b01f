#!/usr/bin/python3
"""Writes the trained network as a model for kalvrin.

usage: export.py CHECKPOINT MODEL.onnx
The graph is built node by node from the averaged weights. Its states are the features of the two windows before and
what the recurrent layers and the blocks hold; all start at zero, as in the training. CHECKPOINT may be `untrained`:
the cost is the same.
"""

import pathlib
import sys

import numpy as np
import onnx
import torch
from onnx import helper

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1]))
# pylint: disable=wrong-import-position
from network import (BANDS, BINS, BLOCKS, CLASSES, CONTEXT, EXPONENT, FLOOR, HIDDEN, HOP, LAYERS, SAMPLE_RATE,
                     STRIDES, UNITS, WIDTH, WIDTHS, Separator)
from onnx_model import Graph, make_model, tensor

POWER_LIMIT = 1e12   # more, or no number at all, is a broken window and must not enter the states
LAST = np.iinfo(np.int64).max


def values(parameter):
    return parameter.detach().numpy()


def memory(graph, network, layer, x):
    """`x` [sequence, channel, HIDDEN] to the same. The gates are ordered reset, update, new in the network and update,
    reset, new in the graph."""
    def gates(kind):
        reset, update, new = np.split(values(getattr(network.memory, f"{kind}_l{layer}")), 3)
        return np.concatenate([update, reset, new])
    biases = np.concatenate([gates("bias_ih"), gates("bias_hh")])
    y, last = graph("GRU", x, graph.constant(gates("weight_ih")[None]), graph.constant(gates("weight_hh")[None]),
                    graph.constant(biases[None]), "", f"memory{layer}_in", outputs=2, hidden_size=HIDDEN,
                    linear_before_reset=1)
    graph("Identity", last, name=f"memory{layer}_out")
    return graph("Squeeze", y, graph.indices(1))


def dense(graph, layer, x):
    return graph("Add", graph("MatMul", x, graph.constant(values(layer.weight).T)), graph.constant(values(layer.bias)))


def held(graph, number, gate, added):
    """What a block holds after each window, [sequence, channel * band, UNITS]: h = gate * (h before) + added."""
    step = Graph(f"step{number}_")
    step("Add", step("Mul", "gate", "before"), "added", name="after")
    step("Identity", "after", name="result")
    names = [tensor(name, "rows", UNITS) for name in ("before", "gate", "added", "after", "result")]
    body = helper.make_graph(step.nodes, f"one_window{number}", names[:3], names[3:], step.initializers)
    before = graph("Reshape", f"block{number}_in", graph.indices(-1, UNITS))
    after, results = graph("Scan", before, gate, added, outputs=2, body=body, num_scan_inputs=2)
    graph("Reshape", after, graph("Shape", f"block{number}_in"), name=f"block{number}_out")
    return results


def block(g, network, x, number):
    """`x` [channel, WIDTH, sequence, BANDS] to the same."""
    layers = network.blocks[number]
    y = g("Transpose", x, perm=[2, 0, 3, 1])
    y = g("LayerNormalization", y, g.constant(values(layers.norm.weight)), g.constant(values(layers.norm.bias)),
          axis=-1, epsilon=layers.norm.eps)
    y = g("Reshape", g("Add", y, g.constant(values(layers.place))), g.indices(0, -1, WIDTH))
    gate, new = g("Split", dense(g, layers.inner, y), axis=2, outputs=2)
    gate, new = g("Sigmoid", gate), g("Relu", new)
    y = dense(g, layers.outer, held(g, number, gate, g("Sub", new, g("Mul", gate, new))))
    y = g("Reshape", y, g.indices(0, -1, BANDS, WIDTH))
    return g("Add", x, g("Transpose", y, perm=[1, 3, 0, 2]))


def convolution(graph, layer, x):
    """Over the bands; the first one over the windows, too, which are its input channels in the network."""
    weight = values(layer.weight)[:, :, None]
    if layer.in_channels == CONTEXT + 1:
        weight = weight.transpose(0, 2, 1, 3)
    padding = layer.padding[0]
    return graph("Conv", x, graph.constant(weight), graph.constant(values(layer.bias)),
                 kernel_shape=list(weight.shape[2:]), strides=[1, layer.stride[0]], pads=[0, padding, 0, padding])


def interleave(graph, x, count, channels, bands):
    """[channel, count * feature, sequence, band] to [channel, feature, sequence, band * count]."""
    x = graph("Reshape", x, graph.indices(0, count, channels, -1, bands))
    x = graph("Transpose", x, perm=[0, 2, 3, 4, 1])
    return graph("Reshape", x, graph.indices(0, channels, -1, bands * count))


def classes(g, layer, x):
    """The output from what the last convolution makes: each share twice, for real and imaginary part of a bin. Their
    softmax is written with differences from Rest; the limit keeps the exponential finite."""
    doubled = torch.nn.Conv1d(layer.in_channels, 2 * layer.out_channels, layer.kernel_size, padding=layer.padding)
    with torch.no_grad():
        for mine, theirs in zip(doubled.parameters(), layer.parameters()):
            parts = theirs.reshape(STRIDES[0], 1, len(CLASSES) + 1, *theirs.shape[1:])
            mine.copy_(parts.expand(-1, 2, *parts.shape[2:]).reshape(mine.shape))
    x = interleave(g, convolution(g, doubled, x), 2 * STRIDES[0], len(CLASSES) + 1, (BINS - 1) // STRIDES[0])
    named = g("Slice", x, g.indices(0), g.indices(len(CLASSES)), g.indices(1))
    rest = g("Slice", x, g.indices(len(CLASSES)), g.indices(LAST), g.indices(1))
    odds = g("Exp", g("Min", g("Sub", named, rest), g.constant(80.0)))
    total = g("Add", g("Sum", *g("Split", odds, axis=1, outputs=len(CLASSES))), g.constant(1.0))
    shares = g("Transpose", g("Div", odds, total), perm=[1, 0, 2, 3])
    lowest = g("Slice", shares, g.indices(0), g.indices(2), g.indices(3))
    shares = g("Concat", lowest, shares, axis=3)
    product = g("Mul", shares, g("Reshape", "input", g.indices(0, -1, 2 * BINS)))
    g("Reshape", product, g.indices(0, 0, -1, BINS, 2), name="output")


def build(network):
    g = Graph()

    # Features, with the past ones in front: [channel, 1, CONTEXT + sequence, bin]
    raw = g("ReduceSumSquare", "input", axes=[3], keepdims=0)
    power = g("Where", g("LessOrEqual", raw, g.constant(POWER_LIMIT)), raw, g.constant(0.0))
    power = g("Slice", power, g.indices(1), g.indices(LAST), g.indices(2))
    x = g("Pow", g("Add", power, g.constant(FLOOR)), g.constant(EXPONENT))
    x = g("Mul", g("Sub", x, g.constant(values(network.mean))), g.constant(values(network.scale)))
    x = g("Concat", "features_in", x, axis=1)
    g("Slice", x, g.indices(-CONTEXT), g.indices(LAST), g.indices(1), name="features_out")

    first = g("Relu", convolution(g, network.encoder[0], g("Unsqueeze", x, g.indices(1))))
    second = block(g, network, g("Relu", convolution(g, network.encoder[1], first)), 0)
    third = g("Relu", convolution(g, network.encoder[2], second))

    bands = BANDS // STRIDES[2]
    rows = g("Reshape", g("Transpose", third, perm=[2, 0, 1, 3]), g.indices(0, 0, WIDTHS[2] * bands))
    x = hidden = g("Relu", dense(g, network.narrow, rows))
    for layer in range(LAYERS):
        x = memory(g, network, layer, x)
    x = g("Relu", dense(g, network.widen, g("Add", hidden, x)))
    x = g("Transpose", g("Reshape", x, g.indices(0, 0, WIDTHS[2], bands)), perm=[1, 2, 0, 3])

    x = interleave(g, convolution(g, network.decoder[0], g("Add", x, third)), STRIDES[2], WIDTHS[1], bands)
    x = block(g, network, g("Relu", x), 1)
    x = interleave(g, convolution(g, network.decoder[1], g("Add", x, second)), STRIDES[1], WIDTHS[0], BANDS)
    classes(g, network.decoder[2], g("Add", g("Relu", x), first))

    states = [("features", ("channels", CONTEXT, BINS - 1))]
    states += [(f"memory{layer}", (1, "channels", HIDDEN)) for layer in range(LAYERS)]
    states += [(f"block{number}", ("channels", BANDS, UNITS)) for number in range(BLOCKS)]
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
