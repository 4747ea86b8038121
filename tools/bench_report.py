#!/usr/bin/env python3
"""bench_report.py RESULTS.json REPORT -- turns Google Benchmark's results into one table.

Prints workload, ours, the best rival and its name, the ratio of the medians, and what the ratio is
held to; writes the same to REPORT.json and draws it to REPORT.svg.
"""

import json
import statistics
import sys
from datetime import date
from pathlib import Path
from xml.sax.saxutils import escape

# workload, ours, rivals, goal: at most this many times the best rival, or this much more in µs.  A rival
# of several parts costs what they cost together.
WORKLOADS = (
    ("a whole session, no-op scripts", "BM_WholeSession",
     {"the four scripts and two durable writes, bare": "BM_ScriptsAndCommits"}, ("times", 1.15)),
    ("the same, and to start a process for it", "BM_WholeSession",
     {"the same, and a program that does nothing": "BM_ScriptsAndCommits+BM_Start/Nothing"}, ("times", 1.15)),
    ("the usage error", "BM_Start/UsageError",
     {"a program that does nothing, same libraries": "BM_Start/Nothing"}, ("times", 1.05)),
    ("start and initialisation", "BM_Start/AsShipped",
     {"ICU shared": "BM_Start/SharedIcu", "C++ runtime shared": "BM_Start/SharedRuntime"}, ("plus µs", 200)),
)
MEMORY_LIMIT_KIB = 16 * 1024


def read_samples(path):
    results = json.loads(Path(path).read_text())
    samples, peak = {}, 0
    for run in results["benchmarks"]:
        if run["run_type"] == "iteration":
            name = run["run_name"].removesuffix("/real_time")
            samples.setdefault(name, []).append(run["real_time"])
            peak = max(peak, run.get("peak KiB", 0))
    return results["context"], samples, peak


def spread(values):
    """How far the middle half of the samples reaches, in parts of the median."""
    low, _, high = statistics.quantiles(values, n=4)
    return (high - low) / statistics.median(values)


def compare(samples):
    for workload, ours, rivals, (kind, limit) in WORKLOADS:
        mine = statistics.median(samples[ours])
        medians = {name: sum(statistics.median(samples[part]) for part in key.split("+"))
                   for name, key in rivals.items()}
        best = min(medians, key=medians.get)
        met = mine <= (medians[best] * limit if kind == "times" else medians[best] + limit)
        yield {"workload": workload, "ours_us": round(mine, 1), "best_peer_us": round(medians[best], 1),
               "best_peer": best, "ratio": round(mine / medians[best], 3), "goal": f"{kind} {limit}",
               "met": met, "spread": round(spread(samples[ours]), 3),
               "peers_us": {name: round(value, 1) for name, value in medians.items()}}


def draw(rows, path):
    bars, y = [], 30
    widest = max(max(row["ours_us"], *row["peers_us"].values()) for row in rows)
    for row in rows:
        bars.append(f'<text x="10" y="{y}" font-weight="bold">{escape(row["workload"])}</text>')
        for name, value, colour in [("ours", row["ours_us"], "#2a6fb0")] + [
                (name, value, "#b0b0b0") for name, value in row["peers_us"].items()]:
            y += 20
            width = 420 * value / widest
            bars.append(f'<rect x="10" y="{y - 12}" width="{width:.1f}" height="15" fill="{colour}"/>'
                        f'<text x="{width + 16:.1f}" y="{y}">{value:.0f} µs, {escape(name)}</text>')
        y += 36
    Path(path).write_text(
        f'<svg xmlns="http://www.w3.org/2000/svg" width="860" height="{y}" font-family="sans-serif" '
        f'font-size="13"><rect width="100%" height="100%" fill="white"/>{"".join(bars)}</svg>\n')


def main():
    results, report = sys.argv[1:]
    context, samples, peak = read_samples(results)
    rows = list(compare(samples))
    rows_text = [("workload", "ours", "best peer", "ratio", "goal", "met", "spread", "which peer")]
    rows_text += [(row["workload"], f'{row["ours_us"]:.0f} µs', f'{row["best_peer_us"]:.0f} µs',
                   f'{row["ratio"]:.2f}', row["goal"], "yes" if row["met"] else "NO",
                   f'{row["spread"]:.0%}', row["best_peer"]) for row in rows]
    rows_text.append(("resident memory of a session", f"{peak / 1024:.1f} MiB", "", "", "16 MiB",
                      "yes" if peak < MEMORY_LIMIT_KIB else "NO", "", ""))
    widths = [max(len(row[i]) for row in rows_text) for i in range(len(rows_text[0]))]
    for row in rows_text:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    Path(f"{report}.json").write_text(json.dumps(
        {"date": str(date.today()), "cpus": context["num_cpus"], "mhz": context["mhz_per_cpu"],
         "rows": rows, "session_peak_kib": peak}, indent=2, ensure_ascii=False) + "\n")
    draw(rows, f"{report}.svg")


if __name__ == "__main__":
    main()
