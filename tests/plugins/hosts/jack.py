"""jalv under a JACK server without hardware: short periods, counted xruns and late results."""
import os
import re
import subprocess
import time

from common import Skipped, expect, need, run


def play(work, lv2_env, period):
    """A few seconds of jalv; what it and the server said."""
    server = f"kalvrin-{os.getpid()}"
    env = {**os.environ, **lv2_env, "JACK_DEFAULT_SERVER": server, "JACK_NO_AUDIO_RESERVATION": "1",
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
                jalv.terminate()
                jalv.wait(10)
        finally:
            jackd.terminate()
            jackd.wait(10)
    said = (work / "jalv.log").read_text()
    expect(alive, f"jalv ended by itself:\n{said}")
    return said, (work / "jackd.log").read_text()


def check_jalv(work, lv2_env):
    def check(period):
        need("jackd", "jalv")
        said, log = play(work, lv2_env, period)
        expect("latency" in said.lower(), f"jalv said no latency:\n{said}\n{log}")
        latency = [float(value) for value in re.findall(r"(?i)latency = ([\d.]+)", said)]
        late = [float(value) for value in re.findall(r"(?i)late = ([\d.]+)", said)]
        return (f"latency {latency[-1]:.0f} frames, {late[-1] if late else 0:.0f} late results, "
                f"{len(re.findall('(?i)xrun', log))} xruns")
    return [(f"jalv, JACK periods of {period}", lambda period=period: check(period)) for period in (32, 1024)]
