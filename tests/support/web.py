"""A real HTTP server on loopback. The test sets its routes."""

import socket
import socketserver
import threading

SCRIPT_TYPE = "application/x-ns-proxy-autoconfig"


def response(body=b"", status="200 OK", headers=(), length=True):
    body = body.encode() if isinstance(body, str) else body
    lines = [f"HTTP/1.1 {status}", "Connection: close", *headers]
    if length:
        lines.append(f"Content-Length: {len(body)}")
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + body


def script(answer):
    """A PAC script that gives one answer for all URLs."""
    return f'function FindProxyForURL(url, host) {{ return "{answer}"; }}\n'


class Web:
    """routes: path -> bytes to send, text (a script), or a function(connection, web)."""

    def __init__(self, address="127.0.0.1", port=0):
        web = self

        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                web._handle(self.request)

        class Server(socketserver.ThreadingTCPServer):
            daemon_threads = True
            allow_reuse_address = True
            request_queue_size = 64

        self.routes = {}
        self.requests = []
        self._seen = threading.Condition()
        self._server = Server((address, port), Handler)
        self.port = self._server.server_address[1]
        self._thread = threading.Thread(target=self._server.serve_forever, args=(0.05,),
                                        daemon=True)
        self._thread.start()

    def url(self, path):
        return f"http://127.0.0.1:{self.port}{path}"

    def _handle(self, connection):
        head = b""
        while b"\r\n\r\n" not in head:
            piece = connection.recv(65536)
            if not piece:
                return
            head += piece
        path = head.split(b" ", 2)[1].decode()
        with self._seen:
            self.requests.append((path, head.decode("latin-1")))
            self._seen.notify_all()
        route = self.routes.get(path)
        try:
            if route is None:
                connection.sendall(response("not here", status="404 Not Found"))
            elif callable(route):
                route(connection, self)
            else:
                connection.sendall(response(route) if isinstance(route, str) else route)
        except OSError:
            pass  # a client may close the connection at any time

    def paths(self):
        with self._seen:
            return [path for path, _ in self.requests]

    def wait(self, path, times=1, limit=60.0):
        with self._seen:
            found = self._seen.wait_for(
                lambda: [seen for seen, _ in self.requests].count(path) >= times, limit)
            assert found, f"{path} not asked for {times} times: {self.requests}"

    def close(self):
        self._server.shutdown()
        self._server.server_close()
        self._thread.join()


class Held:
    """A route that does not answer before release()."""

    def __init__(self, body):
        self.body = body
        self._go = threading.Event()

    def release(self):
        self._go.set()

    def __call__(self, connection, _):
        self._go.wait(60)
        connection.sendall(response(self.body))


def reset(connection):
    """Ends the connection with a reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
    connection.close()
