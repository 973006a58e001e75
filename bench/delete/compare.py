#!/usr/bin/python3
"""Times `ravelin delete --yes` against `rm -rf` on fresh copies of a 200,000-entry tree, in each
folder given (a tmpfs and a disk), and `ravelin delete --yes --from0` against `xargs -0 rm` on
the list of the tree's files, in the first."""
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


def measure(command, template, work, listed=False):
    """Median time and peak memory of `command` on fresh copies of `template`: given the copy's
    path, or (`listed`) the NUL-separated list of its files on standard input."""
    times, memories = [], []
    for _ in range(RUNS):
        subprocess.run(["cp", "-a", template, work], check=True)
        arguments = command + ([] if listed else [work])
        stdin = subprocess.DEVNULL
        if listed:
            stdin = open(work + ".list", "w+b")
            subprocess.run(["find", work, "-type", "f", "-print0"], check=True, stdout=stdin)
            stdin.seek(0)
        start = time.perf_counter()
        out = subprocess.run(["/usr/bin/time", "-f", "%M"] + arguments, check=True,
                             capture_output=True, text=True, stdin=stdin)
        times.append(time.perf_counter() - start)
        memories.append(int(out.stderr.strip().splitlines()[-1]))
        if listed:
            stdin.close()
            os.unlink(work + ".list")
            left = subprocess.run(["find", work, "-type", "f"], check=True, capture_output=True)
            if left.stdout:
                sys.exit("%s left files in %s" % (command[0], work))
        if os.path.exists(work):
            shutil.rmtree(work) if listed else sys.exit("%s left %s behind" % (command[0], work))
    return statistics.median(times), statistics.median(memories)


def report(title, ours, theirs):
    print("%-34s %8.2fs %9d KB" % (title[0], ours[0], ours[1]))
    print("%-34s %8.2fs %9d KB" % (title[1], theirs[0], theirs[1]))
    print("%-34s %8.2fx" % ("ratio", ours[0] / theirs[0]))


def main():
    bases = sys.argv[1:] or ["/dev/shm"]
    print("%-34s %9s %12s" % ("command (median of %d runs)" % RUNS, "time", "peak memory"))
    for number, base in enumerate(bases):
        template = os.path.join(base, "ravelin-bench-delete-template")
        work = os.path.join(base, "ravelin-bench-delete-work")
        make_template(template)
        entries = int(subprocess.run("find %s | wc -l" % template, shell=True, check=True,
                                     capture_output=True, text=True).stdout)
        kind = subprocess.run(["stat", "-f", "-c", "%T", base], check=True, capture_output=True,
                              text=True).stdout.strip()
        # /dev/shm lies below /dev, which ravelin deletes in only when told it is meant.
        system = ["--system"] if os.path.realpath(base).startswith("/dev/") else []
        print("\ntree: %s (%s), %d entries" % (template, kind, entries))
        report(("ravelin delete --yes", "rm -rf"),
               measure([RAVELIN, "delete", "--yes", "--json"] + system, template, work),
               measure(["rm", "-rf"], template, work))
        if number == 0:
            files = int(subprocess.run("find %s -type f | wc -l" % template, shell=True,
                                       check=True, capture_output=True, text=True).stdout)
            print("\nlisted: the %d files of the tree above, NUL-separated" % files)
            report(("ravelin delete --yes --from0 -", "xargs -0 rm"),
                   measure([RAVELIN, "delete", "--yes", "--json", "--from0", "-"] + system,
                           template, work, listed=True),
                   measure(["xargs", "-0", "rm"], template, work, listed=True))


if __name__ == "__main__":
    main()
