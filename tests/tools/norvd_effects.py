"""norvd, cut short at its commands, of every kind: whatever cut it, each of them has its effect, and has it
once. The daemon's log tells what came to it, and a second addition shows there."""

import json
import os
import re
import signal

import agent
import harness
from agent import Bed, child_of, wait_until
from harness import equal
from switch import ONE, OTHER

# Tables that cannot be read back, and take an entry twice without a word.
TABLES = """\
modules:
  mac: {class: L2Forward, entries: [{addr: 02:00:00:00:00:01, gate: 1}, {addr: 02:00:00:00:00:02, gate: %(gate)d}]}
  acl: {class: ACL, arg: {rules: [{src_ip: 10.0.0.0/8, drop: true}%(rule)s]}}
  up: {class: Update, arg: {fields: [{offset: 14, size: 1, value: 1}%(field)s]}}
"""
FEW = TABLES % {"gate": 1, "rule": "", "field": ""}
MORE = TABLES % {"gate": 2, "rule": ", {dst_ip: 11.0.0.0/8}", "field": ", {offset: 20, size: 2, value: 3}"}
HERE, THERE = ONE.replace("modules:\n", FEW), OTHER.replace("modules:\n", MORE)


class Tables:
    """What the calls of a log have made of the tables of modules: each entry, and how often it was added."""

    # Where `add` has a list of entries, and `delete` one of keys; by what an entry is known.
    FORMS = {"ExactMatch": (None, None, "fields"), "IPLookup": (None, None, "prefix"),
             "L2Forward": ("entries", "addrs", "addr"), "ACL": ("rules", None, None),
             "Update": ("fields", None, None)}

    def __init__(self, calls):
        self.classes, self.tables = {}, {}
        for call in calls:
            getattr(self, "_" + call["type"], lambda request: None)(call["request"])

    def _createModule(self, request):
        name = self.classes[request["name"]] = request["mclass"]
        self.tables[request["name"]] = {}
        if name in ("ACL", "Update"):
            self._add(request["name"], request["arg"])

    def _destroyModule(self, request):
        del self.tables[request["name"]]

    def _moduleCommand(self, request):
        name, word, arg = request["name"], request["cmd"], request.get("arg", {})
        if self.classes[name] not in self.FORMS:
            return
        if word in ("clear", "set_runtime_config"):
            self.tables[name].clear()
        if word == "set_runtime_config":
            for entry in arg.get("rules", []):
                self._enter(name, entry)
        if word == "add":
            self._add(name, arg)
        if word == "delete":
            _, gone, known_by = self.FORMS[self.classes[name]]
            for key in arg[gone] if gone else [arg[known_by]]:
                del self.tables[name][json.dumps(key)]

    def _add(self, name, arg):
        entries = self.FORMS[self.classes[name]][0]
        for entry in arg.get(entries, []) if entries else [arg]:
            self._enter(name, entry)

    def _enter(self, name, entry):
        known_by = self.FORMS[self.classes[name]][2]
        entry = {field: value for field, value in entry.items() if field != "@type"}
        key = json.dumps(entry[known_by] if known_by else entry)
        before, times = self.tables[name].get(key, (entry, 0))
        # Another one for the same key takes its place.
        self.tables[name][key] = (entry, times + 1 if before == entry else 1)


class Switch:
    """A switch between two documents, and norvd."""

    def __init__(self):
        self.bed = Bed("")
        self.control, self.log = f"unix:{self.bed.folder}/control", f"{self.bed.folder}/calls"
        self.exported, self.tables, self.commands = {}, {}, {}
        self.questions = 0  # that norvd has for one look, as the switch is

    def start_daemon(self, *options):
        self.bed.start_daemon("--control", self.control, "--log", self.log, *options)

    def start_norvd(self):
        self.bed.start("--prune", "--allow-mass-delete", "--stuck-after", "100", interval=1000)
        self.bed.wait_in_sync()

    def ctl(self, *words):
        finished = harness.Process(harness.STANDIN, "ctl", self.control, *words).finish()
        equal(finished.status, 0, finished)
        return finished.out

    def calls(self):
        """All that were answered, in their order."""
        with open(self.log, encoding="utf-8") as file:
            return [json.loads(line) for line in file if line.endswith("\n")]

    def effects(self):
        """Those that change the switch, and have done so."""
        return [call for call in self.calls()
                if not call["type"].startswith(("get", "list")) and call["request"].get("cmd", "")[:4] != "get_"
                and (call["status"] == 0 or "hang-up-after" in call["fault"] or "no-reply" in call["fault"])]

    def follow(self, document):
        """Undisturbed."""
        applied, before = self.applied(), len(self.effects())
        self.bed.write(document)
        wait_until(lambda: self.applied() > applied, "it arrives", self.bed.agent.text)
        self.settles()
        return len(self.effects()) - before

    def learn(self):
        """How each of the two looks when nothing goes wrong on the way from the other."""
        for here in (THERE, HERE):
            self.commands[here] = self.follow(here)
            self.exported[here], self.tables[here] = self.told(), Tables(self.effects()).tables
            assert "running: false" not in self.exported[here], self.exported[here]

    def told(self):
        """What the daemon tells of the switch. Not the arguments that commands have changed: it tells those with which
        the module was made, and one that is in doubt is made anew."""
        return re.sub(r"^(  (?:acl|src|up): .*?)arg: .*?(, tasks: \w+)?\}$", r"\1\2}", self.bed.live(), flags=re.M)

    def settles(self):
        """Norvd says that all is as wanted, and has looked last."""
        self.bed.wait_in_sync()
        types = [call["type"] for call in self.calls()]
        self.questions = types[::-1].index("getVersion") + 1

    def ends_as(self, document):
        """As it was when nothing went wrong, with nothing refused and no entry added twice."""
        equal(self.told(), self.exported[document])
        equal(self.bed.plan("--prune").status, 0)
        tables = Tables(self.effects()).tables
        equal(tables, self.tables[document])
        assert all(times == 1 for table in tables.values() for _, times in table.values()), tables
        refused = [call for call in self.effects() if "error" in call]
        equal(refused, [], self.bed.agent.text()[-3000:])

    def cut(self, document, kind, nth):
        """Struck at the nth command on its way there, it goes on; false when there are fewer."""
        restarts, applied = self.bed.status()["restarts"], self.applied()
        self.ctl("clear")
        self.ctl("add", f"kind={kind} nth={self.questions + nth}")
        self.bed.write(document)
        wait_until(lambda: self.struck() or self.applied() > applied, "something happens", self.bed.agent.text)
        struck = self.struck()
        if struck:
            if kind == "no-reply":
                os.kill(child_of(self.bed.agent.popen.pid), signal.SIGKILL)
            self.bed.wait_for(lambda one: one["restarts"] == restarts + 1, "a fresh process")
        self.settles()
        self.ends_as(document)
        return struck

    def struck(self):
        return not self.ctl("faults").startswith("0 of")

    def applied(self):
        return self.bed.agent.text().count(" applied: ")


def cut_on_the_way(kind, first, every):
    every *= harness.STRIDE
    switch = Switch()
    switch.start_daemon()
    switch.start_norvd()
    switch.follow(HERE)
    switch.learn()
    assert min(switch.commands.values()) > 30, switch.commands
    cuts = 0
    for nth in range(first, max(switch.commands.values()) + 1, every):
        for document in (THERE, HERE):
            cuts += switch.cut(document, kind, nth)
    print(f"{cuts} cuts of {kind}, of {switch.commands} commands")
    assert cuts > 60 // every, cuts
    # In the course of all this every kind of command was sent.
    sent = {call["type"] for call in switch.effects()}
    assert sent >= {"addWorker", "destroyWorker", "pauseWorker", "resumeWorker", "createPort", "destroyPort",
                    "setPortConf", "createModule", "destroyModule", "connectModules", "disconnectModules",
                    "moduleCommand", "addTc", "updateTcParams", "updateTcParent", "configureGateHook"}, sent


def test_a_line_that_is_lost_before_a_command():
    cut_on_the_way("hang-up", 1, 3)


def test_a_line_that_is_lost_after_a_command():
    cut_on_the_way("hang-up-after", 2, 3)


def test_killed_while_a_command_is_under_way():
    cut_on_the_way("no-reply", 3, 6)


def test_a_daemon_that_is_killed_at_every_tenth_command_gets_all_again():
    switch = Switch()
    switch.start_daemon()
    switch.start_norvd()
    switch.follow(HERE)
    first = next(i for i, call in enumerate(switch.calls()) if call in switch.effects())
    exported, tables, commands = switch.told(), Tables(switch.effects()).tables, len(switch.effects())
    switch.exported[HERE], switch.tables[HERE] = exported, tables
    looks = len([call for call in switch.calls()[:first] if call["type"] == "getVersion"])
    equal(looks, 2, "an empty document, then this one")
    assert commands > 30, commands
    switch.bed.kill_daemon()
    for nth in range(10, commands + 1, 10):
        os.remove(switch.log)
        switch.start_daemon("--fault", f"kind=exit nth={first // looks + nth}")
        switch.bed.daemon.finish()
        assert len(switch.effects()) == nth - 1, (nth, switch.effects())
    os.remove(switch.log)
    switch.start_daemon()
    wait_until(lambda: switch.told() == exported, "as wanted", switch.bed.agent.text)
    switch.bed.wait_in_sync()
    switch.ends_as(HERE)


if __name__ == "__main__":
    agent.main()
