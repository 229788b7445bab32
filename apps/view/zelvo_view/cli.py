"""The command line."""

import argparse
import datetime
import gc
import os
import re
import signal
import sys

from . import lines, manual
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
    parser.add_argument('--node', action='append', default=[])
    parser.add_argument('--topic', action='append', default=[])
    parser.add_argument('--from', dest='begin', type=_time, metavar='TIME')
    parser.add_argument('--to', dest='end', type=_time, metavar='TIME')
    parser.add_argument('--limit', type=int)
    return parser


_TIME = re.compile(r'(?:(\d{4}-\d\d-\d\d)[T ])?(\d\d?):(\d\d)(?::(\d\d)(?:\.(\d{1,3}))?)?$')


def _time(text):
    """Takes the first time of the log, gives milliseconds."""
    if re.fullmatch(r'\+\d+(\.\d+)?', text):
        return lambda first: first + round(float(text[1:]) * 1000)
    m = _TIME.match(text)
    if not m:
        raise argparse.ArgumentTypeError('not a time: {!a}'.format(text))
    day, hours, minutes, seconds, millis = m.groups()
    try:
        date = datetime.date.fromisoformat(day) if day else None
        of_day = datetime.timedelta(hours=int(hours), minutes=int(minutes),
                                    seconds=int(seconds or 0),
                                    milliseconds=int((millis or '0').ljust(3, '0')))
    except ValueError as error:
        raise argparse.ArgumentTypeError('not a time: {!a}'.format(text)) from error
    within = int(of_day.total_seconds() * 1000 + 0.5)

    def resolve(first):
        start = first // 86400000 if date is None else (date - datetime.date(1970, 1, 1)).days
        return start * 86400000 + within
    return resolve


class View:
    """One run of the program."""

    def __init__(self, arguments):
        self.arguments = arguments
        self.inputs = Inputs(arguments.files)
        self.matcher = Matcher()
        self._filter = None

    def wanted(self, messages):
        """Those that pass the filter. Its times are known when the log has begun."""
        for message in messages:
            if self._filter is None:
                self._make_filter()
            if not self._filter.narrows or self._filter.passes(message):
                yield message

    def _make_filter(self):
        arguments, first = self.arguments, self.matcher.first_ms
        self._filter = Filter(arguments.node, arguments.topic,
                              arguments.begin and arguments.begin(first),
                              arguments.end and arguments.end(first))

    def messages(self):
        """All messages of the input."""
        matcher, out = self.matcher, self.matcher.out
        feed = matcher.feed
        for count, record in enumerate(self.inputs.records()):
            feed(record)
            if count & 1023 == 0 and out:
                yield from self.wanted(matcher.ready(matcher.last_ms))
        yield from self.wanted(matcher.finish())

    def live(self):
        """The messages as they come; None whenever what has come is to be seen."""
        matcher = self.matcher
        for records in self.inputs.follow():
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


def _mermaid(view, arguments):
    from . import mermaid
    return mermaid.write(view, sys.stdout, arguments.limit)


def _dot(view, _arguments):
    from . import dot
    return dot.write(view, sys.stdout)


def _perfetto(view, arguments):
    from . import perfetto
    return perfetto.write(view, arguments.perfetto)


def _html(view, arguments):
    from . import report
    return report.write(view, arguments.html)


# What is done for the first of these options that is given.
_MODES = (('follow', _follow), ('html', _html), ('perfetto', _perfetto), ('mermaid', _mermaid),
          ('dot', _dot), ('json', _show_lines), ('messages', _show_lines))


def _run(argv):
    arguments = _parser().parse_args(argv)
    if arguments.help or arguments.version:
        print(manual.help_text() if arguments.help else 'zelvo-view {}\n'.format(manual.version()),
              end='')
        return FOUND
    given = [(name, run) for name, run in _MODES if getattr(arguments, name)]
    if len(given) - (arguments.json and (arguments.messages or arguments.follow)) > 1:
        raise InputError('of {} only one at a time'.format(
            ' and '.join('--' + name for name, _ in given)))
    if arguments.limit is not None and arguments.limit < 1:
        raise InputError('--limit: at least 1')
    shown = (given[0][1] if given else _summarise)(View(arguments), arguments)
    if not shown:
        print('zelvo-view: nothing found', file=sys.stderr)
    return FOUND if shown else NOTHING


def main(argv=None):
    sys.stdout.reconfigure(errors='backslashreplace')
    gc.freeze()
    gc.disable()  # nothing here is in a ring that reference counts do not free
    try:
        code = _run(sys.argv[1:] if argv is None else argv)
        sys.stdout.flush()
        return code
    except InputError as error:
        print('zelvo-view: {}'.format(error), file=sys.stderr)
        return WRONG
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return FOUND
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
