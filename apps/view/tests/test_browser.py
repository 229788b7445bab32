"""The report in a real browser."""

import os
import re
import unittest

import support
from browser import Browser
from support import PANEL, Log, messages, scenario, view

_SET = '''const [id, value] = arguments, field = document.getElementById(id);
if (field.type === 'checkbox') field.checked = value; else field.value = value;
for (const type of ['input', 'change']) field.dispatchEvent(new Event(type, {bubbles: true}));'''
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
        for view, part in (('overview', 'overview'), ('graph', 'graph'), ('chart', 'lifelines')):
            self.browser.show(view)
            text = self.browser.run('return document.getElementById(arguments[0]).textContent', part)
            self.assertIn(PANEL, ' '.join(text.replace('\xa0', ' ').split()))

    def test_the_filters_hide_what_they_should(self):
        self.browser.show('messages')
        self.assertEqual(self.count(), len(self.messages))
        noon = self.messages[100]['time'][11:23]
        for script, field, value, passes in (
                (_CHOOSE, 'node', PANEL, lambda m: PANEL in (m['from'], m['to'])),
                (_CHOOSE, 'subject', 'same', lambda m: m.get('topic') == 'same'),
                (_SET, 'from', noon, lambda m: m['time'][11:23] >= noon),
                (_SET, 'text', 'NOTHING', lambda m: False),
                (_SET, 'text', '</SCRIPT>', lambda m: '</script>' in (m['payload'] or '')),
                (_SET, 'onlyfaults', True, lambda m: m['fault'])):
            with self.subTest(value):
                self.browser.run(script, field, value)
                self.assertEqual(self.count(), sum(map(passes, self.messages)))
                self.browser.run('document.querySelector("[type=reset]").click()')
                self.assertEqual(self.count(), len(self.messages))

    def test_a_click_shows_the_payload_and_leads_to_what_belongs_to_it(self):
        self.browser.show('messages')
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
        self.browser.run(_SET, 'text', 'shelf -> desk -> lamp')  # the ring, without its call
        self.browser.run('document.querySelector(".row").click()')
        self.browser.run('document.querySelector("#related button").click()')
        self.assertEqual(self.browser.run(
            'return document.querySelector(".row.chosen .arrow").textContent'), '\u21d2')

    def test_a_click_on_a_fault_shows_that_one(self):
        found = self.browser.run('''return [...document.querySelectorAll('.wrong button')].map((b) => {
            b.click();
            const row = document.querySelector('.row.chosen'), list = row.closest('#list');
            const at = row.getBoundingClientRect(), box = list.getBoundingClientRect();
            return [b.textContent, row.textContent, row.classList.contains('fault') &&
                    at.top >= box.top && at.bottom <= box.bottom];
        });''')
        self.assertGreater(len(found), 10)
        for what, row, is_marked in found:
            what = re.match(r'\d+ \u00d7 ([^,(]*?)(, | \(|$)', what).group(1)
            self.assertTrue(is_marked and re.split(' -> |: ', what)[-1] in row, (what, row))
        self.assertEqual(self.count(), sum(m['fault'] for m in self.messages))

    def test_the_keyboard_reaches_everything(self):
        self.browser.run('document.querySelector("[role=tab][aria-selected=true]").focus()')
        chosen = 'return document.querySelector("[role=option][aria-selected=true]")?.dataset.message'
        for keys, view in (('ArrowLeft', 'chart'), ('ArrowLeft', 'messages'), ('Home', 'overview'),
                           ('End', 'chart')):
            self.browser.press(keys)
            self.assertEqual(self.browser.run('return document.activeElement.dataset.view'), view)
        self.browser.run('document.getElementById("list").focus()')
        for keys, row in ((('ArrowDown',) * 3, 2), (('End',), len(self.messages) - 1),
                          (('ArrowUp',), len(self.messages) - 2), (('Home', 'PageDown', 'PageUp'), 0)):
            self.browser.press(*keys)
            self.assertEqual(self.browser.run(chosen), str(row))
            self.assertEqual(self.browser.run(
                'return document.getElementById("list").getAttribute("aria-activedescendant")'),
                'message{}'.format(row))
        self.browser.run('document.getElementById("close").focus()')
        self.browser.press('Escape')
        self.assertEqual(self.browser.run('return [document.getElementById("detail").hidden, '
                                          'document.activeElement.id]'), [True, 'list'])
        unnamed = self.browser.run('''return [...document.querySelectorAll(
            'button, select, input, [tabindex="0"]')].filter((e) => !(e.textContent.trim() ||
            e.labels?.length || e.ariaLabel || e.getAttribute('aria-labelledby'))).length''')
        self.assertEqual(unnamed, 0)

    def test_a_narrow_window_is_enough(self):
        self.browser.resize(360, 740)
        self.addCleanup(self.browser.resize, 1200, 800)
        self.browser.open(self.path + '#nothing-of-this-name')
        self.assertFalse(self.browser.run('return document.getElementById("overview").hidden'))
        self.browser.show('messages')
        width, payload, detail, rows = self.browser.run('''const list = document.getElementById('list');
            document.querySelectorAll('.row')[3].click();
            list.scrollLeft = list.scrollWidth;
            const box = (e) => document.querySelector(e).getBoundingClientRect().toJSON();
            return [document.documentElement.scrollWidth, box('.row .payload'), box('#detail'),
                    box('#list')];''')
        self.assertEqual(width, 360)
        self.assertLess(payload['left'], 240)
        self.assertGreater(min(detail['width'], rows['width']), 330)
        self.assertGreater(min(detail['height'], rows['height']), 120)

    def test_a_stretch_of_the_chart_can_be_chosen(self):
        self.browser.show('chart')
        drawn = self.browser.run('return document.querySelectorAll("#rows g").length')
        self.assertTrue(0 < drawn < 100)
        # From the first message to short of the last one.
        self.browser.run('''const canvas = document.getElementById('density');
            const at = canvas.getBoundingClientRect();
            canvas.setPointerCapture = () => {};
            for (const [type, x] of 
                [['pointerdown', 0], ['pointermove', 9], ['pointerup', at.width - 4]]) {
              canvas.dispatchEvent(new PointerEvent(type,
                {clientX: at.left + x, clientY: at.top + 5, bubbles: true}));
            }''')
        self.assertTrue(0 < self.count() < len(self.messages))

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
        self.browser.show('messages')
        self.assertEqual(self.count(), 100000)
        self.assertLess(len(self.rows()), 100)
        # The rows are higher than the list can be: the bar leads anywhere, a small step stays small.
        first, second, moved = self.browser.run('''const list = document.getElementById('list');
            const row = () => document.querySelector('.row');
            const to = (y) => { list.scrollTop = y; list.dispatchEvent(new Event('scroll')); };
            to(list.scrollHeight / 2);
            const first = Number(row().dataset.message), top = row().getBoundingClientRect().top;
            to(list.scrollTop + 110);
            return [first, Number(row().dataset.message), row().getBoundingClientRect().top - top];''')
        self.assertAlmostEqual(first, 50000, delta=100)
        self.assertEqual((second - first, round(moved)), (5, 0))
        self.browser.resize(900, 600)
        self.addCleanup(self.browser.resize, 1200, 800)
        self.assertEqual(self.browser.run('return Number(document.querySelector(".row").dataset.message)'),
                         second)
        self.browser.run('document.getElementById("list").focus()')
        for key, number in (('End', '49999'), ('Home', '0')):
            self.browser.press(key)
            self.assertIn(number, self.rows()[-1 if key == 'End' else 0][-1])
