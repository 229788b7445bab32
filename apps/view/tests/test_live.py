"""--follow: on a pipe, on a file that grows, across a file that is begun anew; memory; colours."""

import json
import os
import pty
import queue
import signal
import subprocess
import threading
import time
import unittest

import support
from support import LIMIT, VIEW, Log

SHOWN_WITHIN = 0.05  # seconds, of the quicker lines: others may be at work on the machine


class Follower:
    # zelvo-view --follow, and its lines with the time of each.

    def __init__(self, *arguments, stdin=None):
        self.process = subprocess.Popen(VIEW + list(arguments), stdin=stdin, stdout=subprocess.PIPE)
        self._lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self._lines.put((time.monotonic(), line.decode()))

    def next(self):
        return self._lines.get(timeout=LIMIT)

    def end(self, by=None):
        if by is not None:
            self.process.send_signal(by)
        code = self.process.wait(LIMIT)
        self.process.stdout.close()
        return code


def line(text):
    return Log().publish(1, 'a', 't', text).bytes()


class Live(unittest.TestCase):
    def check_haste(self, follower, write):
        waits = []
        for number in range(21):
            begun = time.monotonic()
            write(line('message {}'.format(number)))
            shown, text = follower.next()
            self.assertIn('message {}\n'.format(number), text)
            waits.append(shown - begun)
        self.assertLess(sorted(waits)[5], SHOWN_WITHIN)

    def test_a_message_on_a_pipe_is_shown_at_once(self):
        follower = Follower('/dev/stdin', '--follow', stdin=subprocess.PIPE)  # as any pipe with a name
        self.check_haste(follower, lambda data: os.write(follower.process.stdin.fileno(), data))
        follower.process.stdin.close()
        self.assertEqual(follower.end(), 0)

    def test_a_growing_file_is_followed_when_it_is_begun_anew(self):
        path = os.path.join(support.folder, 'growing.log')
        with open(path, 'wb', buffering=0) as file:
            file.write(line('first'))
            follower = Follower(path, '--follow')
            self.assertIn('first', follower.next()[1])
            self.check_haste(follower, file.write)
        # The file before may be one that was never read: of another size, or begun later.
        for more, year in (0, b'1999'), (1, b'1999'), (0, b'2099'):
            with open(path, 'ab') as file:
                file.write(line('last of the old'))
                size = file.tell() + more
            os.unlink(path)
            with open(path, 'wb', buffering=0) as file:
                file.write(b'\nlog file size: %d, remove file:  growing.log\n\n' % size)
                file.write(line('first of the new').replace(b'2026', year))
                self.assertIn('last of the old', follower.next()[1])
                if more or year == b'2099':
                    self.assertIn('removed before they were read', follower.next()[1])
                self.assertIn('first of the new', follower.next()[1])
        with open(path, 'r+b', buffering=0) as file:
            file.truncate(0)  # by a program that has begun anew
            file.seek(0)
            time.sleep(0.1)
            file.write(line('emptied'))
            self.assertIn('emptied', follower.next()[1])
            file.write(b'half of a line')
            anew = Log()
            anew.ms = 1
            anew.trace(1, 'a', '==>', 'publish', 't', payload='outgrown' * 24)
            os.pwrite(file.fileno(), anew.bytes(), 0)  # between two looks
            self.assertIn('outgrown', follower.next()[1])
        self.assertEqual(follower.end(signal.SIGINT), 0)

    def test_an_answer_of_several_lines_waits_for_its_end(self):
        follower = Follower('--follow', '--json', stdin=subprocess.PIPE)
        log = Log().trace(1, 'a', '==>', 'request', url='/bus/nodes')
        log.line(1, 'Vek-client a call response, {\n"data": [1,\n2]}', 'client/call')
        for piece in log.bytes().partition(b'{\n'):
            os.write(follower.process.stdin.fileno(), piece)
            time.sleep(0.2)
        answer = [json.loads(follower.next()[1]) for _ in range(2)][1]
        self.assertEqual(answer['payload'], '{\n"data": [1,\n2]}')
        # Where nothing more comes, it is shown as it stands.
        log = Log().line(1, 'Vek-client b call response, plain', 'client/call')
        os.write(follower.process.stdin.fileno(), log.bytes())
        self.assertIn('plain', follower.next()[1])
        follower.process.stdin.close()
        self.assertEqual(follower.end(), 0)

    def test_a_reader_that_goes_away_is_no_error(self):
        path, _ = support.scenario(2)
        done = subprocess.run(['bash', '-o', 'pipefail', '-c', '"$@" | head -n 1', '', *VIEW, path, '--messages'],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=LIMIT, check=True)
        self.assertEqual((done.stdout.count(b'\n'), done.stderr), (1, b''))

    def test_memory_does_not_grow_with_the_log(self):
        def peak(rounds):
            process = subprocess.Popen(VIEW + ['--messages'], stdin=subprocess.PIPE,
                                       stdout=subprocess.DEVNULL)
            for number in range(rounds):
                log = Log()
                for count in range(500):
                    payload = '{} {}'.format(number, count)
                    log.publish(1, 'a', 't', payload).deliver(2, 's', 't', payload)
                    log.publish(1, 'a', 'beat').deliver(3, payload, 'beat')
                    log.line(9, 'Vek-server {} disjoin'.format(payload), 'server/loop')
                    log.trace(1, 'a', '==>', 'request', url='/s/' + payload)
                    log.line(1, 'Vek-client a call timeout, url: /s/x', 'client/call', 'W')
                process.stdin.write(log.bytes())
            process.stdin.close()
            _, process.returncode, used = os.wait4(process.pid, 0)
            self.assertEqual(process.returncode, 0)
            return used.ru_maxrss

        settled = peak(40)  # more than the tables hold
        self.assertLess(peak(120), settled * 1.15)

    def test_colours_are_for_terminals(self):
        shown = {}
        for no_color in '', '1':
            try:
                mine, its = pty.openpty()
            except OSError as error:
                self.skipTest('no terminal to be had: {}'.format(error))
            variables = dict(os.environ, TERM='xterm', COLUMNS='100', NO_COLOR=no_color)
            subprocess.run(VIEW + ['--messages'], stdout=its, check=True, timeout=LIMIT,
                           input=Log().publish(1, 'a', 't', 'x' * 190).bytes(), env=variables)
            os.close(its)
            with open(mine, 'rb') as terminal:
                shown[no_color] = terminal.readline().decode()
        self.assertTrue(shown[''].startswith('\x1b[36m'))
        self.assertNotIn('\x1b', shown['1'])
        self.assertEqual(len(shown['1'].rstrip()), 100)
