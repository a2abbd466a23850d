"""A stand-in switch with a state directory of its own, and the verbs export, plan and apply on it."""

import os
import re
import subprocess
import tempfile
import time

import harness
from harness import NORVCTL, Process, Standin, equal, norvctl


class Controlled(Process):
    """A stand-in, as daemons of today are, that can be told to fail."""

    forms = ("--newer",)

    def __init__(self, port=0):
        super().__init__(
            harness.STANDIN, *self.forms, "--listen", f"127.0.0.1:{port}", "--control", "127.0.0.1:0")
        self.port = self.wait_for(r"listening on 127\.0\.0\.1:(\d+)\n").group(1)
        self.control = self.wait_for(r"controlled at (127\.0\.0\.1:\d+)\n").group(1)
        self.address = ("--host", "127.0.0.1", "--port", self.port)

    def tell(self, *words):
        told = subprocess.run(
            [harness.STANDIN, "ctl", self.control, *words], capture_output=True, text=True)
        equal(told.returncode, 0, told.stderr)
        return told.stdout

    def fault(self, rule):
        """This one and no other."""
        self.tell("clear")
        self.tell("add", rule)

    def clear(self):
        self.tell("clear")

    def strikes(self, process):
        """Waits until the fault has struck; false when the process ended before."""
        until = time.monotonic() + harness.PATIENCE
        while self.counts()[0] == 0:
            if process.popen.poll() is not None:
                return self.counts()[0] != 0
            assert time.monotonic() < until, "no fault in time"
        return True

    def counts(self):
        """Of the one fault: the calls that it struck and those that it was about."""
        found = re.match(r"(\d+) of (\d+)  ", self.tell("faults"))
        return int(found.group(1)), int(found.group(2))


class OlderControlled(Controlled):
    """The same of a daemon that tells less."""

    forms = ()


class Switch:
    """`standin` is one of the classes that start one."""

    def __init__(self, standin=Standin):
        self.standin = standin()
        self.directory = tempfile.TemporaryDirectory(dir=os.getcwd())
        self.folder = self.directory.name
        self.options = [*self.standin.address, "--state-dir", self.folder]

    def document(self, text, name="wanted.yaml"):
        path = os.path.join(self.folder, name)
        with open(path, "w") as file:
            file.write(text)
        return path

    def start_apply(self, text, *options):
        return Process(NORVCTL, "apply", "--yes", *self.options, *options, self.document(text))

    def apply(self, text, *options, status=0):
        finished = norvctl("apply", "--yes", *self.options, *options, self.document(text))
        equal(finished.status, status, finished)
        return finished

    def plan(self, text, *options):
        return norvctl("plan", *self.options, *options, self.document(text))

    def export(self):
        finished = norvctl("export", *self.options)
        equal(finished.status, 0, finished)
        return finished.out
