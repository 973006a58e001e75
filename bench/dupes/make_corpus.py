#!/usr/bin/python3
"""Deterministic corpora for the duplicate benchmarks.

Usage: make_corpus.py KIND DIR, with KIND one of:
  small    50,000 files of 0.5-16 KiB in nested folders, about 20% of them copies, many equal
           sizes with different contents;
  large    a few dozen files of 1-256 MiB: copies, and same-size pairs that differ only in the
           first block, in the middle, or in the last byte;
  mixed    a home-like tree: source trees of tiny files, photos, archives, deep node_modules,
           empty files, symbolic links and hard links;
  million  1,000,000 entries, empty or tiny, for memory: nearly all of them inside five groups
           of identical folders, so that few members are reported;
  copied   1,000 folders of 500 small files and a copy of each, with a file of its own added
           to every folder (so that no two folders are alike): 1,004,002 entries, every file
           reported, as a photo folder and its backup are;
  issue    the small corpus plus four files of 64 MiB (two of them copies).
A corpus already complete in DIR is left as it is.
"""
import os
import random
import sys


def content(rng, size):
    chunk = 1 << 20
    if size <= chunk:
        return rng.randbytes(size)
    return b"".join(rng.randbytes(min(chunk, size - at)) for at in range(0, size, chunk))


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def small(root, rng, count=50_000):
    originals = []
    sizes = [rng.randint(512, 16 * 1024) for _ in range(400)]  # few sizes: many equal-size files
    for i in range(count):
        folder = os.path.join(root, "d%02d" % (i % 50), "e%02d" % (i // 50 % 20))
        path = os.path.join(folder, "f%05d.bin" % i)
        if originals and rng.random() < 0.2:
            data = rng.choice(originals)
        else:
            data = content(rng, rng.choice(sizes))
            if len(originals) < 2000:
                originals.append(data)
        write(path, data)


def large(root, rng):
    mib = 1 << 20
    sizes = [1, 2, 4, 8, 16, 32, 64, 128, 256]
    for n, size in enumerate(sizes):
        data = bytearray(content(rng, size * mib))
        write(os.path.join(root, "orig%d.bin" % n), data)
        write(os.path.join(root, "copy%d.bin" % n), data)
        if size in (4, 16, 64, 256):
            first = bytearray(data)
            first[0] ^= 1
            write(os.path.join(root, "first%d.bin" % n), first)
            middle = bytearray(data)
            middle[len(data) // 2] ^= 1
            write(os.path.join(root, "middle%d.bin" % n), middle)
            last = bytearray(data)
            last[-1] ^= 1
            write(os.path.join(root, "last%d.bin" % n), last)


def mixed(root, rng):
    shared = [content(rng, rng.randint(0, 3000)) for _ in range(300)]
    for project in range(20):
        base = os.path.join(root, "src", "project%d" % project)
        for i in range(300):
            write(os.path.join(base, "pkg%d" % (i % 15), "file%d.c" % i),
                  rng.choice(shared) if rng.random() < 0.3 else content(rng, rng.randint(0, 4000)))
        deep = os.path.join(base, "node_modules")
        for depth in range(12):
            deep = os.path.join(deep, "dep%d" % depth, "node_modules")
            write(os.path.join(deep, "index.js"), shared[depth])
            write(os.path.join(deep, "package.json"), b"{}")
    photos = [content(rng, rng.randint(200_000, 3_000_000)) for _ in range(60)]
    for i in range(150):
        write(os.path.join(root, "Pictures", "2024", "IMG_%04d.jpg" % i), photos[i % 60])
    archive = content(rng, 20 * (1 << 20))
    write(os.path.join(root, "Downloads", "backup.tar"), archive)
    write(os.path.join(root, "Documents", "backup copy.tar"), archive)
    for i in range(200):
        write(os.path.join(root, "empty", "e%d" % i), b"")
    for i in range(100):
        link = os.path.join(root, "links", "l%d" % i)
        os.makedirs(os.path.dirname(link), exist_ok=True)
        if not os.path.lexists(link):
            os.symlink("../src/project%d" % (i % 20), link)
    for i in range(50):
        target = os.path.join(root, "Pictures", "2024", "IMG_%04d.jpg" % i)
        hard = os.path.join(root, "hardlinks", "h%d.jpg" % i)
        os.makedirs(os.path.dirname(hard), exist_ok=True)
        if not os.path.exists(hard):
            os.link(target, hard)


def million(root, rng):
    for i in range(1_000_000):
        folder = os.path.join(root, "d%03d" % (i // 1000))
        if i % 1000 == 0:
            os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "f%06d" % i), "wb") as f:
            if i % 4:
                f.write(b"%d" % (i % 5000))


def copied(root, rng):
    for side in ("original", "copy"):
        for folder in range(1000):
            path = os.path.join(root, side, "d%03d" % folder)
            os.makedirs(path, exist_ok=True)
            for i in range(500):
                with open(os.path.join(path, "p%03d.jpg" % i), "wb") as f:
                    f.write(b"%d.%d" % (folder, i))
            with open(os.path.join(path, "own"), "wb") as f:
                f.write(b"%s %d" % (side.encode(), folder))


def issue(root, rng):
    small(os.path.join(root, "small"), rng)
    big = content(rng, 64 << 20)
    write(os.path.join(root, "big", "a.bin"), big)
    write(os.path.join(root, "big", "b.bin"), big)
    write(os.path.join(root, "big", "c.bin"), content(rng, 64 << 20))
    other = bytearray(big)
    other[-1] ^= 1
    write(os.path.join(root, "big", "d.bin"), other)


def main():
    kind, root = sys.argv[1], sys.argv[2]
    marker = os.path.join(root, ".complete")
    if os.path.exists(marker):
        return
    rng = random.Random(sum(map(ord, kind)))
    {"small": small, "large": large, "mixed": mixed, "million": million, "copied": copied,
     "issue": issue}[kind](root, rng)
    open(marker, "w").close()


if __name__ == "__main__":
    main()
