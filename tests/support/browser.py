"""
A real browser, driven from a test. Needs Debian's chromium and chromium-driver, and root.
"""

import base64
import http.client
import json
import os
import re
import signal
import subprocess
import tempfile

from apstatd import children_of
from daemons import PATIENCE_S, die_with_the_test

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the name of an element's id in the protocol


class Browser:
    """
    Chromium, driven by its own driver with the W3C's WebDriver protocol. They run in a process namespace,
    which ends as a whole, however this process ends.
    """

    def __init__(self, *options):
        self.options = options  # of Chromium, besides those that it always gets
        self.folder = tempfile.TemporaryDirectory()
        self.driver = subprocess.Popen(
            ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "chromedriver", "--port=0"],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
            cwd=self.folder.name,
            env={**os.environ, "HOME": self.folder.name, "TMPDIR": self.folder.name},
            preexec_fn=die_with_the_test,
        )
        self.session = ""
        try:
            self.connection = http.client.HTTPConnection("127.0.0.1", self._port(), timeout=PATIENCE_S)
            self.session = "/session/" + self.call("POST", "/session", self._capabilities())["sessionId"]
        except BaseException:
            self.stop()
            raise

    def _port(self):
        for line in self.driver.stdout:
            if found := re.search(r"started successfully on port ([0-9]+)", line):
                return int(found[1])
        raise AssertionError("chromedriver does not start")

    def _capabilities(self):
        arguments = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"]
        arguments += ["--no-first-run", f"--user-data-dir={self.folder.name}/profile", *self.options]
        wanted = {"goog:chromeOptions": {"args": arguments}, "goog:loggingPrefs": {"browser": "ALL"}}
        return {"capabilities": {"alwaysMatch": wanted}}

    def stop(self):
        """With the first process of the namespace all of its processes end, and only then does `unshare`."""
        for driver in children_of(self.driver.pid):
            os.kill(driver, signal.SIGKILL)
        self.driver.wait(PATIENCE_S)
        self.driver.stdout.close()
        if self.session:
            self.connection.close()
        self.folder.cleanup()

    def call(self, method, path, parameters=None):
        body = None if parameters is None else json.dumps(parameters)
        self.connection.request(method, self.session + path, body, {"Content-Type": "application/json"})
        answer = self.connection.getresponse()
        value = json.loads(answer.read())["value"]
        if answer.status != 200:
            raise AssertionError(f"{method} {path}: {value['error']}: {value['message']}")
        return value

    def open(self, url):
        self.call("POST", "/url", {"url": url})

    def run(self, script, *arguments):
        """What a function with this body returns in the page."""
        return self.call("POST", "/execute/sync", {"script": script, "args": arguments})

    def develop(self, command, **parameters):
        """A command of the developer tools."""
        return self.call("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def set_size(self, width, height, phone=False):
        self.develop("Emulation.setDeviceMetricsOverride",
            width=width, height=height, deviceScaleFactor=1, mobile=phone)  # fmt: skip

    def prefer(self, **features):
        """Of the user: `color_scheme="dark"`, say. Those not named are as ever."""
        wanted = [
            {"name": "prefers-" + name.replace("_", "-"), "value": value} for name, value in features.items()
        ]
        self.develop("Emulation.setEmulatedMedia", features=wanted)

    def click(self, xpath):
        element = self.call("POST", "/element", {"using": "xpath", "value": xpath})[ELEMENT]
        self.call("POST", f"/element/{element}/click", {})

    def press_keys(self, *keys):
        """One after the other."""
        actions = [{"type": kind, "value": key} for key in keys for kind in ("keyDown", "keyUp")]
        self.call("POST", "/actions", {"actions": [{"type": "key", "id": "keys", "actions": actions}]})

    def complaints(self):
        """
        What has got to the console since the last look: warnings and errors, of the network too, but no
        words of the browser's own start page.
        """
        entries = self.call("POST", "/se/log", {"type": "browser"})
        return [entry["message"] for entry in entries if not entry["message"].startswith("chrome://")]

    def take_picture(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.call("GET", "/screenshot")))
