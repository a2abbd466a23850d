"""apply, cut short at every one of its commands: what the next one makes of it, and whether workers
run."""

import re
import shlex
import signal
import subprocess

import harness
from harness import NORVCTL, command, equal, norvctl, run, write_file
from switch import ONE, OTHER, Controlled, OlderControlled, Switch

# The time is one that no call takes on a machine that is busy with other things.
WHOLE = ["--prune", "--allow-mass-delete", "--timeout", "100"]


def questions(switch, document):
    """How many calls there are before the first command."""
    switch.standin.fault("kind=delay ms=1 nth=1000000")
    switch.plan(document)
    return switch.standin.counts()[1]


class Ways:
    """From one document to the other and back, cut short at a later command each time.

    `begin` are commands that the switch gets before, and `first` is applied once."""

    def __init__(self, one=ONE, other=OTHER, options=WHOLE, begin=(), least=30, first=None):
        self.switch = Switch(Controlled)
        self.options = options
        if begin:
            run(*self.switch.standin.address, write_file(*begin))
        self.pairs = ((one, other), (other, one))
        self.exported, self.questions, self.commands = {}, {}, {}
        self.switch.apply(first or one, *options)
        for there, here in self.pairs:
            self.switch.apply(here, *options)
            self.exported[here] = self.switch.export()
            assert "running: false" not in self.exported[here]
            self.questions[here] = questions(self.switch, here)
            self.switch.standin.clear()
            planned = self.switch.plan(there, *self.planning(), "--json")
            self.commands[here] = planned.out.count('"queue":')
            assert self.commands[here] > least, planned

    def planning(self):
        return ["--prune"] if "--prune" in self.options else []

    def all(self, cut):
        """Calls `cut(switch, document, nth, options)` for every command, or what the harness makes of
        every; `nth` counts the calls to the daemon."""
        for number in range(1, max(self.commands.values()) + 1, harness.STRIDE):
            for here, there in self.pairs:
                struck = cut(self.switch, there, self.questions[here] + number, self.options)
                assert struck or number > self.commands[here], number
                self.ends_as_wanted(there)

    def ends_as_wanted(self, document):
        finished = self.switch.apply(document, *self.options)
        assert finished.out.endswith("The switch is as wanted.\n"), finished
        equal(self.switch.plan(document, *self.planning()).status, 0)
        equal(self.switch.export(), self.exported[document])


def kill(switch, document, nth, options=WHOLE):
    """Ends the tool when the call has had its effect and is not answered."""
    switch.standin.fault(f"kind=no-reply nth={nth}")
    applying = switch.start_apply(document, *options)
    cut = switch.standin.strikes(applying)
    applying.end()
    switch.standin.clear()
    return cut


def test_killed_at_every_step_it_goes_on_with_the_next_apply():
    Ways().all(kill)


# Of workers and of where tasks are it says nothing, or little, and nothing is pruned.
FEW = """\
%(workers)s
modules: {src: {class: Source, tasks: slow}, src2: Source, queue: Queue, out: Merge}
connections: [src -> queue, queue -> out, "src2 -> 1:out"]
traffic_classes: {slow: {%(policy)s%(place)s}}
"""
LIMIT = "policy: rate_limit, limit: {packet: 1000}"
ROBIN = "policy: round_robin"
ON_CORE_1 = (command("addWorker", wid="0", core="1"), command("resumeWorker", wid="0"))


def little(workers="", place=""):
    return [FEW % {"workers": workers, "policy": policy, "place": place} for policy in (LIMIT, ROBIN)]


def test_killed_while_a_worker_that_is_not_stated_is_made_anew_it_goes_on():
    for document in (little(place=", wid: 0"), little()):
        Ways(*document, ["--timeout", "100"], ON_CORE_1, 5).all(kill)


def test_killed_while_a_worker_that_is_stated_is_made_anew_it_goes_on():
    Ways(*little("workers: {0: {core: 1}}"), ["--timeout", "100"], ON_CORE_1, 5).all(kill)


# The second port takes the module along, which only the switch has, with its gates.
PORT = "ports: {p: {driver: PMDPort, arg: {vdev: net_null%d}}}\n"
USERS = """\
workers: {0: {core: 0}, 1: {core: 1}}
modules: {in: {class: PortInc, arg: {port: p}, burst: 16, tasks: {wid: 1}}, out: Merge}
connections: [{from: in, to: out, skip_default_hooks: true}]
hooks: [{class: Track, module: in, ogate: 0, name: seen}, {class: Track, module: out, igate: 0, name: into}]
"""


def test_killed_while_a_module_that_is_not_stated_is_made_anew_it_goes_on():
    ways = Ways(PORT % 0, PORT % 1, ["--timeout", "100"], [], 5, PORT % 0 + USERS)
    assert "{port: p}, burst: 16, tasks: {wid: 1}" in ways.exported[PORT % 1], ways.exported
    ways.all(kill)


def test_a_port_that_was_being_made_anew_is_not_taken_for_what_it_was():
    switch = Switch(OlderControlled)
    switch.apply(PORT % 0)
    calls = questions(switch, PORT % 0)
    assert kill(switch, PORT % 1, calls + 2, [])  # destroyed, and made anew
    equal(switch.plan(PORT % 0).status, 4)
    switch.apply(PORT % 0)
    equal(switch.plan(PORT % 0).status, 0)


def die(switch, document, nth, options=WHOLE):
    """The daemon ends before the call has its effect, and a fresh one takes its place."""
    switch.standin.fault(f"kind=exit nth={nth}")
    finished = norvctl("apply", "--yes", *switch.options, *options, switch.document(document))
    if finished.status == 0 and switch.standin.popen.poll() is None:
        switch.standin.clear()
        return False
    switch.standin.finish()
    switch.standin = Controlled(switch.standin.port)
    return True


def test_a_daemon_that_dies_at_every_step_gets_everything_again():
    Ways().all(die)


def lose(switch, document, nth, options=WHOLE):
    """The line is lost when the call has had its effect."""
    switch.standin.fault(f"kind=hang-up-after nth={nth}")
    finished = norvctl("apply", "--yes", *switch.options, *options, switch.document(document))
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
        self.calls = questions(self.switch, SMALL % 64)
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
