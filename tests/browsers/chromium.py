"""Runs scripts in Debian's Chromium, and returns the texts that a script passes to alert().

The browser gets the script over loopback, and writes the alerts to its net log. Each run is a new browser
with an empty profile, in a network namespace that has only loopback.
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
    """Serves the script, and the page that asks for every host. All other requests, also those to the
    proxy, get an empty answer."""

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
        """Ignores errors: when the browser ends, it closes connections that it does not need."""


def version():
    shown = subprocess.run([PROGRAM, "--version"], capture_output=True, text=True, check=True)
    return shown.stdout.strip()


def alerts(script, urls, zone="UTC", options=()):
    """Loads `script`, requests each of `urls`, and returns the texts of alert() without
    repetitions. In the script, the variable PROXY_PORT is the port of a proxy."""
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
            if message not in seen:  # the resolver and the request both log each text
                seen.add(message)
                yield message
