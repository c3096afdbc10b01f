#!/usr/bin/python3
"""Trains the separator. Goes on where the last checkpoint stands.

usage: train.py FOLDER [--steps N] [--cooldown N] [--batch N] [--seconds S] [--threads N]
       train.py FOLDER --keep
FOLDER has the audio (data.py) and gets checkpoint.pt and log.csv. The rate of learning rises once and then stays, so
that a course has no planned end: it may stop at any checkpoint and go on later. A candidate comes from
`--cooldown N`: N more steps from the last checkpoint, over which the rate falls to zero, into cooled.pt; the
course itself is left as it is.

`--keep` packs the state of the course into training/state.pt beside this program, which is kept with it: a course
begins there if FOLDER has no later checkpoint. It has the average alone, in half precision, and what layers hold is
left out; but for that, a step depends on its number, the seed and the checkpoint before it alone, as long as audio and
options stay the same.

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
from network import CLASSES, HOP, Separator
from spectra import analyse, synthesise

SEED = 20261125
RATE = 5e-4
WARM_UP = 200
CLIP = 3.0
AVERAGE = 0.999        # of the weights, per step; less at the beginning
FRESH_SHARE = 0.3      # of the mixtures that begin with empty states
LOG_EVERY = 100
CHECK_EVERY = 500
SAVE_SECONDS = 180.0
CHECK_ITEMS = 12       # mixtures of ten seconds for each group
KEPT = pathlib.Path(__file__).resolve().parent / "training" / "state.pt"
# Names in the log, and which voices they stand for: all of them are kept from the training.
GROUPS = {
    "bg": lambda p: p["source"] == "tuxpaint bg", "da": lambda p: p["source"] == "tuxpaint da",
    "el": lambda p: p["source"] == "tuxpaint el", "it": lambda p: p["source"] == "Carlo Flora",
    "en": lambda p: p["source"] == "pocketsphinx", "es_telephone": lambda p: p["source"] == "July Jimenez",
    "game": lambda p: p["source"].startswith("planetblupi"),
}
# For comparison, and not in the mean: voices that are trained on, under kept music.
TRAINED = {
    "trained_files": lambda p: p["part"] == "file",
    "trained_cast": lambda p: p["source"] == "flight-of-the-amazon-queen",
}


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--steps", type=int, default=60000)
    parser.add_argument("--cooldown", type=int, default=0)
    parser.add_argument("--batch", type=int, default=4)
    parser.add_argument("--seconds", type=float, default=4.0)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--keep", action="store_true")
    return parser.parse_args()


def level(parts):
    """The parts as a tensor, and the factor that brings each mix to power 1."""
    parts = torch.from_numpy(parts)
    return parts, ((parts.sum(1) ** 2).mean(-1) + 1e-9).rsqrt()[:, None, None]


def partly_fresh(states, step, batch):
    """The states before a step: some mixtures of a batch begin anew."""
    kept = np.random.default_rng((SEED, 3 << 30, step)).random(batch) >= FRESH_SHARE
    kept = torch.from_numpy(kept.astype(np.float32))
    return [(state.reshape(batch, -1) * kept[:, None]).reshape(state.shape) for state in states]


def checks(recordings):
    """For each group the mixtures at 0 dB, [item, class, sample], the same in every training."""
    found, length = {}, 10 * SAMPLE_RATE // HOP * HOP
    for number, (name, chosen) in enumerate({**GROUPS, **TRAINED}.items()):
        material = mixtures.Material(recordings, ("train", "file", "voice", "work"), lambda p, chosen=chosen: (
            p["part"] == "work" if p["kind"] == "music" else chosen(p)))
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
    """All that a training needs to go on, and how it is kept."""

    def __init__(self, args):
        torch.manual_seed(SEED)
        self.args = args
        self.options = {"batch": args.batch, "seconds": args.seconds}
        self.model, self.average = Separator(), Separator()
        self.average.load_state_dict(self.model.state_dict())
        self.optimiser = torch.optim.Adam(self.model.parameters(), lr=RATE)
        self.states = Separator.empty(args.batch)
        self.step, self.spent, self.rows = 0, 0.0, []
        self.begun = 0         # the step from which on weights are averaged
        self.checkpoint = args.folder / "checkpoint.pt"
        own, kept = (torch.load(path) if path.exists() else {"step": -1} for path in (self.checkpoint, KEPT))
        if kept["step"] > own["step"]:
            self.unpack(kept)
        elif own["step"] >= 0:
            self.load(own)

    def load(self, saved):
        if saved["options"] != self.options:
            raise SystemExit(f"train.py: {self.checkpoint} was made with {saved['options']}, not {self.options}: "
                             "give these, or move the file away")
        self.model.load_state_dict(saved["model"])
        self.average.load_state_dict(saved["average"])
        self.optimiser.load_state_dict(saved["optimiser"])
        self.step, self.spent, self.rows, self.states = (saved[k] for k in ("step", "spent", "rows", "states"))

    def save(self, path):
        partial = path.with_suffix(".partial")
        torch.save({"model": self.model.state_dict(), "average": self.average.state_dict(), "options": self.options,
                    "optimiser": self.optimiser.state_dict(), "step": self.step, "spent": self.spent,
                    "rows": self.rows, "states": self.states}, partial)
        os.replace(partial, path)
        log = path.with_name("log.partial")
        with open(log, "w", newline="") as file:
            writer = csv.writer(file)
            writer.writerow(["step", "seconds", "loss", *(f"{name}_{kind}_dB" for name in ("mean", *GROUPS, *TRAINED)
                                                          for kind in map(str.lower, CLASSES))])
            writer.writerows(self.rows)
        os.replace(log, path.with_name("log.csv"))

    def packed(self):
        """Name, parts and type in the packed state of all that has a number for each weight. The course goes on from
        the average, with the step sizes that Adam has found; its first moments are those of ten steps only."""
        yield "average", list(self.average.state_dict().values()), torch.float16
        yield "squares", [self.optimiser.state[p]["exp_avg_sq"] for p in self.model.parameters()], torch.bfloat16

    def pack(self, path):
        path.parent.mkdir(exist_ok=True)
        vectors = {name: torch.cat([part.flatten() for part in parts]).to(kind) for name, parts, kind in self.packed()}
        torch.save({"step": self.step, "spent": self.spent, "rows": self.rows, **vectors}, path)

    def unpack(self, saved):
        for parameter in self.model.parameters():
            self.optimiser.state[parameter] = {
                "step": torch.tensor(float(saved["step"])), "exp_avg": torch.zeros_like(parameter),
                "exp_avg_sq": torch.zeros_like(parameter)}
        for name, parts, _ in self.packed():
            for part, values in zip(parts, saved[name].float().split([part.numel() for part in parts])):
                part.copy_(values.reshape(part.shape))
        self.model.load_state_dict(self.average.state_dict())
        self.step, self.spent, self.rows = (saved[k] for k in ("step", "spent", "rows"))

    def advance(self, material, length, rate):
        """One step; its loss."""
        parts, factor = level(mixtures.batch(SEED, self.step, material, self.args.batch, length))
        targets = analyse(parts)
        states = partly_fresh(self.states, self.step, self.args.batch)
        classes, states = self.model.proceed(targets.sum(1), states)
        self.states = [state.detach().clone() for state in states]
        loss = separation_loss(classes * factor[..., None], targets * factor[..., None], parts * factor)
        self.optimiser.zero_grad()
        loss.backward()
        norm = torch.nn.utils.clip_grad_norm_(self.model.parameters(), CLIP)
        for group in self.optimiser.param_groups:
            group["lr"] = rate
        if torch.isfinite(norm):
            self.optimiser.step()
        age = self.step - self.begun
        keep = min(AVERAGE, age / (age + 10.0))
        with torch.no_grad():
            for mean, weight in zip(self.average.parameters(), self.model.parameters()):
                mean.lerp_(weight, 1.0 - keep)
        self.step += 1
        return loss.item()


def main():
    args = arguments()
    torch.set_num_threads(args.threads)
    course = Course(args)
    if args.keep:
        course.pack(KEPT)
        return
    begin = course.step
    end, path = args.steps, course.checkpoint
    if args.cooldown:
        course.begun, end, path = begin, begin + args.cooldown, args.folder / "cooled" / "checkpoint.pt"
        path.parent.mkdir(exist_ok=True)
    recordings = Recordings(args.folder)
    material, kept = mixtures.Material(recordings, ("train",)), checks(recordings)
    length = int(args.seconds * SAMPLE_RATE) // HOP * HOP
    weights = sum(p.numel() for p in course.model.parameters())
    print(f"{weights} weights, step {begin} of {end}", flush=True)
    losses, saved_at, began = [], time.monotonic(), time.process_time()
    while course.step < end:
        fall = (end - course.step) / args.cooldown if args.cooldown else 1.0
        losses.append(course.advance(material, length, RATE * min(fall, (course.step + 1) / WARM_UP)))
        if course.step % LOG_EVERY == 0 or course.step == end:
            gains = []
            if course.step % CHECK_EVERY == 0 or course.step == end:
                gains = [gain(course.average, parts) for parts in kept.values()]
                mean = np.mean(gains[:len(GROUPS)], axis=0).tolist()
                gains = [round(value, 2) for pair in [mean, *gains] for value in pair]
            course.spent, began = course.spent + time.process_time() - began, time.process_time()
            course.rows.append([course.step, round(course.spent, 1), round(float(np.mean(losses)), 4),
                                *(gains or [""] * (2 + 2 * len(kept)))])
            losses.clear()
            print(*course.rows[-1], flush=True)
            if course.step == end or time.monotonic() - saved_at > SAVE_SECONDS:
                course.save(path)
                saved_at = time.monotonic()


if __name__ == "__main__":
    main()
