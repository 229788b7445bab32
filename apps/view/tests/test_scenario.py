"""A run of the library with every kind of traffic and every fault, against its known truth."""

import base64
import re
import unittest

from support import PANEL, messages, scenario, view


def logged(data):
    # What the log shows of a payload: (payload, size).
    if data is None or not 0 < len(data) < 200:
        return None, len(data or b'')
    return data.partition(b'\0')[0] + b'\0' * (b'\0' in data), len(data)


def seen(message):
    payload = message['payload']
    if payload is not None:
        payload = base64.b64decode(message['base64']) if 'base64' in message else payload.encode()
    return payload, message['bytes']


class EachLevel:
    # Level 2, and level 1 with the bus's own lines between.
    level = 0

    def setUp(self):
        self.log, self.truth = scenario(self.level)
        self.messages = messages(self.log)

    def of_kind(self, *kinds):
        return [m for m in self.messages if m['kind'] in kinds and m.get('topic') != 'bus.event']

    def test_publications_and_deliveries(self):
        for kind, found, who in (('publish', self.of_kind('publish', 'sticky'), 'from'),
                                 ('deliver', [m for m in self.messages if m['kind'] == 'deliver' and
                                              not m['topic'].startswith('bus.')], 'to')):
            with self.subTest(kind):
                wanted = [(name.decode(), topic.decode(), *logged(data))
                          for name, topic, data, _ in self.truth[kind]]
                self.assertCountEqual([(m[who], m['topic'], *seen(m)) for m in found], wanted)

    def test_each_delivery_has_its_publication(self):
        by_number = {m['number']: m for m in self.messages}
        taken = set()
        for m in self.messages:
            if m['kind'] == 'deliver' and not m['topic'].startswith('bus.'):
                origin = by_number[m['of']]
                self.assertEqual((origin['topic'], seen(origin)), (m['topic'], seen(m)))
                self.assertEqual(m['from'], 'lamp')
                self.assertNotIn((m['to'], m['of']), taken)
                taken.add((m['to'], m['of']))
        ticks = [m['of'] for m in self.messages if m['kind'] == 'deliver' and m['topic'] == 'same']
        self.assertEqual(ticks, sorted(ticks))

    def test_calls_and_answers(self):
        by_number = {m['number']: m for m in self.messages}
        answers = [m for m in self.messages
                   if m['kind'] == 'answer' and not m['address'].startswith('/bus/')]
        wanted = [(caller.decode(), url.decode(), answer)
                  for caller, url, answer, _ in self.truth['answer'] if not url.startswith(b'/bus/')]
        self.assertCountEqual([(m['to'], m['address'], seen(m)[0]) for m in answers], wanted)
        for m in answers:
            self.assertEqual(by_number[m['of']]['address'], m['address'])
            self.assertGreaterEqual(m['ms'], 0)

    def test_faults(self):
        summary = view(self.log)
        wrong = summary[summary.index('What went wrong'):summary.index('\nNodes')]
        total = 0
        for kind, text, number in self.truth['fault']:
            kind, text = kind.decode(), text.decode()
            with self.subTest(text):
                found = [m for m in self.messages if m['kind'] == kind and text in ', '.join(
                    filter(None, (m.get('note'), m.get('topic'), m.get('address'))))]
                self.assertEqual(len(found), number)
                self.assertTrue(all(m['fault'] for m in found))
                self.assertRegex(wrong, r'\b{} x .*{}'.format(number, re.escape(text)))
                total += number
        self.assertEqual(sum(m['fault'] for m in self.messages), total)
        self.assertEqual({(m['cause'], m['queue']) for m in self.messages if m['kind'] == 'drop'}, {
            ('copy', 'slow'), ('request', 'slow'), ('sticky', 'slow'), ('exit', 'slow'),
            ('settimer', 'slow'), ('killtimer', 'slow'), ('publish', 'bus'),
            ('removeSticky', 'bus'), ('call', 'bus')})
        rings = [m['ring'] for m in self.messages if m['kind'] == 'ring']
        self.assertEqual(rings, [['shelf', 'desk', 'shelf'], ['shelf', 'desk', 'lamp', 'shelf']])

    def test_summary(self):
        summary = view(self.log)
        self.assertLess(summary.index('What went wrong'), summary.index('Nodes'))
        for row in (r'lamp +\S+ +after \S+ +1 +2 +1\n', r'later +\d\S+ +\d\S+ +1 +0 +0\n',
                    r'same +lamp 50 +{} 50 +50 +200 B +50\n'.format(re.escape(PANEL)),
                    r'desk +/lamp/state +1 +1 ', r'shelf +/desk/any +2 +0 +2 +- +- +- +ring 2\n'):
            self.assertRegex(summary, row)

    def test_filters(self):
        for arguments, passes in (
                (('--node', PANEL), lambda m: PANEL in (m['from'], m['to'])),
                (('--topic', 'h*d'), lambda m: m.get('topic') == 'hard'),
                (('--topic', '/lamp/*', '--topic', 'same'), lambda m: m.get('topic') == 'same' or
                 (m.get('address') or '').startswith('/lamp/'))):
            with self.subTest(arguments):
                wanted = [m for m in self.messages if passes(m)]
                self.assertEqual(messages(self.log, *arguments), wanted)
                self.assertTrue(0 < len(wanted) < len(self.messages))
        view(self.log, '--node', 'nobody of this name', code=1)

    def test_nothing_reaches_the_terminal_raw(self):
        shown = view(self.log, '--messages')
        self.assertEqual(len(shown.splitlines()), len(self.messages))
        self.assertIn('\\x1b[2J', shown)
        for char in '\x1b\x07\r\x9b\u202e\0':
            self.assertNotIn(char, shown)


class LevelTwo(EachLevel, unittest.TestCase):
    level = 2


class LevelOne(EachLevel, unittest.TestCase):
    level = 1
