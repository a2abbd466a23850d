"""norvd's page in a browser: headless Chromium, driven by its WebDriver."""

import base64
import json
import os
import re
import shutil
import urllib.error
import urllib.request

import agent
import harness
from agent import Background, Bed, wait_until
from harness import equal, skip

DOCUMENT = """modules:
  src: {class: Source}
  fib:
    class: ExactMatch
    arg: {fields: [{offset: 26, num_bytes: 4}]}
    default_gate: 0
  "<script>document.title='broken'</script>": Sink
  drop: Sink
connections:
  - src -> fib
  - fib -> drop
  - "fib:1 -> <script>document.title='broken'</script>"
"""


class Browser:
    """A window of a browser without a screen."""

    def __init__(self, folder, width=1280, height=900, dark=False, scripts=True):
        if not shutil.which("chromedriver") or not shutil.which("chromium"):
            skip("no Chromium here, with its driver")
        port = harness.free_port()
        self.base = f"http://127.0.0.1:{port}"
        Background(os.path.join(folder, "driver.log"), "chromedriver", f"--port={port}")
        wait_until(self._answers, "the driver answers")
        arguments = ["--headless=new", "--no-sandbox", "--disable-gpu", "--no-proxy-server",
                     "--disable-dev-shm-usage", f"--window-size={width},{height}",
                     f"--user-data-dir={folder}/browser"]
        if dark:
            arguments.append("--force-dark-mode")
        options = {"args": arguments}
        if not scripts:
            options["prefs"] = {"profile.managed_default_content_settings.javascript": 2}
        self.session = self.base + "/session/" + self._send(
            "POST", self.base + "/session",
            {"capabilities": {"alwaysMatch": {"goog:chromeOptions": options}}})["sessionId"]

    def _answers(self):
        try:
            return self._send("GET", self.base + "/status")["ready"]
        except (OSError, urllib.error.URLError):
            return False

    @staticmethod
    def _send(method, url, body=None):
        request = urllib.request.Request(
            url, method=method, data=None if body is None else json.dumps(body).encode(),
            headers={"Content-Type": "application/json"})
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(request, timeout=harness.PATIENCE) as answer:
            return json.load(answer)["value"]

    def go(self, url):
        self._send("POST", self.session + "/url", {"url": url})

    def run(self, script):
        """What a script in the page returns."""
        return self._send("POST", self.session + "/execute/sync", {"script": script, "args": []})

    def text(self):
        return self.run("return document.body.innerText")

    def elements(self, selector):
        """How many there are; asked of the browser and not by a script of the page."""
        return len(self._found(selector))

    def words(self, selector):
        """What the first of them says; empty while there is none."""
        try:
            found = self._found(selector)
            return self._send("GET", f"{self.session}/element/{found[0]}/text") if found else ""
        except urllib.error.HTTPError:
            return ""  # another page came meanwhile, or none

    def _found(self, selector):
        return [next(iter(one.values())) for one in self._send(
            "POST", self.session + "/elements", {"using": "css selector", "value": selector})]

    def screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self._send("GET", self.session + "/screenshot")))

    def close(self):
        self._send("DELETE", self.session)


def served(bed, *options):
    """Starts norvd with its page at a port; the address of the page."""
    port = harness.free_port()
    bed.start(*options, http=f"127.0.0.1:{port}")
    wait_until(lambda: "pages: served at" in bed.agent.text(), "the page is served",
               bed.agent.text)
    return f"http://127.0.0.1:{port}/"


def keep(browser, name):
    """A picture of the page, where somebody wants one."""
    if os.environ.get("NORV_SCREENSHOTS"):
        browser.screenshot(os.path.join(os.environ["NORV_SCREENSHOTS"], name))


def test_shows_the_switch_and_what_changes():
    bed = Bed(DOCUMENT)
    bed.start_daemon("--traffic", "1500000")
    address = served(bed)
    browser = Browser(bed.folder)
    browser.go(address)
    wait_until(lambda: "nothing to do: 7 objects are as wanted" in browser.text(), "in sync",
               browser.text)
    wait_until(lambda: browser.run("return document.querySelectorAll('svg.pipeline g.node').length")
               == 4, "the modules are drawn", browser.text)
    equal(browser.run("return document.querySelectorAll('svg.pipeline g.edge').length"), 3)
    # What a switch names is no part of the page.
    title = browser.run("return document.title")
    assert title.startswith("in sync · norvd "), title

    def rates():
        return browser.run("return [...document.querySelectorAll('svg.pipeline g.edge text')]"
                           ".map(one=>one.textContent).filter(text=>text.includes('p/s'))")

    first = wait_until(rates, "there are rates", browser.text)
    assert all(re.match(r"1\.[45]\d* M p/s", text) for text in first), first
    # What is read aloud when it changes is left as it is while others change.
    browser.run("document.querySelector('#state p').old=document.querySelector('#live').innerHTML")
    wait_until(lambda: browser.run("return document.querySelector('#live').innerHTML!=="
                                   "document.querySelector('#state p').old"), "others change", browser.text)
    equal(browser.run("return typeof document.querySelector('#state p').old"), "string")
    keep(browser, "norvd.png")
    # A drift appears, by the script of the page alone, and goes.
    bed.agent.signal(harness.signal.SIGTERM)
    bed.agent.finish()
    bed.start("--observe", http=address[len("http://"):].rstrip("/"))
    equal(bed.call("disconnectModules", '{"name": "fib", "ogate": 0}').status, 0)
    wait_until(lambda: "connection fib:0" in browser.text() and "differs" in browser.text(),
               "the drift is shown", browser.text)
    wait_until(lambda: browser.run("return document.title").startswith("NOT in sync · norvd "), "the title, too")
    keep(browser, "norvd-drift.png")
    equal(bed.call("connectModules", '{"m1": "fib", "m2": "drop", "ogate": 0, "igate": 0}').status,
          0)
    wait_until(lambda: "None: all is as wanted." in browser.text(), "the drift is gone",
               browser.text)
    browser.close()


def test_a_rate_that_changes():
    bed = Bed(DOCUMENT)
    bed.start_daemon("--traffic", "1000")
    address = served(bed)
    browser = Browser(bed.folder)
    browser.go(address)

    def rate():
        rows = browser.run("return [...document.querySelectorAll('#connections td.number')]"
                           ".map(one=>one.textContent)")
        return rows[0] if rows and rows[0] else None

    slow = wait_until(rate, "there is a rate", browser.text)
    bed.kill_daemon()
    bed.start_daemon("--traffic", "5000000")
    wait_until(lambda: rate() not in (None, slow) and "M" in rate(), "it is another", browser.text)
    browser.close()


def test_is_readable_without_scripts_and_on_a_phone():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    address = served(bed)
    browser = Browser(bed.folder, width=400, height=800, dark=True)
    browser.go(address)
    wait_until(lambda: "nothing to do" in browser.text(), "in sync", browser.text)
    equal(browser.run("return document.documentElement.scrollWidth<=window.innerWidth"), True)
    equal(browser.run("return document.querySelector('noscript').textContent.includes('refresh')"),
          True)
    # Every picture says in words what it shows, and tables have heads.
    equal(browser.run("return [...document.querySelectorAll('svg')].every("
                      "one=>one.getAttribute('role')==='img'&&one.getAttribute('aria-label'))"), True)
    equal(browser.run("return [...document.querySelectorAll('table')].every("
                      "one=>one.querySelector('th'))"), True)
    equal(browser.run("return document.querySelectorAll('[src],link[href]:not([href^=\"data:\"])')"
                      ".length"), 0)
    keep(browser, "norvd-phone.png")
    browser.close()


def test_goes_on_without_scripts():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    address = served(bed, "--observe")
    browser = Browser(bed.folder, scripts=False)
    browser.go(address)
    # Where scripts run, what they replace is text and no element.
    equal(browser.elements("noscript meta[http-equiv=refresh]"), 1)
    wait_until(lambda: "differs" in browser.words("#objects"), "what differs is shown")
    bed.agent.signal(harness.signal.SIGTERM)
    bed.agent.finish()
    bed.start(http=address[len("http://"):].rstrip("/"))
    # The page is loaded again by itself.
    wait_until(lambda: "nothing to do: 7 objects are as wanted" in browser.words("main"), "in sync")
    equal(browser.elements("svg.pipeline g.node"), 4)
    browser.close()


def test_says_when_norvd_is_gone():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    address = served(bed)
    browser = Browser(bed.folder)
    browser.go(address)
    bed.agent.signal(harness.signal.SIGTERM)
    bed.agent.finish()
    wait_until(lambda: "norvd does not answer" in browser.text(), "it is said", browser.text)
    bed.start(http=address[len("http://"):].rstrip("/"))
    wait_until(lambda: "norvd does not answer" not in browser.text(), "it is back", browser.text)
    browser.close()


if __name__ == "__main__":
    agent.main()
