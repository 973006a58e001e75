"""The web application's figures; see bench/web/run."""

import os
import shutil
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../../web/tests"))
os.environ.setdefault("RAVELIN_BINARY", os.path.join(os.path.dirname(__file__),
                                                     "../../build/default/cli/ravelin"))

from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402

from browser import chromium  # noqa: E402
from server import Server  # noqa: E402


def make_groups(home, name, groups):
    """`groups` pairs of small files, each pair's bytes its own."""
    folder = os.path.join(home, name)
    for copy in ("a", "b"):
        for i in range(groups):
            sub = os.path.join(folder, copy, str(i // 1000))
            os.makedirs(sub, exist_ok=True)
            with open(os.path.join(sub, f"{i}.txt"), "w") as out:
                out.write(f"contents of file {i}\n" * 4)
    # A unique file in each copy keeps the two folders from being one folder group.
    for copy in ("a", "b"):
        with open(os.path.join(folder, copy, "unique"), "w") as out:
            out.write(copy)
    return folder


def make_tree(home, name, entries):
    """`entries` files, a thousand to a folder, in folders two deep, some of them large."""
    folder = os.path.join(home, name)
    for i in range(entries):
        sub = os.path.join(folder, f"part{i // 20000}", f"box{i // 1000}")
        if i % 1000 == 0:
            os.makedirs(sub, exist_ok=True)
        with open(os.path.join(sub, f"{i}.dat"), "wb") as out:
            out.write(b"x" * (200_000 if i % 5000 == 0 else 100))
    return folder


def show_treemap(driver, server):
    """Seconds from Measure to the treemap's tiles shown, for the home folder."""
    driver.get(server.origin + "/#/space")
    WebDriverWait(driver, 30).until(lambda d: d.find_element(By.ID, "start-space"))
    start = time.monotonic()
    driver.find_element(By.ID, "start-space").click()
    WebDriverWait(driver, 600).until(lambda d: d.find_elements(By.CSS_SELECTOR, "#treemap .tile"))
    return time.monotonic() - start


def first_visit_bytes(driver):
    return driver.execute_script(
        "return performance.getEntriesByType('navigation').concat(performance.getEntriesByType('resource'))"
        ".reduce((sum, e) => sum + (e.transferSize || e.encodedBodySize || 0), 0)")


def show_result(driver, server, folder):
    """Seconds from Search to the first page of groups shown, and the scan's own seconds."""
    driver.get(server.origin + "/#/dupes")
    WebDriverWait(driver, 30).until(lambda d: d.find_element(By.ID, "root-input"))
    driver.find_element(By.ID, "root-input").send_keys(folder)
    driver.find_element(By.ID, "root-add").click()
    start = time.monotonic()
    driver.find_element(By.ID, "start-scan").click()
    WebDriverWait(driver, 600).until(lambda d: d.find_elements(By.CSS_SELECTOR, "#result .group"))
    total = time.monotonic() - start
    # The page's own share: the result's request, parse, sort and first page drawn.
    shown = driver.execute_script("""
        const t0 = performance.now();
        document.querySelector('#keep-rule').dispatchEvent(new Event('change'));
        return performance.now() - t0;""")
    return total, shown / 1000


def main(work):
    shutil.rmtree(work, ignore_errors=True)
    root = os.path.join(work, "root")
    home = os.path.join(root, "home", "bench")
    os.makedirs(home)
    ten = make_groups(home, "ten-thousand", 10_000)
    hundred = make_groups(home, "hundred-thousand", 100_000)
    treemap_root = os.path.join(work, "treemap-root")
    treemap_home = os.path.join(treemap_root, "home", "bench")
    make_tree(treemap_home, "tree", 200_000)
    server = Server(root, home)
    driver = chromium()
    try:
        time.sleep(1)
        idle = server.resident_kb()
        driver.get(server.address)
        WebDriverWait(driver, 30).until(
            lambda d: d.execute_script("return performance.getEntriesByName('first-contentful-paint').length"))
        paint = driver.execute_script(
            "return performance.getEntriesByName('first-contentful-paint')[0].startTime")
        WebDriverWait(driver, 30).until(
            lambda d: d.find_elements(By.CSS_SELECTOR, "#cpu-chart canvas"))
        weight = first_visit_bytes(driver)
        print(f"overview first contentful paint   {paint:.0f} ms")
        print(f"bytes of a first visit            {weight / 1000:.1f} kB")
        print(f"server resident, idle             {idle / 1024:.1f} MB")
        for name, folder in (("10,000", ten), ("100,000", hundred)):
            total, redraw = show_result(driver, server, folder)
            print(f"{name} groups: search to first page {total:.2f} s, "
                  f"page redrawn by a keep rule in {redraw * 1000:.0f} ms, "
                  f"server resident after {server.resident_kb() / 1024:.1f} MB")
    finally:
        driver.quit()
        server.stop()
    # The treemap of a home folder of 200,000 entries, in a server of its own.
    server = Server(treemap_root, treemap_home)
    driver = chromium()
    try:
        driver.get(server.address)
        seconds = show_treemap(driver, server)
        print(f"treemap of a home of 200,000 entries: Measure to tiles {seconds:.2f} s")
    finally:
        driver.quit()
        server.stop()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main(sys.argv[1])
