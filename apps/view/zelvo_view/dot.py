"""Who talks to whom, as a graph for Graphviz."""

from collections import Counter

from . import texts
from .model import BUS, KINDS


def quoted(text):
    """Any text as a string of the language, which shows it as it stands."""
    text = texts.safe(text).replace('\\', '\\\\').replace('"', '\\"').replace('&', '&amp;')
    return '"{}"'.format(text)


def edges_of(message):
    """(kind, from, to) of each edge that a message goes along."""
    kind, src, dst, subject = message.kind, message.src, message.dst, message.subject
    if kind in ('publish', 'sticky'):
        return (('publish', src, subject),)
    if kind == 'deliver':
        delivered = ('deliver', subject, dst)
        return (delivered, ('publish', src, subject)) if src == BUS else (delivered,)
    return (('call', src, dst),) if kind == 'call' else ()


class Graph:
    """Nodes, topics, and counts between them."""

    def __init__(self):
        self.nodes = {}  # in the order of their first message
        self.topics = {}
        self.edges = Counter()  # (kind, from, to): how often
        self.addresses = {}  # (caller, callee): Counter of addresses

    def add(self, message):
        kind, src, dst, subject = message.kind, message.src, message.dst, message.subject
        for name in (src, dst):
            if name is not None:
                self.nodes.setdefault(name, None)
        for edge in edges_of(message):
            self.edges[edge] += 1
            if edge[0] == 'call':
                self.addresses.setdefault((src, dst), Counter())[subject] += 1
            else:
                self.topics.setdefault(subject, None)
        if KINDS[kind] and src is not None and dst is not None:
            self.edges[('fault ' + kind, src, dst)] += 1

    def text(self):
        """The graph, line by line."""
        yield 'digraph zelvo {'
        yield '  rankdir=LR; bgcolor="white"; nodesep=0.25; ranksep=0.9;'
        yield '  node [fontname="Helvetica", fontsize=11]; edge [fontname="Helvetica", fontsize=9];'
        names = {name: 'n{}'.format(i) for i, name in enumerate(self.nodes)}
        topics = {name: 't{}'.format(i) for i, name in enumerate(self.topics)}
        for name, made in names.items():
            yield '  {} [shape=box, style="rounded,filled", fillcolor="#dbe9f6", label={}];'.format(
                made, quoted(name))
        for name, made in topics.items():
            yield '  {} [shape=ellipse, style=filled, fillcolor="#eef5e6", label={}];'.format(
                made, quoted(name or ''))
        for (kind, src, dst), count in self.edges.items():
            start = topics[src] if kind == 'deliver' else names[src]
            end = topics[dst] if kind == 'publish' else names[dst]
            yield '  {} -> {} [{}];'.format(start, end, self._look(kind, src, dst, count))
        yield '}'

    def _look(self, kind, src, dst, count):
        if kind in ('publish', 'deliver'):
            return 'label="{}", color="#5b8a3a"'.format(count)
        if kind == 'call':
            addresses = self.addresses[(src, dst)]
            shown = '{} x {}'.format(count, addresses.most_common(1)[0][0])
            if len(addresses) > 1:
                shown = '{} calls, {} addresses'.format(count, len(addresses))
            return 'label={}, color="#2f6fb0", style=bold'.format(quoted(shown))
        return 'label="{} {}", color="#c0392b", fontcolor="#c0392b", style=dashed'.format(
            kind[len('fault '):], count)


def run(view):
    graph = Graph()
    count = 0
    for message in view.messages():
        graph.add(message)
        count += 1
    if count:
        for line in graph.text():
            print(line)
    return count
