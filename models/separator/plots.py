#!/usr/bin/python3
"""Draws the course of the training and the figures of the evaluation.

usage: plots.py training LOG.csv PICTURE.png
       plots.py evaluation EVALUATION.json PICTURE.png
"""

import csv
import json
import sys

import matplotlib
import numpy as np

matplotlib.use("Agg")
from matplotlib import pyplot  # pylint: disable=wrong-import-position


def training(log, picture):
    with open(log, newline="") as file:
        rows = list(csv.DictReader(file))
    steps = np.array([int(row["step"]) for row in rows])
    losses, every = np.array([float(row["loss"]) for row in rows]), steps[0]
    checked = [row for row in rows if row["mean_speech_dB"]]
    figure, (left, right) = pyplot.subplots(1, 2, figsize=(10, 3.6), layout="constrained")
    left.plot(steps, losses, color="0.75", linewidth=0.8, label=f"mean of {every} steps")
    width = min(5, len(losses))
    smooth = np.convolve(losses, np.ones(width) / width, "valid")
    left.plot(steps[width - 1:], smooth, color="tab:blue", label=f"mean of {every * width} steps")
    left.set(xlabel="step", ylabel="loss", title="Training mixtures")
    left.legend()
    for name, column, colour in (("Speech", "mean_speech_dB", "tab:blue"), ("Music", "mean_music_dB", "tab:orange")):
        right.plot([int(row["step"]) for row in checked], [float(row[column]) for row in checked], label=name,
                   color=colour, marker=".")
    right.set(xlabel="step", ylabel="gain of SI-SDR, dB", title="Untrained voices and music at 0 dB")
    right.legend()
    for axes in (left, right):
        axes.grid(alpha=0.3)
    figure.savefig(picture, dpi=110)


def evaluation(figures, picture):
    with open(figures) as file:
        content = json.load(file)
    ratios = sorted((int(kind) for kind in content["found"] if kind.lstrip("-").isdigit()))
    figure, axes = pyplot.subplots(1, 2, figsize=(10, 3.8), sharey=True, layout="constrained")
    for panel, name in zip(axes, ("speech", "music")):
        for g, group in enumerate(content["groups"]):
            panel.plot(ratios, [content["found"][str(r)][name][g] for r in ratios], marker=".", label=group)
        panel.axhline(0.0, color="0.4", linewidth=0.8)
        panel.set(xlabel="speech to music, dB", title=name.capitalize(), xticks=ratios)
        panel.grid(alpha=0.3)
    axes[0].set_ylabel("gain of SI-SDR, dB")
    axes[1].legend(fontsize=8)
    figure.savefig(picture, dpi=110)


if __name__ == "__main__":
    if len(sys.argv) != 4 or sys.argv[1] not in ("training", "evaluation"):
        sys.exit(__doc__)
    {"training": training, "evaluation": evaluation}[sys.argv[1]](*sys.argv[2:])
