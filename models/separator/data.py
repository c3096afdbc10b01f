#!/usr/bin/python3
"""Decodes the recordings of the Debian packages, once, to 16 kHz mono.

usage: data.py FOLDER
FOLDER/audio gets two files for each source (a voice, a package): SOURCE.i16, 16-bit samples, and SOURCE.json, a
list of the pieces in it: {kind, source, language, name, coded, part, start, length}. `kind` is speech, music or
noise; `part` is train, or what is kept from the training: file (files of a voice that is trained on), voice
(voices, languages and packages that are not) or work (music and noise that is not); `coded` tells whether the
recording went through a speech codec, as all prompts did. The rest is there with G.722 and without, so that
the codec gives nothing away. A source that is there already is passed over.
"""

import json
import pathlib
import os
import re
import struct
import subprocess
import sys
import tempfile
import zipfile
import zlib

import numpy as np
from scipy import signal

from unpacking import SIGNATURE, unpack

SAMPLE_RATE = 16000
# Is taken from all speech: what lies below 50 Hz is no voice; some recordings have a third of their power there.
RUMBLE = signal.butter(4, 50.0, "highpass", fs=SAMPLE_RATE, output="sos")
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
    ("qabcs", SHARE / "qabcs/abcs"),
    ("kajongg", SHARE / "kajongg/voices"),
)
NO_WORDS = ("all",)     # a folder of sounds
# Nothing of these is trained on, whoever says it.
UNTRAINED_LANGUAGES = ("bg", "da", "el", "it")

# Names of pictures, each said in several languages.
STAMPS = SHARE / "tuxpaint/stamps"
STAMP_LANGUAGES = ("be", "bg", "ca", "da", "el", "es", "fr", "lt", "nl", "ro", "ru")
STAMP_SOUNDS = re.compile(r"stamps/(animals|household|town|vehicles|seasonal)/")

# Whole packages with speech: name, language, files, part.
ADVENTURES = SHARE / "scummvm"
VOICES = (
    ("gcin-voice", "zh", SHARE / "gcin-voice/ogg", "train"),
    *((f"planetblupi {language}", language, SHARE / f"planetblupi/sound/{language}", "voice")
      for language in ("de", "fr", "he", "it")),
    ("pocketsphinx", "en", SHARE / "pocketsphinx/test/data/librivox", "voice"),
    ("festvox-ru", "ru", SHARE / "festival/voices/russian/msu_ru_nsh_clunits/wav", "train"),
    ("codec2", "en", SHARE / "codec2/wav", "train"),
)

# Calls of a game in one archive: a speaker or a manner of speaking, and where in it.
CALLS = SHARE / "games/warzone2100/base.wz"
CALLERS = (
    ("computer", r"(memressp/(?!cmndrvoc)|tutorial|extra|countdown)"), ("commander", r"memressp/cmndrvoc"),
    ("pilots", r"(vtoltalk|trnsppil)"), ("collective", r"coltive"), ("nexus", r"nexus"),
    *((f"taunt{i}", rf"taunts/taunt{i}") for i in (1, 2, 3)),
)

# Synthesisers that speak with voices of recorded speakers: program, voice, file of Czech or English text. For some
# voices the text is in a language that they were not made for: it only sounds foreign.
FORTUNES = SHARE / "games/fortunes"
READERS = (
    *(("flite", voice, "literature") for voice in ("awb", "rms", "slt")),
    *(("festival", voice, "literature") for voice in (
        "kal_diphone", "ked_diphone", "hy_fi_mv_diphone", "suo_fi_lj_diphone")),
    *(("festival", f"czech_{voice}", "cs/klasik-cz") for voice in ("dita", "krb", "machac", "ph")),
)
TEXT_LENGTH = 9000     # characters for each voice
READ_PIECE = 5         # seconds

# Dialogues of a game: language, speaker as the names of the files have it.
DIALOGUES = SHARE / "games/fillets-ng/sound"
SPEAKERS = (("cs", "m"), ("cs", "v"), ("cs", ""), ("nl", "m"), ("nl", "v"), ("nl", ""), ("en", ""))

MUSIC = (
    ("asterisk-moh-opsound-g722", SHARE / "asterisk/moh"),
    ("wesnoth-1.16-music", SHARE / "games/wesnoth/1.16/data/core/music"),
    ("warzone2100-music", SHARE / "games/warzone2100/music"),
    ("fillets-ng-data", SHARE / "games/fillets-ng/music"),
    ("hedgewars-data", SHARE / "games/hedgewars/Data/Music"),
    ("singularity-music", SHARE / "games/singularity/music"),
    ("asc-music", SHARE / "games/asc/music"),
    ("colobot-common-sounds", SHARE / "games/colobot/music"),
    ("drascula-music", SHARE / "scummvm/drascula/audio"),
    ("freedroidrpg-data", SHARE / "freedroidrpg/data/sound/music"),
    ("fretsonfire-songs-muldjord", SHARE / "games/fretsonfire/data/songs/muldjord"),
    ("fretsonfire-songs-sectoid", SHARE / "games/fretsonfire/data/songs/sectoid"),
    ("hyperrogue-music", SHARE / "hyperrogue/music"),
    ("marsshooter-data", SHARE / "games/marsshooter/audio/music"),
    ("naev-data", SHARE / "naev/dat/snd/music"),
    ("openclonk-data", SHARE / "games/openclonk/Music.ocg"),
    ("pushover-data", SHARE / "pushover/themes"),
    ("starfighter-data", SHARE / "starfighter/music"),
    ("warmux-data", SHARE / "games/warmux/music"),
    ("widelands-data", SHARE / "games/widelands/data/music"),
    ("davegnukem-data", SHARE / "games/davegnukem/music"),
    ("enigma-data", SHARE / "games/enigma/music"),
    ("extremetuxracer-data", SHARE / "games/etr/music"),
    ("neverball-common", SHARE / "games/neverball/bgm"),
    ("planetblupi-music-ogg", SHARE / "planetblupi/music"),
    ("supertux-data", SHARE / "games/supertux2/music"),
    ("unknown-horizons", SHARE / "unknown-horizons/content/audio/music"),
)
UNUSABLE = ("silence", "hr-savino-caribbean", "hr-savino-ivory", "hr-savino-ocean")   # ffmpeg reads no header
MUSIC_LENGTH = 150     # seconds of each piece
UNTRAINED_MUSIC = ("planetblupi-music-ogg", "supertux-data", "unknown-horizons")
NOISES = (
    ("endless-sky-data", SHARE / "games/endless-sky/sounds", "train"),
    ("lincity-ng-data", SHARE / "games/lincity-ng/sounds", "train"),
    ("searchandrescue-data", SHARE / "games/searchandrescue/sounds", "train"),
    ("widelands-data", SHARE / "games/widelands/data/sound", "train"),
    ("bucklespring-data", SHARE / "buckle/wav", "train"),
    ("micropolis-data", SHARE / "games/micropolis/res/sounds", "train"),
    ("scorched3d-data", SHARE / "games/scorched3d/data", "train"),
    ("colobot-common-sounds", SHARE / "games/colobot/sounds", "work"),
)
UNTRAINED_WORKS = ("macroform-cold_day", "reno_project-system", "wanderer", "love_theme", "the_deep_path",
                   "track20")

# Formats without a header: ffmpeg's name, samples at SAMPLE_RATE for so many bytes.
AUDIO = (".g722", ".gsm", ".ogg", ".wav", ".opus", ".mp3")
RAW_FORMATS = {".g722": ("g722", 2, 1), ".gsm": ("gsm", 320, 33)}


def decode(command_input, options=()):
    """What ffmpeg makes of a file or of bytes, as 16-bit samples."""
    source, data = ("-", command_input) if isinstance(command_input, bytes) else (str(command_input), None)
    raw = subprocess.run(
        ["ffmpeg", "-v", "fatal", "-threads", "1", *options, "-i", source, "-ac", "1", "-ar", str(SAMPLE_RATE),
         "-f", "s16le", "-"], input=data, stdout=subprocess.PIPE, check=True).stdout
    return np.frombuffer(raw, np.int16)


def decode_many(paths, at_once=40, options=()):
    """As `decode` for many short files, where starting ffmpeg is what takes time."""
    for first in range(0, len(paths), at_once):
        chosen = paths[first:first + at_once]
        with tempfile.TemporaryDirectory() as folder:
            outputs = [f"{folder}/{i}" for i in range(len(chosen))]
            command = ["ffmpeg", "-v", "fatal", "-threads", "1"]
            for path in chosen:
                command += [*options, "-i", str(path)]
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
    return sorted(p for p in folder.rglob("*") if p.suffix in AUDIO and p.exists())


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


def utterances(voice, language, files, part="train", kind="speech", options=()):
    return with_and_without_codec(
        dict(kind=kind, source=voice, language=language, part=part),
        [(path.stem, samples) for path, samples in zip(files, decode_many(files, options=options))])


def stamps(language):
    part = "voice" if language in UNTRAINED_LANGUAGES else "train"
    return utterances(f"tuxpaint {language}", language, sorted(STAMPS.rglob(f"*_desc_{language}.ogg")), part)


def cut_eight_bits(source, language, named):
    """Pieces of the (name, audio), unsigned samples of eight bits at 11,025 Hz: one decoder for all."""
    whole = decode(b"".join(audio for _, audio in named), ("-f", "u8", "-ar", "11025", "-ac", "1"))
    ends = (np.cumsum([len(audio) for _, audio in named]) * (SAMPLE_RATE / 11025)).astype(int)
    return with_and_without_codec(dict(kind="speech", source=source, language=language, part="train"),
                                  [(name, whole[a:b]) for (name, _), a, b in zip(named, [0, *ends], ends)])


def cast_of_drascula(package, folder):
    """Each file is a sentence, without a header; some are links to others."""
    files = sorted(p for p in (ADVENTURES / "drascula" / folder).glob("*.ALS") if p.stat().st_size > 4000)
    return cut_eight_bits(package, "", [(p.stem, p.read_bytes()) for p in files])


def cast_of_queen():
    """A table of (name, place, size); sentences are in MP3, their names begin with digits."""
    disk = (ADVENTURES / "flight-of-the-amazon-queen/queen.1c").read_bytes()
    count = struct.unpack(">H", disk[13:15])[0]
    with tempfile.TemporaryDirectory() as folder:
        files = []
        for at in range(15, 15 + 21 * count, 21):
            name = disk[at:at + 12].split(b"\0")[0].decode("latin1")
            place, size = struct.unpack(">II", disk[at + 13:at + 21])
            if name.endswith(".SB") and name[:3].isdigit() and size > 2000:
                files.append(pathlib.Path(folder, name[:-3] + ".mp3"))
                files[-1].write_bytes(disk[place:place + size])
        return list(utterances("flight-of-the-amazon-queen", "en", files, options=("-f", "mp3")))


def cast_of_sky():
    """A table of (number, place, size) from number 50000 on; a sentence is packed behind a header of 22 bytes."""
    folder = ADVENTURES / "beneath-a-steel-sky"
    table, disk = (folder / "sky.dnr").read_bytes(), (folder / "sky.dsk").read_bytes()
    sentences = []
    for at in range(4, 4 + 8 * struct.unpack("<I", table[:4])[0], 8):
        number, place, size = (int.from_bytes(table[at + a:at + b], "little") for a, b in ((0, 2), (2, 5), (5, 8)))
        place = (place & 0x7fffff) * (16 if place >> 23 else 1) + 22
        data = disk[place:place + (size & 0x3fffff) - 22]
        if 50000 <= number < 60000 and data.startswith(SIGNATURE):
            sentences.append((str(number), unpack(data)))
    return cut_eight_bits("beneath-a-steel-sky", "en", sentences)


def calls(caller, place):
    """What is under `place` in the archive of calls."""
    with zipfile.ZipFile(CALLS) as archive, tempfile.TemporaryDirectory() as folder:
        names = sorted(name for name in archive.namelist() if re.match(rf"audio/{place}.*\.ogg$", name))
        files = [pathlib.Path(archive.extract(name, folder)) for name in names]
        return list(utterances(f"warzone2100 {caller}", "en", files))


def reading(number, program, voice, text):
    """A passage of a text, another one for each voice, in pieces of some seconds."""
    encoding = "iso8859-2" if text.startswith("cs") else "ascii"    # what festival takes
    words = (FORTUNES / text).read_bytes().decode("utf-8", "ignore").encode(encoding, "ignore").decode(encoding)
    words = re.sub(r"[^\w.,;?!']+|_", " ", words)
    start = number * TEXT_LENGTH % (len(words) - TEXT_LENGTH)
    with tempfile.TemporaryDirectory() as folder:
        source, output = pathlib.Path(folder, "text"), pathlib.Path(folder, "speech.wav")
        source.write_text(words[start:start + TEXT_LENGTH], encoding=encoding)
        command = (["text2wave", "-eval", f"(voice_{voice})", "-o", str(output), str(source)]
                   if program == "festival" else ["flite", "-voice", voice, "-f", str(source), "-o", str(output)])
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        samples = decode(output)
    size = READ_PIECE * SAMPLE_RATE
    return with_and_without_codec(
        dict(kind="speech", source=f"{program} {voice}", language="", part="train"),
        [(str(i), samples[at:at + size]) for i, at in enumerate(range(0, len(samples), size))])


def dialogue(language, speaker):
    """What one speaker says; without a name all that none of the others says."""
    def says(path):
        parts = path.stem.split("-")
        who = parts[1] if len(parts) > 2 else ""
        return who == speaker if speaker else (language, who) not in SPEAKERS
    files = [p for p in audio_files(DIALOGUES) if p.parent.name == language and says(p)]
    return utterances(f"fillets-ng {language} {speaker}", language, files)


def music(package, path):
    part = "work" if path.stem in UNTRAINED_WORKS or package in UNTRAINED_MUSIC else "train"
    piece = dict(kind="music", source=package, language="", part=part)
    if path.suffix == ".g722":
        return [(dict(piece, name=path.stem, coded=True), decode(path, ("-f", "g722", "-t", str(MUSIC_LENGTH))))]
    return with_and_without_codec(piece, [(path.stem, decode(path, ("-t", str(MUSIC_LENGTH))))])


def sources():
    """Pairs of a name and a function that returns (piece, samples) of all pieces, in a fixed order."""
    for row in PROMPTS:
        yield f"prompts {row[0]} {row[1]}", lambda row=row: prompts(*row)
    yield "flight-of-the-amazon-queen", cast_of_queen
    yield "beneath-a-steel-sky", cast_of_sky
    for package, folder in (("drascula", "en"), ("drascula-spanish", "es")):
        yield package, lambda package=package, folder=folder: cast_of_drascula(package, folder)
    for language in STAMP_LANGUAGES:
        yield f"tuxpaint {language}", lambda language=language: stamps(language)
    for voice, language, folder, part in VOICES:
        files = audio_files(folder)
        yield voice, lambda row=(voice, language, files, part): utterances(*row)
    for program, root in WORDS:
        for folder in sorted(p for p in root.iterdir() if p.is_dir()):
            files = audio_files(folder)
            if folder.name not in UNTRAINED_LANGUAGES + NO_WORDS and files:
                yield f"{program} {folder.name}", lambda name=folder.name, program=program, files=files: utterances(
                    f"{program} {name}", name, files)
    for row in SPEAKERS:
        yield f"fillets-ng {row[0]} {row[1]}", lambda row=row: dialogue(*row)
    for row in CALLERS:
        yield f"warzone2100 {row[0]}", lambda row=row: calls(*row)
    for number, row in enumerate(READERS):
        yield f"{row[0]} {row[1]}", lambda number=number, row=row: reading(number, *row)
    for package, folder in MUSIC:
        files = [path for path in audio_files(folder) if path.stem not in UNUSABLE]
        yield f"music {package}", lambda package=package, files=files: (
            pair for path in files for pair in music(package, path))
    for package, folder, part in NOISES:
        yield f"noise {package}", lambda row=(package, "", audio_files(folder), part, "noise"): utterances(*row)
    sounds = [p for p in audio_files(STAMPS) if "_desc" not in p.name and STAMP_SOUNDS.search(str(p))]
    yield "noise tuxpaint", lambda: utterances("tuxpaint", "", sounds, "train", "noise")


def prepare_source(folder, name, pieces):
    """Writes the two files of one source; the index comes last, under its final name when it is whole."""
    stem = folder / name.replace(" ", "_")
    index = stem.with_name(stem.name + ".json")
    if index.exists():
        return
    rows, start = [], 0
    with open(stem.with_name(stem.name + ".i16"), "wb") as file:
        for piece, samples in pieces():
            if len(samples) < SAMPLE_RATE // 10:
                continue
            samples.tofile(file)
            rows.append(dict(piece, start=start, length=len(samples)))
            start += len(samples)
    if not rows:
        raise SystemExit(f"data.py: nothing found for {name}; 'make train' installs the packages")
    partial = stem.with_name(stem.name + ".partial")
    partial.write_text(json.dumps(rows, indent=0))
    os.replace(partial, index)
    print(f"{rows[0]['kind']:7} {rows[0]['part']:6} {name:40} {len(rows):5} pieces "
          f"{start / SAMPLE_RATE / 60:7.1f} min", flush=True)


def prepare(folder):
    folder = folder / "audio"
    folder.mkdir(parents=True, exist_ok=True)
    for name, pieces in sources():
        prepare_source(folder, name, pieces)


class Recordings:
    """The prepared audio: `pieces`, the index, and the samples of each as floats."""

    def __init__(self, folder):
        self.pieces, self.audio = [], []
        for index in sorted(pathlib.Path(folder, "audio").glob("*.json")):
            for piece in json.loads(index.read_text()):
                self.pieces.append(dict(piece, file=len(self.audio)))
            self.audio.append(np.memmap(index.with_suffix(".i16"), np.int16, "r"))

    def samples(self, piece, offset=0, length=None):
        end = piece["length"] if length is None else min(offset + length, piece["length"])
        audio = self.audio[piece["file"]][piece["start"] + offset:piece["start"] + end].astype(np.float32) / 32768.0
        if piece["kind"] == "speech" and len(audio):
            audio = signal.sosfilt(RUMBLE, audio, zi=signal.sosfilt_zi(RUMBLE) * audio[0])[0].astype(np.float32)
        return audio


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    prepare(pathlib.Path(sys.argv[1]))
