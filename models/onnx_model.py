"""What all recipes share: the names and metadata that make an ONNX graph a model for kalvrin.

docs/model-contract.md has the whole contract. In short: input 0 is called "input", output 0 "output", both float32.
For i from 1 on, input i and output i are one recurrent state. A dimension with a name is free.
"""

import json
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

OPSET = 17
IR_VERSION = 8


class Graph:
    """Collects nodes and constants; every operation returns the name of its result."""

    def __init__(self, prefix=""):
        self.nodes = []
        self.initializers = []
        self.prefix = prefix

    def __call__(self, op, *inputs, outputs=1, name=None, **attributes):
        """Adds one node. `name` is that of its first result, or a list for several; where it is None, or the list is
        shorter, a result gets a new name."""
        stem = f"{self.prefix}{op.lower()}_{len(self.nodes)}"
        results = [stem if i == 0 else f"{stem}_{i}" for i in range(outputs)]
        for i, given in enumerate(name if isinstance(name, list) else [name]):
            results[i] = given or results[i]
        self.nodes.append(helper.make_node(op, list(inputs), results, **attributes))
        return results[0] if outputs == 1 else results

    def constant(self, values, dtype=np.float32):
        name = f"{self.prefix}constant_{len(self.initializers)}"
        self.initializers.append(numpy_helper.from_array(np.asarray(values, dtype), name))
        return name

    def indices(self, *values):
        """A list of integers, for operators that take shapes, axes or positions as an input."""
        return self.constant(values, np.int64)


def tensor(name, *shape):
    """A float tensor; a string in the shape is a free dimension."""
    return helper.make_tensor_value_info(name, TensorProto.FLOAT, list(shape))


def make_model(graph, inputs, outputs, *, name, sample_rate, classes, lookahead=0, overlap=0,
               sequence_size=0, bindings=(), window_shape=None, licence="Apache-2.0"):
    """Returns the model after ONNX's checker has passed it. `classes` are in the order of the output's class axis;
    `bindings` are pairs of a channel number and a class name; `window_shape` is the contract's WindowShape, None for
    the library's own windows."""
    model = helper.make_model(
        helper.make_graph(graph.nodes, "kalvrin", inputs, outputs, graph.initializers),
        producer_name="kalvrin models", ir_version=IR_VERSION,
        opset_imports=[helper.make_opsetid("", OPSET)])
    helper.set_model_props(model, {
        "Name": name,
        "SampleRate": json.dumps(sample_rate),
        "LookaheadNumBlocks": json.dumps(lookahead),
        "OverlapInSamples": json.dumps(overlap),
        "BaselineSequenceSize": json.dumps(sequence_size),
        "AudioClassNames": json.dumps(list(classes)),
        "ChannelToAudioClassBindings": json.dumps([list(pair) for pair in bindings]),
        "License": licence,
        **({"WindowShape": json.dumps(window_shape)} if window_shape else {}),
    })
    onnx.checker.check_model(model, full_check=True)
    return model


def write(build):
    """The main program of a recipe: NAME.py FILE.onnx"""
    if len(sys.argv) != 2:
        sys.exit(f"usage: {sys.argv[0]} FILE.onnx")
    onnx.save(build(), sys.argv[1])
