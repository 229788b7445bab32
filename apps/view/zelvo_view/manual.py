"""The manual: one text for --help and for the man page."""

import os
import re
import sys
import textwrap

SYNOPSIS = ('zelvo-view [FILE...] [--messages | --follow | --json | --mermaid | --dot |\n'
            '           --perfetto OUT | --html OUT | --serve [PORT]] [--node NAME]\n'
            '           [--topic TOPIC] [--from TIME] [--to TIME]')

INTRODUCTION = '''\
Shows the traffic of a Zelvo bus: who talks to whom, what was lost, and what hangs. It reads logs as
the library writes them, at level 2 or, for more, level 1; of higher levels it shows the faults
alone. Several files are read as one log; - or no file is standard input. Without an option it
prints a summary that begins with what went wrong.'''

OPTIONS = (
    ('--messages', 'One line for each message: time, from, arrow, to, topic or address, payload.'),
    ('--follow', 'The same as it happens: what the log holds, then what is added, also when the log '
     'is emptied, or removed, and begun anew. Ends with Ctrl-C, or with standard input, which it '
     'reads only by itself.'),
    ('--json', 'The messages as JSON, one object a line; also with --follow.'),
    ('--mermaid', 'A sequence diagram in the language of Mermaid.'),
    ('--dot', 'Who talks to whom, as a graph for Graphviz.'),
    ('--perfetto OUT', 'Writes a trace that Perfetto and chrome://tracing open: a track for each '
     'thread of a node, a slice for each handler and call, arrows between what belongs together.'),
    ('--html OUT', 'Writes a report in one file that a browser opens without a network.'),
    ('--serve [PORT]', 'Shows the running bus in a browser, at the address that it prints (port 8377 '
     'if not given, 0: any), until Ctrl-C. What standard input holds beyond what can be read in time '
     'is skipped and counted, so that the program that writes it never waits.'),
    ('--listen ADDRESS', 'With --serve: listens there instead of on 127.0.0.1. Whoever reaches it and '
     'knows the key in the address sees all messages, unencrypted.'),
    ('--all', 'With the summary: all rows of its tables, not only the first 20.'),
    ('--limit N', 'With --mermaid: at most so many messages, 400 if not given.'),
    ('--node NAME', 'Only messages from or to this node. May be repeated.'),
    ('--topic TOPIC', 'Only messages of this topic or address; * stands for any text. May be '
     'repeated.'),
    ('--from TIME', 'Only from this time on: a date, a clock time (hh:mm, with :ss and .mmm), which '
     'means the first such moment in the log, both (2026-11-25T16:55:20), or +SECONDS from the '
     'beginning of the log. Times are those of the log, which are in UTC+8 anywhere.'),
    ('--to TIME', 'Only up to this time; with a date alone, to the end of that day.'),
    ('--version', 'Prints the version.'),
    ('--help', 'Prints this text.'),
)

SECTIONS = (
    ('What is shown as unknown', '''\
The log does not say whose publication a node receives, and lines may be missing. A delivery is
shown with its publisher where only one publication can be meant: one of the same topic and payload
that the node has not received yet. Where it is not in the log, or where it is one of several, "?"
stands for what is not known. The trace and the report draw an arrow only where it is known.'''),
    ('Exit status', '''\
0: something was shown. 1: nothing was found. 2: wrong arguments, or an input that is no such log;
one line on standard error says where and why. A log may stand between other lines, as on the
standard output of a program, but not behind more than a thousand of them.'''),
    ('Environment', '''\
NO_COLOR: where it is set and not empty, no colours. Colours are for terminals alone.'''),
    ('Examples', '''\
zelvo-view run.log
app | zelvo-view --follow
app | zelvo-view --serve
zelvo-view run.log --dot | dot -Tsvg > run.svg
zelvo-view run.log --html run.html --from +2 --to +3'''),
)


def help_text(width=80):
    """The text of --help."""
    lines = ['Usage: ' + SYNOPSIS.replace('\n', '\n       ').replace('       ' + ' ' * 11, ' ' * 18),
             '', textwrap.fill(INTRODUCTION, width), '', 'Options:']
    for option, text in OPTIONS:
        lines.append('  ' + option)
        lines.append(textwrap.fill(text, width, initial_indent=' ' * 6, subsequent_indent=' ' * 6))
    for title, text in SECTIONS:
        lines += ['', title + ':']
        if title == 'Examples':
            lines += ['  ' + line for line in text.splitlines()]
        else:
            lines.append(textwrap.fill(text, width, initial_indent='  ', subsequent_indent='  '))
    return '\n'.join(lines) + '\n'


def version():
    """The version: that of the installed package, or of the sources around this file."""
    here = os.path.dirname(os.path.abspath(__file__))
    for place, pattern in ((os.path.join(here, 'version.txt'), r'(\S+)'),
                           (os.path.join(here, *[os.pardir] * 3, 'CMakeLists.txt'),
                            r'project\(Zelvo VERSION (\S+)')):
        if os.path.exists(place):
            with open(place, encoding='utf-8') as file:
                found = re.search(pattern, file.read())
            if found:
                return found.group(1)
    return 'unknown'


def _roff(text):
    text = text.replace('\\', '\\e').replace('-', '\\-')
    return '\n'.join('\\&' + line if line[:1] in ".'" else line for line in text.splitlines())


def man_page():
    """The same as a page for man(1)."""
    lines = ['.TH ZELVO\\-VIEW 1 "" "Zelvo {}" "User Commands"'.format(version()),
             '.SH NAME', 'zelvo\\-view \\- show the traffic of a Zelvo bus', '.SH SYNOPSIS', '.nf',
             _roff(SYNOPSIS), '.fi', '.SH DESCRIPTION', _roff(INTRODUCTION), '.SH OPTIONS']
    for option, text in OPTIONS:
        lines += ['.TP', '.B ' + _roff(option), _roff(text)]
    for title, text in SECTIONS:
        lines.append('.SH ' + title.upper())
        if title == 'Examples':
            lines += ['.nf', _roff(text), '.fi']
        else:
            lines.append(_roff(text))
    return '\n'.join(lines) + '\n'


if __name__ == '__main__':
    sys.stdout.write(man_page())
