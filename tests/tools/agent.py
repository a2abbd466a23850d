"""Starts norvd beside a stand-in daemon for tests, and asks it how things are."""

import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import harness
from harness import STANDIN, PATIENCE

NORVD = os.environ["NORVD"]

folders = []  # to remove when the test ends


class Background:
    """A program whose standard error goes to a file, so that nobody has to read it meanwhile."""

    def __init__(self, log, *command, **options):
        self.log = log
        with open(log, "ab") as file:
            self.popen = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=file, stderr=file,
                start_new_session=True, **options
            )
        harness.running.append(self)

    def text(self):
        with open(self.log, encoding="utf-8") as file:
            return file.read()

    def signal(self, number):
        self.popen.send_signal(number)

    def end(self):
        """Ends it, and what it has started."""
        if self.popen.poll() is None:
            os.killpg(self.popen.pid, signal.SIGKILL)
        self.popen.wait()

    def finish(self):
        return self.popen.wait(PATIENCE)


class LocalConnection(http.client.HTTPConnection):
    """HTTP over a unix socket."""

    def __init__(self, path):
        super().__init__("localhost", timeout=PATIENCE)
        self.path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.path)


def wait_until(condition, what, explain=lambda: ""):
    """What the condition gives, as soon as that is true."""
    until = time.monotonic() + PATIENCE
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < until, f"never: {what}\n{explain()}"
        time.sleep(0.01)


def children_of(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [int(child) for child in file.read().split()]


def child_of(pid):
    """The one that it has; None when there is none."""
    children = children_of(pid)
    assert len(children) < 2, children
    return children[0] if children else None


class Bed:
    """A folder with a wanted document, a port for the daemon, and what runs there."""

    def __init__(self, document):
        self.folder = tempfile.mkdtemp(prefix="norvd-test-")
        folders.append(self.folder)
        self.port = harness.free_port()
        self.wanted = os.path.join(self.folder, "wanted.yaml")
        self.state = os.path.join(self.folder, "state")
        self.socket = os.path.join(self.folder, "pages")
        self.write(document)
        self.daemon = None
        self.agent = None

    def write(self, document):
        """As an editor does: a new file takes the old one's name."""
        fresh = self.wanted + ".fresh"
        with open(fresh, "w", encoding="utf-8") as file:
            file.write(document)
        os.rename(fresh, self.wanted)

    def start_daemon(self, *options):
        log = os.path.join(self.folder, "daemon.log")
        before = os.path.getsize(log) if os.path.exists(log) else 0
        self.daemon = Background(log, STANDIN, "--newer", "--listen", f"127.0.0.1:{self.port}",
                                 *options)
        wait_until(lambda: "listening" in self.daemon.text()[before:], "the daemon listens",
                   self.daemon.text)

    def kill_daemon(self):
        self.daemon.end()

    def start(self, *options, supervise=True, interval=0.2, http=None, state=None,
              env=None, program=(NORVD,), log=None, port=None, pass_fds=()):
        self.agent = Background(
            log or os.path.join(self.folder, "norvd.log"), *program, "--wanted", self.wanted, "--host",
            "127.0.0.1", "--port", str(port or self.port), "--state-dir", state or self.state, "--http",
            http or "unix:" + self.socket, "--interval", str(interval),
            *(["--supervise"] if supervise else []), *options, env=env, pass_fds=pass_fds)

    def get(self, path):
        """Status and body of a page; None when nobody serves it."""
        connection = LocalConnection(self.socket)
        try:
            connection.request("GET", path)
            answer = connection.getresponse()
            return answer.status, answer.read().decode()
        except (OSError, http.client.HTTPException):
            return None
        finally:
            connection.close()

    def status(self):
        answer = self.get("/status.json")
        return json.loads(answer[1]) if answer and answer[0] == 200 else None

    def wait_for(self, condition, what):
        """The status, once it fulfils the condition."""

        def fulfilled():
            status = self.status()
            return status if status and condition(status) else None

        return wait_until(fulfilled, what, lambda: f"{self.status()}\n{self.agent.text()[-3000:]}")

    def wait_in_sync(self):
        return self.wait_for(lambda status: status["in_sync"], "in sync")

    def live(self):
        """The live switch as it tells itself."""
        finished = harness.norvctl("export", "--host", "127.0.0.1", "--port", str(self.port),
                                   "--state-dir", "none")
        harness.equal(finished.status, 0, finished)
        return finished.out

    def call(self, *arguments):
        return harness.norvctl("call", "--host", "127.0.0.1", "--port", str(self.port),
                               *arguments)

    def plan(self, *options):
        """What is left to do, by the record that norvd keeps."""
        return harness.norvctl("plan", "--host", "127.0.0.1", "--port", str(self.port),
                               "--state-dir", self.state, *options, self.wanted)


def main():
    """As harness.main, and removes the folders."""
    try:
        harness.main()
    finally:
        for folder in folders:
            shutil.rmtree(folder, ignore_errors=True)
