"""A bus that runs: what is going on now, for the page of --serve (serve.py, live.js)."""

# One thread reads the log and composes the figures, four times a second and only those that somebody
# looks at; the threads of the browsers hand on what it has composed.

import threading
import time
from collections import Counter, deque
from itertools import islice

from . import texts
from .dot import edges_of
from .model import BUS, KINDS, REFUSED
from .report import dumps
from .stats import Calls, Stats

LATEST = 10000  # messages that the page holds
RECENT = 10  # seconds that rates and times of calls are of
LINE = 120  # seconds of a topic's line, a point for each two
BEAT = 0.25  # seconds between two figures
FADED = 15000  # milliseconds after which a node that has left is no longer drawn
MANY = 5000  # topics, pairs and faults; of more, the oldest are forgotten
DRAWN, LISTED = 300, 500  # edges, and rows of a table


class Flow:
    """What goes over a topic or along an edge: how often, second by second, and the latest."""
    __slots__ = ('_counts', '_second', '_first', 'latest', 'gap', 'total', 'lost')

    def __init__(self, message):
        self._counts = [0] * (LINE + 2)
        self._second = self._first = message.ms // 1000
        self.latest, self.gap, self.total, self.lost = message, None, 0, Counter()

    def add(self, message):
        second = message.ms // 1000
        if second != self._second:
            self._roll(second)
        self._counts[second % (LINE + 2)] += 1
        if self.total and second >= self._first:
            gap = message.ms - self.latest.ms
            self.gap = gap if self.gap is None else 0.8 * self.gap + 0.2 * gap
        self.total += 1
        self.latest = message

    def _roll(self, second):
        if second < self._second - LINE:  # a clock was put back, or this one was wrong
            self._counts, self.gap = [0] * (LINE + 2), None
            self._second = self._first = second
        for empty in range(max(self._second, second - LINE - 2) + 1, second + 1):
            self._counts[empty % (LINE + 2)] = 0
        self._second = max(self._second, second)

    def line(self, second, seconds=LINE):
        """The counts of so many seconds, the last of which is second."""
        self._roll(second)
        return [self._counts[s % (LINE + 2)] for s in range(second - seconds + 1, second + 1)]

    def rate(self, second):
        """A second, over those that are over."""
        span = min(RECENT, second - self._first)
        return sum(self.line(second, span + 1)[:-1]) / span if span > 0 else self.line(second, 1)[0]

    def has_stopped(self, now):
        """Whether the next one is late, by what has been so far."""
        return self.gap is not None and now - self.latest.ms > max(1200, 3 * self.gap)


def _failed_edge(message):
    """The edge that a fault is on, or None."""
    call, cause = message.ref, message.cause
    if call is not None and call.kind == 'call':
        return ('call', call.src, call.dst)
    if cause in ('publish', 'publishSticky'):
        return ('publish', message.src, message.subject)
    return ('deliver', message.subject, message.dst) if cause == 'copy' else None


def row(message):
    """A message for the page."""
    payload = None if message.payload is None else texts.decoded(message.payload)
    return (message.number, message.ms, message.kind, message.src, message.dst, message.subject,
            payload, -1 if message.size is None else message.size,
            message.ref.number if message.ref is not None else 0, message.note or None,
            -1 if message.took is None else message.took)


def _number(value):
    return '{:,.0f}'.format(value) if value >= 100 else '{:.1f}'.format(value)


def _duration(ms):
    return '\u2013' if ms is None else texts.duration(ms)


def _table(title, header, items, row_of):
    """The rows of the first items: (key, class, cells)"""
    rows = [row_of(item) for item in items[:LISTED]]
    if len(items) > LISTED:
        rows.append(('', '', ('and {:,} more'.format(len(items) - LISTED),)))
    return title, header, rows


class Live:
    def __init__(self, view):
        self.view, self.matcher, self.state = view, view.matcher, 'reading'
        self.stats = Stats()
        self.recent = deque(maxlen=LATEST)
        self._took = deque()  # (second, Counter of milliseconds)
        self._flows = {}  # (kind, from, to) of the edges and ('topic', name)
        self._all = {}  # of all messages, and of all calls
        self._faults = deque(maxlen=200)
        self._latest = {}  # (kind, what): its fault
        self._fresh = self._unlisted = 0  # faults since the last beat; those that were too many
        self._clock = (0, 0.0)  # the time of the log's latest line, and when it was read
        self._next = 0.0
        # What the browsers' threads take, under changed:
        self.changed = threading.Condition()
        self.wanted = Counter()  # views that somebody looks at
        self.beat, self.figures = 0, {}
        self.rows = {'messages': deque(maxlen=LATEST), 'faults': ()}  # (version, text)

    # ---- what comes ----

    @staticmethod
    def _flow(flows, key, message):
        found = flows.get(key)
        if found is None:
            found = flows[key] = Flow(message)
        return found

    def add(self, message):
        kind = message.kind
        self.stats.add(message)
        self._flow(self._all, 'messages', message).add(message)
        if kind == 'call':
            self._flow(self._all, 'calls', message).add(message)
        elif kind == 'answer' and message.took is not None and message.ref.done not in REFUSED:
            if not self._took or self._took[-1][0] != message.ms // 1000:
                self._took.append((message.ms // 1000, Counter()))
            self._took[-1][1][message.took] += 1
        for key in edges_of(message):
            self._flow(self._flows, key, message).add(message)
            if key[0] == 'publish':
                self._flow(self._flows, ('topic', key[2]), message).add(message)
        if KINDS[kind]:
            self._add_fault(message)
        self.recent.append(message)

    def _add_fault(self, message):
        edge, what = _failed_edge(message), self.stats.what(message)
        if edge is not None:
            self._flow(self._flows, edge, message).lost[message.kind] += 1
        known = self._latest.get((message.kind, what))
        if known is not None and abs(message.ms - known['ms']) < 1000:
            known['count'] += 1
            known['version'] = message.number
        elif self._fresh >= 20:
            self._unlisted += 1
        else:
            self._fresh += 1
            self._faults.append({
                'id': message.number, 'version': message.number, 'ms': message.ms, 'count': 1,
                'what': what, 'row': row(message), 'story': self._story(message)})
            self._latest[(message.kind, what)] = self._faults[-1]

    def _story(self, message):
        """What led to a fault: what it belongs to, and what its nodes and its topic did before."""
        ends = {message.src, message.dst, message.subject} - {None, BUS}
        if message.kind == 'ring':
            ends.update(message.ring)
        story = {m.number: m for m in (message.ref, message.ref and message.ref.ref) if m is not None}
        for other in islice(reversed(self.recent), 300):
            if len(story) < 8 and not ends.isdisjoint((other.src, other.dst, other.subject)):
                story[other.number] = other
        return [row(story[number]) for number in sorted(story)]

    # ---- what is shown ----

    def compose(self):
        """The figures, where it is time for them."""
        begun = time.monotonic()
        if self.matcher.now // 1000 != self._clock[0]:
            self._clock = (self.matcher.now // 1000, begun)
        if begun < self._next:
            return
        self._next, self._fresh = begun + BEAT, 0
        now = self._clock[0] + int((begun - self._clock[1]) * 1000)
        self._forget()
        with self.changed:
            wanted = [view for view, count in self.wanted.items() if count]
        head = list(self._head(now))
        parts = {'graph': self._graph, 'topics': self._topics, 'calls': self._calls}
        figures = {view: dumps({'head': head, 'part': list(parts[view](now)) if view in parts else []})
                   for view in wanted}
        new, known = [], self.rows['messages']
        for message in reversed(self.recent) if 'messages' in wanted else ():
            if known and message.number <= known[-1][0]:
                break
            new.append((message.number, dumps(row(message))))
        faults = tuple((f['version'], dumps(f)) for f in self._faults) if 'faults' in wanted else ()
        with self.changed:
            known.extend(reversed(new))
            self.rows['faults'], self.figures = faults, figures
            self.beat += 1
            self.changed.notify_all()

    def _forget(self):
        """Of what is too much, the oldest; of topics and edges, those that have been still for longest."""
        stats, flows = self.stats, self._flows
        if len(flows) > MANY:
            for key in sorted(flows, key=lambda key: flows[key].latest.number)[:len(flows) - MANY]:
                del flows[key]
        if len(stats.topics) > MANY:
            stats.topics = {name: t for name, t in stats.topics.items() if ('topic', name) in flows}
        for table in (stats.calls, stats.faults, stats.seen, self._latest):
            while len(table) > MANY:
                del table[next(iter(table))]

    def _head(self, now):
        """(title, text, whether it is a fault)"""
        second, inputs, flows = now // 1000, self.view.inputs, self._all
        while self._took and abs(self._took[0][0] - second) > RECENT:
            self._took.popleft()
        calls = Calls()
        for _, took in self._took:
            calls.took.update(took)
        calls.answered = sum(calls.took.values())
        anew = self.matcher.anew or sum(tail.anew for tail in inputs.tails)
        behind = sum(tail.behind for tail in inputs.tails)
        skipped = inputs.pipe.skipped if inputs.pipe else 0
        yield '', ', '.join(text for text, says in (
            (self.state, True), ('{} behind'.format(texts.amount(behind)), behind > 100000),
            ('begun anew {} times'.format(anew), anew)) if says), False
        for title, key in (('messages a second', 'messages'), ('calls a second', 'calls')):
            yield title, _number(flows[key].rate(second) if key in flows else 0), False
        for title, share in (('p50', 0.5), ('p99', 0.99)):
            yield title, _duration(calls.percentile(share)), False
        faults = sum(n for kind, n in self.stats.kinds.items() if KINDS[kind])
        for title, number in (('faults', faults), ('faults not listed', self._unlisted),
                              ('lines not read in time', skipped)):
            if number or title == 'faults':
                yield title, '{:,}'.format(number), number > 0

    def _left(self):
        """When each node has left; None: it is there."""
        left = {}
        for process in self.matcher.processes.values():
            over = self.matcher.over(process)
            for key, node in process.nodes.items():
                name, when = self.matcher.text(key), over if node.left is None else node.left
                known = left.get(name, when)
                left[name] = None if when is None or known is None else max(when, known)
        return left

    def _graph(self, now):
        left, edges, names = self._left(), [], {}
        for key, flow in self._flows.items():
            if key[0] == 'topic':
                continue
            kind, src, dst = key
            nodes = {'publish': (src,), 'deliver': (dst,), 'call': (src, dst)}[kind]
            if all(left.get(name) is None or now - left[name] < FADED for name in nodes):
                lost = ''.join('; {} {}'.format(n, fault) for fault, n in flow.lost.items())
                rate = flow.rate(now // 1000)
                edges.append((kind, src, dst, rate, sum(flow.lost.values()), '{} a second, {} in all'
                              '{}'.format(_number(rate), flow.total, lost)))
                names.update((name, left.get(name) is not None) for name in nodes)
        more = max(len(edges) - DRAWN, 0)
        if more:
            edges = sorted(edges, key=lambda edge: (not edge[4], -edge[3]))[:DRAWN]
        return list(names.items()), edges, 'and {} more'.format(more) if more else ''

    def _topics(self, now):
        def row_of(item):
            (_, name), flow = item
            stats, line = self.stats.topics.get(name), flow.line(now // 1000 - 1)
            state = 'stopped' if flow.has_stopped(now) else 'last'
            ago = _duration((now - flow.latest.ms) // 100 * 100)
            return name, state, (
                name, _number(flow.rate(now // 1000)), texts.amount(flow.latest.size or 0),
                len(stats.subscribers) if stats else 0, '{} {} ago'.format(state, ago),
                [sum(line[i:i + 2]) for i in range(0, LINE, 2)], texts.payload_text(flow.latest))

        topics = [item for item in self._flows.items() if item[0][0] == 'topic']
        yield _table('', ('topic', '>a second', '>size', '>subscribers', 'state',
                          'the last two minutes', 'last payload'), topics, row_of)

    def _calls(self, now):
        def row_of(item):
            (caller, callee, address), calls = item
            times = [_duration(calls.percentile(share)) for share in (0.5, 0.99)]
            return '{} {} {}'.format(caller, callee, address), '', (
                caller, address, calls.made, calls.answered, *times, calls.refused or '',
                calls.faults['timeout'] or '')

        def wait_of(item):
            over, call = item
            return call.line, '', (call.src, call.subject, _duration(now - call.ms) if over is None
                                   else 'its process is silent since ' + texts.day_time(over))

        waits = [(self.matcher.over(process, thread.call), thread.call)
                 for process in self.matcher.processes.values()
                 for thread in process.threads.values() if thread.call is not None]
        waits = sorted((item for item in waits if self.view.passes(item[1])),
                       key=lambda item: (item[0] is not None, item[1].ms))
        yield _table('Under way', ('caller', 'address', '>for'), waits, wait_of)
        yield _table('By caller and address', (
            'caller', 'address', '>calls', '>answers', '>p50', '>p99', '>refused', '>timed out'),
            list(self.stats.calls.items()), row_of)
