"""The same on several hosts: each gets all of it, and a line tells how it went with each."""

import json
import os
import signal
import subprocess

import harness
from harness import NORVCTL, Process, ScriptedDaemon, Standin, command, equal, norvctl, write_file
from terminal import Terminal

# Daemons listen at 127.0.0.1, so that the same daemon is asked twice, by two of its names.
HOSTS = "127.0.0.1,localhost"
RECORDED = {"type": "getVersion", "request": {}, "response": {}, "status": {"code": 0, "message": ""}}


def at(daemon):
    return ("--host", HOSTS, "--port", daemon.port)


def rows_of(finished):
    return [json.loads(line) for line in finished.out.splitlines()]


def test_each_host_gets_all_commands():
    one, two = Standin(), ScriptedDaemon("ok", "error=22")
    file = write_file(command("getVersion"), command("pauseAll"))
    finished = norvctl("run", *at(one), file)
    equal(finished.status, 0, finished)
    rows = finished.out.splitlines()
    equal([row.split()[:2] for row in rows], [["host", "outcome"], ["127.0.0.1", "ok"], ["localhost", "ok"]])
    finished = norvctl("run", "--json", *at(two), "--timeout", "20", file)
    equal(sorted(row["status"] for row in rows_of(finished)), [0, 2], finished)


def test_hosts_that_are_not_there():
    hosts = ["--host", "127.0.0.1,nowhere.invalid", "--port", str(harness.free_port()), "--timeout", "2"]
    for arguments in (["run", *hosts, write_file(command("getVersion"))], ["call", *hosts, "getVersion"]):
        finished = norvctl(*arguments)
        equal(finished.status, 3, finished)
        refused, unknown = finished.out.splitlines()[1:]
        equal(refused.count("the connection is refused"), 1, finished)
        assert "the host's name is not known" in unknown, finished


def test_hosts_that_are_not_there_as_json():
    port = harness.free_port()
    file = write_file(command("getVersion"))
    for arguments in (["run", file], ["call", "getVersion"], ["replay", write_file(RECORDED, name="talk.jsonl")]):
        finished = norvctl(arguments[0], "--json", "--host", HOSTS, "--port", str(port), "--timeout", "2", *arguments[1:])
        equal(finished.status, 3, finished)
        for row in rows_of(finished):
            assert row["error"].startswith(f"no answer from {row['host']}:{port}"), row
            assert "the connection is refused" in row["error"], row


def test_what_can_be_read_once_is_refused():
    for verb in ("run", "replay"):
        daemon = ScriptedDaemon()
        file = write_file(*[RECORDED] * 6)
        for input in ("/dev/stdin", "-"):
            line = f'cat {file} | "$0" {verb} --host {HOSTS} --port {daemon.port} --timeout 20 {input}'
            finished = subprocess.run(["sh", "-c", line, NORVCTL], capture_output=True, text=True, timeout=harness.PATIENCE)
            equal((finished.returncode, finished.stdout), (1, ""), finished)
            assert "can be read once" in finished.stderr and "write it into a file" in finished.stderr, finished
        equal(daemon.calls(), [], verb)


def test_a_file_as_standard_input_is_read_by_each():
    daemon = ScriptedDaemon()
    line = f'"$0" run --host {HOSTS} --port {daemon.port} /dev/stdin < {write_file(*[command("pauseAll")] * 3)}'
    finished = subprocess.run(["sh", "-c", line, NORVCTL], capture_output=True, timeout=harness.PATIENCE)
    equal(finished.returncode, 0, finished)
    equal(daemon.calls(), ["pauseAll"] * 6)


def test_a_bad_line_is_told_once_with_its_place():
    daemon = ScriptedDaemon()
    file = write_file(command("pauseAll"), '{"type":"destroyPort","reqest":{}}')
    finished = norvctl("run", *at(daemon), file)
    equal((finished.status, finished.out), (1, ""), finished)
    equal(finished.err.count(f'{file}:2:23: unknown key "reqest"'), 1, finished)
    assert "nothing was sent" in finished.err, finished
    equal(daemon.calls(), [])


def test_a_bad_line_of_a_stream_is_told_with_its_place():
    file = write_file(command("pauseAll"), '{"type":"destroyPort","reqest":{}}')
    finished = norvctl("run", "--stream", *at(ScriptedDaemon()), file)
    equal(finished.status, 1, finished)
    for row in finished.out.splitlines()[1:]:
        assert f'{file}:2:23: unknown key "reqest"' in row, finished


def test_a_call():
    finished = norvctl("call", *at(Standin()), "getVersion")
    equal(finished.status, 0)
    equal(finished.out.count("bessd-standin"), 2)


def test_a_body_from_elsewhere_goes_to_each():
    # Longer than an argument of a program may be.
    body = '{"driverName":"PMDPort"' + " " * 300000 + "}"
    file = write_file(body, name="body.json")
    for arguments, text in ((["-"], body), (["@" + file], None), (["@-"], body), (['{"driverName":"PMDPort"}'], None)):
        finished = norvctl("call", "--json", *at(Standin()), "getDriverInfo", *arguments, input=text)
        equal(finished.status, 0, finished)
        equal([row["response"]["name"] for row in rows_of(finished)], ["PMDPort"] * 2)


def test_a_bad_body_is_told_once():
    daemon = ScriptedDaemon()
    finished = norvctl("call", *at(daemon), "createPort", "-", input='{"nme":"a"}')
    equal((finished.status, finished.out), (1, ""), finished)
    equal(finished.err.count("nme"), 1, finished)
    equal(daemon.calls(), [])


def test_what_is_of_one_host():
    for option in (["--yaml"], ["--flight-recorder", "trace"]):
        finished = norvctl("call", "--host", "a,b", *option, "getVersion")
        equal((finished.status, finished.out), (1, ""), finished)
        assert "are for one host" in finished.err, finished


def children(process):
    with open(f"/proc/{process.popen.pid}/task/{process.popen.pid}/children") as file:
        return file.read().split()


def test_a_signal_ends_all_and_leaves_the_table():
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        daemon = ScriptedDaemon("ok", "ok", "hold", "hold")
        process = Process(NORVCTL, "run", "--json", *at(daemon), write_file(*[command("getVersion")] * 9))
        daemon.wait_for("(call getVersion\n){4}")
        started = children(process)
        equal(len(started), 2)
        process.signal(number)
        finished = process.finish()
        equal(finished.status, 128 + number, finished)
        equal([row["summary"]["ended"] for row in rows_of(finished)], ["interrupted"] * 2)
        equal([child for child in started if os.path.exists(f"/proc/{child}")], [])


def test_an_interrupt_on_a_terminal_is_heard_once_by_each():
    daemon = ScriptedDaemon("hold", "hold")
    terminal = Terminal("run", *at(daemon), write_file(*[command("getVersion")] * 9), input=True)
    daemon.wait_for("(call getVersion\n){2}")
    terminal.type("\x03")
    equal(terminal.finish(), 130)
    equal(terminal.text.count("0 ok, 0 refused, 1 failed, 0 undecodable, 8 dropped"), 2, terminal.text)


def test_a_signal_during_a_call_and_a_replay():
    for arguments in (["call", "getVersion"], ["replay", write_file(RECORDED)]):
        daemon = ScriptedDaemon("hold", "hold")
        process = Process(NORVCTL, *arguments[:1], *at(daemon), *arguments[1:])
        daemon.wait_for("(call getVersion\n){2}")
        process.signal(signal.SIGTERM)
        finished = process.finish()
        equal(finished.status, 128 + signal.SIGTERM, finished)
        equal(len(finished.out.splitlines()), 3, finished)


harness.main()
