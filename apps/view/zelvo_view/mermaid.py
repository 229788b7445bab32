"""A sequence diagram in the language of Mermaid."""

import re

from . import texts
from .model import KINDS, UNKNOWN

LIMIT = 400  # messages
_WHOLE = 45000  # characters: Mermaid draws no longer text, unless it is told to
_LONGEST = 60  # characters of a payload

# How each kind is drawn.
_ARROWS = {'publish': '->>', 'sticky': '->>', 'unstick': '->>', 'deliver': '-->>', 'call': '->>',
           'answer': '-->>'}
_FAULT_ARROW = '-x'
# What Mermaid would read as its own language, and what would end a line. An entity of its kind,
# "#35;", stands for each.
_SPECIAL = set('#;<>%&@$`\\')

_WRAP = re.compile(r'(?<=^wrap):|(?<=^nowrap):')  # a word of its language, before a text


def label(text, longest=_LONGEST):
    """Any text as one that Mermaid shows as it stands."""
    text = texts.safe(text)
    if len(text) > longest:
        text = text[:longest] + '...'
    text = ''.join('#{};'.format(ord(c)) if c in _SPECIAL else c for c in text).strip()
    return _WRAP.sub('#58;', text, count=1) or '#32;'


class Diagram:
    def __init__(self):
        self._participants = {}
        self._lines = []
        self.left_out = 0
        self._length = 0

    @property
    def is_full(self):
        return self._length > _WHOLE

    def _draw(self, line):
        self._length += len(line) + 5
        self._lines.append(line)

    def _id(self, name):
        """Names are labels alone: what stands in the arrows is made up."""
        if name not in self._participants:
            self._participants[name] = 'n{}'.format(len(self._participants))
        return self._participants[name]

    def add(self, message):
        kind = message.kind
        if message.src is None and message.dst is None:
            self._draw('Note over {}: {}'.format(
                self._id('bus'), label('{}: {}'.format(kind, message.note))))
            return
        src = message.src or message.dst or UNKNOWN
        dst = message.dst or ('bus' if kind in ('publish', 'sticky') else UNKNOWN)
        arrow = _FAULT_ARROW if KINDS[kind] else _ARROWS[kind]
        text = ' '.join(filter(None, self._parts(message)))
        self._draw('{}{}{}: {}'.format(self._id(src), arrow, self._id(dst), label(text, 120)))

    @staticmethod
    def _parts(message):
        if KINDS[message.kind]:
            yield message.kind.upper()
        yield message.subject or ''
        if message.kind == 'sticky':
            yield '(sticky)'
        payload = texts.payload_text(message)
        yield payload if len(payload) <= _LONGEST else payload[:_LONGEST] + '...'
        if message.note and KINDS[message.kind]:
            yield '({})'.format(message.note)

    def lines(self):
        yield 'sequenceDiagram'
        for name, made in self._participants.items():
            yield '    participant {} as {}'.format(made, label(name, 127))
        for line in self._lines:
            yield '    ' + line
        if self.left_out:
            yield '    Note over n0: {} more messages follow'.format(self.left_out)


def run(view, limit):
    """The first messages, up to limit where it is given; tells how many messages there were."""
    diagram = Diagram()
    count = 0
    for message in view.messages():
        count += 1
        if count <= limit if limit else count <= LIMIT and not diagram.is_full:
            diagram.add(message)
        else:
            diagram.left_out += 1
    if count:
        for line in diagram.lines():
            print(line)
    return count
