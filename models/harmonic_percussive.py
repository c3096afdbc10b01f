#!/usr/bin/python3
"""Splits music into what sounds on (Harmonic) and what hits (Percussive); what is clearly neither
remains ("Rest"). A model on spectra with lookahead and a recurrent state; nothing is trained.

A held tone is a line along time in the spectrogram, a hit is a line along frequency. With |X|^2 the
power of a bin, H its median over the 2 * REACH_WINDOWS + 1 windows around it and P its median over the
2 * REACH_BINS + 1 bins around it:

    Harmonic   H / (H + M P) X        Percussive   P / (P + M H) X

The margin M leaves to "Rest" what neither median explains. The windows to come are lookahead; those
that have gone by are the state. After D. Fitzgerald, "Harmonic/percussive separation using median
filtering" (2010), and J. Driedger, M. Mueller and S. Disch, "Extending harmonic-percussive separation of
audio signals" (2014).
"""

import numpy as np

from onnx_model import Graph, make_model, tensor, write

SAMPLE_RATE = 16000
WINDOW = 1024
BINS = WINDOW // 2 + 1
CLASSES = ("Harmonic", "Percussive")

REACH_WINDOWS = 3  # to either side: 7 windows are 224 ms
REACH_BINS = 10    # to either side: 21 bins are 328 Hz
MARGIN = 4.0       # on powers: 6 dB
FAINT = 1e-9       # power added below the fraction line, far under 16-bit rounding (4e-8)


def define(spectra):
    """The definition in double: complex [channel, time, bin] to [class, channel, time, bin]. Time
    before and after is silence."""
    power = np.abs(spectra) ** 2
    in_time = np.pad(power, ((0, 0), (REACH_WINDOWS, REACH_WINDOWS), (0, 0)))
    in_frequency = np.pad(power, ((0, 0), (0, 0), (REACH_BINS, REACH_BINS)), mode="reflect")
    sliding = np.lib.stride_tricks.sliding_window_view
    h = np.median(sliding(in_time, 2 * REACH_WINDOWS + 1, axis=1), axis=-1)
    p = np.median(sliding(in_frequency, 2 * REACH_BINS + 1, axis=2), axis=-1)
    return np.stack([h / (h + MARGIN * p + FAINT) * spectra, p / (p + MARGIN * h + FAINT) * spectra])


def sliding_median(g, values, axis, reach):
    """The median over 2 * reach + 1 neighbours along `axis`, which gets shorter by 2 * reach."""
    shifted = []
    for i in range(2 * reach + 1):
        end = i - 2 * reach if i < 2 * reach else np.iinfo(np.int64).max
        part = g("Slice", values, g.indices(i), g.indices(end), g.indices(axis))
        shifted.append(g("Unsqueeze", part, g.indices(3)))
    upper, _ = g("TopK", g("Concat", *shifted, axis=3), g.indices(reach + 1), outputs=2, axis=3)
    return g("Squeeze", g("Slice", upper, g.indices(reach), g.indices(reach + 1), g.indices(3)),
             g.indices(3))


def build():
    g = Graph()
    time = g.indices(1)
    before_lookahead = g.indices(-REACH_WINDOWS)

    # the windows gone by, the sequence, the lookahead
    power = g("ReduceSumSquare", "input", axes=[3], keepdims=0)
    all_windows = g("Concat", "past_in", power, axis=1)
    g("Slice", all_windows, g.indices(-2 * REACH_WINDOWS), before_lookahead, time, name="past_out")

    present = g("Slice", power, g.indices(0), before_lookahead, time)
    mirrored = g("Pad", present, g.indices(0, 0, REACH_BINS, 0, 0, REACH_BINS), mode="reflect")
    h = sliding_median(g, all_windows, 1, REACH_WINDOWS)
    p = sliding_median(g, mirrored, 2, REACH_BINS)

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
