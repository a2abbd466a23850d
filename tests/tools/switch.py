"""A stand-in switch with a state directory of its own, and the verbs export, plan and apply on it; documents
of many kinds."""

import os
import re
import subprocess
import tempfile
import time

import harness
from harness import NORVCTL, Process, Standin, equal, norvctl

# All sections, and between the two every kind of change: made, changed in place and with a pause, made
# anew, moved, gone; a worker made anew with its classes.
ONE = """\
plugins: [""]
workers: {0: {core: 0}, 1: {core: 1}, 2: {core: 0}}
ports:
  p: {driver: PMDPort, arg: {vdev: net_null0}}
  q: {driver: PMDPort, arg: {vdev: net_null1}, mtu: 1400}
modules:
  in: {class: PortInc, arg: {port: p}, tasks: slow}
  src: {class: Source, arg: {pkt_size: 60}, tasks: fair}
  queue: {class: Queue, arg: {size: 64}, tasks: {wid: 0}}
  em:
    class: ExactMatch
    arg: {fields: [{offset: 26, num_bytes: 4}]}
    default_gate: 1
    rules: [{gate: 1, fields: [10.0.0.1]}, {gate: 2, fields: [10.0.0.2]}]
  ip: {class: IPLookup, rules: [{prefix: 10.0.0.0/8, gate: 1}, {prefix: 11.0.0.0/8, gate: 0}]}
  a: Merge
  old: Sink
connections:
  - in -> em
  - src -> ip
  - em:1 -> a
  - em:2 -> queue
  - ip -> 1:a
  - a -> old
traffic_classes:
  slow: {policy: rate_limit, limit: {packet: 1000}, wid: 0}
  fair: {policy: round_robin, wid: 1}
hooks:
  - {class: Track, module: a, igate: 0, name: seen}
"""
OTHER = """\
workers: {0: {core: 0}, 1: {core: 1}, 3: {core: 1}}
ports:
  p: {driver: PMDPort, arg: {vdev: net_null2}}
  q: {driver: PMDPort, arg: {vdev: net_null1}, mtu: 1300}
modules:
  in: {class: PortInc, arg: {port: p}, burst: 16, tasks: slow}
  src: {class: Source, arg: {pkt_size: 90}, tasks: fair}
  queue: {class: Queue, arg: {size: 128}, tasks: {wid: 0}}
  em:
    class: ExactMatch
    arg: {fields: [{offset: 26, num_bytes: 4}]}
    default_gate: 2
    rules: [{gate: 1, fields: [10.0.0.1]}, {gate: 3, fields: [10.0.0.3]}]
  ip: {class: IPLookup, rules: [{prefix: 10.0.0.0/8, gate: 2}, {prefix: 12.0.0.0/8, gate: 0}]}
  a: Merge
  new: Sink
connections:
  - in -> em
  - src -> ip
  - em:1 -> 2:a
  - {from: em, ogate: 3, to: queue, skip_default_hooks: true}
  - ip:2 -> 1:a
  - a -> new
traffic_classes:
  slow: {policy: rate_limit, limit: {packet: 2000}, wid: 0}
  fair: {policy: weighted_fair, resource: packet, wid: 1}
  below: {policy: round_robin, parent: fair, share: 2}
hooks:
  - {class: Track, module: a, igate: 2, name: seen}
""".replace("tasks: fair", "tasks: below")


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
