"""Compares the package with the tool, and shows the exporter's check models with one fault each."""

import os
import pathlib
import subprocess
import wave

import numpy as np
import onnx
import pytest

import kalvrin
from onnx_model import Graph, make_model, tensor

MODELS = pathlib.Path(os.environ["KALVRIN_MODELS"])
RECIPES = ("band_splitter", "noise_reducer", "harmonic_percussive", "separator")
RATE = 16000
SEED = int(os.environ.get("KALVRIN_TEST_SEED", "0")) or int.from_bytes(os.urandom(4), "little")
print(f"KALVRIN_TEST_SEED={SEED}")


def path_of(recipe):
    return MODELS / f"{recipe}.onnx"


def noise(channels, frames):
    steps = np.random.default_rng(SEED).integers(-16000, 16000, (channels, frames))
    return (steps / 32768).astype(np.float32)


def test_models_are_paths_by_their_names():
    assert kalvrin.models.separator == path_of("separator") and set(RECIPES) <= set(dir(kalvrin.models))
    with pytest.raises(AttributeError, match="band_splitter"):
        kalvrin.models.nobody


def test_stems_and_rest_add_up_to_the_input():
    audio = noise(2, RATE + 77)
    stems = kalvrin.stems(path_of("separator"), audio)
    assert list(stems) == ["Speech", "Music", "Rest"] and all(stem.shape == audio.shape for stem in stems.values())
    np.testing.assert_allclose(sum(stems.values()), audio, atol=2e-6)


def rendered(tmp_path, model, audio, *options, rate=RATE):
    """What `kalvrin render` writes for `audio`."""
    with wave.open(str(tmp_path / "in.wav"), "wb") as file:
        file.setnchannels(audio.shape[0])
        file.setsampwidth(2)
        file.setframerate(rate)
        file.writeframes((audio.T * 32768).astype("<i2").tobytes())
    subprocess.run([os.environ["KALVRIN_TOOL"], "render", model, tmp_path / "in.wav",
                    tmp_path / "out.wav", "--encoding", "float", *options],
                   check=True, stdout=subprocess.DEVNULL)
    data = (tmp_path / "out.wav").read_bytes()
    return np.frombuffer(data[data.index(b"data") + 8:][:audio.size * 4], "<f4").reshape(
        -1, audio.shape[0]).T


@pytest.mark.parametrize("recipe, gains, options", [
    ("band_splitter", {"Voice": 0.5, "rest": 0.0}, ["--gain", "Voice=0.5", "--rest", "0"]),
    ("noise_reducer", {"Rest": 0.1}, ["--rest", "0.1"]),
    ("separator", {"Music": 0.0}, ["--gain", "Music=0"]),
])
def test_renders_what_the_tool_renders(tmp_path, recipe, gains, options):
    audio = noise(2, RATE // 2 + 3)
    expected = rendered(tmp_path, path_of(recipe), audio, *options)
    np.testing.assert_array_equal(kalvrin.render(path_of(recipe), audio, gains=gains), expected)
    with kalvrin.Loaded(path_of(recipe)) as model:
        np.testing.assert_array_equal(kalvrin.render(model, audio, gains=gains), expected)
    with pytest.raises(kalvrin.Refused):
        kalvrin.Stream(model)


@pytest.mark.parametrize("rate", [44100, 48000])
def test_other_rates_keep_their_band_as_in_the_tool(tmp_path, rate):
    audio = noise(2, rate // 2)
    model, gains = path_of("separator"), {"Music": 0.25}
    options = ["--gain", "Music=0.25", "--high-band", "rest", "--resample"]
    expected = rendered(tmp_path, model, audio, *options, rate=rate)
    np.testing.assert_array_equal(kalvrin.render(model, audio, gains=gains, sample_rate=rate, high_band="rest"),
                                  expected)
    np.testing.assert_allclose(kalvrin.render(model, audio, sample_rate=rate), audio, atol=3e-7)
    stems = kalvrin.stems(model, audio, sample_rate=rate)
    np.testing.assert_allclose(sum(stems.values()), audio, atol=2e-6)
    with pytest.raises(ValueError, match="follow, rest"):
        kalvrin.render(model, audio, sample_rate=rate, high_band="on")


def test_a_stream_returns_what_render_returns_and_restarts():
    audio = noise(1, RATE)
    whole = kalvrin.render(path_of("noise_reducer"), audio[0], gains={"Speech": 2.0})
    with kalvrin.Stream(path_of("noise_reducer"), channels=1, block_frames=160) as stream:
        stream.set_gain("Speech", 2.0)
        for _ in range(2):
            stream.restart()
            parts = [stream.process(part) for part in np.split(audio, 20, axis=1)]  # 5 blocks each
            late = np.concatenate(parts, axis=1)[0]
            np.testing.assert_allclose(late[:stream.latency_frames], 0, atol=2e-6)
            np.testing.assert_allclose(late[stream.latency_frames:],
                                       whole[:-stream.latency_frames], atol=2e-6)
    with pytest.raises(ValueError):
        stream.process(audio)


def test_failures_are_in_words():
    model = path_of("band_splitter")
    with pytest.raises(kalvrin.Refused, match="no model"):
        kalvrin.Stream(b"no model at all")
    with pytest.raises(FileNotFoundError):
        kalvrin.Stream("nowhere.onnx")
    with kalvrin.Stream(model, channels=2) as stream:
        with pytest.raises(KeyError, match="only Low, Voice, High, Rest"):
            stream.set_gain("Drums", 1)
        for gain in (-1.0, float("nan")):
            with pytest.raises(ValueError, match="from 0"):
                stream.set_gain("Low", gain)
        for audio in (np.zeros((1, 256)), np.zeros((2, 255)), np.zeros((1, 2, 256)),
                      np.full((2, 256), np.nan)):
            with pytest.raises(ValueError, match="takes|finite|array"):
                stream.process(audio)


def small_model(build, **metadata):
    """A model of one class on windows of 32 samples; `build(graph)` adds the node "output"."""
    graph = Graph()
    extra = build(graph) or ((), ())
    arguments = {"name": "test", "sample_rate": RATE, "classes": ["All"], **metadata}
    return make_model(graph, [tensor("input", "channels", "sequence", 32), *extra[0]],
                      [tensor("output", 1, "channels", "sequence", 32), *extra[1]],
                      **arguments).SerializeToString()


def one_class(graph, name):
    graph("Unsqueeze", name, graph.indices(0), name="output")


def through(graph):
    one_class(graph, "input")


def one_window_late(graph):
    """Returns the previous window, which a state carries over."""
    joined = graph("Concat", "state", "input", axis=1)
    graph("Slice", joined, graph.indices(-1), graph.indices(2**31), graph.indices(1), name="next")
    one_class(graph, graph("Slice", joined, graph.indices(0), graph.indices(-1), graph.indices(1)))
    return [tensor("state", "channels", 1, 32)], [tensor("next", "channels", 1, 32)]


def not_finite(graph):
    one_class(graph, graph("Log", "input"))


def mean_of_the_sequence(graph):
    mean = graph("ReduceMean", "input", axes=[1], keepdims=1)
    one_class(graph, graph("Expand", mean, graph("Shape", "input")))


def hum(graph):
    one_class(graph, graph("Add", "input", graph.constant(0.25)))


def random(graph):
    one_class(graph, graph("Mul", "input", graph("RandomUniformLike", "input")))


def division_by_zero(graph):
    zero = graph("Cast", graph("Mul", "input", graph.constant(0.0)), to=onnx.TensorProto.INT32)
    one_class(graph, graph("Cast", graph("Div", zero, zero), to=onnx.TensorProto.FLOAT))


@pytest.mark.parametrize("build, metadata, kind, words", [
    (through, {}, None, ""),
    (one_window_late, {}, "wrong", "set LookaheadNumBlocks to 1"),
    (not_finite, {}, "wrong", "not finite"),
    (mean_of_the_sequence, {"sequence_size": 4}, "wrong", "number of windows"),
    (hum, {}, "note", "when the input is silent"),
    (random, {}, "wrong", "differs after a restart"),
    (through, {"lookahead": -1}, "refused", "LookaheadNumBlocks is -1"),
    (through, {"classes": ["A", "B"]}, "refused", "number of extracted audio classes"),
    (through, {"classes": ["Rest"]}, "note", "hides the remainder"),
    (through, {"sample_rate": 0}, "note", "does not say its sample rate"),
    (division_by_zero, {}, "refused", "ended its process"),
], ids=lambda value: value.__name__ if callable(value) else "")
def test_check_finds(build, metadata, kind, words):
    findings = kalvrin.check(small_model(build, **metadata))
    if kind is None:
        assert findings == []
    else:
        assert any(finding.kind == kind and words in str(finding) for finding in findings), findings


@pytest.mark.parametrize("recipe", RECIPES)
def test_check_finds_nothing_in(recipe):
    assert kalvrin.check(path_of(recipe)) == []
