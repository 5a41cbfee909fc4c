"""Controls Debian's Chromium through a pair of pipes."""

import json
import os
import shutil
import subprocess
import tempfile

import chromium

LIMIT = 120  # seconds, for one answer


class Page:
    """One page of a browser with an empty profile. `events` has the events that the browser has reported."""

    def __init__(self, url, width=1000, height=900):
        self.folder = tempfile.mkdtemp(prefix="chromium.")
        to_browser, self._write = os.pipe()
        self._read, from_browser = os.pipe()
        os.set_inheritable(to_browser, True)
        os.set_inheritable(from_browser, True)
        # The browser reads commands from descriptor 3 and writes answers to descriptor 4.
        shell = f'exec "$@" 3<&{to_browser} 4>&{from_browser}'
        self._browser = subprocess.Popen(
            ["bash", "-c", shell, "-", chromium.PROGRAM, *chromium.OPTIONS, "--remote-debugging-pipe",
             f"--window-size={width},{height}", f"--user-data-dir={self.folder}/profile"],
            pass_fds=(to_browser, from_browser), env={**os.environ, "HOME": self.folder},
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self._unread, self._number, self._session, self.events = b"", 0, None, []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self._session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Network", "Page", "Log"):
            self.call(f"{domain}.enable")
        self.call("Page.navigate", url=url)
        self.wait_event("Page.loadEventFired")

    def close(self):
        os.close(self._write)
        try:
            self._browser.wait(LIMIT)
        finally:
            self._browser.kill()
            self._browser.wait()
            os.close(self._read)
            shutil.rmtree(self.folder, ignore_errors=True)

    def _receive(self):
        while b"\0" not in self._unread:
            more = os.read(self._read, 1 << 16)
            if not more:
                raise RuntimeError("the browser has ended")
            self._unread += more
        message, _, self._unread = self._unread.partition(b"\0")
        return json.loads(message)

    def call(self, method, **parameters):
        self._number += 1
        command = {"id": self._number, "method": method, "params": parameters}
        if self._session:
            command["sessionId"] = self._session
        os.write(self._write, json.dumps(command).encode() + b"\0")
        while True:
            message = self._receive()
            if message.get("id") == self._number:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error']}")
                return message["result"]
            self.events.append(message)

    def wait_event(self, method):
        while not any(event.get("method") == method for event in self.events):
            self.events.append(self._receive())

    def evaluate(self, expression):
        """Evaluates a JavaScript expression in the page, and returns its value. If the value is a promise,
        waits for its result."""
        done = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in done:
            raise RuntimeError(f"{expression}: {done['exceptionDetails']}")
        return done["result"].get("value")

    def click(self, element):
        """Presses and releases the mouse in the middle of the element that the JavaScript
        expression `element` gives."""
        x, y = self.evaluate(f"""(() => {{ const element = {element}; element.scrollIntoView();
            const box = element.getBoundingClientRect();
            return [box.x + box.width / 2, box.y + box.height / 2]; }})()""")
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)
