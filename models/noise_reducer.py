#!/usr/bin/python3
"""Removes steady noise from speech. The class is Speech; the noise is what remains ("Rest"). A model on spectra with
recurrent states, for any number of channels and any sequence size. Nothing is trained.

For each channel and bin, with Y the spectrum of a window of 32 ms, every 16 ms:

    noise     N <- 0.8 N + 0.2 (p N + (1 - p) |Y|^2)
              p, the probability of speech: 1 / (1 + (1 + a) exp(-|Y|^2 / N * a / (1 + a))), a = 15 dB,
              at most 0.99 where the running average of p is above 0.99
    speech    x = 0.98 S / N + 0.02 max(|Y|^2 / N - 1, 0), at least -15 dB: the ratio of speech to noise
              output x / (1 + x) Y, and S <- the power of that output

N starts as the mean of the first LEAD_FRAMES windows that are not silent. The noise estimate follows T. Gerkmann and R. Hendriks, "Unbiased MMSE-based noise power estimation with low complexity and
low tracking delay" (2012), the ratio follows Y. Ephraim and D. Malah, "Speech enhancement using a minimum
mean-square error short-time spectral amplitude estimator" (1984).
"""

import numpy as np
from onnx import helper

from onnx_model import Graph, make_model, tensor, write

SAMPLE_RATE = 16000
WINDOW = 512
BINS = WINDOW // 2 + 1
CLASSES = ("Speech",)

NOISE_SMOOTHING = 0.8
PRESENCE_SMOOTHING = 0.9
PRESENCE_LIMIT = 0.99
PRIOR = 10.0 ** 1.5
DECISION_DIRECTED = 0.98
RATIO_FLOOR = 10.0 ** -1.5
LEAD_FRAMES = 6.0
SILENCE = 1e-9      # mean power of a bin below which a window counts as silent (16-bit rounding: 2e-8)
POWER_LIMIT = 1e12  # a window with more power, or with NaN, is broken and must not enter the states

# name of the state, its size per channel
STATES = (("noise", BINS), ("presence", BINS), ("speech", BINS), ("frames", 1))


def define(spectra):
    """The definition in double: complex [channel, time, bin] to [class, channel, time, bin]."""
    channels, frames, _ = spectra.shape
    noise, presence, speech = (np.zeros((channels, BINS)) for _ in range(3))
    heard = np.zeros((channels, 1))
    output = np.empty_like(spectra)
    for t in range(frames):
        power = np.abs(spectra[:, t]) ** 2
        power[~(power <= POWER_LIMIT)] = 0.0
        likelihood = np.exp(-power / np.maximum(noise, SILENCE) * PRIOR / (1.0 + PRIOR))
        p = 1.0 / (1.0 + (1.0 + PRIOR) * likelihood)
        presence = PRESENCE_SMOOTHING * presence + (1.0 - PRESENCE_SMOOTHING) * p
        p = np.where(presence > PRESENCE_LIMIT, np.minimum(p, PRESENCE_LIMIT), p)
        tracked = noise + (1.0 - NOISE_SMOOTHING) * (1.0 - p) * (power - noise)
        signal = (power.mean(axis=1, keepdims=True) > SILENCE).astype(float)
        led = noise + signal * (power - noise) / (heard + 1.0)
        noise = np.where(heard < LEAD_FRAMES, led, tracked)
        heard = np.minimum(heard + signal, LEAD_FRAMES)
        floor = np.maximum(noise, SILENCE)
        ratio = np.maximum(DECISION_DIRECTED * speech / floor +
                           (1.0 - DECISION_DIRECTED) * np.maximum(power / floor - 1.0, 0.0), RATIO_FLOOR)
        gain = ratio / (1.0 + ratio)
        speech = gain ** 2 * power
        output[:, t] = gain * spectra[:, t]
    return output[None]


def one_window():
    """The body of the loop over the sequence. It takes states and power [channel, bin] and returns states and gain."""
    g = Graph("step_")
    c = g.constant
    noise, presence, speech, frames = (f"{name}_before" for name, _ in STATES)
    power = "power"

    floor = g("Max", noise, c(SILENCE))
    likelihood = g("Exp", g("Mul", g("Div", power, floor), c(-PRIOR / (1.0 + PRIOR))))
    p = g("Reciprocal", g("Add", g("Mul", likelihood, c(1.0 + PRIOR)), c(1.0)))
    presence_after = g("Add", g("Mul", presence, c(PRESENCE_SMOOTHING)),
                       g("Mul", p, c(1.0 - PRESENCE_SMOOTHING)), name="presence_after")
    p = g("Where", g("Greater", presence_after, c(PRESENCE_LIMIT)), g("Min", p, c(PRESENCE_LIMIT)), p)

    step = g("Sub", power, noise)
    tracked = g("Add", noise, g("Mul", step, g("Mul", g("Sub", c(1.0), p), c(1.0 - NOISE_SMOOTHING))))
    mean = g("ReduceMean", power, axes=[1], keepdims=1)
    signal = g("Where", g("Greater", mean, c(SILENCE)), c(1.0), c(0.0))
    led = g("Add", noise, g("Div", g("Mul", step, signal), g("Add", frames, c(1.0))))
    noise_after = g("Where", g("Less", frames, c(LEAD_FRAMES)), led, tracked, name="noise_after")
    g("Min", g("Add", frames, signal), c(LEAD_FRAMES), name="frames_after")

    floor = g("Max", noise_after, c(SILENCE))
    excess = g("Max", g("Sub", g("Div", power, floor), c(1.0)), c(0.0))
    directed = g("Add", g("Mul", g("Div", speech, floor), c(DECISION_DIRECTED)),
                 g("Mul", excess, c(1.0 - DECISION_DIRECTED)))
    ratio = g("Max", directed, c(RATIO_FLOOR))
    gain = g("Div", ratio, g("Add", ratio, c(1.0)), name="gain")
    g("Mul", g("Mul", gain, gain), power, name="speech_after")

    return helper.make_graph(
        g.nodes, "one_window",
        [tensor(f"{name}_before", "channels", size) for name, size in STATES] +
        [tensor("power", "channels", BINS)],
        [tensor(f"{name}_after", "channels", size) for name, size in STATES] +
        [tensor("gain", "channels", BINS)],
        g.initializers)


def build():
    g = Graph()
    raw = g("ReduceSumSquare", "input", axes=[3], keepdims=0)
    power = g("Where", g("LessOrEqual", raw, g.constant(POWER_LIMIT)), raw, g.constant(0.0))
    g.nodes.append(helper.make_node(
        "Scan", [f"{name}_in" for name, _ in STATES] + [power],
        [f"{name}_out" for name, _ in STATES] + ["gains"],
        body=one_window(), num_scan_inputs=1, scan_input_axes=[1], scan_output_axes=[1]))
    speech = g("Mul", "input", g("Unsqueeze", "gains", g.indices(3)))
    g("Unsqueeze", speech, g.indices(0), name="output")
    return make_model(
        g,
        [tensor("input", "channels", "sequence", BINS, 2)] +
        [tensor(f"{name}_in", "channels", size) for name, size in STATES],
        [tensor("output", len(CLASSES), "channels", "sequence", BINS, 2)] +
        [tensor(f"{name}_out", "channels", size) for name, size in STATES],
        name="Noise reducer", sample_rate=SAMPLE_RATE, classes=CLASSES, overlap=WINDOW // 2,
        sequence_size=1)


if __name__ == "__main__":
    write(build)
