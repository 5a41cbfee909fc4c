"""Debian's Chromium as an engine of scripts: what a script passes to alert().

The script comes over loopback, the alerts go into the net log. Each run is a browser of its own with
an empty profile, in a network namespace that holds loopback only.
"""

import http.server
import json
import os
import shutil
import subprocess
import tempfile
import threading

PROGRAM = "chromium"
OPTIONS = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
           "--disable-background-networking", "--disable-component-update", "--disable-sync")
LIMIT = 300  # seconds of one run
PAGE = "http://page.test/"


class _Server(http.server.BaseHTTPRequestHandler):
    """Serves the script; to what comes as to a proxy, the page that asks for every host, or nothing."""

    def do_GET(self):
        body, kind = b"", "image/gif"
        if self.path == "/script.pac":
            body, kind = self.server.script, "application/x-ns-proxy-autoconfig"
        elif self.path == PAGE:
            body, kind = self.server.page, "text/html"
        self.send_response(200)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


class _Listener(http.server.ThreadingHTTPServer):
    def handle_error(self, *_):
        """A browser that ends closes connections on which it waits for nothing."""


def version():
    shown = subprocess.run([PROGRAM, "--version"], capture_output=True, text=True, check=True)
    return shown.stdout.strip()


def alerts(script, urls, zone="UTC", options=()):
    """Loads `script`, in which PROXY_PORT is the port of a proxy, asks for each of `urls`, and
    returns the texts of alert(), each once."""
    server = _Listener(("127.0.0.1", 0), _Server)
    server.script = f"var PROXY_PORT = {server.server_port};\n{script}".encode()
    server.page = "".join(f"<img src='{url}'>" for url in urls).encode()
    threading.Thread(target=server.serve_forever, daemon=True).start()
    folder = tempfile.mkdtemp(prefix="chromium.")
    log = os.path.join(folder, "net.json")
    try:
        subprocess.run(
            [PROGRAM, *OPTIONS, *options, f"--user-data-dir={folder}/profile", f"--log-net-log={log}",
             f"--proxy-pac-url=http://127.0.0.1:{server.server_port}/script.pac", "--dump-dom", PAGE],
            env={**os.environ, "TZ": zone, "HOME": folder}, capture_output=True, timeout=LIMIT,
            check=True)
        return list(_of_log(log))
    finally:
        server.shutdown()
        server.server_close()
        shutil.rmtree(folder, ignore_errors=True)


def _of_log(path):
    with open(path, encoding="utf-8") as file:
        log = json.load(file)
    types = log["constants"]["logEventTypes"]
    seen = set()
    for event in log["events"]:
        if event["type"] == types["PAC_JAVASCRIPT_ERROR"]:
            raise RuntimeError(f"the script failed: {event['params']}")
        if event["type"] == types["PAC_JAVASCRIPT_ALERT"]:
            message = event["params"]["message"]
            if message not in seen:  # each is logged by the resolver and by the request
                seen.add(message)
                yield message
