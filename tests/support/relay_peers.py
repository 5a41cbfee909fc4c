"""Servers and proxies around the relay, good and bad ones, on loopback."""

import contextlib
import socket
import socketserver
import struct
import threading

from .bus import LIMIT


class Server:
    """Runs `handle(connection)` on a thread for each connection."""

    def __init__(self, handle, address="127.0.0.1", port=0):
        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                with contextlib.suppress(OSError):
                    handle(self.request)

        class Threads(socketserver.ThreadingTCPServer):
            daemon_threads = True
            allow_reuse_address = True
            request_queue_size = 256
            address_family = socket.AF_INET6 if ":" in address else socket.AF_INET

        self._server = Threads((address, port), Handler)
        self.port = self._server.server_address[1]
        threading.Thread(target=self._server.serve_forever, args=(0.02,), daemon=True).start()

    def close(self):
        self._server.shutdown()
        self._server.server_close()


def read_head(connection):
    """Reads the next head byte by byte, so that it reads nothing after the head. The result is empty at the
    end of the connection."""
    head = b""
    while not head.endswith(b"\r\n\r\n"):
        byte = connection.recv(1)
        if not byte:
            return b""
        head += byte
    return head


def read_exactly(connection, count):
    data = b""
    while len(data) < count:
        piece = connection.recv(count - len(data))
        if not piece:
            break
        data += piece
    return data


def read_all(connection):
    data = b""
    with contextlib.suppress(ConnectionResetError):
        while piece := connection.recv(65536):
            data += piece
    return data


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def splice(left, right):
    """Copies in both directions until both sides have ended."""
    def copy(source, target):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)

    thread = threading.Thread(target=copy, args=(left, right), daemon=True)
    thread.start()
    copy(right, left)
    thread.join(LIMIT)


class Origin:
    """Answers each request with the request's own head and body, and keeps the connection."""

    def __init__(self, address="127.0.0.1", port=0, body=None):
        self.heads = []
        self.body = body
        self._server = Server(self._handle, address, port)
        self.port = self._server.port
        self.close = self._server.close

    def _handle(self, connection):
        while head := read_head(connection):
            self.heads.append(head)
            fields = dict(line.lower().split(b": ", 1) for line in head.split(b"\r\n")[1:]
                          if b": " in line)
            body = read_exactly(connection, int(fields.get(b"content-length", b"0")))
            if b"chunked" in fields.get(b"transfer-encoding", b""):
                while not (b"\n0\r\n" in body and body.endswith(b"\r\n\r\n")):
                    body += connection.recv(1)
            answer = (head + body) if self.body is None else self.body
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(answer)
                               + (b"" if head.startswith(b"HEAD ") else answer))


class Proxy:
    """An HTTP proxy. `connect` and `get` are the texts that the proxy sends as answers. Special values:
    None serves the request, "" closes the connection, "silent" does nothing, "reset" ends the
    connection with a reset. A function gets the head and returns one of these values."""

    def __init__(self, connect=None, get=None):
        self.heads = []
        self.connections = 0
        self.connect_answer, self.get_answer = connect, get
        self._server = Server(self._handle)
        self.port = self._server.port
        self.close = self._server.close

    @property
    def entry(self):
        return f"PROXY 127.0.0.1:{self.port}"

    def _handle(self, connection):
        self.connections += 1
        while head := read_head(connection):
            self.heads.append(head)
            is_connect = head.startswith(b"CONNECT ")
            answer = self.connect_answer if is_connect else self.get_answer
            answer = answer(head) if callable(answer) else answer
            if answer == "silent":
                read_all(connection)
                return
            if answer == "reset":
                reset(connection)
                return
            if answer is not None:
                connection.sendall(answer.encode())
                if answer.startswith("HTTP/") and "Connection: close" not in answer:
                    continue
                return
            if is_connect:
                self._tunnel(connection, head.split()[1].decode())
                return
            self._get(connection, head)

    @staticmethod
    def _tunnel(connection, authority):
        host, _, port = authority.rpartition(":")
        try:
            server = socket.create_connection((host, int(port)), LIMIT)
        except OSError:
            connection.sendall(b"HTTP/1.1 503 Unavailable\r\nContent-Length: 0\r\n\r\n")
            return
        with server:
            connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
            splice(connection, server)

    @staticmethod
    def _get(connection, head):
        line, _, rest = head.partition(b"\r\n")
        method, url, version = line.split(b" ")
        host, _, path = url.removeprefix(b"http://").partition(b"/")
        name, _, port = host.decode().partition(":")
        with socket.create_connection((name, int(port or 80)), LIMIT) as server:
            server.sendall(b" ".join((method, b"/" + path, version)) + b"\r\n" + rest)
            answer = read_head(server)
            length = next(int(line.split(b":")[1]) for line in answer.split(b"\r\n")
                          if line.lower().startswith(b"content-length:"))
            connection.sendall(answer)
            if method != b"HEAD":
                connection.sendall(read_exactly(server, length))


class DeadProxy:
    """A port at which nobody listens. No other program gets the port before close()."""

    connections = 0

    def __init__(self):
        self._socket = socket.socket()
        self._socket.bind(("127.0.0.1", 0))
        self.port = self._socket.getsockname()[1]
        self.entry = f"PROXY 127.0.0.1:{self.port}"
        self.close = self._socket.close


def status(code, text="No", fields=""):
    return f"HTTP/1.1 {code} {text}\r\n{fields}Content-Length: 0\r\n\r\n"


class SocksProxy:
    """A SOCKS 5 and 4a proxy without authentication. If `reply` is a number, it answers with this
    reply code instead of serving."""

    def __init__(self, versions=(4, 5), reply=None):
        self.names = []
        self.versions, self.reply = versions, reply
        self._server = Server(self._handle)
        self.port = self._server.port
        self.close = self._server.close

    def _handle(self, connection):
        version = read_exactly(connection, 1)
        if not version or version[0] not in self.versions:
            return
        if version[0] == 5:
            read_exactly(connection, read_exactly(connection, 1)[0])
            connection.sendall(b"\x05\x00")
            kind = read_exactly(connection, 4)[3]
            if kind == 3:
                host = read_exactly(connection, read_exactly(connection, 1)[0]).decode()
            else:
                host = socket.inet_ntop(socket.AF_INET if kind == 1 else socket.AF_INET6,
                                        read_exactly(connection, 4 if kind == 1 else 16))
            port = struct.unpack("!H", read_exactly(connection, 2))[0]
        else:
            _, port, address = struct.unpack("!BH4s", read_exactly(connection, 7))
            text = lambda: b"".join(iter(lambda: read_exactly(connection, 1), b"\0")).decode()
            text()
            host = text() if address[:3] == b"\0\0\0" else socket.inet_ntoa(address)
        self.names.append((version[0], host, port))
        if self.reply is not None:
            connection.sendall(bytes((5, self.reply)) + b"\0\1" + bytes(6) if version[0] == 5
                               else bytes((0, 91)) + bytes(6))
            return
        with socket.create_connection((host, port), LIMIT) as server:
            connection.sendall(b"\x05\x00\x00\x01" + bytes(6) if version[0] == 5
                               else bytes((0, 90)) + bytes(6))
            splice(connection, server)
