"""Input of any length and from anywhere, output that is taken or not."""

import json
import os
import re
import signal
import subprocess

import harness
from harness import (
    NORVCTL,
    SLOWNESS,
    Process,
    Result,
    ScriptedDaemon,
    Standin,
    command,
    equal,
    norvctl,
    run,
    skip,
    write_file,
)

VERSION = '{"type":"getVersion"}\n'


class Piped(Process):
    """norvctl run with a pipe as its input that stays open."""

    def __init__(self, *arguments):
        super().__init__(NORVCTL, "run", *arguments, "-", stdin=subprocess.PIPE)

    def write(self, text):
        self.popen.stdin.write(text.encode())
        self.popen.stdin.flush()

    def close(self):
        self.popen.stdin.close()


def test_a_pipe_that_stays_open():
    process = Piped("--json", *Standin().address)
    process.write(VERSION)
    process.wait_for(r'"type":"getVersion","outcome":"ok"')
    process.write('{"type":"listPorts"}\n')
    process.wait_for(r'"type":"listPorts","outcome":"ok"')
    process.close()
    result = Result(process.finish())
    equal(result.status, 0)
    equal(result.summary["ended"], "complete")


def test_a_named_queue_waits_for_its_announcement():
    daemon = ScriptedDaemon()
    process = Piped("--json", *daemon.address)
    process.write('{"type":"pauseAll","queue":"a"}\n' + VERSION)
    process.wait_for("getVersion")
    process.write('{"announce":"a"}\n')
    process.wait_for("pauseAll")
    process.write('{"type":"resumeAll","queue":"a"}\n')
    process.close()
    equal(Result(process.finish()).types(), ["getVersion", "pauseAll", "resumeAll"])
    equal(daemon.calls(), ["getVersion", "pauseAll", "resumeAll"])


def test_too_many_wait_for_an_announcement():
    daemon = ScriptedDaemon()
    file = write_file(*[command("pauseAll", "a")] * 100099)
    finished = norvctl("run", "--stream", *daemon.address, file)
    equal(finished.status, 1, finished)
    assert re.search('1000\\d\\d commands wait for the announcement of their queues, "a"', finished.err), finished
    equal(daemon.calls(), [])


# More than are read ahead, and not so many that the daemon waits for somebody to read what it says.
MANY = 3800


def many(type, name):
    """A file with so many commands, of which the last are not in the blocks that are read ahead."""
    return write_file(*[json.dumps(command(type)) + " " * 200] * MANY, name=name)


def changed_while_it_is_run(change):
    """What a run of a long file sends when the file becomes another under its hands."""
    file = many("getVersion", "long.jsonl")
    daemon = ScriptedDaemon("wait")
    process = Process(NORVCTL, "run", "--quiet", *daemon.address, file)
    daemon.wait_for("call getVersion\n")
    change(file)
    daemon.go_on()
    finished = process.finish()
    return file, finished, daemon.calls()


def test_a_file_that_changes_is_not_sent_any_further():
    def other_commands(file):
        with open(file, "r+") as open_file:
            text = open_file.read()
            open_file.seek(0)
            open_file.write(text.replace("getVersion", "resumeAll "))  # of the same length

    file, finished, calls = changed_while_it_is_run(other_commands)
    equal(finished.status, 1, finished)
    assert file + " has changed since it was checked" in finished.err, finished
    equal(set(calls), {"getVersion"})
    assert len(calls) < MANY, "those that were read before"

    file, finished, calls = changed_while_it_is_run(lambda file: os.truncate(file, 1000))
    equal(finished.status, 1, finished)
    assert " has changed " in finished.err and set(calls) == {"getVersion"}, finished


def test_what_is_appended_to_a_file_is_not_sent():
    def append(file):
        with open(file, "a") as open_file:
            open_file.write('{"type":"resetAll"}\n' * 10)

    _, finished, calls = changed_while_it_is_run(append)
    equal(finished.status, 0, finished)
    equal(calls, ["getVersion"] * MANY)


def test_a_file_that_is_replaced_is_sent_as_it_was_checked():
    def replace(file):
        other = many("resetAll", "other.jsonl")
        harness.written.remove(other)
        os.rename(other, file)

    file, finished, calls = changed_while_it_is_run(replace)
    # The one that was checked is still open, and is sent to its end.
    equal(finished.status, 0, finished)
    equal(calls, ["getVersion"] * MANY)


def test_an_answer_after_the_end_is_left():
    """The books are closed, and the process is about to end; the worker is not."""
    for answer in ("wait", "wait-status=13", "wait-garbage"):
        daemon = ScriptedDaemon("ok", answer)
        process = Process(NORVCTL, "run", "--json", *daemon.address, write_file(*[command("getVersion")] * 4))
        daemon.wait_for("(call getVersion\n){2}")
        process.signal(signal.SIGINT)
        daemon.go_on()
        result = Result(process.finish())
        assert result.status in (0, 3, 130), result.finished
        equal(len(result.commands), 4)
        daemon.calls()


def test_the_time_runs_out_while_a_stream_is_silent():
    process = Piped("--json", "--timeout", "1", *Standin().address)
    process.write(VERSION)
    result = Result(process.finish())
    equal(result.status, 3)
    equal((result.outcomes(), result.summary["ended"]), (["ok"], "timed out"))


def ended_by(number):
    daemon = ScriptedDaemon("ok", "hold")
    process = Process(NORVCTL, "run", "--json", *daemon.address, write_file(*[command("getVersion")] * 4))
    daemon.wait_for("(call getVersion\n){2}")
    process.signal(number)
    result = Result(process.finish())
    equal(result.status, 128 + number)
    equal(result.outcomes(), ["ok", "failed", "dropped", "dropped"])
    equal(result.summary["ended"], "interrupted")


def test_ended_by_sigterm():
    ended_by(signal.SIGTERM)


def test_ended_by_sighup():
    ended_by(signal.SIGHUP)


def test_a_signal_is_heard_while_many_commands_are_fed():
    standin = Standin()
    process = Process(
        NORVCTL, "run", "--json", *standin.address, write_file((VERSION * 200000).strip(), name="long.jsonl")
    )
    process.wait_for(r'"seq":100,')
    process.signal(signal.SIGTERM)
    finished = process.finish()
    equal(finished.status, 128 + signal.SIGTERM)
    summary = json.loads(finished.out.splitlines()[-1])["summary"]
    equal(summary["ended"], "interrupted")
    equal(summary["ok"] + summary["failed"] + summary["dropped"], 200000)
    assert summary["dropped"] > 0, summary


def test_many_commands_in_one_announcement():
    lines = [command("getVersion", "a")] * 20000 + [{"announce": "a"}]
    result = run(*Standin().address, write_file(*lines))
    equal((result.status, result.summary["ok"]), (0, 20000))


def test_memory_does_not_grow_with_the_number_of_commands():
    if SLOWNESS != 1:
        skip("a sanitizer keeps what is given back")
    standin = Standin()

    def peak(commands):  # KiB
        path = write_file(*[command("getVersion")] * commands)
        process = subprocess.Popen([NORVCTL, "run", "--quiet", *standin.address, path], stdout=subprocess.DEVNULL)
        _, status, usage = os.wait4(process.pid, 0)
        equal(status, 0)
        return usage.ru_maxrss

    few, many = peak(5000), peak(50000)
    assert many < few + 4096, (few, many)


def test_a_run_of_dropped_commands_is_one_line():
    for option in ([], ["--quiet"]):
        daemon = ScriptedDaemon("ok", "status=14")
        finished = norvctl("run", *option, *daemon.address, write_file(*[command("getVersion")] * 20000))
        equal(finished.status, 3)
        dropped = [line for line in finished.out.splitlines() if " dropped " in line and "commands:" not in line]
        equal(len(dropped), 1, finished)
        assert "19998 commands, from line 3 on, were not sent" in dropped[0], dropped
        assert "getVersion of line 2 failed at 127.0.0.1:" in finished.err, finished
        assert "UNAVAILABLE: as the test told it" in finished.err, finished


def test_dropped_commands_of_a_quiet_json_run_are_one_object():
    daemon = ScriptedDaemon("ok", "error=22", "status=13")
    finished = norvctl("run", "--json", "--quiet", *daemon.address, write_file(*[command("pauseAll")] * 100))
    rows = [json.loads(line) for line in finished.out.splitlines()]
    equal([row.get("outcome") for row in rows], ["refused", "failed", "dropped", None])
    equal(rows[2]["commands"], 97)
    summary = rows[3]["summary"]
    equal((summary["dropped"], summary["ended"]), (97, "failed"))
    equal(summary["failure"], {"line": 3, "type": "pauseAll", "status": "INTERNAL", "reason": "as the test told it"})


def test_undecodable_says_what_it_means():
    finished = norvctl("run", *ScriptedDaemon("garbage").address, write_file(command("pauseAll")))
    assert "undecodable" in finished.out and "what the daemon did is not known" in finished.out, finished


def full(*arguments):
    with open("/dev/full", "w") as disk:
        return subprocess.run([NORVCTL, *arguments], stdout=disk, stderr=subprocess.PIPE, timeout=harness.PATIENCE)


def test_a_full_disk_behind_the_output():
    file = write_file(*[command("getVersion")] * 10)
    recording = write_file({"type": "pauseAll", "status": {"code": 12, "message": ""}}, name="recording.jsonl")
    hosts = ["--host", "127.0.0.1,localhost", "--port", Standin().port]
    for arguments in (
        ["run", "--standin", file],
        ["run", *hosts, file],
        ["call", *hosts, "getVersion"],
        ["replay", *hosts, recording],
        ["replay", "--standin", recording],
        ["replay", "--standin", "--json", recording],
        ["doctor", "--standin"],
        ["doctor", "--standin", "--json"],
        ["man"],
        ["man", "run"],
        ["export", "--standin"],
        ["run", "--json", "--standin", file],
        ["call", "--standin", "getVersion"],
        ["types"],
        ["describe", "ACL"],
        ["template", "createPort"],
        ["show", "--standin", "classes"],
    ):
        finished = full(*arguments)
        equal(finished.returncode, 1, arguments)
        assert b"cannot write to standard output: No space left on device" in finished.stderr, finished


def test_a_pipe_that_nobody_reads():
    read_end, write_end = os.pipe()
    os.close(read_end)
    file = write_file(*[command("getVersion")] * 10)
    with os.fdopen(write_end, "w") as pipe:
        finished = subprocess.run(
            [NORVCTL, "run", "--json", "--standin", file], stdout=pipe, stderr=subprocess.PIPE, timeout=harness.PATIENCE
        )
    equal(finished.returncode, 1, finished)
    assert b"Broken pipe" in finished.stderr, finished


def test_output_that_is_closed():
    finished = subprocess.run(
        ["sh", "-c", f"{NORVCTL} types >&-"], stderr=subprocess.PIPE, timeout=harness.PATIENCE
    )
    equal(finished.returncode, 1, finished)


def test_input_that_is_closed():
    for arguments in ("run --standin -", "check -", "call --standin getVersion -"):
        finished = subprocess.run(
            ["sh", "-c", f"{NORVCTL} {arguments} <&-"], stderr=subprocess.PIPE, timeout=harness.PATIENCE
        )
        equal(finished.returncode, 1, finished)
        assert b"standard input: cannot be read to its end: Bad file descriptor" in finished.stderr, finished


def test_a_line_is_out_when_its_command_has_ended():
    daemon = ScriptedDaemon("ok", "hold")
    process = Process(NORVCTL, "run", "--json", *daemon.address, write_file(*[command("getVersion")] * 2))
    process.wait_for(r'"seq":1,"queue":"main","type":"getVersion","outcome":"ok"')
    process.signal(signal.SIGINT)
    equal(process.finish().status, 130)


def test_a_time_limit_below_the_clock_is_none():
    result = run("--timeout", "1e-12", *ScriptedDaemon("hold").address, write_file(command("getVersion")))
    equal((result.status, result.summary["ended"]), (3, "timed out"))


def test_text_of_a_file_is_made_safe_for_a_terminal():
    finished = norvctl("run", "--standin", write_file('{"type":"getVersion","queue":"\\u001b[31mred"}'))
    equal(finished.status, 0)
    assert r"\x1b[31mred" in finished.out and "\x1b" not in finished.out, finished


harness.main()
