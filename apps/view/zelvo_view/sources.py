"""Where records come from: files, several at once, standard input, and what still grows."""

import contextlib
import os
import select
import sys
import time
from collections import Counter

from .records import NotALog, Reader

CHUNK = 1 << 20
LOOK = 0.01  # seconds between two looks at a growing file
QUIET = 0.003  # seconds without anything new, after which nothing is held back
HEAD = 64  # bytes that a file begins with, a time among them


class InputError(Exception):
    """One line that says where and why."""


def _not_a_log(name, error):
    shown = error.text.decode('utf-8', 'backslashreplace')
    return InputError('{}:{}: not a log of Zelvo, which begins '
                      '"[pid:tid]date time [L] file#line#": {}'.format(name, error.line,
                                                                        ascii(shown)))


def _open(path):
    try:
        return open(path, 'rb', buffering=0)
    except OSError as error:
        raise InputError('{}: {}'.format(path, error.strerror)) from error


def _distinct(paths):
    found, seen = [], set()
    for path in paths:
        real = path if path == '-' else os.path.realpath(path)
        if real not in seen:
            seen.add(real)
            found.append(path)
    return found


class Inputs:
    """The records of paths ('-' or none: standard input)."""

    def __init__(self, paths):
        self.paths = _distinct(paths) or ['-']
        self.readers = []
        self.doubled = 0  # records that stood in two files

    @property
    def strange(self):
        return sum(reader.strange for reader in self.readers)

    def records(self):
        """All records, those of several files in the order of their times."""
        streams = [self._stream(path) for path in self.paths]
        return streams[0] if len(streams) == 1 else self._merged(streams)

    def _stream(self, path):
        name = '<standard input>' if path == '-' else path
        source = sys.stdin.buffer.raw if path == '-' else _open(path)
        reader = Reader()
        self.readers.append(reader)
        try:
            while True:
                data = source.read(CHUNK)
                yield from reader.feed(data or b'', not data)
                if not data:
                    return
        except NotALog as error:
            raise _not_a_log(name, error) from error
        except OSError as error:
            raise InputError('{}: {}'.format(name, error.strerror)) from error

    def _merged(self, streams):
        """Millisecond by millisecond. A record that two files have is the same one: a process
        writes one log, so the files overlap."""
        heads = [[next(stream, None), stream] for stream in streams]
        heads = [head for head in heads if head[0] is not None]
        while heads:
            ms = min(head[0].ms for head in heads)
            known = Counter()
            for head in heads:
                run = []
                while head[0] is not None and head[0].ms <= ms:
                    run.append(head[0])
                    head[0] = next(head[1], None)
                seen = Counter()
                for record in run:
                    same = record._replace(again=False)
                    seen[same] += 1
                    if seen[same] > known[same]:
                        known[same] += 1
                        yield record
                    else:
                        self.doubled += 1
            heads = [head for head in heads if head[0] is not None]

    # ---- what grows ----

    def follow(self):
        """Yields lists of records as they come, and an empty one whenever nothing has come for a
        moment; ends with standard input, or never."""
        if self.paths == ['-']:
            yield from self._follow_pipe()
            return
        if '-' in self.paths:
            raise InputError('--follow: standard input (-) only by itself')
        tails = [Tail(path) for path in self.paths]
        self.readers = [tail.reader for tail in tails]
        while True:
            news = [records for records in (tail.read() for tail in tails) if records]
            yield from news
            if not news:
                yield []
                time.sleep(LOOK)

    def _follow_pipe(self):
        reader = Reader(live=True)
        self.readers = [reader]
        fd = sys.stdin.fileno()
        can_wait = os.name != 'nt'
        try:
            while True:
                data = os.read(fd, CHUNK)
                yield list(reader.feed(data, not data))
                if not data:
                    return
                if not can_wait or not select.select([fd], [], [], QUIET)[0]:
                    yield []
        except NotALog as error:
            raise _not_a_log('<standard input>', error) from error


class Tail:
    """A file that grows, and that may be begun anew: emptied, or removed and made again."""

    def __init__(self, path):
        self.path = path
        self.reader = Reader(live=True)
        self._file = _open(path)
        self._head = b''  # what it begins with, as far as it is known

    def read(self):
        """What has come since."""
        found = list(self.reader.begin_anew()) if self._is_emptied() else []
        data = self._file.read(CHUNK)
        if not data and self._is_replaced():
            data = self._file.read(CHUNK)  # written before it was removed
            fresh = None if data else self._reopen()
            if fresh is not None:
                self._file.close()
                self._file, self._head = fresh, b''
                found += self.reader.begin_anew()
                data = self._file.read(CHUNK)
        try:
            return found + list(self.reader.feed(data)) if data else found
        except NotALog as error:
            raise _not_a_log(self.path, error) from error

    def _reopen(self):
        try:
            return open(self.path, 'rb', buffering=0)
        except OSError:
            return None  # between being removed and begun anew

    def _is_emptied(self):
        """Whether a program has begun it anew in place, since when it may have outgrown the old
        one; then what follows is read from its beginning."""
        if not self._file.seekable():
            return False
        at = self._file.tell()
        self._file.seek(0)
        known, self._head = self._head, self._file.read(HEAD)
        emptied = not self._head.startswith(known) or os.fstat(self._file.fileno()).st_size < at
        self._file.seek(0 if emptied else at)
        return emptied

    def _is_replaced(self):
        mine = os.fstat(self._file.fileno())
        try:
            there = os.stat(self.path)
        except OSError:
            return False
        return (mine.st_dev, mine.st_ino) != (there.st_dev, there.st_ino)


@contextlib.contextmanager
def writing(path):
    """A text file at path, which is there whole or not at all."""
    made = '{}.{}.tmp'.format(path, os.getpid())
    try:
        with open(made, 'w', encoding='utf-8', errors='backslashreplace', newline='\n') as file:
            yield file
        os.replace(made, path)
    except OSError as error:
        raise InputError('{}: {}'.format(path, error.strerror)) from error
    finally:
        if os.path.exists(made):
            os.unlink(made)
