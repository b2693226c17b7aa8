"""Chromium without a window, driven by Selenium."""

from selenium import webdriver
from selenium.webdriver.chrome.service import Service


def open_browser():
    """A browser that plays without being clicked. Use it in a with statement, which closes it."""
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
                     "--autoplay-policy=no-user-gesture-required", "--mute-audio", "--hide-scrollbars"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    browser.set_script_timeout(300)
    return browser
