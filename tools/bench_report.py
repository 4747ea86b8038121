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

# workload, its benchmark, the rival that counts (None: the best one), and the goal: at most this many
# times the rival, or this much more in µs.
WORKLOADS = (
    ("a whole session, no-op scripts", "BM_WholeSession", "the four scripts and two durable writes, bare",
     ("times", 1.15)),
    ("the same, and to start a process for it", "BM_WholeSession", "the same, and a program that does nothing",
     ("times", 1.15)),
    ("the usage error", "BM_UsageError", None, ("times", 1.05)),
    ("start and initialisation", "BM_Start", None, ("plus µs", 200)),
)
MEMORY_LIMIT_KIB = 16 * 1024


def read_samples(path):
    """The counters of each benchmark, a list of values for each: one a repetition."""
    results = json.loads(Path(path).read_text())
    samples = {}
    for run in results["benchmarks"]:
        if run["run_type"] == "iteration":
            counters = samples.setdefault(run["run_name"].split("/")[0], {})
            for name, value in run.items():
                if name in ("ours", "peak KiB") or f"ratio to {name}" in run or name.startswith("ratio to "):
                    counters.setdefault(name, []).append(value)
    return results["context"], samples


def spread(values):
    """How far the middle half of the repetitions reaches, in parts of the median."""
    low, _, high = statistics.quantiles(values, n=4)
    return (high - low) / statistics.median(values)


def compare(samples):
    for workload, benchmark, rival, (kind, limit) in WORKLOADS:
        counters = samples[benchmark]
        peers = {name: statistics.median(values) for name, values in counters.items() if f"ratio to {name}" in counters}
        best = rival or min(peers, key=peers.get)
        mine, ratios = statistics.median(counters["ours"]), counters[f"ratio to {best}"]
        ratio = statistics.median(ratios)
        met = ratio <= limit if kind == "times" else mine <= peers[best] + limit
        yield {"workload": workload, "ours_us": round(mine, 1), "best_peer_us": round(peers[best], 1),
               "best_peer": best, "ratio": round(ratio, 3), "goal": f"{kind} {limit}", "met": met,
               "spread": round(spread(ratios), 3),
               "peers_us": {name: round(value, 1) for name, value in peers.items()}}


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
    context, samples = read_samples(results)
    peak = max(samples["BM_WholeSession"]["peak KiB"])
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
