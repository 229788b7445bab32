"""How times, names and payloads are written."""

import datetime
import unicodedata

# What a terminal might obey, and what would turn the direction of a line, as an escape.
_UNSAFE = [c for begin, end in (
    (0, 0x20), (0x7f, 0xa0), (0x61c, 0x61d), (0x200e, 0x2010), (0x2028, 0x202f), (0x2066, 0x2070),
    (0xd800, 0xe000), (0xfeff, 0xff00), (0xfff9, 0xfffc), (0xe0000, 0xe0080))
           for c in range(begin, end)]
_ESCAPES = {c: '\\x{:02x}'.format(c) if c < 256 else '\\u{:04x}'.format(c) for c in _UNSAFE}
_ESCAPES.update({0x09: '\\t', 0x0a: '\\n', 0x0d: '\\r', 0: '\\0'})


def safe(text):
    """text in one line, with nothing in it that a terminal obeys."""
    return text if text.isprintable() else text.translate(_ESCAPES)


def decoded(payload):
    """A payload as text; bytes that are no UTF-8 as \\xNN."""
    return payload.decode('utf-8', 'backslashreplace')


def payload_text(message):
    """What is known of a message's payload, in one line."""
    if message.payload is None:
        return '({} bytes)'.format(message.size) if message.size else ''
    return safe(decoded(message.payload))


def cut(text, width):
    """text in at most width columns."""
    if text.isascii():
        return text if len(text) <= width else text[:max(width - 1, 0)] + '~'[:width]
    if columns(text) <= width:
        return text
    used = 0
    for index, char in enumerate(text):
        used += columns(char)
        if used >= width:
            return (text[:index] + '~')[:width]
    return text


def columns(text):
    """How wide a terminal shows it."""
    if text.isascii():
        return len(text)
    return sum(0 if unicodedata.combining(char) else
               2 if unicodedata.east_asian_width(char) in 'WF' else 1 for char in text)


def padded(text, width):
    """text in width columns, at least."""
    return text + ' ' * (width - columns(text))


def _moment(ms):
    return datetime.datetime(1970, 1, 1) + datetime.timedelta(milliseconds=ms)


def day_time(ms):
    """2026-11-25 16:55:20.822"""
    return _moment(ms).isoformat(' ', 'milliseconds')


_last_second = [None, '', '']


def clock(ms):
    """16:55:20.822"""
    return _second(ms)[2] + '.{:03d}'.format(ms % 1000)


def iso(ms):
    """2026-11-25T16:55:20.822+08:00, the zone of the log."""
    return _second(ms)[1] + '.{:03d}+08:00'.format(ms % 1000)


def _second(ms):
    if _last_second[0] != ms // 1000:
        moment = _moment(ms // 1000 * 1000)
        _last_second[:] = ms // 1000, moment.isoformat('T', 'seconds'), moment.strftime('%H:%M:%S')
    return _last_second


def duration(ms):
    """A time that the log knows to the millisecond."""
    if ms < 1:
        return '<1 ms'
    if ms < 10000:
        return '{} ms'.format(ms)
    return '{:.1f} s'.format(ms / 1000)


def amount(count):
    """Bytes."""
    for unit in ('B', 'kB', 'MB'):
        if count < 10000:
            return '{} {}'.format(count if unit == 'B' else '{:.0f}'.format(count), unit)
        count /= 1000
    return '{:.1f} GB'.format(count)
