#!/usr/bin/python3
"""Measures what the plugins do above the model's band, and draws it: the separator at 48 kHz on speech with music and
with hiss. Needs the packages of the groups `train` and `plugins`.

usage: high-band.py BUILD_FOLDER PICTURE.png
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import wave

import numpy as np

from demo_picture import draw

RATE, SECONDS, BAND = 48000, 14, (8300, 20000)
GAMES = pathlib.Path("/usr/share/games")
VOICES = GAMES / "hedgewars/Data/Sounds/voices/British"
MUSIC = GAMES / "wesnoth/1.16/data/core/music/battle.ogg"
QUIET = 10 ** (-20 / 20)


def read(path, *options):
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", path, *options, "-ac", "1", "-ar", str(RATE), "-f", "f32le", "-"],
                         check=True, capture_output=True).stdout
    return np.frombuffer(raw, np.float32)


def levelled(samples):
    return samples * (0.08 / np.sqrt(np.mean(samples**2)))


def write(path, samples):
    with wave.open(str(path), "wb") as out:
        out.setnchannels(1)
        out.setsampwidth(2)
        out.setframerate(RATE)
        out.writeframes((samples * 32767).astype("<i2").tobytes())


def band(samples):
    spectrum = np.fft.rfft(samples)
    hz = np.fft.rfftfreq(len(samples), 1 / RATE)
    spectrum[(hz < BAND[0]) | (hz > BAND[1])] = 0
    return np.fft.irfft(spectrum, len(samples))


def level_error(found, wanted):
    """The mean of the error of the level in dB, over frames of 20 ms."""
    def levels(samples):
        frames = band(samples)[:len(samples) // 960 * 960].reshape(-1, 960)
        return 10 * np.log10(np.mean(frames**2, 1) + 1e-9)
    return np.mean(np.abs(levels(found) - levels(wanted)))


def ratio(found, wanted):
    """In dB, from what is wanted to what differs from it."""
    wanted, found = band(wanted), band(found)
    return 10 * np.log10(np.sum(wanted**2) / np.sum((found - wanted)**2))


def main(build, picture):
    work = pathlib.Path(tempfile.mkdtemp(prefix="kalvrin-high-band."))
    said = subprocess.run([build / "bin/kalvrin", "plugin", build / "models/separator.onnx", "--ladspa", "--to", work],
                          check=True, capture_output=True, text=True).stdout
    label = re.search(r"mono +(\S+)", said)[1]

    def play(path, rest, high_band):
        """Music 20 dB down; in time with the input."""
        controls = f"c1=0|c2=-20|c3={rest}|c4=0|c5=1|c6={high_band}"
        chain = f"ladspa=file={work}/kalvrin_ladspa.so:plugin={label}:controls={controls}"
        found = read(path, "-af", chain + f",apad=pad_len={RATE}")
        size = 1 << int(np.ceil(np.log2(2 * len(found))))
        given = np.fft.rfft(read(path), size)
        late = int(np.argmax(np.fft.irfft(np.fft.rfft(found, size) * given.conj(), size)[:RATE // 4]))
        return found[late:late + SECONDS * RATE]

    parts = []
    for voice in sorted(VOICES.glob("*.ogg")):
        parts += [levelled(read(voice)), np.zeros(RATE // 4, np.float32)]
    speech = np.concatenate(parts)[:SECONDS * RATE]
    others = {"music": levelled(read(MUSIC, "-ss", "40", "-t", str(SECONDS + 1))[:len(speech)]),
              "hiss": 0.02 * np.random.default_rng(1).standard_normal(len(speech))}
    files = {name: work / f"{name}.wav" for name in ("given", "wanted", "follow", "rest")}
    print("| speech and | Rest | High band | level is wrong by | wanted to unwanted |\n|---|---|---|---|---|")
    for name, other in reversed(others.items()):
        write(files["given"], speech + other)
        for rest in (0, -20):
            wanted = speech + QUIET * other
            for number, choice in enumerate(("Follow", "Rest")):
                found = play(files["given"], rest, number)
                write(files[choice.lower()], found)
                print(f"| {name} | {rest} dB | {choice} | {level_error(found, wanted):.1f} dB | {ratio(found, wanted):.1f} dB |")
        write(files["wanted"], wanted)
    draw(picture, "The separator at 48 kHz, Music and Rest 20 dB down", "Speech with music", files["given"],
         "Wanted: the music 20 dB down", files["wanted"], "High band: Follow", files["follow"],
         "High band: Rest", files["rest"])


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), sys.argv[2])
