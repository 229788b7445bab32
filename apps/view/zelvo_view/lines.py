"""One line a message: for people, or as JSON."""

import base64
import json
import os
import shutil
import sys

from . import texts
from .model import KINDS

_ARROWS = {'publish': '-->', 'sticky': '-->', 'deliver': '-->', 'call': '==>', 'answer': '<==',
           'unstick': '-->'}
_COLOURS = {'publish': '36', 'sticky': '36', 'unstick': '36', 'deliver': '32', 'call': '34',
            'answer': '35'}
_FAULT_COLOUR = '31'
_TO_ADDRESSES = ('call', 'answer', 'late', 'timeout', 'unanswered', 'ring', 'nobody', 'refused')
_OF_CALLS = ('call', 'request', 'answer')  # causes of drops
_NAME_COLUMNS, _SUBJECT_COLUMNS = 14, 22


def wants_colour(stream):
    return stream.isatty() and not os.environ.get('NO_COLOR') and os.environ.get('TERM') != 'dumb'


class Lines:
    """For people. An answer stands with its callee on the right, as its call does."""

    def __init__(self, stream):
        self._colour = wants_colour(stream)
        self._columns = shutil.get_terminal_size().columns if stream.isatty() else None
        self._names = _NAME_COLUMNS
        self._subjects = _SUBJECT_COLUMNS
        self._day = None  # of the first line: behind it the date is shown

    def line(self, message):
        kind = message.kind
        left, right = message.src, message.dst
        if kind in ('answer', 'late'):
            left, right = right, left
        if kind in ('publish', 'sticky'):
            right = '*'
        left, right = texts.safe(left or ''), texts.safe(right or '')
        subject = texts.safe(message.subject or '')
        self._names = min(max(self._names, len(left), len(right)), 24)
        self._subjects = min(max(self._subjects, len(subject)), 32)
        day = message.ms // 86400000
        if self._day is None:
            self._day = day
        text = '{} {} {} {} {} {}'.format(
            (texts.clock if day == self._day else texts.day_time)(message.ms), texts.padded(left, self._names), _ARROWS.get(kind, '-x-'),
            texts.padded(right, self._names), texts.padded(subject, self._subjects),
            ' '.join(self._rest(message))).rstrip()
        if self._columns:
            text = texts.cut(text, self._columns)
        if self._colour:
            colour = _FAULT_COLOUR if KINDS[kind] else _COLOURS[kind]
            text = '\x1b[{}m{}\x1b[0m'.format(colour, text)
        return text

    @staticmethod
    def _rest(message):
        if KINDS[message.kind]:
            yield message.kind.upper()
        if message.kind == 'sticky':
            yield '(sticky)'
        if message.kind == 'unstick':
            yield '(no longer sticky)'
        if message.took is not None:
            yield '[{}]'.format(texts.duration(message.took))
        if message.note:
            yield '({})'.format(texts.safe(message.note))
        payload = texts.payload_text(message)
        if payload:
            yield payload


class JsonLines:
    """One object a message; docs/view.md describes it."""

    def __init__(self, stream):
        self._dumps = json.JSONEncoder(ensure_ascii=True, check_circular=False).encode

    def line(self, message):
        is_address = message.kind in _TO_ADDRESSES or message.cause in _OF_CALLS
        found = {
            'number': message.number,
            'time': texts.iso(message.ms),
            'process': int(message.pid or 0),
            'thread': int(message.tid or 0),
            'kind': message.kind,
            'from': message.src,
            'to': message.dst,
            'address' if is_address else 'topic': message.subject,
            'payload': None if message.payload is None else texts.decoded(message.payload),
            'bytes': message.size,
            'of': message.ref.number if message.ref is not None else None,
            'fault': KINDS[message.kind],
        }
        if message.payload is not None:
            try:
                message.payload.decode()
            except UnicodeDecodeError:
                found['base64'] = base64.b64encode(message.payload).decode()
        if message.took is not None:
            found['ms'] = message.took
        if message.ring:
            found['ring'] = message.ring
        if message.cause:
            found['cause'], found['queue'] = message.cause, message.queue
        if message.note:
            found['note'] = message.note
        return self._dumps(found)


def write(messages, writer, stream=None):
    """Writes the messages; tells how many there were."""
    stream = stream or sys.stdout
    count = 0
    for message in messages:
        stream.write(writer.line(message) + '\n')
        count += 1
    return count
