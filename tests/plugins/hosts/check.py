#!/usr/bin/python3
"""The plugins in real hosts, each compared with `kalvrin render` where the host gives audio.
usage: check.py BUILD_FOLDER"""
import os
import pathlib
import re
import sys
import tempfile

import numpy as np
import onnx
from onnx import TensorProto, helper

from common import Failed, expect, need, read_audio, run, signal, verdicts, write_wav
from jack import check_jalv
from pipewire import check_pipewire, offset

build = pathlib.Path(sys.argv[1]).resolve()
tool = build / "bin/kalvrin"
work = pathlib.Path(tempfile.mkdtemp(prefix="kalvrin-plugins."))
bundles, ladspa = work / "lv2", work / "ladspa"
os.environ["LV2_PATH"] = str(bundles)

# file, symbol, class gains in dB by the symbol of the port, Rest in dB
MODELS = [
    ("noise_reducer", "noise_reducer", {"Speech": 0}, -12),
    ("separator", "speech_and_music", {"Speech": 0, "Music": -60}, -6),
    ("harmonic_percussive", "harmonic_and_percussive", {"Harmonic": -18, "Percussive": 3}, -60),
    ("band_splitter", "band_splitter", {"Low": -60, "Voice": 0, "High": -6}, -60),
    ("adapted_window", "adapted_window", {"Speech": 0}, -12),
    ("adapted_mask", "adapted_mask", {"Speech": -3}, -60),
    ("adapted_bands", "adapted_bands", {"Speech": 3}, -6),
]


def model(name):
    adapted = work / f"{name}.onnx"
    return adapted if adapted.exists() else build / f"models/{name}.onnx"


def adapt_models():
    """Somebody else's models of three forms, by `kalvrin adapt`: another window, windows in the graph, bands."""
    def adapt(name, shape, nodes, *options, state=False):
        tensors = [[helper.make_tensor_value_info(prefix + side, TensorProto.FLOAT, shape)
                    for prefix in (["x_", "h_"] if state else ["x_"])] for side in ("in", "out")]
        graph = helper.make_graph([helper.make_node(*node) for node in nodes], name, *tensors)
        source = work / f"{name}_source.onnx"
        onnx.save(helper.make_model(graph, ir_version=8, opset_imports=[helper.make_opsetid("", 17)]), source)
        run(tool, "adapt", source, work / f"{name}.onnx", "--name", name.replace("_", " ").capitalize(),
            "--rate", 16000, "--classes", "Speech", *options)
    adapt("adapted_window", [1, 257, 1, 2], [("Tanh", ["h_in"], ["t"]), ("Sub", ["x_in", "t"], ["x_out"]),
                                             ("Identity", ["x_in"], ["h_out"])], "--window", "hann", state=True)
    adapt("adapted_mask", [1, 257], [("Softsign", ["x_in"], ["x_out"])],
          "--in", "magnitude", "--out", "mask", "--window", "hann:400", "--transform", 512, "--hop", 100)
    adapt("adapted_bands", [1, 4], [("Sigmoid", ["x_in"], ["x_out"])], "--window", "vorbis:512", "--lookahead", 1,
          "--bands", "10,30,60,157", "--in", "x_in=power/bands/log:+1e-6/running-mean:0.9:-3", "--out", "mask/bands")


def rendered(name, classes, rest, audio, rate=16000):
    """What the tool gives for the gains, in time with the input."""
    write_wav(work / "in.wav", audio, rate)
    db = lambda value: "-infdB" if value <= -60 else f"{value}dB"
    gains = [f"--gain={key}={db(value)}" for key, value in classes.items()]
    run(tool, "render", model(name), work / "in.wav", work / "out.wav", *gains, f"--rest={db(rest)}", "--encoding", "float",
        "--resample")
    return read_audio(work / "out.wav", audio.shape[1])


def equal_bits(found, expected, latency):
    length = min(len(expected), len(found) - latency)
    expect(length > 16000, f"only {len(found)} frames came")
    expect(np.any(found), "silence came")
    wrong = np.flatnonzero(np.any(found[latency:latency + length] != expected[:length], 1))
    expect(len(wrong) == 0, f"{len(wrong)} of {length} frames differ, the first is {wrong[:1]}")
    return f"{length} frames equal bit for bit"


def direct_latency(name):
    """In frames, as `kalvrin plugin` says it."""
    return int(re.search(r"direct +(\d+) frames", latencies[name])[1])


def make_plugins():
    adapt_models()
    for name, *_ in MODELS:
        latencies[name] = run(tool, "plugin", model(name), "--to", bundles)
        run(tool, "plugin", model(name), "--ladspa", "--to", ladspa)
    run(tool, "plugin", model("separator"), "--spread", "--name", 'Always "spread"', "--to", bundles)
    run(tool, "plugin", "--any", "--to", bundles)
    run(tool, "plugin", model("separator"), "--to", bundles)  # again, over the one that is there
    return f"{len(list(bundles.iterdir()))} bundles, {len(list((ladspa / 'kalvrin').glob('*.onnx')))} LADSPA models"


def check_validate():
    need("lv2_validate")
    said = run("lv2_validate", *sorted(bundles.glob("*/*.ttl")))
    expect("Found 0 errors" in said, said)
    return said.strip().splitlines()[-1]


def check_info():
    need("lv2ls", "lv2info")
    uris = run("lv2ls").split()
    expect(len(uris) == 2 * (len(MODELS) + 2), f"found {uris}")
    for uri in uris:
        said = run("lv2info", uri)
        expect("reported by port" in said, f"no latency port: {said}")
        expect("error" not in said.lower(), said)
    return f"{len(uris)} plugins, each with a latency port"


def check_bench():
    need("lv2bench")
    said = run("lv2bench", "-b", "512", seconds=300)
    seconds = re.findall(r"^([\d.]+) urn:kalvrin", said, re.M)
    expect(len(seconds) == 2 * (len(MODELS) + 2), said)
    return f"{len(seconds)} plugins, blocks of 512, {min(map(float, seconds))} to {max(map(float, seconds))} s for 2^19 frames"


def check_analyse():
    need("analyseplugin")
    said = run("analyseplugin", ladspa / "kalvrin_ladspa.so")
    for _, symbol, classes, _ in MODELS:
        for form in ("mono", "stereo"):
            expect(f'"{symbol}_{form}"' in said, said)
        for name in classes:
            expect(f'"{name}" input, control, -60 to 12, default 0' in said, said)
    expect('"latency" output, control' in said, said)
    return f"{2 * len(MODELS)} plugins"


def lv2_filter(symbol, form, controls=""):
    uri = f"urn:kalvrin:{symbol}:{form}".replace(":", r"\\:")
    return f"lv2=p={uri}:c={controls}mode=1"


def lv2_mix(symbol, form, classes, rest):
    gains = [f"gain_{key.lower()}={value}|" for key, value in classes.items()]
    return lv2_filter(symbol, form, "".join(gains) + f"rest={rest}|")


def ladspa_mix(symbol, form, classes, rest):
    values = [0, *classes.values(), rest, 0, 1]  # bypass, classes, Rest, Master, Mode
    controls = "|".join(f"c{i}={value}" for i, value in enumerate(values))
    return f"ladspa=file={ladspa}/kalvrin_ladspa.so:plugin={symbol}_{form}:controls={controls}"


def check_ffmpeg(mix):
    """`mix` gives ffmpeg's filter for gains."""
    need("ffmpeg")
    results = []
    for name, symbol, classes, rest in MODELS:
        for channels, form in ((1, "mono"), (2, "stereo")):
            expected = rendered(name, classes, rest, signal(3, channels))
            found = read_audio(work / "in.wav", channels, "-af", mix(symbol, form, classes, rest))
            results.append(equal_bits(found, expected, direct_latency(name)))
    for rate, (name, symbol, classes, rest) in zip((44100, 48000, 96000, 192000), MODELS):
        expected = rendered(name, classes, rest, signal(3, 1, rate), rate)
        found = read_audio(work / "in.wav", 1, "-af", mix(symbol, "mono", classes, rest))
        results.append(equal_bits(found, expected, offset(found[:, 0], expected[:, 0])))
    return f"{len(results)} runs at 16 to 192 kHz, {results[-1]}"


def check_gstreamer(element, settings):
    """`settings` gives the element's properties for gains. Both elements have a property for each control."""
    need("gst-launch-1.0", "gst-inspect-1.0")
    registry = {"GST_REGISTRY": work / "gstreamer", "LADSPA_PATH": ladspa}
    results = []
    for name, symbol, classes, rest in MODELS:
        for channels, form in ((1, "mono"), (2, "stereo")):
            expected = rendered(name, classes, rest, signal(3, channels))
            raw = f"audio/x-raw,format=F32LE,rate=16000,channels={channels}"
            run("gst-launch-1.0", "-q", "filesrc", f"location={work / 'in.wav'}", "!", "wavparse", "!", raw, "!",
                element(symbol, form), *settings(classes, rest), "!", raw, "!", "wavenc", "!", "filesink",
                f"location={work / 'gst.wav'}", env=registry)
            results.append(equal_bits(read_audio(work / "gst.wav", channels), expected, direct_latency(name)))
    return f"{len(results)} runs, {results[-1]}"


def gstreamer_lv2(symbol, form):
    return f"urn-kalvrin-{symbol}-{form}".replace("_", "-")


def gstreamer_ladspa(symbol, form):
    return f"ladspa-kalvrin-ladspa-so-{symbol}-{form}".replace("_", "-")


def lv2_settings(classes, rest):
    """GStreamer has every switch of an LV2 plugin off at first."""
    gains = [f"gain-{key.lower()}={value}" for key, value in classes.items()]
    return ["enabled=true", *gains, f"rest={rest}", "mode=1"]


def ladspa_settings(classes, rest):
    return [*(f"{key.lower()}={value}" for key, value in classes.items()), f"rest={rest}", "mode=1"]


def check_rates():
    """With all gains at 0 dB the input comes back through ffmpeg at the latency, at every frequency."""
    need("ffmpeg")
    worst = 0
    for rate in (8000, 44100, 48000, 96000, 192000):
        given = np.random.default_rng(rate).uniform(-1, 1, (2 * rate, 2)).astype("<f4")
        write_wav(work / "in.wav", given, rate)
        for chain in (lv2_filter("noise_reducer", "stereo"), ladspa_mix("noise_reducer", "stereo", {"Speech": 0}, 0)):
            found = read_audio(work / "in.wav", 2, "-af", chain)
            latency = offset(found[:, 0], given[:rate, 0])
            expect(len(found) > latency + rate, f"{rate} Hz: only {len(found)} frames came")
            differences = np.abs(found[latency:].astype(float) - given[:len(found) - latency])
            worst = max(worst, np.max(differences))
            expect(worst <= 3e-7, f"{rate} Hz, {chain}: {worst:.2g} from the input, {latency} frames later")
    return f"noise up to the highest frequency comes through within {worst:.2g} at 8 to 192 kHz, LV2 and LADSPA"


latencies = {}
try:
    print(f"          {make_plugins()}")
except Failed as reason:
    sys.exit(f"FAILED   kalvrin plugin: {reason}")
verdicts([
    ("lv2_validate", check_validate),
    ("lv2info", check_info),
    ("analyseplugin", check_analyse),
    ("ffmpeg lv2", lambda: check_ffmpeg(lv2_mix)),
    ("ffmpeg ladspa", lambda: check_ffmpeg(ladspa_mix)),
    ("ffmpeg at other rates", check_rates),
    ("GStreamer lv2", lambda: check_gstreamer(gstreamer_lv2, lv2_settings)),
    ("GStreamer ladspa", lambda: check_gstreamer(gstreamer_ladspa, ladspa_settings)),
    ("lv2bench", check_bench),
    *check_jalv(work, model("noise_reducer")),
    *check_pipewire(work, tool, model("harmonic_percussive")),
])
