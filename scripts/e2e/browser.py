"""Headless Chromium, by its DevTools protocol over a pipe. Needs nothing but Python and Debian's
package `chromium`."""

import base64
import itertools
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

FLAGS = [
    "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-default-apps",
    "--disable-extensions", "--disable-sync", "--disable-features=Translate,OptimizationHints",
    "--hide-scrollbars", "--mute-audio", "--remote-debugging-pipe", "--force-color-profile=srgb",
]
ANSWER_SECONDS = 120  # it may have to start first


class Failure(Exception):
    pass


class Browser:
    """One window of one browser. `events` has all that it told and nobody has taken."""

    def __init__(self, program="chromium"):
        self.folder = tempfile.mkdtemp(prefix="tidegate-browser.")
        to_read, self.to = os.pipe()
        self.back, from_write = os.pipe()
        # The browser speaks on the descriptors 3 and 4.
        start = 'exec "$@" 3<&%d 4>&%d' % (to_read, from_write)
        self.process = subprocess.Popen(
            ["bash", "-c", start, "bash", program, *FLAGS, "--user-data-dir=" + self.folder],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            pass_fds=(to_read, from_write), start_new_session=True,
            env={**os.environ, "HOME": self.folder, "DBUS_SESSION_BUS_ADDRESS": "disabled:"})
        os.close(to_read)
        os.close(from_write)
        self.numbers = itertools.count(1)
        self.left = b""
        self.answers = {}
        self.events = []
        self.session = None
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log"):
            self.call(domain + ".enable")

    def close(self):
        """Ends it with all its processes."""
        try:
            os.killpg(self.process.pid, 9)
        except ProcessLookupError:
            pass
        self.process.wait()
        os.close(self.to)
        os.close(self.back)
        shutil.rmtree(self.folder, ignore_errors=True)

    def call(self, method, **parameters):
        number = next(self.numbers)
        message = {"id": number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        data = json.dumps(message).encode() + b"\0"
        while data:
            data = data[os.write(self.to, data):]
        end = time.monotonic() + ANSWER_SECONDS
        while number not in self.answers:
            self.read(end - time.monotonic())
        answer = self.answers.pop(number)
        if "error" in answer:
            raise Failure(f"{method}: {answer['error']}")
        return answer["result"]

    def read(self, seconds):
        """Takes what the browser says; REQUIRES that it says something in that time."""
        if seconds <= 0 or not select.select([self.back], [], [], seconds)[0]:
            raise Failure("the browser does not answer")
        data = os.read(self.back, 1 << 20)
        if not data:
            raise Failure("the browser has ended")
        *messages, self.left = (self.left + data).split(b"\0")
        for message in map(json.loads, messages):
            if "id" in message:
                self.answers[message["id"]] = message
            else:
                self.events.append(message)

    def js(self, expression):
        """The value of an expression, or of the promise that it makes."""
        answer = self.call("Runtime.evaluate", expression=expression, returnByValue=True,
                           awaitPromise=True)
        if "exceptionDetails" in answer:
            raise Failure(f"{expression}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def wait(self, what, expression, seconds=120):
        """Until the expression is true; its value."""
        end = time.monotonic() + seconds
        while not (value := self.js(expression)):
            if time.monotonic() > end:
                raise Failure(f"{what}: did not come about")
            time.sleep(0.1)
        return value

    def go(self, url):
        self.call("Page.navigate", url=url)
        self.wait(f"loading {url}", f"location.href.startsWith({json.dumps(url)}) && "
                  "document.readyState === 'complete'")

    def window(self, width, height, scale=1, dark=False, phone=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=scale, mobile=phone)
        self.call("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])

    def type(self, text):
        self.call("Input.insertText", text=text)

    KEYS = {"Enter": (13, "\r"), "Tab": (9, ""), "Escape": (27, ""), "ArrowDown": (40, ""),
            "ArrowUp": (38, ""), "ArrowLeft": (37, ""), "ArrowRight": (39, ""), "/": (191, "/"),
            " ": (32, " ")}

    def press(self, key):
        code, text = self.KEYS[key]
        common = {"key": key, "windowsVirtualKeyCode": code}
        self.call("Input.dispatchKeyEvent", type="keyDown", **common, **({"text": text} if text else {}))
        self.call("Input.dispatchKeyEvent", type="keyUp", **common)

    def screenshot(self, path, clip=None):
        parameters = {"clip": {**clip, "scale": 1}} if clip else {}
        data = self.call("Page.captureScreenshot", format="png", captureBeyondViewport=bool(clip),
                         **parameters)["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))
