"""Runs audio through a neural model that splits it into named classes, and mixes these by gains.

    >>> import kalvrin
    >>> stems = kalvrin.stems(kalvrin.models.separator, audio)  # {"Speech": ..., "Music": ..., "Rest": ...}
    >>> quiet = kalvrin.render("mine.onnx", audio, gains={"Music": 0.1})
    >>> for finding in kalvrin.check("mine.onnx"): print(finding)

Audio is an array of 32-bit floats `[channels, frames]`, or `[frames]` for one channel; full scale is 1,
a frame is one sample on every channel. It has the model's sample rate, unless `sample_rate` says another: then
only what the model changes is converted, and the output keeps the whole band.
A gain is a linear factor, 0 or more. "Rest" is what no class of the model takes: the classes and Rest
add up to the input. A model is the path of an ONNX file, or the bytes of one.

Streams are independent of each other and may run on different threads; on one stream only one call at
a time. While the model runs, other Python threads run too. For many streams of one model, load it once:
`with kalvrin.Loaded("separator.onnx") as model: streams = [kalvrin.Stream(model) for call in calls]`.
"""

from __future__ import annotations

import ctypes
import dataclasses
import json
import os
import pathlib
import subprocess
import sys
import time
from collections.abc import Callable, Iterator, Mapping
from types import TracebackType
from typing import Any, TypeVar, Union

import numpy as np
import numpy.typing as npt

if __name__ != "__main__":  # `check` runs this file as a program
    from . import models

__all__ = ["Finding", "Loaded", "Refused", "Stream", "StreamFailed", "check", "models", "render", "stems"]

Audio = npt.NDArray[np.float32]
Model = Union[str, "os.PathLike[str]", bytes]
_Self = TypeVar("_Self", bound="_Held")

REST = "Rest"


class Refused(ValueError):
    """The library refuses the model, or refuses it at these sizes."""

    def __init__(self, reason: str, found: str = "", expected: str = "", change: str = "") -> None:
        details = [f"{label}: {text}" for label, text in
                   (("found", found), ("expected", expected), ("change", change)) if text]
        super().__init__("; ".join([reason, *details]))
        self.reason = reason
        self.found = found
        self.expected = expected
        self.change = change


class StreamFailed(RuntimeError):
    """The model failed in the inference engine while audio ran."""


class _Request(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in ("channels", "windows", "block_frames")]


class _Sizes(ctypes.Structure):
    _fields_ = [*((name, ctypes.c_size_t) for name in (
        "channels", "windows", "block_frames", "window_frames", "hop_frames", "lookahead_windows",
        "latency_frames", "class_count")), ("sample_rate_hz", ctypes.c_int)]


_HIGH_BANDS = ("follow", "rest")
_OK, _INVALID, _REFUSED, _NO_ENGINE, _FAILED, _NO_MEMORY, _NOT_FOUND = range(7)


def _load_library() -> ctypes.CDLL:
    windows = sys.platform == "win32"
    name = "kalvrin_c.dll" if windows else "libkalvrin_c.so.1"
    beside = pathlib.Path(__file__).with_name("_installed") / ("bin" if windows else "lib") / name
    path = os.environ.get("KALVRIN_LIBRARY") or (str(beside) if beside.exists() else name)
    try:
        library = ctypes.CDLL(path)
    except OSError as error:
        raise ImportError(f"{path} cannot be loaded ({error}); the environment variable "
                          "KALVRIN_LIBRARY can name the file") from error
    stream, text, floats = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p
    model = ctypes.c_void_p
    size, gain, pointer = ctypes.c_size_t, ctypes.c_float, ctypes.POINTER
    for function, arguments in {
            "load_model": (text, size, text, size, pointer(model)),
            "create_at_rate": (model, pointer(_Request), ctypes.c_int, text, size, pointer(stream)),
            "get_sizes": (stream, pointer(_Sizes)),
            "get_class_name": (stream, size, pointer(text)),
            "get_note": (stream, size, pointer(text)),
            "set_gain": (stream, text, gain),
            "set_master_gain": (stream, gain),
            "set_high_band": (stream, ctypes.c_int),
            "reset_gains": (stream,),
            "process_interleaved": (stream, floats, floats, size),
            "restart": (stream,)}.items():
        getattr(library, "kalvrin_" + function).argtypes = arguments
    library.kalvrin_destroy.argtypes = (stream,)
    library.kalvrin_destroy.restype = None
    library.kalvrin_release_model.argtypes = (model,)
    library.kalvrin_release_model.restype = None
    library.kalvrin_status_text.restype = text
    library.kalvrin_version.restype = text
    return library


_library = _load_library()
__version__: str = _library.kalvrin_version().decode()


def _require(status: int, failure: str = "") -> None:
    if status == _OK:
        return
    words = failure or _library.kalvrin_status_text(status).decode()
    if status == _NO_MEMORY:
        raise MemoryError(words)
    if status == _FAILED:
        raise StreamFailed(words)
    raise ValueError(words)


def _model_bytes(model: Model) -> bytes:
    return model if isinstance(model, bytes) else pathlib.Path(model).read_bytes()


def _as_audio(audio: npt.ArrayLike) -> Audio:
    """The audio as `[channels, frames]`."""
    array = np.asarray(audio, dtype=np.float32)
    if array.ndim == 1:
        array = array[np.newaxis]
    if array.ndim != 2 or array.shape[0] == 0:
        raise ValueError(f"audio is an array [channels, frames] or [frames], not {list(array.shape)}")
    if not np.isfinite(array).all():
        raise ValueError("the audio holds values that are not finite")
    return array


def _folded(name: str) -> bytes:
    return name.encode().lower()  # of bytes: the letters A to Z only


def _made(function: Callable[..., int], *arguments: Any) -> ctypes.c_void_p:
    """Returns the handle of what `function` makes. Raises what it refuses."""
    handle = ctypes.c_void_p()
    reason = ctypes.create_string_buffer(1024)
    status = function(*arguments, reason, len(reason), handle)
    if status == _OK:
        return handle
    words = reason.value.decode()
    if status == _NO_MEMORY:
        raise MemoryError(words)
    if status == _NO_ENGINE:
        raise RuntimeError(words)
    first, *rest = words.split("\n")
    details = dict(line.split(": ", 1) for line in rest if ": " in line)
    raise Refused(first, **{label: details.get(label, "")
                            for label in ("found", "expected", "change")})


class _Held:
    """What the library holds for the caller until `close`."""

    _handle: ctypes.c_void_p
    _end: Callable[[ctypes.c_void_p], None]

    def close(self) -> None:
        handle, self._handle = self._handle, ctypes.c_void_p()
        type(self)._end(handle)

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(self, kind: type[BaseException] | None, value: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def __del__(self) -> None:
        if hasattr(self, "_handle"):
            self.close()


class Loaded(_Held):
    """A model in memory, from which any number of streams can be made, on several threads at once.

    Raises Refused, with the reason, if the library refuses the model, and OSError if its file cannot
    be read. Use it in a `with` statement, or call `close`; its streams may live on.
    """

    _end = _library.kalvrin_release_model

    def __init__(self, model: Model) -> None:
        data = _model_bytes(model)
        self._handle = _made(_library.kalvrin_load_model, data, len(data))

    def close(self) -> None:
        """Releases the model. A new stream from it then raises Refused."""
        super().close()


class Stream(_Held):
    """One model that runs on audio block by block.

    `channels`: number of channels; 0: what the model fixes, or 2. `windows`: windows per evaluation;
    0: what the model asks for, or 4. More windows cost less and make the stream later.
    `block_frames`: frames of one block; 0: one hop of the model. At the start every gain is 1, so the
    input comes out again `latency_frames` later; with `silent` every gain is 0.

    `sample_rate`: of the audio in Hz; 0: the model's. `block_frames` and `latency_frames` are frames of
    the audio. `high_band`: the gain above the model's band, "follow" (what the mix made of the model's top
    octave) or "rest" (the gain of Rest).

    Raises Refused, with the reason, if the library refuses the model, and OSError if its file cannot
    be read. Use it in a `with` statement, or call `close`.
    """

    channels: int
    windows: int
    """Per evaluation; they overlap by one half."""
    block_frames: int
    window_frames: int
    """Length of a window."""
    hop_frames: int
    """Half a window."""
    lookahead_windows: int
    latency_frames: int
    """From a frame in to the same frame out."""
    sample_rate_hz: int
    """The model's; 0 if it does not say."""
    classes: tuple[str, ...]
    """In the order of the model's output, without Rest."""
    notes: tuple[str, ...]
    """What the model may do but its users will not expect."""

    _end = _library.kalvrin_destroy

    def __init__(self, model: Model | Loaded, *, channels: int = 0, windows: int = 0,
                 block_frames: int = 0, sample_rate: int = 0, high_band: str = "follow",
                 silent: bool = False) -> None:
        if min(channels, windows, block_frames, sample_rate) < 0:
            raise ValueError("sizes and rates are numbers from 0")
        if high_band not in _HIGH_BANDS:
            raise ValueError(f"high_band is one of {', '.join(_HIGH_BANDS)}, not {high_band!r}")
        loaded = model if isinstance(model, Loaded) else Loaded(model)
        self._handle = _made(_library.kalvrin_create_at_rate, loaded._handle,
                             _Request(channels, windows, block_frames), sample_rate)
        _require(_library.kalvrin_set_high_band(self._handle, _HIGH_BANDS.index(high_band)))
        sizes = _Sizes()
        _require(_library.kalvrin_get_sizes(self._handle, sizes))
        self.channels = sizes.channels
        self.windows = sizes.windows
        self.block_frames = sizes.block_frames
        self.window_frames = sizes.window_frames
        self.hop_frames = sizes.hop_frames
        self.lookahead_windows = sizes.lookahead_windows
        self.latency_frames = sizes.latency_frames
        self.sample_rate_hz = sizes.sample_rate_hz
        self.classes = tuple(self._texts(_library.kalvrin_get_class_name))[:sizes.class_count]
        self.notes = tuple(self._texts(_library.kalvrin_get_note))
        if not silent:
            self.reset_gains()

    def _texts(self, function: Callable[..., int]) -> Iterator[str]:
        text = ctypes.c_char_p()
        index = 0
        while function(self._handle, index, text) == _OK:
            yield (text.value or b"").decode()
            index += 1

    def set_gain(self, name: str, gain: float) -> None:
        """Sets the linear gain of a class or of "Rest" from the next evaluation on; it fades in
        over one hop. The case of the letters A to Z does not count. KeyError for an unknown name; ValueError for a gain below 0 or
        not finite."""
        status = _library.kalvrin_set_gain(self._handle, name.encode(), gain)
        if status == _NOT_FOUND:
            raise KeyError(f"the model has no class {name!r}, only "
                           + ", ".join((*self.classes, REST)))
        _require(status, "a gain is a finite number from 0")

    def set_master_gain(self, gain: float) -> None:
        """Sets the linear factor on the whole output. ValueError if it is below 0 or not finite."""
        _require(_library.kalvrin_set_master_gain(self._handle, gain),
                 "a gain is a finite number from 0")

    def reset_gains(self) -> None:
        """Sets every gain to 1."""
        _require(_library.kalvrin_reset_gains(self._handle))

    def process(self, audio: npt.ArrayLike) -> Audio:
        """Takes `[channels, frames]`, where frames is a multiple of `block_frames`, and returns the same
        shape: the mix of what went in `latency_frames` ago, silence at the start. ValueError for audio
        of another shape or with values that are not finite; StreamFailed if the model fails."""
        array = _as_audio(audio)
        channels, frames = array.shape
        if channels != self.channels or frames % self.block_frames != 0:
            raise ValueError(f"this stream takes [{self.channels}, a multiple of "
                             f"{self.block_frames}], not {list(array.shape)}")
        woven = np.array(array.T, order="C")  # a copy with interleaved channels; it becomes the output
        block_bytes = self.block_frames * channels * woven.itemsize
        for index in range(frames // self.block_frames):
            block = woven.ctypes.data + index * block_bytes
            _require(_library.kalvrin_process_interleaved(self._handle, block, block,
                                                          self.block_frames))
        return np.ascontiguousarray(woven.T)

    def restart(self) -> None:
        """Starts again from silence, the model's states too. The gains stay."""
        _require(_library.kalvrin_restart(self._handle))

    def close(self) -> None:
        """Ends the stream. Every other call then raises ValueError."""
        super().close()


def _run_through(stream: Stream, audio: Audio) -> Audio:
    """Returns the output for the whole audio, in time with the input: without the latency."""
    frames = audio.shape[1]
    latency = stream.latency_frames
    blocks = -(-(frames + latency) // stream.block_frames) if frames else 0
    padded = np.zeros((audio.shape[0], blocks * stream.block_frames), dtype=np.float32)
    padded[:, :frames] = audio
    whole: Audio = stream.process(padded)[:, latency:latency + frames]
    return whole


def _shaped_like(audio: npt.ArrayLike, result: Audio) -> Audio:
    shaped: Audio = result[0] if np.ndim(audio) == 1 else result
    return shaped


def _set_alone(stream: Stream, name: str) -> None:
    """Sets the gain of that class to 1 and all others to 0."""
    for other in (*stream.classes, REST):
        stream.set_gain(other, 0.0)
    stream.set_gain(name, 1.0)


def render(model: Model | Loaded, audio: npt.ArrayLike, *, gains: Mapping[str, float] | None = None,
           master: float = 1.0, windows: int = 0, block_frames: int = 0, sample_rate: int = 0,
           high_band: str = "follow") -> Audio:
    """Returns the mix of a whole recording, in the shape of `audio` and in time with it.

    `gains`: gains by class name; "Rest" is a name too. Classes without an entry have gain 1. The rest is
    as for Stream; `windows` and `block_frames` change only the speed. The result has the samples that
    `kalvrin render` writes. Raises what Stream raises.
    """
    array = _as_audio(audio)
    with Stream(model, channels=array.shape[0], windows=windows, block_frames=block_frames,
                sample_rate=sample_rate, high_band=high_band) as stream:
        stream.set_master_gain(master)
        for name, gain in (gains or {}).items():
            stream.set_gain(name, gain)
        return _shaped_like(audio, _run_through(stream, array))


def stems(model: Model | Loaded, audio: npt.ArrayLike, *, windows: int = 0, block_frames: int = 0,
          sample_rate: int = 0) -> dict[str, Audio]:
    """Returns the parts of the audio: an array in the shape of `audio` for each class, in the model's
    order, and "Rest" at the end. Their sum is the input, within rounding. What lies above the model's
    band is in Rest.

    Each part comes from a stream of its own over the same audio. If two classes have the same name (the
    case of A to Z does not count), only the first has an entry: no gain reaches the second.
    """
    array = _as_audio(audio)
    loaded = model if isinstance(model, Loaded) else Loaded(model)
    result: dict[str, Audio] = {}
    with Stream(loaded, channels=array.shape[0], windows=windows,
                block_frames=block_frames) as probe:
        names: dict[bytes, str] = {}
        for name in (*probe.classes, REST):
            names.setdefault(_folded(name), name)
    for name in names.values():
        with Stream(loaded, channels=array.shape[0], windows=windows, block_frames=block_frames,
                    sample_rate=sample_rate, high_band="rest", silent=True) as stream:
            stream.set_master_gain(1.0)
            stream.set_gain(name, 1.0)
            result[name] = _shaped_like(audio, _run_through(stream, array))
    return result


@dataclasses.dataclass(frozen=True)
class Finding:
    """One thing about a model that its author should know."""

    kind: str
    """"refused": the library refuses the model. "wrong": the model runs, but its audio is not right.
    "note": allowed, but users may not expect it."""
    text: str
    found: str = ""
    expected: str = ""
    change: str = ""

    def __str__(self) -> str:
        lines = [f"{self.kind}: {self.text}"]
        lines += [f"  {label:<10} {value}" for label, value in (
            ("found", self.found), ("expected", self.expected), ("change", self.change)) if value]
        return "\n".join(lines)


def check(model: Model, *, channels: int = 0, windows: int = 0,
          block_frames: int = 0) -> list[Finding]:
    """Returns what is wrong with a model, for people who train and export one. Empty: nothing is.

    Builds the stream that a host would build and runs noise and silence through it. Checks that every
    class is finite, in time with the input (else the mix is comb-filtered), the same for any number of
    windows per evaluation and after a restart, silent for silence, and faster than real time. Runs in a
    new process, because a bad model can end the process that runs it.
    """
    data = _model_bytes(model)
    child = subprocess.run([sys.executable, __file__, str(channels), str(windows), str(block_frames)],
                           input=data, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    crash = f"signal {-child.returncode}" if child.returncode < 0 else f"exception {child.returncode:#x}"
    if child.returncode < 0 or child.returncode >= 0xC0000000:
        return [Finding("refused", f"the inference engine ended its process ({crash}) while it ran the model")]
    if child.returncode != 0:
        raise RuntimeError("the check failed: " + child.stderr.decode(errors="replace").strip())
    return [Finding(**fields) for fields in json.loads(child.stdout)]


_TOLERANCE = 1e-4
"""Largest difference between outputs that should be equal, relative to the peak."""


def _findings(data: bytes, channels: int, windows: int, block_frames: int) -> Iterator[Finding]:
    try:
        stream = Stream(data, channels=channels, windows=windows, block_frames=block_frames)
    except Refused as refusal:
        yield Finding("refused", refusal.reason, refusal.found, refusal.expected, refusal.change)
        return
    with stream:
        yield from _stream_findings(stream, data)


def _stream_findings(stream: Stream, data: bytes) -> Iterator[Finding]:
    for note in stream.notes:
        yield Finding("note", note)
    if stream.sample_rate_hz <= 0:
        yield Finding("note", "the model does not say its sample rate", "no metadata SampleRate", "",
                      "give it SampleRate, in Hz: hosts then refuse audio of another rate")
    frames = max(48 * stream.hop_frames, 8 * stream.hop_frames * stream.windows)
    noise = np.random.default_rng(1).uniform(-0.5, 0.5, (stream.channels, frames))
    audio = noise.astype(np.float32)
    for name in stream.classes:
        try:
            yield from _class_findings(stream, data, name, audio)
        except StreamFailed as failure:
            yield Finding("wrong", str(failure), f"class {name}, on noise")
            return


def _class_findings(stream: Stream, data: bytes, name: str, audio: Audio) -> Iterator[Finding]:
    _set_alone(stream, name)
    stream.restart()
    start = time.thread_time()  # does not count what other programs use
    alone = _run_through(stream, audio)
    seconds = time.thread_time() - start
    if not np.isfinite(alone).all():
        yield Finding("wrong", f"class {name} holds values that are not finite",
                      f"{np.count_nonzero(~np.isfinite(alone))} of {alone.size} samples, on noise",
                      "finite values; a NaN stays in a model's states forever")
        return
    if stream.sample_rate_hz > 0 and seconds > audio.shape[1] / stream.sample_rate_hz:
        yield Finding("note", "the model is slower than real time on this processor",
                      f"{seconds * stream.sample_rate_hz / audio.shape[1]:.2f} s for each second")
    yield from _delay_findings(stream, name, audio, alone)
    stream.restart()
    yield from _difference("wrong", f"class {name} differs after a restart", alone,
                           _run_through(stream, audio), "the same audio from the same input",
                           "take what is random out of the graph (dropout, noise)")
    stream.restart()
    silence = np.abs(_run_through(stream, np.zeros_like(audio))).max()
    if silence > 1e-3:
        yield Finding("note", f"class {name} sounds when the input is silent",
                      f"a peak of {silence:.3g}")
    for windows in (1, 2, 7):
        try:
            other = Stream(data, channels=stream.channels, windows=windows,
                           block_frames=stream.block_frames)
        except Refused:
            continue  # a model may fix its sequence
        with other:
            _set_alone(other, name)
            found = list(_difference(
                "wrong", f"class {name} depends on the number of windows per evaluation", alone,
                _run_through(other, audio), f"the same audio with {stream.windows} and {windows}",
                "carry over from window to window by states, inside the sequence as well"))
        yield from found
        if found:
            return


def _difference(kind: str, text: str, one: Audio, other: Audio, expected: str,
                change: str) -> Iterator[Finding]:
    largest = float(np.abs(one - other).max())
    peak = float(np.abs(one).max())
    if not largest <= _TOLERANCE * peak + 1e-6:
        yield Finding(kind, text, f"a difference of {largest:.3g} at a peak of {peak:.3g}", expected,
                      change)


def _delay_findings(stream: Stream, name: str, audio: Audio, alone: Audio) -> Iterator[Finding]:
    """Finds the delay of a class as the peak of the correlation of its output with the noise at its input."""
    size = 2 * audio.shape[1]
    spectra = np.fft.rfft(alone, size) * np.conj(np.fft.rfft(audio, size))
    correlation = np.abs(np.fft.irfft(spectra, size).sum(axis=0))
    peak = int(correlation.argmax())
    delay = peak if peak < size // 2 else peak - size
    strength = correlation[peak] / max(float(np.linalg.norm(alone) * np.linalg.norm(audio)), 1e-30)
    if delay == 0 or strength < 0.2:
        return
    whole = delay > 0 and delay % stream.hop_frames == 0
    yield Finding("wrong", f"class {name} is not in time with the input: the mix is comb-filtered",
                  f"it comes {abs(delay)} samples {'late' if delay > 0 else 'early'}",
                  "each window of the output belongs to the same window of the input",
                  f"set LookaheadNumBlocks to {stream.lookahead_windows + delay // stream.hop_frames}"
                  if whole else "compensate the delay inside the model")


def _main(arguments: list[str]) -> None:
    channels, windows, block_frames = map(int, arguments)
    findings: list[dict[str, Any]] = [
        dataclasses.asdict(finding)
        for finding in _findings(sys.stdin.buffer.read(), channels, windows, block_frames)]
    json.dump(findings, sys.stdout)


if __name__ == "__main__":
    _main(sys.argv[1:])
