"""The summary in the terminal: first what went wrong."""

from . import texts
from .texts import amount, day_time, duration, safe

TITLES = (
    ('lost', 'Lines that the log has lost'),
    ('ring', 'Calls refused because they would have closed a ring'),
    ('drop', 'Messages dropped because a queue was full'),
    ('timeout', 'Calls whose time was up'),
    ('unanswered', 'Calls without an answer'),
    ('late', 'Answers that came too late'),
    ('nobody', 'Calls to nodes that are not on the bus'),
    ('refused', 'Nodes and calls refused'),
    ('error', 'Other errors'),
    ('warning', 'Other warnings'),
)

SHOWN = 8  # publishers and subscribers of a topic


def table(header, rows):
    """Lines; columns whose header begins with ">" are set to the right."""
    right = [title.startswith('>') for title in header]
    cells = [[title.lstrip('>') for title in header]] + [[safe(str(c)) for c in r] for r in rows]
    widths = [max(texts.columns(row[i]) for row in cells) for i in range(len(header))]
    widths = [min(width, 48) for width in widths]
    for row in cells:
        parts = []
        for cell, width, to_right in zip(row, widths, right):
            cell = texts.cut(cell, width)
            parts.append(cell.rjust(width) if to_right else texts.padded(cell, width))
        yield '  ' + '  '.join(parts).rstrip()


def counted(counter):
    """sampler 58, archive 2"""
    shown = ['{} {}'.format(safe(name), count) if count else safe(name)
             for name, count in counter.most_common(SHOWN)]
    more = ['and {} more'.format(len(counter) - SHOWN)] if len(counter) > SHOWN else []
    return ', '.join(shown + more) or '-'


class Summary:
    def __init__(self, matcher, stats, inputs, nodes, colour=False, rows=None):
        self.matcher = matcher
        self.stats = stats
        self.inputs = inputs
        self.nodes = nodes
        self.colour = colour
        self.rows = rows  # of a table, at most; None: all
        days = [ms // 86400000 for ms in (stats.first, stats.last) if ms is not None]
        self.clock = texts.clock if len(set(days)) < 2 else day_time

    def text(self):
        yield from self.head()
        yield from self._faults()
        for title, header, rows in self.tables():
            rows = list(rows)
            if rows:
                yield from self._title(title)
                yield from self._shortened(header, rows)
        yield from self._remarks()

    def tables(self):
        """(title, header, rows)"""
        yield 'Nodes', ('name', 'from', 'to', '>joined', '>timers', '>killed'), self.node_rows()
        yield ('Topics', ('topic', 'publishers', 'subscribers', '>messages', '>size', '>delivered',
                          '>dropped'), self.topic_rows())
        yield ('Calls', ('caller', 'address', '>calls', '>answers', '>refused', '>p50', '>p99',
                         '>longest', 'faults'), self.call_rows())

    def _title(self, text):
        yield ''
        yield '\x1b[1m{}\x1b[0m'.format(text) if self.colour else text

    def head(self):
        stats = self.stats
        yield '{} to {}, {}'.format(day_time(stats.first), self.clock(stats.last),
                                    duration(stats.last - stats.first))
        kinds = stats.kinds
        refused = sum(calls.refused for calls in stats.calls.values())
        yield '{} published, {} delivered, {} calls, {} answers'.format(
            kinds['publish'] + kinds['sticky'], kinds['deliver'], kinds['call'],
            kinds['answer'] - stats.refusals) + (', {} refused'.format(refused) if refused else '')
        if len(self.matcher.processes) > 1:
            yield '{} processes: {}'.format(
                len(self.matcher.processes),
                ', '.join(str(int(pid)) for pid in self.matcher.processes))

    def fault_groups(self):
        """(kind, title, number, [(what, Fault)]), the worst first."""
        for kind, title in TITLES:
            found = [(what, fault) for (k, what), fault in self.stats.faults.items() if k == kind]
            if found:
                found.sort(key=lambda entry: -entry[1].count)
                number = sum(fault.count for _, fault in found)
                if kind == 'lost':
                    number = self.matcher.lost_lines
                yield kind, title, number, found

    def _faults(self):
        groups = list(self.fault_groups())
        if not groups:
            yield from self._title('Nothing went wrong')
            return
        yield from self._title('What went wrong')
        for _, title, number, found in groups:
            line = '  {}: {}'.format(title, number)
            yield '\x1b[31m{}\x1b[0m'.format(line) if self.colour else line
            for what, fault in found[:self.rows]:
                when = self.clock(fault.first)
                if fault.count > 1:
                    when += ' to ' + self.clock(fault.last)
                yield '    {:>6} x  {}  ({})'.format(fault.count, safe(what), when)
            if self.rows and len(found) > self.rows:
                yield '    and {} more'.format(len(found) - self.rows)

    def node_rows(self):
        """(name, from, to, how often it joined, timers set, timers killed)"""
        for name, nodes in self.nodes:
            if name not in self.stats.seen or not any(n.joins or n.alive for n in nodes):
                continue
            clock, (first, last) = self.clock, self.stats.seen[name]
            joined = [n.joined for n in nodes if n.joined is not None]
            left = [n.left for n in nodes if n.joins] or [None]
            yield (name, clock(joined[0]) if joined else 'before ' + clock(first),
                   'after ' + clock(last) if None in left else clock(max(left)),
                   max(sum(node.joins for node in nodes), 1), sum(node.timers for node in nodes),
                   sum(node.killed for node in nodes))

    def topic_rows(self):
        for name, topic in sorted(self.stats.topics.items(), key=lambda e: -e[1].messages):
            yield (name, counted(topic.publishers), counted(topic.subscribers), topic.messages,
                   amount(topic.bytes), topic.delivered, topic.drops or '')

    def call_rows(self):
        for (caller, callee, address), calls in sorted(self.stats.calls.items(),
                                                       key=lambda e: -e[1].made):
            times = [calls.percentile(share) for share in (0.5, 0.99, 1)]
            faults = ', '.join('{} {}'.format(kind, n) for kind, n in calls.faults.items())
            yield (caller, address, calls.made, calls.answered, calls.refused or '',
                   *('-' if ms is None else duration(ms) for ms in times), faults)

    def _shortened(self, header, rows):
        yield from table(header, rows[:self.rows])
        if self.rows and len(rows) > self.rows:
            yield '  and {} more; --all shows them'.format(len(rows) - self.rows)

    def remarks(self):
        """What limits the picture."""
        matcher, stats = self.matcher, self.stats
        if matcher.levels and not matcher.levels & {b'D', b'V'}:
            yield 'The log has no lines of level 2, where the messages stand: only faults are shown.'
        if matcher.anew:
            yield 'The log has been begun anew {} times: what was before is not in it.'.format(
                matcher.anew)
        for kind, count in sorted(stats.unmatched.items()):
            yield '{} of kind "{}" without a certain origin.'.format(count, kind)
        doubled = matcher.doubled + self.inputs.doubled
        if doubled:
            yield '{} lines stood there twice, and count once.'.format(doubled)
        unread = sum(reader.unread for reader in self.inputs.readers)
        if unread:
            yield '{} lines of messages could not be read.'.format(unread)
        if self.inputs.strange:
            yield '{} lines are not of the log.'.format(self.inputs.strange)

    def _remarks(self):
        remarks = list(self.remarks())
        if remarks:
            yield from self._title('Remarks')
            yield from ('  ' + remark for remark in remarks)
