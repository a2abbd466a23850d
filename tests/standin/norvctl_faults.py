"""Every kind of fault on demand, by what becomes of norvctl's commands."""

import os
import subprocess
import sys

sys.path.insert(0, os.environ["SOURCES"] + "/tests/tools")

import harness
from harness import STANDIN, Process, command, equal, free_port, run, write_file


def ctl(*words):
    return subprocess.run(
        [STANDIN, "ctl", *words], capture_output=True, text=True, timeout=60
    )


def refusal(*words):
    """The one line that ctl refuses the words with."""
    finished = ctl(*words)
    equal(finished.returncode, 1, finished)
    equal(finished.stdout, "")
    equal(len(finished.stderr.splitlines()), 1, finished)
    return finished.stderr


class Faulty(Process):
    """A stand-in with faults, and with its control service."""

    def __init__(self, *rules, options=()):
        faults = [word for rule in rules for word in ("--fault", rule)]
        super().__init__(
            STANDIN, "--listen=127.0.0.1:0", "--control=127.0.0.1:0", *faults, *options
        )
        self.port = self.wait_for(r"listening on 127\.0\.0\.1:(\d+)\n").group(1)
        self.control = self.wait_for(r"controlled at (\S+)\n").group(1)
        self.address = ("--host", "127.0.0.1", "--port", self.port)

    def ctl(self, *words):
        finished = ctl(self.control, *words)
        equal(finished.returncode, 0, finished)
        return finished.stdout

    def refusal(self, *words):
        return refusal(self.control, *words)

    def modules(self):
        result = run(*self.address, write_file(command("listModules"), name="list.jsonl"))
        return [m["name"] for m in result.commands[0]["response"].get("modules", [])]


SOURCE = command("createModule", name="src", mclass="Source")


def outcomes(daemon, *commands, options=()):
    result = run(*daemon.address, *options, write_file(*commands))
    return [c["outcome"] for c in result.commands]


def one(daemon, *options):
    """What becomes of the creation of a module."""
    result = run(*daemon.address, *options, write_file(SOURCE))
    return result.commands[0]


def test_a_delay_is_waited_for():
    daemon = Faulty("kind=delay rpc=createModule ms=50 max-ms=60")
    result = one(daemon)
    equal(result["outcome"], "ok")
    assert daemon.ctl().startswith("1 of 1  kind=delay"), daemon.ctl()


def test_a_delay_beyond_the_patience_gives_the_command_up():
    daemon = Faulty("kind=delay rpc=createModule ms=60000")
    result = run(*daemon.address, "--timeout", "1", write_file(SOURCE))
    equal(result.status, 3)


def test_a_delay_is_spread_up_to_its_longest():
    daemon = Faulty("kind=delay rpc=createModule ms=0 max-ms=4000000000 seed=1")
    result = run(*daemon.address, "--timeout", "1", write_file(SOURCE))
    equal(result.status, 3)


def test_the_pace_changes_while_it_runs():
    daemon = Faulty(options=("--latency", "60000"))
    equal(daemon.ctl("pace"), "latency 60000 ms, rate unlimited\n")
    result = run(*daemon.address, "--timeout", "1", write_file(SOURCE))
    equal(result.status, 3)
    equal(daemon.ctl("latency", "0..1"), "latency 0..1 ms, rate unlimited\n")
    equal(daemon.ctl("rate", "500"), "latency 0..1 ms, rate 500 per second\n")
    equal(run(*daemon.address, write_file(command("getVersion"))).status, 0)


def test_a_status_fails_the_command_without_effect():
    daemon = Faulty("kind=status rpc=createModule code=13 text=gone for good")
    result = one(daemon)
    equal([result[key] for key in ("outcome", "status", "reason")], ["failed", "INTERNAL", "gone for good"])
    equal(daemon.modules(), [])


def test_an_error_refuses_the_command_without_effect():
    daemon = Faulty("kind=error rpc=createModule code=28 text=no room")
    result = one(daemon)
    equal(result["outcome"], "refused")
    equal(result["response"]["error"], {"code": 28, "errmsg": "no room"})
    equal(daemon.modules(), [])


def test_an_undecodable_reply_is_told_and_had_its_effect():
    daemon = Faulty("kind=undecodable rpc=createModule")
    equal(one(daemon)["outcome"], "undecodable")
    equal(daemon.modules(), ["src"])


def test_a_reply_that_is_too_large_fails_the_command_and_had_its_effect():
    daemon = Faulty("kind=too-large rpc=createModule")
    result = one(daemon)
    equal([result[key] for key in ("outcome", "status")], ["failed", "RESOURCE_EXHAUSTED"])
    equal(daemon.modules(), ["src"])


def test_no_reply_is_waited_for_in_vain():
    daemon = Faulty("kind=no-reply rpc=createModule")
    result = run(*daemon.address, "--timeout", "1", write_file(SOURCE))
    equal(result.status, 3)
    equal(daemon.modules(), ["src"])


def test_a_hang_up_before_the_effect_fails_the_command():
    daemon = Faulty("kind=hang-up rpc=createModule")
    result = one(daemon)
    equal([result[key] for key in ("outcome", "status")], ["failed", "UNAVAILABLE"])
    equal(daemon.modules(), [])


def test_a_hang_up_after_the_effect_fails_the_command():
    daemon = Faulty("kind=hang-up-after rpc=createModule")
    equal(one(daemon)["outcome"], "failed")
    equal(daemon.modules(), ["src"])


def test_an_exit_ends_the_daemon_on_the_module_named():
    daemon = Faulty("kind=exit rpc=createModule name=poison")
    equal(one(daemon)["outcome"], "ok")
    poison = command("createModule", name="poison", mclass="Source")
    equal(outcomes(daemon, poison), ["failed"])
    equal(daemon.popen.wait(60), 1)


def test_a_daemon_that_stopped_accepting_serves_whom_it_has():
    daemon = Faulty("kind=stop-accepting rpc=createModule")
    equal(outcomes(daemon, SOURCE, command("getVersion")), ["ok", "ok"])
    late = run(*daemon.address, "--timeout", "1", write_file(command("getVersion")))
    equal(late.status, 3)  # norvctl waits for a daemon that is not there.


def test_only_the_nth_call_is_struck():
    daemon = Faulty("kind=error rpc=getVersion nth=2")
    equal(outcomes(daemon, *[command("getVersion")] * 4), ["ok", "refused", "ok", "ok"])


def test_every_nth_call_is_struck():
    daemon = Faulty("kind=error rpc=* every=2")
    equal(outcomes(daemon, *[command("getVersion")] * 4), ["ok", "refused"] * 2)


def test_chance_repeats_itself_with_its_seed():
    rule = "kind=error rpc=getVersion probability=0.5 seed=7"
    first = outcomes(Faulty(rule), *[command("getVersion")] * 40)
    equal(outcomes(Faulty(rule), *[command("getVersion")] * 40), first)
    assert 0 < first.count("refused") < 40, first


def test_faults_come_and_go_at_run_time():
    daemon = Faulty()
    equal(outcomes(daemon, command("getVersion")), ["ok"])
    daemon.ctl("add", "kind=error rpc=getVersion")
    equal(outcomes(daemon, command("getVersion")), ["refused"])
    daemon.ctl("clear")
    equal(outcomes(daemon, command("getVersion")), ["ok"])
    equal(daemon.ctl("faults"), "")


def test_faults_come_from_a_file():
    file = write_file("# a comment", "", "kind=error rpc=getVersion", name="faults")
    daemon = Faulty(options=("--faults", file))
    equal(outcomes(daemon, command("getVersion")), ["refused"])


def test_a_file_of_faults_may_be_indented_and_of_another_system():
    file = write_file("  # a comment\r", "\r", "\t kind=error rpc=getVersion \r", name="faults")
    daemon = Faulty(options=("--faults", file))
    equal(outcomes(daemon, command("getVersion")), ["refused"])
    equal(daemon.ctl("faults"), "1 of 1  kind=error rpc=getVersion\n")


def test_a_file_of_faults_is_refused_with_its_line():
    file = write_file("# a comment", "kind=exit", "", "kind=delay", name="faults")
    finished = Process(STANDIN, "--listen=127.0.0.1:0", "--faults", file).finish()
    equal(finished.status, 1)
    assert finished.err.startswith(f"bessd-standin: {file}:4: a delay needs"), finished
    equal(len(finished.err.splitlines()), 1)


def test_a_fault_that_is_none_is_refused_with_what_there_is():
    finished = Process(STANDIN, "--listen=127.0.0.1:0", "--fault", "kind=nope").finish()
    equal(finished.status, 1)
    assert "stop-accepting" in finished.err, finished
    equal(len(finished.err.splitlines()), 1)


def test_a_dumped_state_is_loaded_by_another_daemon():
    daemon = Faulty()
    equal(one(daemon)["outcome"], "ok")
    file = write_file(name="state.jsonl")
    daemon.ctl("dump", file)
    other = Faulty(options=("--load", file))
    equal(other.modules(), ["src"])
    # A dump is a command file, too.
    third = Faulty()
    equal(run(*third.address, file).status, 0)
    equal(third.modules(), ["src"])
    # At run time it takes the place of what was there.
    fourth = Faulty()
    run(*fourth.address, write_file(command("createModule", name="gone", mclass="Sink"), name="other.jsonl"))
    fourth.ctl("load", file)
    equal(fourth.modules(), ["src"])


def test_a_state_is_not_loaded_where_it_would_be_another():
    daemon = Faulty(options=("--cores", "8"))
    equal(outcomes(daemon, command("addWorker", wid=0, core=3)), ["ok"])
    file = write_file(name="state.jsonl")
    daemon.ctl("dump", file)
    finished = Process(STANDIN, "--listen=127.0.0.1:0", "--load", file).finish()
    equal([finished.status, finished.out], [1, ""])
    equal(len(finished.err.splitlines()), 1)
    assert "line 1 of the state was taken where it was dumped" in finished.err, finished
    Faulty(options=("--cores", "8", "--load", file))
    other = Faulty()
    equal(one(other)["outcome"], "ok")
    assert "Invalid core 3" in other.refusal("load", file)
    equal(other.modules(), ["src"])


def test_ctl_says_what_is_wrong():
    log = write_file(name="log")
    daemon = Faulty(options=("--log", log))
    outcomes(daemon, SOURCE)
    bytes_file = write_file(name="bytes")
    with open(bytes_file, "wb") as file:
        file.write(b"\xff\xfe\n")
    for words, text in [
        (("fly",), "ctl takes ADDRESS and one of: faults, add RULE"),
        (("add",), "ctl takes ADDRESS and one of"),
        (("faults", "more"), "ctl takes ADDRESS and one of"),
        (("load",), "ctl takes ADDRESS and one of"),
        (("add", "kind=exit", "kind=nope"), "no kind of fault is called 'nope'"),
        (("latency", "x"), "'x' is no latency"),
        (("rate", "x"), "'x' is no number"),
        (("rate", "-1"), "a rate is answers per second"),
        (("dump", "/nowhere/at/all"), "cannot write the dump to /nowhere/at/all: No such file"),
        (("load", "/nowhere/at/all"), "cannot read /nowhere/at/all"),
        (("load", bytes_file), "line 1 of the state is no object of JSON"),
        (("load", log), "line 1 of the state is of a log"),
    ]:
        said = daemon.refusal(*words)
        assert said.startswith("bessd-standin: ") and text in said, (words, said)
    equal(daemon.ctl("faults"), "")
    equal(daemon.modules(), ["src"])
    port = free_port()
    assert "nothing answers at" in refusal(f"127.0.0.1:{port}", "faults")
    assert "cannot be controlled" in refusal(f"127.0.0.1:{daemon.port}", "faults")


def test_a_rule_whose_text_is_no_text_is_told_so():
    finished = subprocess.run(
        [STANDIN, "ctl", Faulty().control, "add", b"kind=error text=\xff"], capture_output=True, timeout=60
    )
    equal(finished.returncode, 1, finished)
    assert finished.stderr.endswith(b"and said no more\n"), finished


def test_a_rate_is_kept_from_the_beginning():
    daemon = Faulty(options=("--rate", "500"))
    equal(daemon.ctl("pace"), "latency 0 ms, rate 500 per second\n")


def test_a_log_may_be_the_error_stream():
    daemon = Faulty(options=("--log", "-"))
    equal(outcomes(daemon, SOURCE), ["ok"])
    daemon.wait_for(r'"type":"createModule","request":\{"name":"src","mclass":"Source"\}.*\n', err=True)


def test_the_call_that_ends_the_daemon_is_in_its_log():
    file = write_file(name="log")
    daemon = Faulty("kind=exit rpc=createModule", options=("--log", file))
    equal(outcomes(daemon, SOURCE), ["failed"])
    equal(daemon.popen.wait(60), 1)
    with open(file) as log:
        assert '"fault":"kind=exit rpc=createModule"' in log.read()


def test_a_log_has_a_line_for_each_call():
    file = write_file(name="log")
    daemon = Faulty("kind=error rpc=getVersion code=7", options=("--log", file))
    outcomes(daemon, SOURCE, command("getVersion"))
    import json

    with open(file) as log:
        lines = [json.loads(line) for line in log]
    equal([line["type"] for line in lines], ["createModule", "getVersion"])
    equal(lines[0]["request"], {"name": "src", "mclass": "Source"})
    equal(lines[1]["error"]["code"], 7)
    assert lines[1]["fault"].startswith("kind=error"), lines


harness.main()
