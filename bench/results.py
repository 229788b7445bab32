"""Reads results.csv, and answers what the report and the plots ask of it."""
import collections
import csv
import statistics


class Run:
    """One system in one cell in one round."""

    def __init__(self, row):
        self.round = int(row["round"])
        self.operations = int(row["operations"])
        self.seconds = float(row["seconds"])
        self.lost = int(row["lost"])
        self.values = {
            "p50": int(row["p50_ns"]),
            "p99": int(row["p99_ns"]),
            "p999": int(row["p999_ns"]),
            "peak": int(row["peak_kb"]) / 1024,
            "seconds": self.seconds,
            "wakeups": int(row["switches"]) / self.seconds,
            "busy": float(row["processor_s"]) / self.seconds * 1e6,
        }
        if self.operations:
            each = 1 / self.operations
            self.values |= {"time": self.seconds * 1e9 * each,
                            "processor": float(row["processor_s"]) * 1e9 * each,
                            "switches": int(row["switches"]) * each}


class Results:
    def __init__(self, path):
        self.runs = collections.defaultdict(list)
        with open(path, encoding="ascii", newline="") as file:
            for row in csv.DictReader(file):
                self.runs[row["cell"], row["system"]].append(Run(row))

    def systems(self, cell):
        return [system for of, system in self.runs if of == cell]

    def values(self, cell, system, metric):
        """{round: value} of the rounds that have one."""
        return {run.round: run.values[metric] for run in self.runs.get((cell, system), [])
                if metric in run.values}

    def median(self, cell, system, metric):
        values = self.values(cell, system, metric).values()
        return statistics.median(values) if values else None

    def spread(self, cell, system, metric):
        values = self.values(cell, system, metric).values()
        return (min(values), max(values)) if values else None

    def lost(self, cell, system):
        return sum(run.lost for run in self.runs[cell, system])

    def sent(self, cell, system):
        return sum(run.operations + run.lost for run in self.runs[cell, system])

    def ratio(self, cell, system, metric, to_cell, to_system):
        """The ratio of the medians, and the least and the greatest ratio within one round; None
        where either was not measured."""
        ours = self.values(cell, system, metric)
        theirs = self.values(to_cell, to_system, metric)
        if not ours or not theirs or not all(theirs.values()):
            return None
        medians = statistics.median(ours.values()) / statistics.median(theirs.values())
        within = [ours[i] / theirs[i] for i in ours if i in theirs] or [medians]
        return medians, min(within), max(within)
