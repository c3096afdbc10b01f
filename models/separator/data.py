#!/usr/bin/python3
"""Decodes the recordings of the Debian packages, once, to 16 kHz mono: one memory-mapped file of
16-bit samples, and an index of the pieces in it.

usage: data.py FOLDER
FOLDER gets audio.i16 and index.json: a list of pieces {kind, source, language, name, coded, part, start,
length}. `kind` is speech or music; `source` the voice or the package; `part` is train, file (a file of
a voice that is trained on), voice (a voice or language that is not) or work (music that is not);
`coded` tells whether the recording went through a speech codec, as all prompts did. The rest is there with
G.722 and without, so that the codec gives nothing away.
"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import zlib
from concurrent.futures import ThreadPoolExecutor

import numpy as np

SAMPLE_RATE = 16000
SHARE = pathlib.Path("/usr/share")
SOUNDS = SHARE / "asterisk/sounds"
NO_SPEECH = re.compile(r"silence/|beep|tone|tt-|/music")

# voice, language, folder of files in G.722 or GSM, part
PROMPTS = (
    ("Allison Smith", "en", SOUNDS / "en_US_f_Allison", "train"),
    ("Allison Smith", "es", SOUNDS / "es_MX_f_Allison", "train"),
    ("June Wallack", "fr", SOUNDS / "fr_CA_f_June", "train"),
    ("Maxim Topal", "ru", SOUNDS / "ru_RU_f_IvrvoiceRU", "train"),
    ("Armelle Desjardins", "fr", SOUNDS / "fr", "train"),
    ("Carlo Flora", "it", SOUNDS / "it_IT_m_Carlo", "voice"),
    ("July Jimenez", "es", SOUNDS / "es", "voice"),
)
# Words, syllables or calls: a folder for each language or voice. Italian is never trained on.
WORDS = (
    ("klettres", SHARE / "klettres"),
    ("ktuberling", SHARE / "ktuberling/sounds"),
    ("hedgewars", SHARE / "games/hedgewars/Data/Sounds/voices"),
)
UNTRAINED_LANGUAGE = "it"

# Dialogues of a game: language, speaker as the names of the files have it.
DIALOGUES = SHARE / "games/fillets-ng/sound"
SPEAKERS = (("cs", "m"), ("cs", "v"), ("cs", ""), ("nl", "m"), ("nl", "v"), ("nl", ""), ("en", ""))

# Synthesisers that speak with recorded voices; what they read is on every Debian system. Of some voices the
# language is another than that of the text, which does not matter here.
FESTIVAL = ("kal_diphone", "ked_diphone", "cmu_us_slt_arctic_hts", "czech_dita", "czech_krb", "czech_machac",
            "czech_ph", "hy_fi_mv_diphone", "suo_fi_lj_diphone", "msu_ru_nsh_clunits", "upc_ca_ona_hts")
FLITE = ("awb", "rms", "slt")
TEXT = SHARE / "common-licenses/GPL-3"
TEXT_LENGTH = 5000     # characters for each voice
READ_PIECE = 5         # seconds

MUSIC = (
    ("asterisk-moh-opsound-g722", SHARE / "asterisk/moh"),
    ("wesnoth-1.16-music", SHARE / "games/wesnoth/1.16/data/core/music"),
    ("warzone2100-music", SHARE / "games/warzone2100/music"),
    ("fillets-ng-data", SHARE / "games/fillets-ng/music"),
    ("hedgewars-data", SHARE / "games/hedgewars/Data/Music"),
    ("singularity-music", SHARE / "games/singularity/music"),
)
UNTRAINED_WORKS = ("macroform-cold_day", "reno_project-system", "wanderer", "love_theme", "the_deep_path",
                   "track20")

# Formats without a header: ffmpeg's name, samples at SAMPLE_RATE for so many bytes.
RAW_FORMATS = {".g722": ("g722", 2, 1), ".gsm": ("gsm", 320, 33)}


def decode(command_input, options=()):
    """What ffmpeg makes of a file or of bytes, as 16-bit samples."""
    source, data = ("-", command_input) if isinstance(command_input, bytes) else (str(command_input), None)
    raw = subprocess.run(
        ["ffmpeg", "-v", "fatal", "-threads", "1", *options, "-i", source, "-ac", "1", "-ar", str(SAMPLE_RATE),
         "-f", "s16le", "-"], input=data, stdout=subprocess.PIPE, check=True).stdout
    return np.frombuffer(raw, np.int16)


def decode_many(paths, at_once=40):
    """As `decode` for many short files, where starting ffmpeg is what takes time."""
    for first in range(0, len(paths), at_once):
        chosen = paths[first:first + at_once]
        with tempfile.TemporaryDirectory() as folder:
            outputs = [f"{folder}/{i}" for i in range(len(chosen))]
            command = ["ffmpeg", "-v", "fatal", "-threads", "1"]
            for path in chosen:
                command += ["-i", str(path)]
            for i, output in enumerate(outputs):
                command += ["-map", f"{i}:a", "-ac", "1", "-ar", str(SAMPLE_RATE), "-f", "s16le", output]
            subprocess.run(command, stdin=subprocess.DEVNULL, check=True)
            yield from (np.fromfile(output, np.int16) for output in outputs)


def through_g722(samples):
    coded = subprocess.run(
        ["ffmpeg", "-v", "fatal", "-f", "s16le", "-ar", str(SAMPLE_RATE), "-ac", "1", "-i", "-", "-f", "g722", "-"],
        input=samples.tobytes(), stdout=subprocess.PIPE, check=True).stdout
    return decode(coded, ("-f", "g722"))


def audio_files(folder):
    return sorted(p for p in folder.rglob("*") if p.suffix in (".g722", ".gsm", ".ogg", ".wav", ".opus"))


def file_part(path):
    """One file of ten is kept from the training; the choice depends on its name alone."""
    return "file" if zlib.crc32(path.name.encode()) % 10 == 0 else "train"


def prompts(voice, language, folder, part):
    """One decoder for all files of a format in a folder."""
    files = [p for p in audio_files(folder) if not NO_SPEECH.search(str(p))]
    for suffix, (name, samples, count) in RAW_FORMATS.items():
        chosen = [p for p in files if p.suffix == suffix]
        contents = [p.read_bytes() for p in chosen]
        if not chosen:
            continue
        audio, end = decode(b"".join(contents), ("-f", name)), 0
        for path, content in zip(chosen, contents):
            start, end = end, end + len(content) * samples // count
            yield (dict(kind="speech", source=voice, language=language, name=path.stem, coded=True,
                        part=file_part(path) if part == "train" else part), audio[start:end])


def with_and_without_codec(piece, named):
    """`piece` for each (name, samples) as it is, and as it comes out of one run of the codec."""
    coded = through_g722(np.concatenate([samples for _, samples in named]))
    end = 0
    for name, samples in named:
        start, end = end, end + len(samples)
        yield dict(piece, name=name, coded=False), samples
        yield dict(piece, name=name, coded=True), coded[start:end]


def utterances(voice, language, files):
    return with_and_without_codec(dict(kind="speech", source=voice, language=language, part="train"),
                                  [(path.stem, samples) for path, samples in zip(files, decode_many(files))])


def dialogue(language, speaker):
    """What one speaker says; without a name all that none of the others says."""
    def says(path):
        parts = path.stem.split("-")
        who = parts[1] if len(parts) > 2 else ""
        return who == speaker if speaker else (language, who) not in SPEAKERS
    files = [p for p in audio_files(DIALOGUES) if p.parent.name == language and says(p)]
    return utterances(f"fillets-ng {language} {speaker}", language, files)


def reading(number, program, voice):
    """A passage of a text, another one for each voice, in pieces of some seconds."""
    text = TEXT.read_text()
    start = number * TEXT_LENGTH % (len(text) - TEXT_LENGTH)
    passage = re.sub(r"[^A-Za-z.,;]+", " ", text[start:start + TEXT_LENGTH])
    with tempfile.TemporaryDirectory() as folder:
        source, output = pathlib.Path(folder, "text"), pathlib.Path(folder, "speech.wav")
        source.write_text(passage)
        command = (["text2wave", "-eval", f"(voice_{voice})", "-o", str(output), str(source)]
                   if program == "festival" else ["flite", "-voice", voice, "-f", str(source), "-o", str(output)])
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        samples = decode(output)
    size = READ_PIECE * SAMPLE_RATE
    return with_and_without_codec(
        dict(kind="speech", source=f"{program} {voice}", language="", part="train"),
        [(str(i), samples[at:at + size]) for i, at in enumerate(range(0, len(samples), size))])


def music(package, path):
    part = "work" if path.stem in UNTRAINED_WORKS else "train"
    piece = dict(kind="music", source=package, language="", part=part)
    if path.suffix == ".g722":
        return [(dict(piece, name=path.stem, coded=True), decode(path, ("-f", "g722")))]
    return with_and_without_codec(piece, [(path.stem, decode(path))])


def sources():
    """Functions without arguments that give lists of pieces, in a fixed order."""
    for row in PROMPTS:
        yield lambda row=row: list(prompts(*row))
    for program, root in WORDS:
        for folder in sorted(p for p in root.iterdir() if p.is_dir()):
            files = audio_files(folder)
            if folder.name != UNTRAINED_LANGUAGE and files:
                yield lambda name=folder.name, program=program, files=files: list(
                    utterances(f"{program} {name}", name, files))
    for row in SPEAKERS:
        yield lambda row=row: list(dialogue(*row))
    voices = [("festival", voice) for voice in FESTIVAL] + [("flite", voice) for voice in FLITE]
    for number, row in enumerate(voices):
        yield lambda number=number, row=row: list(reading(number, *row))
    for package, folder in MUSIC:
        for path in audio_files(folder):
            if path.stem != "silence":
                yield lambda package=package, path=path: list(music(package, path))


def prepare(folder):
    folder.mkdir(parents=True, exist_ok=True)
    index, start = [], 0
    with open(folder / "audio.i16.partial", "wb") as file, ThreadPoolExecutor(2) as pool:
        for pieces in pool.map(lambda source: source(), sources()):
            for piece, samples in pieces:
                samples.tofile(file)
                index.append(dict(piece, start=start, length=len(samples)))
                start += len(samples)
    (folder / "audio.i16.partial").rename(folder / "audio.i16")
    (folder / "index.json").write_text(json.dumps(index, indent=0))
    seconds = {}
    for piece in index:
        key = (piece["kind"], piece["part"], piece["source"])
        seconds[key] = seconds.get(key, 0) + piece["length"] / SAMPLE_RATE
    for (kind, part, source), total in sorted(seconds.items()):
        print(f"{kind:7} {part:6} {source:30} {total / 60:7.1f} min")


class Recordings:
    """The prepared audio: `pieces`, the index, and the samples of each as floats."""

    def __init__(self, folder):
        folder = pathlib.Path(folder)
        self.pieces = json.loads((folder / "index.json").read_text())
        self.audio = np.memmap(folder / "audio.i16", np.int16, "r")

    def samples(self, piece, offset=0, length=None):
        end = piece["length"] if length is None else min(offset + length, piece["length"])
        return self.audio[piece["start"] + offset:piece["start"] + end].astype(np.float32) / 32768.0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    prepare(pathlib.Path(sys.argv[1]))
