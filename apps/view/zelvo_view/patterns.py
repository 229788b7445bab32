"""What the log's lines that are no traces mean, by the source that writes them."""

# A handler gets the process, the record, its thread and the match. A pattern without one is a line
# that says nothing about the traffic, or nothing that the traces do not say; a warning or an error
# that is not listed here is shown as it stands.

import re

from .model import BUS, helper_of
from .publications import topics_of


def _begun(process, record, thread, m):
    """Another bus, and mostly another process of the same number: what still waits has ended by then."""
    for waiting in process.threads.values():
        if waiting.call is not None and waiting.call.end is None:
            waiting.call.end = process.before


def _deleted(process, record, thread, m):
    process.end()


def _joined(process, record, thread, m):
    process.node(m[1]).join(record.ms, process.line)


def _left(process, record, thread, m):
    process.left(m[1])


def _connect_begins(process, record, thread, m):
    thread.connecting = m[1]


def _connected(process, record, thread, m):
    thread.connecting = None
    node = process.node(m[1])
    if not node.joins:  # the line of the bus comes first, where the log has both
        node.join(record.ms, process.line)


def _name_taken(process, record, thread, m):
    thread.connecting = None
    if not helper_of(m[1]):
        process.message('refused', record, m[1], BUS, note='a node of this name is on the bus')


def _not_callable(process, record, thread, m):
    if not helper_of(m[1]):  # nobody wants to
        process.message('warning', record, None, None, note=process.text(record.text[11:]))


def _connect_failed(process, record, thread, m):
    name, thread.connecting = thread.connecting, None
    if name is not None and not helper_of(name):
        process.message('refused', record, name, BUS, note='the bus has not taken it')


# What a full queue has not taken, where the note says it in other words.
_LOSSES = {'call': 'call refused', 'request': 'call', 'sticky': 'sticky message'}


def _of_drop(cause, queue, own=False):
    whose = 'own queue' if own else 'queue of ' + ('the bus' if queue == BUS else queue)
    return {'cause': cause, 'queue': queue, 'note': '{}: {}'.format(_LOSSES.get(cause, cause), whose)}


def _drop(process, record, src, dst, subject=None, *, cause, **more):
    """A message that the queue of dst has not taken."""
    more.update(_of_drop(cause, process.who(dst), src == dst))
    return process.message('drop', record, src, dst, subject, **more)


def _changes_topics(process, record, thread, m):
    thread.change = topics_of(m[1])


def _answered(process, record, thread, m):
    call = thread.call
    text = m[2]
    if call is None or not record.text.startswith(b'Vek-client %b call response, ' % call.name):
        made = process.message('answer', record, None, m[1], None, payload=text, size=len(text))
        made.src, made.note = '?', 'its call is not in the log'
        return
    text = record.text[len(call.name) + len(b'Vek-client  call response, '):]
    thread.call = None
    if thread.leaves:
        process.has_left(call.name, thread.leaves)
        thread.leaves = ()
    absent = text == b'NULL' and (call.reply is None or call.reply[1] != 4)
    process.end_call(call, record, 'answer', payload=None if absent else text,
                     size=None if absent else len(text), note='no answer' if absent else '')


def _timed_out(process, record, thread, m):
    call, thread.call = thread.call, None
    if call is None:
        note = 'its time was up'
        if process.traced:  # it waited for its turn to call, or the log begins later
            note += ', and the log does not show it sent'
        process.message('timeout', record, m[1], None, m[2], note=note)
        return
    if call.text is not None and not call.routed:
        process.gave_up.append(call)
    process.end_call(call, record, 'timeout', note='its time was up')
    if call.reply is not None:
        process.late(call, record)


def _not_posted(process, record, thread, m):
    call, thread.call = thread.call, None
    if call is None:
        _drop(process, record, m[1], BUS, m[2], cause='call')
        return
    process.end_call(call, record, 'drop', **_of_drop('call', BUS))


def _publication_refused(process, record, thread, m):
    _drop(process, record, m[1], BUS, m[3], cause=m[2].decode())
    published = thread.published
    if published is not None:
        published.done = 'drop'
        process.untaken.pop((m[1], published.key), None)


def _removal_refused(process, record, thread, m):
    _drop(process, record, m[1], BUS, cause='removeSticky', payload=m[2], size=len(m[2]))


def _not_on_bus(process, record, thread, m):
    if m[2] != b'/bus/disjoin':
        process.message('refused', record, m[1], BUS, m[2], note='the caller is not on the bus')


def _answer_lost(process, record, thread, m):
    _drop(process, record, m[1], BUS, cause='answer')


def _own_queue_full(what):
    def handle(process, record, thread, m):
        _drop(process, record, m[1], m[1], cause=what)
    return handle


def _handler_begins(process, record, thread, m):
    if thread.handler is not None:
        thread.handler.end, thread.handler.exact_end = process.now, False


def _handler_ends(process, record, thread, m):
    if thread.handler is not None:
        thread.handler.end, thread.handler.exact_end = process.now, True


def _timer_set(process, record, thread, m):
    process.node(m[1]).timers += 1


def _timer_killed(process, record, thread, m):
    process.node(m[1]).killed += 1


def _copy_lost(process, record, thread, m):
    node = process.node(m[1])
    if len(node.lost) > 8192:
        node.lost.clear()
    node.lost[m[2]] = process.line
    if helper_of(m[1]):  # it takes no messages, and nobody misses them
        return
    made = _drop(process, record, BUS, m[1], m[2], cause='copy')
    if process.verbose and node.posts:
        made.ref, made.src = node.posts[-1][1], node.posts.pop()[2]


def _replay_lost(process, record, thread, m):
    _drop(process, record, BUS, m[1], cause='sticky')
    node = process.nodes.get(m[1])
    if node is not None and node.posts:
        node.posts.pop()


def _walks(process, record, thread, m):
    """The bus follows the callers, from the one whose call it handles."""
    call = process.waiting.pop(record.text, None)
    if call is not None:
        process.route(call)
        process.walk = (call, [call.src, call.dst], call.host)
    elif process.walk is not None:
        call, chain, tail = process.walk
        begin = b'Vek-server %b call ' % tail
        end = b', target: ' + call.name
        if record.text.startswith(begin) and record.text.endswith(end):
            following = record.text[len(begin):len(record.text) - len(end)]
            chain.append(process.who(following))
            process.walk = (call, chain, following)


def _ring(process, record, thread, m):
    walk, process.walk = process.walk, None
    if walk is None:
        process.message('ring', record, None, None, note='its members are not in the log')
        return
    call, chain, _ = walk
    process.unroute(call)
    call.done = 'ring'
    made = process.message('ring', record, None, None, None, ref=call, note=' -> '.join(chain))
    made.src, made.dst, made.subject, made.ring = call.src, call.dst, call.subject, tuple(chain)


def _walk_ends(process, record, thread, m):
    """Somebody of the chain is not there: the node that is called, or one that it waits for."""
    walk, process.walk = process.walk, None
    if walk is None or len(walk[1]) > 2 or m[1] != walk[0].host:
        return
    call = walk[0]
    process.unroute(call)
    call.done = 'nobody'
    made = process.message('nobody', record, None, None, None, ref=call,
                           note='no node of this name is on the bus')
    made.src, made.dst, made.subject = call.src, call.dst, call.subject


def _request_lost(process, record, thread, m):
    made = _drop(process, record, None, m[1], cause='request')
    inbox = process.node(m[1]).inbox
    walk = process.walk
    if walk is not None and inbox and inbox[-1] is walk[0]:
        call = inbox.pop()
        call.done = 'drop'
        made.src, made.subject, made.ref = call.src, call.subject, call


def _late(process, record, thread, m):
    """Where level 1 tells of an answer that the traces have not shown to be late."""
    late = [call for call in process.ended if call.name == m[1]
            and call.subject == process.text(m[2]) and call.done in ('timeout', 'late')]
    if not late:
        made = process.message('late', record, None, m[1], m[2],
                               note='nobody waits for it any more')
        made.src = '?'


def _compile(*rows):
    return tuple((re.compile(b'(?s)' + pattern), handle) for pattern, handle in rows)


PATTERNS = {
    b'manager': _compile(
        (rb'Vek-client, VERSION .*, busManager new', _begun),
        (rb'Vek-client busManager delete', _deleted)),
    b'connect': _compile(
        (rb'Vek-client (.*) connect begin, busManager: .*', _connect_begins),
        (rb'Vek-client (.*) connect end, payload: .*', _connected),
        (rb'Vek-client (.*) already exist', _name_taken),
        (rb'Vek-client connect failed', _connect_failed),
        (rb'Vek-client (.*) cannot be called by this name', _not_callable),
        (rb'Vek-client .* (?:un)?subscribe begin, (.*)', _changes_topics)),
    b'call': _compile(
        (rb'Vek-client (.*?) call response, (.*)', _answered),
        (rb'Vek-client .* oncall func begin', _handler_begins),
        (rb'Vek-client .* oncall func end', None),
        (rb'Vek-client (.*) call timeout, url: (.*)', _timed_out),
        (rb'Vek-client (.*) ==> server call failed, url: (.*), queue is full', _not_posted),
        (rb'Vek-client (.*) ==> server call response failed, queue is full', _answer_lost),
        (rb'Vek-client (.*) alaredy exit, url: (.*)', _not_on_bus)),
    b'publish': _compile(
        (rb'client: .*', None),
        (rb'Vek-server server ==> (.*) pusblish topic (.*) failed, queue is full', _copy_lost),
        (rb'Vek-client (.*) ==> server removeSticky failed, data: (.*), queue is full',
         _removal_refused),
        (rb'Vek-client (.*) ==> server (\w+) failed, topic: (.*), queue is full',
         _publication_refused),
        (rb'Vek-server .* remove old then add new payload, topic .*', None),
        (rb'Vek-server server pusblish  (.*) failed, queue is full', _replay_lost)),
    b'spin': _compile(
        (rb'Vek-client .* onmessage func begin', _handler_begins),
        (rb'Vek-client .* onmessage func end', _handler_ends),
        (rb'Vek-client (.*) message queue is full', _own_queue_full('exit'))),
    b'timer': _compile(
        (rb'Vek-client (.*) set timer \d+', _timer_set),
        (rb'Vek-client (.*) kill timer: -?\d+', _timer_killed),
        (rb'Vek-client timerId overstep the boundary 32767', None),
        (rb'Vek-client (.*) settimer failed, queue is full', _own_queue_full('settimer')),
        (rb'Vek-client (.*) killtimer failed, queue is full',
         _own_queue_full('killtimer'))),
    b'deadlock': _compile(
        (rb'Vek-server .* call .*, target: .*', _walks),
        (rb'bus server exist deadlock', _ring),
        (rb'Vek-server client (.*) is exit', _walk_ends)),
    b'service': _compile(
        (rb'Vek-server (.*) node joined', _joined),
        (rb'Vek-server , (.*) already exist', None)),  # the connecting node says it too
    b'loop': _compile(
        (rb'Vek-server server ==> (.*) request failed, queue is full', _request_lost),
        (rb'Vek-server (.*) disjoin', _left),
        (rb'Vek-server (.*) late response dropped, url: (.*)', _late)),
    b'departed': _compile((rb'Vek-server (.*) disjoin', _left)),
    b'keys': _compile((rb'Vek-server server pusblish  (.*) failed, queue is full', _answer_lost)),
}
