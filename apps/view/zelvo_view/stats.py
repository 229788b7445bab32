"""What the messages come to: nodes, topics, calls, faults."""

from collections import Counter

from .model import KINDS, REFUSED, helper_of


class Filter:
    """--node, --topic, --from, --to."""

    def __init__(self, nodes=(), topics=(), begin=None, end=None):
        self.nodes = frozenset(nodes)
        self.exact = frozenset(t for t in topics if '*' not in t)
        self.parts = [t.split('*') for t in topics if '*' in t]
        self.begin = begin
        self.end = end
        self.narrows = bool(self.nodes or topics or begin is not None or end is not None)

    def passes(self, message):
        if self.begin is not None and message.ms < self.begin:
            return False
        if self.end is not None and message.ms > self.end:
            return False
        if self.nodes and not (message.src in self.nodes or message.dst in self.nodes
                               or not self.nodes.isdisjoint(message.ring)):
            return False
        return not (self.exact or self.parts) or self._has_topic(message.subject)

    def _has_topic(self, subject):
        if subject is None:
            return False
        return subject in self.exact or any(_matches(subject, parts) for parts in self.parts)


def _matches(text, parts):
    """Whether text is the parts with anything between them."""
    first, last = parts[0], parts[-1]
    if not text.startswith(first) or not text.endswith(last) or len(text) < len(first) + len(last):
        return False
    position, stop = len(first), len(text) - len(last)
    for part in parts[1:-1]:
        position = text.find(part, position, stop)
        if position < 0:
            return False
        position += len(part)
    return True


class Topic:
    def __init__(self):
        self.publishers = Counter()
        self.subscribers = Counter()
        self.messages = self.bytes = self.delivered = self.drops = 0


class Calls:
    """Those of one caller to one address."""

    def __init__(self):
        self.made = self.answered = 0
        self.faults = Counter()
        self.took = Counter()  # milliseconds: how many

    @property
    def refused(self):
        return sum(self.faults[kind] for kind in REFUSED)

    def percentile(self, share):
        """The time within which that share of the answers came; None: there was none."""
        rank = share * self.answered
        passed = 0
        for ms in sorted(self.took):
            passed += self.took[ms]
            if passed >= rank:
                return ms
        return None


class Fault:
    """Faults of one kind that are alike."""

    def __init__(self, message):
        self.first = self.last = message.ms
        self.number = message.number  # of the first
        self.count = 0


class Stats:
    def __init__(self):
        self.messages = 0
        self.kinds = Counter()
        self.topics = {}
        self.calls = {}  # (caller, callee, address): Calls
        self.faults = {}  # (kind, what): Fault
        self.seen = {}  # node: [first, last]
        self.unmatched = Counter()
        self.refusals = 0  # answers by which the bus has refused a call
        self.first = self.last = None

    def add(self, message):
        kind, ms = message.kind, message.ms
        self.messages += 1
        self.kinds[kind] += 1
        if self.first is None or ms < self.first:
            self.first = ms
        if self.last is None or ms > self.last:
            self.last = ms
        handle = self._HANDLERS.get(kind)
        if handle is not None:
            handle(self, message)
        if KINDS[kind]:
            self._add_fault(message)
        elif message.uncertain:
            self.unmatched[kind] += 1
        for name in (message.src, message.dst):
            if name is not None:
                span = self.seen.get(name)
                if span is None:
                    self.seen[name] = [ms, ms]
                elif ms > span[1]:
                    span[1] = ms

    def _topic(self, name):
        found = self.topics.get(name)
        if found is None:
            found = self.topics[name] = Topic()
        return found

    def _publish(self, message):
        topic = self._topic(message.subject)
        topic.publishers[message.src] += 1
        topic.messages += 1
        topic.bytes += message.size or 0

    def _deliver(self, message):
        topic = self._topic(message.subject)
        topic.subscribers[message.dst] += 1
        topic.delivered += 1
        if message.src == 'bus':
            topic.publishers['bus'] += 0

    def _drop(self, message):
        if message.cause in ('copy', 'publish', 'publishSticky'):
            self._topic(message.subject).drops += 1

    def _calls(self, caller, callee, address):
        key = (caller, callee, address)
        found = self.calls.get(key)
        if found is None:
            found = self.calls[key] = Calls()
        return found

    def _call(self, message):
        self._calls(message.src, message.dst, message.subject).made += 1

    def _answer(self, message):
        call = message.ref
        if call is not None and call.done in REFUSED:
            self.refusals += 1
            return
        if message.took is None:
            return
        calls = self._calls(call.src, call.dst, call.subject)
        calls.answered += 1
        calls.took[message.took] += 1

    def _add_fault(self, message):
        kind = message.kind
        what = self.what(message)
        fault = self.faults.get((kind, what))
        if fault is None:
            fault = self.faults[(kind, what)] = Fault(message)
        fault.count += 1
        fault.last = max(fault.last, message.ms)
        if message.ref is not None and message.ref.kind == 'call':
            call = message.ref
            self._calls(call.src, call.dst, call.subject).faults[kind] += 1

    @staticmethod
    def what(message):
        kind, subject = message.kind, message.subject or ''
        if kind == 'drop':
            return message.note + (', ' + subject if subject else '')
        if kind in ('ring', 'warning', 'error', 'lost'):
            return message.note
        if kind == 'refused':
            return '{}: {}'.format(message.src, message.note)
        return '{} -> {}'.format(message.src or '?', subject or message.dst or '?')

    _HANDLERS = {'publish': _publish, 'sticky': _publish, 'deliver': _deliver, 'drop': _drop,
                 'call': _call, 'answer': _answer}


def by_name(matcher):
    """(name, nodes): all nodes, those of one name together, in the order they were first seen."""
    found = {}
    for process in matcher.processes.values():
        for name, node in process.nodes.items():
            if helper_of(name) in (None, name):
                found.setdefault(matcher.text(name), []).append(node)
    return sorted(found.items(), key=lambda e: min(n.first for n in e[1]))
