"""Daemons that are absent, come late, hang, die or come back, and a person's ^C."""

import signal
import socket

import harness
from harness import (
    norvctl,
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


def unreachable(host, port):
    """Such an address is tried, not judged: the first command waits until the time runs out."""
    result = run("--host", host, "--port", str(port), "--timeout", "1", versions(3), patience=30)
    equal(result.status, 3)
    equal(result.outcomes(), ["failed", "dropped", "dropped"])
    equal(result.commands[0]["reason"], "no answer before the time ran out")


def test_empty_host():
    finished = norvctl("run", "--host", "", versions(3))
    equal(finished.status, 1, finished)
    assert "a host's name is empty" in finished.err, finished


def test_port_zero():
    unreachable("127.0.0.1", 0)


def test_highest_port():
    unreachable("127.0.0.1", 65535)


def test_a_listener_that_never_says_anything():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        address = ("--host", "127.0.0.1", "--port", str(listener.getsockname()[1]))
        process = start("--json", "--timeout", "3", *address, versions(2))
        listener.settimeout(harness.PATIENCE)
        connection, _ = listener.accept()
        with connection:
            connection.settimeout(harness.PATIENCE)
            # It speaks first, and in plain text.
            preface = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
            equal(connection.recv(len(preface), socket.MSG_WAITALL), preface)
            result = Result(process.finish())
    equal(result.status, 3)
    equal(result.outcomes(), ["failed", "dropped"])


def test_a_listener_that_hangs_up():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        address = ("--host", "127.0.0.1", "--port", str(listener.getsockname()[1]))
        process = start("--json", "--timeout", "3", *address, versions(2))
        listener.settimeout(harness.PATIENCE)
        listener.accept()[0].close()
        result = Result(process.finish())
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


def test_the_daemon_dies_and_is_started_again():
    """The command under way is lost, one more may be; the next daemon on the port gets the rest."""
    daemon = ScriptedDaemon("ok", "hold")
    options = ("--json", "--on-failure", "continue", "--timeout", str(harness.PATIENCE))
    process = start(*options, *daemon.address, versions(8))
    daemon.wait_for("(call getVersion\n){2}")
    daemon.signal(signal.SIGKILL)
    daemon.finish()
    Standin(daemon.port)
    result = Result(process.finish())
    equal(result.status, 3)
    outcomes = result.outcomes()
    equal(outcomes[:2], ["ok", "failed"])
    assert outcomes[2:].count("dropped") <= 1, outcomes
    equal(outcomes[2:].count("ok") + outcomes[2:].count("dropped"), 6, outcomes)
    equal(outcomes[-1], "ok")
    equal(result.commands[1]["status"], "UNAVAILABLE", result.commands[1])


def test_the_daemon_is_killed_at_any_moment():
    count = 20000
    standin = Standin()
    # Killed between two calls, nobody is there for the next one, which waits: hence the time limit.
    process = start("--json", "--timeout", "40", *standin.address, versions(count))
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
