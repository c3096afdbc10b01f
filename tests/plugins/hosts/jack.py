"""jalv under a JACK server without hardware: short periods, counted xruns and late results."""
import os
import re
import subprocess
import time

from common import Skipped, expect, need, run


def play(work, period):
    """A few seconds of jalv; what it and the server said."""
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
                jalv = subprocess.Popen(["jalv", "-i", "-p", "urn:kalvrin:noise_reducer:mono"],
                                        stdin=subprocess.DEVNULL, stdout=said, stderr=said, env=env)
                time.sleep(5)
                alive = jalv.poll() is None
                ports = run("jack_lsp", "-l", env=env, check=False)
                jalv.terminate()
                jalv.wait(10)
        finally:
            jackd.terminate()
            jackd.wait(10)
    said = (work / "jalv.log").read_text()
    expect(alive, f"jalv ended by itself:\n{said}")
    return ports, (work / "jackd.log").read_text()


def check_jalv(work):
    def check(period):
        need("jackd", "jalv", "jack_lsp")
        ports, log = play(work, period)
        own = re.search(r"Noise reducer \(mono\):in\n.*\n.*latency = \[ *(\d+)", ports)
        expect(own, f"the plugin has no port:\n{ports}\n{log}")
        latency = int(own[1])
        expect(latency > 512, f"the port has a latency of {latency}:\n{ports}\n{log}")
        return f"a latency of {latency} frames is known to JACK, {log.count('Process error')} calls failed"
    return [(f"jalv, JACK periods of {period}", lambda period=period: check(period)) for period in (32, 1024)]
