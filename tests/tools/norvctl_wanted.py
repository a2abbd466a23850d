"""export, plan and apply against the stand-in daemon."""

import glob
import json
import os
import random
import re
import signal
import shutil
import subprocess
import tempfile

import agent
import harness
from harness import NORVCTL, Process, Standin, equal, norvctl, run, write_file
from switch import ONE, Controlled, Switch
from terminal import Terminal

SMALL = """\
workers: {0: {core: 0}}
modules:
  src: Source
  em:
    class: ExactMatch
    arg: {fields: [{offset: 26, num_bytes: 4}]}
    rules: [{gate: 1, fields: [10.0.0.1]}, {gate: 2, fields: [10.0.0.2]}]
  out: Sink
connections: [src -> em, "em:1 -> out"]
"""


def test_an_empty_switch_is_made_as_wanted():
    switch = Switch()
    planned = switch.plan(SMALL)
    equal(planned.status, 4, planned)
    assert "  + module em\n" in planned.out, planned
    assert "9 commands: 6 to create, 0 to change, 0 to recreate, 0 to delete." in planned.out, planned
    finished = switch.apply(SMALL)
    assert finished.out.endswith("6 of 6 changes done. The switch is as wanted.\n"), finished
    again = switch.plan(SMALL)
    equal((again.status, again.out), (0, "The switch is as wanted.\n"))


def test_an_export_is_the_same_bytes_and_nothing_to_do():
    switch = Switch()
    switch.apply(SMALL)
    document = switch.export()
    equal(switch.export(), document)
    equal(switch.plan(document).status, 0)
    as_json = norvctl("export", "--json", *switch.options)
    equal(json.loads(as_json.out)["modules"]["em"]["rules"][0]["fields"], ["10.0.0.1"])
    equal(switch.plan(as_json.out).status, 0)


def test_what_is_not_told_is_said():
    switch = Switch(Controlled)
    run(*switch.standin.address, write_file({"type": "createModule", "request": {"name": "m", "mclass": "WildcardMatch"}}))
    finished = norvctl("export", *switch.options)
    assert "m: WildcardMatch  # the daemon does not tell its rules and default_gate\n" in finished.out, finished
    equal(finished.err, "norvctl: module m: the daemon does not tell its rules and default_gate\n")
    equal(norvctl("export", "--quiet", *switch.options).err, "")
    older = Switch()
    run(*older.standin.address, write_file(
        {"type": "createPort", "request": {"name": "p", "driver": "PMDPort", "arg": {
            "@type": "type.googleapis.com/bess.pb.PMDPortArg", "vdev": "net_null0"}}},
        {"type": "createModule", "request": {"name": "src", "mclass": "Source"}},
        {"type": "updateTcParent", "request": {"class": {
            "leafModuleName": "src", "parent": "nowhere", "wid": "-1"}}}))
    finished = norvctl("export", *older.options)
    equal(finished.err.splitlines(), [
        "norvctl: port p: the daemon does not tell the driver's argument; state it before this is "
        "applied elsewhere",
        "norvctl: port p: the daemon does not tell its queues",
        "norvctl: module src: its task has lost its traffic class; where this is applied it has one"])
    assert "applied elsewhere; the daemon does not tell its queues\n" in finished.out, finished
    assert "src: Source  # its task has lost its traffic class; " in finished.out, finished
    equal(older.export(), finished.out)
    older.apply("modules: {src: Source, out: Sink}\nconnections: [src -> out]\n")
    assert "norvctl: hooks: no gate tells of any; " in norvctl("export", *older.options).err


def test_the_commands_of_a_plan_run_to_the_same_end():
    switch, other = Switch(), Switch()
    commands = switch.plan(SMALL, "--json")
    equal(commands.status, 4)
    equal(run(*other.standin.address, other.document(commands.out, "commands.jsonl")).status, 0)
    switch.apply(SMALL)
    connections = [line for line in switch.export().splitlines() if "->" in line]
    equal([line for line in other.export().splitlines() if "->" in line], connections)
    equal(other.plan(SMALL).status, 0)


def test_the_commands_of_a_change_run_to_the_same_end():
    """In the order of the plan, with the pauses around what needs them."""
    one, other = SMALL, SMALL.replace("10.0.0.2", "10.0.0.3").replace("src: Source", "src: {class: Source, burst: 8}")
    other = other.replace("out: Sink", "out: {class: Queue, arg: {size: 64}}\n  end: Sink").replace(
        '"em:1 -> out"', '"em:2 -> out", out -> end')
    switch, by_hand = Switch(Controlled), Switch(Controlled)
    for each in (switch, by_hand):
        each.apply(one)
    commands = by_hand.plan(other, "--prune", "--json")
    assert '"pauseWorker"' in commands.out and '"destroyModule"' in commands.out, commands
    equal(run(*by_hand.standin.address, by_hand.document(commands.out, "commands.jsonl")).status, 0)
    switch.apply(other, "--prune")
    # What was applied and is not told, neither knows.
    for each in (switch, by_hand):
        each.options = [*each.standin.address, "--state-dir", "none"]
    equal(by_hand.export(), switch.export())
    equal(by_hand.plan(other, "--prune").status, 0)


def test_a_document_that_is_wrong_changes_nothing():
    switch = Switch()
    finished = switch.apply("modules: {a: Sinc}\nconnections: [a -> b]\n", status=1)
    assert re.search(r'wanted\.yaml:1:14: no module class "Sinc"; did you mean "Sink"\?\n', finished.err), finished
    assert "norvctl: 1 problem in the document; nothing was sent\n" in finished.err, finished
    finished = switch.apply("modules: {a: Merge}\nconnections: [a -> b]\n", status=1)
    assert 'no module "b" here or on the switch; did you mean "a"?' in finished.err, finished
    equal(switch.export(), "workers: {}\n")
    finished = norvctl("plan", *switch.options, "nowhere.yaml")
    equal((finished.status, finished.err.splitlines()[0]),
          (1, "nowhere.yaml:1:1: cannot be read: No such file or directory"))
    finished = norvctl("plan", *switch.options, switch.folder)
    equal((finished.status, finished.err.splitlines()[0]),
          (1, switch.folder + ":1:1: cannot be read: it is a folder; name its files"))


def test_a_document_is_checked_without_a_switch():
    switch = Switch()
    path = switch.document(SMALL)
    equal(norvctl("plan", "--check", path).out, "6 objects, all good\n")
    equal(norvctl("plan", "--check", switch.document("ports: {p: X}")).status, 1)


def test_a_refusal_stops_what_needs_it():
    switch = Switch()
    finished = switch.apply(
        "ports: {p: {driver: PMDPort, arg: {vdev: none}}}\n"
        "modules: {in: {class: PortInc, arg: {port: p}}, a: Sink}\n"
        "connections: [in -> a]\n", status=2)
    assert "refused  port p  ENODEV: Cannot attach vdev none\n" in finished.out, finished
    assert "not tried  module in  because of port p\n" in finished.out, finished
    assert "not tried  connection in:0  because of port p\n" in finished.out, finished
    assert "2 of 5 changes done. The switch is not as wanted" in finished.out, finished


def test_json_has_an_object_for_each_change():
    switch = Switch()
    finished = switch.apply("modules: {a: Sink, b: {class: Queue, arg: {size: 3}}}", "--json", status=2)
    rows = [json.loads(line) for line in finished.out.splitlines()]
    states = {row["object"]: row["state"] for row in rows[:-1]}
    equal((states["module a"], states["module b"]), ("done", "refused"))
    equal(rows[-1]["summary"]["done"], len(states) - 1)


def test_rollback_returns_to_what_was():
    switch = Switch()
    switch.apply(SMALL)
    before = switch.export()
    finished = switch.apply(
        "modules: {out: Sink, more: Sink, bad: {class: Queue, arg: {size: 3}}}\nconnections: [\"em:2 -> more\"]",
        "--rollback", status=2)
    assert "what was before is back" in finished.out, finished
    equal("more" in switch.export(), False)
    equal([line for line in switch.export().splitlines() if "->" in line],
          [line for line in before.splitlines() if "->" in line])


def test_after_a_rollback_changes_are_known_as_before():
    switch = Switch()
    switch.apply(SMALL)
    bad = SMALL.replace("modules:\n", "modules:\n  bad: {class: Queue, arg: {size: 3}}\n")
    switch.apply(bad.replace("10.0.0.2", "10.0.0.3"), "--rollback", status=2)
    equal(switch.plan(SMALL).out, "The switch is as wanted.\n")
    planned = switch.plan(SMALL.replace("10.0.0.2", "10.0.0.4"))
    assert "~ module em  rules: 1 added, 1 removed, 0 changed" in planned.out, planned


def test_after_a_call_that_failed_what_was_before_is_back():
    more = SMALL.replace("  out: Sink\n", "  out: Sink\n  more: Sink\n  last: Sink\n")
    for kind in ("status code=13", "hang-up", "hang-up-after"):
        switch = Switch(Controlled)
        switch.apply(SMALL)
        before = switch.export()
        switch.standin.fault(f"kind={kind} rpc=createModule name=more")
        finished = switch.apply(more, "--rollback", status=3)
        assert "stopped after a failure; what was before is back." in finished.out, finished
        equal(switch.export(), before)
        equal(switch.plan(SMALL, "--prune").status, 0)


def test_what_cannot_be_rolled_back_is_said_with_the_reason():
    switch = Switch(Controlled)
    switch.apply(SMALL)
    more = "modules: {more: Sink, bad: {class: Queue, arg: {size: 3}}}"
    switch.standin.fault("kind=error code=16 rpc=destroyModule text=held")
    finished = switch.apply(more, "--rollback", status=2)
    assert "; not rolled back: module more: EBUSY: held. The switch is not as wanted" in finished.out, finished
    switch.standin.fault("kind=exit rpc=createModule name=last")
    finished = switch.apply("modules: {last: Sink}", "--rollback", "--json", status=3)
    equal(json.loads(finished.out.splitlines()[-1])["summary"]["rolled_back"], False)


HOOKED = """\
modules: {src: Source, out: Sink}
connections: [src -> out]
hooks: [{class: TcpDump, module: src, ogate: 0, name: dump, arg: {fifo: %s, defer: true}}]
"""


def test_a_changed_argument_of_a_hook_is_applied():
    switch = Switch(Controlled)
    switch.apply(HOOKED % "/tmp/one")
    equal(switch.plan(HOOKED % "/tmp/one").out, "The switch is as wanted.\n")
    planned = switch.plan(HOOKED % "/tmp/other")
    assert "-/+ hook TcpDump dump at output src:0  another argument\n2 commands" in planned.out, planned
    switch.apply(HOOKED % "/tmp/other")
    equal(switch.plan(HOOKED % "/tmp/other").out, "The switch is as wanted.\n")
    equal(switch.plan(HOOKED % "/tmp/one").status, 4)
    assert "fifo: /tmp/other" in switch.export()
    # Without what was applied, nobody knows.
    switch.options = [*switch.standin.address, "--state-dir", "none"]
    planned = switch.plan(HOOKED % "/tmp/one")
    equal(planned.status, 0, planned)
    assert "does not tell: hook TcpDump dump at output src:0: arg\n" in planned.out, planned
    equal(switch.plan(HOOKED % "/tmp/one", "--recreate-unknown").status, 4)


def test_a_hook_that_a_daemon_does_not_tell_is_assumed():
    switch = Switch()
    named = "modules: {src: Source, out: Sink}\nconnections: [src -> out]\nhooks:\n" \
        "  - {class: Track, module: src, ogate: 0, name: mine}\n" \
        "  - {class: Track, module: out, igate: 0, name: into}\n"
    switch.apply(named)
    planned = switch.plan(named)
    equal(planned.status, 0, planned)
    assert "does not tell: hook Track mine at output src:0\n" in planned.out, planned
    assert "input" not in switch.export() and "igate" not in switch.export()


def test_a_changed_scheduler_makes_the_worker_anew():
    switch = Switch(Controlled)
    usual = "workers: {0: {core: 0}}\nmodules: {src: Source}\n"
    other = usual.replace("core: 0", "core: 0, scheduler: experimental")
    switch.apply(usual)
    planned = switch.plan(other)
    assert "-/+ worker 0  scheduler: the usual -> experimental\n" in planned.out, planned
    assert "pauses worker 0 while it is made anew with another scheduler\n" in planned.out, planned
    switch.apply(other)
    equal(switch.plan(other).out, "The switch is as wanted.\n")
    equal(switch.plan(usual).status, 0)  # which says nothing of it
    switch.options = [*switch.standin.address, "--state-dir", "none"]
    assert "does not tell: worker 0: scheduler\n" in switch.plan(other).out


def test_commands_of_what_cannot_be_are_left_out():
    switch = Switch()
    document = "ports: {p: {driver: PMDPort, arg: unknown}}\n" \
        "modules: {in: {class: PortInc, arg: {port: p}}, out: Sink}\nconnections: [in -> out]\n"
    planned = switch.plan(document, "--json")
    equal([json.loads(line)["type"] for line in planned.out.splitlines() if "type" in line], ["addWorker", "createModule", "resumeWorker"])
    assert "norvctl: port p: the argument of its driver PMDPort is not known; state it\n" in planned.err, planned
    assert "norvctl: without 3 commands that need what cannot be done\n" in planned.err, planned
    equal(norvctl("apply", "--dry-run", "--json", *switch.options, switch.document(document)).out, planned.out)


def test_two_at_once_come_one_after_the_other():
    switch = Switch(Controlled)
    switch.standin.fault("kind=delay ms=2000 rpc=createModule nth=1")
    first = switch.start_apply("modules: {a: Sink}")
    assert switch.standin.strikes(first)
    second = switch.apply("modules: {b: {class: IPLookup, rules: [{prefix: 10.0.0.0/8}]}}")
    equal(first.finish().status, 0)
    assert re.search(r"norvctl: norvctl apply, process \d+, is at work on 127\.0\.0\.1:\d+; waiting for its end\n",
                     second.err), second
    equal(sorted(re.findall(r"^  (\w):", switch.export().split("modules:")[1], re.M)), ["a", "b"])


def test_another_apply_is_waited_for_no_longer_than_it_is_told():
    switch = Switch(Controlled)
    switch.standin.fault("kind=no-reply rpc=createModule nth=1")
    first = switch.start_apply(SMALL)
    assert switch.standin.strikes(first)
    finished = norvctl("apply", "--yes", *switch.options, "--timeout", "0.5", switch.document(SMALL))
    equal(finished.status, 1, finished)
    assert re.search(rf"norvctl: norvctl apply, process {first.popen.pid}, is still at work on \S+; "
                     "try again when it has ended\n$", finished.err), finished
    switch.standin.clear()
    first.signal(signal.SIGINT)
    first.finish()


def test_a_state_folder_that_cannot_be_written_is_said_with_what_helps():
    switch = Switch()
    finished = norvctl("apply", "--yes", *switch.standin.address, "--state-dir", "/proc/none", switch.document("modules: {a: Sink}"))
    equal(finished.status, 1, finished)
    assert "cannot write /proc/none/" in finished.err, finished
    assert "; give another folder with --state-dir, or none\n" in finished.err, finished
    equal(switch.export(), "workers: {}\n")


def test_no_state_is_taken_from_a_folder_that_others_may_write():
    switch = Switch()
    folder = tempfile.mkdtemp(dir=os.getcwd())
    inner = folder + "/inner"
    os.mkdir(inner)
    document = switch.document("modules: {a: Sink}")
    for mode in (0o1777, 0o777):
        os.chmod(folder, mode)
        for verb in (["plan"], ["apply", "--yes"]):
            finished = norvctl(*verb, *switch.standin.address, "--state-dir", folder, document)
            equal(finished.status, 1, finished)
            equal(finished.err, f"norvctl: cannot keep the state in {folder}: {folder} is a folder that everybody may "
                                "write; take that away (chmod o-w) or name another\n")
    equal(os.listdir(folder), ["inner"])
    harness.somebodys(inner)
    finished = norvctl("apply", "--yes", *switch.standin.address, "--state-dir", inner, document)
    equal(finished.status, 1, finished)
    assert "is a folder that somebody else has put where everybody may write; " in finished.err, finished
    shutil.rmtree(folder)
    equal(switch.export(), "workers: {}\n")


def test_a_worker_that_nobody_has_is_an_error_before_anything_is_sent():
    switch = Switch()
    finished = switch.apply("modules:\n  s: {class: Source, tasks: {wid: 1}}\n  d: Sink\nconnections: [s -> d]\n", status=1)
    assert re.search(r":2:3: module s: no worker 1 here or on the switch; state it under \"workers\"\n", finished.err), finished
    equal(switch.export(), "workers: {}\n")
    # The first one the daemon launches by itself, and whoever is there counts.
    switch.apply("modules: {s: {class: Source, tasks: {wid: 0}}, d: Sink}\nconnections: [s -> d]\n")
    switch.apply("workers: {0: {core: 0}, 1: {core: 1}}")
    switch.apply("modules: {t: {class: Source, tasks: {wid: 1}}}", "--prune")


def test_a_question_that_is_refused_is_no_empty_answer():
    switch = Switch(Controlled)
    switch.apply(ONE)
    switch.apply("modules: {told: Queue}\n")
    questions = [(rpc, "nth=1", rpc) for rpc in (
        "getVersion", "listPlugins", "listMclass", "listDrivers", "listWorkers", "listPorts", "getPortConf",
        "listModules", "getModuleInfo", "listTcs")]
    questions += [("moduleCommand name=told", "nth=1", "get_initial_arg of told"),
                  ("moduleCommand name=told", "nth=2", "get_runtime_config of told")]
    for rpc, which, said in questions:
        for words in (["export"], ["plan", switch.document(ONE)], ["apply", "--yes", "--prune", switch.document(ONE)]):
            switch.standin.clear()
            switch.standin.fault(f"kind=error rpc={rpc} {which} code=22 text=not now")
            finished = norvctl(*words, *switch.options)
            equal(finished.status, 3, (rpc, finished))
            assert f"{said} was refused: error 22: not now\n" in finished.err, finished
            equal(finished.out, "")
    switch.standin.clear()
    equal(switch.plan(ONE).status, 0)


def test_while_norvd_keeps_the_switch_it_alone_applies():
    switch = Switch(Controlled)
    path = switch.document(SMALL)
    keeper = Process(agent.NORVD, "--wanted", path, *switch.options, "--http", "off", "--interval", "0.2")
    keeper.wait_for("state: nothing to do: ", err=True)
    finished = norvctl("apply", "--yes", *switch.options, path)
    equal(finished.status, 1, finished)
    assert re.search(rf"norvctl: norvd, process {keeper.popen.pid}, keeps the switch at 127\.0\.0\.1:\d+, by "
                     r"\S+_\d+\.lock; change the document that it follows, or end it first\n", finished.err), finished
    equal(norvctl("plan", *switch.options, path).status, 0)
    equal(norvctl("apply", "--dry-run", *switch.options, path).status, 0)
    keeper.signal(signal.SIGTERM)
    keeper.finish()
    equal(norvctl("apply", "--yes", *switch.options, path).status, 0)


def test_norvd_begins_behind_an_apply():
    switch = Switch(Controlled)
    switch.standin.fault("kind=no-reply rpc=createModule nth=1")
    first = switch.start_apply(SMALL)
    assert switch.standin.strikes(first)
    finished = norvctl("retry", "em", *switch.options)
    assert finished.status == 1 and "does not run" in finished.err, finished
    keeper = Process(agent.NORVD, "--wanted", switch.document(SMALL), *switch.options, "--http", "off", "--interval", "0.2")
    keeper.wait_for(rf"norvctl apply, process {first.popen.pid}, is at work on the switch; waiting for its end", err=True)
    switch.standin.clear()
    first.signal(signal.SIGINT)
    first.finish()
    keeper.wait_for("state: nothing to do: ", err=True)


def many(number):
    return "workers: {}\nmodules: {" + ", ".join(f"m{i}: Sink" for i in range(number)) + "}\n"


def test_much_is_not_deleted_without_a_word():
    switch = Switch()
    switch.apply(many(12))
    finished = switch.apply(many(5), "--prune", status=1)
    assert "this deletes 7 of 12 objects; --allow-mass-delete lets it" in finished.err, finished
    finished = switch.apply("", "--prune", status=1)
    assert "this deletes 12 of 12 objects" in finished.err, finished
    switch.apply(many(7), "--prune")  # less than half
    switch.apply("", "--prune", "--allow-mass-delete")
    equal(switch.export(), "workers: {}\n")


def test_who_thinks_at_the_prompt_keeps_nobody_waiting():
    switch = Switch(Controlled)
    terminal = Terminal("apply", *switch.options, switch.document(many(12)), input=True)
    terminal.wait_for(r"Carry it out\? \[y/N\] ")
    switch.apply(many(3))
    terminal.type("y\n")
    terminal.wait_for("the switch has changed meanwhile; this is what is to do now")
    terminal.wait_for("9 to create")
    terminal.wait_for(r"Carry it out\? \[y/N\] ")
    keeper = Process(agent.NORVD, "--wanted", switch.document(many(5)), *switch.options, "--http", "off", "--interval", "0.2")
    keeper.wait_for("state: nothing to do: ", err=True)
    terminal.type("y\n")
    terminal.wait_for("keeps the switch at ")
    equal(terminal.finish(), 1)
    keeper.signal(signal.SIGTERM)
    keeper.finish()
    equal(switch.plan(many(5), "--prune").status, 0)
    terminal = Terminal("apply", *switch.options, switch.document(many(12)), input=True)
    terminal.wait_for(r"Carry it out\? \[y/N\] ")
    switch.apply(many(12))
    terminal.type("y\n")
    equal(terminal.finish(), 0)  # nothing is left to do


def test_a_terminal_is_asked():
    switch = Switch()
    path = switch.document(many(12))
    for answer, status in (("n", 1), ("y", 0)):
        terminal = Terminal("apply", *switch.options, path, input=True)
        terminal.wait_for(r"Carry it out\? \[y/N\] ")
        os.write(terminal.end, answer.encode() + b"\n")
        equal(terminal.finish(), status)
    terminal = Terminal("apply", "--prune", *switch.options, switch.document(many(2)), input=True)
    terminal.wait_for("type their number to go on: ")
    os.write(terminal.end, b"10\n")
    equal(terminal.finish(), 0)
    switch.apply(many(1200))
    terminal = Terminal("apply", "--prune", *switch.options, switch.document(many(2)), input=True)
    terminal.wait_for("this deletes 1,198 of 1,200 objects; type their number to go on: ")
    os.write(terminal.end, b"1,198\n")
    equal(terminal.finish(), 0)


def test_nobody_to_ask():
    switch = Switch()
    finished = norvctl("apply", *switch.options, switch.document(SMALL))
    equal((finished.status, finished.err), (1, "norvctl: nobody to ask here; --yes goes on without\n"))
    equal(norvctl("apply", "--dry-run", *switch.options, switch.document(SMALL)).status, 4)
    equal(switch.export(), "workers: {}\n")


def test_nobody_listens():
    finished = norvctl("export", "--host", "127.0.0.1", "--port", str(harness.free_port()))
    equal(finished.status, 3)
    assert "no answer from 127.0.0.1:" in finished.err, finished


def large(seed):
    """Different documents with tables, classes and a place for each task."""
    pick = random.Random(seed)
    rules = ", ".join(f"{{gate: {pick.randrange(4)}, fields: [10.0.0.{i}]}}" for i in range(20))
    return (
        "workers: {0: {core: 0}, 1: {core: 1}}\n"
        f"ports: {{p: {{driver: PMDPort, arg: {{vdev: net_null{seed % 2}}}}}}}\n"
        "modules:\n"
        "  in: {class: PortInc, arg: {port: p}, tasks: slow}\n"
        f"  src: {{class: Source, arg: {{pkt_size: {60 + seed}}}, tasks: {{wid: 1}}}}\n"
        f"  em: {{class: ExactMatch, arg: {{fields: [{{num_bytes: 4}}]}}, default_gate: {seed % 3}, rules: [{rules}]}}\n"
        + "".join(f"  s{i}: Sink\n" for i in range(20))
        + "connections: [in -> em, "
        + ", ".join(f'"em:{i} -> s{(i + seed) % 20}"' for i in range(20))
        + "]\n"
        f"traffic_classes: {{slow: {{policy: rate_limit, limit: {{packet: {1000 + seed}}}, wid: 0}}}}\n"
    )


def test_what_is_larger_than_a_message_comes_in_several():
    """A daemon takes 4 MiB in a request, and tells more than that in one reply."""
    switch = Switch()
    urls = ", ".join(f"{{host: {name * 1000000}, path: /}}" for name in "abcdef")
    document = f"modules: {{u: {{class: UrlFilter, arg: {{blacklist: [{urls}]}}}}}}\n"
    finished = switch.apply(document)
    equal(finished.status, 0, finished)
    assert "2 commands: 1 to create" in finished.out, finished.out
    exported = switch.export()
    for name in "abcdef":
        assert name * 1000000 in exported
    equal(switch.plan(exported).status, 0)


def test_a_daemon_that_starts_anew_gets_everything_again():
    switch = Switch()
    switch.apply(large(1))
    port = switch.standin.port
    switch.standin.end()
    switch.standin = Standin(port)
    finished = switch.apply(large(1))
    assert "The switch is as wanted" in finished.out, finished
    equal(switch.plan(large(1)).status, 0)


def test_a_daemon_that_dies_in_the_middle():
    switch = Switch()
    controlled = Process(harness.STANDIN, "--listen", "127.0.0.1:0", "--fault", "kind=exit rpc=createModule nth=10")
    port = controlled.wait_for(r"listening on 127\.0\.0\.1:(\d+)\n").group(1)
    options = ["--host", "127.0.0.1", "--port", port, "--state-dir", switch.folder]
    finished = norvctl("apply", "--yes", *options, switch.document(large(1)))
    equal(finished.status, 3, finished)
    assert "stopped after a failure" in finished.out, finished
    standin = Standin(port)
    finished = norvctl("apply", "--yes", *options, switch.document(large(1)))
    equal(finished.status, 0, finished)


def test_a_worker_paused_for_what_was_cut_short_runs_with_the_next_apply():
    switch = Switch(Controlled)
    switch.apply(SMALL)
    # Of workers it says nothing.
    changed = SMALL.replace("workers: {0: {core: 0}}\n", "").replace("10.0.0.2", "10.0.0.3")
    switch.standin.fault("kind=status code=13 rpc=resumeWorker")
    finished = switch.apply(changed, status=3)
    assert "paused  worker 0  as what it stood still for was cut short" in finished.out, finished
    switch.standin.clear()
    planned = switch.plan(changed)
    equal(planned.status, 4, planned)
    assert "  ~ worker 0  running: false -> true\n" in planned.out, planned
    switch.apply(changed)
    assert "running: false" not in switch.export()
    # What a person pauses then stays so.
    run(*switch.standin.address, write_file({"type": "pauseWorker", "request": {"wid": 0}}))
    equal(switch.plan(changed).status, 0)


def test_a_task_of_a_worker_made_anew_may_go_to_another():
    switch = Switch()
    document = "workers: {0: {core: 0}, 1: {core: 1}}\nmodules: {a: {class: Source, tasks: %s}}\n"
    switch.apply(document % "x" + "traffic_classes: {x: {policy: round_robin, wid: 0}}\n")
    switch.apply(document % "{wid: 1}", "--prune")
    equal(switch.plan(document % "{wid: 1}", "--prune").status, 0)


def test_a_damaged_record_lies_aside():
    switch = Switch()
    switch.apply(SMALL)
    [record] = glob.glob(switch.folder + "/*.json")
    equal(os.stat(record).st_mode & 0o777, 0o600)
    with open(record, "w") as file:
        file.write("{")
    finished = switch.plan(SMALL)
    assert "is no record" in finished.err and os.path.exists(record + ".damaged"), finished
    assert "assumed to be right, as the daemon does not tell: module em: rules" in finished.out, finished
    equal(finished.status, 0)
    equal(switch.plan(SMALL, "--recreate-unknown").status, 4)


def test_the_schema_is_json_and_knows_every_class():
    schema = json.loads(norvctl("plan", "--schema").out)
    classes = schema["properties"]["modules"]["additionalProperties"]["anyOf"][-1]["enum"]
    assert "ExactMatch" in classes and len(classes) > 60, classes


harness.main()
