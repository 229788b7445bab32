"""--serve: the page of a running bus, in a browser and by hand."""

import http.client
import json
import os
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from itertools import islice
from types import SimpleNamespace

from browser import Browser
from support import HERE, LIMIT, VIEW, Log

sys.path.insert(0, os.path.dirname(HERE))
from zelvo_view.live import Flow  # noqa: E402
from zelvo_view.sources import Pipe  # noqa: E402

TAG = '<img src=x onerror=alert(1)>'


class Bus:
    # zelvo-view --serve, and a program that publishes on beat, and while halts is true on halt.

    def __init__(self, *arguments):
        self.server = subprocess.Popen(VIEW + ['--serve', '0', *arguments], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.url = self.server.stdout.readline().decode().strip()
        self.address = self.url.split('/')[2]
        self._lock, self._ended = threading.Lock(), threading.Event()
        self.count, self.halts = 0, True
        self._thread = threading.Thread(target=self._beat)

    def run(self):
        self.tell(lambda log: log.join(1, TAG, 'halt').join(2, 'ear', 'beat'))
        self._thread.start()
        return self

    def close(self):
        self._ended.set()
        if self._thread.ident:
            self._thread.join()
        self.server.kill()
        self.server.communicate()

    def tell(self, say):
        # Writes lines as of now.
        log, now = Log(), time.time()
        log.second = time.strftime('%Y-%m-%d %H:%M:%S', time.gmtime(now + 8 * 3600))
        log.ms = int(now * 1000) % 1000
        say(log)
        with self._lock:
            self.server.stdin.write(log.bytes())
            self.server.stdin.flush()

    def _beat(self):
        while not self._ended.wait(0.02):
            self.count += 1
            self.tell(lambda log: log.publish(3, 'heart', 'beat', str(self.count)).deliver(
                2, 'ear', 'beat', str(self.count)))
            if self.halts:
                self.tell(lambda log: log.publish(1, TAG, 'halt', TAG))

    def ask(self, path, method='GET', key=None, view='', headers=None):
        # The answer to a request.
        connection = http.client.HTTPConnection(self.address, timeout=LIMIT)
        key = self.url.split('key=')[1] if key is None else key
        connection.request(method, '{}?key={}&view={}'.format(path, key, view), headers=headers or {})
        return connection.getresponse()


def events(answer):
    # (name, data) of each event of a feed.
    name = None
    for line in answer:
        kind, _, text = line.decode().rstrip('\n').partition(': ')
        name = text if kind == 'event' else name
        if kind == 'data':
            yield name, json.loads(text)


class Serve(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser().__enter__()
        cls.addClassCleanup(cls.browser.__exit__)
        cls.browser.resize(360, 740)  # a narrow window is enough
        cls.bus = Bus().run()
        cls.addClassCleanup(cls.bus.close)

    def setUp(self):
        self.browser.open(self.bus.url)

    def tearDown(self):
        self.assertEqual(self.browser.errors(), [])
        self.assertEqual(self.browser.run('return document.documentElement.scrollWidth'), 360)

    def wait(self, script, *arguments):
        # Until the script's result is true: that.
        for _ in range(LIMIT * 20):
            found = self.browser.run(script, *arguments)
            if found:
                return found
            time.sleep(0.05)
        return self.fail(script)

    def test_a_topic_that_stops_is_shown_as_stopped(self):
        self.browser.run('document.querySelector("[role=tab][aria-selected=true]").focus()')
        self.browser.press('ArrowRight')  # the keyboard reaches it
        stopped = '''return [...document.querySelectorAll('#topics tbody tr')].filter((row) =>
            row.className === 'stopped').map((row) => row.cells[0].textContent).join()'''
        self.wait('return document.querySelectorAll("#topics td path").length === 2')
        feed = events(self.bus.ask('/feed', view='topics'))
        self.bus.halts = False
        self.assertEqual(self.wait(stopped), 'halt')
        self.assertRegex(next(cells[4] for name, data in feed if name == 'figures'
                              for _, state, cells in data['part'][0][2] if state == 'stopped'),
                         r'^stopped 1\d\d\d ms ago$')
        self.bus.halts = True
        self.wait(stopped.replace('return', 'return !') + ' || null')

        def future(log):
            log.second = '2099-01-01 00:00:00'
            log.publish(5, 'clock', 'wrong')
        self.bus.tell(future)
        rows = ({cells[0]: cells[1] for _, _, cells in data['part'][0][2]}
                for name, data in islice(feed, 200) if name == 'figures')
        self.assertTrue(any('wrong' in rates and rates['beat'] != '0.0' for rates in rows))
        flow = Flow(SimpleNamespace(ms=0))
        for second in (*range(300), *range(100, 103)):
            flow.add(SimpleNamespace(ms=second * 1000))
        self.assertEqual((sum(flow.line(102)), flow.rate(102)), (3, 1))

    def test_faults_come_with_what_led_to_them(self):
        def ring(log):
            for tid, caller, called in ((4, 'shelf', 'desk'), (5, 'desk', 'shelf')):
                log.trace(tid, caller, '==>', 'request', url='/{}/x'.format(called))
                log.line(9, 'Vek-server {0} call {1}, target: {0}'.format(caller, called),
                         'server/deadlock', 'V')
            log.line(9, 'Vek-server shelf call desk, target: desk', 'server/deadlock', 'V')
            log.line(9, 'bus server exist deadlock', 'server/deadlock', 'E')
            log.line(9, 'Vek-server server ==> ear pusblish topic beat failed, queue is full',
                     'server/publish', 'W')

        self.bus.tell(ring)
        self.browser.show('graph')
        self.wait('''return [...document.querySelectorAll('#live path.lost')]
            .map((p) => p.textContent.split('; ')[1]).sort().join() === "1 drop,1 ring";''')
        self.browser.show('calls')
        self.assertIn('/desk/x', self.wait('return document.querySelector("#calls tbody")?.textContent'))
        self.browser.show('faults')
        self.wait('return document.querySelectorAll("#faults button").length > 1')
        found = self.browser.run('''return [...document.querySelectorAll('#faults button')].map((b) => {
            b.click();
            return b.textContent + ' | ' + document.getElementById('detail').textContent;
        })''')
        self.assertRegex(found[0], r'(?s)drop: copy: queue of ear, beat \|.*What led.*publish: heart beat')
        self.assertRegex(found[1], r'(?s)ring: desk -> shelf -> desk \|.*What led.*call: desk /desk/x')

    def test_filter_and_pause_hold_what_they_should(self):
        self.browser.show('messages')
        self.wait('''const field = document.getElementById('subject');
            const option = [...field.options].find((o) => o.textContent === 'beat');
            field.value = option?.value || '';
            field.dispatchEvent(new Event('input'));
            return option;''')
        topics = '''return [...new Set([...document.querySelectorAll('.row .subject')]
            .map((e) => e.textContent))].join()'''
        last = 'return Number([...document.querySelectorAll(".row .payload")].pop().textContent)'
        self.assertEqual(self.browser.run(topics), 'beat')
        self.browser.run('''const field = document.getElementById('from');
            field.value = field.type === 'time' ? '00:00' : '2026-01-01T00:00';
            field.dispatchEvent(new Event('change'));''')  # what comes later passes, too
        self.browser.run('document.getElementById("pause").click()')
        self.wait('return document.getElementById("span").textContent.includes("paused")')
        held, count = self.browser.run(last), self.bus.count
        while self.bus.count < count + 50:
            time.sleep(0.02)
        self.browser.show('topics')
        self.browser.show('messages')
        self.assertEqual(self.browser.run(last), held)
        self.browser.run('document.getElementById("pause").click()')
        self.wait(last + ' > arguments[0]', count + 50)
        self.assertEqual(self.browser.run(topics), 'beat')

    def test_names_stay_text(self):
        text = 'return document.getElementById(arguments[0]).textContent.includes(arguments[1])'
        self.wait(text, 'live', TAG)
        self.browser.show('messages')
        self.wait(text, 'rows', TAG)

    def test_only_who_knows_the_key_is_answered(self):
        host = self.bus.address
        for path, key, headers, code in (
                ('/', None, {'Host': host.replace('127.0.0.1', 'localhost')}, 200),
                ('/', None, {'Origin': 'http://' + host}, 200), ('/', '', {}, 403), ('/feed', 'x', {}, 403),
                ('/', None, {'Host': 'evil.example'}, 403), ('/', None, {'Host': host + '.evil'}, 403),
                ('/', None, {'Origin': 'http://evil.example'}, 403), ('/', None, {'Origin': 'null'}, 403),
                ('/report.py', None, {}, 404), ('/../live.py', None, {}, 404)):
            with self.subTest((path, key, headers)):
                answer = self.bus.ask(path, key=key, headers=headers)
                self.assertEqual(answer.status, code)
                self.assertIn("default-src 'none'", answer.getheader('Content-Security-Policy'))
                self.assertEqual(b'<script' in answer.read(), code == 200)
        self.assertEqual(self.bus.ask('/', 'POST').status, 501)

    def test_what_is_not_read_in_time_is_counted(self):
        reading, writing = os.pipe()
        pipe = Pipe(reading, True)
        pipe.start()
        with open(writing, 'wb') as file:  # nobody takes it, and yet it need not wait
            file.writelines(b'%99d\n' % number for number in range(300000))
        lines = b''.join(iter(lambda: pipe.take(LIMIT), b'')).split(b'\n')
        os.close(reading)
        self.assertGreater(pipe.skipped, 0)
        self.assertIn(b'log lines lost: %d, not read in time' % pipe.skipped, lines)
        self.assertEqual(sum(len(line) == 99 for line in lines) + pipe.skipped, 300000)

    def test_a_file_that_is_begun_anew_is_told_of_and_it_ends_at_once(self):
        with tempfile.NamedTemporaryFile() as file:
            file.write(Log().publish(1, 'a', 't').bytes())
            file.flush()
            bus = Bus(file.name, '--listen', '127.0.0.2')
            self.addCleanup(bus.close)
            feed = (data['head'][0][1] for _, data in events(bus.ask('/feed')))
            self.assertEqual(next(feed), 'reading')
            file.truncate(0)
            self.assertIn('reading, begun anew 1 times', feed)
        bus.server.send_signal(signal.SIGINT)
        self.assertEqual(bus.server.wait(LIMIT), 0)
        self.assertIn(b'warning: who reaches 127.0.0.2', bus.server.stderr.read())
