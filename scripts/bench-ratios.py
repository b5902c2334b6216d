#!/usr/bin/env python3
"""Prints speed ratios of com against its peers from Google Benchmark JSON.

Benchmarks are named "<case>/<impl>[/<args>...]", with impl "com" for ours.
For every case and argument set the ratio is peer time / com time, so a
figure above 1 means com is faster (its throughput is that many times the
peer's).
"""
import json
import sys
from collections import defaultdict


def main(paths):
    rows = defaultdict(dict)
    for path in paths:
        with open(path) as f:
            data = json.load(f)
        for b in data.get("benchmarks", []):
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            parts = b["run_name" if "run_name" in b else "name"].split("/")
            if len(parts) < 2:
                continue
            key = (parts[0], "/".join(parts[2:]))
            rows[key][parts[1]] = b["real_time"] * _unit(b.get("time_unit", "ns"))
    width = max((len(c) + len(a) for c, a in rows), default=10) + 2
    for (case, args), impls in sorted(rows.items()):
        ours = impls.get("com")
        label = case + ("/" + args if args else "")
        if ours is None:
            continue
        for impl, t in sorted(impls.items()):
            if impl == "com":
                continue
            print(f"{label:<{width}} com vs {impl:<12} {t / ours:6.2f}x")


def _unit(u):
    return {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[u]


if __name__ == "__main__":
    main(sys.argv[1:])
