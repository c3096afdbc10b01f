#!/usr/bin/python3
"""Trains the separator. Goes on where the last checkpoint stands.

usage: train.py FOLDER [--workers N] [--steps N]
       train.py FOLDER --keep
FOLDER has the audio (data.py) and gets checkpoint.pt and log.csv. The rate of learning falls with the root of the step,
so that a course has no planned end: it may stop at any checkpoint and go on later. What is checked and exported is a
moving average of the weights.

`--workers N` divides each step among N processes, one for each idle core: what is learnt is the same but for rounding.

`--keep` packs the state of the course into training/state.pt beside this program, which is kept with it: a course
begins there if FOLDER has no later checkpoint. It has the moving average of the weights in half precision and the log.

Mixtures are short and streams are long: some mixtures begin with the states that the one before left behind, so that
the network learns to go on after anything.
"""

import argparse
import csv
import math
import os
import pathlib
import socket
import time

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

# pylint: disable=wrong-import-position
import numpy as np
import torch
from torch import distributed, multiprocessing

import mixtures
from data import SAMPLE_RATE, Recordings
from losses import scale_invariant_ratio, separation_loss
from network import CLASSES, HOP, Separator
from optimiser import Muon
from spectra import analyse, synthesise

SEED = 20261125
RATE = 4e-3            # of matrices, up to step TURN; then it falls with the root of the step
VECTORS_RATE = 1e-3    # of biases, norms and the last layer, likewise
TURN = 500
WARM_UP = 100          # steps after each start
BATCH = 8
SECONDS = 4.0
CLIP = 3.0
AVERAGE = 0.999        # of the weights, per step; less at the beginning
FRESH_SHARE = 0.8      # of the mixtures that begin with empty states
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
    parser.add_argument("--steps", type=int, default=45000)
    parser.add_argument("--workers", type=int, default=1, choices=[n for n in range(1, BATCH + 1) if BATCH % n == 0])
    parser.add_argument("--keep", action="store_true")
    return parser.parse_args()


def level(parts):
    """The parts as a tensor, and the factor that brings each mix to power 1."""
    parts = torch.from_numpy(parts)
    return parts, ((parts.sum(1) ** 2).mean(-1) + 1e-9).rsqrt()[:, None, None]


def partly_fresh(states, step, items):
    """The states before a step: some mixtures of a batch begin anew."""
    kept = np.random.default_rng((SEED, 3 << 30, step)).random(BATCH)[items] >= FRESH_SHARE
    kept = torch.from_numpy(kept.astype(np.float32))
    return [(state.reshape(len(kept), -1) * kept[:, None]).reshape(state.shape) for state in states]


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
    """All that a training needs to go on, and how it is kept. Each worker has all of it but `states`, which are of its
    own items of a batch."""

    def __init__(self, folder, rank=0, workers=1):
        torch.manual_seed(SEED)
        self.workers = workers
        self.items = np.arange(rank, BATCH, workers)
        self.model, self.average = Separator(), Separator()
        self.average.load_state_dict(self.model.state_dict())
        one, three = self.model.matrices()
        vectors = [p for p in self.model.parameters() if not any(p is q for q in one + three)]
        self.optimisers = (Muon([{"params": one}, {"params": three, "parts": 3}], RATE),
                           torch.optim.Adam(vectors, lr=VECTORS_RATE))
        self.states = Separator.empty(len(self.items))
        self.step, self.spent, self.rows = 0, 0.0, []
        self.checkpoint = folder / "checkpoint.pt"
        saved = max((torch.load(path) for path in (self.checkpoint, KEPT) if path.exists()),
                    key=lambda found: found["step"], default=None)
        if saved:
            self.average.load_state_dict(saved["average"])
            self.model.load_state_dict(saved.get("model", saved["average"]))
            for optimiser, state in zip(self.optimisers, saved.get("optimisers", ())):
                optimiser.load_state_dict(state)
            self.step, self.spent, self.rows = (saved[k] for k in ("step", "spent", "rows"))
        self.begin = self.step

    def save(self):
        path = self.checkpoint
        partial = path.with_suffix(".partial")
        torch.save({"model": self.model.state_dict(), "optimisers": [o.state_dict() for o in self.optimisers],
                    "average": self.average.state_dict(), "step": self.step, "spent": self.spent, "rows": self.rows},
                   partial)
        os.replace(partial, path)
        log = path.with_name("log.partial")
        with open(log, "w", newline="") as file:
            writer = csv.writer(file)
            writer.writerow(["step", "seconds", "loss", *(f"{name}_{kind}_dB" for name in ("mean", *GROUPS, *TRAINED)
                                                          for kind in map(str.lower, CLASSES))])
            writer.writerows(self.rows)
        os.replace(log, path.with_name("log.csv"))

    def keep(self, path):
        path.parent.mkdir(exist_ok=True)
        average = {name: values.half() for name, values in self.average.state_dict().items()}
        torch.save({"average": average, "step": self.step, "spent": self.spent, "rows": self.rows}, path)

    def together(self, value):
        """What each worker has, a list."""
        found = [value] * self.workers
        if self.workers > 1:
            distributed.all_gather_object(found, value)
        return found

    def share_gradients(self):
        """Their mean over the workers."""
        if self.workers > 1:
            gradients = [p.grad for p in self.model.parameters()]
            whole = torch.cat([g.flatten() for g in gradients])
            distributed.all_reduce(whole)
            for gradient, part in zip(gradients, whole.split([g.numel() for g in gradients])):
                gradient.copy_(part.reshape(gradient.shape) / self.workers)

    def advance(self, material):
        """One step; its loss."""
        length = int(SECONDS * SAMPLE_RATE) // HOP * HOP
        parts, factor = level(mixtures.batch(SEED, self.step, material, self.items, length))
        targets = analyse(parts)
        states = partly_fresh(self.states, self.step, self.items)
        classes, states = self.model.proceed(targets.sum(1), states)
        self.states = [state.detach().clone() for state in states]
        loss = separation_loss(classes * factor[..., None], targets * factor[..., None], parts * factor)
        self.model.zero_grad()
        loss.backward()
        self.share_gradients()
        norm = torch.nn.utils.clip_grad_norm_(self.model.parameters(), CLIP)
        fall = min(1.0, (self.step + 1 - self.begin) / WARM_UP, math.sqrt(TURN / (self.step + 1)))
        for optimiser, rate in zip(self.optimisers, (RATE, VECTORS_RATE)):
            for group in optimiser.param_groups:
                group["lr"] = rate * fall
            if torch.isfinite(norm):
                optimiser.step()
        with torch.no_grad():
            for mean, weight in zip(self.average.parameters(), self.model.parameters()):
                mean.lerp_(weight, 1.0 - min(AVERAGE, self.step / (self.step + 10.0)))
        self.step += 1
        return loss.item()


def train(rank, args):
    """What a worker does; the first of them prints and keeps."""
    torch.set_num_threads(1)
    if args.workers > 1:
        distributed.init_process_group("gloo", init_method=f"tcp://127.0.0.1:{args.port}", rank=rank,
                                       world_size=args.workers)
    course = Course(args.folder, rank, args.workers)
    recordings = Recordings(args.folder)
    material, kept = mixtures.Material(recordings, ("train",)), checks(recordings)
    if rank == 0:
        weights = sum(p.numel() for p in course.model.parameters())
        print(f"{weights} weights, step {course.step} of {args.steps}", flush=True)
    losses, saved_at, began = [], time.monotonic(), time.process_time()
    parent = os.getppid()
    while course.step < args.steps and os.getppid() == parent:     # a worker does not go on alone
        losses.append(course.advance(material))
        if course.step % LOG_EVERY == 0 or course.step == args.steps:
            gains = {}
            if course.step % CHECK_EVERY == 0 or course.step == args.steps:
                gains = {name: gain(course.average, kept[name]) for name in list(kept)[rank::args.workers]}
            found = course.together((np.mean(losses), time.process_time() - began, gains))
            losses, began = [], time.process_time()
            course.spent += sum(spent for _, spent, _ in found)
            row = [course.step, round(course.spent, 1), round(float(np.mean([loss for loss, _, _ in found])), 4)]
            gains = {name: pair for _, _, some in found for name, pair in some.items()}
            pairs = [gains[name] for name in kept] if gains else [("", "")] * len(kept)
            pairs.insert(0, np.mean(pairs[:len(GROUPS)], axis=0) if gains else ("", ""))
            row += [round(float(value), 2) if gains else "" for pair in pairs for value in pair]
            course.rows.append(row)
            if rank == 0:
                print(*row, flush=True)
                if course.step == args.steps or time.monotonic() - saved_at > SAVE_SECONDS:
                    course.save()
                    saved_at = time.monotonic()


def main():
    args = arguments()
    if args.keep:
        Course(args.folder).keep(KEPT)
    elif args.workers > 1:
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            args.port = free.getsockname()[1]
        multiprocessing.spawn(train, (args,), args.workers)
    else:
        train(0, args)


if __name__ == "__main__":
    main()
