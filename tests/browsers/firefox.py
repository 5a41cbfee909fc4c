"""Runs scripts in Debian's Firefox ESR, and returns the texts that a script passes to alert().

Firefox writes alerts to its console. Through Firefox's remote control for tests (Marionette), this module
asks for the proxies of URLs, without downloads, and reads the console.
"""

import contextlib
import http.server
import json
import os
import shutil
import socket
import subprocess
import tempfile
import threading
import time

PROGRAM = "firefox-esr"
START_LIMIT = 60  # seconds until Marionette listens
LIMIT = 300  # seconds of one request
PREFERENCES = {
    "network.proxy.type": 2, "network.proxy.autoconfig_url.include_path": True,
    "network.proxy.failover_direct": False, "browser.shell.checkDefaultBrowser": False,
    "datareporting.policy.dataSubmissionEnabled": False, "toolkit.telemetry.enabled": False,
    "app.update.enabled": False, "network.captive-portal-service.enabled": False,
    "network.connectivity-service.enabled": False, "marionette.port": 0,
}
# Asks the proxy service for each URL, one after the other, then returns what alert() has logged.
ASK = """
const [urls, done] = arguments;
const service = Cc["@mozilla.org/network/protocol-proxy-service;1"].getService(Ci.nsIProtocolProxyService);
const ask = (url) => new Promise((resolve) => service.asyncResolve(
  Services.io.newChannel(url, null, null, null, Services.scriptSecurityManager.getSystemPrincipal(), null,
    Ci.nsILoadInfo.SEC_ALLOW_CROSS_ORIGIN_SEC_CONTEXT_IS_NULL, Ci.nsIContentPolicy.TYPE_OTHER), 0,
  { QueryInterface: ChromeUtils.generateQI(["nsIProtocolProxyCallback"]),
    onProxyAvailable: (request, channel, info, status) => resolve(status) }));
(async () => {
  const alerts = [];
  for (const url of urls) {
    Services.console.reset();
    await ask(url);
    for (let i = 0; i < 200; i++) {
      const texts = Services.console.getMessageArray().map((one) => one.message)
        .filter((text) => text.startsWith("PAC-alert: #"));
      if (texts.length > 0) { alerts.push(...texts.map((text) => text.slice(11))); break; }
      await new Promise((resolve) => Services.tm.dispatchToMainThread(resolve));
    }
  }
  done(alerts);
})().catch((error) => done(["error " + error]));
"""


class _Script(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Type", "application/x-ns-proxy-autoconfig")
        self.send_header("Content-Length", str(len(self.server.script)))
        self.end_headers()
        self.wfile.write(self.server.script)

    def log_message(self, *_):
        pass


def version():
    return subprocess.run([PROGRAM, "--version"], capture_output=True, text=True, check=True).stdout.strip()


class _Control:
    """A connection to Marionette. In both directions, a message is a length, a colon, and a list as JSON."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=LIMIT)
        self.stream = self.socket.makefile("rb")
        self.number = 0
        self._receive()

    def _receive(self):
        digits = b""
        while (byte := self.stream.read(1)) != b":":
            digits += byte
        return json.loads(self.stream.read(int(digits)))

    def __call__(self, command, **parameters):
        self.number += 1
        text = json.dumps([0, self.number, command, parameters]).encode()
        self.socket.sendall(str(len(text)).encode() + b":" + text)
        _, _, error, result = self._receive()
        if error:
            raise RuntimeError(f"{command}: {error['message']}")
        return result


@contextlib.contextmanager
def _browser(preferences, environment):
    """Starts a Firefox with an empty profile and these preferences. Yields its remote control."""
    profile = tempfile.mkdtemp(prefix="firefox.")
    with open(os.path.join(profile, "user.js"), "w", encoding="utf-8") as file:
        file.writelines(f'user_pref("{name}", {json.dumps(value)});\n' for name, value in preferences.items())
    browser = subprocess.Popen(
        [PROGRAM, "--headless", "--no-remote", "--profile", profile, "--marionette",
         "--remote-allow-system-access"],
        env={**os.environ, **environment, "HOME": profile}, stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL)
    try:
        control = _Control(_port(profile, browser))
        control("WebDriver:NewSession", capabilities={"alwaysMatch": {"timeouts": {"script": LIMIT * 1000}}})
        yield control
    finally:
        browser.terminate()
        browser.wait(timeout=START_LIMIT)
        shutil.rmtree(profile, ignore_errors=True)


def alerts(script, urls, zone="UTC"):
    """Loads `script`, asks for the proxies of each of `urls`, and returns the texts of alert() that
    begin with "#"."""
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), _Script)
    server.script = ("var PROXY_PORT = 1;\n" + script).encode()
    threading.Thread(target=server.serve_forever, daemon=True).start()
    preferences = {**PREFERENCES,
                   "network.proxy.autoconfig_url": f"http://127.0.0.1:{server.server_port}/script.pac"}
    try:
        with _browser(preferences, {"TZ": zone}) as control:
            control("Marionette:SetContext", value="chrome")
            return control("WebDriver:ExecuteAsyncScript", script=ASK, args=[urls])["value"]
    finally:
        server.shutdown()
        server.server_close()


def evaluate(url, script, preferences):
    """Opens `url`, runs the asynchronous `script` on this page, and returns its result."""
    with _browser({**PREFERENCES, **preferences}, {}) as control:
        control("WebDriver:Navigate", url=url)
        return control("WebDriver:ExecuteAsyncScript", script=script, args=[])["value"]


def _port(profile, browser):
    """Returns the port that Firefox has chosen. Firefox writes it to its profile."""
    path = os.path.join(profile, "MarionetteActivePort")
    limit = time.monotonic() + START_LIMIT
    while time.monotonic() < limit and browser.poll() is None:
        if os.path.exists(path) and os.path.getsize(path) > 0:
            with open(path, encoding="ascii") as file:
                return int(file.read())
        time.sleep(0.1)
    raise RuntimeError("Firefox does not listen")
