#!/usr/bin/python3
"""Opens every page of the documentation's site in a headless Chromium, and searches. usage: site_test.py SITE"""

import functools
import http.server
import pathlib
import sys
import threading

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait


class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *_):
        pass


def check(driver, site, address):
    for page in sorted(site.rglob("*.html")):
        if page.name == "404.html":
            continue
        driver.get(f"{address}/{page.relative_to(site)}")
        missing = driver.execute_script(
            "return [...document.images].filter(i => !i.complete || !i.naturalWidth).map(i => i.src)")
        assert not missing, f"{page}: pictures that are not shown: {missing}"
        assert driver.find_element(By.TAG_NAME, "h1").text, f"{page} has no title"
        wide = driver.execute_script("return document.documentElement.scrollWidth > innerWidth")
        assert not wide, f"{page} is wider than the window"
    said = [entry for entry in driver.get_log("browser") if entry["level"] == "SEVERE"]
    assert not said, said

    driver.get(address)
    driver.find_element(By.CSS_SELECTOR, "input.md-search__input").send_keys("lookahead")
    found = WebDriverWait(driver, 30).until(
        lambda d: [link.get_attribute("href") for link in d.find_elements(By.CSS_SELECTOR, "a.md-search-result__link")])
    assert any("model-contract" in link for link in found), found


def main(site):
    handler = functools.partial(Quiet, directory=site)
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--window-size=1280,1000"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        driver = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
        try:
            check(driver, site, f"http://127.0.0.1:{server.server_address[1]}")
            if len(sys.argv) > 2:
                driver.save_screenshot(sys.argv[2])
        finally:
            driver.quit()
            server.shutdown()
    print("every page opens with its pictures, and the search finds what it should")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]).resolve())
