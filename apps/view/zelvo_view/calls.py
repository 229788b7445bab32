"""Calls and their answers."""

# A thread that calls waits for its answer, so the two are lines of one thread. The bus tells which
# call it hands on, by its walk along the callers, and each node takes what is handed to it in order.

from .model import BUS, REFUSED, UNKNOWN, Message
from .publications import topics_of


def host_of(url):
    """The host of an address, None where it has none; BUS or b'localKeys' for the bus itself."""
    slash = url.find(b'/', 2)
    host = url[1:slash]
    if slash < 0 or len(host) > 127:
        return None
    if b'bus'.startswith(host):
        return b'bus'
    return b'localKeys' if b'localKeys'.startswith(host) else host


class Calls:
    """The part of a Process that is about calls."""

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
                thread.leaves = topics
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

    def end_call(self, call, record, kind, payload=None, size=None, note='', **more):
        """How a call has ended for its caller."""
        if call.text is not None:
            self.waiting.pop(call.text, None)
        if kind != 'answer' or not call.done:
            call.done = kind
        if call.end is None or kind != 'unanswered':
            call.end = self.now
        call.exact_end = True
        made = self.message(kind, record, None, None, None, payload=payload, size=size, ref=call,
                            note=note, **more)
        made.src, made.dst, made.subject = call.src, call.dst, call.subject
        if kind == 'answer':
            made.src = BUS if call.done in REFUSED else call.dst
            made.dst = call.src
            if call.reply is not None:
                made.size = call.reply[1]
        if kind == 'timeout':
            self.ended.append(call)
