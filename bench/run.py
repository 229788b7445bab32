#!/usr/bin/env python3
"""Runs every cell of every system, round by round, and writes what each run measured.

usage: run.py PROGRAMS OUTPUT [--quick]
PROGRAMS is the directory of the bench_* programs; OUTPUT gets results.csv, operations.csv and
machine.json. Within a round the systems of one cell follow each other, so that a slow minute hits
all of them; the next round starts with another system.
"""
import argparse
import csv
import json
import os
import pathlib
import platform
import shutil
import subprocess
import sys
import time

FIELDS = ["operations", "seconds", "p50_ns", "p99_ns", "p999_ns", "lost", "processor_s",
          "switches", "peak_kb"]
PROGRAMS = ["limit", "zelvo", "face", "handwritten", "zeromq", "nng", "tbb", "glib", "mqtt", "log"]
# Cells that take long to set up, or stall: each third round is enough.
RARE = {("memory-2000", None), ("publish-64", "ZeroMQ broker HWM 1024")}
NOT_IN_QUICK = {"growth-100", "growth-1000", "fanout-64", "keys-get-1000", "keys-set-1000",
                "call-timers-1000", "idle-timers-1000", "memory-2000"}
LIMIT_S = 120  # for one run, which takes a second or two


def cells_of(programs):
    """{cell: [(program, system), ...]} in the order in which the programs name them."""
    cells = {}
    for name in PROGRAMS:
        program = programs / f"bench_{name}"
        listed = subprocess.run([program, "--list"], check=True, capture_output=True, text=True)
        for line in listed.stdout.splitlines():
            system, cell = line.split(",")
            cells.setdefault(cell, []).append((program, system))
    return cells


def is_rare(cell, system):
    return (cell, None) in RARE or (cell, system) in RARE


def run_one(program, system, cell, milliseconds, directory):
    try:
        done = subprocess.run([program, system, cell, str(milliseconds)], cwd=directory,
                              capture_output=True, text=True, timeout=LIMIT_S, check=True)
        values = done.stdout.strip().split(",")
        if len(values) == len(FIELDS):
            return values
        reason = f"unexpected output: {done.stdout!r}"
    except subprocess.CalledProcessError as failure:
        reason = failure.stderr.strip() or f"status {failure.returncode}"
    except subprocess.TimeoutExpired:
        reason = f"not done after {LIMIT_S} s"
    print(f"   {system}, {cell}: {reason}", file=sys.stderr)
    return None


def run_round(number, cells, options, directory, write):
    failures = 0
    for cell, entries in cells.items():
        if options.quick and cell in NOT_IN_QUICK:
            continue
        first = number % len(entries)
        for program, system in entries[first:] + entries[:first]:
            if number % 3 != 0 and is_rare(cell, system):
                continue
            values = run_one(program, system, cell, options.milliseconds, directory)
            if values is None:
                failures += 1
            else:
                write([number, system, cell] + values)
    return failures


def operations(programs, output, quick):
    with open(output / "operations.csv", "w", encoding="ascii") as file:
        subprocess.run([programs / "bench_ops", "--benchmark_format=csv",
                        f"--benchmark_min_time={0.02 if quick else 0.2}",
                        "--benchmark_repetitions=3" if quick else "--benchmark_repetitions=7",
                        "--benchmark_report_aggregates_only=true"],
                       stdout=file, stderr=subprocess.DEVNULL, check=True)


def text_of(*command):
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=True)
        return done.stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def processor():
    for line in pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


def topology():
    """What the kernel can place threads on, as far as a virtual machine lets it see that."""
    lines = text_of("env", "LC_ALL=C", "lscpu").splitlines()
    facts = {name.strip(): value.strip() for name, _, value in (x.partition(":") for x in lines)}
    counts = ", ".join(f"{name} {facts.get(name, 'unknown')}" for name in (
        "Socket(s)", "Core(s) per socket", "Thread(s) per core", "NUMA node(s)"))
    return f"{counts}, hypervisor {facts.get('Hypervisor vendor', 'none seen')}"


def version_of(package):
    return text_of("dpkg-query", "-W", "-f=${Version}", package)


def machine():
    system = platform.freedesktop_os_release().get("PRETTY_NAME", "unknown")
    return {
        "date": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()),
        "processor": processor(),
        "cores": len(os.sched_getaffinity(0)),
        "topology": topology(),
        "memory_mb": os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") >> 20,
        "system": f"{system}, Linux {platform.release()}",
        "compiler": text_of("c++", "--version").splitlines()[0] + ", -O2",
        "library": text_of("git", "describe", "--always", "--dirty"),
        "peers": {"ZeroMQ": version_of("libzmq3-dev"), "nng": version_of("libnng-dev"),
                  "GLib": version_of("libglib2.0-dev"), "oneTBB": version_of("libtbb-dev"),
                  "spdlog": version_of("libspdlog-dev"),
                  "libmosquitto": version_of("libmosquitto-dev"),
                  "glibc": version_of("libc6")},
    }


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("programs", type=pathlib.Path)
    parser.add_argument("output", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true")
    options = parser.parse_args()
    options.rounds, options.milliseconds = (3, 120) if options.quick else (7, 800)
    programs = options.programs.resolve()
    options.output.mkdir(parents=True, exist_ok=True)
    directory = programs / "run"
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir()

    begun = time.time()
    facts = machine() | {"rounds": options.rounds, "milliseconds": options.milliseconds,
                         "load_before": os.getloadavg()[0]}
    cells = cells_of(programs)
    failures = 0
    with open(options.output / "results.csv", "w", encoding="ascii", newline="") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow(["round", "system", "cell"] + FIELDS)
        for number in range(options.rounds):
            print(f"-- round {number + 1} of {options.rounds}, {time.time() - begun:.0f} s",
                  flush=True)
            failures += run_round(number, cells, options, directory, writer.writerow)
    operations(programs, options.output, options.quick)
    facts |= {"load_after": os.getloadavg()[0], "seconds": round(time.time() - begun)}
    (options.output / "machine.json").write_text(json.dumps(facts, indent=2) + "\n",
                                                 encoding="ascii")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
