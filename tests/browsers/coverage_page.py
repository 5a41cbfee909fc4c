#!/usr/bin/env python3
"""Checks the page of `proxymanagerctl pac cover --format html` in Chromium.

usage: coverage_page.py --build=BUILD [--screenshot=FILE]

The program reads the answer of each URL and follows the link to the line that gave this answer. It also
checks that the page loads nothing from other places: it adds requests to the page, and the page's
policy must refuse them.
"""

import argparse
import base64
import http.server
import json
import os
import subprocess
import sys
import tempfile
import threading

import chromium
import devtools

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs/examples")
SCRIPT = "sample.pac"
URLS = ["http://printer/", "http://www.example.org/", "http://www.example.org/",
        "http://downloads.example.net/image.iso", "http://www.example.org/?<script>alert(1)</script>&amp;"]
# Each row has a count, a URL, an answer and a line.
ROWS = """[...document.querySelectorAll('h2:last-of-type + table tr')].slice(1)
  .map((row) => [...row.children].map((cell) => cell.textContent))"""


def ctl(build, *arguments):
    done = subprocess.run([os.path.join(os.path.abspath(build), "out/bin/proxymanagerctl"), "pac", *arguments],
                          cwd=FOLDER, capture_output=True, text=True, check=True)
    return done.stdout


def expect(holds, what):
    print(("ok      " if holds else "FAILED  ") + what)
    return holds


def answers_are_those_of_the_script(build, page):
    answers = json.loads(ctl(build, "eval", "--json", "--offline", SCRIPT, *dict.fromkeys(URLS)))
    wanted = [[str(URLS.count(one["url"])), one["url"], one["result"]] for one in answers]
    return expect([row[:3] for row in page.evaluate(ROWS)] == wanted, "each URL has its answer")


def a_click_leads_to_the_line(page):
    line = page.evaluate(ROWS)[1][3]
    page.click("document.querySelectorAll('h2:last-of-type + table a')[1]")
    shown = page.evaluate("""new Promise((done) => requestAnimationFrame(() => {
        const target = document.querySelector(':target');
        const box = target && target.getBoundingClientRect();
        done(target && [location.hash, target.textContent, box.top >= 0 && box.bottom <= innerHeight,
                        getComputedStyle(target.lastChild).outlineStyle]); }))""")
    return expect(shown is not None and shown[0] == f"#L{line}" and "return" in shown[1] and shown[2]
                  and shown[3] == "solid", f"a click on the line of a URL shows line {line}, marked")


def nothing_comes_from_elsewhere(page, url):
    class Seen(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            seen.append(self.path)
            self.send_error(404)

        def log_message(self, *_):
            pass

    seen = []
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Seen)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    elsewhere = f"http://127.0.0.1:{server.server_port}/"
    requested = {event["params"]["request"]["url"] for event in page.events
                 if event.get("method") == "Network.requestWillBeSent"}
    own = expect(requested == {url}, "the page loads nothing but itself")
    # Requests an image, a style sheet and a script, and waits until the page's policy has refused all
    # of them.
    refused = page.evaluate("""new Promise((done) => {
        const refused = new Set();
        document.addEventListener('securitypolicyviolation', (event) => {
          if (refused.add(event.effectiveDirective).size === 3) done([...refused].sort()); });
        const add = (name, values) => document.head.appendChild(
          Object.assign(document.createElement(name), values));
        add('img', {src: '%s'}); add('script', {src: '%s'}); add('link', {rel: 'stylesheet', href: '%s'});
      })""" % (elsewhere, elsewhere, elsewhere))
    server.shutdown()
    refused_all = expect(refused == ["img-src", "script-src-elem", "style-src-elem"] and not seen,
                         "the policy of the page refuses images, scripts and styles of others")
    return own and refused_all


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--screenshot")
    options = parser.parse_args()
    print(chromium.version())
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "coverage.html")
        with open(path, "w", encoding="utf-8") as file:
            named = [word for url in URLS for word in ("-u", url)]
            file.write(ctl(options.build, "cover", "--offline", "--format", "html", SCRIPT, *named))
        url = f"file://{path}"
        page = devtools.Page(url, width=900, height=700)
        try:
            if options.screenshot:
                picture = page.call("Page.captureScreenshot", format="png", captureBeyondViewport=True)
                with open(options.screenshot, "wb") as file:
                    file.write(base64.b64decode(picture["data"]))
            results = [answers_are_those_of_the_script(options.build, page),
                       a_click_leads_to_the_line(page), nothing_comes_from_elsewhere(page, url)]
        finally:
            page.close()
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
