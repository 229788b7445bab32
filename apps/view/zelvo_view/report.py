"""The report: one HTML file, with its data, its style and its script in it."""

import base64
import hashlib
import html
import json
import os
import shutil
import subprocess
from array import array

from . import texts
from .dot import Graph
from .model import BUS, KINDS
from .sources import writing
from .stats import Stats, by_name
from .summary import Summary

_HERE = os.path.dirname(__file__)
_DRAWN = 400  # edges that Graphviz draws in reasonable time
_COLUMNS = ('time', 'kind', 'src', 'dst', 'subject', 'payload', 'size', 'ref', 'note', 'took')


class Interned(dict):
    """Gives each value a number, in the order of their coming."""

    def of(self, value):
        return -1 if value is None else self.setdefault(value, len(self))


class Messages:
    """The messages as columns of numbers: what the page draws from."""

    def __init__(self):
        self.columns = [array('q') for _ in _COLUMNS]
        self.kinds = {kind: number for number, kind in enumerate(KINDS)}
        self.names, self.subjects, self.payloads, self.notes = (Interned() for _ in range(4))
        self.names.of(BUS)
        self.first = None  # number of the first message
        self._rows = {}  # number: row, where a filter has left some out
        self._begin = 0

    def add(self, message):
        row = len(self.columns[0])
        if self.first is None:
            self.first, self._begin = message.number, message.ms
        if message.number != self.first + row or self._rows:
            self._rows[message.number] = row
        ref = message.ref
        origin = -1
        if ref is not None and ref.number >= self.first:
            origin = self.row_of(ref.number)
        took = message.took
        values = (message.ms - self._begin, self.kinds[message.kind], self.names.of(message.src),
                  self.names.of(message.dst), self.subjects.of(message.subject),
                  self.payloads.of(message.payload), -1 if message.size is None else message.size,
                  origin, self.notes.of(message.note or None), -1 if took is None else took)
        for column, value in zip(self.columns, values):
            column.append(value)

    def row_of(self, number):
        if number in self._rows:
            return self._rows[number]
        row = number - self.first
        limit = next(iter(self._rows.values()), len(self.columns[0]))  # rows grow in order
        return row if row < limit else -1

    def write(self, file):
        """The members of a JSON object."""
        kinds = [{'name': kind, 'fault': KINDS[kind]} for kind in self.kinds]
        file.write('"begin":{},"bus":0,"kinds":{}'.format(self._begin, dumps(kinds)))
        for title, found in (('names', self.names), ('subjects', self.subjects),
                             ('notes', self.notes)):
            file.write(',"{}":{}'.format(title, dumps(list(found))))
        file.write(',"payloads":[')
        separator = ''
        for payload in self.payloads:
            file.write(separator + dumps(texts.decoded(payload)))
            separator = ','
        file.write('],"columns":{')
        for number, (title, column) in enumerate(zip(_COLUMNS, self.columns)):
            file.write('{}"{}":['.format(',' if number else '', title))
            for start in range(0, len(column), 10000):
                file.write((',' if start else '') + ','.join(map(str, column[start:start + 10000])))
            file.write(']')
        file.write('}')


def dumps(value):
    """JSON that may stand in an element of HTML."""
    return json.dumps(value, separators=(',', ':')).replace('<', '\\u003c')


def _svg(graph):
    """The graph as Graphviz draws it, or '' where it does not."""
    program = shutil.which('dot')
    if program is None or len(graph.edges) > _DRAWN:
        return ''
    try:
        drawn = subprocess.run([program, '-Tsvg'], input='\n'.join(graph.text()).encode(),
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=60,
                               check=True).stdout.decode()
    except (OSError, subprocess.SubprocessError, UnicodeDecodeError):
        return ''
    return drawn[max(drawn.find('<svg'), 0):]


def _graph_table(graph):
    rows = [(kind, src, dst, count) for (kind, src, dst), count in graph.edges.most_common()]
    return {'title': '', 'header': ['what', 'from', 'to', '>times'], 'rows': _shortened(rows)}


def _shortened(rows, most=2000):
    more = len(rows) - most
    return rows if more <= 0 else rows[:most] + [('and {:,} more'.format(more),)]


def _overview(summary, row_of):
    """What the summary in the terminal tells, for the page."""
    wrong = []
    for _, title, number, found in summary.fault_groups():
        rows = [(what, fault.count, summary.clock(fault.first), row_of(fault.number))
                for what, fault in found[:200]]
        wrong.append({'title': title, 'number': number, 'rows': rows})
    tables = [{'title': title, 'header': header, 'rows': _shortened(list(rows))}
              for title, header, rows in summary.tables()]
    return {'head': list(summary.head()), 'wrong': wrong, 'tables': tables,
            'remarks': list(summary.remarks())}


def _hash(text):
    """A source of the page's policy: this text and no other."""
    digest = hashlib.sha256(text.encode()).digest()
    return "'sha256-{}'".format(base64.b64encode(digest).decode())


def _part(name):
    with open(os.path.join(_HERE, name), encoding='utf-8') as file:
        return file.read()


def page(title, graph='', names=('report',), policy=''):
    """The page up to its data, what follows, and its policy. names: of its styles and scripts."""
    style, script = (''.join(_part(name + ending) for name in names) for ending in ('.css', '.js'))
    policy = "default-src 'none'; img-src data:; style-src {}; script-src {}; base-uri 'none'; " \
        "form-action 'none'{}".format(_hash(style), _hash(script), policy)
    text = _part('report.html').replace('@POLICY@', policy).replace('@STYLE@', style)
    before, _, rest = text.partition('@TITLE@')
    between, _, rest = rest.partition('@GRAPH@')
    until, _, after = rest.partition('@DATA@')
    return (before + html.escape(title) + between + graph + until,
            after.replace('@SCRIPT@', script), policy)


def title_of(inputs):
    return 'Traffic of ' + ', '.join('standard input' if p == '-' else p for p in inputs.paths)


def run(view, path):
    """Writes the report to the file path; tells how many messages there were."""
    stats, found, graph = Stats(), Messages(), Graph()
    for message in view.messages():
        stats.add(message)
        found.add(message)
        graph.add(message)
    if not stats.messages:
        return 0
    summary = Summary(view.matcher, stats, view.inputs, by_name(view.matcher))
    overview = _overview(summary, found.row_of)
    overview.update(title=title_of(view.inputs), graph=_graph_table(graph))
    before, after, _ = page(overview['title'], _svg(graph))
    with writing(path) as file:
        file.write(before + dumps(overview)[:-1] + ',')
        found.write(file)
        file.write('}' + after)
    return stats.messages
