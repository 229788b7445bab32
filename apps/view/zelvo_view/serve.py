"""--serve: the page of a running bus, over HTTP."""

# Whoever may see it knows the key in its address. A request that another page has made a browser send
# is refused by its Host or Origin. Nothing but the page and its feed is served.

import gc
import hmac
import io
import secrets
import socket
import socketserver
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

from . import report
from .live import Live
from .sources import InputError

ADDRESS = '127.0.0.1'
CONNECTIONS = 64  # at once; more are closed
IDLE = 30  # seconds in which a browser that takes nothing is taken for asleep


class Handler(BaseHTTPRequestHandler):
    server_version, sys_version, timeout = 'zelvo-view', '', IDLE

    def log_message(self, *_):
        pass

    def do_GET(self):
        url = urlsplit(self.path)
        query = {name: values[-1] for name, values in parse_qs(url.query).items()}
        if not self._is_ours() or not hmac.compare_digest(query.get('key', '').encode(),
                                                          self.server.key.encode()):
            self._answer(403, 'text/plain', b'Forbidden: this takes the whole address that zelvo-view has '
                         b'printed, with its host, port and key\n')
        elif url.path == '/':
            self._answer(200, 'text/html; charset=utf-8', self.server.page)
        elif url.path == '/feed':
            self._answer(200, 'text/event-stream', b'retry: 1000\n\n')
            after = self.headers.get('Last-Event-ID') or query.get('after', '')
            self._feed(query.get('view', ''), int(after) if after.isdecimal() else 0)
        else:
            self._answer(404, 'text/plain', b'Not found\n')

    def _is_ours(self):
        hosts, origin = self.headers.get_all('Host', []), self.headers.get('Origin')
        mine = self.connection.getsockname()
        names = {self.server.server_address[0], mine[0].replace('::ffff:', ''), socket.gethostname()}
        names |= {'localhost'} if mine[0] in (ADDRESS, '::1') else set()
        return len(hosts) == 1 and hosts[0] in {_address(name, mine[1]) for name in names} and (
            origin in (None, 'http://' + hosts[0]))

    def _answer(self, code, kind, body):
        self.send_response(code)
        for name, value in (('Content-Type', kind), ('Cache-Control', 'no-store'),
                            ('Content-Security-Policy', self.server.policy),
                            ('X-Content-Type-Options', 'nosniff'), ('X-Frame-Options', 'DENY'),
                            ('Referrer-Policy', 'no-referrer'),
                            ('Cross-Origin-Resource-Policy', 'same-origin')):
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    def _feed(self, view, after):
        live, beat = self.server.live, 0
        with live.changed:
            live.wanted[view] += 1
        try:
            while True:
                with live.changed:
                    live.changed.wait_for(lambda: live.beat != beat and view in live.figures)
                    beat, figures = live.beat, live.figures[view]
                    rows = [r for r in live.rows.get(view, ()) if r[0] > after]
                if rows:
                    after = max(number for number, _ in rows)
                    self._send(view, '[{}]'.format(','.join(text for _, text in rows)), after)
                self._send('figures', figures)
        finally:
            with live.changed:
                live.wanted[view] -= 1

    def _send(self, event, text, number=None):
        mark = '' if number is None else 'id: {}\n'.format(number)
        self.wfile.write('event: {}\n{}data: {}\n\n'.format(event, mark, text).encode())


class Server(ThreadingHTTPServer):
    daemon_threads, block_on_close = True, False

    def __init__(self, address, port, live):
        self.live, self.key = live, secrets.token_urlsafe(18)
        if ':' in address:
            self.address_family = socket.AF_INET6
        title, empty = report.title_of(live.view.inputs), io.StringIO()
        report.Messages().write(empty)
        before, after, self.policy = report.page(title, names=('report', 'live'),
                                                 policy="; connect-src 'self'")
        data = report.dumps({'live': True, 'title': title})
        self.page = (before + data[:-1] + ',' + empty.getvalue() + '}' + after).encode(
            errors='backslashreplace')
        super().__init__((address, port), Handler)

    def server_bind(self):
        socketserver.TCPServer.server_bind(self)  # HTTPServer's would ask for the host's name

    def verify_request(self, request, client_address):
        return threading.active_count() < CONNECTIONS

    def handle_error(self, request, client_address):
        pass  # a browser that has gone


def _address(name, port):
    name = '[{}]'.format(name) if ':' in name else name
    return name if port == 80 else '{}:{}'.format(name, port)


def run(view, port, listen):
    """Serves the page until Ctrl-C."""
    gc.enable()  # requests leave rings behind
    live, address = Live(view), listen or ADDRESS
    try:
        server = Server(address, port, live)
    except (OSError, OverflowError) as error:
        reason = getattr(error, 'strerror', None) or error
        raise InputError('{}: {}'.format(_address(address, port), reason)) from error
    if listen:
        print('zelvo-view: warning: who reaches {} and knows the key sees all messages, and so does '
              'who listens on the way'.format(address), file=sys.stderr)
    shown = socket.gethostname() if address in ('0.0.0.0', '::') else address
    print('http://{}/?key={}'.format(_address(shown, server.server_address[1]), server.key),
          flush=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    try:
        for message in view.live(skips=True):
            if message is None:
                live.compose()
            else:
                live.add(message)
        live.state = 'ended'
        while True:
            live.compose()
            time.sleep(0.1)
    except KeyboardInterrupt:
        return 1
