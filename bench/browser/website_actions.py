#!/usr/bin/env python3
"""Secure and Allow confirmed in the real browser's popover, on a profile made
from a real filter list: the time until the change is in effect for the next
page load.

  secure  Done pressed until the recompiled part is applied ("filter on")
  allow   Done pressed until the page is let through ("filter allow"), and
          until the recompiled list (every part) is applied ("filter on")

Each round undoes the change with the command and waits until the browser has
applied that too, so that every round starts from a browser that is idle. The
first round compiles; later rounds find the same lists in the compiled-list
cache that the browser shares with the command, and are shown apart.

    scripts/with-display /usr/bin/python3 bench/browser/website_actions.py \\
        [--rounds 5] [LIST]        (LIST: default build/lists/easylist.txt)
"""
import argparse
import http.server
import os
import queue
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
BUILD = os.environ.get("STONEWALL_BUILD", os.path.join(ROOT, "build", "default"))
STONEWALL = os.path.join(BUILD, "tools", "stonewall", "stonewall")
BROWSER = os.path.join(BUILD, "tools", "stonewall-browser", "stonewall-browser")


class Browser:
    def __init__(self, url, env):
        self.process = subprocess.Popen([BROWSER, "--control", url], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                        env=env, text=True, bufsize=1)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put((time.monotonic(), line.rstrip("\n")))

    def send(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()

    def wait(self, prefix, timeout=60):
        """The time of the first event line starting with prefix (earlier ones
        are consumed)."""
        deadline = time.monotonic() + timeout
        while True:
            try:
                at, line = self.lines.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                raise TimeoutError(f'no "{prefix}"') from None
            if line.startswith(prefix):
                return at

    def settle(self, quiet=3.0):
        """Consumes events until none came for `quiet` seconds."""
        while True:
            try:
                self.lines.get(timeout=quiet)
            except queue.Empty:
                return

    def close(self):
        self.send("quit")
        self.process.wait(timeout=10)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("list", nargs="?", default=os.path.join(ROOT, "build", "lists",
                                                                 "easylist.txt"))
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as scratch:
        env = dict(os.environ, HOME=os.path.join(scratch, "home"), GSK_RENDERER="cairo",
                   STONEWALL_CONTAINER=os.path.join(scratch, "container"))
        os.makedirs(env["HOME"])
        subprocess.run([STONEWALL, "profile", "import", "defaultProfile", args.list], env=env,
                       check=True, capture_output=True)
        page = os.path.join(scratch, "site")
        os.makedirs(page)
        with open(os.path.join(page, "index.html"), "w") as out:
            out.write("<!doctype html><title>Page</title><p>A page.")
        handler = lambda *a, **k: http.server.SimpleHTTPRequestHandler(*a, directory=page, **k)
        http.server.SimpleHTTPRequestHandler.log_message = lambda *a: None
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        url = f"http://127.0.0.1:{server.server_address[1]}/"

        browser = Browser(url, env)
        browser.wait("loaded", 120)
        browser.settle()
        secure, allow, allowCompiled = [], [], []
        for _ in range(args.rounds):
            for button, undo in (("secureButton", "unsecure"), ("whitelistButton", "unallow")):
                browser.send("popup")
                browser.wait("view 1")
                browser.send(f"press {button}")
                browser.wait("view 4")
                start = time.monotonic()
                browser.send("press websiteDoneButton")
                if button == "secureButton":
                    secure.append(browser.wait("filter on") - start)
                else:
                    allow.append(browser.wait("filter allow") - start)
                    allowCompiled.append(browser.wait("filter on") - start)
                browser.wait("loaded")
                subprocess.run([STONEWALL, undo, url], env=env, check=True, capture_output=True)
                browser.wait("filter on")
                browser.settle()
        browser.close()
        server.shutdown()

    # The first round compiles what the change needs; later rounds ask for
    # lists that the store's cache by content holds already, whichever
    # program compiled them.
    def line(name, values):
        again = values[1:] or values
        print(f"{name:32} first {values[0] * 1000:7.1f} ms; again median "
              f"{statistics.median(again) * 1000:7.1f} ms, max {max(again) * 1000:7.1f} ms "
              f"({len(again)} rounds)")
    print(f"list: {os.path.basename(args.list)}")
    line("secure to filters in place", secure)
    line("allow to page let through", allow)
    line("allow to compiled list applied", allowCompiled)
    return 0


if __name__ == "__main__":
    sys.exit(main())
