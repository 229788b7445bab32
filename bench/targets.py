"""What Zelvo is to reach, as ratios of medians within one run; lower is better."""

OURS = "Zelvo"
FACE = "Zelvo C++"
HAND, BROKER, DIRECT = "hand-written", "ZeroMQ broker", "ZeroMQ direct"
ROUTED = [HAND, "GLib queues", BROKER]
PEERS = [HAND, "GLib queues", BROKER, DIRECT, "nng direct"]

# what, metric, Zelvo's cell, [(system, cell), ...], limit; with "best" the quickest of them counts.
TARGETS = [
    ("call among 2 nodes", "time", "call-2", [(HAND, "call-2")], 0.2),
    ("call among 2 nodes", "time", "call-2", [(BROKER, "call-2")], 0.12),
    ("call among 2 nodes", "time", "call-2", [(DIRECT, "call-2")], 0.25),
    ("call among 2 nodes", "time", "call-2", [("limit", "ring-spin")], 1.4),
    ("call among 2,000 nodes", "time", "call-2000", [(OURS, "call-2")], 1.1),
    ("publish to one", "time", "publish-64", [(HAND, "publish-64")], 0.25),
    ("publish to one", "time", "publish-64", [(BROKER, "publish-64")], 0.25),
    ("publish to one", "time", "publish-64", [(DIRECT, "publish-64")], 0.35),
    *[("latency at 1 kHz, " + metric, metric, "latency-1k", [(peer, "latency-1k")], 1.0)
      for metric in ("p50", "p99") for peer in ROUTED],
    ("latency at 1 kHz, p50", "p50", "latency-1k", [(DIRECT, "latency-1k")], 1.25),
    *[(f"fan-out to {count}, best peer", "time", f"fanout-{count}",
       [(peer, f"fanout-{count}") for peer in PEERS], 0.2) for count in (8, 64, 256)],
    ("growth from 10 to 2,000 others", "time", "growth-2000", [(OURS, "growth-10")], 1.2),
    ("one core: call", "time", "call-1-core", [(HAND, "call-1-core")], 0.75),
    ("one core: call", "time", "call-1-core", [(BROKER, "call-1-core")], 0.35),
    ("one core: publish", "time", "publish-1-core", [(DIRECT, "publish-1-core")], 0.8),
    ("call to a node with 1 timer", "time", "call-timers-1", [(OURS, "call-timers-0")], 1.1),
    ("call to a node with 1,000 timers", "time", "call-timers-1000", [(OURS, "call-timers-0")],
     1.1),
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
ASYNC_LIMIT_MS = 2.5  # 16 calls under way at once to nodes that take 1 ms


def judged(results):
    """(what, compared with, limit, ratio or None, reached or None) of every target."""
    targets = [(OURS, *target) for target in TARGETS]
    targets += [(FACE, *target) for target in FACE_TARGETS]
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
        strict = cell == "latency-1k" and limit == 1.0
        reached = None if ratio is None else ratio[0] < limit if strict else ratio[0] <= limit
        yield what, name, limit, ratio, reached


def async_milliseconds(results):
    """How long 16 asynchronous calls take; None where there is no run."""
    time = results.median("async-16", FACE, "time")
    return None if time is None else time * 1e-6


def idle_wakeups(results):
    """The most wake-ups a second of an idle bus without timers, of all rounds; None where there is
    no run."""
    spread = results.spread("idle-timers-0", OURS, "wakeups")
    return None if spread is None else spread[1]
