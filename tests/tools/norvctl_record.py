"""Recording what crosses the wire, and replaying it."""

import base64
import json
import os
import shutil
import signal
import stat
import subprocess
import tempfile

import harness
from harness import NORVCTL, Process, ScriptedDaemon, command, equal, norvctl, run, write_file

FIRST_LIGHT = harness.SOURCES + "/examples/first-light.jsonl"
RECORDINGS = os.path.join(harness.SOURCES, "..", "shared", "recordings")


def recorded(source, *address):
    path = write_file(name="recorded.jsonl")
    run("--record", path, *address, source)
    return path


def lines_of(path):
    with open(path) as file:
        return [json.loads(line) for line in file]


def test_the_shape_of_a_recording():
    daemon = ScriptedDaemon("ok", "error=22", "garbage", "status=13")
    file = write_file(*[command("pauseAll")] * 3, command("createPort", "ports", name="a"), command("pauseAll", "ports"))
    rows = lines_of(recorded(file, *daemon.address))
    equal(len(rows), 4, "what was not sent is not recorded")
    equal([row["status"]["code"] for row in rows], [0, 0, 0, 13])
    equal(rows[0]["response"], {})
    equal(rows[1]["response"]["error"]["code"], 22)
    equal("response" in rows[2], False)
    equal(rows[3]["request"], {"name": "a"})
    equal(rows[3]["queue"], "ports")
    equal(rows[3]["status"]["message"], "as the test told it")
    assert all(row["time"].endswith("Z") for row in rows), rows


def mode_of(path):
    return stat.S_IMODE(os.stat(path).st_mode)


def test_a_recording_is_its_owners():
    path = write_file(name="private.jsonl")
    os.remove(path)
    run("--record", path, "--standin", write_file(command("getVersion")))
    equal(mode_of(path), 0o600)


def test_nothing_is_recorded_into_what_somebody_else_has_put_in_the_way():
    folder = tempfile.mkdtemp(dir=os.getcwd())
    target = write_file("of importance", name="target")
    link, theirs, pipe = (os.path.join(folder, name) for name in ("link", "theirs", "pipe"))
    for mode in (0o1777, 0o777):
        os.symlink(target, link)
        with open(theirs, "w") as file:
            file.write("of somebody")
        for path, kind in ((link, "link"), (theirs, "file")):
            harness.somebodys(path, mode)
            finished = norvctl("run", "--record", path, "--standin", write_file(command("getVersion")))
            equal(finished.status, 1, finished)
            equal(finished.err, f"norvctl: cannot record into {path}: {path} is a {kind} that somebody else has put "
                                "where everybody may write; remove it or name another\n")
        with open(target) as file, open(theirs) as second:
            equal((file.read(), second.read()), ("of importance\n", "of somebody"))
        os.remove(link)
        os.remove(theirs)
    # One's own link is followed.
    os.symlink(target, link)
    run("--record", link, "--standin", write_file(command("getVersion")))
    equal(len(lines_of(target)), 1)
    os.mkfifo(pipe)
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    run("--record", pipe, "--standin", write_file(command("getVersion")))
    equal(json.loads(os.read(reader, 65536))["type"], "getVersion")
    os.close(reader)
    shutil.rmtree(folder)


def test_an_update_keeps_the_mode_of_the_recording():
    path = recorded(write_file(command("pauseAll")), *ScriptedDaemon("error=22").address)
    os.chmod(path, 0o640)
    norvctl("replay", "--update", *ScriptedDaemon().address, path)
    equal(lines_of(path)[0]["response"], {})
    equal(mode_of(path), 0o640)


def test_nothing_is_updated_that_somebody_else_has_put_in_the_way():
    folder = tempfile.mkdtemp(dir=os.getcwd())
    target = recorded(write_file(command("pauseAll")), *ScriptedDaemon("error=22").address)
    link, theirs = os.path.join(folder, "link"), os.path.join(folder, "theirs")
    os.symlink(target, link)
    shutil.copy(target, theirs)
    with open(target) as file:
        before = file.read()
    for path, kind in ((link, "link"), (theirs, "file")):
        harness.somebodys(path)
        finished = norvctl("replay", "--update", *ScriptedDaemon().address, path)
        equal(finished.status, 1, finished)
        assert finished.err.endswith(f"norvctl: cannot update {path}: {path} is a {kind} that somebody else has put where "
                                     "everybody may write; remove it or name another\n"), finished
        with open(path) as file:
            equal(file.read(), before)
    os.remove(link)
    # One's own link is followed, and stays one.
    os.symlink(target, link)
    norvctl("replay", "--update", *ScriptedDaemon().address, link)
    equal(lines_of(target)[0]["response"], {})
    assert os.path.islink(link)
    shutil.rmtree(folder)


def test_a_recording_can_be_run_and_replayed():
    path = recorded(FIRST_LIGHT, "--standin")
    equal(len(lines_of(path)), 64)
    equal(run("--standin", path).summary["ok"], 63)
    finished = norvctl("replay", "--standin", path)
    equal(finished.status, 0, finished)
    assert "64 calls: 64 as recorded, 0 different" in finished.out, finished


def test_bytes_that_json_cannot_show():
    # An argument of a type that nobody knows.
    raw = base64.b64encode(b"\x0a\x01a\x12\x04Sink\x1a\x15\x0a\x10example.com/lost\x12\x01x").decode()
    file = write_file({"type": "createModule", "request_raw": raw})
    rows = lines_of(recorded(file, "--standin"))
    equal(rows[0]["request_raw"], raw)
    equal("request" in rows[0], False)


def test_differences_are_told():
    path = write_file(
        {"type": "getVersion", "request": {}, "response": {"version": "another"}, "status": {"code": 0, "message": ""}},
        {"type": "listPorts", "request": {}, "response": {"ports": [{"name": "a"}]}, "status": {"code": 0, "message": ""}},
        {"type": "pauseAll", "request": {}, "status": {"code": 12, "message": ""}},
        {"type": "resetAll", "request": {}, "status": {"code": 14, "message": "gone"}},
    )
    finished = norvctl("replay", "--standin", path)
    equal(finished.status, 2, finished)
    assert path + ":2: listPorts" in finished.out, finished
    assert "response.ports: recorded [" in finished.out and ", now nothing" in finished.out, finished
    assert path + ":3: pauseAll" in finished.out, finished
    assert "status: recorded UNIMPLEMENTED, now OK" in finished.out, finished
    assert "3 calls: 1 as recorded, 2 different; 1 left out" in finished.out, finished
    rows = [json.loads(line) for line in norvctl("replay", "--json", "--standin", path).out.splitlines()]
    equal([row.get("line") for row in rows], [2, 3, None])
    equal(rows[-1]["summary"]["different"], 2)


def test_counters_of_a_port_may_differ_and_their_number_may_not():
    made = command("createPort", name="p", driver="UnixSocketPort", arg={"@type": "type.googleapis.com/bess.pb.UnixSocketPortArg", "path": "@norvctl-test"})
    path = recorded(write_file(made, command("getPortStats", name="p")), "--standin")
    rows = lines_of(path)
    equal(rows[0]["status"]["code"], 0)
    stats = rows[1]["response"]
    equal(len(stats["inc"]["actualHist"]), 65, stats)
    stats["inc"].update(packets="7", dropped="8", bytes="9", actualHist=["3"] * 65)
    stats["timestamp"] = 1
    del stats["out"]["diffHist"][64]

    def differences():
        with open(path, "w") as file:
            file.write("".join(json.dumps(row) + "\n" for row in rows))
        finished = norvctl("replay", "--json", "--standin", path)
        return [row["differences"] for row in map(json.loads, finished.out.splitlines()) if "differences" in row]

    told = differences()
    equal(len(told), 1, told)
    equal([text.split(":")[0] for text in told[0]], ["response.out.diffHist"])
    stats["out"]["diffHist"].append("5")
    equal(differences(), [])


def test_a_line_that_is_no_recordings():
    for line in ('{"type":"getVersion","status":3}', '{"type":"getVersion","status":{"code":"x"}}',
                 '{"type":"getVersion","response_raw":3,"status":{}}', "x"):
        path = write_file('{"type":"getVersion"}', line)
        finished = norvctl("replay", "--standin", path)
        equal(finished.status, 1, finished)
        assert finished.err.startswith(f"norvctl: {path}:2:"), finished


def test_a_replay_to_several_hosts():
    path = recorded(write_file(command("getVersion"), command("pauseAll")), "--standin")
    daemon = ScriptedDaemon("ok", "error=22")
    hosts = ["--host", "127.0.0.1,localhost", "--port", daemon.port]
    finished = norvctl("replay", *hosts, "--timeout", "20", path)
    equal(finished.status, 2, finished)
    assert "2 calls, " in finished.out and "different" in finished.out, finished
    rows = [json.loads(line) for line in norvctl("replay", "--json", *hosts, path).out.splitlines()]
    equal([(row["host"], row["summary"]["calls"]) for row in rows], [("127.0.0.1", 2), ("localhost", 2)])
    finished = norvctl("replay", "--update", *hosts, path)
    equal(finished.status, 1, finished)
    assert "--update takes over the answers of one host" in finished.err, finished


def test_update_takes_the_answers_over():
    path = write_file(
        {"type": "getVersion", "request": {}, "response": {"version": "another"}, "status": {"code": 0, "message": ""}},
        {"type": "pauseAll", "request": {}, "status": {"code": 12, "message": ""}, "situation": "kept"},
    )
    equal(norvctl("replay", "--update", "--standin", path).status, 2)
    rows = lines_of(path)
    equal(rows[0]["response"]["version"], "another", "what may differ stays")
    equal(rows[1]["status"], {"code": 0, "message": ""})
    equal(rows[1]["situation"], "kept")
    equal(norvctl("replay", "--standin", path).status, 0)


def test_an_update_writes_only_where_something_differs():
    path = recorded(write_file(command("getVersion")), "--standin")
    before = os.stat(path)
    equal(norvctl("replay", "--update", "--standin", path).status, 0)
    after = os.stat(path)
    equal((after.st_ino, after.st_mtime_ns), (before.st_ino, before.st_mtime_ns))


def test_an_update_touches_no_other_file():
    """Neither one beside it, nor a link to it."""
    path = recorded(write_file(command("pauseAll")), *ScriptedDaemon("error=22").address)
    beside = write_file("somebody else's", name="recorded.jsonl.new")
    link = write_file(name="link.jsonl")
    os.remove(link)
    os.symlink(path, link)
    equal(norvctl("replay", "--update", *ScriptedDaemon().address, link).status, 2)
    equal(lines_of(path)[0]["response"], {})
    assert os.path.islink(link), link
    with open(beside) as file:
        equal(file.read(), "somebody else's\n")
    equal({name for name in os.listdir(".") if name.startswith(os.path.basename(path))},
          {os.path.basename(path), os.path.basename(beside)})


def test_an_update_of_standard_input():
    folder = tempfile.mkdtemp(dir=os.getcwd())
    os.chdir(folder)
    line = json.dumps({"type": "pauseAll", "request": {}, "status": {"code": 12, "message": ""}})
    finished = norvctl("replay", "--update", "--standin", "-", input=line + "\n")
    equal((finished.status, finished.out), (1, ""), finished)
    assert "give files" in finished.err, finished
    equal(os.listdir(folder), [])


def test_a_command_that_was_not_answered():
    path = write_file(name="recorded.jsonl")
    daemon = ScriptedDaemon("ok", "hold")
    result = run("--record", path, *daemon.address, "--timeout", "2", write_file(*[command("pauseAll")] * 3))
    equal([result.summary[key] for key in ("ok", "failed", "dropped")], [1, 1, 1])
    rows = lines_of(path)
    equal(len(rows), 2)
    equal(("status" in rows[1], "response" in rows[1]), (False, False))
    equal(rows[1]["situation"], "no answer before the time ran out")
    finished = norvctl("replay", "--standin", path)
    equal(finished.status, 0, finished)
    assert "1 calls: 1 as recorded, 0 different; 1 left out" in finished.out, finished
    equal(run("--standin", path).summary["ok"], 2)


def test_a_file_without_answers_says_so():
    path = write_file(command("getVersion"))
    finished = norvctl("replay", "--standin", path)
    equal(finished.status, 0, finished)
    assert "0 calls" in finished.out and "no line has an answer to compare" in finished.err, finished


def test_an_interrupted_replay():
    answered = {"type": "pauseAll", "request": {}, "status": {"code": 12, "message": ""}}
    path = write_file(*[answered] * 4)
    with open(path) as file:
        before = file.read()
    for number in (signal.SIGINT, signal.SIGTERM):
        daemon = ScriptedDaemon("ok", "hold")
        process = Process(NORVCTL, "replay", "--update", "--timeout", "0", *daemon.address, path)
        daemon.wait_for("(call pauseAll\n){2}")
        process.signal(number)
        finished = process.finish()
        equal(finished.status, 128 + number, finished)
        assert "1 calls: 0 as recorded, 1 different; 0 left out" in finished.out, finished
        with open(path) as file:
            equal(file.read(), before, "nothing is updated")


def test_an_interrupted_replay_of_a_pipe():
    process = Process(NORVCTL, "replay", "--json", "--standin", "-", stdin=subprocess.PIPE)
    process.popen.stdin.write(b'{"type":"pauseAll","status":{"code":12,"message":""}}\n')
    process.popen.stdin.flush()
    process.wait_for('"line":1')
    process.signal(signal.SIGINT)
    finished = process.finish()
    equal(finished.status, 130, finished)
    summary = json.loads(finished.out.splitlines()[-1])["summary"]
    equal((summary["calls"], summary["ended"]), (1, "interrupted"))


def test_differences_are_made_safe():
    version = "a\u0085\u009b2J\u202eb"
    path = write_file({"type": "listMclass", "request": {}, "response": {"names": [version], "\u001b[2J": 1},
                       "status": {"code": 0, "message": ""}})
    finished = norvctl("replay", *ScriptedDaemon().address, path)
    equal(finished.status, 2, finished)
    assert r"a\u0085\u009b2J\u202eb" in finished.out, finished
    told = json.loads(norvctl("replay", "--json", *ScriptedDaemon().address, path).out.splitlines()[0])
    for text in [finished.out, *told["differences"]]:
        assert not set("\x1b\x85\x9b\u202e") & set(text), text


def test_a_long_difference_is_cut_between_two_characters():
    path = write_file({"type": "listMclass", "request": {}, "response": {"names": ["x" + "ü" * 300]},
                       "status": {"code": 0, "message": ""}})
    finished = norvctl("replay", *ScriptedDaemon().address, path)
    assert "ü..., now nothing" in finished.out, finished


def test_a_daemon_that_is_gone_during_a_replay():
    path = recorded(FIRST_LIGHT, "--standin")
    finished = norvctl("replay", "--host", "127.0.0.1", "--port", str(harness.free_port()), path)
    equal(finished.status, 3, finished)
    assert "the connection is refused" in finished.err, finished


def test_a_reply_that_does_not_decode_is_a_difference():
    path = write_file({"type": "listPorts", "request": {}, "response": {}, "status": {"code": 0, "message": ""}})
    finished = norvctl("replay", *ScriptedDaemon("garbage").address, path)
    equal(finished.status, 2)
    assert "does not decode" in finished.out, finished


def test_the_recordings_of_a_daemon():
    """What the stand-in answers otherwise is known to be little."""
    if not os.path.isdir(RECORDINGS):
        harness.skip(f"there are no recordings at {RECORDINGS}")
    calls = different = 0
    for name in sorted(os.listdir(RECORDINGS)):
        if not name.endswith(".jsonl") or "kill" in name:
            continue
        finished = norvctl("replay", "--standin", "--json", os.path.join(RECORDINGS, name))
        assert finished.status in (0, 2), finished
        summary = json.loads(finished.out.splitlines()[-1])["summary"]
        calls += summary["calls"]
        different += summary["different"]
    print(f"{different} of {calls} replies differ")
    assert calls > 1000 and different < calls / 10, (different, calls)


harness.main()
