#!/usr/bin/python3
"""Trains the separator. Goes on where the last checkpoint stands.

usage: train.py FOLDER [--steps N] [--batch N] [--seconds S]
FOLDER has the audio (data.py) and gets checkpoint.pt and log.csv. A step depends on its number, the seed and the
checkpoint before it alone, so that an interrupted training is the same as one in one go: as long as the audio and
the options stay the same. The rate of learning rises, stays, and falls to zero over the last DECAY of the steps.

Mixtures are short and streams are long: most mixtures begin with the states that the one before left behind, so
that the network learns to go on after anything. What is checked and exported is a moving average of the weights.
"""

import argparse
import csv
import os
import pathlib
import time

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

# pylint: disable=wrong-import-position
import numpy as np
import torch

import mixtures
from data import SAMPLE_RATE, Recordings
from losses import scale_invariant_ratio, separation_loss
from network import BANDS, CLASSES, HOP, WIDTH, Separator
from spectra import analyse, synthesise

SEED = 20261125
RATE = 1.5e-3
WARM_UP = 200
DECAY = 0.3
CLIP = 3.0
AVERAGE = 0.998        # of the weights, per step
FRESH_SHARE = 0.3      # of the mixtures that begin with empty states
LOG_EVERY = 20
CHECK_EVERY = 500
SAVE_SECONDS = 180.0
CHECK_ITEMS = 4        # mixtures of ten seconds for each group
# Names in the log, and which voices they stand for: all of them are kept from the training.
GROUPS = {
    "bg": lambda p: p["source"] == "tuxpaint bg", "da": lambda p: p["source"] == "tuxpaint da",
    "el": lambda p: p["source"] == "tuxpaint el", "it": lambda p: p["source"] == "Carlo Flora",
    "en": lambda p: p["source"] == "pocketsphinx", "es_telephone": lambda p: p["source"] == "July Jimenez",
    "game": lambda p: p["source"].startswith("planetblupi"),
}


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--steps", type=int, default=60000)
    parser.add_argument("--batch", type=int, default=8)
    parser.add_argument("--seconds", type=float, default=3.0)
    return parser.parse_args()


def level(parts):
    """The parts as a tensor, and the factor that brings each mix to power 1."""
    parts = torch.from_numpy(parts)
    return parts, ((parts.sum(1) ** 2).mean(-1) + 1e-9).rsqrt()[:, None, None]


def rate(step, steps):
    return RATE * min(1.0, (step + 1) / WARM_UP, (steps - step) / (DECAY * steps))


def partly_fresh(states, step, batch):
    """The states before a step: some mixtures of a batch begin anew."""
    kept = np.random.default_rng((SEED, 3 << 30, step)).random(batch) >= FRESH_SHARE
    kept = torch.from_numpy(kept.astype(np.float32))
    along = [(state.reshape(1, BANDS, batch, WIDTH) * kept[:, None]).reshape(state.shape) for state in states[1:]]
    return [states[0] * kept[:, None, None], *along]


def checks(recordings):
    """For each group the mixtures at 0 dB, [item, class, sample], the same in every training."""
    found, length = {}, 10 * SAMPLE_RATE // HOP * HOP
    for number, (name, chosen) in enumerate(GROUPS.items()):
        material = mixtures.Material(recordings, ("voice", "work"),
                                     lambda p, chosen=chosen: p["kind"] == "music" or chosen(p))
        items = []
        for item in range(CHECK_ITEMS):
            rng = np.random.default_rng((SEED, 2 << 30, number, item))
            parts = np.stack([material.speech(rng, length), material.music(rng, length)])
            items.append(parts * 0.05 / np.sqrt([[mixtures.power(p) + 1e-9] for p in parts]))
        found[name] = torch.from_numpy(np.stack(items).astype(np.float32))
    return found


def gain(model, parts):
    """Improvement of SI-SDR in dB of each class, a mean over the mixtures of a group."""
    with torch.no_grad():
        mix, target = parts.sum(1), parts[..., HOP:-HOP]
        sound = synthesise(model(analyse(mix)))
        before = scale_invariant_ratio(mix[:, None, HOP:-HOP].expand_as(target), target)
        return (scale_invariant_ratio(sound, target) - before).mean(0).tolist()


class Course:
    """All that a training needs to go on, and how it is kept in FOLDER."""

    def __init__(self, args):
        torch.manual_seed(SEED)
        self.args = args
        self.model, self.average = Separator(), Separator()
        self.average.load_state_dict(self.model.state_dict())
        self.optimiser = torch.optim.Adam(self.model.parameters(), lr=RATE)
        self.states = Separator.empty(args.batch)
        self.step, self.spent, self.rows = 0, 0.0, []
        self.checkpoint = args.folder / "checkpoint.pt"
        if self.checkpoint.exists():
            self.load()

    def load(self):
        saved = torch.load(self.checkpoint)
        options = {"batch": self.args.batch, "seconds": self.args.seconds, "steps": self.args.steps}
        if saved["options"] != options:
            raise SystemExit(f"train.py: {self.checkpoint} was made with {saved['options']}, not {options}: "
                             "give these, or move the file away")
        self.model.load_state_dict(saved["model"])
        self.average.load_state_dict(saved["average"])
        self.optimiser.load_state_dict(saved["optimiser"])
        self.step, self.spent, self.rows, self.states = (saved[k] for k in ("step", "spent", "rows", "states"))

    def save(self):
        partial = self.checkpoint.with_suffix(".partial")
        options = {"batch": self.args.batch, "seconds": self.args.seconds, "steps": self.args.steps}
        torch.save({"model": self.model.state_dict(), "average": self.average.state_dict(), "options": options,
                    "optimiser": self.optimiser.state_dict(), "step": self.step, "spent": self.spent,
                    "rows": self.rows, "states": self.states}, partial)
        os.replace(partial, self.checkpoint)
        log = self.args.folder / "log.partial"
        with open(log, "w", newline="") as file:
            writer = csv.writer(file)
            writer.writerow(["step", "seconds", "loss", *(f"{name}_{kind}_dB" for name in ("mean", *GROUPS)
                                                          for kind in map(str.lower, CLASSES))])
            writer.writerows(self.rows)
        os.replace(log, self.args.folder / "log.csv")

    def advance(self, material, length):
        """One step; its loss."""
        parts, factor = level(mixtures.batch(SEED, self.step, material, self.args.batch, length))
        spectra = analyse(parts.sum(1))
        classes, states = self.model.proceed(spectra, partly_fresh(self.states, self.step, self.args.batch))
        self.states = [state.detach() for state in states]
        loss = separation_loss(synthesise(classes) * factor, parts * factor)
        self.optimiser.zero_grad()
        loss.backward()
        torch.nn.utils.clip_grad_norm_(self.model.parameters(), CLIP)
        for group in self.optimiser.param_groups:
            group["lr"] = rate(self.step, self.args.steps)
        self.optimiser.step()
        keep = min(AVERAGE, self.step / (self.step + 10.0))
        with torch.no_grad():
            for mean, weight in zip(self.average.parameters(), self.model.parameters()):
                mean.lerp_(weight, 1.0 - keep)
        self.step += 1
        return loss.item()


def main():
    args = arguments()
    torch.set_num_threads(1)
    course = Course(args)
    recordings = Recordings(args.folder)
    material, kept = mixtures.Material(recordings, ("train",)), checks(recordings)
    length = int(args.seconds * SAMPLE_RATE) // HOP * HOP
    weights = sum(p.numel() for p in course.model.parameters())
    print(f"{weights} weights, step {course.step} of {args.steps}", flush=True)
    losses, saved_at, began = [], time.monotonic(), time.process_time()
    while course.step < args.steps:
        losses.append(course.advance(material, length))
        if course.step % LOG_EVERY == 0:
            gains = []
            if course.step % CHECK_EVERY == 0 or course.step == args.steps:
                gains = [gain(course.average, parts) for parts in kept.values()]
                gains = [round(value, 2) for pair in [np.mean(gains, axis=0).tolist(), *gains] for value in pair]
            course.spent, began = course.spent + time.process_time() - began, time.process_time()
            course.rows.append([course.step, round(course.spent, 1), round(float(np.mean(losses)), 4),
                                *(gains or [""] * (2 + 2 * len(kept)))])
            losses.clear()
            print(*course.rows[-1], flush=True)
            if course.step == args.steps or time.monotonic() - saved_at > SAVE_SECONDS:
                course.save()
                saved_at = time.monotonic()


if __name__ == "__main__":
    main()
