#!/usr/bin/python3
"""Writes the trained network as a model for kalvrin.

usage: export.py CHECKPOINT MODEL.onnx
The graph is built node by node from the weights. Its states are the features of the two windows before
and what the recurrent layers hold; all start at zero, as in the training.
"""

import math
import pathlib
import sys

import numpy as np
import onnx
import torch

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1]))
# pylint: disable=wrong-import-position
from network import (BINS, CLASSES, CONTEXT, EXPONENT, FLOOR, HIDDEN, HOP, LAYERS, SAMPLE_RATE, STRIDES,
                     WIDTHS, Separator)
from onnx_model import Graph, make_model, tensor

POWER_LIMIT = 1e12   # more, or no number at all, is a broken window and must not enter the states


def values(parameter):
    return parameter.detach().numpy()


def recurrent(graph, network, layer, x, name):
    """`x` [sequence, channel, HIDDEN] to the same. The gates are ordered reset, update, new in the
    network and update, reset, new in the graph."""
    def gates(kind):
        reset, update, new = np.split(values(getattr(network.memory, f"{kind}_l{layer}")), 3)
        return np.concatenate([update, reset, new])
    biases = np.concatenate([gates("bias_ih"), gates("bias_hh")])
    node = graph("GRU", x, graph.constant(gates("weight_ih")[None]), graph.constant(gates("weight_hh")[None]),
                 graph.constant(biases[None]), "", f"{name}_in", outputs=2, hidden_size=HIDDEN,
                 linear_before_reset=1)
    graph("Identity", node[1], name=f"{name}_out")
    return graph("Squeeze", node[0], graph.indices(1))


def dense(graph, layer, x):
    return graph("Gemm", x, graph.constant(values(layer.weight)), graph.constant(values(layer.bias)), transB=1)


def convolution(graph, layer, x):
    return graph("Conv", x, graph.constant(values(layer.weight)), graph.constant(values(layer.bias)),
                 kernel_shape=list(layer.kernel_size), strides=list(layer.stride),
                 pads=list(layer.padding) * 2)


def build(network):
    g = Graph()
    last = np.iinfo(np.int64).max

    # Features, with the past ones in front: [channel, CONTEXT + sequence, bin]
    raw = g("ReduceSumSquare", "input", axes=[3], keepdims=0)
    power = g("Where", g("LessOrEqual", raw, g.constant(POWER_LIMIT)), raw, g.constant(0.0))
    power = g("Slice", power, g.indices(1), g.indices(last), g.indices(2))
    x = g("Pow", g("Add", power, g.constant(FLOOR)), g.constant(EXPONENT))
    x = g("Mul", g("Sub", x, g.constant(values(network.mean))), g.constant(values(network.scale)))
    x = g("Concat", "features_in", x, axis=1)
    g("Slice", x, g.indices(-CONTEXT), g.indices(last), g.indices(1), name="features_out")

    # One row per channel and window: [channel * sequence, CONTEXT + 1, bin]
    shifted = [g("Slice", x, g.indices(i), g.indices(i - CONTEXT if i < CONTEXT else last), g.indices(1))
               for i in range(CONTEXT + 1)]
    x = g("Concat", *(g("Unsqueeze", part, g.indices(2)) for part in shifted), axis=2)
    x = g("Reshape", x, g.indices(-1, CONTEXT + 1, BINS - 1))

    levels = []
    for layer in network.encoder:
        x = g("Relu", convolution(g, layer, x))
        levels.append(x)

    bins = (BINS - 1) // math.prod(STRIDES)
    flat = WIDTHS[-1] * bins
    outer = g("Slice", g("Shape", "input"), g.indices(0), g.indices(2), g.indices(0))
    hidden = g("Relu", dense(g, network.narrow, g("Reshape", x, g.indices(-1, flat))))
    x = g("Reshape", hidden, g("Concat", outer, g.indices(HIDDEN), axis=0))
    x = g("Transpose", x, perm=[1, 0, 2])
    for layer in range(LAYERS):
        x = recurrent(g, network, layer, x, f"memory{layer}")
    x = g("Reshape", g("Transpose", x, perm=[1, 0, 2]), g.indices(-1, HIDDEN))
    x = g("Relu", dense(g, network.widen, g("Add", hidden, x)))
    x = g("Reshape", x, g.indices(-1, WIDTHS[-1], bins))

    for layer, level, stride in zip(network.decoder, reversed(levels), reversed(STRIDES)):
        if layer is not network.decoder[0]:
            x = g("Relu", x)
        x = convolution(g, layer, g("Add", x, level))
        width = layer.out_channels // stride
        x = g("Transpose", g("Reshape", x, g.indices(0, stride, width, bins)), perm=[0, 2, 3, 1])
        bins *= stride
        x = g("Reshape", x, g.indices(0, width, bins))

    shares = g("Softmax", x, axis=1)
    shares = g("Slice", shares, g.indices(0), g.indices(len(CLASSES)), g.indices(1))
    lowest = g("Slice", shares, g.indices(0), g.indices(1), g.indices(2))
    shares = g("Concat", lowest, shares, axis=2)
    shares = g("Reshape", shares, g("Concat", outer, g.indices(len(CLASSES), BINS), axis=0))
    shares = g("Unsqueeze", g("Transpose", shares, perm=[2, 0, 1, 3]), g.indices(4))
    g("Mul", shares, "input", name="output")

    states = [("features", ("channels", CONTEXT, BINS - 1))]
    states += [(f"memory{layer}", (1, "channels", HIDDEN)) for layer in range(LAYERS)]
    return make_model(
        g,
        [tensor("input", "channels", "sequence", BINS, 2)] +
        [tensor(f"{name}_in", *shape) for name, shape in states],
        [tensor("output", len(CLASSES), "channels", "sequence", BINS, 2)] +
        [tensor(f"{name}_out", *shape) for name, shape in states],
        name="Speech and music", sample_rate=SAMPLE_RATE, classes=CLASSES, overlap=HOP, sequence_size=4)


def load(checkpoint):
    network = Separator()
    network.load_state_dict(torch.load(checkpoint, map_location="cpu")["model"])
    return network.eval()


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    onnx.save(build(load(sys.argv[1])), sys.argv[2])
