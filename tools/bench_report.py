#!/usr/bin/env python3
"""Runs morbase_bench (or reads its JSON) and prints, per operation, the time of
each implementation and its ratio to ours.

Benchmarks are named BM_<operation>__<implementation>[/args][/threads:N]; the
implementation "qel" is libmorbase. A ratio above 1 means the peer is slower
than libmorbase (peer time / our time)."""
import json
import re
import subprocess
import sys
from collections import defaultdict


def main():
    if len(sys.argv) > 1 and sys.argv[1].endswith(".json"):
        data = json.load(open(sys.argv[1]))
    else:
        exe = sys.argv[1] if len(sys.argv) > 1 else "build/x86_64/bench/morbase_bench"
        out = subprocess.run([exe, "--benchmark_format=json"] + sys.argv[2:],
                             check=True, capture_output=True, text=True).stdout
        data = json.loads(out)
    groups = defaultdict(dict)
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "mean":
            continue
        m = re.match(r"BM_(\w+?)__(\w+)(.*)", b["name"])
        if not m:
            continue
        op, impl, rest = m.groups()
        rest = rest.replace("_mean", "")
        t = b["real_time"] if "threads:" in rest else b["cpu_time"]
        groups[(op, rest)][impl] = (t, b["time_unit"])
    print(f"{'operation':48} {'impl':10} {'time':>14}  ratio(peer/qel)")
    for (op, rest), impls in groups.items():
        ours = impls.get("qel")
        for impl, (t, unit) in sorted(impls.items(), key=lambda kv: kv[0] != "qel"):
            ratio = "" if impl == "qel" or not ours else f"{t / ours[0]:.2f}"
            print(f"{op + rest:48} {impl:10} {t:12.1f}{unit:>3}  {ratio}")


if __name__ == "__main__":
    main()
