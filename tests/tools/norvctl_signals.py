"""Daemons that are absent, come late, hang or die, and a person's ^C."""

import signal

import harness
from harness import (
    NORVCTL,
    OUTCOMES,
    Process,
    Result,
    ScriptedDaemon,
    Standin,
    command,
    equal,
    free_port,
    run,
    write_file,
)

NO_ANSWER = "no answer yet"  # what a person is told when nothing has come back for a while


def start(*arguments):
    return Process(NORVCTL, "run", *arguments)


def versions(count):
    return write_file(*[command("getVersion")] * count)


def test_nobody_listens():
    address = ("--host", "127.0.0.1", "--port", str(free_port()))
    result = run(*address, "--timeout", "1", versions(3), patience=10)
    equal(result.status, 3)
    equal(result.outcomes(), ["failed", "dropped", "dropped"])


def test_unknown_host():
    result = run("--host", "nowhere.invalid", "--timeout", "1", versions(2), patience=30)
    equal(result.status, 3)
    equal(result.outcomes(), ["failed", "dropped"])


def test_the_daemon_arrives_later():
    port = free_port()
    process = start("--host", "127.0.0.1", "--port", str(port), versions(3))
    process.wait_for(NO_ANSWER, err=True)
    Standin(port)
    finished = process.finish()
    equal(finished.status, 0, finished)
    assert "3 commands: 3 ok" in finished.out, finished


def test_interrupted():
    daemon = ScriptedDaemon("ok", "hold")
    process = start("--json", *daemon.address, versions(4))
    daemon.wait_for("(call getVersion\n){2}")
    process.signal(signal.SIGINT)
    result = Result(process.finish())
    equal(result.status, 130)
    equal(result.outcomes(), ["ok", "failed", "dropped", "dropped"])


def test_interrupted_for_a_person():
    daemon = ScriptedDaemon("hold")
    process = start(*daemon.address, versions(2))
    daemon.wait_for("call getVersion\n")
    process.signal(signal.SIGINT)
    finished = process.finish()
    equal(finished.status, 130)
    assert "2 commands: 0 ok, 0 refused, 1 failed, 0 undecodable, 1 dropped" in finished.out, finished


def test_interrupted_while_continuing_after_failures():
    daemon = ScriptedDaemon("status=14", "hold")
    process = start("--json", "--on-failure", "continue", *daemon.address, versions(5))
    daemon.wait_for("(call getVersion\n){2}")
    process.signal(signal.SIGINT)
    result = Result(process.finish())
    equal(result.status, 130)
    equal(result.summary["failed"], 2)
    equal(result.summary["dropped"], 3)


def test_the_daemon_dies_during_a_call():
    daemon = ScriptedDaemon("ok", "hold")
    process = start("--json", *daemon.address, versions(4))
    daemon.wait_for("(call getVersion\n){2}")
    daemon.signal(signal.SIGKILL)
    result = Result(process.finish())
    equal(result.status, 3)
    equal(result.outcomes(), ["ok", "failed", "dropped", "dropped"])


def test_the_daemon_is_killed_at_any_moment():
    count = 20000
    standin = Standin()
    # Killed between two calls, nobody is there for the next one, which waits: hence the time limit.
    process = start("--json", "--timeout", "15", *standin.address, versions(count))
    process.wait_for(r'"seq":20,')
    standin.signal(signal.SIGKILL)
    result = Result(process.finish())
    equal(result.status, 3)
    equal(len(result.commands), count)
    equal(sum(result.summary[outcome] for outcome in OUTCOMES), count)
    result.ends_in_one_failure()


def test_the_daemon_is_stopped_and_goes_on():
    standin = Standin()
    standin.signal(signal.SIGSTOP)
    process = start(*standin.address, versions(3))
    process.wait_for(NO_ANSWER, err=True)
    standin.signal(signal.SIGCONT)
    finished = process.finish()
    equal(finished.status, 0, finished)
    assert "3 commands: 3 ok" in finished.out, finished


def test_the_daemon_is_stopped_for_ever():
    standin = Standin()
    standin.signal(signal.SIGSTOP)
    result = run(*standin.address, "--timeout", "2", versions(3))
    equal(result.status, 3)
    equal(result.outcomes(), ["failed", "dropped", "dropped"])


def test_the_time_runs_out_during_a_call():
    daemon = ScriptedDaemon("ok", "hold")
    result = run(*daemon.address, "--timeout", "2", versions(3))
    equal(result.status, 3)
    equal(result.outcomes(), ["ok", "failed", "dropped"])


harness.main()
