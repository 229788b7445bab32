"""The log's grammar: from bytes to records."""

# A record is one entry of the log. It begins at the beginning of a line with its head,
# "[pid:tid]YYYY-MM-DD hh:mm:ss.mmm [L] file#line#", and may take up several lines, because a payload
# may hold line breaks. A payload may also hold text that looks like a head; so where the log tells
# how long a text is, as it does of every message, the record ends there and not at the next head.

import datetime
import json
import re
from collections import deque
from typing import NamedTuple, Optional

LONGEST = 4094  # bytes of a record, without its line feed; the log cuts what is longer
ZONE = 8 * 3600  # seconds that its times are ahead of UTC
LAG = 0.02  # seconds that the times of files may be behind the clock
SHOWN = 200  # a payload of so many bytes or more is logged as "BinaryData..."
STRANGE_LINES, STRANGE_BYTES = 1000, 1 << 20  # so much before the first record: no log of ours

_HEAD = (rb'\[(\d{5,10}):(\d{5,10})\](\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.(\d{3}) \[([-VDIWE])\] '
         rb'[^\n#]*?bus_(?:client|server)[/\\](\w+)\.cpp# *\d+#  ')
_HEAD_ANYWHERE = re.compile(rb'(?m)^' + _HEAD)
_RECORD = re.compile(_HEAD + rb'([^\n]*)\n')
_CLIENT_TRACE = re.compile(
    rb'(?s)Vek-client # *\d+# (.*?) (==>|<==) busServer,  action: (\w+), topic: ')
_SERVER_TRACE = re.compile(
    rb'(?s)Vek-server # *\d+# busServer (==>|<==) (.*?),  action: (\w+), topic: ')
_LENGTH = re.compile(rb', payload len: (\d{1,10})\n')
_LENGTH_MARK = b', payload len: '
_RESPONSE, _TOPICS = b' call response, ', b'subscribe begin, '
_LOST = re.compile(rb'log lines lost: (\d{1,10})(, .*)?$')
_BEGUN_ANEW = re.compile(rb'log file size: (\d+), remove file:  ')

NO_PAYLOAD, HIDDEN = b'NULL', b'BinaryData...'


class Trace(NamedTuple):
    """A message on its way, as the node or the bus (server) has logged it."""
    server: bool
    name: bytes  # the node; in a line of the bus the counterpart
    out: bool  # sent, not taken
    action: bytes
    topic: bytes
    url: bytes
    requestor: bytes
    payload: Optional[bytes]  # None: there is none, or the log does not show it
    size: Optional[int]  # None: the log has cut the line before it
    absent: bool  # the message has no payload


class Record(NamedTuple):
    ms: int  # since 1970, in the log's own zone
    pid: bytes
    tid: bytes
    level: bytes  # its letter
    unit: bytes  # the source without its folder and ending; b'': a notice of the log itself
    text: bytes  # of a record that is no trace
    trace: Optional[Trace]
    again: bool  # byte for byte the record before


class NotALog(Exception):
    """The input is no log of Zelvo. line: where; text: what stands there."""

    def __init__(self, line, text):
        super().__init__(line, text)
        self.line = line
        self.text = text


def _payload(text, size):
    """(payload, whether there is none) or None where text cannot be the trace of size bytes."""
    if len(text) == size and size < SHOWN and size > 0:
        return text, False
    if text == NO_PAYLOAD and size == 0:
        return None, True
    if text == HIDDEN and (size == 0 or size >= SHOWN):
        return None, False
    return None


def _cut_payload(text, size):
    """The same for a payload with a NUL inside, where the log stops."""
    return (text + b'\0', False) if len(text) < size < SHOWN else None


class Reader:
    """Takes bytes as they come, gives records."""
    # live: whether each piece ends where its writer has paused, so that what it ends with need not
    # wait for more.

    def __init__(self, live=False):
        self.live = live
        self.strange = 0  # lines that belong to no record
        self.unread = 0  # messages whose line has another form than the log's
        self.count = 0
        self._buf = b''
        self._first = None  # the first strange line
        self._read = 0  # bytes before the first record
        self._in_strange = False
        self._second = (b'', 0)
        self._last = b''
        self._held = []  # notices before the first record, whose time they get
        self._lengths = deque(maxlen=64)  # of the latest answers
        self._answers = {}  # url: of the latest answers to it, (which one of all, its length)
        self._calls = {}  # (process, thread): the url that it calls, and how many answers were before
        self._given = 0  # answers
        self._broken = deque(maxlen=16)  # topics and urls with line breaks: other lines end with them
        self._settled = not live  # whether what the input ends with is not waited for any longer

    def feed(self, data, final=False):
        """Yields the records that data completes. final: nothing follows."""
        buf = self._buf + data if self._buf else data
        pos = 0
        wanted = 1 if final or self.live else LONGEST + 2 + SHOWN
        match = _RECORD.match
        while len(buf) - pos >= wanted:
            m = match(buf, pos)
            if m is None:
                end = self._other_line(buf, pos, final)
                if end is None:
                    break
                record, pos = end
            else:
                end, record = self._record(buf, pos, m, final)
                if end is None:
                    break
                pos = end
                self.count += 1
            if record is not None:
                if self._held:
                    yield from self._dated(record.ms)
                yield record
        self._buf = buf[pos:]
        if final:
            yield from self._dated(0)
        if final and not self.count and self._first is not None:
            raise NotALog(*self._first)

    def settle(self):
        """The records that have waited for more, which has not come for long enough."""
        self._settled = True
        found = list(self.feed(b'')) if self._buf else []
        self._settled = not self.live
        return found

    def begin_anew(self):
        """Yields what has waited for more: what comes next is the beginning of another file."""
        if self._second[0]:
            yield from self.feed(b'', True)
        self._buf, self._in_strange = b'', False

    # ---- records ----

    def _record(self, buf, pos, m, final):
        group = m.groups()
        end = m.end()
        try:
            ms = self._time(group[2]) + int(group[3])
        except ValueError:
            return end, self._count_strange(buf[pos:end])
        text, begin, trace = group[6], m.start(7), None  # of the first line
        if text.startswith((b'Vek-client #', b'Vek-server #')):
            trace = self._plain_trace(buf, text, pos, end)
            if trace is None:
                end, trace = self._long_trace(buf, pos, begin, final)
                self.unread += trace is None and end is not None
        elif _RESPONSE in text:
            sizes = self._answers_to(self._calls.get(group[:2]))
            end = self._answer_end(buf, begin, end, pos, final, sizes)
        elif _TOPICS in text:
            topics = buf.find(_TOPICS, begin) + len(_TOPICS)
            if buf[topics:topics + 1] == b'[':
                end = self._text_end(buf, topics, pos + LONGEST + 1, end, pos, final)
        for shown in self._broken if trace is None and end is not None else ():
            at = m.end() - 1 - shown.index(b'\n')
            if buf.startswith(shown, at):
                end = max(end, at + len(shown))
        if end is None:
            return None, None
        text = b''
        if trace is None:
            text = buf[begin:min(end, pos + LONGEST)].removesuffix(b'\n')
        elif trace.out and trace.action in (b'request', b'response'):
            self._note_call(trace, group[:2])
        raw = buf[pos:end]
        again = raw == self._last
        self._last = raw
        return end, Record(ms, group[0], group[1], group[4], group[5], text, trace, again)

    def _note_broken(self, trace):
        path = trace.url[max(trace.url.find(b'/', 1), 0):]
        self._broken.extend(text + b'\n' for text in (trace.topic, trace.url, path) if b'\n' in text
                            and text + b'\n' not in self._broken)

    def _note_call(self, trace, caller):
        for table in (self._answers, self._calls):
            if len(table) > 4096:
                table.clear()
        if trace.action == b'request':
            self._calls[caller] = (trace.url, self._given)
        elif trace.size:
            self._given += 1
            self._lengths.append(trace.size)
            self._answers.setdefault(trace.url, deque(maxlen=64)).append((self._given, trace.size))

    def _answers_to(self, call):
        """Lengths that the answer to a call may have, the longest first; none where it is not known."""
        url, given = call or (None, 0)
        return sorted((size for number, size in self._answers.get(url, ()) if number > given),
                      reverse=True)

    def _time(self, stamp):
        if stamp != self._second[0]:
            self._second = (stamp, _ms(stamp))
        return self._second[1]

    @staticmethod
    def _goes_on(buf, begin, end):
        """Whether the payload at begin may reach beyond the line that ends at end."""
        mark = buf.find(_LENGTH_MARK, end, begin + SHOWN + len(_LENGTH_MARK))
        while mark >= 0:
            m = _LENGTH.match(buf, mark)
            if m and int(m.group(1)) == mark - begin:
                return True
            mark = buf.find(_LENGTH_MARK, mark + 1, begin + SHOWN + len(_LENGTH_MARK))
        return False

    def _plain_trace(self, buf, text, pos, end):
        """A trace that is one line, or None."""
        # Each mark is looked for once: a line that holds many takes no longer than another.
        server = text.startswith(b'Vek-server')
        head = (_SERVER_TRACE if server else _CLIENT_TRACE).match(text)
        if head is None or end - pos > LONGEST:
            return None
        topic, _, rest = text[head.end():].partition(b',  url: ')
        requestor = b''
        if server:
            url, _, rest = rest.partition(b', requestor: ')
            requestor, mark, rest = rest.partition(b', payload:')
        else:
            url, mark, rest = rest.partition(b', payload: ')
        shown, _, digits = rest.rpartition(_LENGTH_MARK)
        payload = _payload(shown, int(digits)) if mark and digits.isdigit() else None
        if payload is None or self._goes_on(buf, end - 1 - len(rest), end):
            return None
        name, way, action = head.group(2, 1, 3) if server else head.group(1, 2, 3)
        return Trace(server, name, way == b'==>', action, topic, url, requestor, payload[0],
                     int(digits), payload[1])

    def _long_trace(self, buf, pos, begin, final):
        """A trace that is more than one plain line: (end or None, trace or None)."""
        server = buf.startswith(b'Vek-server', begin)
        limit = pos + LONGEST + 1
        head = (_SERVER_TRACE if server else _CLIENT_TRACE).match(buf, begin, limit)
        following = _HEAD_ANYWHERE.search(buf, begin, limit)
        if head:
            near = min(limit, following.start()) if following else limit
            tries = [(_payload, near, limit, False), (_cut_payload, near, near, False)]
            fields = buf[head.end():near]
            if b', payload:' not in fields and b'\nlog lines lost: ' not in fields:
                tries.append((_payload, limit, limit, True))  # the head is one of a topic or a url
            for fits, fields, stop, is_strict in tries:
                found = self._find_fields(buf, head, server, fits, fields, stop, is_strict)
                if found:
                    self._note_broken(found[1])
                    return found
        return self._cut_record(buf, pos, begin, head, server, final or bool(following))

    def _find_fields(self, buf, head, server, fits, near, stop, is_strict):
        """Tries every place where topic and url (before near) and payload (before stop) may end.
        is_strict: another record has to follow."""
        # Of the payloads that fit, the longest is the one that the log has written.
        mark = b', payload:' if server else b', payload: '
        start = buf.find(mark, head.end(), near)
        while start >= 0:
            fields = buf[head.end():start]
            split = fields.partition if fields.startswith(b'NULL,') else fields.rpartition
            topic, separator, url = split(b',  url: ')
            begin = start + len(mark)
            best = None
            if separator:
                for m in _LENGTH.finditer(buf, begin, min(stop, begin + SHOWN + 32)):
                    payload = fits(buf[begin:m.start()], int(m.group(1)))
                    if payload and (best is None or fits is _payload) and (
                            not is_strict or self._sized_end(buf, m.end() - 1)):
                        best = (m, payload)
            if best:
                m, payload = best
                url, _, requestor = url.partition(b', requestor: ') if server else (url, b'', b'')
                name = head.group(2) if server else head.group(1)
                out = head.group(1 if server else 2) == b'==>'
                return m.end(), Trace(server, name, out, head.group(3), topic, url, requestor,
                                      payload[0], int(m.group(1)), payload[1])
            start = buf.find(mark, start + 1, near)
        return None

    @staticmethod
    def _cut_record(buf, pos, begin, head, server, whole):
        """A trace without its end: the log has cut it, or more of it is still to come."""
        end = pos + LONGEST
        if len(buf) <= end and not whole:
            return None, None
        if buf[end - 1:end] != b'\n' and buf[end:end + 1] == b'\n':
            end += 1
        if buf[end - 1:end] != b'\n' or not head:
            end = buf.find(b'\n', begin) + 1 or len(buf)
            return end, None
        topic, _, rest = buf[head.end():end - 1].partition(b',  url: ')
        url = rest.partition(b', payload:')[0]
        name = head.group(2) if server else head.group(1)
        out = head.group(1 if server else 2) == b'==>'
        return end, Trace(server, name, out, head.group(3), topic, url, b'', None, None, False)

    def _answer_end(self, buf, begin, line_end, pos, final, sizes):
        """Where the record of an answer ends; None: more of it may be to come. sizes: that it may
        have."""
        # Its length is that of an answer which a node has just given, or its text is JSON that the
        # bus has printed.
        text = buf.find(_RESPONSE, begin) + len(_RESPONSE)
        for size in sizes:
            end = self._sized_end(buf, min(text + size, pos + LONGEST))
            if end:
                return end
        best = line_end
        next_is_head = _HEAD_ANYWHERE.match(buf, line_end)
        is_known = line_end - 1 - text in self._lengths or buf[text:line_end] == b'NULL\n'
        if is_known and (next_is_head or line_end == len(buf) and self.live):
            return line_end
        for length in self._lengths:
            best = max(best, self._sized_end(buf, min(text + length, pos + LONGEST)))
        if best > line_end or next_is_head:
            return best
        return self._text_end(buf, text, self._stop(buf, line_end, pos), line_end, pos, final)

    @staticmethod
    def _sized_end(buf, end):
        """Where the line ends whose text ends at end; 0: it does not end there."""
        following = end + 1
        is_end = buf[end:following] == b'\n' and (
            following == len(buf) or buf.startswith(b'\n', following)
            or _HEAD_ANYWHERE.match(buf, following))
        return following if is_end else 0

    def _text_end(self, buf, text, stop, line_end, pos, final):
        """Where the line with the end of the JSON text that begins at text ends: line_end where it
        is none, None where more of it may be to come."""
        end = self._json_end(buf, text, stop)
        if end is None and not final and not self._settled and len(buf) - pos <= LONGEST and (
                _HEAD_ANYWHERE.search(buf, line_end) is None):
            return None
        return max(end or 0, line_end)

    @staticmethod
    def _stop(buf, line_end, pos):
        """Where a record that begins at pos has ended at the latest."""
        following = _HEAD_ANYWHERE.search(buf, line_end, pos + 2 * LONGEST)
        return min(following.start() if following else len(buf), pos + LONGEST + 1)

    @staticmethod
    def _json_end(buf, text, stop):
        """Where the line with the end of the JSON text that begins at text ends, or None."""
        if buf[text:text + 1] not in (b'{', b'[', b'"'):
            return None
        try:
            piece = buf[text:stop].decode('latin-1')
            end = text + json.JSONDecoder(strict=False).raw_decode(piece)[1]
        except (ValueError, RecursionError):
            return None
        return end + 1 if buf[end:end + 1] == b'\n' else None

    # ---- everything else ----

    def _other_line(self, buf, pos, final):
        """(a notice of the log or None, where the line ends), or None: it is not complete."""
        stop = buf.find(b'\n', pos)
        if stop < 0:
            if not final and len(buf) - pos < 1 << 16:
                return None
            stop = len(buf) - 1
        line = buf[pos:stop + 1]
        begins, self._in_strange = not self._in_strange, not line.endswith(b'\n')
        line = line.rstrip(b'\r\n')
        if not begins or not line:
            return None, stop + 1
        if _LOST.match(line) or _BEGUN_ANEW.match(line):
            self._last = line
            self.count += 1
            found = Record(self._second[1], b'', b'', b'-', b'', line, None, False)
            if self._second[0] or len(self._held) >= STRANGE_LINES:
                return found, stop + 1
            self._held.append(found)
            return None, stop + 1
        return self._count_strange(line), stop + 1

    def _dated(self, ms):
        held, self._held = self._held, []
        for found in held:
            yield found._replace(ms=ms)

    def _count_strange(self, line):
        self.strange += 1
        self._first = self._first or (self.strange, line[:60])
        if not self.count:
            self._read += len(line)
            if self.strange >= STRANGE_LINES or self._read >= STRANGE_BYTES:
                raise NotALog(*self._first)


def _ms(stamp):
    at = datetime.datetime.strptime(stamp.decode(), '%Y-%m-%d %H:%M:%S')
    return int(at.replace(tzinfo=datetime.timezone.utc).timestamp()) * 1000


def last_time(data):
    """The time of the last record that begins in data; None: none does."""
    stamps = [m.group(3) for m in _HEAD_ANYWHERE.finditer(data)]
    try:
        return _ms(stamps[-1]) + 999 if stamps else None
    except ValueError:
        return None


# What is said of lost lines, by what stands behind their number.
_LOSSES = {None: 'the log has lost {} lines here', b', not read in time': '{} lines here were not read in time',
           b', removed': 'lines here were in files that were removed before they were read'}


def skipped_before(data, read, removed):
    """The beginning of a file, and a notice before it where another one was between it and that of which
    so many bytes have been read, and which was removed at that second: its size is another one, or its
    first line was not written at once."""
    m, head = _BEGUN_ANEW.match(data, 1), _HEAD_ANYWHERE.search(data)
    try:
        begun = (_ms(head.group(3)) + int(head.group(4))) / 1000 - ZONE if head else 0
    except ValueError:
        begun = 0
    is_skipped = m and (int(m.group(1)) != read or begun > removed + LAG)
    return b'\nlog lines lost: 0, removed\n' + data if is_skipped else data


def notice(record):
    """Of a notice of the log itself: (lines that it has lost, what to say of them or None, whether it
    has been begun anew)."""
    lost = _LOST.match(record.text)
    says = lost and _LOSSES.get(lost.group(2), _LOSSES[None]).format(int(lost.group(1)))
    return int(lost.group(1)) if lost else 0, says, bool(_BEGUN_ANEW.match(record.text))
