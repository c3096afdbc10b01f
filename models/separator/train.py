#!/usr/bin/python3
"""Trains the separator. Goes on where the last checkpoint stands.

usage: train.py FOLDER [--steps N] [--threads N] [--batch N] [--seconds S]
FOLDER has the audio (data.py) and gets checkpoint.pt and log.csv. A step depends on its number, the seed
and the checkpoint before it alone, so that an interrupted training is the same as one in one go. In each
of two rounds the rate of learning rises, stays, and falls to zero over the last DECAY of its steps.

Mixtures are short and streams are long: most mixtures begin with what the recurrent layers hold after
the one before, so that the network learns to go on after anything.
"""

import argparse
import csv
import os
import pathlib
import time

# The matrices are small: threads inside a product cost more than they bring.
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

# pylint: disable=wrong-import-position
import numpy as np
import torch

import mixtures
from data import SAMPLE_RATE, Recordings
from losses import scale_invariant_ratio, separation_loss
from network import HIDDEN, HOP, LAYERS, Separator, features
from spectra import analyse, synthesise

SEED = 20240607
RATE = 1.5e-3
WARM_UP = 100
DECAY = (0.35, 0.774)   # of the steps of each round
CLIP = 3.0
ROUND = 8000           # steps of the first round
FRESH_SHARE = 0.3      # of the mixtures that begin with empty states
LOG_EVERY = 25
CHECK_EVERY = 250
SAVE_SECONDS = 150.0
CHECK_ITEMS = 12
DEVICE = torch.device("cuda" if torch.cuda.is_available() else "cpu")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--steps", type=int, default=20000)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--batch", type=int, default=8)
    parser.add_argument("--seconds", type=float, default=3.0)
    return parser.parse_args()


def level(parts):
    """The parts as a tensor, and the factor that brings each mix to power 1."""
    parts = torch.from_numpy(parts).to(DEVICE)
    mix_power = (parts.sum(1) ** 2).mean(-1)
    return parts, (mix_power + 1e-9).rsqrt()[:, None, None]


def rate(step, steps):
    if step < ROUND:
        steps, decay = min(steps, ROUND), DECAY[0]
    else:
        step, steps, decay = step - ROUND, steps - ROUND, DECAY[1]
    return RATE * min(1.0, (step + 1) / WARM_UP, (steps - step) / (decay * steps))


def partly_fresh(state, step):
    """The states before a step: some mixtures of a batch begin anew."""
    kept = np.random.default_rng((SEED, 3 << 30, step)).random(state.shape[1]) >= FRESH_SHARE
    return state * torch.from_numpy(kept.astype(np.float32)).to(DEVICE)[:, None]


def standardise(model, material, length):
    """Sets mean and scale of the features from some mixtures."""
    parts = mixtures.batch(SEED, 1 << 30, material, 64, length)
    values = features(analyse(torch.from_numpy(parts.sum(1)).to(DEVICE))).flatten(0, 1)
    model.mean.copy_(values.mean(0))
    model.scale.copy_(1.0 / values.std(0))


def check(model, material, length):
    """SI-SDR improvement in dB of Speech and Music at 0 dB, a mean over a few mixtures."""
    gains = []
    with torch.no_grad():
        for item in range(CHECK_ITEMS):
            rng = np.random.default_rng((SEED, 2 << 30, item))
            parts = np.stack([material.speech(rng, length), material.music(rng, length)])
            parts *= 0.05 / np.sqrt([[mixtures.power(p) + 1e-9] for p in parts])
            parts = torch.from_numpy(parts).to(DEVICE)
            mix = parts.sum(0, keepdim=True)
            spectra = analyse(mix)
            sound = synthesise(model(spectra)[0, :2] * spectra)
            target = parts[:, HOP:-HOP]
            gains.append(scale_invariant_ratio(sound, target) -
                         scale_invariant_ratio(mix[:, HOP:-HOP].expand_as(target), target))
    return torch.stack(gains).mean(0).tolist()


def main():
    args = arguments()
    torch.set_num_threads(args.threads)
    torch.manual_seed(SEED)
    recordings = Recordings(args.folder)
    material = mixtures.Material(recordings, ("train",))
    kept = mixtures.Material(recordings, ("voice", "work"), lambda p: p["language"] != "es")
    length = int(args.seconds * SAMPLE_RATE) // HOP * HOP
    model = Separator().to(DEVICE)
    optimiser = torch.optim.Adam(model.parameters(), lr=RATE)
    checkpoint, log = args.folder / "checkpoint.pt", args.folder / "log.csv"
    step, spent, rows = 0, 0.0, []
    state = torch.zeros(LAYERS, args.batch, HIDDEN, device=DEVICE)
    if checkpoint.exists():
        saved = torch.load(checkpoint, map_location=DEVICE)
        model.load_state_dict(saved["model"])
        optimiser.load_state_dict(saved["optimiser"])
        step, spent, rows, state = saved["step"], saved["spent"], saved["rows"], saved["state"]
    else:
        standardise(model, material, length)
    print(f"{sum(p.numel() for p in model.parameters())} weights, step {step} of {args.steps}", flush=True)

    def save():
        partial = checkpoint.with_suffix(".partial")
        torch.save({"model": model.state_dict(), "optimiser": optimiser.state_dict(), "step": step,
                    "steps": args.steps, "spent": spent, "rows": rows, "state": state}, partial)
        os.replace(partial, checkpoint)
        with open(log, "w", newline="") as file:
            writer = csv.writer(file)
            writer.writerow(["step", "seconds", "loss", "speech_gain_dB", "music_gain_dB"])
            writer.writerows(rows)

    losses, saved_at = [], time.monotonic()
    while step < args.steps:
        began = time.monotonic()
        parts, gain = level(mixtures.batch(SEED, step, material, args.batch, length))
        mix = parts.sum(1)
        shares, state = model.proceed(analyse(mix), partly_fresh(state, step))
        state = state.detach()
        loss = separation_loss(analyse(mix * gain[:, 0]), shares, parts * gain)
        optimiser.zero_grad()
        loss.backward()
        torch.nn.utils.clip_grad_norm_(model.parameters(), CLIP)
        for group in optimiser.param_groups:
            group["lr"] = rate(step, args.steps)
        optimiser.step()
        losses.append(loss.item())
        step += 1
        spent += time.monotonic() - began
        if step % LOG_EVERY == 0:
            gains = check(model, kept, 10 * SAMPLE_RATE // HOP * HOP) if step % CHECK_EVERY == 0 else ("", "")
            rows.append([step, round(spent, 1), round(float(np.mean(losses)), 4),
                         *(gain if gain == "" else round(gain, 2) for gain in gains)])
            losses.clear()
            print(*rows[-1], flush=True)
        if step == args.steps or time.monotonic() - saved_at > SAVE_SECONDS:
            save()
            saved_at = time.monotonic()


if __name__ == "__main__":
    main()
