#!/usr/bin/env python3
"""Summarises one callgrind profile of a benchmark's timed loop.

    bench_profile.py callgrind.out benchmark.json [lines]

Prints the benchmark's name and iterations, the instructions per iteration, and the functions
with the most inclusive instructions per iteration, without the benchmark framework's frames.
"""

import json
import re
import subprocess
import sys

FRAMEWORK = re.compile(r"libbenchmark|libc-start|\(below main\)|\?\?\?:main |_Function_handler|"
                       r"LambdaBenchmark|ld-linux|bench::loop|::operator\(\)\(benchmark::State")


def main():
    profile, results, lines = sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) > 3 else 30
    with open(results, encoding="utf-8") as handle:
        runs = [b for b in json.load(handle)["benchmarks"] if b.get("run_type") == "iteration"]
    # scripts/bench.sh fixes the iterations, so the one run is everything the profile holds.
    iterations = sum(b["iterations"] for b in runs) or 1
    name = runs[0]["run_name"] if runs else profile
    annotated = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", profile],
                               check=True, capture_output=True, text=True).stdout
    rows = []
    total = None
    for line in annotated.splitlines():
        match = re.match(r"\s*([\d,]+) \(\s*[\d.]+%\)\s+(.*)", line)
        if not match:
            continue
        count = int(match.group(1).replace(",", ""))
        where = match.group(2)
        if "PROGRAM TOTALS" in where:
            total = count
            continue
        if FRAMEWORK.search(where):
            continue
        rows.append((count, where))
    print(f"== {name}: {iterations} iterations, "
          f"{(total or 0) / iterations:,.0f} instructions per iteration")
    for count, where in rows[:lines]:
        where = re.sub(r" \[[^\]]*\]$", "", where)  # the object file
        where = re.sub(r"^\?\?\?:", "", where)
        print(f"{count / iterations:>12,.0f}  {100.0 * count / (total or 1):5.1f}%  {where[:150]}")


if __name__ == "__main__":
    main()
