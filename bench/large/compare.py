#!/usr/bin/python3
import json
import os
import statistics
import subprocess
import sys
import time

RAVELIN = "build/default/cli/ravelin"
RUNS = 7


def run(cmd, shell=False):
    return subprocess.run(cmd, shell=shell, check=True, capture_output=True, text=True).stdout


def median_time(cmd, shell=False):
    run(cmd, shell)  # warm the cache
    times = []
    for _ in range(RUNS):
        start = time.perf_counter()
        run(cmd, shell)
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def make_comb(root, levels=10_000):
    """A chain of `levels` folders, each also holding an empty sibling folder: paths far beyond
    PATH_MAX, and a walk that must come back up through every level."""
    marker = root + ".complete"
    if os.path.exists(marker):
        return
    if os.path.exists(root):
        subprocess.run(["rm", "-rf", root], check=True)
    os.makedirs(root)
    fd = os.open(root, os.O_RDONLY)
    for _ in range(levels):
        os.mkdir("sibling", dir_fd=fd)
        os.mkdir("d", dir_fd=fd)
        nxt = os.open("d", os.O_RDONLY, dir_fd=fd)
        os.close(fd)
        fd = nxt
    os.close(fd)
    open(marker, "w").close()


def main():
    tree = sys.argv[1]
    comb = tree.rstrip("/") + "-comb"
    make_comb(comb)
    subprocess.run([sys.executable, os.path.join(os.path.dirname(__file__), "make_tree.py"), tree],
                   check=True)
    entries = int(run(f"find {tree} | wc -l", shell=True))
    ok = True

    # Agreement first.
    ours = json.loads(run([RAVELIN, "large", "--min-size", "1M", "--json", tree]))["files"]
    found = run(f"find {tree} -xdev -type f -size +1048575c -printf '%s %p\\n' | sort -rn", shell=True)
    theirs = sorted((int(s), p) for s, p in (l.split(" ", 1) for l in found.splitlines()))
    same_files = sorted((f["size"], f["path"]) for f in ours) == theirs
    ordered = all(ours[i]["size"] >= ours[i + 1]["size"] for i in range(len(ours) - 1))
    size = json.loads(run([RAVELIN, "disk", "--json", "--size", tree]))
    summed = sum(int(x) for x in run(["find", tree, "-type", "f", "-printf", "%s\\n"]).split())
    df = run(["df", "-B1", "--output=size,avail", "/"]).split()[2:]
    print(f"tree: {tree}, {entries} entries")
    print(f"large --min-size 1M: {len(ours)} files, same as find: {same_files}, largest first: {ordered}")
    print(f"disk --size: {size['size']} bytes, find adds up {summed}: {size['size'] == summed}")
    print(f"disk: total {size['total']} free {size['free']}; df -B1: {df[0]} {df[1]}: "
          f"{[str(size['total']), str(size['free'])] == df}")
    ok &= same_files and ordered and size["size"] == summed

    # Target ratio per row: the home-like tree must beat its peer; the comb tree, where any
    # reopening from the root would be quadratic, must stay within twice find's time.
    rows = [
        ("large --min-size 1M", [RAVELIN, "large", "--min-size", "1M", "--json", tree], False,
         f"find {tree} -type f -size +1M -printf '%s %p\\n' | sort -rn", True, "find | sort", 1.0),
        ("disk --size", [RAVELIN, "disk", "--json", "--size", tree], False,
         ["du", "-sb", tree], False, "du -sb", 1.0),
        ("comb large --min-size 1", [RAVELIN, "large", "--min-size", "1", "--json", comb], False,
         ["find", comb, "-type", "f", "-size", "+0"], False, "find -size +0", 2.0),
        ("comb disk --size", [RAVELIN, "disk", "--json", "--size", comb], False,
         ["find", comb, "-type", "f", "-printf", "%s\\n"], False, "find -printf %s", 2.0),
    ]
    print()
    print(f"{'command':24} {'ravelin':>10} {'peer':>10} {'ratio':>7}  peer")
    for name, ours_cmd, ours_shell, peer_cmd, peer_shell, peer_name, target in rows:
        a = median_time(ours_cmd, ours_shell)
        b = median_time(peer_cmd, peer_shell)
        ratio = a / b
        ok &= ratio <= target
        print(f"{name:24} {a * 1000:8.1f}ms {b * 1000:8.1f}ms {ratio:6.2f}x  {peer_name}"
              f"{'' if ratio <= target else f'  (target {target}x missed)'}")
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
