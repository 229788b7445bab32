#!/usr/bin/env python3
"""Writes results.md and the plots from what run.py has left in a directory.

usage: report.py DIRECTORY
"""
import csv
import json
import pathlib
import sys

import svg
from results import Results
from svg import time_text
from targets import OURS, absolute, judged

CELLS = {
    "call-2": "Call round trip among 2 nodes, 16 bytes there and 23 back",
    "call-2000": "Call round trip among 2,000 nodes",
    "call-1-core": "Call round trip, all threads on one core",
    "publish-64": "Publish 64 bytes to one subscriber, 512 under way",
    "publish-1M": "Publish 1 MB to one subscriber, 8 under way",
    "publish-1-core": "Publish 64 bytes to one subscriber, all threads on one core",
    "publish-4-to-1": "Publish 64 bytes, 4 publishers to one subscriber, 512 under way",
    "publish-4-pairs": "Publish 64 bytes, 4 publishers to a subscriber each, 512 under way",
    "latency-1k": "One way, 1,000 publications a second",
    "fanout-8": "Fan-out to 8 subscribers: each delivery",
    "fanout-64": "Fan-out to 64 subscribers: each delivery",
    "fanout-256": "Fan-out to 256 subscribers: each delivery",
    "growth-10": "Publish to one subscriber, 10 other nodes with 8 topics each",
    "growth-100": "The same, 100 other nodes",
    "growth-1000": "The same, 1,000 other nodes",
    "growth-2000": "The same, 2,000 other nodes",
    "keys-get-10": "Key store with 10 keys: get",
    "keys-get-1000": "Key store with 1,000 keys: get",
    "keys-get-10000": "Key store with 10,000 keys: get",
    "keys-set-10": "Key store with 10 keys: set",
    "keys-set-1000": "Key store with 1,000 keys: set",
    "keys-set-10000": "Key store with 10,000 keys: set",
    "call-timers-0": "Call to a node without timers",
    "call-timers-1": "Call to a node with 1 pending timer",
    "call-timers-1000": "Call to a node with 1,000 pending timers",
    "call-level-2": "Call round trip among 2 nodes, log level 2",
    "call-level-1": "The same, log level 1",
    "publish-level-2": "Publish 64 bytes to one subscriber, log level 2",
    "publish-level-1": "The same, log level 1",
    "log-line": "A line of the log into a file, flushed: the trace of a publication",
    "join-1": "Connecting and leaving, the first node",
    "join-2000": "Connecting and leaving, the 2,000th node",
    "memory-2000": "2,000 nodes, each with its thread: each node",
    "memory-2000-quiet": "The same, without notices of joining nodes",
    "async-16": "16 calls at once from one node to others that take 1 ms each",
    "mqtt-call": "Call from process to process over mosquitto",
    "mqtt-publish": "Publish 64 bytes from process to process over mosquitto, QoS 1",
    "blocks": "Limit: 100 bytes allocated in one thread and freed in another",
}
IDLE = {
    "idle-timers-0": "Idle, no timers",
    "idle-timers-1": "Idle, 1 pending timer",
    "idle-timers-1000": "Idle, 1,000 pending timers",
}
BARS = ["call-2", "call-2000", "call-1-core", "publish-64", "publish-1M", "publish-1-core",
        "publish-4-to-1", "publish-4-pairs", "latency-1k"]
LINES = {
    "fanout": ("Fan-out: time for each delivery", "subscribers", (8, 64, 256)),
    "growth": ("Growth: time for each publication to one subscriber", "other nodes, 8 topics each",
               (10, 100, 1000, 2000)),
}


def table(head, rows):
    align = ["---"] + ["--:"] * (len(head) - 1)
    return ["| " + " | ".join(row) + " |" for row in [head, align, *rows]] + [""]


def ratio_text(ratio):
    if ratio is None:
        return ""
    return f"**{ratio[0]:.2f}** ({ratio[1]:.2f} to {ratio[2]:.2f})"


def metric_of(cell):
    """A paced cell is judged by its latency: its time for each message is set. A line of the log by
    the processor time of its thread: the disk may stop it at any moment."""
    return {"latency-1k": "p50", "log-line": "processor"}.get(cell, "time")


def row_of(results, cell, system):
    def times(metric):
        value = results.median(cell, system, metric)
        return time_text(value) if value else ""

    low, high = results.spread(cell, system, metric_of(cell)) or (0, 0)
    ratios = ["", ""]
    if system != OURS:
        ratios = [ratio_text(results.ratio(cell, OURS, metric, cell, system))
                  for metric in (metric_of(cell), "p50")]
    return [system, times(metric_of(cell)), f"{time_text(low)} to {time_text(high)}", times("p50"),
            times("p99"), times("p999"), f"{results.lost(cell, system):,}", times("processor"),
            f"{results.median(cell, system, 'switches') or 0:.3g}",
            f"{results.median(cell, system, 'peak'):.1f}", *ratios]


def cell_tables(results):
    head = ["system", "median", "spread", "p50", "p99", "p99.9", "lost", "processor", "switches",
            "peak MB", "Zelvo to it", "p50 to p50"]
    out = []
    for cell, title in CELLS.items():
        systems = results.systems(cell)
        if systems:
            systems.sort(key=lambda s, c=cell: (s != OURS, results.median(c, s, metric_of(c)) or 0))
            out += [f"### {title}", ""] + table(head, [row_of(results, cell, s) for s in systems])
    return out


def idle_table(results):
    rows = []
    for cell, title in IDLE.items():
        for system in results.systems(cell):
            rows.append([title, system, f"{results.median(cell, system, 'wakeups'):.1f}",
                         f"{max(0, results.median(cell, system, 'busy')):.0f} us",
                         f"{results.median(cell, system, 'peak'):.1f}"])
    return ["### Idle: wake-ups and processor time in a second", ""] + table(
        ["state", "system", "wake-ups", "processor", "peak MB"], rows)


def target_table(results):
    rows = []
    marks = {None: "not measured", True: "reached", False: "**not reached**"}
    for what, name, limit, ratio, reached in judged(results):
        rows.append([what, name, f"{limit:g}", ratio_text(ratio), marks[reached]])
    for what, limit, figure, reached in absolute(results):
        rows.append([what, "", f"{limit:g}", "" if figure is None else f"**{figure:.3g}**",
                     marks[reached]])
    return table(["target", "compared with", "at most", "ratio (spread over the rounds), or figure",
                  ""], rows)


def loss_text(results):
    def lost(system):
        cell = "publish-64"
        return f"{results.lost(cell, system):,} of {results.sent(cell, system):,}"

    low = "ZeroMQ broker HWM 1024"
    out = [f"Lost with 512 under way: Zelvo {lost(OURS)}, with its own limits of 1,024 messages "
           "for a node and 2,048 for the bus; "
           f"ZeroMQ's proxy {lost('ZeroMQ broker')} with a high-water mark of 100,000"]
    if results.systems("publish-64").count(low):
        out[0] += f", and {lost(low)} with one of 1,024, without a word"
    return [out[0] + ".", ""]


def machine_text(facts):
    peers = ", ".join(f"{name} {version}" for name, version in facts["peers"].items())
    return table(["", ""], [
        ["machine", f"{facts['processor']}, {facts['cores']} cores, {facts['memory_mb']:,} MB"],
        ["topology", facts.get("topology", "unknown")],
        ["system", facts["system"]],
        ["compiler", facts["compiler"]],
        ["versions", f"Zelvo {facts['library']}, {peers}"],
        ["log level", "3, into a file, where the cell does not name another"],
        ["thread placement", "left to the kernel; in the cells of one core every thread is bound "
                             "to the first core that the process may use"],
        ["run", f"{facts['date']}, {facts['rounds']} rounds of {facts['milliseconds']} ms for each "
                f"cell, {facts['seconds']} s in all; load {facts['load_before']:.1f} before and "
                f"{facts['load_after']:.1f} after"],
    ])


def operations_table(path):
    rows = []
    with open(path, encoding="ascii", newline="") as file:
        for row in csv.DictReader(file):
            if row["name"].endswith("_median"):
                rows.append([row["name"].removesuffix("_median"),
                             time_text(float(row["real_time"])),
                             time_text(float(row["cpu_time"]))])
    return ["### Single operations of the modules, in one thread", ""] + table(
        ["operation", "median", "processor"], rows)


def bar_plot(results, cell):
    metric = metric_of(cell)
    rows = [(system, results.median(cell, system, metric), *results.spread(cell, system, metric))
            for system in results.systems(cell) if results.median(cell, system, metric)]
    what = ", p50" if metric == "p50" else ""
    return svg.bars(CELLS[cell] + what, sorted(rows, key=lambda row: row[1]))


def line_plot(results, name):
    title, axis, counts = LINES[name]
    systems = results.systems(f"{name}-{counts[0]}")
    series = {}
    for system in sorted(systems, key=lambda s: s != OURS):
        points = [(count, results.median(f"{name}-{count}", system, "time")) for count in counts]
        series[system] = [point for point in points if point[1]]
    return svg.lines(title, axis, series)


def plots(results, directory):
    """Writes them; the Markdown that shows them."""
    out = []
    for name in [*BARS, *LINES]:
        if name in BARS and not results.systems(name):
            continue
        made = line_plot(results, name) if name in LINES else bar_plot(results, name)
        (directory / f"{name}.svg").write_text(made, encoding="ascii")
        out += [f"![{name}]({name}.svg)", ""]
    return out


def main():
    directory = pathlib.Path(sys.argv[1])
    results = Results(directory / "results.csv")
    facts = json.loads((directory / "machine.json").read_text(encoding="ascii"))
    out = ["# Benchmark results", "",
           "Written by `script/bench`; what is measured, and how, is in [README.md](README.md). "
           "Medians over the rounds of one run; times are for one operation.", ""]
    out += machine_text(facts)
    out += ["## Targets", "", "The ratio of Zelvo's median to the other's, or a figure of Zelvo "
            "alone; lower is better.", ""]
    out += target_table(results) + loss_text(results)
    out += ["## Plots", "", "Bars are medians, black lines the spread over the rounds.", ""]
    out += plots(results, directory)
    out += ["## Cells", ""] + cell_tables(results) + idle_table(results)
    out += operations_table(directory / "operations.csv")
    (directory / "results.md").write_text("\n".join(out), encoding="ascii")
    print("\n".join(target_table(results) + loss_text(results)))


if __name__ == "__main__":
    main()
