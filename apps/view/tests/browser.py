"""A headless Chromium, driven through the WebDriver protocol."""

import contextlib
import json
import os
import re
import subprocess
import tempfile
import urllib.request

from support import LIMIT, needs

_ARGUMENTS = ('--headless=new', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage',
              '--no-first-run', '--disable-background-networking', '--disable-component-update',
              '--disable-sync', '--disable-quic', '--window-size=1200,800')


class Browser:
    # A context: the browser, with one page.

    def __enter__(self):
        with contextlib.ExitStack() as stack:  # what has begun ends where the rest fails
            home = stack.enter_context(tempfile.TemporaryDirectory(prefix='zelvo-view-browser-'))
            binary = needs('chromium')
            driver = stack.enter_context(subprocess.Popen(
                [needs('chromedriver'), '--port=0'], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL))
            stack.callback(driver.terminate)
            found = None
            while found is None:
                line = driver.stdout.readline()
                assert line, 'chromedriver has not started'
                found = re.search(rb'successfully on port (\d+)', line)
            self._url = 'http://127.0.0.1:{}/session'.format(int(found.group(1)))
            options = {'binary': binary, 'args': list(_ARGUMENTS) + ['--user-data-dir=' + home]}
            made = self._send('', {'capabilities': {'alwaysMatch': {
                'goog:chromeOptions': options, 'goog:loggingPrefs': {'browser': 'ALL'}}}})
            self._url += '/' + made['sessionId']
            stack.callback(self._send, '', None, 'DELETE')
            self._begun = stack.pop_all()
        return self

    def __exit__(self, *_):
        self._begun.close()

    def _send(self, path, data, method='POST'):
        body = None if data is None else json.dumps(data).encode()
        request = urllib.request.Request(self._url + path, body, method=method,
                                         headers={'Content-Type': 'application/json'})
        with urllib.request.urlopen(request, timeout=LIMIT) as answer:
            return json.load(answer)['value']

    def open(self, path):
        self._send('/url', {'url': path if '://' in path else 'file://' + os.path.abspath(path)})

    def command(self, name, **parameters):
        return self._send('/goog/cdp/execute', {'cmd': name, 'params': parameters})

    def resize(self, width, height):
        self.command('Emulation.setDeviceMetricsOverride', width=width, height=height,
                     deviceScaleFactor=1, mobile=False)

    def show(self, view):
        self.run('document.querySelector(`[data-view=${arguments[0]}]`).click()', view)

    def run(self, script, *arguments):
        # The result of a script in the page.
        return self._send('/execute/sync', {'script': script, 'args': list(arguments)})

    def press(self, *keys):
        self.run('''for (const key of arguments) document.activeElement.dispatchEvent(
            new KeyboardEvent('keydown', {key, bubbles: true, cancelable: true}));''', *keys)

    def errors(self):
        # What the browser has complained about since the last time, also refused requests.
        return [entry['message'] for entry in self._send('/se/log', {'type': 'browser'})]
