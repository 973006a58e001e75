"""The web application in a real browser, against `ravelin serve --root FIXTURE`."""

import json
import os
import subprocess
import unittest

from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support import expected_conditions as seen
from selenium.webdriver.support.ui import Select, WebDriverWait

from browser import chromium
from server import BINARY, Server, make_fixture, remove_fixture

# Where the screenshots go: the README shows the ones under doc/.
SHOTS = os.environ.get("RAVELIN_SCREENSHOTS")


class BrowserTest(unittest.TestCase):
    def setUp(self):
        self.root, self.home = make_fixture()
        self.server = Server(self.root, self.home)
        self.driver = chromium()
        self.addCleanup(remove_fixture, self.root)
        self.addCleanup(self.stop)
        # The printed address: its token becomes the page's cookie.
        self.driver.get(self.server.address)

    def stop(self):
        self.driver.quit()
        self.assertEqual(self.server.stop(), 0)

    def wait(self, condition, timeout=60):
        # Pages draw themselves again on each change: an element may go between two looks.
        return WebDriverWait(self.driver, timeout, ignored_exceptions=(StaleElementReferenceException,)).until(condition)

    def shoot(self, name, height=None):
        if SHOTS:
            if height:
                self.driver.set_window_size(1280, height)
            os.makedirs(SHOTS, exist_ok=True)
            self.driver.save_screenshot(os.path.join(SHOTS, name))

    def console_errors(self):
        return [entry for entry in self.driver.get_log("browser") if entry["level"] == "SEVERE"]

    def cli_groups(self):
        out = subprocess.run([BINARY, "--root", self.root, "dupes", "--json"], check=True,
                             capture_output=True, text=True,
                             env=dict(os.environ, HOME="/" + os.path.relpath(self.home, self.root)))
        return {tuple(sorted(m["path"] for m in g)) for g in json.loads(out.stdout)["groups"]}

    def page_groups(self):
        groups = set()
        for group in self.driver.find_elements(By.CSS_SELECTOR, "#result .group"):
            groups.add(tuple(sorted(e.text for e in group.find_elements(By.CSS_SELECTOR, ".path"))))
        return groups

    def search(self):
        self.driver.get(self.server.origin + "/#/dupes")
        self.wait(seen.element_to_be_clickable((By.ID, "start-scan"))).click()
        self.wait(seen.presence_of_element_located((By.ID, "result")))

    def test_overview_loads_cleanly_and_its_charts_move(self):
        self.assertEqual(self.driver.current_url, self.server.origin + "/")
        main = self.driver.find_element(By.ID, "main")
        # Each snapshot from the server is drawn; two mean the charts moved.
        self.wait(lambda d: int(main.get_attribute("data-snapshots") or 0) >= 2, timeout=30)
        self.assertEqual(len(self.driver.find_elements(By.CSS_SELECTOR, "#cpu-chart canvas")), 1)
        legend = self.driver.find_element(By.CSS_SELECTOR, "#disk-bar + .legend").text
        self.assertIn("free of", legend)
        # The helper's status as `ravelin helper status` reads it: none answers here.
        self.wait(lambda d: "answer" in d.find_element(By.ID, "helper").text)
        self.assertIn("doesn't answer", self.driver.find_element(By.ID, "helper").text)
        self.shoot("web-overview.png")
        self.assertEqual(self.console_errors(), [])

    def test_duplicates_page_shows_what_the_command_line_reports(self):
        expected = self.cli_groups()
        self.assertEqual(len(expected), 4)
        self.search()
        self.assertEqual(self.page_groups(), expected)
        # Pictures have thumbnails the browser could decode.
        self.wait(lambda d: d.execute_script(
            "return [...document.querySelectorAll('img.thumb')].every(i => i.complete && i.naturalWidth > 0)"))
        self.assertEqual(len(self.driver.find_elements(By.CSS_SELECTOR, "img.thumb")), 5)
        self.shoot("web-duplicates.png", height=1500)
        self.assertEqual(self.console_errors(), [])

    def test_a_narrow_dark_window_worked_with_the_keyboard(self):
        self.driver.set_window_size(420, 1400)
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": "dark"}]})
        self.driver.get(self.server.origin + "/#/dupes")
        self.wait(seen.element_to_be_clickable((By.ID, "start-scan")))
        # Tab reaches the search button; Enter starts it.
        body = self.driver.find_element(By.TAG_NAME, "body")
        for _ in range(40):
            if self.driver.switch_to.active_element.get_attribute("id") == "start-scan":
                break
            body.send_keys(Keys.TAB) if _ == 0 else self.driver.switch_to.active_element.send_keys(Keys.TAB)
        self.assertEqual(self.driver.switch_to.active_element.get_attribute("id"), "start-scan")
        self.driver.switch_to.active_element.send_keys(Keys.ENTER)
        self.wait(seen.presence_of_element_located((By.ID, "result")))
        background = self.driver.execute_script("return getComputedStyle(document.body).backgroundColor")
        self.assertEqual(background, "rgb(22, 25, 28)")
        self.assertLessEqual(self.driver.execute_script("return document.documentElement.scrollWidth"),
                             self.driver.execute_script("return window.innerWidth"))
        self.shoot("web-narrow-dark.png")
        self.assertEqual(self.console_errors(), [])

    def open_page(self, name, start_button):
        self.driver.get(f"{self.server.origin}/#/{name}")
        self.wait(seen.element_to_be_clickable((By.ID, start_button))).click()

    def confirm(self):
        self.wait(seen.visibility_of_element_located((By.ID, "confirm")))
        self.driver.find_element(By.ID, "confirm-ok").click()
        return self.wait(seen.presence_of_element_located((By.ID, "outcome")))

    def test_junk_clean_empties_the_chosen_categories_and_keeps_the_rest(self):
        self.open_page("junk", "start-junk")
        self.wait(seen.presence_of_element_located((By.ID, "junk-result")))
        chosen = {"trash", "orphans", "logs"}
        # Each click draws the list again: every box is looked up afresh.
        categories = [e.get_attribute("data-category")
                      for e in self.driver.find_elements(By.CSS_SELECTOR, "details.category")]
        for category in categories:
            check = self.driver.find_element(By.ID, f"category-{category}")
            if check.is_enabled() and check.is_selected() != (category in chosen):
                check.click()
        for category in categories:  # open, for the screenshot
            self.driver.find_element(By.CSS_SELECTOR, f"details[data-category='{category}'] summary").click()
        self.shoot("web-junk.png", height=1400)
        self.driver.find_element(By.ID, "clean").click()
        outcome = self.confirm()
        self.assertIn("Trash: 1 of 1 cleaned", outcome.text)
        gone = [".local/share/Trash/files/old draft.txt", ".local/share/Trash/info/old draft.txt.trashinfo",
                ".cache/vlc"]
        for path in gone:
            self.assertFalse(os.path.lexists(os.path.join(self.home, path)), path)
        self.assertFalse(os.path.exists(os.path.join(self.root, "var/log/syslog.2.gz")))
        # The categories left alone keep everything, the live log too.
        for path in [os.path.join(self.root, "var/cache/fontconfig/0a1b.cache-8"),
                     os.path.join(self.root, "var/log/syslog"),
                     os.path.join(self.home, ".cache/gnome-text-editor/state")]:
            self.assertTrue(os.path.exists(path), path)
        self.assertEqual(self.console_errors(), [])

    def test_a_leftover_is_deleted_from_the_page(self):
        self.open_page("leftovers", "start-leftovers")
        group = self.wait(seen.presence_of_element_located((By.CSS_SELECTOR, "details[data-group='vlc']")))
        group.find_element(By.TAG_NAME, "summary").click()
        self.shoot("web-leftovers.png")
        group.find_element(By.CSS_SELECTOR, "summary input").click()
        self.driver.find_element(By.ID, "delete-chosen").click()
        outcome = self.confirm()
        self.assertIn("2 deleted", outcome.text)
        self.assertFalse(os.path.exists(os.path.join(self.home, ".config/vlc")))
        self.assertFalse(os.path.exists(os.path.join(self.home, ".cache/vlc")))
        self.assertTrue(os.path.exists(os.path.join(self.home, ".cache/gnome-text-editor/state")))
        self.assertEqual(self.console_errors(), [])

    def test_the_treemap_goes_two_levels_down_and_back(self):
        self.driver.get(f"{self.server.origin}/#/space")
        size = self.wait(seen.presence_of_element_located((By.ID, "space-min")))
        size.clear()
        size.send_keys("1M")
        self.driver.find_element(By.ID, "start-space").click()

        def tile(name):
            return self.wait(seen.element_to_be_clickable((By.CSS_SELECTOR, f"#treemap .tile.folder[data-name='{name}']")))

        tile("Videos")
        self.shoot("web-space.png", height=1200)
        tile("Videos").click()
        tile("2024").click()
        self.wait(lambda d: d.find_elements(By.CSS_SELECTOR, "#treemap .tile[data-name='clip.mkv']"))
        steps = [b.text for b in self.driver.find_elements(By.CSS_SELECTOR, ".pathbar button")]
        self.assertEqual(steps[1:], ["Videos", "2024"])
        self.driver.find_elements(By.CSS_SELECTOR, ".pathbar button")[0].click()
        tile("Videos")
        # The largest files, largest first, as the command line lists them.
        paths = [e.text for e in self.driver.find_elements(By.CSS_SELECTOR, "table.files td.path")]
        self.assertEqual([os.path.relpath(p, self.home) for p in paths],
                         ["Videos/holiday.mkv", "Videos/2024/clip.mkv", "Downloads/installer.tar",
                          "Projects/site/build.tar", "Videos/2024/raw/take1.mkv"])
        self.assertEqual(self.console_errors(), [])

    def test_a_startup_switch_reads_its_state_back(self):
        self.driver.get(f"{self.server.origin}/#/startup")
        switch = self.wait(seen.element_to_be_clickable((By.CSS_SELECTOR, "tr[data-item='sync'] input[role='switch']")))
        self.assertTrue(switch.is_selected())
        self.shoot("web-startup.png")
        switch.click()
        self.wait(lambda d: "disabled" in d.find_element(By.CSS_SELECTOR, "tr[data-item='sync'] td.state").text)
        with open(os.path.join(self.home, ".config/autostart/sync.desktop")) as entry:
            self.assertIn("Hidden=true", entry.read())
        # Listed afresh, it is off.
        self.driver.find_element(By.ID, "start-startup").click()
        self.wait(lambda d: not d.find_element(By.CSS_SELECTOR, "tr[data-item='sync'] input[role='switch']").is_selected())
        self.assertEqual(self.console_errors(), [])

    def test_applications_show_their_files(self):
        self.open_page("apps", "start-apps")
        group = self.wait(seen.presence_of_element_located((By.CSS_SELECTOR, "details[data-group='org.gnome.TextEditor']")))
        group.find_element(By.TAG_NAME, "summary").click()
        self.assertIn("Text Editor", group.text)
        # Its icon, found in the root's hicolor theme and decoded by the browser.
        self.wait(lambda d: d.execute_script(
            "const i = document.querySelector('img.app-icon'); return i && i.complete && i.naturalWidth > 0"))
        self.assertIn(os.path.join(self.home, ".cache/gnome-text-editor"), group.text)
        self.shoot("web-apps.png")
        self.assertEqual(self.console_errors(), [])

    def test_the_rules_page_shows_where_an_identifier_is_served(self):
        self.driver.get(f"{self.server.origin}/#/rules")
        self.wait(seen.presence_of_element_located((By.ID, "rules-result")))
        self.driver.find_element(By.ID, "rules-for").send_keys("org.videolan.vlc")
        self.driver.find_element(By.ID, "show-rules").click()
        result = self.wait(lambda d: "What serves org.videolan.vlc" in d.find_element(By.ID, "rules-result").text
                           and d.find_element(By.ID, "rules-result"))
        self.assertIn(os.path.join(self.home, ".cache"), result.text)
        self.shoot("web-rules.png")
        self.assertEqual(self.console_errors(), [])

    def files(self):
        return {os.path.join(d, f) for d, _, names in os.walk(self.home) for f in names}

    def test_deleting_from_the_page_removes_exactly_the_chosen_files(self):
        groups, before = self.cli_groups(), self.files()
        self.search()
        # Keep the shortest path of each group, then spare one more copy of the beach picture.
        Select(self.driver.find_element(By.ID, "keep-rule")).select_by_value("shortest-path")
        spared = os.path.join(self.home, "Pictures/backup/beach.png")
        box = self.driver.find_element(By.CSS_SELECTOR, f"input[aria-label='Delete {spared}']")
        self.assertTrue(box.is_selected())
        box.click()
        # A kept member can't be chosen at all.
        kept = self.driver.find_elements(By.CSS_SELECTOR, ".member.kept input")
        self.assertEqual(len(kept), 4)
        self.assertTrue(all(not k.is_enabled() for k in kept))
        chosen = {e.get_attribute("aria-label")[len("Delete "):]
                  for e in self.driver.find_elements(By.CSS_SELECTOR, ".member input:checked")}
        self.driver.find_element(By.ID, "delete-chosen").click()
        dialog = self.wait(seen.visibility_of_element_located((By.ID, "confirm")))
        self.assertIn(f"Delete {len(chosen)} files?", dialog.text)
        self.shoot("web-confirm.png")
        self.driver.find_element(By.ID, "confirm-ok").click()
        outcome = self.wait(seen.presence_of_element_located((By.ID, "outcome")))
        self.assertIn(f"{len(chosen)} deleted", outcome.text)
        after = self.files()
        # A chosen folder goes with all it holds.
        self.assertEqual(before - after, {f for f in before if any(
            f == c or f.startswith(c + "/") for c in chosen)})
        for group in groups:
            self.assertTrue(any(os.path.exists(m) for m in group), f"no member of {group} is left")
        self.assertIn(spared, after)
        self.assertEqual(self.console_errors(), [])


if __name__ == "__main__":
    unittest.main()
