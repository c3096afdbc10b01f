#!/usr/bin/python3
"""Splits music into held tones (Harmonic) and hits (Percussive). What is clearly neither remains ("Rest"). A model on
spectra with lookahead and a recurrent state. Nothing is trained.

In a spectrogram a held tone is a line along time, a hit is a line along frequency. |X|^2 is the power of a bin, H the
median of the powers over the 2 * REACH_WINDOWS + 1 windows around it, P the median over the 2 * REACH_BINS + 1 bins
around it:

    Harmonic   H / (H + M P) X        Percussive   P / (P + M H) X

The margin M leaves to "Rest" what neither median explains. The later windows come from the lookahead, the earlier
ones from the state. Follows D. Fitzgerald, "Harmonic/percussive separation using median
filtering" (2010), and J. Driedger, M. Mueller and S. Disch, "Extending harmonic-percussive separation of
audio signals" (2014).
"""

import numpy as np

from onnx_model import Graph, make_model, tensor, write

SAMPLE_RATE = 16000
WINDOW = 1024
BINS = WINDOW // 2 + 1
CLASSES = ("Harmonic", "Percussive")

REACH_WINDOWS = 3  # on each side: 7 windows are 224 ms
REACH_BINS = 10    # on each side: 21 bins are 328 Hz
MARGIN = 4.0       # of powers: 6 dB
FAINT = 1e-9       # added to the denominator; far below 16-bit rounding (4e-8)


def define(spectra):
    """The definition in double: complex [channel, time, bin] to [class, channel, time, bin]. Before and after the
    recording there is silence."""
    power = np.abs(spectra) ** 2
    in_time = np.pad(power, ((0, 0), (REACH_WINDOWS, REACH_WINDOWS), (0, 0)))
    in_frequency = np.pad(power, ((0, 0), (0, 0), (REACH_BINS, REACH_BINS)), mode="reflect")
    sliding = np.lib.stride_tricks.sliding_window_view
    h = np.median(sliding(in_time, 2 * REACH_WINDOWS + 1, axis=1), axis=-1)
    p = np.median(sliding(in_frequency, 2 * REACH_BINS + 1, axis=2), axis=-1)
    return np.stack([h / (h + MARGIN * p + FAINT) * spectra, p / (p + MARGIN * h + FAINT) * spectra])


def median(g, neighbours, axis, reach):
    """The median of the 2 * reach + 1 values along `axis`; the result has no such axis."""
    upper, _ = g("TopK", neighbours, g.indices(reach + 1), outputs=2, axis=axis)
    return g("Squeeze", g("Slice", upper, g.indices(reach), g.indices(reach + 1), g.indices(axis)),
             g.indices(axis))


def build():
    g = Graph()
    time = g.indices(1)
    before_lookahead = g.indices(-REACH_WINDOWS)

    # All windows in a row: the past ones, the sequence, the lookahead.
    power = g("ReduceSumSquare", "input", axes=[3], keepdims=0)
    all_windows = g("Concat", "past_in", power, axis=1)
    g("Slice", all_windows, g.indices(-2 * REACH_WINDOWS), before_lookahead, time, name="past_out")

    # Axis 2 holds the neighbours in time of each window of the sequence.
    present = g("Slice", power, g.indices(0), before_lookahead, time)
    sequence = g("Gather", g("Shape", present), g.constant(1, np.int64))
    first = g("Range", g.constant(0, np.int64), sequence, g.constant(1, np.int64))
    in_time = g("Add", g("Unsqueeze", first, g.indices(1)), g.indices(*range(2 * REACH_WINDOWS + 1)))
    h = median(g, g("Gather", all_windows, in_time, axis=1), 2, REACH_WINDOWS)

    # Axis 3 holds the neighbours in frequency, mirrored at both ends.
    bins = np.arange(BINS)[:, None] + np.arange(-REACH_BINS, REACH_BINS + 1)
    mirrored = BINS - 1 - np.abs(BINS - 1 - np.abs(bins))
    p = median(g, g("Gather", present, g.constant(mirrored, np.int64), axis=2), 3, REACH_BINS)

    def mask(wanted, other):
        below = g("Add", g("Add", wanted, g("Mul", other, g.constant(MARGIN))), g.constant(FAINT))
        return g("Unsqueeze", g("Div", wanted, below), g.indices(0, 4))

    masks = g("Concat", mask(h, p), mask(p, h), axis=0)
    spectra = g("Slice", "input", g.indices(0), before_lookahead, time)
    g("Mul", g("Unsqueeze", spectra, g.indices(0)), masks, name="output")
    return make_model(
        g,
        [tensor("input", "channels", "sequence_and_lookahead", BINS, 2),
         tensor("past_in", "channels", REACH_WINDOWS, BINS)],
        [tensor("output", len(CLASSES), "channels", "sequence", BINS, 2),
         tensor("past_out", "channels", REACH_WINDOWS, BINS)],
        name="Harmonic and percussive", sample_rate=SAMPLE_RATE, classes=CLASSES, lookahead=REACH_WINDOWS,
        overlap=WINDOW // 2, sequence_size=1)


if __name__ == "__main__":
    write(build)
