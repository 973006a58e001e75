#!/usr/bin/python3
"""Runs a command and reports its wall time, bytes read and peak memory.

Usage: measure.py COMMAND [ARGS...]. Prints one JSON object: {"seconds", "rchar", "read_bytes",
"max_rss_kib", "exit"}. The bytes come from /proc/PID/io, read after the command has exited
and before it is reaped; standard output is thrown away.
"""
import json
import os
import subprocess
import sys
import time


def measure(argv):
    start = time.perf_counter()
    process = subprocess.Popen(argv, stdout=subprocess.DEVNULL)
    os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOWAIT)
    seconds = time.perf_counter() - start
    io = {}
    with open(f"/proc/{process.pid}/io") as f:
        for line in f:
            key, value = line.split(":")
            io[key] = int(value)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    return {"seconds": seconds, "rchar": io["rchar"], "read_bytes": io["read_bytes"],
            "max_rss_kib": usage.ru_maxrss, "exit": process.returncode}


if __name__ == "__main__":
    print(json.dumps(measure(sys.argv[1:])))
