#!/usr/bin/env python3
"""What zelvo-view --serve takes: python3 bench/view_live.py [MESSAGES_A_SECOND [SECONDS]]

Writes the log of a bus with that traffic, as fast as it would come, into the viewer, opens its page in
a headless Chromium, and clicks through it. Prints the viewer's processor time and memory, what it could
not read in time, and how long each click takes the page, as processor time and as it seems.
"""

import os
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
VIEW = os.path.join(os.path.dirname(HERE), 'apps', 'view')
sys.path.insert(0, os.path.join(VIEW, 'tests'))
sys.dont_write_bytecode = True

from browser import Browser  # noqa: E402

HEAD = '[00042:{:05d}]{} [D] src/bus_client/'
MESSAGE = (HEAD + 'publish.cpp#  83#  client: 0x1, server: 0x2. topic: 0x3\n' +
           HEAD + 'message.cpp# 230#  Vek-client # 143# pub{} ==> busServer,  action: publish, '
           'topic: topic{},  url: NULL, payload: {}, payload len: {}\n' +
           HEAD + 'message.cpp# 230#  Vek-client # 143# sub{} <== busServer,  action: publish, '
           'topic: topic{},  url: NULL, payload: {}, payload len: {}\n')


def write(pipe, rate, seconds):
    """A publication and its delivery are two messages, and three lines."""
    begun, made = time.monotonic(), 0
    while time.monotonic() - begun < seconds:
        now = time.time()
        stamp = time.strftime('%Y-%m-%d %H:%M:%S', time.gmtime(now + 8 * 3600))
        stamp += '.{:03d}'.format(int(now * 1000) % 1000)
        due, lines = int((time.monotonic() - begun) * rate), []
        while made < due:
            n, payload = made // 2 % 40, '{{"n":{},"text":"payload of message"}}'.format(made)
            rest = (n, n, payload, len(payload))
            lines.append(MESSAGE.format(10 + n, stamp, 10 + n, stamp, *rest, 60 + n, stamp, *rest))
            made += 2
        pipe.write(''.join(lines).encode())
        pipe.flush()
        time.sleep(0.01)
    pipe.close()


def processor(pid):
    """Seconds that the process has used."""
    with open('/proc/{}/stat'.format(pid), encoding='ascii') as file:
        fields = file.read().rpartition(')')[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf('SC_CLK_TCK')


def main():
    rate = float(sys.argv[1]) if len(sys.argv) > 1 else 20000
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 20
    viewer = subprocess.Popen([sys.executable, os.path.join(VIEW, 'zelvo-view'), '--serve', '0'],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    url = viewer.stdout.readline().decode().strip()
    writer = threading.Thread(target=write, args=(viewer.stdin, rate, seconds + 4))
    with Browser() as browser:
        browser.open(url)
        browser.command('Performance.enable', timeDomain='threadTicks')

        def tasks():
            found = browser.command('Performance.getMetrics')['metrics']
            return 1000 * next(m['value'] for m in found if m['name'] == 'TaskDuration')

        writer.start()
        time.sleep(2)
        begun, used, clicks = time.monotonic(), processor(viewer.pid), {}
        while time.monotonic() - begun < seconds:
            for view in ('topics', 'calls', 'faults', 'messages', 'chart', 'graph'):
                before = tasks()
                seems = browser.run('''const begun = performance.now();
                    document.querySelector(`[data-view=${arguments[0]}]`).click();
                    document.body.offsetHeight;
                    return performance.now() - begun;''', view)
                clicks.setdefault(view, []).append((tasks() - before, seems))
                time.sleep(0.7)
        share = (processor(viewer.pid) - used) / (time.monotonic() - begun)
        print(browser.run('return document.getElementById("span").innerText'))
        with open('/proc/{}/status'.format(viewer.pid), encoding='ascii') as file:
            print('viewer: {:.2f} of a core,'.format(share),
                  next(line.split()[1] for line in file if line.startswith('VmHWM')), 'kB at most')
        for view, found in clicks.items():
            print('click on {}: {:.1f} ms of processor, {:.1f} ms at most as it seems'.format(
                view, max(f[0] for f in found), max(f[1] for f in found)))
    writer.join()
    viewer.kill()


if __name__ == '__main__':
    main()
