"""jalv under a JACK server without hardware: short and long periods."""
import os
import re
import subprocess
import time

from common import Skipped, expect, need, run


def play(work, period, *plugin):
    """A few seconds of jalv with `plugin`, or a saved state of one; the ports of the server in the meantime."""
    server = f"kalvrin-{os.getpid()}"
    env = {**os.environ, "JACK_DEFAULT_SERVER": server, "JACK_NO_AUDIO_RESERVATION": "1",
           "JACK_NO_START_SERVER": "1"}
    with open(work / "jackd.log", "w") as log:
        jackd = subprocess.Popen(["jackd", "-n", server, "-r", "-d", "dummy", "-r", "48000", "-p", str(period)],
                                 stdout=log, stderr=log, env=env)
        time.sleep(2)
        if jackd.poll() is not None:
            raise Skipped("jackd does not start here: " + (work / "jackd.log").read_text().strip().splitlines()[-1])
        try:
            with open(work / "jalv.log", "w") as said:
                jalv = subprocess.Popen(["jalv", "-i", "-p", *map(str, plugin)],
                                        stdin=subprocess.DEVNULL, stdout=said, stderr=said, env=env)
                time.sleep(5)
                alive = jalv.poll() is None
                ports = run("jack_lsp", "-l", env=env, check=False)
                jalv.terminate()
                jalv.wait(10)
        finally:
            jackd.terminate()
            jackd.wait(10)
    expect(alive, f"jalv ended by itself:\n{(work / 'jalv.log').read_text()}")
    return ports


def latency(work, period, name, *plugin):
    need("jackd", "jalv", "jack_lsp")
    ports = play(work, period, *plugin)
    own = re.search(name + r" \(mono\):in\n.*\n.*latency = \[ *(\d+)", ports)
    expect(own and int(own[1]) > 512, f"the plugin has no port with its latency:\n{ports}\n"
                                      f"{(work / 'jalv.log').read_text()}")
    return f"a latency of {own[1]} frames is known to JACK"


STATE = """
@prefix lv2: <http://lv2plug.in/ns/lv2core#> .
@prefix pset: <http://lv2plug.in/ns/ext/presets#> .
@prefix state: <http://lv2plug.in/ns/ext/state#> .
<> a pset:Preset ; lv2:appliesTo <urn:kalvrin:any_model:mono> ;
  state:state [ <urn:kalvrin:model> <model.onnx> ] .
"""


def check_session(work, model):
    """jalv restores a model with a session, through its worker: only then there is a latency."""
    session = work / "session"
    session.mkdir()
    (session / "model.onnx").symlink_to(model)
    (session / "state.ttl").write_text(STATE)
    return latency(work, 256, "Any model", "-l", session)


def check_jalv(work, model):
    return [*((f"jalv, JACK periods of {period}",
               lambda period=period: latency(work, period, "Noise reducer", "urn:kalvrin:noise_reducer:mono"))
              for period in (32, 1024)),
            ("jalv, a model from a session", lambda: check_session(work, model))]
