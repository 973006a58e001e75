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


def main():
    tree = sys.argv[1]
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

    rows = [
        ("large --min-size 1M", [RAVELIN, "large", "--min-size", "1M", "--json", tree], False,
         f"find {tree} -type f -size +1M -printf '%s %p\\n' | sort -rn", True, "find | sort"),
        ("disk --size", [RAVELIN, "disk", "--json", "--size", tree], False,
         ["du", "-sb", tree], False, "du -sb"),
    ]
    print()
    print(f"{'command':22} {'ravelin':>10} {'peer':>10} {'ratio':>7}  peer")
    for name, ours_cmd, ours_shell, peer_cmd, peer_shell, peer_name in rows:
        a = median_time(ours_cmd, ours_shell)
        b = median_time(peer_cmd, peer_shell)
        ratio = a / b
        ok &= ratio <= 1.0
        print(f"{name:22} {a * 1000:8.1f}ms {b * 1000:8.1f}ms {ratio:6.2f}x  {peer_name}"
              f"{'' if ratio <= 1.0 else '  (target 1.0x missed)'}")
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
