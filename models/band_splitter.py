#!/usr/bin/python3
"""Splits audio into three bands: Low, Voice, High. A model on samples, without state or lookahead.

The library gives a model on samples untapered windows x of W samples and multiplies what comes back by
a periodic Hann window h before overlap-add. A band taken from an untapered window would smear its two
cut ends over the whole window, so each band's matrix brings its own taper, the square root s of h:

    P[band] = diag(1/s) inverseDFT diag(mask[band]) DFT diag(s)

Behind the library's window h = s^2 that is s inverseDFT mask DFT s: taper, mask, taper. The masks are
real, so phases stay, and they sum to 1, so the bands sum to the input and nothing remains for "Rest".
"""

import numpy as np

from onnx_model import Graph, make_model, tensor, write

SAMPLE_RATE = 16000
WINDOW = 512
CLASSES = ("Low", "Voice", "High")
CROSSOVERS_HZ = (300.0, 3400.0)
CROSSOVER_OCTAVES = 0.8


def masks():
    """[band, bin]: raised-cosine crossovers over log frequency that sum to 1 in every bin."""
    hz = np.arange(WINDOW // 2 + 1) * SAMPLE_RATE / WINDOW
    octaves = np.log2(np.maximum(hz, 1.0))[None, :] - np.log2(CROSSOVERS_HZ)[:, None]
    above = 0.5 - 0.5 * np.cos(np.pi * np.clip(octaves / CROSSOVER_OCTAVES + 0.5, 0.0, 1.0))
    return np.stack([1.0 - above[0], above[0] - above[1], above[1]])


def matrices():
    """[band, W, W]: P of each band. Sample 0 has weight 0 behind the model and is left out."""
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
