"""A headless Chromium, driven over its debugging pipe with nothing but Python's standard library."""

import base64
import json
import os
import select
import shutil
import subprocess
import tempfile
import time


def find_browser():
    """The program's path, or None."""
    return shutil.which("chromium-headless-shell") or shutil.which("chromium")


class Browser:
    """One page. What the page or its console complains of is collected in problems."""

    def __init__(self, url, width=1280, height=800, dark=False, downloads=None):
        self.folder = tempfile.mkdtemp(prefix="kestrix_page_")
        to_browser, self.to_browser = os.pipe()
        self.from_browser, from_browser = os.pipe()

        def place_pipes():  # the browser reads from 3 and writes to 4
            ends = os.dup(to_browser), os.dup(from_browser)
            os.dup2(ends[0], 3)
            os.dup2(ends[1], 4)

        command = [find_browser(), "--headless", "--disable-gpu", "--hide-scrollbars", "--remote-debugging-pipe"]
        command += [f"--user-data-dir={self.folder}", f"--window-size={width},{height}", "about:blank"]
        if os.geteuid() == 0:
            command.append("--no-sandbox")
        self.process = subprocess.Popen(
            command, preexec_fn=place_pipes, close_fds=False, stderr=subprocess.DEVNULL, start_new_session=True
        )
        os.close(to_browser)
        os.close(from_browser)
        self.unread, self.calls, self.session, self.events, self.problems = b"", 0, None, [], []
        page = next(t for t in self.call("Target.getTargets")["targetInfos"] if t["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=page["targetId"], flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(domain + ".enable")
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.call("Emulation.setEmulatedMedia", features=[scheme])
        if downloads:
            self.call("Page.setDownloadBehavior", behavior="allow", downloadPath=downloads)
        self.open(url)

    def open(self, url):
        self.call("Page.navigate", url=url)
        self.wait("Page.loadEventFired")

    def _read(self, seconds):
        end = time.monotonic() + seconds
        while b"\0" not in self.unread:
            if not select.select([self.from_browser], [], [], max(0, end - time.monotonic()))[0]:
                raise TimeoutError("the browser is silent")
            part = os.read(self.from_browser, 1 << 20)
            if not part:
                raise EOFError("the browser has ended")
            self.unread += part
        one, self.unread = self.unread.split(b"\0", 1)
        return json.loads(one)

    def _note(self, event):
        self.events.append(event)
        method, params = event.get("method"), event.get("params", {})
        failed = method == "Log.entryAdded" and params["entry"]["level"] == "error"
        if failed or method == "Runtime.exceptionThrown":
            self.problems.append(json.dumps(params)[:600])

    def call(self, method, **params):
        self.calls += 1
        message = {"id": self.calls, "method": method, "params": params}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.to_browser, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._read(60)
            if answer.get("id") == message["id"]:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']['message']}")
                return answer["result"]
            self._note(answer)

    def wait(self, name, seconds=60):
        while True:
            for place, event in enumerate(self.events):
                if event.get("method") == name:
                    return self.events.pop(place)["params"]
            self._note(self._read(seconds))

    def js(self, text):
        """The value of an expression in the page; of a promise, what it comes to."""
        answer = self.call("Runtime.evaluate", expression=text, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(json.dumps(answer["exceptionDetails"])[:600])
        return answer["result"].get("value")

    def settle(self):
        """Waits until the page has drawn what was asked for."""
        self.js("new Promise(done => requestAnimationFrame(() => requestAnimationFrame(() => setTimeout(done, 0))))")

    def drag(self, points):
        """Presses the mouse at the first point, moves over the others and lets go."""
        mouse = {"button": "left", "clickCount": 1}
        self.call("Input.dispatchMouseEvent", type="mousePressed", x=points[0][0], y=points[0][1], **mouse)
        for x, y in points[1:]:
            self.call("Input.dispatchMouseEvent", type="mouseMoved", x=x, y=y, button="left", buttons=1)
        self.call("Input.dispatchMouseEvent", type="mouseReleased", x=points[-1][0], y=points[-1][1], **mouse)
        self.settle()

    def click(self, x, y):
        self.drag([(x, y)])

    def click_on(self, selector):
        box = self.js(f"(b => [b.x + b.width / 2, b.y + b.height / 2])(document.querySelector('{selector}').getBoundingClientRect())")
        self.click(*box)

    def key(self, key, text=""):
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, text=text if kind == "keyDown" else "")
        self.settle()

    def shot(self, name, quality=None):
        options = {"format": "jpeg", "quality": quality} if quality else {"format": "png"}
        with open(name, "wb") as file:
            file.write(base64.b64decode(self.call("Page.captureScreenshot", **options)["data"]))

    def close(self):
        try:
            self.session = None
            self.call("Browser.close")
        except (EOFError, OSError, TimeoutError, RuntimeError):
            pass
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
        shutil.rmtree(self.folder, ignore_errors=True)
