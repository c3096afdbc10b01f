#!/usr/bin/python3
"""Tests the demonstration's page in a headless Chromium: what it plays follows the sliders by the library's formula.

usage: page_test.py build/demo/index.html [SCREENSHOT.png]
"""

import pathlib
import sys
import time
import unittest

from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait

PAGE = None

# Plays scene `index` for a moment from `start` seconds on. Returns the levels of all tracks at one moment.
LEVELS = """
  const [index, start, done] = arguments;
  const mixer = players[index].mixer;
  mixer.pause();
  mixer.seek(start);
  mixer.play();
  setTimeout(async () => {
    await mixer.context.suspend();  // so that all meters show the same moment
    const levels = {};
    for (const name of Object.keys(mixer.meters)) levels[name] = mixer.level(name);
    mixer.pause();
    await mixer.context.resume();
    done(levels);
  }, 700);
"""


def browser():
    """With the page, once it is ready."""
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--autoplay-policy=no-user-gesture-required",
                     "--window-size=1100,1500"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
    driver.get(PAGE.as_uri())
    WebDriverWait(driver, 120).until(lambda d: d.execute_script("return document.body.dataset.ready"))
    return driver


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.driver = browser()
        cls.driver.set_script_timeout(30)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()

    def tearDown(self):
        # The browser's advice on reading a canvas often is for the tests, which read it, not for the page.
        messages = [entry for entry in self.driver.get_log("browser")
                    if entry["level"] in ("SEVERE", "WARNING") and "willReadFrequently" not in entry["message"]]
        self.assertEqual(messages, [], "in the browser's console")

    def scenes(self):
        return self.driver.find_elements(By.CSS_SELECTOR, "section.scene")

    def tracks(self, scene):
        return {track.find_element(By.TAG_NAME, "h3").text: track
                for track in scene.find_elements(By.CSS_SELECTOR, ".track")}

    def set_slider(self, track, db):
        slider = track.find_element(By.CSS_SELECTOR, ".gain input")
        self.driver.execute_script("arguments[0].value = arguments[1];"
                                   "arguments[0].dispatchEvent(new Event('input', {bubbles: true}));", slider, db)

    def levels(self, index, start=2.0):
        return self.driver.execute_async_script(LEVELS, index, start)

    def loudest(self, index, part):
        return max(self.levels(index, start)[part] for start in (1.0, 2.0, 3.0))

    def reset(self, scene):
        scene.find_element(By.CSS_SELECTOR, "button.reset").click()

    def test_four_scenes_with_all_parts_and_facts(self):
        scenes = self.scenes()
        self.assertEqual(len(scenes), 4)
        rates = self.driver.execute_script("return players.map(({mixer}) => mixer.buffers.Original.sampleRate)")
        self.assertEqual(rates, [16000, 16000, 16000, 48000])
        for scene in scenes:
            names = list(self.tracks(scene))
            self.assertEqual((names[0], names[-2], names[-1]), ("Original", "Rest", "Mix"))
            facts = scene.find_element(By.CSS_SELECTOR, ".facts").text
            for fact in ("Model", "ms)", "Real-time factor"):
                self.assertIn(fact, facts)

    def test_without_gains_the_mix_is_the_original(self):
        for index, scene in enumerate(self.scenes()):
            self.reset(scene)
            worst = self.driver.execute_script("""
              const {mixer} = players[arguments[0]];
              const unity = Object.fromEntries([...mixer.parts, "Mix"].map((name) => [name, 1]));
              const mix = mixer.mixed(unity), original = mixer.buffers.Original.getChannelData(0);
              return mix.reduce((worst, value, i) => Math.max(worst, Math.abs(value - original[i])), 0);
            """, index)
            self.assertLess(worst, 1e-3)
            levels = self.levels(index)
            self.assertGreater(levels["Mix"], -50, "nothing is played")
            self.assertAlmostEqual(levels["Mix"], levels["Original"], delta=0.5)

    def test_sliders_change_what_is_played(self):
        for index, scene in enumerate(self.scenes()):
            tracks = self.tracks(scene)
            parts = [name for name in tracks if name not in ("Original", "Mix")]
            for part in parts:
                self.reset(scene)
                before = self.loudest(index, part)
                if before < -80:  # this part is silent
                    continue
                self.set_slider(tracks[part], -40)  # the moments measured differ, so the tolerance is wide
                self.assertAlmostEqual(self.loudest(index, part), before - 40, delta=12, msg=part)
                for other in parts:
                    self.set_slider(tracks[other], 0 if other == part else -60)
                levels = self.levels(index)
                self.assertAlmostEqual(levels["Mix"], levels[part], delta=0.5, msg=part + " alone")
                self.set_slider(tracks["Mix"], -6)
                levels = self.levels(index)
                self.assertAlmostEqual(levels["Mix"], levels[part] - 6, delta=0.5, msg=part)
            for name in [*parts, "Mix"]:
                self.set_slider(tracks[name], -60)
            self.assertLess(self.levels(index)["Mix"], -100, "all off, and still there is sound")
            self.reset(scene)

    def test_keyboard_and_names(self):
        scene = self.scenes()[0]
        self.reset(scene)
        play = scene.find_element(By.CSS_SELECTOR, "button.play")
        play.send_keys(Keys.SPACE)
        self.assertEqual(play.text, "Pause")
        play.send_keys(Keys.SPACE)
        self.assertEqual(play.text, "Play")
        for slider in scene.find_elements(By.CSS_SELECTOR, ".gain input"):
            slider.send_keys(Keys.ARROW_LEFT)
            self.assertEqual(slider.get_attribute("aria-valuetext"), "-1 dB")
            self.assertRegex(slider.accessible_name, "^(Gain of .+|Master gain)")
        for picture in scene.find_elements(By.TAG_NAME, "canvas"):
            self.assertTrue(picture.accessible_name.startswith("Spectrogram of"))
        self.reset(scene)

    def test_pictures_follow_the_sliders(self):
        scene = self.scenes()[1]
        mix = self.tracks(scene)["Mix"]
        brightness = """
          const canvas = arguments[0].querySelector("canvas");
          const data = canvas.getContext("2d").getImageData(40, 0, canvas.width - 40, canvas.height - 20).data;
          return data.reduce((sum, value, i) => sum + (i % 4 === 3 ? 0 : value), 0) / data.length;
        """
        before = self.driver.execute_script(brightness, mix)
        self.set_slider(mix, -40)
        mix.find_element(By.CSS_SELECTOR, ".gain input").send_keys(Keys.ARROW_LEFT)
        self.assertLess(self.driver.execute_script(brightness, mix), 0.7 * before)
        self.reset(scene)


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    PAGE = pathlib.Path(sys.argv[1]).resolve()
    if not unittest.main(argv=sys.argv[:1], exit=False).result.wasSuccessful():
        sys.exit(1)
    if len(sys.argv) == 3:
        driver = browser()
        time.sleep(1)
        driver.save_screenshot(sys.argv[2])
        driver.quit()
