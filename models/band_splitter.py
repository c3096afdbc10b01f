#!/usr/bin/python3
"""Splits audio into three bands: Low, Voice, High. A model on samples, without state or lookahead.

A model on samples gets windows x of W samples without a taper. The library multiplies the model's output by a
periodic Hann window h and overlap-adds. To filter a window without a taper would spread the jumps at its two ends
over the whole window. So the matrix of each band has a taper of its own, s, the square root of h:

    P[band] = diag(1/s) inverseDFT diag(mask[band]) DFT diag(s)

With the library's window h = s^2 this becomes s inverseDFT mask DFT s: taper, mask, taper. The masks are real, so
they do not change phases. They sum to 1, so the bands sum to the input and "Rest" is silent.
"""

import numpy as np

from onnx_model import Graph, make_model, tensor, write

SAMPLE_RATE = 16000
WINDOW = 512
CLASSES = ("Low", "Voice", "High")
CROSSOVERS_HZ = (300.0, 3400.0)
CROSSOVER_OCTAVES = 0.8


def masks():
    """[band, bin]: crossovers, a raised cosine over log frequency. The bands sum to 1 in every bin."""
    hz = np.arange(WINDOW // 2 + 1) * SAMPLE_RATE / WINDOW
    octaves = np.log2(np.maximum(hz, 1.0))[None, :] - np.log2(CROSSOVERS_HZ)[:, None]
    above = 0.5 - 0.5 * np.cos(np.pi * np.clip(octaves / CROSSOVER_OCTAVES + 0.5, 0.0, 1.0))
    return np.stack([1.0 - above[0], above[0] - above[1], above[1]])


def matrices():
    """[band, W, W]: P of each band. Row 0 is 0: the library multiplies sample 0 by 0 anyway, and 1/s is infinite there."""
    s = np.sin(np.pi * np.arange(WINDOW) / WINDOW)
    inverse_s = np.divide(1.0, s, out=np.zeros(WINDOW), where=s > 0.0)
    filtered = np.fft.irfft(masks()[:, :, None] * np.fft.rfft(np.diag(s), axis=0), n=WINDOW, axis=1)
    return inverse_s[:, None] * filtered


def define(windows):
    """The definition in double: windows [channel, time, W] to [band, channel, time, W]."""
    return np.einsum("bij,ctj->bcti", matrices(), windows)


def build():
    graph = Graph()
    projection = graph.constant(matrices().transpose(0, 2, 1)[:, None])  # [band, 1, W, W], x P^T
    graph("MatMul", graph("Unsqueeze", "input", graph.indices(0)), projection, name="output")
    return make_model(
        graph, [tensor("input", "channels", "sequence", WINDOW)],
        [tensor("output", len(CLASSES), "channels", "sequence", WINDOW)],
        name="Band splitter", sample_rate=SAMPLE_RATE, classes=CLASSES, overlap=WINDOW // 2,
        sequence_size=1)


if __name__ == "__main__":
    write(build)
