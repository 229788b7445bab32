"""What is drawn by other programs: Graphviz, Mermaid, Perfetto. They have to take it."""

import json
import os
import shutil
import subprocess
import unittest
from collections import defaultdict
from xml.etree import ElementTree

import support
from support import LIMIT, PANEL, Log, messages, needs, scenario, view

# Every printable character, and what means something to one of the languages.
NASTY = [''.join(map(chr, range(32, 127))), 'wrap: end', '%%{init: {}}%%', 'n0->>n1: x', '#59;',
         '$$x$$', '"]; x [label="', '<b>&amp;</b>', '\\N \\G \\', 'note over n0: x', '@{ x }', '---']


def nasty_log():
    log = Log()
    for number, text in enumerate(NASTY):
        name = 'node {} {}'.format(number, text.replace(' ==> ', ''))
        log.join(number, name, 'topic').publish(number, name, text, text)
        log.trace(number, name, '==>', 'request', url='/a b/' + text, payload=text)
    return log.bytes()


class Graphviz(unittest.TestCase):
    def test_it_draws_every_name_as_it_stands(self):
        program = needs('dot')
        for data in (nasty_log(), None):
            arguments = () if data else (scenario(2)[0],)
            graph = view('--dot', *arguments, data=data)
            drawn = subprocess.run([program, '-Tsvg'], input=graph.encode(), check=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=LIMIT)
            self.assertEqual(drawn.stderr, b'')
            self.assertEqual('label="50"' in graph, data is None)  # of the topic "same"
            texts = {e.text for e in ElementTree.fromstring(drawn.stdout).iter() if e.text}
            wanted = {PANEL, 'a topic; with: "signs" -->'}
            if data:
                wanted = {m['topic'] for m in messages(data=data) if m['kind'] == 'publish'}
            squeezed = {' '.join(t.replace('\xa0', ' ').split()) for t in texts}
            self.assertLessEqual({' '.join(t.split()) for t in wanted}, squeezed)


class Mermaid(unittest.TestCase):
    def parsed(self, *diagrams):
        # What Mermaid's own parser says of them.
        tools = os.environ.get('ZELVO_VIEW_TOOLS', '')
        if not os.path.isdir(os.path.join(tools, 'node_modules', 'mermaid')):
            needs('mermaid', 'script/check view')
        script = os.path.join(tools, 'parse.mjs')
        shutil.copy(os.path.join(support.HERE, 'parse.mjs'), script)
        done = subprocess.run([needs('node'), script], input=json.dumps(diagrams).encode(),
                              stdout=subprocess.PIPE, timeout=LIMIT, check=True)
        return json.loads(done.stdout)

    def test_it_accepts_every_name_and_payload(self):
        diagrams = [view('--mermaid', scenario(level)[0]) for level in (1, 2)]
        diagrams.append(view('--mermaid', data=nasty_log()))
        whole, other, nasty = self.parsed(*diagrams)
        for found in (whole, other, nasty):
            self.assertNotIn('error', found)
        self.assertIn(PANEL, whole['actors'])
        log = messages(data=nasty_log())
        self.assertLessEqual({m['from'].strip() for m in log if m['kind'] == 'publish'},
                             set(nasty['actors']))
        self.assertEqual(len(nasty['texts']), len(log))
        for text in NASTY[1:]:  # the first is cut
            self.assertTrue(any(text in shown for shown in nasty['texts']), text)


class Perfetto(unittest.TestCase):
    # Against Chrome's trace event format: what each phase needs, nesting, and where arrows bind.
    NEEDS = {'X': {'name', 'cat', 'ts', 'dur'}, 'M': {'name', 'args'}, 'i': {'name', 'ts', 's'},
             's': {'id', 'ts', 'cat'}, 't': {'id', 'ts', 'cat'}, 'f': {'id', 'ts', 'cat', 'bp'}}

    def trace(self, level):
        path = os.path.join(support.folder, 'trace.json')
        view(scenario(level)[0], '--perfetto', path)
        with open(path, encoding='utf-8') as file:
            return json.load(file)['traceEvents']

    def test_the_trace_keeps_to_its_format(self):
        for level in (1, 2):
            slices, flows = defaultdict(list), defaultdict(list)
            for event in self.trace(level):
                self.assertLessEqual(self.NEEDS[event['ph']] | {'pid', 'tid'}, set(event))
                track = (event['pid'], event['tid'])
                if event['ph'] == 'X':
                    self.assertGreater(event['dur'], 0)
                    slices[track].append((event['ts'], event['ts'] + event['dur'], event['name']))
                elif event['ph'] in 'stf':
                    flows[event['id']].append((event['ph'], track, event['ts']))
            for found in slices.values():
                self.check_nesting(sorted(found, key=lambda s: (s[0], -s[1])))
            for points in flows.values():
                self.assertRegex(''.join(p[0] for p in points), '^st*f$')
                times = [p[2] for p in points]
                self.assertEqual(times, sorted(times))
                for _, track, ts in points:
                    self.assertTrue(any(b <= ts < e for b, e, _ in slices[track]), (track, ts))

    def check_nesting(self, found):
        open_slices = []
        for begin, end, name in found:
            while open_slices and open_slices[-1] <= begin:
                open_slices.pop()
            if open_slices:
                self.assertLessEqual(end, open_slices[-1], name)
            open_slices.append(end)

    def test_arrows_and_slices_are_those_of_the_run(self):
        for level in (1, 2):
            trace, log = self.trace(level), messages(scenario(level)[0])
            arrows = [e for e in trace if e['ph'] == 's' and e['name'] == 'publication']
            self.assertEqual(len(arrows), sum(m['kind'] == 'deliver' and m['of'] is not None
                                              for m in log))
            calls = [e for e in trace if e.get('cat') == 'call' and e['ph'] == 'X']
            self.assertEqual(len(calls), sum(m['kind'] == 'call' for m in log))
            handlers = [e['name'] for e in trace if e.get('cat') == 'handler']
            self.assertIn('/shelf/hold', handlers)
            self.assertNotIn('/slow/x', handlers)
            faults = [e for e in trace if e['ph'] == 'i']
            self.assertEqual(len(faults), sum(m['fault'] for m in log))
