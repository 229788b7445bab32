#!/usr/bin/env python3
"""Counts the instructions of single operations and compares them with the figures in cost.json.

usage: cost.py PROGRAM [--renew]
PROGRAM is bench_cost. valgrind counts, so neither other work nor the processor's speed tells in the
figures; compiler and libraries do, so they are compared only where these are the same. An operation
that takes over three per cent more fails, and is told with the functions that take more. --renew
writes the figures anew.
"""
import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import platform
import re
import subprocess
import sys
import tempfile

FIGURES = pathlib.Path(__file__).with_name("cost.json")
ALLOWED = 1.03
LEAST = 0.02  # part of an operation below which a function is not kept


def text_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def surroundings():
    """What else decides how many instructions there are."""
    flags = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    return {
        "compiler": text_of("c++", "--version").splitlines()[0],
        "C library": " ".join(platform.libc_ver()),
        "cJSON": text_of("pkg-config", "--modversion", "libcjson"),
        "valgrind": text_of("valgrind", "--version"),
        # The C library has functions of its own for some processors.
        "processor": platform.machine() + (" with AVX2" if re.search(r"\bavx2\b", flags) else ""),
    }


def counted(profile):
    """{function: instructions} of a profile that callgrind has written."""
    functions = collections.Counter()
    library, function, called = "", "", False
    for line in profile.splitlines():
        if line.startswith("ob="):
            library = pathlib.Path(line[3:]).name
        elif line.startswith("fn="):
            function = line[3:].split("'")[0]  # of a recursion's depths one
            if function.startswith("0x"):
                function = f"{library} {function}"
        elif line.startswith("calls="):
            called = True  # the next line has what the callee took
        elif line[:1].isdigit():
            if not called:
                functions[function] += int(line.split()[1])
            called = False
    return functions


def measure(program, name, count):
    """{function: instructions} for one operation."""
    with tempfile.TemporaryDirectory() as directory:
        subprocess.run(["valgrind", "--quiet", "--tool=callgrind", "--toggle-collect=countedPart",
                        "--compress-strings=no", "--compress-pos=no",
                        "--callgrind-out-file=profile", program, name],
                       cwd=directory, check=True, stdout=subprocess.DEVNULL)
        profile = (pathlib.Path(directory) / "profile").read_text(encoding="utf-8")
    return {function: cost / count for function, cost in counted(profile).items()}


def measure_all(program):
    operations = [line.rsplit(",", 1) for line in text_of(program, "--list").splitlines()]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        costs = pool.map(lambda entry: measure(program, entry[0], int(entry[1])), operations)
        return {name: cost for (name, _), cost in zip(operations, costs)}


def renew(costs):
    figures = {}
    for name, cost in costs.items():
        total = sum(cost.values())
        kept = sorted((f for f in cost if cost[f] >= LEAST * total), key=lambda f: -cost[f])
        figures[name] = {"instructions": round(total, 1),
                         "functions": {function: round(cost[function], 1) for function in kept}}
    text = json.dumps({"made with": surroundings(), "operations": figures}, indent=1)
    FIGURES.write_text(text + "\n", encoding="utf-8")


def explain(cost, before):
    """The functions that take more, those first that matter most."""
    more = {function: now - before["functions"].get(function, 0) for function, now in cost.items()}
    least = LEAST * before["instructions"]
    for function in sorted(more, key=lambda f: -more[f])[:8]:
        if more[function] > least:
            print(f"      {before['functions'].get(function, 0):9.1f} {cost[function]:9.1f}  "
                  f"{function}")


def compare(costs, figures):
    """The names of the operations that take too much."""
    high = []
    for name, cost in costs.items():
        before = figures.get(name, {"instructions": 0, "functions": {}})
        now = sum(cost.values())
        was = before["instructions"]
        change = f"{100 * (now / was - 1):+6.1f} %" if was else "     new"
        gained = now * ALLOWED < was
        print(f"{was:15.1f} {now:9.1f} {change}  {name}" + ("; to be kept by --renew" * gained))
        if now > ALLOWED * was:
            high.append(name)
            explain(cost, before)
    return high


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program", type=pathlib.Path)
    parser.add_argument("--renew", action="store_true")
    options = parser.parse_args()
    program = options.program.resolve()
    if options.renew:
        renew(measure_all(program))
        return
    known = json.loads(FIGURES.read_text(encoding="utf-8"))
    here = surroundings()
    others = [f"{what} is {here[what]}, not {there}"
              for what, there in known["made with"].items() if here[what] != there]
    if others:
        print("skipped: the figures are of other surroundings: " + "; ".join(others))
        return
    print("         before       now  instructions for each")
    high = compare(measure_all(program), known["operations"])
    if high:
        sys.exit(f"over 3 per cent more than the figures in bench/cost.json: {', '.join(high)}\n"
                 f"where that is meant: python3 bench/cost.py {options.program} --renew")


if __name__ == "__main__":
    main()
