"""jalv under a JACK server without hardware: short and long periods."""
import os
import re
import subprocess
import time

from common import Skipped, expect, need, run


def play(work, period):
    """A few seconds of jalv; the ports of the server in the meantime."""
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
    expect(alive, f"jalv ended by itself:\n{(work / 'jalv.log').read_text()}")
    return ports


def check_jalv(work):
    def check(period):
        need("jackd", "jalv", "jack_lsp")
        ports = play(work, period)
        own = re.search(r"Noise reducer \(mono\):in\n.*\n.*latency = \[ *(\d+)", ports)
        expect(own and int(own[1]) > 512, f"the plugin has no port with its latency:\n{ports}")
        return f"a latency of {own[1]} frames is known to JACK"
    return [(f"jalv, JACK periods of {period}", lambda period=period: check(period)) for period in (32, 1024)]
