#!/usr/bin/python3
"""The browser's main flows driven as a screen-reader or keyboard user drives
them: every control is found in the accessibility tree (AT-SPI) by its role
and name and pressed through its action, or reached and pressed with keys
sent through AT-SPI. The browser's control channel only reports what
happened (views, filters, loads) so that the steps wait for it; it never
presses anything. A walk of the whole tree fails on any control without a
name or without an action, with the popover open on each of its views.

Run under scripts/with-display (a private session bus, whose accessibility
bus GTK and AT-SPI start on demand, and a virtual X display):

    scripts/with-display tests/browser/a11y_flows.py \\
        --stonewall build/default/tools/stonewall/stonewall \\
        --browser build/default/tools/stonewall-browser/stonewall-browser

STONEWALL_RESOURCES must name the built resources (ctest sets it).
"""

import argparse
import ctypes
import http.server
import json
import os
import queue
import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import pyatspi

STONEWALL = None
BROWSER = None

NEWS_PAGE = b"""<!doctype html><title>News</title>
<h1>Daily News</h1>
<div id="banner" style="background:#fc0;padding:20px">Subscribe to our letter</div>
<img id="ad" src="/ads/banner.png" width="100" height="50">
<script src="/tracker.js"></script>
<p>Article text.</p>"""
PLAIN_PAGE = b"<!doctype html><title>Plain</title><p>Nothing to block."
AD_IMAGE = (b'<svg xmlns="http://www.w3.org/2000/svg" width="100" height="50">'
            b'<rect width="100" height="50" fill="red"/></svg>')
FILES = {
    "/": ("text/html", NEWS_PAGE),
    "/plain": ("text/html", PLAIN_PAGE),
    "/tracker.js": ("text/javascript", b"window.tracked = true;"),
    "/ads/banner.png": ("image/svg+xml", AD_IMAGE),
}

# Roles a person operates: each needs a name and an action.
CONTROL_ROLES = {
    pyatspi.ROLE_PUSH_BUTTON, pyatspi.ROLE_TOGGLE_BUTTON, pyatspi.ROLE_RADIO_BUTTON,
    pyatspi.ROLE_CHECK_BOX, pyatspi.ROLE_RADIO_MENU_ITEM, pyatspi.ROLE_CHECK_MENU_ITEM,
    pyatspi.ROLE_MENU_ITEM, pyatspi.ROLE_COMBO_BOX, pyatspi.ROLE_ENTRY, pyatspi.ROLE_LINK,
    pyatspi.ROLE_SPIN_BUTTON, pyatspi.ROLE_SLIDER, pyatspi.ROLE_PAGE_TAB,
}


def is_control(node):
    return node.getRole() in CONTROL_ROLES or (
        node.getRole() == pyatspi.ROLE_TEXT and node.getState().contains(pyatspi.STATE_EDITABLE))
WAIT = 30  # seconds for any one event


class Server:
    """Serves FILES on 127.0.0.1 and counts the requests of each path."""

    def __init__(self):
        counts = self.counts = {}

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                counts[self.path] = counts.get(self.path, 0) + 1
                kind, body = FILES.get(self.path, ("text/plain", b""))
                self.send_response(200 if self.path in FILES else 404)
                self.send_header("Content-Type", kind)
                self.send_header("Content-Length", str(len(body)))
                self.send_header("Cache-Control", "no-store")
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *args):
                pass

        self.httpd = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()

    def url(self, path="/"):
        return "http://127.0.0.1:%d%s" % (self.httpd.server_address[1], path)

    def requests(self, path):
        return self.counts.get(path, 0)

    def close(self):
        self.httpd.shutdown()
        self.httpd.server_close()


class Keyboard:
    """Key presses sent through AT-SPI, by key name (an X keysym name) with
    modifiers: "Alt+Shift+s", "Return"."""

    def __init__(self):
        x11 = ctypes.CDLL("libX11.so.6")
        x11.XOpenDisplay.restype = ctypes.c_void_p
        x11.XStringToKeysym.restype = ctypes.c_ulong
        x11.XKeysymToKeycode.argtypes = [ctypes.c_void_p, ctypes.c_ulong]
        self.x11 = x11
        self.display = x11.XOpenDisplay(None)
        if not self.display:
            raise RuntimeError("no X display")

    def code(self, name):
        name = {"Alt": "Alt_L", "Shift": "Shift_L", "Ctrl": "Control_L"}.get(name, name)
        keysym = self.x11.XStringToKeysym(name.encode())
        code = self.x11.XKeysymToKeycode(self.display, keysym)
        if not code:
            raise ValueError("no key for " + name)
        return code

    def press(self, combo):
        *modifiers, key = combo.split("+")
        for modifier in modifiers:
            pyatspi.Registry.generateKeyboardEvent(self.code(modifier), None, pyatspi.KEY_PRESS)
        pyatspi.Registry.generateKeyboardEvent(self.code(key), None, pyatspi.KEY_PRESSRELEASE)
        for modifier in reversed(modifiers):
            pyatspi.Registry.generateKeyboardEvent(self.code(modifier), None,
                                                   pyatspi.KEY_RELEASE)


class Browser:
    """The real browser with --control: its event lines are read into a
    queue; expect() waits for one."""

    def __init__(self, url, env):
        self.process = subprocess.Popen([BROWSER, "--control", url], env=env,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True, bufsize=1)
        self.events = queue.Queue()
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.events.put(line.rstrip("\n"))
        self.events.put(None)

    def send(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()

    def expect(self, prefix, timeout=WAIT):
        deadline = time.monotonic() + timeout
        while True:
            left = deadline - time.monotonic()
            try:
                line = self.events.get(timeout=max(left, 0.01)) if left > 0 else None
            except queue.Empty:
                line = None
            if line is None:
                raise AssertionError('no "%s"; the browser said:\n  %s' %
                                     (prefix, "\n  ".join(self.seen[-40:])))
            self.seen.append(line)
            if line.startswith(prefix):
                return line

    def quit(self):
        try:
            self.send("quit")
            self.process.stdin.close()
            self.process.wait(timeout=5)
        except (OSError, subprocess.TimeoutExpired):
            self.process.kill()
            self.process.wait()


def walk(node, skip_web=True):
    """Every accessible under node, depth first; the page's own content (the
    web view's document) is the page's, not ours."""
    yield node
    if skip_web and node.getRole() == pyatspi.ROLE_DOCUMENT_WEB:
        return
    for i in range(node.childCount):
        child = node.getChildAtIndex(i)
        if child is not None:
            yield from walk(child, skip_web)


def showing(node):
    # GTK leaves hidden views out of the tree and marks no "showing" below
    # the window: what is there and visible is shown.
    return node.getState().contains(pyatspi.STATE_VISIBLE)


def role_name(node):
    return node.getRoleName()


def actions(node):
    try:
        action = node.queryAction()
        return [action.getName(i) for i in range(action.nActions)]
    except NotImplementedError:
        return []
    except Exception:  # GTK refuses to name the actions of an insensitive widget's child
        return []


class FlowTest(unittest.TestCase):
    """One container, page server and browser per test."""

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="stonewall-a11y-")
        self.addCleanup(shutil.rmtree, self.root, True)
        self.container = os.path.join(self.root, "container")
        self.env = dict(os.environ)
        for name, folder in (("HOME", "home"), ("XDG_DATA_HOME", "data"),
                             ("XDG_CONFIG_HOME", "config"), ("XDG_CACHE_HOME", "cache")):
            path = os.path.join(self.root, folder)
            os.makedirs(path)
            self.env[name] = path
        self.env.update({"STONEWALL_CONTAINER": self.container, "GSK_RENDERER": "cairo",
                         "ASAN_OPTIONS": "detect_leaks=0"})
        self.stonewall("info")
        self.server = Server()
        self.addCleanup(self.server.close)
        self.browser = None
        self.keys = Keyboard()

    def tearDown(self):
        if self.browser:
            self.browser.quit()

    # --- The container ------------------------------------------------------------

    def stonewall(self, *args):
        result = subprocess.run([STONEWALL, *args], env=self.env, capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def database(self, name):
        return os.path.join(self.container, name)

    def add_block_rule(self, profile, url_filter):
        with sqlite3.connect(self.database(".Profiles/profile_%s_data" % profile)) as db:
            db.execute("INSERT INTO ProfileRules VALUES (?, 1, 1, NULL, ?, NULL, NULL, -1, NULL, 0)",
                       ("rule-" + url_filter, url_filter))

    def add_work_profile(self):
        with sqlite3.connect(self.database(".Shared/shared_data")) as db:
            db.execute("UPDATE SharedData SET profileIDs='defaultProfile,work', "
                       "profiles='Default Profile,Work'")
        shutil.copyfile(os.path.join(os.environ["STONEWALL_RESOURCES"], "profiles"),
                        self.database(".Profiles/profile_work_data"))

    def active_profile(self):
        with sqlite3.connect(self.database(".Shared/shared_data")) as db:
            return db.execute("SELECT activeProfileID FROM SharedData").fetchone()[0]

    # --- The browser --------------------------------------------------------------

    def start(self, path="/"):
        self.browser = Browser(self.server.url(path), self.env)
        self.expect("ready")
        self.expect("loaded " + self.server.url(path))
        self.app = self.find_application()
        self.wait_active()

    def wait_active(self):
        """Keys go to the window once it is active: when it is presented,
        and again once a closed popover gave the keyboard back."""
        self.wait_until(lambda: any(
            self.app.getChildAtIndex(i).getState().contains(pyatspi.STATE_ACTIVE)
            for i in range(self.app.childCount)), "the window is active", WAIT)

    def expect(self, prefix):
        return self.browser.expect(prefix)

    def find_application(self):
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            desktop = pyatspi.Registry.getDesktop(0)
            for i in range(desktop.childCount):
                app = desktop.getChildAtIndex(i)
                try:
                    if app is not None and app.get_process_id() == self.browser.process.pid:
                        return app
                except Exception:  # an application that left meanwhile
                    continue
            time.sleep(0.1)
        desktop = pyatspi.Registry.getDesktop(0)
        self.fail("the browser (%d) is not in the accessibility tree: %s" % (
            self.browser.process.pid,
            [(a.name, a.get_process_id()) for a in desktop if a is not None]))

    def find(self, role, name, timeout=WAIT):
        """The showing accessible of this role and name (waits for it)."""
        deadline = time.monotonic() + timeout
        while True:
            for node in walk(self.app):
                if node.getRole() == role and node.name == name and showing(node):
                    return node
            if time.monotonic() > deadline:
                self.fail("no showing %s named %r; the tree has:\n%s" %
                          (role, name, self.describe_tree()))
            time.sleep(0.1)

    def describe_tree(self):
        lines = []
        for node in walk(self.app):
            if showing(node):
                lines.append("  %s %r %s" % (role_name(node), node.name, actions(node)))
        return "\n".join(lines)

    def press(self, node):
        """The control's first action, as a screen reader's "activate"."""
        self.assertTrue(node.queryAction().doAction(0), "%s %r refused" % (role_name(node),
                                                                           node.name))

    def wait_until(self, condition, what, timeout=5):
        deadline = time.monotonic() + timeout
        while not condition():
            if time.monotonic() > deadline:
                self.fail("never: " + what)
            time.sleep(0.05)

    def checked(self, node):
        return node.getState().contains(pyatspi.STATE_CHECKED)

    def focused(self):
        for node in walk(self.app):
            if node.getState().contains(pyatspi.STATE_FOCUSED):
                return node
        return None

    def wait_focus(self, role, name):
        deadline = time.monotonic() + 5
        while True:
            node = self.focused()
            if node is not None and node.getRole() == role and node.name == name:
                return node
            if time.monotonic() > deadline:
                self.fail("the focus is on %s, not on %r" %
                          ("nothing" if node is None else "%s %r" % (role_name(node), node.name),
                           name))
            time.sleep(0.05)

    def open_popover(self):
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Stonewall"))
        self.expect("view 1")

    def toolbar_button(self):
        return self.find(pyatspi.ROLE_PUSH_BUTTON, "Stonewall")

    def state(self):
        self.browser.send("state")
        return json.loads(self.expect("state ")[len("state "):])

    def evaluate(self, script):
        self.browser.send("js " + script)
        return self.expect("js")[3:]


class MainFlows(FlowTest):

    def test_block_website_after_its_confirmation(self):
        self.start()
        self.open_popover()
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Block 127.0.0.1"))
        self.expect("view 4")
        dialog = self.find(pyatspi.ROLE_DIALOG, "Block Website")
        self.assertEqual(dialog.description, "Are you sure you want to block 127.0.0.1?")
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Block"))
        for event in ("image ToolbarItemIconReloading", "filter on", "page-reload", "loaded"):
            self.expect(event)
        # The document itself is blocked now: the reload never reached us.
        self.assertEqual(self.server.requests("/"), 1)

    def test_allow_website_lets_its_blocked_loads_through(self):
        self.add_block_rule("defaultProfile", "tracker\\.js")
        self.stonewall("compile")
        self.start()
        self.assertEqual(self.server.requests("/tracker.js"), 0)
        self.open_popover()
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Allow 127.0.0.1"))
        self.expect("view 4")
        self.assertEqual(self.find(pyatspi.ROLE_DIALOG, "Allow Website").description,
                         "Are you sure you want to whitelist 127.0.0.1?")
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Allow"))
        for event in ("filter on", "page-reload", "loaded"):
            self.expect(event)
        self.assertEqual(self.server.requests("/tracker.js"), 1)
        # Allowed: the row is told as unavailable now.
        self.open_popover()
        row = self.find(pyatspi.ROLE_PUSH_BUTTON, "Allow 127.0.0.1")
        self.assertFalse(row.getState().contains(pyatspi.STATE_SENSITIVE))

    def test_status_off_and_on_is_a_toggle_with_its_state(self):
        self.add_block_rule("defaultProfile", "tracker\\.js")
        self.stonewall("compile")
        self.start()
        for on_before, events in ((True, ("filter off", "image ToolbarItemIconOff")),
                                  (False, ("filter on", "image ToolbarItemIcon"))):
            self.open_popover()
            toggle = self.find(pyatspi.ROLE_CHECK_BOX, "Content Blocking")
            self.assertEqual(self.checked(toggle), on_before)
            self.assertEqual(toggle.description,
                             "Turn Off Content Blocking" if on_before else
                             "Turn On Content Blocking")
            self.press(toggle)
            for event in events + ("page-reload", "loaded"):
                self.expect(event)
        self.assertEqual(self.server.requests("/tracker.js"), 1)  # while off only

    def test_counter_off_silences_the_toolbar_button(self):
        self.add_block_rule("defaultProfile", "ads/banner\\.png")
        self.add_block_rule("defaultProfile", "tracker\\.js")
        self.stonewall("compile")
        self.start()
        self.assertEqual(self.state()["badge"], "2")
        button = self.toolbar_button()
        self.assertEqual(button.description, "2 blocked loads")
        self.open_popover()
        counter = self.find(pyatspi.ROLE_CHECK_BOX, "Blocking Counter")
        self.assertTrue(self.checked(counter))
        self.press(counter)
        self.expect("badge none")
        self.assertNotIn("blocked", self.toolbar_button().description)
        self.open_popover()
        self.assertFalse(self.checked(self.find(pyatspi.ROLE_CHECK_BOX, "Blocking Counter")))

    def test_switch_profile_with_its_radio_items(self):
        self.add_work_profile()
        self.add_block_rule("work", "tracker\\.js")
        self.start()
        self.assertEqual(self.server.requests("/tracker.js"), 1)
        self.open_popover()
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Default Profile"))
        self.expect("view 3")
        self.find(pyatspi.ROLE_DIALOG, "Change Active Profile")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Cancel")
        default = self.find(pyatspi.ROLE_RADIO_BUTTON, "Default Profile")
        work = self.find(pyatspi.ROLE_RADIO_BUTTON, "Work")
        self.assertEqual((self.checked(default), self.checked(work)), (True, False))
        self.press(work)
        self.wait_until(lambda: (self.checked(default), self.checked(work)) == (False, True),
                        "Work is checked, Default Profile not")
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Activate"))
        for event in ("image ToolbarItemIconReloading", "filter on", "page-reload", "loaded"):
            self.expect(event)
        self.assertEqual(self.server.requests("/tracker.js"), 1)
        self.assertEqual(self.active_profile(), "work")

    def test_pick_an_element_from_the_keyboard_then_cancel_picking(self):
        self.start()
        self.open_popover()
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Block and Hide Visually"))
        self.expect("view 2")
        # Picking says what it is: its dialog, with the focus on Cancel.
        self.assertEqual(self.find(pyatspi.ROLE_DIALOG, "Block and Hide Visually").description,
                         "Select the webpage elements that you want to block or hide.")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Cancel")
        # The toolbar key closes the popover and hands the keys to the page:
        # Tab outlines the heading, then the banner; Space picks it, Return
        # finishes.
        self.keys.press("Alt+Shift+s")
        self.expect("popover-closed")
        spoken = ("document.querySelector('[data-stonewall-picker][role=status]')"
                  ".textContent")
        self.assertIn("Picking page elements", self.evaluate(spoken))
        for key in ("Tab", "Tab", "space"):
            self.keys.press(key)
        # The page's live region says what was picked.
        self.wait_until(lambda: self.evaluate(spoken) ==
                        '"div: Subscribe to our letter, picked"', "the banner is picked")
        self.keys.press("Return")
        for event in ("message VisualData", "image ToolbarItemIconReloading", "filter on",
                      "page-reload", "loaded"):
            self.expect(event)
        self.assertEqual(self.evaluate("getComputedStyle(document.getElementById('banner'))"
                                       ".display"), '"none"')
        self.assertEqual(self.evaluate("getComputedStyle(document.querySelector('h1')).display"),
                         '"block"')
        # Picking again and cancelling: Escape in the popover leaves picking
        # and puts the focus back on the row that started it; Escape on the
        # page cancels as well.
        self.open_popover()
        self.press(self.find(pyatspi.ROLE_PUSH_BUTTON, "Block and Hide Visually"))
        self.expect("view 2")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Cancel")
        self.keys.press("Escape")
        self.expect("view 1")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Block and Hide Visually")
        self.keys.press("Return")
        self.expect("view 2")
        self.keys.press("Alt+Shift+s")
        self.expect("popover-closed")
        self.keys.press("Escape")
        self.open_popover()
        self.expect("message VisualStatus")
        self.assertEqual(self.state()["view"], 1)


class KeyboardUse(FlowTest):

    def test_popover_by_keyboard(self):
        self.start()
        self.keys.press("Alt+Shift+s")
        self.expect("view 1")
        self.wait_focus(pyatspi.ROLE_CHECK_BOX, "Content Blocking")
        self.keys.press("Down")
        self.wait_focus(pyatspi.ROLE_CHECK_BOX, "Blocking Counter")
        self.keys.press("Tab")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Block and Hide Visually")
        self.keys.press("Down")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Block 127.0.0.1")
        self.keys.press("Up")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Block and Hide Visually")
        self.keys.press("Down")
        # A confirmation starts on Cancel; Escape goes back to its row.
        self.keys.press("Return")
        self.expect("view 4")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Cancel")
        self.keys.press("Escape")
        self.expect("view 1")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Block 127.0.0.1")
        # Space presses too; Tab reaches the confirming button.
        self.keys.press("space")
        self.expect("view 4")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Cancel")
        self.keys.press("Tab")
        self.wait_focus(pyatspi.ROLE_PUSH_BUTTON, "Block")
        self.keys.press("Return")
        for event in ("image ToolbarItemIconReloading", "filter on", "page-reload", "loaded"):
            self.expect(event)
        self.assertEqual(self.server.requests("/"), 1)
        # Escape on the main view closes the popover. (Opened by its button:
        # on Xvfb, with no window manager to give the keyboard back to the
        # window, keys may be lost for a while after a popover closes by
        # itself.)
        self.open_popover()
        self.keys.press("Escape")
        self.expect("popover-closed")

    def test_window_shortcuts(self):
        self.start()
        self.keys.press("Ctrl+l")
        self.wait_focus(pyatspi.ROLE_TEXT, "Address")
        self.keys.press("Ctrl+t")
        self.expect("loaded about:blank")
        self.assertEqual(self.state()["tabs"], 2)
        self.keys.press("Ctrl+w")
        deadline = time.monotonic() + 5
        while self.state()["tabs"] != 1 and time.monotonic() < deadline:
            time.sleep(0.1)
        self.assertEqual(self.state()["tabs"], 1)
        for key in ("F5", "Ctrl+r"):
            self.keys.press(key)
            self.expect("loaded " + self.server.url("/"))
        self.browser.send("load " + self.server.url("/plain"))
        self.expect("loaded " + self.server.url("/plain"))
        self.keys.press("Alt+Left")
        self.expect("loaded " + self.server.url("/"))
        self.keys.press("Alt+Right")
        self.expect("loaded " + self.server.url("/plain"))
        # The first load and the two reloads reached us; going back may be
        # answered from the page cache.
        self.assertGreaterEqual(self.server.requests("/"), 3)


class Tree(FlowTest):

    def test_every_control_has_a_name_and_an_action_on_every_view(self):
        self.add_work_profile()
        self.start()
        self.open_popover()
        problems = []
        for view in range(1, 7):
            self.browser.send("show-view %d" % view)
            self.expect("view %d" % view)
            time.sleep(0.2)  # the tree follows the view switch
            controls = 0
            for node in walk(self.app):
                if not is_control(node) or not showing(node):
                    continue
                controls += 1
                what = "view %d: %s %r" % (view, role_name(node), node.name)
                # GTK names a control it has no name for after a type
                # ("GtkImage", "GtkMenuButton"): that is no name either.
                if not node.name.strip() or re.fullmatch(r"Gtk[A-Za-z]+( Gtk[A-Za-z]+)*",
                                                         node.name):
                    problems.append(what + " has no name")
                # A notebook's tabs are chosen through their list; GTK gives
                # them no action of their own.
                if not actions(node) and node.getRole() != pyatspi.ROLE_PAGE_TAB:
                    problems.append(what + " has no action")
            self.assertGreater(controls, 5, "view %d" % view)
        self.assertEqual(problems, [], "\n" + "\n".join(problems))
        # Headings and the toolbar button's badge: the headers are headings;
        # the badge is no control of its own.
        self.browser.send("show-view 1")
        self.expect("view 1")
        headings = [n.name for n in walk(self.app)
                    if n.getRole() == pyatspi.ROLE_HEADING and showing(n)]
        self.assertEqual(headings, ["Status", "Webpage", "Website", "Profile", "App"])
        # A tab is named by its page's title, not "Tab".
        self.find(pyatspi.ROLE_PAGE_TAB, "News")


def luminance(color):
    """WCAG 2 relative luminance of "#rrggbb"."""
    def linear(channel):
        c = int(channel, 16) / 255
        return c / 12.92 if c <= 0.03928 else ((c + 0.055) / 1.055) ** 2.4
    r, g, b = (linear(color[i:i + 2]) for i in (1, 3, 5))
    return 0.2126 * r + 0.7152 * g + 0.0722 * b


def contrast(text, background):
    lighter, darker = sorted((luminance(text), luminance(background)), reverse=True)
    return (lighter + 0.05) / (darker + 0.05)


class Seeing(FlowTest):
    """The popover and the badge with GNOME's high contrast and with text at
    200%: every text whole (none ellipsized or cut), every usable text at
    WCAG AA contrast (4.5:1; 7:1 with high contrast) on each view, light
    and dark. With STONEWALL_SCREENSHOT_DIR set, the pictures of both go
    there and the measured colours are printed as a table."""

    def test_texts_whole_and_readable_with_high_contrast_and_large_text(self):
        self.add_block_rule("defaultProfile", "ads/banner\\.png")
        self.add_block_rule("defaultProfile", "tracker\\.js")
        self.stonewall("compile")
        shots = os.environ.get("STONEWALL_SCREENSHOT_DIR")
        measured = {}
        for high in (False, True):
            if high:
                self.browser.quit()
                self.env["ADW_DEBUG_HIGH_CONTRAST"] = "1"
            self.start()
            self.open_popover()
            for scheme in ("light", "dark"):
                self.browser.send("dark %d" % (scheme == "dark"))
                self.expect("done dark")
                for scale in (1, 2):
                    self.browser.send("text-scale %d" % scale)
                    self.expect("done text-scale")
                    for view in range(1, 7):
                        self.browser.send("show-view %d" % view)
                        self.expect("view %d" % view)
                        self.browser.send("state")  # after the view's layout
                        self.expect("done state")
                        where = "%s, %s, text x%d, view %d" % (
                            "high contrast" if high else "normal contrast", scheme, scale, view)
                        self.browser.send("clipped")
                        self.assertEqual(self.expect("clipped"), "clipped 0", where)
                        self.browser.send("palette")
                        for text in json.loads(self.expect("palette ")[len("palette "):]):
                            ratio = contrast(text["color"], text["background"])
                            if text["sensitive"]:
                                self.assertGreaterEqual(ratio, 7 if high else 4.5,
                                                        "%s: %r" % (where, text["text"]))
                            key = ("high" if high else "normal", scheme, text["color"],
                                   text["background"], text["sensitive"])
                            measured.setdefault(key, (ratio, set()))[1].add(text["text"])
                    if shots and scale == 2 and (scheme == "dark") == high:
                        self.browser.send("show-view 1")
                        self.expect("view 1")
                        name = "browser-high-contrast.png" if high else "browser-text-200.png"
                        self.browser.send("snapshot-window " + os.path.join(shots, name))
                        self.expect("done snapshot-window")
        print("\n| contrast | scheme | text | background | ratio | texts |")
        print("|---|---|---|---|---|---|")
        for (high, scheme, color, background, sensitive), (ratio, texts) in sorted(
                measured.items()):
            print("| %s | %s | `%s` | `%s` | %.2f:1%s | %s |" % (
                high, scheme, color, background, ratio, "" if sensitive else " (disabled)",
                ", ".join(sorted(texts)[:4]) + (", ..." if len(texts) > 4 else "")))


def main():
    global STONEWALL, BROWSER
    parser = argparse.ArgumentParser()
    parser.add_argument("--stonewall", required=True)
    parser.add_argument("--browser", required=True)
    options, rest = parser.parse_known_args()
    STONEWALL, BROWSER = options.stonewall, options.browser
    if not os.environ.get("DISPLAY"):
        sys.exit("No display: run this through scripts/with-display.")
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
