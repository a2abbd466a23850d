"""apply, cut short at every one of its commands: what the next one makes of it, and whether workers
run."""

import re
import shlex
import signal
import subprocess

import harness
from harness import NORVCTL, equal, norvctl
from switch import Controlled, Switch

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
# The time is one that no call takes on a machine that is busy with other things.
WHOLE = ["--prune", "--allow-mass-delete", "--timeout", "100"]


def ends_as_wanted(switch, document, exported):
    finished = switch.apply(document, *WHOLE)
    assert finished.out.endswith("The switch is as wanted.\n"), finished
    equal(switch.plan(document, "--prune").status, 0)
    equal(switch.export(), exported)
    assert "running: false" not in exported


def questions(switch):
    """How many calls there are before the first command."""
    switch.standin.fault("kind=delay nth=1000000")
    switch.plan(ONE)
    return switch.standin.counts()[1]


class Ways:
    """From one document to the other and back, cut short at a later command each time."""

    def __init__(self):
        self.switch = Switch(Controlled)
        self.exported, self.questions, self.commands = {}, {}, {}
        for there, here in ((ONE, OTHER), (OTHER, ONE)):
            self.switch.apply(here, *WHOLE)
            self.exported[here] = self.switch.export()
            self.questions[here] = questions(self.switch)
            self.switch.standin.clear()
            planned = self.switch.plan(there, "--prune", "--json")
            self.commands[here] = planned.out.count('"queue":')
            assert self.commands[here] > 30, planned

    def all(self, cut):
        """Calls `cut(switch, document, nth)` for every command; `nth` counts the calls to the daemon."""
        for number in range(1, max(self.commands.values()) + 1):
            for here, there in ((ONE, OTHER), (OTHER, ONE)):
                struck = cut(self.switch, there, self.questions[here] + number)
                assert struck or number > self.commands[here], number
                ends_as_wanted(self.switch, there, self.exported[there])


def kill(switch, document, nth):
    """Ends the tool when the call has had its effect and is not answered."""
    switch.standin.fault(f"kind=no-reply nth={nth}")
    applying = switch.start_apply(document, *WHOLE)
    cut = switch.standin.strikes(applying)
    applying.end()
    switch.standin.clear()
    return cut


def test_killed_at_every_step_it_goes_on_with_the_next_apply():
    Ways().all(kill)


def die(switch, document, nth):
    """The daemon ends before the call has its effect, and a fresh one takes its place."""
    switch.standin.fault(f"kind=exit nth={nth}")
    finished = norvctl("apply", "--yes", *switch.options, *WHOLE, switch.document(document))
    if finished.status == 0 and switch.standin.popen.poll() is None:
        switch.standin.clear()
        return False
    switch.standin.finish()
    switch.standin = Controlled(switch.standin.port)
    return True


def test_a_daemon_that_dies_at_every_step_gets_everything_again():
    Ways().all(die)


def lose(switch, document, nth):
    """The line is lost when the call has had its effect."""
    switch.standin.fault(f"kind=hang-up-after nth={nth}")
    finished = norvctl("apply", "--yes", *switch.options, *WHOLE, switch.document(document))
    struck = switch.standin.counts()[0] != 0
    switch.standin.clear()
    return struck or finished.status != 0


def test_a_lost_line_at_every_step_is_made_good_by_the_next_apply():
    Ways().all(lose)


SMALL = """\
modules: {src: Source, queue: {class: Queue, arg: {size: %d}}, out: Sink}
connections: [src -> queue, queue -> out]
"""


class Pausing:
    """A switch whose worker stands still while a queue is made longer; nothing is kept of it."""

    def __init__(self):
        self.switch = Switch(Controlled)
        self.switch.options = [*self.switch.standin.address, "--state-dir", "none"]
        self.switch.apply(SMALL % 64)
        self.calls = questions(self.switch)
        self.switch.standin.clear()
        equal(self.switch.plan(SMALL % 128, "--json").out.count('"queue":'), 3)

    def runs(self):
        return "running: false" not in self.switch.export()

    def fails(self, rule, *options):
        """Carries out the change with a fault, and gives what is told."""
        self.switch.standin.fault(rule)
        finished = norvctl(
            "apply", "--yes", *self.switch.options, *options, self.switch.document(SMALL % 128))
        self.switch.standin.clear()
        return finished


def test_after_a_failure_no_worker_stands_still():
    for kind in ("status code=13", "hang-up", "hang-up-after"):
        for step in (1, 2, 3):
            pausing = Pausing()
            finished = pausing.fails(f"kind={kind} nth={pausing.calls + step}")
            equal(finished.status, 3, finished)
            assert pausing.runs(), (kind, step, finished)
            pausing.switch.apply(SMALL % 128)
            assert pausing.runs(), (kind, step)


def test_when_the_time_runs_out_no_worker_stands_still():
    for step in (1, 2, 3):
        pausing = Pausing()
        finished = pausing.fails(f"kind=no-reply nth={pausing.calls + step}", "--timeout", "2")
        equal(finished.status, 3, finished)
        assert ", the time ran out" in finished.out, finished
        assert pausing.runs(), (step, finished)


def test_interrupted_it_lets_workers_run():
    pausing = Pausing()
    pausing.switch.standin.fault(f"kind=no-reply nth={pausing.calls + 2}")
    applying = pausing.switch.start_apply(SMALL % 128)
    assert pausing.switch.standin.strikes(applying)
    applying.signal(signal.SIGINT)
    finished = applying.finish()
    equal(finished.status, 128 + signal.SIGINT, finished)
    assert "resumed  worker 0  as what it stood still for was cut short\n" in finished.out, finished
    assert pausing.runs(), finished


def test_a_worker_that_cannot_be_resumed_is_told_with_what_lets_it_run():
    pausing = Pausing()
    finished = pausing.fails("kind=status code=13 rpc=resumeWorker text=no way")
    found = re.search(r"paused  worker 0  as .*: no way; `(norvctl call .*)` lets it run\n", finished.out)
    assert found, finished
    assert not pausing.runs()
    equal(subprocess.run([NORVCTL, *shlex.split(found.group(1))[1:]]).returncode, 0)
    assert pausing.runs()


def test_of_a_daemon_that_is_gone_it_tells_which_workers_may_stand_still():
    pausing = Pausing()
    pausing.switch.standin.fault(f"kind=exit nth={pausing.calls + 2}")
    finished = norvctl("apply", "--yes", *pausing.switch.options, pausing.switch.document(SMALL % 128))
    equal(finished.status, 3, finished)
    assert re.search(r"unclear  worker 0  may stand still; `norvctl call .* lets it run\n", finished.out), finished


def test_the_command_that_failed_is_not_one_that_was_not_tried():
    switch = Switch(Controlled)
    switch.standin.fault("kind=status code=13 rpc=moduleCommand name=t text=gone")
    finished = switch.apply(
        "modules: {t: {class: IPLookup, rules: [{prefix: 10.0.0.0/8}, {prefix: 11.0.0.0/8}]}}", status=3)
    assert re.search(r"unclear  module t  .*gone", finished.out), finished


harness.main()
