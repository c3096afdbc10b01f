#!/usr/bin/python3
"""Draws spectrograms of audio files, one above the other, all with the same scale.

usage: demo_picture.py OUT.png TITLE (NAME FILE)...
"""

import io
import subprocess
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from PIL import Image

WINDOW, HOP = 512, 128
LOUDEST_DB, FAINTEST_DB = -20.0, -100.0


def read(path):
    """Returns the mean of the channels, and the sample rate in Hz."""
    rate = subprocess.run(
        ["ffprobe", "-v", "error", "-show_entries", "stream=sample_rate", "-of", "csv=p=0", path],
        check=True, capture_output=True, text=True).stdout
    samples = subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-i", path, "-ac", "1", "-f", "f32le", "-"],
                             check=True, capture_output=True).stdout
    return np.frombuffer(samples, np.float32), int(rate)


def spectrogram(samples):
    """[bin, time] in dB; a full-scale sine has 0 dB."""
    frames = np.lib.stride_tricks.sliding_window_view(samples, WINDOW)[::HOP]
    window = np.hanning(WINDOW + 1)[:-1]
    magnitude = np.abs(np.fft.rfft(frames * window)).T * 2.0 / window.sum()
    return 20.0 * np.log10(np.maximum(magnitude, 1e-10))


def draw(picture, title, *named):
    rows = list(zip(named[::2], named[1::2]))
    figure, axes = plt.subplots(len(rows), 1, sharex=True, sharey=True, figsize=(10, 1.45 * len(rows) + 0.9),
                                layout="constrained")
    figure.suptitle(title, fontsize=13)
    for axis, (name, file) in zip(axes, rows):
        samples, rate = read(file)
        levels = spectrogram(samples)
        image = axis.imshow(levels, origin="lower", aspect="auto", cmap="magma", vmin=FAINTEST_DB,
                            vmax=LOUDEST_DB, extent=(0, len(samples) / rate, 0, rate / 2),
                            interpolation="antialiased")
        axis.set_title(name, loc="left", fontsize=10)
        axis.set_ylabel("Hz")
    axes[-1].set_xlabel("s")
    figure.colorbar(image, ax=axes, label="dB of full scale", aspect=40, pad=0.015)
    drawn = io.BytesIO()
    figure.savefig(drawn, dpi=100)
    Image.open(drawn).convert("RGB").quantize(256, dither=Image.Dither.NONE).save(picture, optimize=True)


if __name__ == "__main__":
    if len(sys.argv) < 5 or len(sys.argv) % 2 == 0:
        sys.exit(__doc__)
    draw(*sys.argv[1:])
