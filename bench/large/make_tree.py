#!/usr/bin/python3
"""Makes a deterministic home-like tree of about 200,000 entries for the large-file benchmark.

Usage: make_tree.py DIR [ENTRIES]. Files of 1 MiB and more are sparse, so the tree costs little
disk; their sizes are what a listing reports all the same.
"""
import os
import random
import sys


def main():
    root = sys.argv[1]
    entries = int(sys.argv[2]) if len(sys.argv) > 2 else 200_000
    marker = os.path.join(root, ".complete-%d" % entries)
    if os.path.exists(marker):
        return
    rng = random.Random(20261122)
    made = 0
    folder_index = 0
    while made < entries:
        depth = rng.randint(1, 6)
        parts = ["d%d" % rng.randint(0, 40) for _ in range(depth)]
        folder = os.path.join(root, *parts, "f%d" % folder_index)
        folder_index += 1
        os.makedirs(folder, exist_ok=True)
        made += 1
        for i in range(rng.randint(20, 200)):
            path = os.path.join(folder, "file%d.dat" % i)
            roll = rng.random()
            with open(path, "wb") as f:
                if roll < 0.01:
                    f.truncate(rng.randint(1 << 20, 512 << 20))  # large, sparse
                elif roll < 0.02:
                    f.truncate((1 << 20) - rng.randint(0, 1))  # at the boundary
                else:
                    f.write(b"x" * rng.randint(0, 4096))
            made += 1
            if made >= entries:
                break
    open(marker, "w").close()


if __name__ == "__main__":
    main()
