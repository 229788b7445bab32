"""Where records come from: files, several at once, standard input, and what still grows."""

import contextlib
import math
import os
import stat
import sys
import threading
import time
from collections import Counter

from .records import NotALog, Reader, last_time, skipped_before

CHUNK = 1 << 20
LOOK = 0.01  # seconds between two looks at a growing file
QUIET = 0.003  # seconds without anything new, after which nothing is held back
SETTLED = 1.0  # seconds after which nothing more of a text is waited for
HEAD = 64  # bytes that a file begins with, a time among them
ROOM = 8 << 20  # bytes of standard input that may wait to be read


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
        if '-' in self.paths and sys.stdin is None:
            raise InputError('standard input is closed')
        self.readers = []
        self.doubled = 0  # records that stood in two files
        self.pipe = None
        self.tails = []

    @property
    def strange(self):
        return sum(reader.strange for reader in self.readers)

    def last_ms(self):
        """The latest time at the end of the files, None where that is not known."""
        ends = []
        for path in self.paths:
            if os.path.isfile(path):
                with _open(path) as file:
                    file.seek(max(os.path.getsize(path) - (1 << 16), 0))
                    ends.append(last_time(file.read(1 << 16)))
        return max((end for end in ends if end is not None), default=None)

    def check_goal(self, path):
        """Refuses a path whose file is a log: what is written there would replace it."""
        if os.path.isfile(path):
            with _open(path) as file:
                is_log = last_time(file.read(CHUNK)) is not None
            if is_log or any(os.path.exists(p) and os.path.samefile(p, path) for p in self.paths):
                raise InputError('{}: this is a log, and it would be overwritten'.format(path))

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
        """Millisecond by millisecond."""
        # A record that two files have is the same one: a process writes one log, so they overlap. But
        # where one file ends in the millisecond in which another begins, that one goes on there.
        heads = [[next(stream, None), stream, True] for stream in streams]
        heads = sorted((head for head in heads if head[0] is not None), key=lambda head: head[0].ms)
        while heads:
            ms = min(head[0].ms for head in heads)
            known, going_on = Counter(), Counter()  # records, and those of files that do not end here
            for head in heads:
                run = []
                while head[0] is not None and head[0].ms <= ms:
                    run.append(head[0])
                    head[0] = next(head[1], None)
                if not run:
                    continue
                others, head[2] = going_on if head[2] else known, False
                seen = Counter()
                for record in run:
                    same = record._replace(again=False)
                    seen[same] += 1
                    if seen[same] > others[same]:
                        yield record
                    else:
                        self.doubled += 1
                known |= seen
                if head[0] is not None:
                    going_on |= seen
            heads = [head for head in heads if head[0] is not None]

    # ---- what grows ----

    def follow(self, skips=False):
        """Yields lists of records as they come, and an empty one whenever nothing has come for a
        moment; ends with standard input, or never. skips: see Pipe."""
        path = self.paths[0]
        if len(self.paths) == 1 and (path == '-' or os.path.exists(path) and not os.path.isfile(path)):
            yield from self._follow_pipe(path, skips)
            return
        if '-' in self.paths:
            raise InputError('--follow: standard input (-) only by itself')
        tails = self.tails = [Tail(path) for path in self.paths]
        self.readers = [tail.reader for tail in tails]
        while True:
            news = [records for records in (tail.read() for tail in tails) if records]
            yield from news
            if not news:
                yield []
                time.sleep(LOOK)

    def _follow_pipe(self, path, skips):
        reader, source = Reader(live=True), sys.stdin if path == '-' else _open(path)
        self.readers, waits = [reader], 0
        pipe = self.pipe = Pipe(source.fileno(), skips)
        pipe.start()
        try:
            while True:
                data = pipe.take(SETTLED / 10 if waits else QUIET)
                if data is None:
                    waits += 1
                    if waits == 11:
                        yield reader.settle()
                    yield []
                    continue
                waits = 0
                yield list(reader.feed(data, not data))
                if not data:
                    return
        except NotALog as error:
            raise _not_a_log('<standard input>' if path == '-' else path, error) from error


class Pipe(threading.Thread):
    """Reads from fd ahead of who takes it."""
    # skips: where too much waits, what comes is skipped, and a line of the log tells how many lines;
    # else its writer waits.

    def __init__(self, fd, skips):
        super().__init__(daemon=True)
        self._fd, self._skips = fd, skips
        self._changed = threading.Condition()
        self._held, self._ended = bytearray(), False
        self.skipped = 0  # lines

    def run(self):
        data, skipping = b' ', 0
        while data:
            try:
                data = os.read(self._fd, CHUNK)
            except OSError:
                data = b''
            with self._changed:
                if len(self._held) > ROOM and not self._skips:
                    self._changed.wait_for(lambda: len(self._held) < ROOM)
                if data and len(self._held) > (ROOM // 2 if skipping else ROOM):
                    if not skipping:  # what is taken ends with a whole line
                        del self._held[self._held.rfind(b'\n') + 1:]
                        skipping = 1
                    skipping += data.count(b'\n')
                    continue
                if skipping:
                    skipping -= not data
                    data = data.partition(b'\n')[2]
                    self.skipped += skipping
                    data = b'\nlog lines lost: %d, not read in time\n\n' % skipping + data
                    skipping = 0
                self._held += data
                self._ended = not data
                self._changed.notify()

    def take(self, seconds):
        """What has come, b'' at the end, None where nothing has come for so long."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._held or self._ended, seconds):
                return None
            data = bytes(self._held[:CHUNK])
            del self._held[:CHUNK]
            self._changed.notify()
            return data


class Tail:
    """A file that grows, and that may be begun anew: emptied, or removed and made again."""

    def __init__(self, path):
        self.path = path
        self.reader = Reader(live=True)
        self._file = _open(path)
        self._head = b''  # what it begins with, as far as it is known
        self._came = 0.0  # when, at the latest
        self._before = None  # (size, when it was removed) of the file before, until this one tells of it
        self.anew = 0  # how often it was begun anew

    @property
    def behind(self):
        """Bytes that are there and have not been read."""
        size = os.fstat(self._file.fileno()).st_size
        return max(size - self._file.tell(), 0) if self._file.seekable() else 0

    def read(self):
        """What has come since."""
        found = self._begin_anew() if self._is_emptied() else []
        data = self._file.read(CHUNK)
        if not data and self._is_replaced():
            data = self._file.read(CHUNK)  # written before it was removed
            fresh = None if data else self._reopen()
            if fresh is not None:
                self._before = (self._file.tell(), os.fstat(self._file.fileno()).st_ctime)
                self._file.close()
                self._file, self._head = fresh, b''
                found += self._begin_anew()
                data = self._file.read(CHUNK)
        if data and self._before is not None:
            data, self._before = skipped_before(data, *self._before), None
        now = time.monotonic()
        try:
            if data:
                self._came = now
                found += self.reader.feed(data)
            elif now - self._came > SETTLED:
                self._came = math.inf
                found += self.reader.settle()
            return found
        except NotALog as error:
            raise _not_a_log(self.path, error) from error

    def _begin_anew(self):
        self.anew += 1
        return list(self.reader.begin_anew())

    def _reopen(self):
        try:
            return open(self.path, 'rb', buffering=0)
        except OSError:
            return None  # between being removed and begun anew

    def _is_emptied(self):
        """Whether a program has begun it anew in place; then it is read from its beginning."""
        # Since then it may have outgrown the old one.
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
    # Anything but a plain file, as a link, a pipe or a device, stays what it is and is written to.
    in_place = os.path.lexists(path) and not stat.S_ISREG(os.lstat(path).st_mode)
    made = path if in_place else '{}.{}.tmp'.format(path, os.getpid())
    begun = False
    try:
        with open(made, 'w' if in_place else 'x', encoding='utf-8', errors='backslashreplace',
                  newline='\n') as file:
            begun = not in_place
            yield file
        if begun:
            os.replace(made, path)
            begun = False
    except BrokenPipeError:
        raise
    except OSError as error:
        raise InputError('{}: {}'.format(path, error.strerror)) from error
    finally:
        if begun:
            os.unlink(made)
