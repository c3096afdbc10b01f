"""Mixtures of speech, music and noise, made anew in each step; each depends on its seed alone."""

import numpy as np
from scipy import fft, signal

from data import SAMPLE_RATE

# Shares of the kinds of mixture; `mix` has speech and music.
KINDS = {"mix": 0.66, "speech": 0.16, "music": 0.10, "noise": 0.07, "silence": 0.01}
SNR = (-12.0, 17.0)            # of speech to music in a mix, dB
NOISE_SHARE, NOISE_SNR = 0.35, (3.0, 35.0)
RECORDED_SHARE = 0.6           # of noise that is recorded, not made
LEVEL = (-48.0, -10.0)         # of the whole, dB below full scale
SECOND_VOICE_SHARE, SECOND_VOICE = 0.15, (-6.0, 6.0)   # dB against the first
PITCH_SHARE, PITCH = 0.7, 1.28             # of sources that are played faster or slower, up to so many times
TRACT_SHARE, TRACT = 0.4, 1.2              # of voices whose throat is made shorter or longer, likewise
EQUALISED_SHARE, EQUALISED = 0.3, 8.0      # dB up or down in each octave
COMPRESSED_SHARE, COMPRESSED = 0.2, (0.2, 0.6)   # share of the range of levels that is taken away
CLIPPED_SHARE, CLIPPED = 0.06, (0.25, 0.8)       # of the peak
MOVED_SHARE, MOVED = 0.25, 5.0             # of music whose level changes within a second, dB
SECOND_MUSIC_SHARE = 0.08
ROOM_SHARE = {"speech": 0.4, "music": 0.15}
BREAK_SHARE = 0.25             # of mixes in which one of the two begins late or ends early
CODED_SHARE = 0.65             # of sources that went through a speech codec
SAME_CODING = 0.85             # of mixes in which both or none did
# A voice or package is heard as often as its minutes to this power: the more even, the more voices.
EVENNESS = {"speech": 0.65, "music": 0.5, "noise": 0.5}
CUTOFF_SHARE, CUTOFF = 0.2, (3400.0, 7500.0)
SAME_CUTOFF = 0.5              # of mixes in which both have the same bandwidth, as through one line
TELEPHONE_SHARE = 0.06         # of mixtures that went over a telephone line, G.711


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
        for kind in ("speech", "music", "noise"):
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

    def noise(self, rng, length, coded=None):
        """Recordings of one package, one after another; each begins again until a random length is over."""
        audio, at = np.zeros(length, np.float32), 0
        pieces = self.pieces(rng, "noise", coded)
        while at < length:
            samples = self.recordings.samples(pieces[rng.integers(len(pieces))], 0, 10 * SAMPLE_RATE)
            samples = np.tile(samples, 1 + int(rng.integers(0, 4)))[:length - at]
            samples = samples / np.sqrt(active_power(samples)) if len(samples) >= 512 else samples * 0.0
            audio[at:at + len(samples)] = samples
            at += len(samples) + int(rng.integers(0, SAMPLE_RATE // 4))
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


def faster(audio, ratio):
    """Played about `ratio` times as fast: pitch, resonances and tempo change alike."""
    spectrum = fft.rfft(audio)
    count = fft.next_fast_len(int(len(audio) / ratio), True)
    return fft.irfft(spectrum[:count // 2 + 1], count) * (count / len(audio))


def tract(audio, ratio):
    """A voice with its resonances `ratio` times as high, and the pitch it has: the smooth part of each spectrum is
    moved along the frequencies."""
    window = np.sin(np.pi * np.arange(512) / 512).astype(np.float32)
    hops = np.concatenate([audio, np.zeros(-len(audio) % 256 + 256)]).astype(np.float32).reshape(-1, 256)
    spectra = fft.rfft(np.hstack([hops[:-1], hops[1:]]) * window)
    cepstra = fft.irfft(np.log(np.abs(spectra) + 1e-4))
    cepstra[:, 20:-19] = 0.0
    smooth = fft.rfft(cepstra).real
    place = np.minimum(np.arange(257) / ratio, 255.999)
    low, part = place.astype(int), (place % 1.0).astype(np.float32)
    moved = smooth[:, low] * (1.0 - part) + smooth[:, low + 1] * part
    windows = fft.irfft(spectra * np.exp(np.clip(moved - smooth, -3.0, 3.0))) * window
    result = np.zeros_like(hops)
    result[:-1] += windows[:, :256]
    result[1:] += windows[:, 256:]
    return result.reshape(-1)[:len(audio)]


def equalise(rng, audio):
    """Another gain for each octave from 60 Hz on."""
    spectrum = fft.rfft(audio)
    octave = np.log2(np.arange(len(spectrum)) * (SAMPLE_RATE / 2 / 60.0 / len(spectrum)) + 1.0)
    gains = rng.uniform(-EQUALISED, EQUALISED, 9)
    return fft.irfft(spectrum * 10.0 ** (np.interp(octave, np.arange(9), gains) / 20.0).astype(np.float32), len(audio))


def along(levels, length):
    """Gains in dB, equally far apart, as a factor for each sample."""
    place = np.linspace(0.0, len(levels) - 1.0, length)
    return (10.0 ** (np.interp(place, np.arange(len(levels)), levels) / 20.0)).astype(np.float32)


def compress(rng, audio):
    """Makes what is loud fainter, as a compressor of broadcasts does, within 60 ms."""
    blocks = audio[:len(audio) // 1024 * 1024].reshape(-1, 1024)
    levels = 10.0 * np.log10(np.mean(blocks ** 2, axis=1) + 1e-9)
    levels = np.maximum(levels, levels.max() - 30.0)
    return audio * along(-rng.uniform(*COMPRESSED) * (levels - levels.max()), len(audio))


def room(rng, audio):
    """Reverberation: some early reflections and noise that decays by 60 dB in 0.1 to 0.9 s, the high frequencies
    faster, after the direct sound."""
    seconds = rng.uniform(0.1, 0.9)
    length = int(seconds * SAMPLE_RATE * 0.7)
    tail = rng.standard_normal(length) * 10.0 ** (-3.0 * np.arange(length) / (seconds * SAMPLE_RATE))
    tail = signal.lfilter([1.0], [1.0, -rng.uniform(0.0, 0.7)], tail)
    tail[:int(rng.uniform(0.001, 0.02) * SAMPLE_RATE)] = 0.0
    early = rng.integers(16, int(0.05 * SAMPLE_RATE), 6)
    tail[early] += np.abs(tail).max() * rng.uniform(-1.5, 1.5, 6)
    tail *= 10.0 ** (rng.uniform(-15.0, 3.0) / 20.0) / np.sqrt(np.sum(tail ** 2))
    tail[0] = 1.0
    return signal.fftconvolve(audio, tail)[:len(audio)]


def telephone(audio):
    """300 to 3400 Hz, eight thousand samples per second, eight bits by the law of G.711 (mu = 255)."""
    sections = signal.butter(4, (300.0, 3400.0), "bandpass", fs=SAMPLE_RATE, output="sos")
    narrow = signal.sosfilt(sections, audio)[::2]
    peak = np.abs(narrow).max() + 1e-9
    coded = np.round(127.0 * np.sign(narrow) * np.log1p(255.0 * np.abs(narrow) / peak) / np.log(256.0)) / 127.0
    narrow = peak * np.sign(coded) * np.expm1(np.abs(coded) * np.log(256.0)) / 255.0
    return signal.resample_poly(narrow, 2, 1)[:len(audio)]


def source(rng, material, kind, length, coded, cutoff):
    """One augmented source at active power 1; `cutoff` is the bandwidth of the line, None for all."""
    ratio = PITCH ** rng.uniform(-1.0, 1.0) if rng.random() < PITCH_SHARE else 1.0
    audio = getattr(material, kind)(rng, fft.next_fast_len(int(length * ratio) + 16, True), coded)
    if ratio != 1.0:
        audio = faster(audio, ratio)
    audio = audio[:length]
    if kind == "speech" and rng.random() < TRACT_SHARE:
        audio = tract(audio, TRACT ** rng.uniform(-1.0, 1.0))
    if kind != "noise" and rng.random() < COMPRESSED_SHARE:
        audio = compress(rng, audio)
    if kind == "music" and rng.random() < MOVED_SHARE:
        audio = audio * along(rng.uniform(-MOVED, MOVED, length // 8000 + 2), length)
    if rng.random() < EQUALISED_SHARE:
        audio = equalise(rng, audio)
    elif rng.random() < 0.7:
        audio = resonances(rng, audio)
    if rng.random() < CLIPPED_SHARE:
        peak = np.abs(audio).max()
        audio = np.clip(audio, *(peak * rng.uniform(*CLIPPED) * np.array([-1.0, 1.0])))
    if rng.random() < ROOM_SHARE.get(kind, 0.0):
        audio = room(rng, audio)
    if cutoff is not None:
        sections = signal.butter(6, cutoff, fs=SAMPLE_RATE, output="sos")
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
    same_line = rng.random() < SAME_CUTOFF
    cutoffs = [rng.uniform(*CUTOFF) if rng.random() < CUTOFF_SHARE else None for _ in range(2)]
    if kind in ("mix", "speech"):
        parts[0] = source(rng, material, "speech", length, coded, cutoffs[0])
        if rng.random() < SECOND_VOICE_SHARE:
            second = source(rng, material, "speech", length, coded, cutoffs[0])
            parts[0] += interrupt(rng, second) * 10.0 ** (rng.uniform(*SECOND_VOICE) / 20.0)
    if kind in ("mix", "music"):
        same = rng.random() < SAME_CODING
        parts[1] = source(rng, material, "music", length, coded if same else not coded,
                          cutoffs[0 if same_line else 1])
        if rng.random() < SECOND_MUSIC_SHARE:
            second = source(rng, material, "music", length, coded if same else not coded,
                            cutoffs[0 if same_line else 1])
            parts[1] = (parts[1] + second) * np.sqrt(0.5)
    if kind == "mix":
        parts[1] *= 10.0 ** (-rng.uniform(*SNR) / 20.0)
        if rng.random() < BREAK_SHARE:
            which = rng.integers(2)
            parts[which] = interrupt(rng, parts[which])
    if kind == "noise" or (kind != "silence" and rng.random() < NOISE_SHARE):
        recorded = rng.random() < RECORDED_SHARE
        parts[2] = source(rng, material, "noise", length, None, None) if recorded else noise(rng, length)
        loudness = power(parts[0] + parts[1]) if kind != "noise" else 1.0
        parts[2] *= np.sqrt(loudness / (power(parts[2]) + 1e-9)) * 10.0 ** (-rng.uniform(*NOISE_SNR) / 20.0)
    if rng.random() < TELEPHONE_SHARE:
        parts = np.stack([telephone(part) for part in parts]).astype(np.float32)
    # The rounding of 16-bit audio, so that no silence is perfect.
    total = power(parts.sum(axis=0))
    parts *= 10.0 ** (rng.uniform(*LEVEL) / 20.0) / np.sqrt(total) if total > 0.0 else 0.0
    parts[2] += rng.uniform(-0.5, 0.5, length).astype(np.float32) / 32768.0
    return parts


def batch(seed, step, material, items, length):
    """[item, class, sample] of some items of a step."""
    return np.stack([mixture(np.random.default_rng((seed, step, item)), material, length) for item in items])
