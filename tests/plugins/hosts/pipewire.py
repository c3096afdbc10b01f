"""The virtual devices of `kalvrin pipewire`, headless: a file is played into a null source or into the sink, comes
through the filter chain, is recorded, and compared with `kalvrin render`."""
import os
import subprocess
import time

import numpy as np

from common import Skipped, expect, need, read_audio, run, signal, write_wav

RATE, HOP = 16000, 512
GAINS = {"Harmonic": "-18dB", "Percussive": "3dB"}

SERVER = """
context.properties = {{
  core.daemon = true core.name = pipewire-0
  default.clock.rate = {rate} default.clock.allowed-rates = [ {rate} ]
  default.clock.quantum = {quantum} default.clock.min-quantum = {quantum} default.clock.max-quantum = {quantum}
}}
context.spa-libs = {{
  audio.convert.* = audioconvert/libspa-audioconvert
  support.* = support/libspa-support
}}
context.modules = [
  {{ name = libpipewire-module-protocol-native }}
  {{ name = libpipewire-module-profiler }}
  {{ name = libpipewire-module-metadata }}
  {{ name = libpipewire-module-spa-node-factory }}
  {{ name = libpipewire-module-client-node }}
  {{ name = libpipewire-module-access }}
  {{ name = libpipewire-module-adapter }}
  {{ name = libpipewire-module-link-factory }}
  {{ name = libpipewire-module-session-manager }}
]
context.objects = [
  {{ factory = spa-node-factory
     args = {{ factory.name = support.node.driver node.name = Dummy-Driver
               node.group = pipewire.dummy priority.driver = 20000 }} }}
  {{ factory = adapter
     args = {{ factory.name = support.null-audio-sink node.name = microphone
               media.class = Audio/Source/Virtual object.linger = true audio.position = [ MONO ] }} }}
  {{ factory = adapter
     args = {{ factory.name = support.null-audio-sink node.name = speakers
               media.class = Audio/Sink object.linger = true audio.position = [ MONO ] }} }}
]
"""


class Graph:
    """A PipeWire of our own with a session manager; all ends with the block."""

    def __init__(self, folder, quantum):
        folder.mkdir(parents=True, mode=0o700)
        self.folder, self.processes = folder, []
        self.env = {**os.environ, "XDG_RUNTIME_DIR": str(folder), "HOME": str(folder), "PIPEWIRE_DEBUG": "1"}
        (folder / "server.conf").write_text(SERVER.format(rate=RATE, quantum=quantum))

    def start(self, *command):
        with open(self.folder / (os.path.basename(command[0]) + ".log"), "a") as log:
            process = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=log,
                                       stderr=log, env=self.env)
        self.processes.append(process)
        return process

    def until(self, is_done, seconds):
        """Waits for it; whether it came."""
        for _ in range(seconds * 5):
            if is_done():
                return True
            time.sleep(0.2)
        return False

    def wait_for(self, name):
        if not self.until(lambda: f'"{name}"' in run("pw-cli", "ls", "Node", env=self.env, check=False), 15):
            logs = "\n".join(log.read_text()[-800:] for log in self.folder.glob("*.log"))
            raise Skipped(f"{name} does not appear in the graph:\n{logs}")

    def link(self, source, target):
        """`pw-link`, as soon as both ports are there; it refuses a link that exists."""
        link = lambda: run("pw-link", source, target, env=self.env, check=False)
        expect(self.until(lambda: "exists" in link(), 10), f"pw-link {source} {target}: {link()}")

    def __enter__(self):
        self.start("pipewire", "-c", self.folder / "server.conf")
        self.wait_for("microphone")
        self.start("dbus-run-session", "--", "wireplumber")
        time.sleep(2)
        return self

    def __exit__(self, *_):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.terminate()
        for process in self.processes:
            process.wait(10)


def recorded(graph, chain, device, into, heard, *options):
    """Plays in.wav to the port `into` while `device` is on; what the node `heard` says."""
    recording = graph.folder / "recording.wav"
    graph.start("pipewire", "-c", chain)
    graph.wait_for(device)
    recorder = graph.start("pw-record", "--target", heard, "--rate", RATE, "--channels", 1, "--format", "f32", *options,
                           recording)
    time.sleep(2)
    player = graph.start("pw-play", "--target", 0, "-P", "{ node.name = player }", graph.folder / "in.wav")
    graph.link("player:output_MONO", into)
    player.wait(30)
    time.sleep(1)
    recorder.terminate()
    recorder.wait(10)
    return read_audio(recording, 1)[:, 0]


def offset(found, expected):
    """Where `expected` begins in `found`, by correlation."""
    size = 1 << int(np.ceil(np.log2(len(found) + len(expected))))
    correlation = np.fft.irfft(np.fft.rfft(found, size) * np.fft.rfft(expected, size).conj(), size)
    return int(np.argmax(correlation[:len(found)]))


def played(quantum):
    """The signal, and silence to whole quanta: pw-play drops the last one where it is not full."""
    audio = signal(4, 1)
    return np.concatenate([audio, np.zeros((-len(audio) % quantum, 1), "<f4")])


def best_match(found, folder, tool, model, quantum):
    """The file begins anywhere in a hop of the model, in steps of a quantum: the tool is given as many
    frames of silence before it. The greatest share of frames that are equal bit for bit."""
    audio = played(quantum)
    best = 0.0
    for phase in range(0, HOP, min(quantum, HOP)):
        write_wav(folder / "phase.wav", np.concatenate([np.zeros((8 * HOP + phase, 1), "<f4"), audio]), RATE)
        run(tool, "render", model, folder / "phase.wav", folder / "expected.wav", "--rest=-infdB",
            *(f"--gain={name}={gain}" for name, gain in GAINS.items()), "--encoding", "float")
        expected = read_audio(folder / "expected.wav", 1)[8 * HOP + phase:, 0]
        begin = offset(found, expected)
        length = min(len(expected), len(found) - begin)
        best = max(best, np.count_nonzero(found[begin:begin + length] == expected[:length]) / len(expected))
    return best


def microphone(graph, tool, model):
    chain = graph.folder / "microphone.conf"
    run(tool, "pipewire", model, "--rest=-infdB", *(f"--class-gain={name}={gain}" for name, gain in GAINS.items()),
        "--device", "microphone", "--to", chain, "--plugins", graph.folder / "plugins")
    name = "kalvrin.harmonic_and_percussive"
    return recorded(graph, chain, name, "microphone:input_MONO", name)


def sink(graph, tool, model):
    """With the gains set while it is on, as `--list` then says."""
    name = "harmonic_and_percussive_playback"
    kalvrin = lambda *words: run(tool, "pipewire", *words, env=graph.env)
    kalvrin(model, "--sink", "--channels", 1, "--device", "speakers")
    chain = graph.folder / f".config/pipewire/kalvrin-{name}.conf"
    running = graph.start("pipewire", "-c", chain)
    graph.wait_for(f"kalvrin.{name}")
    kalvrin("--set", name, *(f"{key}={gain}" for key, gain in GAINS.items()), "Rest=-infdB")
    said = "sink, on: Harmonic -18 dB, Percussive 3 dB, Rest mute, Master 0 dB"
    expect(graph.until(lambda: said in kalvrin("--list"), 5), f"--list does not say '{said}':\n{kalvrin('--list')}")
    running.terminate()
    running.wait(10)
    return recorded(graph, chain, f"kalvrin.{name}", f"kalvrin.{name}:playback_MONO", "speakers",
                    "-P", "{ stream.capture.sink = true }")


def attempt(folder, tool, model, quantum, device):
    """The share of the frames that are the tool's."""
    with Graph(folder, quantum) as graph:
        write_wav(folder / "in.wav", played(quantum), RATE)
        found = device(graph, tool, model)
    expect(np.any(found), "silence was recorded")
    return best_match(found, folder, tool, model, quantum)


def check(work, tool, model, quantum, device):
    """A machine that is busy loses calls of the graph and results of the worker, and everything behind
    them stands in other windows or comes from other states: that proves nothing."""
    need("pipewire", "wireplumber", "pw-cli", "pw-link", "pw-play", "pw-record", "dbus-run-session")
    busy = os.getloadavg()[0] > 0.75 * os.cpu_count()
    share = 0.0
    for number in range(3):
        share = max(share, attempt(work / f"{device.__name__}-{quantum}-{number}", tool, model, quantum, device))
        if share > 0.9:
            break
    said = f"{share:.2%} of the frames equal bit for bit"
    if share < 0.9:
        expect(busy, said)
        raise Skipped("the machine is too busy for a real graph: " + said)
    return said


def check_pipewire(work, tool, model):
    return [(f"PipeWire, {device.__name__}, quantum {quantum}",
             lambda device=device, quantum=quantum: check(work, tool, model, quantum, device))
            for device, quantum in ((microphone, 32), (microphone, 128), (microphone, 1024), (sink, 1024))]
