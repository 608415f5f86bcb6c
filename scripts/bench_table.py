#!/usr/bin/env python3
"""Prints the benchmark table: each library operation beside the raw OpenSSL work it replaces.

    bench_table.py [--bench results.json] [--memory memory.json] [--list-memory list.json]

results.json is Google Benchmark's JSON output of foundation_bench with repetitions and
aggregates; each row is the pair "<id>/raw" and "<id>/lib", and carries its label and target
ratio. memory.json is the output of foundation_bench_memory, list.json that of
foundation_bench_list_memory. Times are medians of the CPU time
per iteration; "cv" is the larger coefficient of variation of the two sides.
"""

import argparse
import json
import sys


def format_time(value, unit):
    seconds = value * {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[unit]
    for scale, name in ((1.0, "s"), (1e-3, "ms"), (1e-6, "us"), (1e-9, "ns")):
        if seconds >= scale:
            return f"{seconds / scale:.3g} {name}"
    return f"{seconds / 1e-9:.3g} ns"


def format_bytes(value):
    for scale, name in ((1 << 20, "MiB"), (1 << 10, "KiB")):
        if value >= scale:
            return f"{value / scale:.3g} {name}"
    return f"{value} B"


def bench_rows(path):
    with open(path, encoding="utf-8") as handle:
        results = json.load(handle)
    pairs = {}
    order = []
    for entry in results.get("benchmarks", []):
        # Threaded rows carry "/real_time/threads:N" after the side.
        parts = entry["run_name"].split("/")
        if len(parts) < 2 or parts[1] not in ("raw", "lib"):
            continue
        row_id, side = parts[0], parts[1]
        if row_id not in pairs:
            pairs[row_id] = {"family": entry.get("family_index", 0)}
            order.append(row_id)
        pair = pairs[row_id]
        if "label" in entry:
            pair["label"] = entry["label"]
        if "target" in entry and entry.get("aggregate_name") in (None, "median", "mean"):
            pair["target"] = entry["target"]
        if entry.get("error_occurred"):
            pair[side + "_error"] = entry.get("error_message", "error")
        name = entry.get("aggregate_name")
        # Rows run on several threads are timed by the wall clock (time per operation across
        # all threads), the others by CPU time.
        time = "real_time" if entry.get("wall_clock") else "cpu_time"
        if name == "median":
            pair[side] = (entry[time], entry["time_unit"])
        elif name == "cv":
            pair[side + "_cv"] = entry[time] * 100.0
        elif name is None and entry.get("run_type") == "iteration" and side not in pair:
            # Without repetitions there are no aggregates: the single run is the median.
            pair.setdefault(side + "_single", (entry[time], entry["time_unit"]))
    rows = []
    for row_id in sorted(order, key=lambda r: pairs[r]["family"]):
        pair = pairs[row_id]
        raw = pair.get("raw", pair.get("raw_single"))
        lib = pair.get("lib", pair.get("lib_single"))
        label = pair.get("label", row_id)
        target = pair.get("target")
        error = pair.get("raw_error") or pair.get("lib_error")
        if error or raw is None or lib is None:
            if pair.get("raw_error"):
                raw = None
            if pair.get("lib_error"):
                lib = None
            rows.append([label, fmt(raw), fmt(lib), "-", fmt_target(target), "n/a",
                         "", "skipped: " + (error or "incomplete")])
            continue
        ratio = lib[0] / raw[0] if raw[0] > 0 else float("inf")
        cv = max(pair.get("raw_cv", 0.0), pair.get("lib_cv", 0.0))
        met = "yes" if target is not None and ratio <= target else "no"
        rows.append([label, fmt(raw), fmt(lib), f"{ratio:.3f}", fmt_target(target), met,
                     f"{cv:.1f}%", ""])
    return rows, results.get("context", {})


def fmt(value):
    return format_time(*value) if value else "-"


def fmt_target(target):
    return f"<= {target:g}" if target is not None else "-"


def memory_rows(path):
    with open(path, encoding="utf-8") as handle:
        memory = json.load(handle)
    count = memory["certificates"]
    target = memory["target"]
    rows = []
    notes = []
    if memory["raw_certificates"] != count or memory["library_certificates"] != count:
        notes.append(f"stores hold {memory['raw_certificates']} (raw) and "
                     f"{memory['library_certificates']} (library) of {count} certificates")

    def row(label, raw, lib, formatter):
        ratio = lib / raw if raw > 0 else float("inf")
        met = "yes" if ratio <= target else "no"
        rows.append([label, formatter(raw), formatter(lib), f"{ratio:.3f}", fmt_target(target),
                     met, "", ""])

    row(f"TrustStore memory, heap in use ({count} bundle certs)", memory["heap_raw_bytes"],
        memory["heap_library_bytes"], format_bytes)
    base = memory["peak_rss_baseline_kib"]
    row(f"TrustStore memory, peak RSS over baseline ({count} certs)",
        max(memory["peak_rss_raw_kib"] - base, 0) * 1024,
        max(memory["peak_rss_library_kib"] - base, 0) * 1024, format_bytes)
    if "signature_cache_bytes_per_entry" in memory:
        per_entry = memory["signature_cache_bytes_per_entry"]
        limit = memory["signature_cache_target_bytes"]
        rows.append([f"Signature cache, heap per entry ({memory['signature_cache_entries']} "
                     f"entries)", "-", f"{per_entry:.0f} B", "-", f"<= {limit} B",
                     "yes" if per_entry <= limit else "no", "", ""])
    return rows, notes


def list_memory_rows(path):
    with open(path, encoding="utf-8") as handle:
        memory = json.load(handle)
    entries = memory["entries"]
    target = memory["target"]
    notes = []
    if memory["raw_entries"] != entries or memory["library_loaded"] != 1:
        notes.append(f"the raw side read {memory['raw_entries']} of {entries} entries")
    rows = []

    def row(label, raw, lib, formatter):
        ratio = lib / raw if raw > 0 else float("inf")
        met = "yes" if ratio <= target else "no"
        rows.append([label, formatter(raw), formatter(lib), f"{ratio:.3f}", fmt_target(target),
                     met, "", ""])

    row(f"CertificateRevocationList memory, heap in use ({entries:,} entries)",
        memory["heap_raw_bytes"], memory["heap_library_bytes"], format_bytes)
    base = memory["peak_rss_baseline_kib"]
    row(f"CertificateRevocationList memory, peak RSS over baseline ({entries:,} entries)",
        max(memory["peak_rss_raw_kib"] - base, 0) * 1024,
        max(memory["peak_rss_library_kib"] - base, 0) * 1024, format_bytes)
    return rows, notes


def print_table(rows):
    headers = ["Operation", "raw", "library", "ratio", "target", "met", "cv"]
    widths = [len(h) for h in headers]
    for row in rows:
        for i, cell in enumerate(row[:7]):
            widths[i] = max(widths[i], len(cell))
    aligned_left = {0}

    def line(cells):
        out = []
        for i, cell in enumerate(cells[:7]):
            out.append(cell.ljust(widths[i]) if i in aligned_left else cell.rjust(widths[i]))
        return "| " + " | ".join(out) + " |"

    print(line(headers))
    print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    for row in rows:
        print(line(row))
        if row[7]:
            print(f"|   {row[7]}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bench")
    parser.add_argument("--memory")
    parser.add_argument("--list-memory")
    arguments = parser.parse_args()

    rows = []
    notes = []
    context = {}
    if arguments.bench:
        bench, context = bench_rows(arguments.bench)
        rows += bench
    if arguments.memory:
        memory, memory_notes = memory_rows(arguments.memory)
        rows += memory
        notes += memory_notes
    if arguments.list_memory:
        memory, memory_notes = list_memory_rows(arguments.list_memory)
        rows += memory
        notes += memory_notes
    if not rows:
        print("no benchmark matched")
        return 1

    print_table(rows)
    measured = [r for r in rows if r[5] in ("yes", "no")]
    met = sum(1 for r in measured if r[5] == "yes")
    print()
    print(f"{met} of {len(measured)} measured rows meet their targets.")
    if context:
        load = ", ".join(f"{v:.2f}" for v in context.get("load_avg", []))
        print(f"Times: median CPU time per iteration (rows on several threads: wall-clock time "
              f"per operation across the threads); {context.get('num_cpus', '?')} CPUs, "
              f"load average {load}.")
    for note in notes:
        print("Note: " + note)
    return 0


if __name__ == "__main__":
    sys.exit(main())
