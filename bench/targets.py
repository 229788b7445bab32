"""What Zelvo is to reach, as ratios of medians within one run or as figures; lower is better."""

OURS = "Zelvo"
FACE = "Zelvo C++"
TYPED = "Zelvo C++ typed"
BYTES = "Zelvo C++ bytes"
HAND, BROKER, DIRECT = "hand-written", "ZeroMQ broker", "ZeroMQ direct"
ROUTED = [HAND, "GLib queues", BROKER]
PEERS = [HAND, "GLib queues", BROKER, DIRECT, "nng direct"]

# what, metric, Zelvo's cell, [(system, cell), ...], limit; with "best" the quickest of them counts.
TARGETS = [
    ("call among 2 nodes", "time", "call-2", [(HAND, "call-2")], 0.2),
    ("call among 2 nodes", "time", "call-2", [(BROKER, "call-2")], 0.11),
    ("call among 2 nodes", "time", "call-2", [(DIRECT, "call-2")], 0.22),
    ("call among 2 nodes", "time", "call-2", [("limit", "call-2")], 1.4),
    ("call among 2,000 nodes", "time", "call-2000", [(OURS, "call-2")], 1.1),
    ("publish to one", "time", "publish-64", [(HAND, "publish-64")], 0.2),
    ("publish to one", "time", "publish-64", [(BROKER, "publish-64")], 0.2),
    ("publish to one", "time", "publish-64", [(DIRECT, "publish-64")], 0.35),
    ("publish to one", "time", "publish-64", [("limit", "publish-64")], 1.4),
    *[(what + ", best peer", "time", cell, [(peer, cell) for peer in PEERS], 0.35)
      for what, cell in (("publish from 4 to one", "publish-4-to-1"),
                         ("publish in 4 pairs", "publish-4-pairs"))],
    *[("latency at 1 kHz, " + metric, metric, "latency-1k", [(peer, "latency-1k")], 1.0)
      for metric in ("p50", "p99") for peer in ROUTED],
    *[("latency at 1 kHz, p50", "p50", "latency-1k", [(reference, "latency-1k")], limit)
      for reference, limit in ((DIRECT, 1.0), ("limit", 1.4))],
    *[(f"fan-out to {count}, best peer", "time", f"fanout-{count}",
       [(peer, f"fanout-{count}") for peer in PEERS], limit)
      for count, limit in ((8, 0.15), (64, 0.2), (256, 0.2))],
    ("growth from 10 to 2,000 others", "time", "growth-2000", [(OURS, "growth-10")], 1.2),
    ("one core: call", "time", "call-1-core", [(HAND, "call-1-core")], 0.75),
    ("one core: call", "time", "call-1-core", [(BROKER, "call-1-core")], 0.25),
    ("one core: call", "time", "call-1-core", [("limit", "call-1-core")], 1.4),
    ("one core: publish", "time", "publish-1-core", [(DIRECT, "publish-1-core")], 0.8),
    ("call to a node with 1 timer", "time", "call-timers-1", [(OURS, "call-timers-0")], 1.1),
    ("call to a node with 1,000 timers", "time", "call-timers-1000", [(OURS, "call-timers-0")],
     1.1),
    ("a line of the log into a file", "processor", "log-line", [("spdlog", "log-line")], 0.8),
    ("a line of the log into a file", "processor", "log-line", [("write(2)", "log-line")], 1.6),
    ("call over MQTT", "time", "mqtt-call", [("libmosquitto", "mqtt-call")], 1.15),
    ("publish over MQTT", "time", "mqtt-publish", [("libmosquitto", "mqtt-publish")], 1.15),
    ("peak memory of 2,000 nodes", "peak", "memory-2000", [(HAND, "memory-2000")], 1.0),
    ("peak memory of 2,000 nodes, no notices", "peak", "memory-2000-quiet",
     [(HAND, "memory-2000-quiet")], 1.0),
]
# The same of the C++ header.
FACE_TARGETS = [
    ("call through the C++ header", "time", "call-2", [(OURS, "call-2")], 1.05),
    ("publish through the C++ header", "time", "publish-64", [(OURS, "publish-64")], 1.05),
]
# What a typed topic adds to a handler that copies the bytes of its struct itself.
TYPED_TARGETS = [
    ("publish a struct of 64 bytes", "time", "publish-64", [(BYTES, "publish-64")], 1.02),
]
# What is compared with nothing: what, system, cell, metric, factor from it to the figure, limit.
# Wake-ups count by the worst round, all else by the median.
ABSOLUTE = [
    ("16 asynchronous calls of 1 ms through the C++ header, ms", FACE, "async-16", "time", 1e-6,
     2.5),
    ("idle without timers: wake-ups a second", OURS, "idle-timers-0", "wakeups", 1, 0),
    ("context switches a publication", OURS, "publish-64", "switches", 1, 0.02),
    ("starting 2,000 nodes with their threads, s", OURS, "memory-2000", "seconds", 1, 5),
]


def judged(results):
    """(what, compared with, limit, ratio or None, reached or None) of every target."""
    targets = [(OURS, *target) for target in TARGETS]
    targets += [(FACE, *target) for target in FACE_TARGETS]
    targets += [(TYPED, *target) for target in TYPED_TARGETS]
    for ours, what, metric, cell, references, limit in targets:
        measured = [(results.median(of, system, metric), system, of) for system, of in references]
        measured = [entry for entry in measured if entry[0]]
        if not measured:
            yield what, references[0][0], limit, None, None
            continue
        _, system, of = min(measured)
        ratio = results.ratio(cell, ours, metric, of, system)
        name = system if of == cell else f"{system} {of}"
        # "Below" every routed peer, where equal is allowed elsewhere.
        strict = cell == "latency-1k" and system in ROUTED
        reached = None if ratio is None else ratio[0] < limit if strict else ratio[0] <= limit
        yield what, name, limit, ratio, reached


def absolute(results):
    """(what, limit, figure or None, reached or None) of every target that is compared with
    nothing."""
    for what, system, cell, metric, factor, limit in ABSOLUTE:
        spread = results.spread(cell, system, metric)
        if spread is None:
            yield what, limit, None, None
            continue
        value = spread[1] if metric == "wakeups" else results.median(cell, system, metric)
        yield what, limit, value * factor, value * factor <= limit
