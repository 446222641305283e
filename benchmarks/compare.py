#!/usr/bin/env python3
"""Compares two builds of verdel-bench on one project, in alternating runs.

Each pair of runs gives a ratio now/then for every stage; printed are their median, least and
greatest. What disturbs the machine for longer than a run disturbs both sides of a pair.
"""

import argparse
import statistics

import bench_runs

# Below this the clock's grain and the noise are as large as what is looked for.
SHORTEST_SECONDS = 0.05


def ratio_text(pairs, quantity):
    ratios = [now[quantity] / then[quantity] for now, then in pairs
              if min(now[quantity], then[quantity]) >= SHORTEST_SECONDS]
    if len(ratios) < len(pairs):
        return "too short"
    return f"{statistics.median(ratios):.3f} ({min(ratios):.3f} .. {max(ratios):.3f})"


def print_ratios(now, then):
    print(f"\n{'now / then':<14}{'wall':<26}{'cpu':<26}{'memory'}")
    for entry in now[0]["stages"]:
        name = entry["name"]
        pairs = [(bench_runs.stage(a, name), bench_runs.stage(b, name))
                 for a, b in zip(now, then)]
        if any(b is None for _, b in pairs):
            print(f"{name:<14}not measured then")
            continue
        memory = statistics.median(a["peak_bytes"] / max(1, b["peak_bytes"]) for a, b in pairs)
        print(f"{name:<14}{ratio_text(pairs, 'wall'):<26}{ratio_text(pairs, 'cpu'):<26}"
              f"{memory:.3f}")
    print("median of the pairs' ratios (least .. greatest)")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--now", required=True)
    parser.add_argument("--then", required=True)
    parser.add_argument("--project", required=True)
    parser.add_argument("--runs", type=int, default=3)
    arguments, options = parser.parse_known_args()
    if arguments.runs < 1:
        parser.error("--runs takes a number from 1 on")

    now, then = [], []
    for run in range(1, arguments.runs + 1):
        for label, bench, results in (("now", arguments.now, now), ("then", arguments.then, then)):
            results.append(bench_runs.measure(bench, arguments.project, *options))
            total = bench_runs.stage(results[-1], "total")
            print(f"pair {run} of {arguments.runs}, {label}: {total['wall']:.2f} s wall, "
                  f"{total['cpu']:.2f} s cpu", flush=True)
    print_ratios(now, then)


if __name__ == "__main__":
    main()
