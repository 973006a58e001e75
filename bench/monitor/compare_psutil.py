#!/usr/bin/python3
"""Reads `ravelin monitor --json` between two psutil readings and prints them side by side.

Processor count and memory total must agree; network counters (all interfaces but those flagged
as loopback) must lie within what psutil saw move between its two readings; disk totals agree
with psutil's view of "/". Exits non-zero when something disagrees.
"""
import json
import subprocess
import sys

import psutil

IFF_LOOPBACK = 0x8


def non_loopback_counters():
    total_in = total_out = 0
    for name, counters in psutil.net_io_counters(pernic=True).items():
        try:
            with open(f"/sys/class/net/{name}/flags") as f:
                if int(f.read().strip(), 16) & IFF_LOOPBACK:
                    continue
        except OSError:
            pass
        total_in += counters.bytes_recv
        total_out += counters.bytes_sent
    return total_in, total_out


def main():
    ravelin = sys.argv[1] if len(sys.argv) > 1 else "build/default/cli/ravelin"
    before = non_loopback_counters()
    snapshot = json.loads(subprocess.run([ravelin, "monitor", "--json"], check=True,
                                         capture_output=True, text=True).stdout)
    after = non_loopback_counters()
    disk = psutil.disk_usage("/")

    rows = [
        ("processors", len(snapshot["cpu"]), psutil.cpu_count(), len(snapshot["cpu"]) == psutil.cpu_count()),
        ("memory total", snapshot["memory"]["total"], psutil.virtual_memory().total,
         snapshot["memory"]["total"] == psutil.virtual_memory().total),
        ("bytes in", snapshot["network"]["bytes_in"], f"{before[0]}..{after[0]}",
         before[0] <= snapshot["network"]["bytes_in"] <= after[0]),
        ("bytes out", snapshot["network"]["bytes_out"], f"{before[1]}..{after[1]}",
         before[1] <= snapshot["network"]["bytes_out"] <= after[1]),
        ("disk total", snapshot["disk"]["total"], disk.total, snapshot["disk"]["total"] >= disk.total),
        ("disk free", snapshot["disk"]["free"], disk.free, abs(snapshot["disk"]["free"] - disk.free) < 64 << 20),
    ]
    print(f"{'':14} {'ravelin':>16} {'psutil':>28}  agree")
    ok = True
    for name, ours, theirs, agree in rows:
        ok &= agree
        print(f"{name:14} {ours:>16} {str(theirs):>28}  {'yes' if agree else 'NO'}")
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
