#!/usr/bin/env python3
"""bench_report.py REPORT RESULTS.json... -- prints one table of the results of the programs in bench/.

The table has a line for each goal: the workload, our time, the time of the peer that the goal names (or else of the
best peer), the ratio of the two, the goal, whether it is met, and the spread of the ratio over the repetitions.
Also writes the table to REPORT.json, and a chart of it to REPORT.svg.
"""

import json
import math
import os
import statistics
import sys
from datetime import date
from pathlib import Path
from xml.sax.saxutils import escape

HEAD = ("workload", "ours", "peer", "ratio", "goal", "met", "spread", "which peer")


def spread(values):
    """Returns the interquartile range of the values, as a fraction of their median."""
    if len(values) < 2:
        return 0.0
    low, _, high = statistics.quantiles(values, n=4)
    return (high - low) / statistics.median(values)


def is_met(goal, ours, peer, ratio):
    """Returns whether the goal is met.  A plain factor is compared with the ratio that was taken pair by pair; a goal
    that adds an amount of time is compared with the median times."""
    if goal["plus_us"]:
        return ours <= goal["ratio"] * peer + 1000 * goal["plus_us"]
    return ratio <= goal["ratio"]


def goal_text(goal):
    if goal is None:
        return ""
    if goal["plus_us"]:
        return (f'{goal["ratio"]:g} x ' if goal["ratio"] != 1 else "") + f'plus {goal["plus_us"]:g} µs'
    return f'{goal["ratio"]:g}'


def workload_rows(workload):
    """Yields a row for each goal, and one for the best peer if no goal is about it."""
    ours = statistics.median(workload["ours_ns"])
    peers = {rival["name"]: rival for rival in workload["rivals"]}
    best = max((rival for rival in workload["rivals"] if rival["counts"]),
               key=lambda rival: statistics.median(rival["ratios"]), default=None)
    goals = [(peers[goal["rival"]] if goal["rival"] else best, goal) for goal in workload["goals"]]
    if best is not None and all(peer is not best for peer, _ in goals):
        goals.insert(0, (best, None))
    for peer, goal in goals:
        ratio, theirs = statistics.median(peer["ratios"]), statistics.median(peer["ns"])
        yield {"workload": workload["name"], "ours_ns": ours, "peer": peer["name"], "is_best": peer is best,
               "peer_ns": theirs, "ratio": round(ratio, 3), "goal": goal,
               "met": None if goal is None else is_met(goal, ours, theirs, ratio),
               "spread": round(spread(peer["ratios"]), 3)}


def mean_row(mean, workloads):
    """Returns a row with the geometric mean of the ratios to one peer, over the workloads that have this peer."""
    goal = mean["goal"]
    ratios = [rival["ratios"] for workload in workloads for rival in workload["rivals"]
              if rival["name"] == goal["rival"]]
    by_repetition = [statistics.geometric_mean(values) for values in zip(*ratios)]
    ratio = statistics.median(by_repetition)
    return {"workload": f'{mean["name"]} ({len(ratios)})', "ours_ns": None, "peer": goal["rival"],
            "is_best": False, "peer_ns": None, "ratio": round(ratio, 3), "goal": goal,
            "met": ratio <= goal["ratio"], "spread": round(spread(by_repetition), 3)}


def time_text(nanoseconds):
    if nanoseconds is None:
        return ""
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def met_text(met):
    return {None: "", True: "yes", False: "NO"}[met]


def cells(row):
    which = row["peer"] + (" (best)" if row["is_best"] else "")
    return (row["workload"], time_text(row["ours_ns"]), time_text(row["peer_ns"]), f'{row["ratio"]:.2f}',
            goal_text(row["goal"]), met_text(row["met"]), f'{row["spread"]:.0%}', which)


def figure_cells(figure):
    value = max(figure["values"])
    return (figure["name"], f'{value:.3g} {figure["unit"]}', "", "", f'{figure["limit"]:g} {figure["unit"]}',
            met_text(value <= figure["limit"]), "", "")


def print_table(programs):
    lines = {program["program"]: [cells(row) for row in program["rows"]] +
             [figure_cells(figure) for figure in program["figures"]] for program in programs}
    every = [HEAD] + [line for group in lines.values() for line in group]
    widths = [max(len(line[i]) for line in every) for i in range(len(HEAD))]
    for name, group in lines.items():
        print(f"\n{name}")
        previous = None
        for line in [HEAD] + group:
            shown = ("", *line[1:]) if line[0] == previous else line
            print("  " + "  ".join(cell.ljust(width) for cell, width in zip(shown, widths)).rstrip())
            previous = line[0]


LABELS, SCALE, PEERS = 400, 360, 320  # widths in pixels: the workloads' names, the bars, the peers' names
LEAST, MOST = -6, 3  # the exponents of two at the scale's ends
ROW = 17


def at(ratio):
    """Returns the x coordinate of a ratio; a ratio outside the scale is at its end."""
    power = math.log2(min(max(ratio, 2 ** LEAST), 2 ** MOST))
    return LABELS + SCALE * (power - LEAST) / (MOST - LEAST)


def draw_row(row, y):
    """Yields a bar from 1 to the ratio, which points left where ours is faster, and a line at the goal."""
    ends = sorted((at(1), at(row["ratio"])))
    colour = "#c2571a" if row["met"] is False else "#2a6fb0"
    yield (f'<text x="{LABELS - 8}" y="{y}" text-anchor="end">{escape(row["workload"])}</text>'
           f'<rect x="{ends[0]:.1f}" y="{y - 10}" width="{max(ends[1] - ends[0], 1):.1f}" height="12" fill="{colour}"/>'
           f'<text x="{LABELS + SCALE + 8}" y="{y}">{row["ratio"]:.2f}  {escape(row["peer"])}</text>')
    if row["goal"] and not row["goal"]["plus_us"]:
        x = at(row["goal"]["ratio"])
        yield f'<path d="M{x:.1f} {y - 12}v16" stroke="black" stroke-width="2"/>'


def draw(programs, path):
    """Draws every ratio as a bar, all on the same scale."""
    parts, y = [], 44
    for program in programs:
        y += 12
        parts.append(f'<text x="10" y="{y}" font-weight="bold">{escape(program["program"])}</text>')
        for row in program["rows"]:
            y += ROW
            parts += draw_row(row, y)
        y += ROW
    grid = []
    for power in range(LEAST, MOST + 1):
        x = at(2 ** power)
        grid.append(f'<path d="M{x:.1f} 34V{y}" stroke="{"#606060" if power == 0 else "#dddddd"}"/>'
                    f'<text x="{x:.1f}" y="28" text-anchor="middle">{2 ** power if power >= 0 else f"1/{2 ** -power}"}</text>')
    Path(path).write_text(
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{LABELS + SCALE + PEERS}" height="{y + 10}" '
        'font-family="sans-serif" font-size="12"><rect width="100%" height="100%" fill="white"/>'
        f'<text x="{LABELS + SCALE / 2}" y="14" text-anchor="middle">our time divided by the peer\'s; '
        f'the black line is the goal, orange misses it</text>{"".join(grid)}{"".join(parts)}</svg>\n')


def processor_name():
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return "unknown"


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    report, *results = sys.argv[1:]
    programs = [json.loads(Path(path).read_text()) for path in results]
    for program in programs:
        program["program"] = program["program"].removesuffix("_bench")
        program["rows"] = [row for workload in program["workloads"] for row in workload_rows(workload)]
        program["rows"] += [mean_row(mean, program["workloads"]) for mean in program["means"]]
    print_table(programs)
    Path(f"{report}.json").write_text(json.dumps(
        {"date": str(date.today()), "processor": processor_name(), "processors": os.cpu_count(),
         "programs": programs}, indent=2, ensure_ascii=False) + "\n")
    draw(programs, f"{report}.svg")


if __name__ == "__main__":
    main()
