#!/usr/bin/python3
"""Measures a model on recordings that it was not trained on, through the library: mixes are written as
a WAV file, `kalvrin render --stems` separates them, the stems are compared with what went into the mix.

usage: evaluate.py AUDIO_FOLDER MODEL.onnx KALVRIN WORK_FOLDER CARD.md [CHECKPOINT]
AUDIO_FOLDER is what data.py makes. Prints the tables, puts them between the marks of the card, and leaves the
figures in WORK_FOLDER/evaluation.json for plots.py. With a checkpoint, the output of the engine is first
compared with that of the training framework over 500 windows.

One channel of the file per group of voices; in time, one stretch of STRETCH seconds per ratio of speech to
music and music work, then one of speech alone per work, of music alone, and of recorded noise alone. The stream
runs through all of it without a new start. All but the voices of the last group went through G.722, so that the
codec gives nothing away.
"""

import json
import pathlib
import subprocess
import sys
import warnings

import numpy as np
from scipy.io import wavfile

from data import SAMPLE_RATE, UNTRAINED_MUSIC, Recordings
from mixtures import Material, power

SEED = 5
STRETCH = 10
RATIOS = (-10, -5, 0, 5, 10, 15)
LEVEL = 0.05           # root mean square of the mix
TOLERANCE = 1e-4
COMPARED_WINDOWS = 500
BEGIN, END = "<!-- tables of make eval -->", "<!-- end of tables -->"

WORKS = 2              # of each package of music that is not trained on
ALONE = ("speech", "music", "noise")

# name, part of the recordings, sources
GROUPS = (
    ("Bulgarian, names of pictures", "voice", ("tuxpaint bg",)),
    ("Danish, names of pictures", "voice", ("tuxpaint da",)),
    ("Greek, names of pictures", "voice", ("tuxpaint el",)),
    ("Italian, prompts", "voice", ("Carlo Flora",)),
    ("English, read books", "voice", ("pocketsphinx",)),
    ("Five languages, calls of a game", "voice",
     tuple(f"planetblupi {language}" for language in ("de", "fr", "he", "it"))),
    ("Spanish, telephone band", "voice", ("July Jimenez",)),
    ("for comparison: a trained voice, English", "file", ("Allison Smith",)),
)


def speech_of(recordings, part, voices):
    return Material(recordings, (part,), lambda p: p["kind"] == "speech" and p["coded"] and p["source"] in voices)


def works_of(recordings):
    """The first WORKS pieces of a minute or more of each package."""
    return [piece for package in UNTRAINED_MUSIC for piece in
            sorted((p for p in recordings.pieces if p["kind"] == "music" and p["source"] == package and p["coded"] and
                    p["length"] >= 60 * SAMPLE_RATE), key=lambda p: p["name"])[:WORKS]]


def cut(recordings, piece, length, rng):
    """A stretch of a work that is not silent."""
    for _ in range(20):
        offset = int(rng.integers(0, piece["length"] - length))
        audio = recordings.samples(piece, offset, length)
        if power(audio) > 1e-5:
            break
    return audio


def mixes(recordings):
    """[speech or music, group, sample], and for each stretch its ratio or what is alone (noise in place of speech)."""
    rng = np.random.default_rng(SEED)
    length = STRETCH * SAMPLE_RATE
    materials = [speech_of(recordings, *group[1:]) for group in GROUPS]
    noises = Material(recordings, ("work",), lambda p: p["kind"] == "noise")
    stretches, kinds = [], []
    for kind in RATIOS + ALONE:
        for work in works_of(recordings):
            parts = np.zeros((2, len(GROUPS), length), np.float32)
            for g, material in enumerate(materials):
                speech, music = material.speech(rng, length), cut(recordings, work, length, rng)
                speech *= 1.0 / np.sqrt(power(speech))
                music *= 1.0 / np.sqrt(power(music))
                if kind == "noise":
                    speech, music = noises.noise(rng, length), np.zeros(length, np.float32)
                elif kind in RATIOS:
                    music *= 10.0 ** (-kind / 20.0)
                else:
                    (music if kind == "speech" else speech)[:] = 0.0
                parts[:, g] = np.stack([speech, music]) * (LEVEL / np.sqrt(power(speech + music)))
            stretches.append(parts)
            kinds.append(kind)
    return np.concatenate(stretches, axis=2), kinds


def separate(model, kalvrin, folder, mix):
    """The stems as the library makes them: [speech or music, group, sample]."""
    folder.mkdir(parents=True, exist_ok=True)
    wavfile.write(folder / "mix.wav", SAMPLE_RATE, mix.T)
    subprocess.run([kalvrin, "render", model, folder / "mix.wav", folder / "out.wav", "--stems", folder,
                    "--encoding", "float", "--format", "wav"], check=True, stdout=subprocess.DEVNULL)
    warnings.simplefilter("ignore", wavfile.WavFileWarning)  # of chunks without audio
    return np.stack([wavfile.read(folder / f"{name}.wav")[1].T for name in ("Speech", "Music")])


def compare(checkpoint, mix, stems):
    """The largest difference of a sample between engine and training framework."""
    import torch
    from export import load
    from network import HOP
    from spectra import analyse, synthesise
    length = COMPARED_WINDOWS * HOP
    audio = torch.nn.functional.pad(torch.from_numpy(mix[:, :length].copy()), (HOP, 0))
    spectra = analyse(audio)
    with torch.no_grad():
        sound = synthesise(load(checkpoint)(spectra)).transpose(0, 1).numpy()
    return float(np.abs(sound - stems[:, :, :sound.shape[2]]).max())


def ratio(estimate, target):
    """SI-SDR in dB, in double."""
    estimate, target = estimate.astype(np.float64), target.astype(np.float64)
    projection = (estimate @ target) / (target @ target) * target
    return 10.0 * np.log10((projection @ projection) / np.sum((estimate - projection) ** 2))


def measure(parts, kinds, stems):
    """{kind: {"speech": [gain per group], "music": ...}}; for one source alone the level in dB of the
    other's stem below that source."""
    length = STRETCH * SAMPLE_RATE
    found = {}
    for i, kind in enumerate(kinds):
        span = slice(i * length, (i + 1) * length)
        rows = found.setdefault(str(kind), {"speech": [], "music": []})
        speech, music = [], []
        for g in range(len(GROUPS)):
            target, stem = parts[:, g, span], stems[:, g, span]
            mix = target.sum(axis=0)
            if kind in RATIOS:
                speech.append(ratio(stem[0], target[0]) - ratio(mix, target[0]))
                music.append(ratio(stem[1], target[1]) - ratio(mix, target[1]))
            else:
                levels = 10.0 * np.log10([power(s) / power(mix) + 1e-12 for s in stem])
                speech.append(levels[0])
                music.append(levels[1])
        rows["speech"].append(speech)
        rows["music"].append(music)
    return {kind: {name: np.mean(values, axis=0).tolist() for name, values in rows.items()}
            for kind, rows in found.items()}


def table(found, name):
    lines = ["| | " + " | ".join(f"{r:+d} dB" if r else "0 dB" for r in RATIOS) + " |",
             "|---|" + "---|" * len(RATIOS)]
    for g, group in enumerate(GROUPS):
        lines.append(f"| {group[0]} | " + " | ".join(f"{found[str(r)][name][g]:.1f}" for r in RATIOS) + " |")
    means = (f"{np.mean(found[str(r)][name][:-1]):.1f}" for r in RATIOS)
    lines.append("| mean of the untrained | " + " | ".join(means) + " |")
    return "\n".join(lines)


def report(found):
    alone = "\n".join(
        f"| {group[0]} | {found['speech']['music'][g]:.1f} | {found['music']['speech'][g]:.1f} | "
        f"{found['noise']['speech'][g]:.1f} | {found['noise']['music'][g]:.1f} |" for g, group in enumerate(GROUPS))
    return "\n".join((
        "Improvement of SI-SDR of Speech in dB by the ratio of speech to music:\n", table(found, "speech"),
        "\nThe same of Music:\n", table(found, "music"),
        "\nOne source alone, level in dB of a class against it:\n",
        "| | Music on speech | Speech on music | Speech on noise | Music on noise |\n|---|---|---|---|---|", alone))


def main(audio, model, kalvrin, work, card, checkpoint=None):
    work, card = pathlib.Path(work), pathlib.Path(card)
    parts, kinds = mixes(Recordings(audio))
    mix = parts.sum(axis=0)
    stems = separate(model, kalvrin, work, mix)
    if checkpoint and pathlib.Path(checkpoint).exists():
        difference = compare(checkpoint, mix, stems)
        print(f"Engine and training framework over {COMPARED_WINDOWS} windows: at most {difference:.1e} apart\n")
        if not difference <= TOLERANCE:
            sys.exit("the exported model is not the trained network")
    found = measure(parts, kinds, stems)
    (work / "evaluation.json").write_text(json.dumps({"groups": [g[0] for g in GROUPS], "found": found}, indent=1))
    tables = report(found)
    print(tables)
    before, begin, rest = card.read_text().partition(BEGIN)
    _, end, after = rest.partition(END)
    if not end:
        sys.exit(f"{card} has no place for the tables")
    card.write_text(f"{before}{begin}\n{tables}\n{end}{after}")


if __name__ == "__main__":
    if len(sys.argv) not in (6, 7):
        sys.exit(__doc__)
    main(*sys.argv[1:])
