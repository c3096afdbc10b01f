#!/usr/bin/python3
"""Writes the page of the demonstration to OUTDIR/index.html and OUTDIR/page/. The page needs no server.

usage: demo_page.py OUTDIR SCENE...
A SCENE is a text file of lines "key<TAB>value". The keys: title, about, input (a file), parts (a folder), classes,
options (of `kalvrin render`), summary (what it printed, a key for each line).
"""

import base64
import collections
import json
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import wave

PAGE = pathlib.Path(__file__).resolve().parent.parent / "page"


def read_scene(path):
    scene = collections.defaultdict(list)
    for line in pathlib.Path(path).read_text().splitlines():
        key, _, value = line.partition("\t")
        scene[key].append(value)
    return scene


def audio(path):
    """The file as FLAC with 16 bits, in base64."""
    coded = subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-i", path, "-c:a", "flac", "-sample_fmt", "s16",
                            "-f", "flac", "-"], check=True, capture_output=True).stdout
    return base64.b64encode(coded).decode()


def decibels(gain):
    if not gain.endswith("dB"):
        raise SystemExit(f"demo_page.py: the gain {gain} is not in dB")
    return float(gain[:-2])


def gains(options):
    """Where the sliders stand at first, by part: the gains in the options of `kalvrin render`."""
    result = {}
    words = iter(shlex.split(options))
    for word in words:
        if word == "--gain":
            name, _, gain = next(words).partition("=")
            result[name] = decibels(gain)
        elif word in ("--rest", "--master"):
            result["Rest" if word == "--rest" else "Mix"] = decibels(next(words))
    return result


def facts(summary):
    found = {}
    for term, label, pattern in (("Model", "model", "(.*)"), ("Latency", "latency", r"(.*\))"),
                                 ("Real-time factor", "speed", r"real-time factor (\S+)")):
        line = re.search(rf"^ *{label} +{pattern}", summary, re.MULTILINE)
        if line is None:
            raise SystemExit(f"demo_page.py: no {label} in\n{summary}")
        found[term] = line.group(1)
    return found


def page_scene(path):
    scene = read_scene(path)
    sounds = {"Original": audio(scene["input"][0])}
    for name in [*scene["classes"][0].split(), "Rest"]:
        sounds[name] = audio(f"{scene['parts'][0]}/{name}.wav")
    with wave.open(scene["input"][0]) as file:
        rate = file.getframerate()
    return {"name": pathlib.Path(path).stem, "rate": rate, "title": scene["title"][0], "about": scene["about"][0],
            "facts": facts("\n".join(scene["summary"])), "gains": gains(scene["options"][0]), "audio": sounds}


def main(out, paths):
    scenes = [page_scene(path) for path in paths]
    out = pathlib.Path(out)
    (out / "page").mkdir(parents=True, exist_ok=True)
    for file in PAGE.glob("*.*"):
        if file.suffix in (".css", ".js"):
            shutil.copy(file, out / "page")
    (out / "page" / "scenes.js").write_text("window.scenes = " + json.dumps(scenes) + ";\n")
    shutil.copy(PAGE / "index.html", out)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2:])
