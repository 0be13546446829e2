# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""A browser without a screen, driven through chromedriver (W3C WebDriver over HTTP, nothing but Python's own library).

As a module: Browser. As a program it does what lines of JSON on standard input ask, {"do": "open", "file": "x.html"},
and answers each with a line, {"value": ...} or {"error": "..."}; its first line says whether there is a browser. See
browser.h.

The browser's sandbox is always on. It does not work as root, so root's browser runs as nobody, with a home of its own.
"""

import base64
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

NOBODY = 65534
SECONDS = 60
OPTIONS = [
    "--headless=new", "--disable-gpu", "--disable-dev-shm-usage", "--disable-background-networking",
    "--disable-component-update", "--disable-sync", "--disable-quic", "--disable-breakpad", "--disable-extensions",
    "--no-first-run", "--no-default-browser-check", "--force-color-profile=srgb",
]
# What the pages of a session did that they may not: kept from the first moment of each page on.
WATCH = """
window.violations = [];
window.longTasks = [];
addEventListener("securitypolicyviolation", (event) =>
  violations.push(event.violatedDirective + " " + event.blockedURI + " " + event.sample));
addEventListener("error", (event) => violations.push("error: " + event.message));
addEventListener("unhandledrejection", (event) => violations.push("rejected: " + event.reason));
new PerformanceObserver((list) => list.getEntries().forEach((task) => longTasks.push(Math.round(task.duration))))
  .observe({type: "longtask", buffered: true});
"""


class NoBrowser(Exception):
    """There is none that may run here, and why."""


class Browser:
    def __init__(self):
        for program in ("chromium", "chromedriver"):
            if shutil.which(program) is None:
                raise NoBrowser(f"no {program} here")
        self.home = tempfile.mkdtemp(prefix="kelvo-browser-")
        self.driver = None
        try:
            self._start()
        except BaseException:
            self.close()
            raise

    def _start(self):
        self.user = []
        if os.geteuid() == 0:
            if shutil.which("setpriv") is None:
                raise NoBrowser("root's browser runs as another user, which takes setpriv")
            os.chown(self.home, NOBODY, NOBODY)
            self.user = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--inh-caps=-all"]
        environment = {"HOME": self.home, "PATH": os.environ.get("PATH", ""), "LANG": "C.UTF-8", "TZ": os.environ.get("TZ", "")}
        if not environment["TZ"]:
            del environment["TZ"]
        command = self.user + ["chromedriver", "--port=0"]
        self.driver = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, cwd=self.home,
                                       env=environment, start_new_session=True)
        said = ""
        for line in self.driver.stdout:
            said += line
            found = re.search(r"successfully on port (\d+)", line)
            if found:
                break
        else:
            raise NoBrowser("chromedriver does not start: " + said)
        self.url = f"http://127.0.0.1:{found[1]}/session"
        wanted = {
            "browserName": "chrome",
            "goog:chromeOptions": {"binary": shutil.which("chromium"),
                                   "args": OPTIONS + [f"--user-data-dir={self.home}/profile"]},
            "goog:loggingPrefs": {"browser": "ALL"},
        }
        # On a busy machine one start in many comes to nothing.
        for attempt in range(3):
            try:
                session = self._ask("POST", "", {"capabilities": {"alwaysMatch": wanted}})
                break
            except RuntimeError:
                if self._lacks_sandbox(environment):
                    raise NoBrowser("chromium finds no usable sandbox; chromium-sandbox brings one") from None
                if attempt == 2:
                    raise
        self.url += "/" + session["sessionId"]
        self.cdp("Page.enable")
        self.cdp("Emulation.setLocaleOverride", locale="en-GB")
        self.cdp("Page.addScriptToEvaluateOnNewDocument", source=WATCH)

    # The driver only says that the browser has ended, the browser itself says why.
    def _lacks_sandbox(self, environment):
        command = self.user + ["chromium", *OPTIONS, f"--user-data-dir={self.home}/alone", "--dump-dom", "about:blank"]
        try:
            said = subprocess.run(command, env=environment, cwd=self.home, stdin=subprocess.DEVNULL, capture_output=True,
                                  timeout=SECONDS, check=False)
        except subprocess.TimeoutExpired:
            return False
        return said.returncode != 0 and b"sandbox" in said.stderr.lower()

    def _ask(self, method, path, body=None):
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(self.url + path, data=data, method=method,
                                         headers={"Content-Type": "application/json"})
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request, timeout=SECONDS) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            text = error.read().decode(errors="replace")
            try:
                text = json.loads(text)["value"]["message"]
            except (ValueError, KeyError):
                pass
            raise RuntimeError(text) from None

    def close(self):
        if self.driver is not None:
            try:
                if "/session/" in self.url:
                    self._ask("DELETE", "")
            except Exception:  # it is ended in any case
                pass
            try:
                os.killpg(self.driver.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.driver.wait()
            self.driver = None
        shutil.rmtree(self.home, ignore_errors=True)

    # Copied to where the browser's user may read it.
    def open(self, file="", url=""):
        if file:
            copy = os.path.join(self.home, "page-" + os.path.basename(file))
            shutil.copyfile(file, copy)
            os.chmod(copy, 0o644)
            url = "file://" + copy
        self._ask("POST", "/url", {"url": url})

    def js(self, script, args=()):
        return self._ask("POST", "/execute/sync", {"script": script, "args": list(args)})

    def cdp(self, command, **params):
        return self._ask("POST", "/goog/cdp/execute", {"cmd": command, "params": params})

    def screen(self, width, height, scale=1, mobile=False):
        self.cdp("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=scale, mobile=mobile)
        self.cdp("Emulation.setTouchEmulationEnabled", enabled=mobile)

    def media(self, media="", **features):
        self.cdp("Emulation.setEmulatedMedia", media=media,
                 features=[{"name": name.replace("_", "-"), "value": value} for name, value in features.items()])

    # In pages that are opened from now on every use of localStorage fails, as where a browser keeps nothing.
    def forbid_storage(self):
        self.cdp("Page.addScriptToEvaluateOnNewDocument", source="""
            Object.defineProperty(window, "localStorage", {get() { throw new DOMException("denied", "SecurityError"); }});""")

    def zone(self, name):
        self.cdp("Emulation.setTimezoneOverride", timezoneId=name)

    # The text is typed; names of keys stand alone: keys("ArrowDown", "Enter", "abc").
    def keys(self, *names):
        codes = {"Enter": "\ue007", "Escape": "\ue00c", "Tab": "\ue004", "Home": "\ue011", "End": "\ue010",
                 "PageUp": "\ue00e", "PageDown": "\ue00f", "ArrowLeft": "\ue012", "ArrowUp": "\ue013",
                 "ArrowRight": "\ue014", "ArrowDown": "\ue015", "Backspace": "\ue003", "Shift": "\ue008",
                 "Control": "\ue009"}
        actions = []
        for name in names:
            *held, last = name.split("+") if len(name) > 1 and "+" in name else [name]
            for key in held:
                actions.append({"type": "keyDown", "value": codes[key]})
            for letter in [codes[last]] if last in codes else last:
                actions += [{"type": "keyDown", "value": letter}, {"type": "keyUp", "value": letter}]
            for key in held:
                actions.append({"type": "keyUp", "value": codes[key]})
        self._ask("POST", "/actions", {"actions": [{"type": "key", "id": "keys", "actions": actions}]})

    def click(self, selector):
        element = self._ask("POST", "/element", {"using": "css selector", "value": selector})
        self._ask("POST", f"/element/{list(element.values())[0]}/click", {})

    # Until the script returns something true, which is given.
    def wait(self, script, args=(), seconds=30):
        end = time.monotonic() + seconds
        while True:
            value = self.js(script, args)
            if value or time.monotonic() > end:
                return value
            time.sleep(0.03)

    def screenshot(self, file):
        with open(file, "wb") as out:
            out.write(base64.b64decode(self._ask("GET", "/screenshot")))

    def pdf(self, file):
        with open(file, "wb") as out:
            out.write(base64.b64decode(self._ask("POST", "/print", {})))

    def log(self):
        return [entry["message"] for entry in self._ask("POST", "/se/log", {"type": "browser"})]


def answer(value):
    print(json.dumps(value), flush=True)


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        browser = Browser()
    except NoBrowser as reason:
        answer({"skip": str(reason)})
        return
    except Exception as error:
        answer({"error": str(error)})
        return
    try:
        answer({"value": None})
        for line in sys.stdin:
            request = json.loads(line)
            name = request.pop("do")
            args = request.pop("list", [])
            try:
                answer({"value": getattr(browser, name)(*args, **request)})
            except Exception as error:
                answer({"error": f"{name}: {error}"})
    finally:
        browser.close()


if __name__ == "__main__":
    main()
