"""The command line."""

import argparse
import datetime
import functools
import gc
import importlib
import os
import re
import signal
import sys

from . import lines, manual, texts
from .matcher import Matcher
from .sources import InputError, Inputs
from .stats import Filter, Stats, by_name
from .summary import Summary

FOUND, NOTHING, WRONG = 0, 1, 2


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        raise InputError(message)


def _parser():
    parser = _Parser(prog='zelvo-view', add_help=False, allow_abbrev=False)
    parser.add_argument('files', nargs='*')
    for flag in ('messages', 'follow', 'json', 'mermaid', 'dot', 'all', 'help', 'version'):
        parser.add_argument('--' + flag, action='store_true')
    parser.add_argument('--perfetto', metavar='OUT')
    parser.add_argument('--html', metavar='OUT')
    parser.add_argument('--serve', nargs='?', type=_port, const=8377, metavar='PORT')
    parser.add_argument('--listen', metavar='ADDRESS')
    parser.add_argument('--node', action='append', default=[])
    parser.add_argument('--topic', action='append', default=[])
    parser.add_argument('--from', dest='begin', type=_time, metavar='TIME')
    parser.add_argument('--to', dest='end', type=functools.partial(_time, is_end=True),
                        metavar='TIME')
    parser.add_argument('--limit', type=int)
    return parser


def _port(text):
    if not text.isdecimal():
        raise argparse.ArgumentTypeError('not a port: {!a}; files go before it'.format(text))
    return int(text)


_TIME = re.compile(r'(?:(\d{4}-\d\d-\d\d)(?:[T ]|$))?'
                   r'(?:([01]?\d|2[0-3]):([0-5]\d)(?::([0-5]\d)(?:\.(\d{1,3}))?)?)?$')
_DAY = 86400000


def _time(text, is_end=False):
    """Takes the first and the last time of the log, gives milliseconds."""
    if re.fullmatch(r'\+\d+(\.\d+)?', text):
        return lambda first, last, since: first + round(float(text[1:]) * 1000)
    m = _TIME.match(text) if text else None
    if not m:
        raise argparse.ArgumentTypeError('not a time: {!a}'.format(text))
    day, hours, minutes, seconds, millis = m.groups()
    try:
        date = datetime.date.fromisoformat(day) if day else None
        of_day = datetime.timedelta(hours=int(hours or 0), minutes=int(minutes or 0),
                                    seconds=int(seconds or 0),
                                    milliseconds=int((millis or '0').ljust(3, '0')))
    except ValueError as error:
        raise argparse.ArgumentTypeError('not a time: {!a}'.format(text)) from error
    within = int(of_day.total_seconds() * 1000 + 0.5)
    if is_end and hours is None:
        within = _DAY - 1

    def resolve(first, last, since):
        if date is not None:
            return (date - datetime.date(1970, 1, 1)).days * _DAY + within
        begin = first if since is None else since
        found = begin // _DAY * _DAY + within
        # Of a time that the log does not hold, the nearer one is meant.
        if found < begin and (found + _DAY <= (last or 0) or begin - found > _DAY // 2):
            return found + _DAY
        return found
    return resolve


class View:
    """One run of the program."""

    def __init__(self, arguments):
        self.arguments = arguments
        self.inputs = Inputs(arguments.files)
        self.matcher = Matcher()
        self._filter = None
        self._last = None

    def wanted(self, messages):
        """Those that pass the filter. Its times are known when the log has begun."""
        for message in messages:
            if self._filter is None:
                self._make_filter()
            if self.passes(message):
                yield message

    def _make_filter(self):
        arguments, first = self.arguments, self.matcher.first_ms
        begin = arguments.begin and arguments.begin(first, self._last, None)
        end = arguments.end and arguments.end(first, self._last, begin)
        self._filter = Filter(arguments.node, arguments.topic, begin, end)

    def messages(self):
        """All messages of the input."""
        matcher, out = self.matcher, self.matcher.out
        if self.arguments.begin or self.arguments.end:
            self._last = self.inputs.last_ms()
        feed = matcher.feed
        for count, record in enumerate(self.inputs.records()):
            feed(record)
            if count & 1023 == 0 and out:
                yield from self.wanted(matcher.ready(matcher.last_ms))
        yield from self.wanted(matcher.finish())

    def passes(self, message):
        return self._filter is None or not self._filter.narrows or self._filter.passes(message)

    def why_nothing(self):
        """What to say where there was nothing to show."""
        if not any(reader.count or reader.strange for reader in self.inputs.readers):
            return 'the input is empty'
        return 'nothing found' if self._filter else 'no messages: log at level 2 (`level`)'

    def live(self, skips=False):
        """The messages as they come; None whenever what has come is to be seen."""
        matcher = self.matcher
        for records in self.inputs.follow(skips):
            for record in records:
                matcher.feed(record)
            if matcher.out:
                yield from self.wanted(matcher.ready(matcher.last_ms if records else None))
            yield None
        yield from self.wanted(matcher.finish())


def _show_lines(view, arguments):
    writer = (lines.JsonLines if arguments.json else lines.Lines)(sys.stdout)
    return lines.write(view.messages(), writer)


def _follow(view, arguments):
    writer = (lines.JsonLines if arguments.json else lines.Lines)(sys.stdout)
    shown = 0
    try:
        for message in view.live():
            if message is None:
                sys.stdout.flush()
            else:
                shown += lines.write((message,), writer)
    except KeyboardInterrupt:  # the calls that wait are what one looks for
        shown += lines.write(view.wanted(view.matcher.finish()), writer)
    return shown


def _summarise(view, arguments):
    stats = Stats()
    for message in view.messages():
        stats.add(message)
    summary = Summary(view.matcher, stats, view.inputs, by_name(view.matcher),
                      lines.wants_colour(sys.stdout), None if arguments.all else 20)
    if stats.messages:
        for line in summary.text():
            print(line)
    return stats.messages


def _by(module, *names):
    """A module that is loaded when it is needed, and the options that it takes."""
    def run(view, arguments):
        found = importlib.import_module('.' + module, __package__)
        return found.run(view, *(getattr(arguments, name) for name in names))
    return run


# What is done for the first of these options that is given.
_MODES = (('serve', _by('serve', 'serve', 'listen')), ('follow', _follow), ('html', _by('report', 'html')),
          ('perfetto', _by('perfetto', 'perfetto')), ('mermaid', _by('mermaid', 'limit')),
          ('dot', _by('dot')), ('json', _show_lines), ('messages', _show_lines))


def _run(argv):
    arguments = _parser().parse_args(argv)
    if arguments.help or arguments.version:
        print(manual.help_text() if arguments.help else 'zelvo-view {}\n'.format(manual.version()),
              end='')
        return FOUND
    given = [(name, run) for name, run in _MODES
             if getattr(arguments, name) or name == 'serve' and arguments.serve is not None]
    if len(given) - (arguments.json and (arguments.messages or arguments.follow)) > 1:
        raise InputError('of {} only one at a time'.format(
            ' and '.join('--' + name for name, _ in given)))
    if arguments.listen and arguments.serve is None:
        raise InputError('--listen: only with --serve')
    if arguments.limit is not None and arguments.limit < 1:
        raise InputError('--limit: at least 1')
    view = View(arguments)
    if arguments.html or arguments.perfetto:
        view.inputs.check_goal(arguments.html or arguments.perfetto)
    shown = (given[0][1] if given else _summarise)(view, arguments)
    if not shown:
        print('zelvo-view: ' + view.why_nothing(), file=sys.stderr)
    return FOUND if shown else NOTHING


def main(argv=None):
    sys.stdout = sys.stdout or open(os.devnull, 'w', encoding='utf-8')
    sys.stdout.reconfigure(errors='backslashreplace')
    gc.freeze()
    gc.disable()  # nothing here is in a ring that reference counts do not free
    try:
        code = _run(sys.argv[1:] if argv is None else argv)
        sys.stdout.flush()
        return code
    except InputError as error:
        print('zelvo-view: ' + texts.safe(str(error)), file=sys.stderr)
        return WRONG
    except OSError as error:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        if isinstance(error, BrokenPipeError):
            return FOUND
        print('zelvo-view: ' + texts.safe(error.strerror or str(error)), file=sys.stderr)
        return WRONG
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
