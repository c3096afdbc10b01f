"""What the checks share: running programs, audio as numpy arrays [frames, channels], verdicts."""
import os
import shutil
import struct
import subprocess
import sys

import numpy as np


class Skipped(Exception):
    """A host that does not run on this machine, and why."""


class Failed(Exception):
    pass


def need(*programs):
    for program in programs:
        if not shutil.which(program):
            raise Skipped(f"{program} is not installed")


def run(*command, env=None, seconds=120, check=True):
    """Standard output and error together."""
    done = subprocess.run([str(part) for part in command], env={**os.environ, **(env or {})}, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=seconds, errors="replace")
    if check and done.returncode != 0:
        raise Failed(f"{' '.join(map(str, command))}\n{done.stdout.strip()}")
    return done.stdout


def expect(truth, text):
    if not truth:
        raise Failed(text)


def write_wav(path, audio, rate):
    """32-bit floats."""
    data = np.ascontiguousarray(audio, "<f4").tobytes()
    channels = audio.shape[1]
    with open(path, "wb") as out:
        out.write(b"RIFF" + struct.pack("<I", 36 + len(data)) + b"WAVEfmt ")
        out.write(struct.pack("<IHHIIHH", 16, 3, channels, rate, rate * channels * 4, channels * 4, 32))
        out.write(b"data" + struct.pack("<I", len(data)) + data)


def read_audio(path, channels, *options):
    """Any file that ffmpeg reads, through its `options`."""
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), *options, "-ac", str(channels), "-f", "f32le", "-"],
                         capture_output=True, timeout=120)
    if raw.returncode != 0:
        raise Failed(f"ffmpeg {' '.join(options)}: {raw.stderr.decode(errors='replace').strip()}")
    return np.frombuffer(raw.stdout, "<f4").reshape(-1, channels)


def signal(seconds, channels, rate=16000):
    """Tones that come and go in noise; the same each time."""
    random = np.random.default_rng(7)
    t = np.arange(int(seconds * rate)) / rate
    tones = [0.25 * np.sin(2 * np.pi * hz * t) * (np.sin(2 * np.pi * hz / 300 * t) > 0)
             for hz in (440, 620)[:channels]]
    return (np.stack(tones, 1) + 0.05 * random.standard_normal((len(t), channels))).astype("<f4")


def verdicts(checks):
    """Runs all of (name, function); prints a line each and ends the process."""
    failures = 0
    for name, check in checks:
        try:
            print(f"ok       {name}: {check()}")
        except Skipped as reason:
            print(f"skipped  {name}: {reason}")
        except Exception as reason:  # whatever it is, the next check runs
            failures += 1
            print(f"FAILED   {name}: {reason}")
        sys.stdout.flush()
    sys.exit(1 if failures else 0)
