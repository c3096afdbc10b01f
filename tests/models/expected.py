#!/usr/bin/python3
"""Computes what a stream with one of the models has to return, from the model's definition, all in double.

usage: expected.py RECIPE SEED CHANNELS FRAMES INPUT.f32 EXPECTED.f32
Writes two planar float files: a test signal [channel, frame], and the output of each class alone
[class, channel, frame], in time with the input (without latency), for as many frames as the input has.
"""

import importlib.util
import pathlib
import sys

import numpy as np

MODELS = pathlib.Path(__file__).resolve().parents[2] / "models"


def load(recipe):
    sys.path.insert(0, str(MODELS))
    spec = importlib.util.spec_from_file_location(recipe, MODELS / f"{recipe}.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def extract(module, audio):
    """[channel, frame] to [class, channel, frame]: windows that overlap by half, the definition, a periodic Hann
    window, overlap-add. For a model on spectra the window's square root stands before and after the definition."""
    length, hop = module.WINDOW, module.WINDOW // 2
    channels, frames = audio.shape
    count = -(-frames // hop) + 1
    padded = np.zeros((channels, (count + 1) * hop))
    padded[:, hop:hop + frames] = audio
    windows = np.stack([padded[:, t * hop:t * hop + length] for t in range(count)], axis=1)
    hann = 0.5 - 0.5 * np.cos(2.0 * np.pi * np.arange(length) / length)
    if hasattr(module, "BINS"):
        spectra = module.define(np.fft.rfft(windows * np.sqrt(hann)))
        spectra[..., [0, -1]] = spectra[..., [0, -1]].real
        parts = np.fft.irfft(spectra, n=length) * np.sqrt(hann)
    else:
        parts = module.define(windows) * hann
    output = np.zeros((parts.shape[0],) + padded.shape)
    for t in range(count):
        output[:, :, t * hop:t * hop + length] += parts[:, :, t]
    return output[:, :, hop:hop + frames]


def signal(seed, channels, frames, rate):
    """Has something for every model: a glide, a held tone, clicks, steady noise, a burst and exact silence."""
    rng = np.random.default_rng(seed)
    t = np.arange(frames) / rate
    audio = 0.02 * rng.standard_normal((channels, frames))
    for channel in audio:
        channel += 0.2 * np.sin(2.0 * np.pi * (rng.uniform(100, 400) * t + rng.uniform(400, 900) * t ** 2))
        channel += 0.1 * np.sin(2.0 * np.pi * rng.uniform(200, 3000) * t)
        channel[rng.integers(0, frames, 6)] += 0.8
        start = rng.integers(frames // 4, frames // 2)
        channel[start:start + frames // 8] += 0.3 * rng.standard_normal(frames // 8)
    audio[:, frames * 3 // 4:frames * 7 // 8] = 0.0
    return audio.astype(np.float32)


def main(recipe, seed, channels, frames, input_file, expected_file):
    module = load(recipe)
    audio = signal(int(seed), int(channels), int(frames), module.SAMPLE_RATE)
    audio.tofile(input_file)
    extract(module, audio.astype(np.float64)).astype(np.float32).tofile(expected_file)


if __name__ == "__main__":
    main(*sys.argv[1:])
