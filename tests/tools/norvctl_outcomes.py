"""What became of each command: the outcomes, the two forms of report, the exit status."""

import json

import harness
from harness import ScriptedDaemon, Standin, command, equal, norvctl, run, write_file

FIRST_LIGHT = harness.SOURCES + "/examples/first-light.jsonl"


def first_light_types():
    with open(FIRST_LIGHT) as file:
        lines = [json.loads(line) for line in file if line.strip()]
    return [line["type"] for line in lines if "type" in line]


def versions(count, daemon, *options):
    """Runs so many getVersion commands against a daemon."""
    file = write_file(*[command("getVersion")] * count)
    return run(*daemon.address, *options, file)


def test_first_light_in_the_embedded_standin():
    result = run("--standin", FIRST_LIGHT)
    equal(result.status, 2)
    equal((result.summary["ok"], result.summary["refused"]), (63, 1))
    equal(len(result.commands), 64)
    equal(sorted(result.types()), sorted(first_light_types()))
    assert result.summary["seconds"] > 0 and result.summary["rate"] > 0, result.summary


def test_first_light_for_a_person():
    finished = norvctl("run", "--standin", FIRST_LIGHT)
    equal(finished.status, 2)
    lines = finished.out.splitlines()
    equal(len(lines), 65, finished)
    refused = [line for line in lines if " refused " in line]
    assert "EINVAL: must be a power of 2" in refused[0], finished
    assert lines[-1].startswith(
        "64 commands: 63 ok, 1 refused, 0 failed, 0 undecodable, 0 dropped; 64 sent in "
    ), finished


def test_a_daemon_of_its_own_gives_the_same():
    standin = Standin()
    apart = run(*standin.address, FIRST_LIGHT)
    inside = run("--standin", FIRST_LIGHT)
    equal(apart.status, 2)
    for key in ("type", "queue", "outcome"):
        equal(apart.column(key), inside.column(key))
    equal(apart.error_codes(), inside.error_codes())


def test_all_ok():
    result = versions(3, ScriptedDaemon())
    equal(result.status, 0)
    equal(result.outcomes(), ["ok"] * 3)


def test_refused_goes_on():
    file = write_file(command("resetAll"), command("pauseAll"), command("getVersion"))
    result = run(*ScriptedDaemon("ok", "error=16").address, file)
    equal(result.status, 2)
    equal(result.outcomes(), ["ok", "refused", "ok"])
    equal(
        result.commands[1]["response"],
        {"error": {"code": 16, "errmsg": "as the test told it"}},
    )


def test_undecodable_goes_on():
    result = versions(3, ScriptedDaemon("ok", "garbage"))
    equal(result.status, 3)
    equal(result.outcomes(), ["ok", "undecodable", "ok"])


def test_undecodable_last_does_not_hang():
    result = versions(2, ScriptedDaemon("ok", "garbage"))
    equal(result.status, 3)
    equal(result.outcomes(), ["ok", "undecodable"])


def test_failed_stops():
    daemon = ScriptedDaemon("ok", "status=14")
    result = versions(5, daemon)
    equal(result.status, 3)
    equal(result.outcomes(), ["ok", "failed", "dropped", "dropped", "dropped"])
    assert result.commands[1]["reason"], result.commands[1]
    equal(len(daemon.calls()), 2, "nothing is sent after the failure")


def test_failed_while_announcing_keeps_the_order():
    """Batches announced after the failure are discarded before those that wait already."""
    daemon = ScriptedDaemon("status=14")
    lines = ['{"type":"getVersion"}', '{"announce":"main"}'] * 20000
    result = run(*daemon.address, write_file(*lines))
    equal(result.status, 3)
    equal(result.outcomes(), ["failed"] + ["dropped"] * 19999)


def test_failed_tells_how_to_go_on():
    file = write_file(command("getVersion"), command("getVersion"))
    finished = norvctl("run", *ScriptedDaemon("status=14").address, file)
    equal(finished.status, 3)
    assert "--on-failure continue" in finished.err, finished


def test_failed_and_continued():
    daemon = ScriptedDaemon("ok", "status=14")
    result = versions(6, daemon, "--on-failure", "continue")
    equal(result.status, 3)
    outcomes = result.outcomes()
    equal(outcomes[:2], ["ok", "failed"])
    equal(outcomes[-1], "ok")
    # The worker may have taken one more command before it saw the flag; that one is lost.
    assert outcomes[2:].count("ok") >= 3 and outcomes[2:].count("dropped") <= 1, outcomes
    equal(len(daemon.calls()), result.summary["sent"])


def test_failed_twice_and_continued():
    daemon = ScriptedDaemon("status=14", "ok", "status=2")
    result = versions(12, daemon, "--on-failure", "continue")
    equal(result.status, 3)
    equal(result.summary["failed"], 2)
    assert result.summary["dropped"] <= 2, result.summary
    equal(len(daemon.calls()), result.summary["sent"])


def test_reply_above_the_limit_fails():
    result = versions(2, ScriptedDaemon(f"big={5 << 20}"))
    equal(result.status, 3)
    equal(result.outcomes(), ["failed", "dropped"])


def test_reply_below_the_limit_is_whole():
    result = versions(1, ScriptedDaemon(f"big={3 << 20}"))
    equal(result.status, 0)
    equal(len(result.commands[0]["response"]["version"]), 3 << 20)


def test_every_kind_in_one_run():
    file = write_file(*[command("pauseAll")] * 6)
    daemon = ScriptedDaemon("ok", "error=22", "garbage", "ok", "status=13")
    result = run(*daemon.address, file)
    equal(result.status, 3)
    equal(result.outcomes(), ["ok", "refused", "undecodable", "ok", "failed", "dropped"])


def test_quiet_shows_what_is_not_ok():
    file = write_file(*[command("pauseAll")] * 3)
    finished = norvctl("run", "--quiet", *ScriptedDaemon("ok", "error=22").address, file)
    equal(finished.status, 2)
    lines = finished.out.splitlines()
    equal(len(lines), 2, finished)
    assert " refused " in lines[0] and "EINVAL" in lines[0], finished


def test_kill_bess():
    standin = Standin()
    result = run(*standin.address, write_file(command("getVersion"), command("killBess")))
    equal(result.status, 0)
    equal(result.outcomes(), ["ok", "ok"])
    equal(standin.finish().status, 0, "the daemon ends")


def test_after_kill_bess_answers_cease():
    standin = Standin()
    # The daemon may answer a few more before it ends.
    file = write_file(command("killBess"), *[command("getVersion")] * 5000)
    result = run(*standin.address, "--timeout", "10", file)
    equal(result.status, 3)
    equal(result.commands[0]["outcome"], "ok")
    result.ends_in_one_failure()


def test_no_commands():
    result = run("--standin", write_file())
    equal(result.status, 0)
    equal(result.commands, [])
    equal(result.summary["sent"], 0)


harness.main()
