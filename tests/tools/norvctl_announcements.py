"""Queues and their announcements: what is sent in which order."""

import json

import harness
from harness import ScriptedDaemon, command, equal, norvctl, run, write_file


def announce(queue):
    return {"announce": queue}


def sent(*lines):
    """The types in the order in which the daemon saw them; checks that the report agrees."""
    daemon = ScriptedDaemon()
    result = run(*daemon.address, write_file(*lines))
    equal(result.status, 0)
    calls = daemon.calls()
    equal(result.types(), calls)
    return calls


def test_announcements_make_the_order():
    calls = sent(
        command("pauseAll", "a"),
        command("resetAll", "b"),
        command("resumeAll", "a"),
        announce("b"),
        command("listPorts", "b"),
        announce("a"),
        announce("b"),
    )
    equal(calls, ["resetAll", "pauseAll", "resumeAll", "listPorts"])


def test_unannounced_queues_come_last_in_order_of_appearance():
    calls = sent(
        command("pauseAll", "c"),
        command("resetAll", "a"),
        command("resumeAll", "b"),
        command("listPorts", "a"),
        announce("b"),
    )
    equal(calls, ["resumeAll", "pauseAll", "resetAll", "listPorts"])


def test_a_queue_announced_and_filled_again_is_announced_at_the_end():
    calls = sent(command("pauseAll", "a"), announce("a"), command("resetAll", "a"))
    equal(calls, ["pauseAll", "resetAll"])


def test_announcing_an_empty_queue_sends_nothing():
    calls = sent(announce("a"), command("pauseAll", "b"), announce("b"), announce("b"), command("resetAll", "a"))
    equal(calls, ["pauseAll", "resetAll"])


def test_the_queue_is_main_unless_told():
    result = run("--standin", write_file(command("getVersion"), command("listPorts", "other")))
    equal(result.column("queue"), ["main", "other"])


def test_request_may_be_left_out():
    equal(sent({"type": "getVersion"}), ["getVersion"])


def test_keys_of_a_recording_are_left_unread():
    line = command("getVersion")
    line.update(situation="a remark", status={"code": 14}, response={"version": 3})
    line.update(response_raw="?", time="soon")
    equal(sent(line), ["getVersion"])


def test_many_queues_in_turns():
    """Batches of several queues, whose lines lie between each other's."""
    lines = []
    for _ in range(50):
        lines += [command("pauseAll", "a"), command("resetAll", "b"), command("resumeAll", "a")]
        lines += ["", announce("b"), announce("a")]
    equal(sent(*lines), ["resetAll", "pauseAll", "resumeAll"] * 50)


def test_many_queues_in_a_long_file():
    """The commands of a queue stand far from each other, and are looked up in blocks of the file."""
    types = ["pauseAll", "resumeAll", "resetAll", "getVersion", "listPorts"]
    lines = [command(types[i % 5], "abc"[i % 3]) for i in range(3000)]
    expected = [lines[i]["type"] for queue in "cab" for i in range(3000) if lines[i]["queue"] == queue]
    padded = [json.dumps(line) + " " * 100 for line in lines]
    equal(sent(*padded, announce("c")), expected)


def test_blank_lines_and_line_ends_of_other_systems():
    equal(sent("", '{"type":"getVersion"}\r', "  \t", '{"type":"listPorts"}'), ["getVersion", "listPorts"])


def test_standard_input():
    daemon = ScriptedDaemon()
    text = '{"type":"getVersion"}\n{"type":"listPorts"}'
    result = run(*daemon.address, "-", input=text)
    equal(result.status, 0)
    equal(daemon.calls(), ["getVersion", "listPorts"])


def test_several_files_are_one_session():
    daemon = ScriptedDaemon()
    first = write_file(command("pauseAll", "a"), command("resetAll", "b"), name="first.jsonl")
    second = write_file(announce("b"), command("resumeAll", "a"), name="second.jsonl")
    result = run(*daemon.address, first, second)
    equal(result.status, 0)
    equal(daemon.calls(), ["resetAll", "pauseAll", "resumeAll"])
    equal(result.column("queue"), ["b", "a", "a"])


def test_trace_shows_the_first_batch_only():
    file = write_file(command("pauseAll", "a"), announce("a"), command("resetAll", "b"))
    finished = norvctl("run", "--trace-first-batch", *ScriptedDaemon().address, file)
    equal(finished.status, 0)
    traced = [line for line in finished.err.splitlines() if "NorvConnectionsMgr/5" in line]
    equal(len([line for line in traced if "Wake the grpcClient up" in line]), 1, finished)


harness.main()
