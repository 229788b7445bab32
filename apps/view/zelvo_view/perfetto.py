"""A trace in Chrome's event format, for Perfetto and chrome://tracing."""

# A node is a process of the trace, and its threads are the node's tracks: what one thread does nests,
# what several do may overlap. Times are the log's milliseconds; within one, the log's order takes the
# place of microseconds.

import json

from . import texts
from .model import BUS, KINDS, REFUSED


def _args(message):
    found = {'number': message.number}
    if message.size is not None:
        found['bytes'] = message.size
    if message.payload is not None:
        found['payload'] = texts.safe(texts.decoded(message.payload))
    if message.note:
        found['note'] = message.note
    return found


class Trace:
    def __init__(self, emit, last):
        self._emit = emit
        self._last = last  # when the log ends
        self._nodes = {}  # name: number
        self._tracks = set()
        self._flows = 0

    def _track(self, name, tid):
        """(pid, tid) of the trace."""
        number = self._nodes.get(name)
        if number is None:
            number = self._nodes[name] = len(self._nodes) + 1
            self._emit({'ph': 'M', 'name': 'process_name', 'pid': number, 'tid': 0,
                        'args': {'name': name}})
            self._emit({'ph': 'M', 'name': 'process_sort_index', 'pid': number, 'tid': 0,
                        'args': {'sort_index': number}})
        track = (number, int(tid or 0))
        if track not in self._tracks:
            self._tracks.add(track)
            self._emit({'ph': 'M', 'name': 'thread_name', 'pid': track[0], 'tid': track[1],
                        'args': {'name': '{}, thread {}'.format(name, track[1])}})
        return track

    def _slice(self, track, name, category, begin, end, args):
        self._emit({'ph': 'X', 'name': name, 'cat': category, 'pid': track[0], 'tid': track[1],
                    'ts': begin, 'dur': max(end - begin, 1), 'args': args})

    def _arrow(self, category, *points):
        """An arrow through points of slices: (track, time)."""
        self._flows += 1
        for phase, (track, at) in zip(('s',) + ('t',) * (len(points) - 2) + ('f',), points):
            event = {'ph': phase, 'name': category, 'cat': category, 'id': self._flows,
                     'pid': track[0], 'tid': track[1], 'ts': at}
            if phase == 'f':
                event['bp'] = 'e'
            self._emit(event)

    def add(self, message):
        handle = self._HANDLERS.get(message.kind)
        if handle is not None:
            handle(self, message)
        if KINDS[message.kind]:
            track = self._track(message.src or message.dst or BUS, message.tid)
            self._emit({'ph': 'i', 's': 'p', 'name': message.kind, 'cat': 'fault', 'pid': track[0],
                        'tid': track[1], 'ts': message.at, 'args': _args(message)})

    def _published(self, message):
        track = self._track(message.src, message.tid)
        self._slice(track, 'publish ' + (message.subject or ''), 'publish', message.at,
                    message.at + 1, _args(message))

    def _delivered(self, message):
        track = self._track(message.dst, message.tid)
        args = _args(message)
        args['from'] = message.src
        if not message.exact_end:
            args['end'] = 'at the earliest'
        self._slice(track, message.subject or '', 'deliver', message.at, message.end or message.at,
                    args)
        origin = message.ref
        if origin is not None:
            self._arrow('publication', (self._track(origin.src, origin.tid), origin.at),
                        (track, message.at))

    def _called(self, message):
        if message.done == 'unmatched':  # its caller is unknown: the handler alone
            self._slice(self._track(message.dst, message.tid), message.subject, 'handler',
                        message.at, message.end or message.at, _args(message))
            return
        track = self._track(message.src, message.tid)
        end = message.end or self._last
        args = _args(message)
        args['ended'] = message.done or 'unanswered'
        self._slice(track, 'call ' + message.subject, 'call', message.at, end, args)
        points = [(track, message.at)]
        if message.handler is not None:
            tid, begin, handled = message.handler
            callee = self._track(message.dst, tid)
            self._slice(callee, message.subject, 'handler', begin,
                        handled or (end if message.done == 'unanswered' else self._last),
                        {'from': message.src})
            points.append((callee, begin))
        if message.done in ('answer', *REFUSED) and message.end is not None:
            self._slice(track, 'answer', 'answer', end - 1, end, {})
            points.append((track, end - 1))
        if len(points) > 1:
            self._arrow('call', *points)

    _HANDLERS = {'publish': _published, 'sticky': _published, 'deliver': _delivered,
                 'call': _called}


def run(view, path):
    """Writes the trace to the file path; tells how many messages there were."""
    from .sources import writing
    messages = list(view.messages())
    if not messages:
        return 0
    encode = json.JSONEncoder(check_circular=False).encode
    with writing(path) as file:
        file.write('{"displayTimeUnit":"ms","traceEvents":[\n')
        separator = ''

        def emit(event):
            nonlocal separator
            file.write(separator + encode(event))
            separator = ',\n'

        trace = Trace(emit, view.matcher.now + 1)
        for message in messages:
            trace.add(message)
        file.write('\n]}\n')
    return len(messages)
