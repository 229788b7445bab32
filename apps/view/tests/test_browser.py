"""The report in a real browser."""

import os
import re
import time
import unittest

import support
from browser import Browser
from support import PANEL, Log, messages, scenario, view

_SET = '''const [id, value] = arguments, field = document.getElementById(id);
if (field.type === 'checkbox') field.checked = value; else field.value = value;
field.dispatchEvent(new Event('input', {bubbles: true}));'''
_CHOOSE = '''const [id, text] = arguments, field = document.getElementById(id);
field.value = [...field.options].find((o) => o.textContent === text).value;
field.dispatchEvent(new Event('input', {bubbles: true}));'''


class Report(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser().__enter__()
        cls.addClassCleanup(cls.browser.__exit__)
        cls.log = scenario(2)[0]
        cls.path = os.path.join(support.folder, 'report.html')
        view(cls.log, '--html', cls.path)
        cls.messages = messages(cls.log)

    def setUp(self):
        self.browser.open(self.path)
        self.assertEqual(self.browser.run('return document.body.dataset.ready'), 'yes')

    def tearDown(self):
        self.assertEqual(self.browser.errors(), [])

    def show(self, tab):
        self.browser.run('document.querySelector(`[data-view=${arguments[0]}]`).click()', tab)

    def count(self):
        text = self.browser.run('return document.getElementById("count").textContent')
        return int(re.match(r'[\d,]+', text).group().replace(',', ''))

    def rows(self):
        """Those in sight: their texts."""
        return self.browser.run('return [...document.querySelectorAll(".row")].map((r) => '
                                '[...r.children].map((c) => c.textContent))')

    def test_the_page_asks_for_nothing_and_names_stay_text(self):
        with open(self.path, encoding='utf-8') as file:
            page = file.read()
        self.assertNotRegex(page, r'(?i)(src|href)="?https?:')
        self.assertEqual(self.browser.run('return document.scripts.length'), 2)
        overview = self.browser.run('return document.getElementById("overview").innerText')
        self.assertIn(PANEL, overview)
        self.assertIn('shelf -> desk -> lamp -> shelf', overview)
        self.show('graph')
        graph = self.browser.run('return document.getElementById("graph").textContent')
        self.assertIn(PANEL, ' '.join(graph.replace('\xa0', ' ').split()))
        self.show('chart')
        self.assertIn(PANEL, self.browser.run(
            'return document.getElementById("lifelines").textContent'))

    def test_the_filters_hide_what_they_should(self):
        self.show('messages')
        self.assertEqual(self.count(), len(self.messages))
        for script, field, value, passes in (
                (_CHOOSE, 'node', PANEL, lambda m: PANEL in (m['from'], m['to'])),
                (_CHOOSE, 'subject', 'same', lambda m: m.get('topic') == 'same'),
                (_SET, 'text', 'NOTHING', lambda m: False),
                (_SET, 'text', '</SCRIPT>', lambda m: '</script>' in (m['payload'] or '')),
                (_SET, 'faults', True, lambda m: m['fault'])):
            with self.subTest(value):
                self.browser.run(script, field, value)
                self.assertEqual(self.count(), sum(map(passes, self.messages)))
                self.browser.run('document.querySelector("[type=reset]").click()')
                self.browser.run('return new Promise((done) => setTimeout(done, 1))')
                self.assertEqual(self.count(), len(self.messages))

    def test_a_click_shows_the_payload_and_leads_to_what_belongs_to_it(self):
        self.show('messages')
        for search, text in (('lines', 'two\nlines'), ('</script>', '</script></script> "'),
                             ('[2j', '\x1b[2J')):
            with self.subTest(text):
                self.browser.run(_SET, 'text', search)
                self.browser.run('document.querySelector(".row").click()')
                self.assertIn(text, self.browser.run(
                    'return document.getElementById("payload").textContent'))
        self.browser.run('document.querySelector("#related button").click()')
        self.assertIn('deliver', self.browser.run(
            'return document.querySelector("#detail h2").textContent'))

    def test_what_the_filter_hides_is_led_to_as_well(self):
        self.show('messages')
        self.browser.run(_SET, 'text', 'shelf -> desk -> lamp')  # the ring, without its call
        self.browser.run('document.querySelector(".row").click()')
        self.browser.run('document.querySelector("#related button").click()')
        self.browser.run('return new Promise((done) => setTimeout(done, 1))')
        self.assertEqual(self.browser.run(
            'return document.querySelector(".row.chosen .arrow").textContent'), '\u21d2')

    def test_faults_are_marked(self):
        self.show('messages')
        self.browser.run(_SET, 'faults', True)
        marked = self.browser.run('return document.querySelectorAll(".row.fault").length')
        self.assertEqual(marked, len(self.rows()))
        self.browser.run(_SET, 'text', 'shelf -> desk')
        self.assertIn('RING', self.rows()[0][-1])

    def test_a_stretch_of_the_chart_can_be_chosen(self):
        self.show('chart')
        drawn = self.browser.run('return document.querySelectorAll("#rows g").length')
        self.assertTrue(0 < drawn < 100)
        # From the first message to short of the last one.
        for _ in range(50):  # again where the page has not been laid out yet
            self.browser.run('''const canvas = document.getElementById('density');
                const at = canvas.getBoundingClientRect();
                canvas.setPointerCapture = () => {};
                for (const [type, x] of 
                    [['pointerdown', 0], ['pointermove', 9], ['pointerup', at.width - 4]]) {
                  canvas.dispatchEvent(new PointerEvent(type,
                    {clientX: at.left + x, clientY: at.top + 5, bubbles: true}));
                }''')
            if 0 < self.count() < len(self.messages):
                break
            time.sleep(0.2)
        self.assertTrue(0 < self.count() < len(self.messages))
        noon = self.messages[100]['time'][11:23]
        self.browser.run('''const [time] = arguments, from = document.getElementById('from');
            document.getElementById('to').value = '';
            from.value = time;
            from.dispatchEvent(new Event('change'));''', noon)
        self.assertEqual(self.count(), sum(m['time'][11:23] >= noon for m in self.messages))

    def test_a_hundred_thousand_messages_are_drawn_as_far_as_they_are_in_sight(self):
        log = Log()
        for number in range(50000):
            log.ms = number % 1000
            log.publish(1, 'a', 't', str(number)).deliver(2, 's', 't', str(number))
        path = os.path.join(support.folder, 'large.html')
        view('--html', path, data=log.bytes(), env={'PATH': ''})  # where there is no Graphviz
        self.browser.open(path)
        self.assertIn('50000', self.browser.run(
            'return document.querySelector("#graph table").textContent'))
        self.show('messages')
        self.assertEqual(self.count(), 100000)
        self.assertLess(len(self.rows()), 100)
        took = self.browser.run('''const list = document.getElementById('list');
            const begun = performance.now();
            list.scrollTop = list.scrollHeight;
            list.dispatchEvent(new Event('scroll'));
            return performance.now() - begun;''')
        self.assertIn('49999', ' '.join(map(str, self.rows())))
        self.assertLess(took, 1000)  # milliseconds; a few, where nobody else is at work
