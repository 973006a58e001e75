"""A headless Chromium driven by Selenium, for the web host's page tests."""

import os

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service


def chromium(width=1280, height=900):
    options = Options()
    options.binary_location = os.environ.get("CHROMIUM", "/usr/bin/chromium")
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     f"--window-size={width},{height}", "--force-color-profile=srgb",
                     "--hide-scrollbars", "--no-first-run", "--disable-extensions"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    service = Service(os.environ.get("CHROMEDRIVER", "/usr/bin/chromedriver"))
    return webdriver.Chrome(service=service, options=options)
