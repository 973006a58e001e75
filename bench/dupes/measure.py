#!/usr/bin/python3
"""Runs a command through runstat and gives its wall time, bytes read and peak memory.

Usage: measure.py COMMAND [ARGS...] prints one JSON object: {"seconds", "rchar", "read_bytes",
"max_rss_kib", "exit"}. runstat (a small C program, built on first use) takes the bytes from
/proc/PID/io after the command has exited, and the peak from the kernel's accounting.
"""
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
RUNSTAT = os.path.join(HERE, "..", "..", "build", "runstat")


def runstat():
    source = os.path.join(HERE, "runstat.c")
    if not os.path.exists(RUNSTAT) or os.path.getmtime(RUNSTAT) < os.path.getmtime(source):
        os.makedirs(os.path.dirname(RUNSTAT), exist_ok=True)
        subprocess.run(["cc", "-O2", "-o", RUNSTAT, source], check=True)
    return RUNSTAT


def measure(argv):
    out = subprocess.run([runstat()] + list(argv), capture_output=True, text=True, check=True)
    return json.loads(out.stdout)


if __name__ == "__main__":
    print(json.dumps(measure(sys.argv[1:])))
