"""From records to messages: which publication is delivered, and which call is answered."""

# Only what the log tells decides (publications.py, calls.py). Tables are bounded: what is no longer
# remembered is not matched, and shown so.

import re
from collections import OrderedDict, deque

from .calls import Calls
from .model import Message, Node, Thread, helper_of
from .patterns import PATTERNS
from .publications import SKEW, Publications
from .records import notice

MANY_PROCESSES = 16  # of others that have gone silent only the nodes are remembered
SILENT = 10000000  # microseconds without a line
MANY_NODES = 16384  # of those that have left, the first are forgotten
WAITING = 4096  # messages that wait for what may still change them


class Process(Publications, Calls):
    """The buses of one process. emit: takes each Message, in the order of the log."""

    def __init__(self, pid, emit, text, who):
        self.pid = pid
        self.emit = emit
        self.text = text  # from bytes to the text that is shown
        self.who = who  # the same for a node
        self.nodes = {}
        self.threads = {}
        self.alike = {}  # (topic, size, payload): Alike
        self.remembered = deque()  # keys of all that stands in alike, oldest first
        self.stickies = OrderedDict()
        self.waiting = {}  # what the bus says when it handles a call: the call
        self.ended = deque(maxlen=256)  # calls whose time was up
        self.gave_up = deque(maxlen=256)  # those of them that the bus had not handled before
        self.walk = None  # (call, nodes of the chain, its latest one as the log writes it)
        self.early = deque(maxlen=256)  # deliveries and calls taken without their origin so far
        self.traced = False  # whether there are traces, as at level 2
        self.verbose = False  # whether the bus's own traces are there, as at level 1
        self.untaken = {}  # (name, key): publications that the bus has not taken yet
        self.current = (None, b'', b'')  # what the bus handles: publication, its name, its url
        self.line = self.before = self.now = self.ms = 0  # before: of the line before, as now
        self.doubled = 0

    def end(self):
        """The bus is gone: nothing of it can be meant any more."""
        for table in (self.alike, self.remembered, self.stickies, self.waiting, self.early,
                      self.gave_up, self.ended, self.untaken):
            table.clear()
        self.walk, self.current = None, (None, b'', b'')

    def forget(self):
        """Keeps what the summary tells, and the calls that wait."""
        self.end()
        for node in self.nodes.values():
            node.forget()
        self.threads = {tid: t for tid, t in self.threads.items() if t.call is not None}

    def node(self, name):
        found = self.nodes.get(name)
        if found is None:
            found = self.nodes[name] = Node(name, self.ms)
        found.last = self.ms
        return found

    def left(self, name):
        self.node(name).leave(self.ms)
        if len(self.nodes) > MANY_NODES:
            gone = next((n for n, node in self.nodes.items() if node.left), name)
            del self.nodes[gone]

    def thread(self, tid):
        found = self.threads.get(tid)
        if found is None:
            if len(self.threads) >= 65536:
                self.threads.clear()
            found = self.threads[tid] = Thread()
        return found

    def message(self, kind, record, src, dst, subject=None, **more):
        who = self.who
        made = Message(self.line, self.now, record.ms, self.pid, record.tid, kind, who(src),
                       who(dst), self.text(subject), **more)
        self.emit(made)
        return made

    # ---- one record ----

    def take(self, record, line, now):
        self.line, self.before, self.now, self.ms = line, self.now, now, record.ms
        thread = self.thread(record.tid)
        if thread.unsent is not None:
            thread.unsent.sent = line
            thread.unsent = None
        if thread.handler is not None and not thread.handler.exact_end:
            thread.handler.end = thread.last
        thread.last = now
        if record.trace is None:
            self._text(record, thread)
        elif record.trace.server:
            self._server_trace(record, record.trace)
        else:
            self.traced = True
            self._abandon(thread, record)
            self._client_trace(record, record.trace, thread)

    def _text(self, record, thread):
        for pattern, handle in PATTERNS.get(record.unit, ()):
            m = pattern.fullmatch(record.text)
            if m:
                if handle is not None:
                    handle(self, record, thread, m)
                return
        if record.level in (b'W', b'E'):
            kind = 'warning' if record.level == b'W' else 'error'
            self.message(kind, record, None, None,
                         note=self.text(record.text.partition(b' ')[2] or record.text))

    def _abandon(self, thread, record):
        """A thread that goes on waits for no call any more."""
        call = thread.call
        if call is not None:
            thread.call = None
            if call.end is not None:  # its process was gone then
                record = record._replace(ms=call.end // 1000)
            self.end_call(call, record, 'unanswered', note='the log has no end of it')

    def _client_trace(self, record, trace, thread):
        handle = self.TRACES.get((trace.out, trace.action))
        if handle is not None:
            handle(self, record, trace, thread)

    TRACES = {
        (True, b'publish'): Publications._publish,
        (True, b'publishSticky'): Publications._publish,
        (True, b'removeSticky'): Publications._remove_sticky,
        (False, b'publish'): Publications._deliver,
        (True, b'request'): Calls._call,
        (False, b'request'): Calls._taken,
        (True, b'response'): Calls._respond,
    }


class Matcher:
    """All processes of the input. feed() and finish() yield messages, in order."""

    def __init__(self):
        self.processes = {}
        self._begun = 0  # when the latest of them has begun, as now
        self._latest = []  # of them, those that have not been made to forget
        self.line = 0
        self.now = 0  # microseconds: the millisecond, and the order of its lines
        self.lost_lines = 0
        self.anew = 0  # how often the log has been begun anew: what was before is gone
        self._doubled = 0
        self.first_ms = None
        self.last_ms = None
        self.levels = set()
        self._texts = {}
        self._whos = {}
        self.out = deque()
        self._number = 0
        self._doubling = self._was_doubled = False
        self._in_a_row = 0  # how often the latest record has come again

    @property
    def doubled(self):
        """How many lines were there twice."""
        return self._doubled + sum(process.doubled for process in self.processes.values())

    def text(self, name):
        """A name as it is shown; the same object for the same name."""
        if name is None or isinstance(name, str):
            return name
        found = self._texts.get(name)
        if found is None:
            if len(self._texts) > 20000:
                self._texts.clear()
            found = self._texts[name] = name.decode('utf-8', 'backslashreplace')
        return found

    def who(self, name):
        """A node as it is shown: a helper as the node that it calls for."""
        if name is None or isinstance(name, str):
            return name
        found = self._whos.get(name)
        if found is None:
            if len(self._whos) > 20000:
                self._whos.clear()
            found = self._whos[name] = self.text(helper_of(name) or name)
        return found

    def feed(self, record):
        if (record.again or self._doubling) and self._is_doubled(record):
            self._doubled += 1
            return
        if record.level == b'-':
            self._notice(record)
            return
        self.line += 1
        ms = record.ms
        if self.first_ms is None:
            self.first_ms = self.last_ms = ms
        elif ms > self.last_ms:
            self.last_ms = ms
        elif ms < self.first_ms:
            self.first_ms = ms
        self.levels.add(record.level)
        process = self.processes.get(record.pid)
        if process is None:
            process = self._begin(record.pid)
            self._begun = max(self._begun, ms * 1000)
        self.now = self.now + 1 if ms * 1000 <= self.now < ms * 1000 + 999 else ms * 1000
        process.take(record, self.line, self.now)

    def _begin(self, pid):
        """A process that was not there so far."""
        latest = self._latest
        while len(latest) >= MANY_PROCESSES:
            oldest = min(latest, key=lambda process: process.now)
            if oldest.now > self.now - SILENT:
                break
            oldest.forget()
            latest.remove(oldest)
        made = self.processes[pid] = Process(pid, self.out.append, self.text, self.who)
        latest.append(made)
        return made

    def over(self, process, call=None):
        """When the process, or that of the call, has written its last line, in milliseconds, if
        another has begun since and it has been silent; else None."""
        if call is not None and call.end is not None:
            return call.end // 1000
        is_over = process.now <= self._begun and process.now < self.now - SILENT
        return process.ms if is_over else None

    def ready(self, now=None):
        """Yields the messages that nothing to come can change; now None: all."""
        out = self.out
        while out and (now is None or out[0].ms < now - SKEW or len(out) > WAITING):
            message = out.popleft()
            if message.kind:
                self._number += 1
                message.number = self._number
                yield message

    def finish(self):
        """Yields the rest; calls that have no end among it."""
        for process in self.processes.values():
            over = self.over(process)
            for node in process.nodes.values() if over is not None else ():
                node.left = over if node.left is None else node.left
            for thread in process.threads.values():
                if thread.call is not None:
                    call, thread.call = thread.call, None
                    at = call.end or process.now
                    call.done, call.end = 'unanswered', at + 1
                    made = Message(process.line, at, at // 1000, process.pid, call.tid, 'unanswered',
                                   call.src, call.dst, call.subject, ref=call,
                                   note='not when the log of its process ends')
                    self.out.append(made)
        yield from self.ready()

    def _notice(self, record):
        lost, says, anew = notice(record)
        self.anew += anew
        self.lost_lines += lost
        if self.first_ms is None:
            self.first_ms = self.last_ms = record.ms
            self.now = record.ms * 1000
        if says:
            self.out.append(Message(self.line, self.now, self.last_ms, b'', b'', 'lost', None, None,
                                    None, note=says))
        for process in self.processes.values():  # nothing is certain to be in step any more
            for node in process.nodes.values():
                if says:
                    node.joined_line = None
                    node.received.clear()

    def _repeats(self, record):
        """Whether there can be two equal records of this kind in a row."""
        trace = record.trace
        if trace is not None:
            return trace.server or (trace.out, trace.action) in self.REPEATING
        return not self._ONCE.search(record.text)

    def _is_doubled(self, record):
        """Whether a record is the one before once more."""
        # One of which there can be two is, where the lines about it are doubled too.
        self._in_a_row = self._in_a_row + 1 if record.again else 0
        if not self._repeats(record):
            if record.again:
                self._doubling = self._was_doubled = True
                return True
            self._doubling, self._was_doubled = self._was_doubled, False
        return self._doubling and self._in_a_row % 2 == 1

    REPEATING = ((False, b'publish'), (False, b'killtimer'), (True, b'publishSticky'),
                 (True, b'removeSticky'))
    _ONCE = re.compile(rb'^client: 0x|^Vek-client .* call response, |^Vek-server .* node joined$')
