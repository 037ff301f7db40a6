"""A browser without a window, to look at pages with.

Talks to chromium over a pair of pipes, in its own protocol: JSON messages that end with
a NUL byte. Needs nothing but Python.
"""

import base64
import json
import os
import shutil
import subprocess
import tempfile


class Browser:
    """Chromium with one page, ended with this object's `with` block."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="tesk-report-")
        command_out, self.commands = os.pipe()
        self.replies, reply_in = os.pipe()
        # The browser reads from descriptor 3 and writes to 4.
        script = f"exec \"$@\" 3<&{command_out} 4>&{reply_in}"
        arguments = [
            "chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
            "--no-first-run", "--disable-extensions", "--disable-background-networking",
            "--force-device-scale-factor=1", "--remote-debugging-pipe",
            "--user-data-dir=" + self.folder, "about:blank",
        ]
        self.process = subprocess.Popen(
            ["bash", "-c", script, "bash", *arguments],
            pass_fds=[command_out, reply_in],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(command_out)
        os.close(reply_in)
        self.rest = b""
        self.last_id = 0
        self.events = []
        self.session = None
        targets = self.call("Target.getTargets")["targetInfos"]
        page = next(target for target in targets if target["type"] == "page")
        attached = self.call("Target.attachToTarget", targetId=page["targetId"], flatten=True)
        self.session = attached["sessionId"]
        for domain in ("Page", "Network", "Log", "Runtime"):
            self.call(domain + ".enable")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self.commands)
        os.close(self.replies)
        try:
            self.process.wait(timeout=20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def receive(self):
        while b"\0" not in self.rest:
            piece = os.read(self.replies, 1 << 20)
            if not piece:
                raise RuntimeError("chromium has ended")
            self.rest += piece
        message, self.rest = self.rest.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, **parameters):
        """Makes a call and waits for its result; events go to self.events."""
        self.last_id += 1
        message = {"id": self.last_id, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.commands, json.dumps(message).encode() + b"\0")
        while True:
            reply = self.receive()
            if reply.get("id") != self.last_id:
                self.events.append(reply)
                continue
            if "error" in reply:
                raise RuntimeError(f"{method}: {reply['error']}")
            return reply["result"]

    def show(self, path, width, is_dark):
        """Loads a file at a width of the window, in one of the two colour schemes."""
        self.events = []
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=900,
                  deviceScaleFactor=1, mobile=False)
        self.use_medium("", is_dark)
        self.call("Page.navigate", url="file://" + os.path.abspath(path))
        while not any(event["method"] == "Page.loadEventFired" for event in self.events):
            self.events.append(self.receive())

    def use_medium(self, medium, is_dark):
        """Changes over to "print", or back to the screen with ""."""
        scheme = {"name": "prefers-color-scheme", "value": "dark" if is_dark else "light"}
        self.call("Emulation.setEmulatedMedia", media=medium, features=[scheme])

    def evaluate(self, expression):
        """The value of a JavaScript expression on the page."""
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True,
                           awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(json.dumps(result["exceptionDetails"]))
        return result["result"].get("value")

    def requests(self):
        """What the page has asked for since show()."""
        return [event["params"]["request"]["url"] for event in self.events
                if event["method"] == "Network.requestWillBeSent"]

    def complaints(self):
        """What the browser has against the page."""
        return [event["params"]["entry"]["text"] for event in self.events
                if event["method"] == "Log.entryAdded"]

    def screenshot(self, path, height=None, scale=1):
        """A picture of the whole page, or of so much of it from its top."""
        size = self.call("Page.getLayoutMetrics")["cssContentSize"]
        clip = {"x": 0, "y": 0, "width": size["width"], "height": height or size["height"],
                "scale": scale}
        picture = self.call("Page.captureScreenshot", clip=clip, captureBeyondViewport=True)
        with open(path, "wb") as out:
            out.write(base64.b64decode(picture["data"]))
