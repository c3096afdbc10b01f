"""Mixtures of speech, music and noise, made on the fly; each depends on its seed alone."""

import numpy as np
from scipy import signal

from data import SAMPLE_RATE

# Shares of the kinds of mixture; `mix` has speech and music.
KINDS = {"mix": 0.74, "speech": 0.12, "music": 0.10, "noise": 0.03, "silence": 0.01}
SNR = (-12.0, 17.0)            # of speech to music in a mix, dB
NOISE_SHARE, NOISE_SNR = 0.3, (5.0, 35.0)
LEVEL = (-45.0, -12.0)         # of the whole, dB below full scale
PITCHES = ((1, 1), (1, 1), (1, 1), (9, 10), (10, 9), (7, 8), (8, 7), (5, 6), (6, 5))
ROOM_SHARE = {"speech": 0.35, "music": 0.15}
BREAK_SHARE = 0.25             # of mixes in which one of the two begins late or ends early
CODED_SHARE = 0.65             # of sources that went through a speech codec
SAME_CODING = 0.85             # of mixes in which both or none did
# A voice or package is heard as often as its minutes to this power.
EVENNESS = {"speech": 0.75, "music": 0.5}
CUTOFF_SHARE, CUTOFF = 0.12, (3000.0, 7500.0)


def power(audio):
    return float(np.mean(audio ** 2))


def active_power(audio):
    """Mean power of the blocks of 32 ms within 30 dB of the loudest."""
    blocks = audio[:len(audio) // 512 * 512].reshape(-1, 512)
    powers = np.mean(blocks ** 2, axis=1)
    return float(powers[powers >= powers.max() * 1e-3].mean()) + 1e-12


class Material:
    """The pieces of some parts of the recordings, grouped so that rare voices are heard often enough."""

    def __init__(self, recordings, parts, select=lambda piece: True):
        self.recordings = recordings
        chosen = [p for p in recordings.pieces if p["part"] in parts and p["length"] > 1600 and select(p)]
        self.voices = {}
        for kind in ("speech", "music"):
            for coded in (None, True, False):
                of_kind = [p for p in chosen if p["kind"] == kind and coded in (None, p["coded"])]
                self.voices[kind, coded] = self.grouped(of_kind, EVENNESS[kind])

    @staticmethod
    def grouped(pieces, evenness):
        """The pieces of each voice or package, and the chances of each."""
        groups = {}
        for piece in pieces:
            groups.setdefault((piece["source"], piece["language"]), []).append(piece)
        weights = np.array([sum(p["length"] for p in group) for group in groups.values()]) ** evenness
        return list(groups.values()), weights / max(weights.sum(), 1e-9)

    def pieces(self, rng, kind, coded):
        groups, chances = self.voices[kind, coded]
        return groups[rng.choice(len(groups), p=chances)]

    def speech(self, rng, length, coded=None):
        """Utterances of one voice, one after another with pauses; `coded` as in the index, None for either."""
        audio, at = np.zeros(length, np.float32), 0
        pieces = self.pieces(rng, "speech", coded)
        skip = int(rng.integers(0, 16000))
        while at < length:
            samples = self.recordings.samples(pieces[rng.integers(len(pieces))])
            samples = samples[min(skip, len(samples) // 2):][:length - at]
            audio[at:at + len(samples)] = samples
            at += len(samples) + int(rng.integers(0, SAMPLE_RATE // 2))
            skip = 0
        return audio

    def music(self, rng, length, coded=None):
        """A stretch of one work that is not silent, if there is one among a few."""
        pieces = self.pieces(rng, "music", coded)
        for _ in range(4):
            piece = pieces[rng.integers(len(pieces))]
            offset = int(rng.integers(0, max(piece["length"] - length, 1)))
            samples = self.recordings.samples(piece, offset, length)
            audio = np.zeros(length, np.float32)
            audio[:len(samples)] = samples
            if power(audio) > 1e-6:
                break
        return audio


def noise(rng, length):
    """Coloured noise, steady or in bursts, with a hum at times."""
    audio = rng.standard_normal(length).astype(np.float32)
    audio = signal.lfilter([1.0], [1.0, -rng.uniform(-0.4, 0.98)], audio)
    audio = resonances(rng, audio)
    if rng.random() < 0.4:
        knots = rng.uniform(-30.0, 0.0, length // 4000 + 2)
        audio = audio * 10.0 ** (np.interp(np.arange(length) / 4000.0, np.arange(len(knots)), knots) / 20.0)
    if rng.random() < 0.15:
        t = np.arange(length) / SAMPLE_RATE
        pitch, level = rng.choice([50.0, 60.0]), np.std(audio)
        audio = audio + level * sum(np.sin(2 * np.pi * k * pitch * t) / k for k in (1, 2, 3, 5))
    return audio.astype(np.float32)


def resonances(rng, audio):
    """A mild random filter of second order."""
    zeros, poles = rng.uniform(-0.375, 0.375, (2, 2))
    return signal.lfilter([1.0, *zeros], [1.0, *poles], audio)


def room(rng, audio):
    """Reverberation: noise that decays by 60 dB in 0.1 to 0.6 s, after the direct sound."""
    seconds = rng.uniform(0.1, 0.6)
    length = int(seconds * SAMPLE_RATE * 0.7)
    tail = rng.standard_normal(length) * 10.0 ** (-3.0 * np.arange(length) / (seconds * SAMPLE_RATE))
    tail[:int(rng.uniform(0.001, 0.02) * SAMPLE_RATE)] = 0.0
    tail *= 10.0 ** (rng.uniform(-15.0, 3.0) / 20.0) / np.sqrt(np.sum(tail ** 2))
    tail[0] = 1.0
    return signal.fftconvolve(audio, tail)[:len(audio)]


def source(rng, material, kind, length, coded):
    """One augmented source at active power 1."""
    up, down = PITCHES[rng.integers(len(PITCHES))]
    take = getattr(material, kind)
    audio = take(rng, -(-length * down // up) + 16, coded)
    if up != down:
        audio = signal.resample_poly(audio, up, down)
    audio = audio[:length]
    if rng.random() < 0.7:
        audio = resonances(rng, audio)
    if rng.random() < ROOM_SHARE[kind]:
        audio = room(rng, audio)
    if rng.random() < CUTOFF_SHARE:
        sections = signal.butter(4, rng.uniform(*CUTOFF), fs=SAMPLE_RATE, output="sos")
        audio = signal.sosfilt(sections, audio)
    return (audio / np.sqrt(active_power(audio))).astype(np.float32)


def interrupt(rng, audio):
    """Leaves a part of a third to all of the length, with short fades."""
    length = len(audio)
    begin, end = sorted(rng.uniform(0.0, 1.0, 2))
    if end - begin < 0.33:
        begin, end = 0.0, max(end, 0.4)
    t = np.arange(length) / length
    fade = 800.0 / length
    return audio * np.clip(np.minimum(t - begin, end - t) / fade, 0.0, 1.0).astype(np.float32)


def mixture(rng, material, length):
    """[class, sample] of Speech, Music and Rest; the mix is their sum."""
    kind = rng.choice(list(KINDS), p=list(KINDS.values()))
    parts = np.zeros((3, length), np.float32)
    coded = bool(rng.random() < CODED_SHARE)
    if kind in ("mix", "speech"):
        parts[0] = source(rng, material, "speech", length, coded)
    if kind in ("mix", "music"):
        same = rng.random() < SAME_CODING
        parts[1] = source(rng, material, "music", length, coded if same else not coded)
    if kind == "mix":
        parts[1] *= 10.0 ** (-rng.uniform(*SNR) / 20.0)
        if rng.random() < BREAK_SHARE:
            which = rng.integers(2)
            parts[which] = interrupt(rng, parts[which])
    if kind == "noise" or (kind != "silence" and rng.random() < NOISE_SHARE):
        parts[2] = noise(rng, length)
        loudness = power(parts[0] + parts[1]) if kind != "noise" else 1.0
        parts[2] *= np.sqrt(loudness / power(parts[2])) * 10.0 ** (-rng.uniform(*NOISE_SNR) / 20.0)
    # The rounding of 16-bit audio, so that no silence is perfect.
    total = power(parts.sum(axis=0))
    parts *= 10.0 ** (rng.uniform(*LEVEL) / 20.0) / np.sqrt(total) if total > 0.0 else 0.0
    parts[2] += rng.uniform(-0.5, 0.5, length).astype(np.float32) / 32768.0
    return parts


def batch(seed, step, material, size, length):
    """[item, class, sample]"""
    return np.stack([mixture(np.random.default_rng((seed, step, item)), material, length)
                     for item in range(size)])
