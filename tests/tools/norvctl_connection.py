"""Why no answer comes: what a look beside the library finds, told once and again at the end."""

import json
import os
import socket
import signal

import harness
from harness import NORVCTL, Process, ScriptedDaemon, Standin, command, equal, free_port, norvctl, run, write_file


def told(address, pattern, *options):
    """Starts a run that gets no answer, waits for the reason on standard error, and ends it."""
    process = Process(NORVCTL, "run", *options, *address, write_file(command("getVersion")))
    process.wait_for(pattern, err=True)
    process.signal(signal.SIGINT)
    finished = process.finish()
    equal(finished.status, 130)
    return finished


def at(port):
    return ("--host", "127.0.0.1", "--port", str(port))


def test_nobody_listens():
    port = free_port()
    finished = told(at(port), f"no answer yet from 127.0.0.1:{port}: the connection is refused")
    equal(finished.err.count("no answer yet"), 1, finished)
    equal(finished.err.count(f"no answer from 127.0.0.1:{port}: the connection is refused"), 1, finished)


def test_a_short_time_limit_tells_why_too():
    port = free_port()
    for arguments in (["run", write_file(command("getVersion"))], ["call", "getVersion"]):
        finished = norvctl(*arguments, "--timeout", str(0.2 * harness.SLOWNESS), *at(port))
        equal(finished.status, 3)
        assert f"no answer from 127.0.0.1:{port}: the connection is refused" in finished.err, finished


def test_a_command_without_an_answer_is_not_called_sent():
    file = write_file(*[command("getVersion")] * 2)
    finished = norvctl("run", "--timeout", "2", *at(free_port()), file)
    equal(finished.status, 3)
    assert "1 failed, 0 undecodable, 1 dropped; 0 sent in " in finished.out, finished
    assert finished.out.endswith(" (0/s), 1 unanswered\n"), finished
    assert " us" not in finished.out, "a time limit is no latency"
    result = run("--timeout", "2", *at(free_port()), file)
    equal([result.summary[key] for key in ("sent", "unanswered", "dropped")], [0, 1, 1])
    result = run("--timeout", "2", *ScriptedDaemon("ok", "status=13").address, write_file(*[command("getVersion")] * 2))
    equal([result.summary[key] for key in ("sent", "unanswered", "failed")], [2, 0, 1])


def test_unknown_host():
    told(("--host", "nowhere.invalid"), "no answer yet from nowhere.invalid:10514: the host's name is not known")


def test_what_listens_speaks_no_http2():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        process = Process(NORVCTL, "run", *at(listener.getsockname()[1]), write_file(command("getVersion")))
        listener.settimeout(0.1)
        while "no answer yet" not in process.err:
            try:
                connection, _ = listener.accept()
                connection.sendall(b"220 mail.example ESMTP, go away\r\n")
            except socket.timeout:
                pass
            process._read(harness.time.monotonic() + 0.1)
        assert "does not speak HTTP/2" in process.err, process.err
        process.signal(signal.SIGINT)
        equal(process.finish().status, 130)


def test_a_stopped_daemon():
    standin = Standin()
    standin.signal(signal.SIGSTOP)
    told(standin.address, "says nothing; is the daemon stopped, or hanging")


def test_as_json():
    port = free_port()
    finished = told(at(port), '"event":"no answer yet"', "--json")
    event = json.loads(finished.err.splitlines()[0])
    equal(event["target"], f"127.0.0.1:{port}")
    equal(event["reason"], "refused")


def events(finished):
    """Of a run with --json, which says nothing else on standard error."""
    return [json.loads(line) for line in finished.err.splitlines()]


def test_words_at_the_end_as_json():
    port = free_port()
    file = write_file(*[command("getVersion")] * 2)
    finished = norvctl("run", "--json", "--timeout", "0.3", *at(port), file)
    equal(finished.status, 3, finished)
    last = [one for one in events(finished) if one["event"] == "no answer"]
    equal([(one["target"], one["reason"]) for one in last], [(f"127.0.0.1:{port}", "refused")], finished)
    equal(events(finished)[-1]["event"], "timed out", finished)
    summary = harness.Result(finished).summary
    assert "no answer before the time ran out: the connection is refused" in summary["failure"]["reason"], summary
    finished = norvctl("call", "--json", "--timeout", "0.3", *at(port), "getVersion")
    equal((finished.status, finished.out), (3, ""), finished)
    equal([(one["event"], one.get("reason")) for one in events(finished)], [("no answer", "refused"), ("failed", None)])


def test_what_stopped_a_run_as_json():
    daemon = ScriptedDaemon("status=14")
    finished = norvctl("run", "--json", *daemon.address, write_file(*[command("getVersion")] * 2))
    equal([one["event"] for one in events(finished)], ["failed", "stopped"], finished)
    assert "UNAVAILABLE: as the test told it" in events(finished)[0]["text"], finished
    finished = norvctl("run", "--json", *daemon.address, "-", input='{"type":"getVersion"}\nx\n')
    equal([one["event"] for one in events(finished)], ["bad input", "stopped"], finished)
    assert "standard input:2:" in events(finished)[0]["text"], finished


def test_a_silent_command_after_others():
    """A daemon that answers and hangs on one command is there, and that is said."""
    daemon = ScriptedDaemon("ok", "hold")
    process = Process(NORVCTL, "run", *daemon.address, write_file(*[command("getVersion")] * 2))
    process.wait_for("no answer yet from .*: the daemon is there and speaks HTTP/2", err=True)
    process.signal(signal.SIGINT)
    equal(process.finish().status, 130)


def test_a_call_that_gets_no_answer():
    port = free_port()
    finished = norvctl("call", *at(port), "--timeout", "2", "getVersion")
    equal((finished.status, finished.out), (3, ""), finished)
    assert "the connection is refused" in finished.err and f"failed at 127.0.0.1:{port}" in finished.err, finished


def test_loopback_goes_past_a_proxy():
    os.environ.pop("no_grpc_proxy", None)
    os.environ["http_proxy"] = f"http://127.0.0.1:{free_port()}"
    equal(run("--standin", "--timeout", "20", write_file(command("getVersion"))).status, 0)
    standin = Standin()
    for host in ("127.0.0.1", "localhost"):
        address = ("--host", host, "--port", standin.port)
        equal(run(*address, "--timeout", "20", write_file(command("getVersion"))).status, 0, host)


def test_every_loopback_goes_past_a_proxy():
    os.environ.pop("no_grpc_proxy", None)
    os.environ["http_proxy"] = f"http://127.0.0.1:{free_port()}"
    process = Process(harness.STANDIN, "--listen", "127.0.0.2:0")
    port = process.wait_for(r"listening on 127\.0\.0\.2:(\d+)\n").group(1)
    for arguments in (["run", "--timeout", "20", write_file(command("getVersion"))], ["show", "workers"], ["doctor"]):
        finished = norvctl(*arguments[:1], "--host", "127.0.0.2", "--port", port, *arguments[1:])
        equal(finished.status, 0, finished)


def test_a_name_that_begins_like_the_loopback_is_none():
    os.environ.pop("no_grpc_proxy", None)
    os.environ["http_proxy"] = f"http://127.0.0.1:{free_port()}"
    told(("--host", "127.example.invalid"), "calls go through a proxy")


def test_a_proxy_for_another_host_is_told():
    os.environ.pop("no_grpc_proxy", None)
    proxy = f"http://127.0.0.1:{free_port()}"
    os.environ["http_proxy"] = proxy
    told(("--host", "switch.invalid"), "calls go through a proxy, as the environment has http_proxy=" + proxy)


def test_an_address_of_ip_version_6():
    try:
        with socket.create_server(("::1", 0), family=socket.AF_INET6):
            pass
    except OSError:
        harness.skip("this machine has no ::1")
    process = Process(harness.STANDIN, "--listen", "[::1]:0")
    port = process.wait_for(r"listening on \[::1\]:(\d+)").group(1)
    for host in ("::1", "[::1]"):
        equal(run("--host", host, "--port", port, "--timeout", "20", write_file(command("getVersion"))).status, 0)


def test_the_environment_says_how_long_to_wait():
    file = write_file(command("getVersion"))
    os.environ["NORV_TIMEOUT"] = "0.2"
    equal(norvctl("run", *at(free_port()), file).status, 3)
    os.environ["NORV_TIMEOUT"] = "1000"
    equal(norvctl("run", *at(free_port()), "--timeout", "0.2", file).status, 3)
    os.environ["NORV_TIMEOUT"] = "soon"
    finished = norvctl("run", "--standin", file)
    equal(finished.status, 1)
    assert "--timeout = soon" in finished.err, finished


def test_the_environment_names_the_daemon():
    standin = Standin()
    os.environ["NORV_HOST"] = "127.0.0.1"
    os.environ["NORV_PORT"] = standin.port
    result = run("--timeout", "20", write_file(command("getVersion")))
    equal((result.status, result.summary["target"]), (0, f"127.0.0.1:{standin.port}"))
    equal(run("--standin", write_file(command("getVersion"))).status, 0)


def test_the_environment_names_several_daemons_and_the_standin_is_driven():
    os.environ["NORV_HOST"] = "a,b"
    equal(run("--standin", write_file(command("getVersion"))).status, 0)
    for verb in (["call", "getVersion"], ["show", "workers"], ["doctor"]):
        finished = norvctl(*verb, "--standin")
        equal(finished.status, 0, finished)


harness.main()
