#!/usr/bin/python3
"""Measures a model on recordings that it was not trained on, through the library: mixes are written as
a WAV file, `kalvrin render --stems` separates them, the stems are compared with what went into the mix.

usage: evaluate.py AUDIO_FOLDER MODEL.onnx KALVRIN WORK_FOLDER CARD.md [CHECKPOINT]
AUDIO_FOLDER is what data.py makes. Prints the tables, puts them between the marks of the card, and leaves the
figures in WORK_FOLDER/evaluation.json for plots.py. With a checkpoint, the output of the engine is first
compared with that of the training framework over 500 windows.

One channel of the file per group of voices; in time, one stretch of STRETCH seconds per ratio of speech to
music and music work, then one of speech alone per work, then one of music alone. The stream runs through all of
it without a new start. All went through G.722, so that the codec gives nothing away, but for the last voice.
"""

import json
import pathlib
import subprocess
import sys
import warnings

import numpy as np
from scipy.io import wavfile

from data import SAMPLE_RATE, UNTRAINED_WORKS, Recordings
from mixtures import Material, power

SEED = 5
STRETCH = 10
RATIOS = (-10, -5, 0, 5, 10, 15)
LEVEL = 0.05           # root mean square of the mix
TOLERANCE = 1e-4
COMPARED_WINDOWS = 500
BEGIN, END = "<!-- tables of make eval -->", "<!-- end of tables -->"

# name, language, part of the recordings, voices
GROUPS = (
    ("English", "en", "file", None),
    ("Spanish", "es", "file", None),
    ("French", "fr", "file", "June Wallack"),
    ("Russian", "ru", "file", None),
    ("Italian, untrained voice and language", "it", "voice", None),
    ("Spanish, untrained voice, telephone band", "es", "voice", None),
)


def speech_of(recordings, language, part, voice):
    return Material(recordings, (part,), lambda p: p["kind"] == "speech" and p["language"] == language and
                    (voice is None or p["source"] == voice))


def cut(recordings, piece, length, rng):
    """A stretch of a work that is not silent."""
    for _ in range(20):
        offset = int(rng.integers(0, piece["length"] - length))
        audio = recordings.samples(piece, offset, length)
        if power(audio) > 1e-5:
            break
    return audio


def mixes(recordings):
    """[speech or music, group, sample], and for each stretch its ratio ("speech", "music" alone)."""
    rng = np.random.default_rng(SEED)
    length = STRETCH * SAMPLE_RATE
    materials = [speech_of(recordings, *group[1:]) for group in GROUPS]
    works = {p["name"]: p for p in recordings.pieces if p["name"] in UNTRAINED_WORKS and p["coded"]}
    stretches, kinds = [], []
    for kind in RATIOS + ("speech", "music"):
        for name in UNTRAINED_WORKS:
            parts = np.zeros((2, len(GROUPS), length), np.float32)
            for g, material in enumerate(materials):
                speech, music = material.speech(rng, length), cut(recordings, works[name], length, rng)
                speech *= 1.0 / np.sqrt(power(speech))
                music *= 1.0 / np.sqrt(power(music))
                if kind in RATIOS:
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
        sound = synthesise(load(checkpoint)(spectra)[:, :2] * spectra[:, None]).transpose(0, 1).numpy()
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
    lines.append("| mean | " + " | ".join(f"{np.mean(found[str(r)][name]):.1f}" for r in RATIOS) + " |")
    return "\n".join(lines)


def report(found):
    alone = "\n".join(f"| {group[0]} | {found['speech']['music'][g]:.1f} | {found['music']['speech'][g]:.1f} |"
                      for g, group in enumerate(GROUPS))
    return "\n".join((
        "Improvement of SI-SDR of Speech in dB by the ratio of speech to music:\n", table(found, "speech"),
        "\nThe same of Music:\n", table(found, "music"),
        "\nOne source alone, level in dB of the other class against it:\n",
        "| | Music on speech | Speech on music |\n|---|---|---|", alone))


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
