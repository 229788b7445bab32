"""Logs that are hard to read: cut, doubled, out of order, ambiguous, or no logs at all."""

import os
import re
import stat
import unittest

import support
from support import Log, messages, scenario, view, write


def pairs(found):
    # Publisher and publication of each delivery.
    return [(m['from'], m['of']) for m in found]


class Matching(unittest.TestCase):
    def test_alike_publications_of_two_nodes_are_not_guessed(self):
        # Both are on their way when the other is logged: the bus may have taken either first.
        log = Log().join(3, 's', 't').publish(1, 'a', 't').publish(2, 'b', 't')
        found = log.deliver(3, 's', 't').kinds('deliver')
        self.assertEqual(pairs(found), [('?', None)])
        self.assertIn('a or b', found[0]['note'])

    def test_alike_publications_one_after_the_other_are_told_apart(self):
        log = Log().join(3, 's', 't').publish(1, 'a', 't').line(1, 'Vek-client a set timer 2',
                                                                'client/timer')
        log.publish(2, 'b', 't').deliver(3, 's', 't').deliver(3, 's', 't')
        self.assertEqual([m['from'] for m in log.kinds('deliver')], ['a', 'b'])

    def test_a_lost_copy_leaves_alike_ones_uncertain_until_another_comes(self):
        log = Log().join(3, 's', 't').publish(1, 'a', 't').publish(1, 'a', 't')
        log.line(9, 'Vek-server server ==> s pusblish topic t failed, queue is full',
                 'server/publish', 'W').deliver(3, 's', 't')
        log.publish(1, 'a', 't', 'other').deliver(3, 's', 't', 'other')
        log.publish(1, 'a', 't').deliver(3, 's', 't')
        found = log.kinds('deliver')
        self.assertEqual([m['from'] for m in found], ['a', 'a', 'a'])
        self.assertEqual([m['of'] is None for m in found], [True, False, False])

    def test_what_was_published_before_the_subscription_is_not_meant(self):
        log = Log().publish(1, 'a', 't').publish(1, 'a', 'u').join(3, 's', 't').publish(1, 'a', 't')
        log.deliver(3, 's', 't')
        latest = log.kinds('publish')[-1]['number']
        self.assertEqual(pairs(log.kinds('deliver')), [('a', latest)])

    def test_a_refused_publication_is_not_delivered(self):
        log = Log().join(3, 's', 't').publish(1, 'a', 't')
        log.line(1, 'Vek-client a ==> server publish failed, topic: t, queue is full',
                 'client/publish', 'W')
        self.assertEqual(pairs(log.deliver(3, 's', 't').kinds('deliver')), [('?', None)])

    def test_a_call_taken_belongs_to_the_one_that_the_bus_has_handed_on(self):
        log = Log()
        for tid, name in ((1, 'a'), (2, 'b')):
            log.trace(tid, name, '==>', 'request', url='/c/x')
        for name in 'ba':  # the bus takes b's first
            log.line(9, 'Vek-server {0} call c, target: {0}'.format(name), 'server/deadlock')
        for answer in ('first', 'second'):
            log.trace(3, 'c', '<==', 'request', url='/c/x')
            log.trace(3, 'c', '==>', 'response', url='/c/x', payload=answer)
        log.line(2, 'Vek-client b call response, first', 'client/call')
        log.line(1, 'Vek-client a call timeout, url: /c/x', 'client/call', 'W')
        found = messages(data=log.bytes())
        self.assertEqual([(m['kind'], m['from'], m['to'], m['payload']) for m in found[2:]],
                         [('answer', 'c', 'b', 'first'), ('timeout', 'a', 'c', None),
                          ('late', 'c', 'a', 'second')])

    def test_two_threads_may_be_a_millisecond_out_of_order(self):
        log = Log().join(3, 's', 't').deliver(3, 's', 't')
        log.ms += 1
        self.assertEqual([m['from'] for m in log.publish(1, 'a', 't').kinds('deliver')], ['a'])
        log = Log().trace(3, 'c', '<==', 'request', url='/c/x')
        log.trace(1, 'a', '==>', 'request', url='/c/x')
        self.assertEqual([(m['from'], m['kind']) for m in messages(data=log.bytes())],
                         [('a', 'call'), ('a', 'unanswered')])

    def test_a_helper_is_the_node_that_it_calls_for_and_no_fault(self):
        for helper, shown in (('zelvo/helper/pump/3', 'pump'), ('zelvo/helper/3', 'zelvo/helper/3')):
            log = Log().join(1, helper, 'bus.event').trace(1, helper, '==>', 'request', url='/c/x')
            log.line(9, 'Vek-server {0} call c, target: {0}'.format(helper), 'server/deadlock')
            log.line(9, 'Vek-server server ==> {} pusblish topic bus.event failed, queue is full'
                     .format(helper), 'server/publish', 'W')
            for text in 'already exist', 'cannot be called by this name':
                log.line(1, 'Vek-client {} {}'.format(helper, text), 'client/connect', 'W')
            log.line(1, 'Vek-client {} call response, y'.format(helper), 'client/call')
            found = messages(data=log.bytes())[-2:]
            self.assertEqual([(m['kind'], m['from'], m['to']) for m in found],
                             [('call', shown, 'c'), ('answer', 'c', shown)])
            summary = view(data=log.bytes())
            self.assertIn('Nothing went wrong', summary)
            self.assertEqual(shown == helper, helper in summary)

    def test_a_missing_beginning_leaves_messages_without_origin(self):
        log = Log().deliver(3, 's', 't', 'before').trace(3, 's', '<==', 'request', url='/s/x')
        log.trace(3, 's', '==>', 'response', url='/s/x')
        log.line(4, 'Vek-client d call response, y', 'client/call')
        found = messages(data=b'half of a line, payload len: 7\n' + log.bytes())
        self.assertEqual([(m['kind'], m['from'], m['to']) for m in found],
                         [('deliver', '?', 's'), ('call', '?', 's'), ('answer', 's', '?'),
                          ('answer', '?', 'd')])
        summary = view(data=b'half of a line, payload len: 7\n' + log.bytes())
        self.assertIn('1 lines are not of the log', summary)


class Reading(unittest.TestCase):
    def test_every_piece_of_a_log_can_be_read(self):
        # Cut anywhere, it shows no message that the whole does not show.
        path, _ = scenario(2)
        with open(path, 'rb') as file:
            data = file.read()[:60000]
        known = {(m['kind'], m.get('topic'), m['payload'], m['bytes']) for m in messages(path)}
        # Behind a payload's text that looks like its end nothing tells that it went on.
        known |= {(*m[:2], m[2].split(', payload len: ')[0], int(end[1])) for m in known
                  for end in [re.search(r', payload len: (\d+)\n', m[2] or '')] if end}
        for start in range(1, 3000, 171):
            found = messages(data=data[start:start + 20000])
            # A text or a call that is cut is shown as far as it goes.
            strange = [m for m in found if m['kind'] in ('publish', 'deliver', 'sticky') and
                       (m['kind'], m.get('topic'), m['payload'], m['bytes']) not in known]
            self.assertEqual(strange, [])

    def test_doubled_lines_count_once(self):
        log = Log().join(3, 's', 't').publish(1, 'a', 't').publish(1, 'a', 't')
        log.deliver(3, 's', 't').deliver(3, 's', 't')
        once = messages(data=log.bytes())
        log.lines = [line for line in log.lines for _ in range(2)]
        self.assertEqual(messages(data=log.bytes()), once)
        self.assertIn('stood there twice', view(data=log.bytes()))

    def test_several_files_are_one_log(self):
        log = Log()
        for _ in range(6):
            log.ms += 1
            log.publish(1, 'a', 't').deliver(3, 's', 't')
        parts = (log.lines[:12], log.lines[6:])  # they overlap
        paths = [write('part', b''.join(parts[1])), write('part.1', b''.join(parts[0]))]
        whole = messages(data=log.bytes())
        self.assertEqual(messages(*paths, paths[0]), whole)
        self.assertEqual(len(whole), 12)
        # A log that goes on in another file, where the same is written again in one millisecond.
        log.trace(1, 'a', '==>', 'request', url='/c/x').publish(2, 'b', 't').publish(2, 'b', 't')
        log.publish(2, 'b', 't').trace(3, 'c', '==>', 'response', url='/c/x')
        log.line(1, 'Vek-client a call response, x', 'client/call')
        parts = (write('part', b''.join(log.lines[23:])), write('part.1', b''.join(log.lines[:23])))
        self.assertEqual(messages(*parts), messages(data=log.bytes()))

    def test_texts_may_hold_what_looks_like_a_line(self):
        forged = Log().publish(1, 'forged', 'x').bytes().decode()
        log = Log().line(3, 'Vek-client s subscribe begin, ["a\n{}"]'.format(forged), 'client/connect')
        log.publish(1, 'a', 'x\n' + forged)
        log.line(1, 'Vek-client a publish end, topic: x\n' + forged, 'client/publish', 'V')
        for answer in 'x', 'x\n' + forged.splitlines()[1]:
            log.trace(1, 'a', '==>', 'request', url='/c/x\n' + forged)
            log.trace(3, 'c', '==>', 'response', url='/c/x\n' + forged, payload=answer)
            log.line(1, 'Vek-client a call response, ' + answer, 'client/call')
        found = messages(data=log.bytes())
        self.assertEqual([m['from'] for m in found] + [found[-1]['payload']], [*'aaccacc', answer])
        damaged = Log().publish(1, 'a', 't').bytes().replace(b'len: 1\n', b'len: 0\n')
        self.assertIn('1 lines of messages could not be read', view(data=damaged + log.bytes()))

    def test_lost_lines_and_cut_lines_are_told(self):
        log = Log().publish(1, 'a', 't' * 5000)
        log.lines[-1] = log.lines[-1][:4094] + b'\n'
        log.lines.append(b'\nlog lines lost: 17\n\n')
        log.publish(1, 'a', 'u')
        found = messages(data=log.bytes())
        self.assertEqual([(m['kind'], m['bytes']) for m in found],
                         [('publish', None), ('lost', None), ('publish', 1)])
        self.assertIn('has lost: 17', view(data=log.bytes()))
        data = b'\nlog lines lost: 3\n\n' + log.bytes()  # a time is only behind it
        found = messages('--from', '16:00', '--to', '+1', data=data)
        self.assertEqual((found[0]['kind'], found[0]['time']), ('lost', found[1]['time']))

    def test_a_line_of_many_marks_takes_no_longer_than_others(self):
        marks = ' ==> busServer,  action: a, topic: ,  url: , requestor: , payload:, payload len: '
        for side in 'client', 'server':
            log = Log().line(1, 'Vek-{} # 1# busServer{}'.format(side, marks * 800)).publish(2, 'a', 't')
            self.assertEqual(len(log.kinds('publish', '--node', 'a')), 1)  # not in hours

    def test_times_may_lie_on_several_days(self):
        log = Log()
        for log.second in ('2026-11-25 22:00:00', '2026-11-26 01:00:00', '2026-11-26 23:00:00'):
            log.publish(1, 'a', 't')
        path = write('days.log', log.bytes())
        times = [m['time'] for m in messages(path)]
        for arguments, wanted in (
                (('--from', '01:00'), [1, 2]), (('--to', '01:00'), [0, 1]), (('--to', '22:30'), [0]),
                (('--from', '21:59'), [2]), (('--from', '23:00'), [1, 2]), (('--to', '+10800'), [0, 1]),
                (('--from', '2026-11-26'), [1, 2]), (('--to', '2026-11-25'), [0]),
                (('--from', '2026-11-26 02:00', '--to', '23:30'), [2]),
                (('--from', '2026-11-25T22:00:00.001'), [1, 2]), (('--from', '+0', '--to', '+0.1'), [0])):
            with self.subTest(arguments):
                found = [m['time'] for m in messages(path, *arguments)]
                self.assertEqual(found, [times[i] for i in wanted])
        self.assertRegex(view(path), r'a +before 2026-11-25 22:00:00.000 +after 2026-11-26 23')
        self.assertEqual([line[:13] for line in view(path, '--messages').splitlines()],
                         ['22:00:00.000 ', '2026-11-26 01', '2026-11-26 23'])

    def test_a_call_ends_with_its_process(self):
        log = Log().join(1, 'a', 't').trace(1, 'a', '==>', 'request', url='/c/x')
        log.ms = 7
        crashed = len(log.trace(2, 'b', '==>', 'request', url='/c/x').lines)
        log.second = '2026-11-26 16:00:00'
        log.line(5, 'Vek-client, VERSION ZELVO 1.0.8, busManager new', 'client/manager', 'I')
        log.join(3, 'a', 't').publish(2, 'b', 't')
        for pid in b'[00042:', b'[00043:':  # of a container, they may be the same
            log.lines[crashed:] = [pid + line[7:] for line in log.lines[crashed:]]
            found = log.kinds('unanswered')
            self.assertEqual([m['time'] for m in found], ['2026-11-25T16:00:00.007+08:00'] * 2)
            self.assertRegex(view(data=log.bytes()), r'a +\d\S+ \S+ +after 2026-11-26 \S+ +2 ')

    def test_a_ring_is_of_names_whatever_they_are(self):
        log = Log().trace(1, 'x -> y', '==>', 'request', url='/x -> y/z')
        log.line(9, 'Vek-server x -> y call x -> y, target: x -> y', 'server/deadlock')
        log.line(9, 'bus server exist deadlock', 'server/deadlock', 'E')
        self.assertEqual([m['ring'] for m in log.kinds('ring', '--node', 'x -> y')], [['x -> y'] * 2])
        view('--node', 'x', data=log.bytes(), code=1)

    def test_what_is_no_plain_file_is_written_to(self):
        link, goal, pipe = (os.path.join(support.folder, name) for name in ('link', 'goal', 'pipe'))
        os.symlink(goal, link)
        os.mkfifo(pipe)
        with support.subprocess.Popen(['cat', pipe], stdout=support.subprocess.PIPE) as reader:
            for path in link, pipe:
                view('--perfetto', path, data=Log().publish(1, 'a', 't').bytes())
            self.assertTrue(os.path.islink(link) and stat.S_ISFIFO(os.stat(pipe).st_mode))
            with open(goal, 'rb') as file:
                self.assertEqual(file.read(), reader.stdout.read())
        log = Log().publish(1, 'a', 't').bytes()
        write('goal', log)
        for option, path, source in (('--html', goal, goal), ('--perfetto', link, goal),
                                     ('--html', goal, '-')):  # but into no log
            view(option, path, source, data=log, code=2)
            self.assertIn('this is a log', support.view.errors)

    def test_other_inputs_are_refused_with_the_place_and_the_reason(self):
        head = b'[00042:00001]2026-11-25 16:00:00.000 [W] src/other.cpp#  83#  a ==> busServer\n'
        for data in (b'Nov 25 16:00:00 host kernel: x\n' * 3, head, b'\x7fELF\0\0' * 400000):
            self.assertEqual(view(write('other.log', data), code=2), '')
            self.assertRegex(support.view.errors, r'^zelvo-view: \S+other.log:1: not a log of .*\n$')
        for arguments in (('/no/such/\x1b\u061cfile',), ('--frobnicate',), ('--from', 'noon'),
                          ('--dot', '--mermaid'), ('--limit', '0')):
            view(*arguments, data=b'', code=2)
            self.assertRegex(support.view.errors, r'^zelvo-view: [ -~]+\n$')
        started = Log().line(1, 'Vek-client, VERSION ZELVO 1.0.8, busManager new', 'client/manager', 'I')
        for data, arguments, reason in (
                (b'', (), 'the input is empty'), (started.bytes(), (), 'log at level 2 (`level`)'),
                (Log().publish(1, 'a', 't').bytes(), ('--node', 'b'), 'nothing found')):
            view(*arguments, data=data, code=1)
            self.assertIn(reason, support.view.errors)
