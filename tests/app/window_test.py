#!/usr/bin/python3
"""kalvrin-app without a screen: Xvfb, JACK's dummy driver, a mouse and a keyboard that xdotool moves. What JACK records
follows the faders, by the amount that `kalvrin render` says.

usage: window_test.py BUILD [PICTURES], a folder for screenshots in light and dark
"""
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import numpy as np
from PIL import ImageGrab
from Xlib import X, display as xlib, protocol

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv[1]).resolve()
PICTURES = pathlib.Path(sys.argv[2]).resolve() if len(sys.argv) > 2 else None
DEMONSTRATION = ROOT / "plugins/juce/standalone/demonstration.ogg"
LOOP_SECONDS = 12.1
# of window/look.cpp
ACCENT = {"light": (0x7a, 0x1f, 0x5c), "dark": (0xee, 0x8f, 0xc4)}
RATE = 48000


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def wait_for(what, look, seconds=30):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if found := look():
            return found
        time.sleep(0.2)
    raise AssertionError(f"{what} did not come within {seconds} s")


def samples_of(file):
    """Of any audio file, as JACK's rate, [frame, channel]."""
    raw = subprocess.run(["ffmpeg", "-loglevel", "error", "-i", str(file), "-f", "f32le", "-ac", "2", "-ar", str(RATE), "-"],
                         check=True, stdout=subprocess.PIPE).stdout
    return np.frombuffer(raw, np.float32).reshape(-1, 2)


def level(audio):
    """In dB of full scale."""
    return 10 * np.log10(np.mean(np.square(audio, dtype=np.float64)) + 1e-12)


class Desktop:
    """A screen and a sound server of its own, and the program's home."""

    def __init__(self, stack, colours):
        self.home = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="kalvrin-app.")))
        self.colours = colours
        self.take_colours(colours)
        server = f"kalvrin-app-{os.getpid()}"
        self.env = {**os.environ, "HOME": str(self.home),
                    "JACK_DEFAULT_SERVER": server, "JACK_NO_AUDIO_RESERVATION": "1", "JACK_NO_START_SERVER": "1"}
        self.start_screen(stack)
        self.start_sound(stack)

    def start_sound(self, stack, rate=RATE, frames=1024):
        self.sound = self.start(stack, "jackd", "-n", self.env["JACK_DEFAULT_SERVER"], "-r", "-d", "dummy", "-r", rate,
                                "-p", frames, stdout=subprocess.DEVNULL)
        run("jack_wait", "-w", "-t", "20", env=self.env)

    def start_screen(self, stack):
        read, write = os.pipe()
        self.screen = self.start(stack, "Xvfb", "-displayfd", write, "-screen", "0", "1280x800x24", "-nolisten", "tcp",
                                 pass_fds=[write])
        self.env["DISPLAY"] = ":" + os.read(read, 16).decode().strip()
        # the program only knows the names that a window manager has made
        self.connection = xlib.Display(self.env["DISPLAY"])
        self.protocols, self.deletion = (self.connection.intern_atom(name) for name in ("WM_PROTOCOLS", "WM_DELETE_WINDOW"))

    @staticmethod
    def start(stack, *command, **options):
        process = subprocess.Popen([str(word) for word in command], stderr=subprocess.DEVNULL, **options)
        stack.callback(process.wait, 10)
        stack.callback(process.terminate)
        return process

    def take_colours(self, colours):
        file = self.home / ".config/kalvrin/window.settings"
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(f'<?xml version="1.0"?>\n<PROPERTIES><VALUE name="appearance" val="{colours}"/></PROPERTIES>\n')
        self.colours = colours

    @contextlib.contextmanager
    def program(self, *files, end=None):
        """Runs it until `end`, which is given the process, or Ctrl+Q."""
        process = subprocess.Popen([str(BUILD / "bin/kalvrin-app"), *map(str, files)], env=self.env, cwd="/")
        try:
            self.wait_for_sound()
            # a window that has not its final form yet is made again
            self.window = wait_for("the window", self.find_window)
            wait_for("the faders", lambda: len(self.faders()) == 4)
            yield
            if end:
                end(process)
            else:
                self.mouse("windowfocus", self.window, "key", "ctrl+q")
            status = process.wait(20)
            expected = 0 if self.screen.poll() is None else 1  # that of Xlib
            assert status == expected, f"it ended with the status {status}"
        finally:
            process.kill()
            process.wait()

    def wait_for_sound(self):
        """Until the program's outputs are connected."""
        wait_for("its sound", lambda: "   kalvrin:out_1" in run("jack_lsp", "-c", env=self.env))

    def find_window(self):
        found = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", "^kalvrin$"], env=self.env, text=True,
                               stdout=subprocess.PIPE).stdout.split()
        return found[0] if found else None

    def close_window(self, _process):
        """As a window manager asks for it."""
        window = self.connection.create_resource_object("window", int(self.window))
        window.send_event(protocol.event.ClientMessage(window=window, client_type=self.protocols,
                                                       data=(32, [self.deletion, X.CurrentTime, 0, 0, 0])))
        self.connection.flush()

    def drop(self, file):
        """Drags the file onto the middle of the window, as a file manager does."""
        display, (x, y, width, height) = self.connection, self.geometry()
        target = display.create_resource_object("window", int(self.window))
        source = display.screen().root.create_window(0, 0, 1, 1, 0, X.CopyFromParent)
        named = display.intern_atom
        source.set_selection_owner(named("XdndSelection"), X.CurrentTime)

        def say(what, *words):
            target.send_event(protocol.event.ClientMessage(window=target, client_type=named(what),
                                                           data=(32, [source.id, *words, *[0] * (4 - len(words))])))
            display.flush()

        accepted = []

        def answer():
            while display.pending_events():
                event = display.next_event()
                if event.type == X.SelectionRequest:
                    event.requestor.change_property(event.property, event.target, 8, f"file://{file}\r\n".encode())
                    event.requestor.send_event(protocol.event.SelectionNotify(
                        time=event.time, requestor=event.requestor, selection=event.selection, target=event.target,
                        property=event.property))
                elif event.type == X.ClientMessage and event.client_type == named("XdndStatus") and not accepted:
                    accepted.append(event)
                    say("XdndDrop", 0, X.CurrentTime)
                elif event.type == X.ClientMessage and event.client_type == named("XdndFinished"):
                    return True
            display.flush()
            return False

        say("XdndEnter", 3 << 24, named("text/uri-list"))
        say("XdndPosition", 0, (x + width // 2) << 16 | (y + height // 2), X.CurrentTime, named("XdndActionCopy"))
        wait_for("the end of the drop", answer)

    def geometry(self):
        """Left, top, width, height."""
        lines = run("xdotool", "getwindowgeometry", "--shell", self.window, env=self.env).splitlines()
        return [int(line.split("=")[1]) for line in lines[1:5]]

    def mouse(self, *words):
        run("xdotool", *words, env=self.env)

    def picture(self):
        return ImageGrab.grab(xdisplay=self.env["DISPLAY"])

    def faders(self):
        """The places of their knobs, from left to right: bars of one colour, 14 high and 26 wide."""
        pixels = np.asarray(self.picture().convert("RGB"), np.int16)
        is_knob = np.all(np.abs(pixels - ACCENT[self.colours]) < 3, 2)
        solid = is_knob[:-8, :-21].copy()  # the upper left corners of 21 pixels in a row, with one 8 below
        for right in range(1, 21):
            solid &= is_knob[:-8, right:right - 21]
        solid &= is_knob[8:, :-21]
        top = self.geometry()[1] + 160  # below the buttons
        places = {}
        for y, x in zip(*np.nonzero(solid)):
            if y > top and not any(abs(x - other) < 40 for other in places):
                places[int(x)] = int(y) + 5
        return [(x + 10, places[x]) for x in sorted(places)]

    def drag(self, place, by):
        x, y = place
        self.mouse("mousemove", x, y, "sleep", 0.2, "mousedown", 1, "sleep", 0.2)
        for step in range(1, 11):
            self.mouse("mousemove", x, y + by * step // 10, "sleep", 0.05)
        self.mouse("mouseup", 1, "mousemove", 5, 790, "sleep", 1)  # until it is drawn

    def record(self, seconds=LOOP_SECONDS):
        file = self.home / "recorded.wav"
        # with room for all of it: where its disk thread comes too late it writes noise
        run("jack_rec", "-f", file, "-d", seconds, "-b", 32, "-B", 1 << 20, "kalvrin:out_1", "kalvrin:out_2", env=self.env)
        return samples_of(file)

    def keep_picture(self, name):
        if not PICTURES:
            return
        x, y, width, height = self.geometry()
        self.picture().crop((x, y, x + width, y + height)).save(PICTURES / f"{name}.png", optimize=True)


def rendered(home, *options):
    """The level of the demonstration through the tool."""
    source = home / "demonstration.wav"
    run("ffmpeg", "-loglevel", "error", "-y", "-i", DEMONSTRATION, source)
    run(BUILD / "bin/kalvrin", "render", BUILD / "models/separator.onnx", source, home / "rendered.wav", *options)
    return level(samples_of(home / "rendered.wav"))


class Window(unittest.TestCase):
    def test_faders_change_what_is_heard(self):
        with contextlib.ExitStack() as stack:
            desktop = Desktop(stack, "light")
            with desktop.program():
                time.sleep(1)
                before = desktop.record()
                self.assertGreater(level(before), -30, "the first start makes no sound")
                self.assertAlmostEqual(level(before), rendered(desktop.home), delta=0.3)
                speech, music, rest, master = desktop.faders()
                desktop.drag(music, 400)  # to its end: mute
                time.sleep(3)
                sunk = desktop.record()
                expected = rendered(desktop.home, "--gain=Music=-infdB")
                self.assertAlmostEqual(level(sunk), expected, delta=0.3)
                self.assertLess(level(sunk), level(before) - 1.5)
                desktop.keep_picture("app-light")
                # typed below the fader
                _, top, _, height = desktop.geometry()
                desktop.mouse("mousemove", master[0], top + height - 66, "click", 1, "key", "ctrl+a")
                desktop.mouse("type", "--", "-20")
                desktop.mouse("key", "Return")
                time.sleep(3)
                self.assertAlmostEqual(level(desktop.record()), level(sunk) - 20, delta=0.3)
                desktop.mouse("key", "ctrl+z")
                time.sleep(3)
                self.assertAlmostEqual(level(desktop.record()), level(sunk), delta=0.3)
            desktop.take_colours("dark")
            with desktop.program(DEMONSTRATION):  # the gains are still there
                time.sleep(1)
                self.assertAlmostEqual(level(desktop.record()), expected, delta=0.3)
                desktop.keep_picture("app-dark")
                desktop.mouse("windowfocus", desktop.window, "key", "space")
                time.sleep(3)
                self.assertLess(level(desktop.record(1)), -100, "a pause is not silent")

    def test_however_it_ends_the_next_start_goes_on(self):
        with contextlib.ExitStack() as stack:
            desktop = Desktop(stack, "light")

            def take_screen_away(_process):
                time.sleep(3)  # until all is kept
                desktop.screen.terminate()

            ends = {"closed": desktop.close_window, "the screen": take_screen_away,
                    **{number.name: lambda process, number=number: process.send_signal(number)
                       for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)}}

            def depth():
                """How far the second fader is below the first."""
                found = wait_for("the faders", lambda: len(desktop.faders()) == 4 and desktop.faders())
                return found[1][1] - found[0][1]

            kept = 0
            for way in ends:
                with self.subTest(way), desktop.program(end=ends[way]):
                    self.assertAlmostEqual(depth(), kept, delta=3)
                    desktop.drag(desktop.faders()[1], 15)
                    self.assertGreater(depth(), kept + 8)
                    kept = depth()
                if desktop.screen.poll() is not None:
                    desktop.start_screen(stack)
            with desktop.program():
                self.assertAlmostEqual(depth(), kept, delta=3)

    def test_the_sound_server_may_go_and_come_back(self):
        with contextlib.ExitStack() as stack:
            desktop = Desktop(stack, "light")
            with desktop.program():
                time.sleep(1)
                before = level(desktop.record())
                for rate, frames in ((44100, 256), (RATE, 2048)):
                    desktop.sound.terminate()
                    desktop.sound.wait()
                    time.sleep(2)
                    desktop.start_sound(stack, rate, frames)
                    desktop.wait_for_sound()
                    time.sleep(1)
                    self.assertAlmostEqual(level(desktop.record()), before, delta=0.3)

    def test_what_is_dropped_plays_and_presets_bring_gains_back(self):
        with contextlib.ExitStack() as stack:
            desktop = Desktop(stack, "light")
            sound = desktop.home / "tone.wav"
            run("ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", "sine=440:d=3", sound)
            kept = desktop.home / ".config/kalvrin"
            with desktop.program():
                desktop.drop(sound)
                wait_for("the file", lambda: any(sound.name in file.read_text() for file in kept.glob("app.settings")))
                desktop.drop(BUILD / "models/band_splitter.onnx")
                wait_for("another model", lambda: len(desktop.faders()) > 4)
                desktop.drop(BUILD / "models/separator.onnx")
                wait_for("the first model", lambda: len(desktop.faders()) == 4)

                def menu(*keys):
                    left, top, width, _ = desktop.geometry()
                    desktop.mouse("mousemove", left + width - 362, top + 86, "click", 1, "sleep", 3, "key", *keys, "sleep", 3)

                desktop.drag(desktop.faders()[1], 60)
                down = desktop.faders()[1]
                menu("Up", "Return")  # the last entry saves
                desktop.mouse("sleep", 2, "type", "Quiet")
                desktop.mouse("key", "Return")
                wait_for("the preset", lambda: list(kept.glob("presets/*/Quiet.xml")))
                desktop.drag(desktop.faders()[1], -90)
                self.assertNotEqual(desktop.faders()[1][1], down[1])
                menu(*["Down"] * 8, "Return")  # after those of every model
                wait_for("the gains", lambda: abs(desktop.faders()[1][1] - down[1]) < 3)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
