"""What the matcher keeps of a log: messages, nodes, threads."""

import re
from collections import deque

UNKNOWN = '?'
BUS = 'bus'

# The kinds of a message, and whether each is a fault.
KINDS = {
    'publish': False,  # a node has published; 'sticky': so that the bus keeps it
    'sticky': False,
    'unstick': False,  # a node has dropped sticky messages
    'deliver': False,  # a node has received a publication
    'call': False,  # a node calls; its answer is 'answer'
    'answer': False,
    'late': True,  # an answer that nobody waited for any more
    'timeout': True,  # a call whose time was up
    'unanswered': True,  # a call without an end in the log
    'drop': True,  # a message that a full queue did not take
    'ring': True,  # a call refused because it would have closed a ring
    'nobody': True,  # a call to a node that is not there
    'refused': True,  # a node, or a call of a node that is not on the bus
    'lost': True,  # lines that the log has lost
    'warning': True,
    'error': True,
}

REFUSED = ('ring', 'nobody', 'drop')  # of a call that reaches nobody

ENDS = ('answer', 'timeout', 'unanswered', 'late')  # of a call


_HELPER = re.compile(rb'zelvo/helper/(?:(.+)/)?\d+')


def helper_of(name):
    """Of a node that the C++ face calls with: the name of the node that it calls for, or its own
    where that cannot be known. None: it is another node."""
    m = _HELPER.fullmatch(name)
    return m and (m[1] or name)


class Message:
    """One line of the picture."""
    __slots__ = ('number', 'line', 'at', 'ms', 'pid', 'tid', 'kind', 'src', 'dst', 'subject',
                 'payload', 'size', 'ref', 'note', 'end', 'exact_end', 'sent', 'done', 'reply',
                 'host', 'key', 'name', 'text', 'routed', 'handler', 'cause', 'queue', 'ring')

    def __init__(self, line, at, ms, pid, tid, kind, src, dst, subject=None, payload=None,
                 size=None, ref=None, note='', cause=None, queue=None):
        self.number = 0  # in the order shown, from 1
        self.line = line  # number of its record
        self.at = at  # microseconds that keep the order of the lines of one millisecond
        self.ms = ms
        self.pid = pid
        self.tid = tid
        self.kind = kind
        self.src = src
        self.dst = dst
        self.subject = subject  # topic or address
        self.payload = payload
        self.size = size
        self.ref = ref  # the publication of a delivery, the call of an answer
        self.note = note
        self.cause = cause  # of a drop: what has been lost, ...
        self.queue = queue  # ... and whose queue was full
        self.ring = ()  # the nodes of a refused one, in order, the first again at the end
        self.end = None  # when its handler, or the call, has ended, at the earliest; as at
        self.exact_end = False  # whether then exactly
        self.sent = None  # of a publication: the record by which it was on its way
        self.done = ''  # how a call has ended: a kind, or '' as long as it waits
        self.key = None  # what two messages have in common that the log cannot tell apart
        self.name = None  # the publisher or caller, as the log writes it
        # Of a call:
        self.host = None  # the node that it is for, likewise; None: the bus itself
        self.text = None  # what the bus says when it handles it
        self.routed = False  # whether it has been said
        self.reply = None  # (payload, size, ms) that the callee has answered
        self.handler = None  # the callee's (thread, begin, end or None)

    @property
    def took(self):
        """Milliseconds from the call to its end; None: this is none, or its call is unknown."""
        call = self.ref
        if call is None or call.kind != 'call' or call.src == UNKNOWN or self.kind not in ENDS:
            return None
        return max(self.ms - call.ms, 0)

    @property
    def uncertain(self):
        """Whether the log does not tell what it belongs to."""
        return UNKNOWN in (self.src, self.dst) or (
            self.kind == 'deliver' and self.ref is None and self.src != BUS)


class Alike:
    """The publications with one topic and payload: what the log cannot tell apart."""
    __slots__ = ('base', 'items', 'next_of')

    def __init__(self):
        self.base = 0  # how many have been forgotten
        self.items = deque()
        self.next_of = {}  # node: index of the first that it may still receive


class Node:
    """One name on the bus of one process."""

    def __init__(self, name, ms):
        self.name = name
        self.first = self.last = ms
        self.alive = False  # whether it has written a line itself
        self.joins = 0  # how often it was on the bus
        self.joined = None  # for the first time; None: before the log begins
        self.left = None  # when it has left, after its latest join; None: it is on the bus
        self.joined_line = None
        self.topics = {}  # topic: (record of the request, record of the answer to leave it or None)
        self.replay = {}  # topic: the sticky publication that it is to receive first
        self.lost = {}  # topic: record of the latest copy that its full queue has lost
        self.received = {}  # thread of a publisher: record of the latest publication received
        self.inbox = deque(maxlen=4096)  # calls that the bus has handed on to it
        self.posts = deque(maxlen=4096)  # (key, publication, publisher), where level 1 tells it
        self.timers = 0
        self.killed = 0

    def join(self, ms, line):
        self.joins += 1
        self.left = None
        if self.joined is None:
            self.joined = ms
        self.forget()
        self.joined_line = line

    def leave(self, ms):
        self.joins = max(self.joins, 1)
        if self.left is None:
            self.left = ms

    def forget(self):
        self.joined_line = None
        self.topics, self.replay, self.lost, self.received = {}, {}, {}, {}
        self.inbox.clear()
        self.posts.clear()


class Thread:
    __slots__ = ('unsent', 'published', 'call', 'handler', 'connecting', 'change', 'leaves', 'last')

    def __init__(self):
        self.unsent = None  # a publication that may not be on its way yet
        self.published = None  # the latest
        self.call = None  # that this thread waits for
        self.handler = None  # the delivery or call that it handles
        self.connecting = None
        self.change = None  # topics that it is about to subscribe to, or to leave
        self.leaves = ()  # topics that it has asked to leave
        self.last = 0  # when it has written its latest line
