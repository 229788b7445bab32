"""What the tests share: running the program, and logs that the library has just written."""

import atexit
import functools
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
VIEW = [sys.executable, '-B', os.path.join(os.path.dirname(HERE), 'zelvo-view')]
LIMIT = 300  # seconds, for whatever is waited for
PANEL = 'the "big" <script>alert(1) panel'  # a node of the scenario

folder = tempfile.mkdtemp(prefix='zelvo-view-')
atexit.register(shutil.rmtree, folder, True)


def needs(program, script='script/setup view'):
    # The path of a program; without it the test is skipped, or fails where all must be there.
    found = shutil.which(program)
    if found is None:
        missing = '{} is not installed: {}'.format(program, script)
        raise (AssertionError if os.environ.get('ZELVO_VIEW_ALL') else unittest.SkipTest)(missing)
    return found


def view(*arguments, data=None, code=0, **more):
    # Runs zelvo-view; its standard output, and that its exit code is code.
    done = subprocess.run(VIEW + list(arguments), input=data, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=LIMIT, check=False, **more)
    assert done.returncode == code, (done.returncode, done.stderr)
    view.errors = done.stderr.decode()
    return done.stdout.decode()


def write(name, data):
    # The path of a file that holds data.
    path = os.path.join(folder, name)
    with open(path, 'wb') as file:
        file.write(data)
    return path


def messages(*arguments, **more):
    return [json.loads(line) for line in view('--json', *arguments, **more).splitlines()]


@functools.lru_cache(None)
def scenario(level):
    # (path of the log, truth) of one run of the scenario.
    log, truth = (os.path.join(folder, name + str(level)) for name in ('log', 'truth'))
    subprocess.run([os.environ['ZELVO_VIEW_SCENARIO'], log, truth, str(level)], check=True,
                   timeout=LIMIT, cwd=folder)
    found = {}
    with open(truth, encoding='ascii') as file:
        for line in file:
            kind, *texts, number = line.split()
            texts = [None if t == '-' else bytes.fromhex(t[1:]) for t in texts]
            found.setdefault(kind, []).append((*texts, int(number)))
    return log, found


class Log:
    # A log written by hand, line by line, for what the library writes too rarely.

    def __init__(self):
        self.lines = []
        self.ms = 0
        self.second = '2026-11-25 16:00:00'

    def line(self, tid, text, unit='client/message', level='D'):
        self.lines.append('[00042:{:05d}]{}.{:03d} [{}] src/bus_{}.cpp# 230#  {}'
                          .format(tid, self.second, self.ms, level, unit, text).encode() + b'\n')
        return self

    def trace(self, tid, name, arrow, action, topic='NULL', url='NULL', payload='x'):
        return self.line(tid, 'Vek-client # 143# {} {} busServer,  action: {}, topic: {},  url: {}, '
                         'payload: {}, payload len: {}'.format(name, arrow, action, topic, url,
                                                               payload, len(payload)))

    def join(self, tid, name, topic):
        # The node joins, and has subscribed to the topic.
        self.line(tid, 'Vek-server {} node joined'.format(name), 'server/service')
        self.trace(tid, name, '==>', 'request', url='/bus/subscribe', payload='["%s"]' % topic)
        return self.line(tid, 'Vek-client {} call response, {{"data":""}}'.format(name),
                         'client/call')

    def publish(self, tid, name, topic, payload='x'):
        self.line(tid, 'client: 0x1, server: 0x2. topic: 0x3', 'client/publish')
        return self.trace(tid, name, '==>', 'publish', topic, payload=payload)

    def deliver(self, tid, name, topic, payload='x'):
        return self.trace(tid, name, '<==', 'publish', topic, payload=payload)

    def bytes(self):
        return b''.join(self.lines)

    def kinds(self, kind, *arguments):
        # The messages of one kind that zelvo-view finds in it.
        return [m for m in messages(*arguments, data=self.bytes()) if m['kind'] == kind]
