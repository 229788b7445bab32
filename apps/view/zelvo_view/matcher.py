"""From records to messages: which delivery belongs to which publication, which answer to which call.

Only what the log tells decides. A thread that calls waits for its answer, so the two are lines of
one thread. The bus tells which call it hands on (its walk along the callers), and each node takes
its messages in order. A delivery does not name its publisher: it belongs to a publication with the
same topic, length and payload that the node has not received yet. Of several such ones it is the
first, as long as that one was certainly sent first and nothing has been lost; otherwise the
delivery keeps the publisher that they have in common, or none.

Tables are bounded: what is no longer remembered is not matched, and shown so.
"""

import json
from collections import OrderedDict, deque

from .model import BUS, UNKNOWN, Alike, Message, Node, Thread
from .patterns import PATTERNS
from .records import notice

REMEMBERED = 16384  # publications of a process that may still be delivered
MANY_NODES = 16384  # of those that have left, the first are forgotten
WAITING = 4096  # messages that wait for what may still change them
SKEW = 2  # milliseconds that lines of two threads may be out of order


def topics_of(text):
    """The topics in the JSON array of a subscription; None: it cannot be read."""
    try:
        found = json.loads(text.decode('utf-8', 'surrogateescape'), strict=False)
        return [t.encode('utf-8', 'surrogateescape') for t in found if isinstance(t, str)]
    except (ValueError, TypeError, AttributeError):
        return None


def host_of(url):
    """The host of an address, None where it has none; BUS or b'localKeys' for the bus itself."""
    slash = url.find(b'/', 2)
    host = url[1:slash]
    if slash < 0 or len(host) > 127:
        return None
    if b'bus'.startswith(host):
        return b'bus'
    return b'localKeys' if b'localKeys'.startswith(host) else host


class Process:
    """The buses of one process. emit: takes each Message, in the order of the log."""

    def __init__(self, pid, emit, text):
        self.pid = pid
        self.emit = emit
        self.text = text  # from bytes to the text that is shown
        self.nodes = {}
        self.threads = {}
        self.alike = {}  # (topic, size, payload): Alike
        self.remembered = deque()  # keys of all that stands in alike, oldest first
        self.stickies = OrderedDict()
        self.waiting = {}  # what the bus says when it handles a call: the call
        self.ended = deque(maxlen=256)  # calls whose time was up
        self.gave_up = deque(maxlen=256)  # those of them that the bus had not handled before
        self.walk = None  # (call, nodes of the chain, what the next link begins with and all end with)
        self.early = deque(maxlen=256)  # deliveries and calls taken without their origin so far
        self.verbose = False  # whether the bus's own traces are there, as at level 1
        self.untaken = {}  # (name, key): publications that the bus has not taken yet
        self.current = (None, b'', b'')  # what the bus handles: publication, its name, its url
        self.line = self.now = self.ms = 0
        self.doubled = 0

    def end(self):
        """The bus is gone: nothing of it can be meant any more."""
        for table in (self.alike, self.remembered, self.stickies, self.waiting, self.early,
                      self.gave_up, self.ended, self.untaken):
            table.clear()
        self.walk, self.current = None, (None, b'', b'')

    def node(self, name):
        found = self.nodes.get(name)
        if found is None:
            found = self.nodes[name] = Node(name, self.ms)
        found.last = self.ms
        return found

    def left(self, name):
        self.node(name).leave(self.ms)
        if len(self.nodes) > MANY_NODES:
            gone = next((n for n, node in self.nodes.items() if node.spans and node.spans[-1][1]), name)
            del self.nodes[gone]

    def thread(self, tid):
        found = self.threads.get(tid)
        if found is None:
            if len(self.threads) >= 65536:
                self.threads.clear()
            found = self.threads[tid] = Thread()
        return found

    def message(self, kind, record, src, dst, subject=None, **more):
        name = self.text
        made = Message(self.line, self.now, record.ms, self.pid, record.tid, kind, name(src), name(dst),
                       name(subject), **more)
        self.emit(made)
        return made

    # ---- one record ----

    def take(self, record, line, now):
        self.line, self.now, self.ms = line, now, record.ms
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
            self.end_call(call, record, 'unanswered', note='the log has no end of it')

    def _client_trace(self, record, trace, thread):
        handle = self.TRACES.get((trace.out, trace.action))
        if handle is not None:
            handle(self, record, trace, thread)

    # ---- publications ----

    def _publish(self, record, trace, thread):
        self.node(trace.name).alive = True
        kind = 'publish' if trace.action == b'publish' else 'sticky'
        made = self.message(kind, record, trace.name, None, trace.topic, payload=trace.payload,
                            size=trace.size)
        thread.unsent = thread.published = made
        key = made.key = (trace.topic, trace.size, trace.payload, trace.absent)
        if kind == 'sticky':
            self._keep_sticky(trace.topic, made)
        if trace.size is None:
            return
        alike = self.alike.get(key)
        if alike is None:
            alike = self.alike[key] = Alike()
        alike.items.append(made)
        self.remembered.append(key)
        if len(self.remembered) > REMEMBERED:
            self._forget()
        if self.verbose:
            if len(self.untaken) > 65536:  # lines of the bus are missing
                self.untaken.clear()
            self.untaken.setdefault((trace.name, key), deque(maxlen=4096)).append(made)
        if self.early:
            self._adopt(made)

    def _forget(self):
        key = self.remembered.popleft()
        alike = self.alike[key]
        alike.items.popleft()
        alike.base += 1
        if not alike.items:
            del self.alike[key]

    def _keep_sticky(self, topic, made):
        self.stickies.pop(topic, None)
        self.stickies[topic] = made
        if len(self.stickies) > 4096:
            self.stickies.popitem(last=False)

    def _remove_sticky(self, record, trace, thread):
        topics = topics_of(trace.payload or b'')
        if topics is None:
            self.stickies.clear()
        for topic in topics or ():
            self.stickies.pop(topic, None)
        self.message('unstick', record, trace.name, BUS,
                     b', '.join(topics) if topics else None, payload=trace.payload, size=trace.size)

    def _deliver(self, record, trace, thread):
        node = self.node(trace.name)
        node.alive = True
        key = (trace.topic, trace.size, trace.payload, trace.absent)
        made = Message(self.line, self.now, record.ms, self.pid, record.tid, 'deliver', None,
                       self.text(trace.name), self.text(trace.topic), trace.payload, trace.size)
        made.key = key
        if self._by_post(node, made, key) or self._by_content(node, made, key):
            pass
        elif trace.topic in (b'bus.event', b'bus.error') and (trace.payload or b'{')[:1] == b'{':
            made.src = BUS
        elif record.again:  # one publication, two equal lines
            self.doubled += 1
            return
        else:
            made.src, made.note = UNKNOWN, 'its publication is not in the log'
            self.early.append((made, node))
        thread.handler = made
        self.emit(made)

    @staticmethod
    def _by_post(node, made, key):
        """Level 1: the bus has told what it has put into the node's queue, in order."""
        for index, post in enumerate(node.posts):
            if post[0] == key:
                for _ in range(index + 1):
                    node.posts.popleft()
                made.src, made.ref = post[2], post[1]
                if made.ref is None and made.src != BUS:
                    made.note = 'its publication is not in the log'
                return True
        return False

    def _by_content(self, node, made, key):
        topic = key[0]
        replay = node.replay.pop(topic, None)
        if replay is not None and replay.key == key and self._before(replay, node, topic):
            made.src, made.ref, made.note = replay.src, replay, 'kept by the bus'
            return True
        alike = self.alike.get(key)
        if alike is None:
            return False
        start = max(alike.next_of.get(node, 0), alike.base)
        end = alike.base + len(alike.items)
        while start < end and self._is_past(alike.items[start - alike.base], node, topic):
            start += 1
        alike.next_of[node] = start + (start < end)
        if start == end:
            return False
        self._choose(node, made, topic, alike, start - alike.base)
        return True

    @staticmethod
    def _before(published, node, topic):
        """Whether a publication was on its way before the node has asked for its topic."""
        since = node.topics.get(topic, (node.joined_line, None))[0]
        return published.sent is not None and since is not None and published.sent <= since

    def _is_past(self, published, node, topic):
        """Whether the node cannot receive it any more: refused, overtaken, or made while the node
        was not subscribed."""
        if published.done or published.line < node.received.get(published.tid, -1):
            return True
        until = node.topics.get(topic, (None, None))[1] or -1
        return published.line >= until and self._before(published, node, topic)

    def _choose(self, node, made, topic, alike, index):
        first = alike.items[index]
        others = len(alike.items) - index - 1
        if others == 0:
            node.received[first.tid] = first.line
            made.src, made.ref = first.src, first
            return
        second = alike.items[index + 1]
        ordered = first.sent is not None and first.sent <= second.line
        in_step = node.joined_line is not None or first.line > node.received.get(first.tid, 1 << 62)
        if ordered and in_step and first.line > node.lost.get(topic, -1):
            made.src, made.ref = first.src, first
            return
        names = sorted({alike.items[i].src for i in range(index, min(index + 64, len(alike.items)))})
        made.src = names[0] if len(names) == 1 else UNKNOWN
        made.note = 'one of {} alike'.format(others + 1)
        if len(names) > 1:
            made.note += ', of ' + ' or '.join(names)

    def _adopt(self, origin):
        """An origin that stands behind what it has caused, by a millisecond or two."""
        while self.early and origin.ms - self.early[0][0].ms > SKEW:
            self.early.popleft()
        for entry in list(self.early):
            made, node = entry
            if made.key != origin.key:
                continue
            if origin.kind == 'call':
                if node.name != origin.host:
                    continue
                made.kind = ''  # the call itself is shown instead
                self.waiting.pop(origin.text)
                origin.routed = True
            else:
                alike = self.alike[origin.key]
                alike.next_of[node] = alike.base + len(alike.items)
            made.ref, made.src, made.note = origin, origin.src, ''
            self.early.remove(entry)
            if origin.kind == 'call':
                return

    # ---- calls ----

    def _call(self, record, trace, thread):
        self.node(trace.name).alive = True
        host = host_of(trace.url)
        made = self.message('call', record, trace.name, host or BUS, trace.url,
                            payload=trace.payload, size=trace.size)
        made.key = (trace.url, trace.size, trace.payload, trace.absent)
        made.name = trace.name
        thread.call = made
        if host == b'bus':
            self._note_change(record, trace, thread)
        elif host is not None and host != b'localKeys':
            made.host = host
            made.text = b'Vek-server %b call %b, target: %b' % (trace.name, host, trace.name)
            self.waiting[made.text] = made
            if self.early:
                self._adopt(made)

    def _note_change(self, record, trace, thread):
        """What the node's subscriptions will be."""
        path = trace.url[trace.url.find(b'/', 2):]
        node = self.node(trace.name)
        if path == b'/join':
            node.joined_line = None  # until the bus says so
        if len(node.topics) > 8192:
            node.topics = {t: span for t, span in node.topics.items() if span[1] is None}
        is_change = path.startswith((b'/subscribe', b'/unsubscribe'))
        change, thread.change = thread.change, None
        if not is_change:
            return
        topics = topics_of(trace.payload or b'') if change is None else change
        for topic in topics or ():
            known = node.topics.get(topic)
            if path.startswith(b'/unsubscribe'):
                node.topics[topic] = (known[0] if known else None, self.line)
            elif known is None or known[1] is not None:
                node.topics[topic] = (self.line, known[1] if known else None)
                if topic in self.stickies:
                    node.replay[topic] = self.stickies[topic]

    def route(self, call):
        """The bus hands the call on to its node."""
        call.routed = True
        self.node(call.host).inbox.append(call)

    def unroute(self, call):
        """It does not after all."""
        inbox = self.node(call.host).inbox
        if inbox and inbox[-1] is call:
            inbox.pop()

    def _taken(self, record, trace, thread):
        node = self.node(trace.name)
        node.alive = True
        key = (trace.url, trace.size, trace.payload, trace.absent)
        call, names = self._caller(node, key)
        if call is not None:
            handler = Message(self.line, self.now, record.ms, self.pid, record.tid, 'call', call.src,
                              call.dst, call.subject, ref=call)
            call.handler = (record.tid, self.now, None)
        else:
            handler = self.message('call', record, None, trace.name, trace.url,
                                   payload=trace.payload, size=trace.size)
            handler.src, handler.note = UNKNOWN, 'who calls is not in the log'
            if names:
                handler.note = 'a call of ' + ' or '.join(names)
            else:
                self.early.append((handler, node))
            handler.done = 'unmatched'
        handler.key = key
        thread.handler = handler

    def _caller(self, node, key):
        """(the call that the node has taken, or None with the names it may be of)."""
        for index, call in enumerate(node.inbox):
            if call.key == key:
                rivals = [c for c in self.gave_up if c.host == node.name and c.key == key]
                if rivals:
                    return None, sorted({c.src for c in rivals + [call]})
                for _ in range(index + 1):
                    node.inbox.popleft()
                return call, ()
        found = [c for c in self.gave_up if c.host == node.name and c.key == key]
        found += [c for c in self.waiting.values() if c.host == node.name and c.key == key]
        if len(found) == 1:
            if found[0] in self.gave_up:
                self.gave_up.remove(found[0])
            return found[0], ()
        return None, sorted({c.src for c in found})

    def _respond(self, record, trace, thread):
        handler, thread.handler = thread.handler, None
        call = None
        if handler is not None and handler.kind == 'call' and handler.key[0] == trace.url:
            handler.end, handler.exact_end = self.now, True
            call = handler.ref
        else:
            inbox = self.node(trace.name).inbox
            handler = None
            if inbox and inbox[0].subject == self.text(trace.url):
                call = inbox.popleft()
        if call is None:
            made = self.message('answer', record, trace.name, None, trace.url,
                                payload=trace.payload, size=trace.size, ref=handler)
            made.dst, made.note = UNKNOWN, 'who has called is not in the log'
            return
        call.reply = (trace.payload, trace.size, record.ms)
        if handler is not None:
            call.handler = (record.tid, handler.at, self.now)
        if call.done == 'timeout':
            self.late(call, record)

    def late(self, call, record):
        call.done = 'late'
        made = self.message('late', record, None, None, None, payload=call.reply[0],
                            size=call.reply[1], ref=call, note='nobody waits for it any more')
        made.src, made.dst, made.subject = call.dst, call.src, call.subject

    def end_call(self, call, record, kind, payload=None, size=None, note=''):
        """How a call has ended for its caller."""
        if call.text is not None:
            self.waiting.pop(call.text, None)
        if kind != 'answer' or not call.done:
            call.done = kind
        call.end, call.exact_end = self.now, True
        made = self.message(kind, record, None, None, None, payload=payload, size=size, ref=call,
                            note=note)
        made.src, made.dst, made.subject = call.src, call.dst, call.subject
        if kind == 'answer':
            made.src = BUS if call.done in ('ring', 'nobody', 'drop') else call.dst
            made.dst = call.src
            if call.reply is not None:
                made.size = call.reply[1]
        if kind == 'timeout':
            self.ended.append(call)

    # ---- the bus's own traces ----

    def _server_trace(self, record, trace):
        self.verbose = True
        key = (trace.topic, trace.size, trace.payload, trace.absent)
        if not trace.out:
            self.current = (None, trace.name, trace.url)
            if trace.action in (b'publish', b'publishSticky'):
                queue = self.untaken.get((trace.name, key))
                published = queue.popleft() if queue else None
                if queue is not None and not queue:
                    del self.untaken[(trace.name, key)]
                self.current = (published, trace.name, b'NULL')
        elif trace.action == b'publish':
            self._post(trace, key)

    def _post(self, trace, key):
        published, name, url = self.current
        if url != b'NULL':  # a request: a notice of the bus, or what it has kept
            published = self.stickies.get(trace.topic)
            if b'subscribe' not in url or published is None or published.key != key:
                published = None
            notice_of_bus = trace.topic in (b'bus.event', b'bus.error') and published is None
            src = published.src if published else BUS if notice_of_bus else UNKNOWN
        else:
            src = self.text(name)
        self.node(trace.name).posts.append((key, published, src))

    TRACES = {
        (True, b'publish'): _publish,
        (True, b'publishSticky'): _publish,
        (True, b'removeSticky'): _remove_sticky,
        (False, b'publish'): _deliver,
        (True, b'request'): _call,
        (False, b'request'): _taken,
        (True, b'response'): _respond,
    }


class Matcher:
    """All processes of the input. feed() and finish() yield messages, in order."""

    def __init__(self):
        self.processes = {}
        self.line = 0
        self.now = 0  # microseconds: the millisecond, and the order of its lines
        self.lost_lines = 0
        self.anew = 0  # how often the log has been begun anew: what was before is gone
        self._doubled = 0
        self.first_ms = None
        self.last_ms = None
        self.levels = set()
        self._texts = {}
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
            process = self.processes[record.pid] = Process(record.pid, self.out.append, self.text)
        self.now = self.now + 1 if ms * 1000 <= self.now < ms * 1000 + 999 else ms * 1000
        process.take(record, self.line, self.now)

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
            for thread in process.threads.values():
                if thread.call is not None:
                    call, thread.call = thread.call, None
                    call.done = 'unanswered'
                    made = Message(self.line, self.now, self.last_ms, process.pid, call.tid, 'unanswered',
                                   call.src, call.dst, call.subject, ref=call,
                                   note='not when the log ends')
                    self.out.append(made)
        yield from self.ready()

    def _notice(self, record):
        lost, anew = notice(record)
        self.anew += anew
        self.lost_lines += lost
        ms = self.last_ms or record.ms
        if lost:
            self.out.append(Message(self.line, self.now, ms, b'', b'', 'lost', None, None, None,
                                     note='the log has lost {} lines here'.format(lost)))
        for process in self.processes.values():  # nothing is certain to be in step any more
            for node in process.nodes.values():
                if lost:
                    node.joined_line = None
                    node.received.clear()

    def _repeats(self, record):
        """Whether there can be two equal records of this kind in a row."""
        trace = record.trace
        if trace is not None and not trace.server:
            return (trace.out, trace.action) in self.REPEATING
        return record.unit in (b'publish', b'timer', b'spin') and record.text[:8] != b'client: '

    def _is_doubled(self, record):
        """Whether a record is the one before once more. One of which there can be two is, where the
        lines about it are doubled too."""
        self._in_a_row = self._in_a_row + 1 if record.again else 0
        if not self._repeats(record):
            if record.again:
                self._doubling = self._was_doubled = True
                return True
            self._doubling, self._was_doubled = self._was_doubled, False
        return self._doubling and self._in_a_row % 2 == 1

    REPEATING = ((False, b'publish'), (True, b'publishSticky'), (True, b'removeSticky'))
