#!/usr/bin/python3
"""Times `ravelin delete --yes` and `rm -rf` on fresh copies of a 200,000-entry tree."""
import os
import shutil
import statistics
import subprocess
import sys
import time

RAVELIN = os.path.abspath(os.environ.get("RAVELIN", "build/default/cli/ravelin"))
RUNS = 3


def make_template(path, entries=200_000):
    marker = os.path.join(path, ".complete")
    if os.path.exists(marker):
        return
    shutil.rmtree(path, ignore_errors=True)
    made = 0
    folder = 0
    while made < entries:
        d = os.path.join(path, "d%d" % (folder // 50), "e%d" % folder)
        os.makedirs(d, exist_ok=True)
        made += 1
        for i in range(199):
            with open(os.path.join(d, "f%d" % i), "wb") as f:
                f.write(b"x" * (i % 13))
            made += 1
        folder += 1
    open(marker, "w").close()


def measure(command, template, work):
    times, memories = [], []
    for _ in range(RUNS):
        subprocess.run(["cp", "-a", template, work], check=True)
        start = time.perf_counter()
        out = subprocess.run(["/usr/bin/time", "-f", "%M"] + command + [work], check=True,
                             capture_output=True, text=True, stdin=subprocess.DEVNULL)
        times.append(time.perf_counter() - start)
        memories.append(int(out.stderr.strip().splitlines()[-1]))
        if os.path.exists(work):
            sys.exit("%s left %s behind" % (command[0], work))
    return statistics.median(times), statistics.median(memories)


def main():
    base = sys.argv[1]
    template = os.path.join(base, "ravelin-bench-delete-template")
    work = os.path.join(base, "ravelin-bench-delete-work")
    make_template(template)
    entries = int(subprocess.run("find %s | wc -l" % template, shell=True, check=True,
                                 capture_output=True, text=True).stdout)
    # /dev/shm lies below /dev, which ravelin deletes in only when told it is meant.
    system = ["--system"] if os.path.realpath(base).startswith("/dev/") else []
    ours = measure([RAVELIN, "delete", "--yes", "--json"] + system, template, work)
    theirs = measure(["rm", "-rf"], template, work)
    print("tree: %s, %d entries (median of %d runs)" % (template, entries, RUNS))
    print("%-26s %9s %12s" % ("command", "time", "peak memory"))
    print("%-26s %8.2fs %9d KB" % ("ravelin delete --yes", ours[0], ours[1]))
    print("%-26s %8.2fs %9d KB" % ("rm -rf", theirs[0], theirs[1]))
    print("ratio                      %8.2fx" % (ours[0] / theirs[0]))


if __name__ == "__main__":
    main()
