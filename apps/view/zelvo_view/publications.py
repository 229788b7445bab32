"""Publications and their deliveries."""

# A delivery does not name its publisher. At level 1 the bus tells which publication it puts into
# whose queue. At level 2 a delivery belongs to a publication with the same topic, length and payload
# that the node has not received yet; of several such ones it is the first, as long as that one was
# certainly sent first and nothing has been lost; otherwise the delivery keeps the publisher that they
# have in common, or none.

import json
from collections import deque

from .model import BUS, UNKNOWN, Alike, Message

REMEMBERED = 16384  # publications of a process that may still be delivered
SKEW = 2  # milliseconds that lines of two threads may be out of order


def topics_of(text):
    """The topics in the JSON array of a subscription; None: it cannot be read."""
    try:
        found = json.loads(text.decode('utf-8', 'surrogateescape'), strict=False)
        return [t.encode('utf-8', 'surrogateescape') for t in found if isinstance(t, str)]
    except (ValueError, TypeError, AttributeError):
        return None


class Publications:
    """The part of a Process that is about publications."""

    def _publish(self, record, trace, thread):
        self.node(trace.name).alive = True
        kind = 'publish' if trace.action == b'publish' else 'sticky'
        made = self.message(kind, record, trace.name, None, trace.topic, payload=trace.payload,
                            size=trace.size)
        thread.unsent = thread.published = made
        made.name = trace.name
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
        elif alike.base % 1024 == 0:  # what a node has left behind says nothing any more
            alike.next_of = {node: i for node, i in alike.next_of.items() if i > alike.base}

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
                       self.who(trace.name), self.text(trace.topic), trace.payload, trace.size)
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

    def has_left(self, name, topics):
        """The bus has answered that the node is no longer subscribed."""
        node = self.node(name)
        for topic in topics:
            node.topics[topic] = (node.topics.get(topic, (None, None))[0], self.line)

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
        end = min(index + 64, len(alike.items))
        names = sorted({alike.items[i].src for i in range(index, end)})
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
            if made.key != origin.key or made.number:  # that has been shown already
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

    # ---- the bus's own traces ----

    def _becomes_verbose(self):
        """The first trace of the bus: where the log begins, it has taken nothing so far."""
        self.verbose = True
        if len(self.remembered) < 4096:
            for key, alike in self.alike.items():
                for made in alike.items:
                    self.untaken.setdefault((made.name, key), deque(maxlen=4096)).append(made)

    def _server_trace(self, record, trace):
        if not self.verbose:
            self._becomes_verbose()
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
            src = self.who(name)
        self.node(trace.name).posts.append((key, published, src))
