#!/usr/bin/python3
"""The duplicate benchmark behind bench/dupes/run."""
import collections
import hashlib
import json
import os
import statistics
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(__file__))
from measure import measure  # noqa: E402

RAVELIN = "build/default/cli/ravelin"
HERE = os.path.dirname(__file__)
BLOCK = 4096
LATER = 4096 * 1000

# Corpus: (runs for the median, whether file groups can be compared, whether rchar is compared
# with jdupes -Q: not where hard links make tools skip or repeat reads).
CORPORA = {
    "small": (9, True, True),
    "large": (3, True, True),
    "mixed": (3, False, False),
    "million": (1, False, False),
    "copied": (1, False, False),
}
# A tool that takes longer than this on one run is shown as timed out (fdupes compares a
# quarter of a million empty files with each other one by one).
TIMEOUT = 300


CPUS = os.cpu_count() or 1


def tools(root):
    return [
        ("ravelin", [RAVELIN, "dupes", "--json", "--hidden", root]),
        ("ravelin -j1", [RAVELIN, "dupes", "--json", "--hidden", "--jobs", "1", root]),
    ] + ([("ravelin -j2", [RAVELIN, "dupes", "--json", "--hidden", "--jobs", "2", root])]
         if CPUS > 2 else []) + [
        ("fdupes", ["fdupes", "-r", "-H", "-q", root]),
        ("jdupes", ["jdupes", "-r", "-H", "-z", "-q", root]),
        ("jdupes -Q", ["jdupes", "-r", "-H", "-z", "-q", "-Q", root]),
        ("rmlint", ["rmlint", "-T", "df", "--size", "0", "-r", "-F", "-o", "json:stdout", root]),
    ]


# What each tool reads apart from the corpus (the dynamic loader's reads of its libraries,
# locale files, the processor count): measured on an empty folder with the same options and
# taken off its rchar, so that the bytes compared are the bytes of the corpus.
def startup_rchar(argv, root):
    with tempfile.TemporaryDirectory() as empty:
        args = [empty if a == root else a for a in argv]
        return min(measure(args)["rchar"] for _ in range(3))


def canonical(name, output):
    groups = []
    if name.startswith("ravelin"):
        for group in json.loads(output)["groups"]:
            groups.append(sorted(m["path"] for m in group if m["kind"] == "file"))
    elif name == "rmlint":
        by_digest = collections.defaultdict(list)
        for item in json.loads(output):
            if item.get("type") == "duplicate_file":
                by_digest[(item["size"], item["checksum"])].append(item["path"])
        groups = [sorted(g) for g in by_digest.values()]
    else:
        current = []
        for line in output.splitlines() + [""]:
            if line:
                current.append(line)
            elif current:
                groups.append(sorted(current))
                current = []
    return sorted(g for g in groups if len(g) > 1)


def staged_bytes(root):
    """Bytes a staged reader must read: every file of a size shared with another, stage by stage
    (one block, then 1000 blocks), until it is alone in its part or finished."""
    by_size = collections.defaultdict(list)
    for folder, _, names in os.walk(root):
        for name in names:
            path = os.path.join(folder, name)
            if os.path.islink(path):
                continue
            by_size[os.lstat(path).st_size].append(path)
    total = 0
    for size, paths in by_size.items():
        if len(paths) < 2 or size == 0:
            continue
        work = [[(p, hashlib.md5(), 0) for p in paths]]
        while work:
            group = work.pop()
            parts = collections.defaultdict(list)
            for path, digest, offset in group:
                want = BLOCK if offset == 0 else LATER
                with open(path, "rb") as f:
                    f.seek(offset)
                    data = f.read(min(want, size - offset))
                total += len(data)
                digest.update(data)
                offset += len(data)
                if offset < size:
                    parts[digest.copy().digest()].append((path, digest, offset))
            work.extend(p for p in parts.values() if len(p) > 1)
    return total


def md5_speed():
    out = subprocess.run(["openssl", "speed", "-seconds", "2", "md5"], capture_output=True,
                         text=True).stdout
    for line in out.splitlines():
        if line.startswith("md5 "):
            return float(line.split()[-1].rstrip("k")) * 1000  # bytes per second, 16 KiB blocks
    raise RuntimeError("no md5 line in openssl speed output")


def read_speed(root):
    """Bytes per second that reading a warm file in 4 MB reads costs one processor (dd does what
    the search does: read() into one buffer), on the largest file of the corpus."""
    largest = max((os.path.join(d, f) for d, _, fs in os.walk(root) for f in fs
                   if os.path.isfile(os.path.join(d, f)) and not os.path.islink(os.path.join(d, f))),
                  key=os.path.getsize, default=None)
    if largest is None or os.path.getsize(largest) < (64 << 20):
        return None  # too little to time; reading small files costs their opening instead
    best = None
    for _ in range(3):
        out = subprocess.run(["dd", "if=" + largest, "of=/dev/null", "bs=4M"],
                             capture_output=True, text=True).stderr
        seconds = float(out.strip().splitlines()[-1].split(",")[-2].split()[0])
        rate = os.path.getsize(largest) / seconds
        best = rate if best is None else max(best, rate)
    return best


def phases(root):
    """The figures of each phase of one search, as ravelin gives them with RAVELIN_PHASES."""
    result = subprocess.run([RAVELIN, "dupes", "--json", "--hidden", root], capture_output=True,
                            text=True, env=dict(os.environ, RAVELIN_PHASES="1"))
    for line in result.stderr.splitlines():
        if line.startswith("phase "):
            print("   " + line)


def main():
    base = sys.argv[1]
    wanted = sys.argv[2:] or list(CORPORA)
    speed = md5_speed()
    print(f"MD5 throughput of this machine: {speed / 1e6:.0f} MB/s (openssl speed, 16 KiB blocks)")
    print("Bytes read are rchar less each tool's own start-up reads; times are medians, warm cache.")
    ok = True
    failures = []
    for corpus in wanted:
        runs, compare_groups, compare_bytes = CORPORA[corpus]
        root = os.path.join(base, corpus)
        subprocess.run([sys.executable, os.path.join(HERE, "make_corpus.py"), corpus, root], check=True)
        entries = sum(len(d) + len(f) for _, d, f in os.walk(root))
        print(f"\n== {corpus}: {entries} entries")

        # The groups, their order and their members' order are the same on one thread and on all.
        outputs = {}
        for name, argv in tools(root):
            if name.startswith("ravelin"):
                result = subprocess.run(argv, capture_output=True, text=True, errors="replace")
                outputs[name] = [[m["path"] for m in g] for g in json.loads(result.stdout)["groups"]]
        same = all(groups == outputs["ravelin"] for groups in outputs.values())
        print(f"   groups and their order with --jobs 1 and with {CPUS} workers: "
              f"{'identical' if same else 'DIFFERENT'}")
        if not same:
            ok = False
            failures.append(f"{corpus}: order with --jobs")

        if compare_groups:
            reference = None
            for name, argv in tools(root):
                out = subprocess.run(argv, capture_output=True, text=True, errors="replace").stdout
                groups = canonical(name, out)
                if reference is None:
                    reference = groups
                    print(f"   ravelin: {len(groups)} file groups")
                elif groups != reference:
                    ours, theirs = set(map(tuple, reference)), set(map(tuple, groups))
                    print(f"   {name} differs: {len(theirs - ours)} groups only there, "
                          f"{len(ours - theirs)} only in ravelin; e.g. "
                          f"{sorted(theirs ^ ours)[:1]}")
                else:
                    print(f"   {name}: same groups")

        # Runs are interleaved, one of each tool in turn, so that a slow spell of the machine
        # weighs on all tools alike.
        samples = collections.defaultdict(list)
        timed_out = set()
        for name, argv in tools(root):
            try:  # warm the cache
                subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               timeout=TIMEOUT)
            except subprocess.TimeoutExpired:
                timed_out.add(name)
        for _ in range(runs):
            for name, argv in tools(root):
                if name not in timed_out:
                    samples[name].append(measure(argv))
        results = {}
        for name, argv in tools(root):
            if name in timed_out:
                print(f"   {name}: more than {TIMEOUT} s, left out")
                continue
            median = statistics.median(s["seconds"] for s in samples[name])
            last = samples[name][-1]
            results[name] = dict(last, seconds=median, rchar=last["rchar"] - startup_rchar(argv, root))

        ours = results["ravelin"]
        single = results["ravelin -j1"]
        print(f"   {'tool':12} {'time s':>8} {'rchar MB':>9} {'read MB':>8} {'RSS MB':>7} "
              f"{'ours/tool':>9} {'-j1/tool':>9}")
        for name, r in results.items():
            print(f"   {name:12} {r['seconds']:8.2f} {r['rchar'] / 1e6:9.1f} "
                  f"{r['read_bytes'] / 1e6:8.1f} {r['max_rss_kib'] / 1024:7.1f} "
                  f"{ours['seconds'] / r['seconds']:8.2f}x {single['seconds'] / r['seconds']:8.2f}x")
        scaling = [("1", single)] + ([("2", results["ravelin -j2"])] if CPUS > 2 else [])
        scaling.append((str(CPUS), ours))
        print("   scaling: " + ", ".join(f"{n} worker{'s' if n != '1' else ''} {r['seconds']:.2f} s"
                                      for n, r in scaling))

        needed = staged_bytes(root)
        reading = read_speed(root)
        per_byte = 1 / speed + (1 / reading if reading else 0)
        limit = needed * per_byte / CPUS
        how = f"MD5 ({speed / 1e6:.0f} MB/s)" + (
            f" and reading ({reading / 1e9:.1f} GB/s, warm)" if reading else "")
        print(f"   limit: {needed / 1e6:.1f} MB must be read; at the cost of {how} on {CPUS} "
              f"processors {limit:.2f} s; ravelin {ours['seconds'] / max(limit, 1e-9):.2f}x of that")

        def target(label, value, bound):
            nonlocal ok
            met = value <= bound
            ok &= met
            print(f"   target {label}: {value:.3f} (at most {bound}) {'met' if met else 'MISSED'}")
            if not met:
                failures.append(f"{corpus}: {label}")

        if compare_bytes:
            target("rchar / jdupes -Q", ours["rchar"] / results["jdupes -Q"]["rchar"], 1.0)
            target("rchar / fdupes", ours["rchar"] / results["fdupes"]["rchar"], 0.6)
            target("rchar / jdupes", ours["rchar"] / results["jdupes"]["rchar"], 0.6)
        if corpus == "small":
            fastest = min(r["seconds"] for n, r in results.items() if not n.startswith("ravelin"))
            target("time / fastest peer", ours["seconds"] / fastest, 1.0)
        if corpus == "large":
            target("time / limit", ours["seconds"] / limit, 1.1)
        if corpus in ("million", "copied"):
            target("peak bytes per entry / 150", ours["max_rss_kib"] * 1024 / entries / 150, 1.0)
            phases(root)
        if corpus == "copied" and "jdupes -Q" in results:
            target("time / jdupes -Q", ours["seconds"] / results["jdupes -Q"]["seconds"], 1.0)
    print("\nall targets met" if ok else "\ntargets missed: " + "; ".join(failures))
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
