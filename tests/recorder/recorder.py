"""Runs the example with the flight recorder on and reads the file in the ways there are.

Usage: recorder.py CASE NORVCTL SKEIN SCRIPTED_DAEMON EXAMPLE
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import xml.dom.minidom

case, norvctl, skein, scripted_daemon, example = sys.argv[1:]
with open(example) as lines:
    commands = sum('"type"' in line for line in lines)
folder = tempfile.TemporaryDirectory()
trace = os.path.join(folder.name, "run.skein")


def run(*words, expect=0):
    done = subprocess.run(words, capture_output=True, text=True, timeout=60)
    assert done.returncode == expect, (words, done.returncode, done.stderr)
    return done.stdout


def record(*options):
    run(norvctl, "run", "--standin", "--quiet", *options, "--flight-recorder", trace, example,
        expect=2)
    return run(skein, "dump", trace).splitlines()


def check_dump():
    expect_every_command(record())


def expect_every_command(lines):
    for number in range(1, commands + 1):
        assert sum(f": announced seq={number} " in line for line in lines) == 1, number
        assert sum(f": ended seq={number} " in line for line in lines) == 1, number
    assert sum("outcome=refused" in line for line in lines) == 1
    assert any("Connecting to Bessd (" in line for line in lines)


def check_json():
    expect_valid_json(record())


def expect_valid_json(lines):
    """The JSON trace format: each event has what its phase asks for, slices follow one another."""
    target = os.path.join(folder.name, "run.json")
    run(skein, "export", "--format", "perfetto", trace, target)
    with open(target) as file:
        events = json.load(file)["traceEvents"]
    needed = {
        "M": {"name", "pid", "tid", "args"},
        "X": {"name", "cat", "pid", "tid", "ts", "dur", "args"},
        "C": {"name", "pid", "tid", "ts", "args"},
        "i": {"name", "cat", "pid", "tid", "ts", "s"},
        "s": {"name", "cat", "pid", "tid", "ts", "id"},
        "f": {"name", "cat", "pid", "tid", "ts", "id", "bp"},
    }
    for event in events:
        assert needed[event["ph"]] <= event.keys(), event
    slices = [event for event in events if event["ph"] == "X" and event["cat"] == "command"]
    assert [event["args"]["sequence"] for event in slices] == list(range(1, commands + 1))
    end = 0
    for event in slices:
        assert event["dur"] >= 0 and event["ts"] >= end - 0.001, event
        end = event["ts"] + event["dur"]
    depths = {event["name"]: event["args"]["commands"] for event in events if event["ph"] == "C"}
    assert len(depths) == 3 and set(depths.values()) == {0}, depths
    # An announcement is both a depth and a slice, with a flow to its service.
    others = [event for event in events if event["ph"] in "CXi" and event.get("cat") != "command"]
    assert len(others) == len(lines) + commands, (len(others), len(lines))
    for phase in "sf":
        assert {event["id"] for event in events if event["ph"] == phase} == set(range(1, commands + 1))


def check_ctf():
    if not shutil.which("babeltrace2"):
        print("babeltrace2 is not installed")
        sys.exit(77)
    expect_all_in_babeltrace2(record())


def expect_all_in_babeltrace2(lines):
    target = os.path.join(folder.name, "ctf")
    run(skein, "export", "--format", "ctf", trace, target)
    assert len(run("babeltrace2", target).splitlines()) == len(lines)


def check_demo():
    """What ./dev demo --flight-recorder FILE runs, read in every way; here nothing may be missing."""
    words = (norvctl, "run", "--standin", "--trace-first-batch", "--flight-recorder", trace, example)
    assert run(*words, expect=2).count("ok") >= commands - 1
    lines = run(skein, "dump", trace).splitlines()
    expect_every_command(lines)
    expect_valid_json(lines)
    assert shutil.which("babeltrace2"), "install babeltrace2, as ./dev test does"
    expect_all_in_babeltrace2(lines)


def check_svg():
    record()
    target = os.path.join(folder.name, "run.svg")
    run(skein, "export", "--format", "svg", trace, target)
    picture = xml.dom.minidom.parse(target)
    titles = [title.firstChild.data for title in picture.getElementsByTagName("title")]
    assert sum(", refused, " in title for title in titles) == 1, titles
    legend = [text.firstChild.data for text in picture.getElementsByTagName("text")]
    assert f"{commands - 1} ok" in legend and "1 refused" in legend, legend


def run_against(answers, *options):
    """Runs the example against a daemon with these answers; what norvctl said on standard error."""
    daemon = subprocess.Popen([scripted_daemon, *answers],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    port = daemon.stdout.readline().decode().split()[1]
    done = subprocess.run((norvctl, "run", "--host", "127.0.0.1", "--port", port, "--timeout", "30",
                           "--quiet", *options, "--flight-recorder", trace, example),
                          capture_output=True, text=True, timeout=60)
    daemon.communicate()
    assert done.returncode == 3, done
    return done.stderr


def check_failure():
    run_against(("ok", "ok", "ok", "status=14"))
    with open(trace + ".failure-1.json") as file:
        details = json.load(file)
    command = details["command"]
    assert command["seq"] == 4 and command["outcome"] == "failed", details
    assert details["grpc_code"] == 14 and details["time"].endswith("Z"), details
    assert "error_code: 14" in details["reason"] and command["type"] == "listDrivers", details
    frozen = run(skein, "dump", trace + ".failure-1").splitlines()
    assert any("Failure to process response: error_code: 14" in line for line in frozen)
    assert any(": ended seq=4 " in line and "outcome=failed" in line for line in frozen)
    assert not os.path.exists(trace + ".failure-2")


def check_copies():
    """A daemon that fails every time does not fill the disk."""
    said = run_against(["status=14"] * commands, "--on-failure", "continue",
                       "--flight-recorder-copies", "2", "--flight-recorder-size", "64KiB")
    copies = sorted(name for name in os.listdir(folder.name) if "failure" in name)
    assert copies == ["run.skein.failure-1", "run.skein.failure-1.json",
                      "run.skein.failure-2", "run.skein.failure-2.json"], copies
    assert said.count("is the last copy of this run") == 1, said


def check_previous():
    record()
    before = run(skein, "dump", trace)
    record()
    assert run(skein, "dump", trace + ".previous") == before
    assert run(skein, "dump", trace) != before


def check_refused():
    """What is no trace file is left alone, first of all the commands themselves."""
    words = [norvctl, "run", "--standin", "--flight-recorder"]
    own = os.path.join(folder.name, "commands.jsonl")
    shutil.copy(example, own)
    fifo = os.path.join(folder.name, "fifo")
    os.mkfifo(fifo)
    for path in own, fifo, folder.name:
        done = subprocess.run([*words, path, own], capture_output=True, text=True, timeout=60)
        assert done.returncode == 1 and done.stdout == "", (path, done)
        assert done.stderr.startswith(f"norvctl: cannot make the trace file {path}: "), done.stderr
        assert done.stderr.count("\n") == 1, done.stderr
    with open(own) as kept, open(example) as file:
        assert kept.read() == file.read()
    assert sorted(os.listdir(folder.name)) == ["commands.jsonl", "fifo"]


def check_live():
    """A file that another process writes is left alone, until that process is gone."""
    words = [norvctl, "run", "--standin", "--flight-recorder", trace]
    daemon = subprocess.Popen([scripted_daemon, "hold"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    port = daemon.stdout.readline().decode().split()[1]
    first = subprocess.Popen([norvctl, "run", "--host", "127.0.0.1", "--port", port,
                              "--flight-recorder", trace, example],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    while not os.path.exists(trace):
        assert first.poll() is None
    done = subprocess.run([*words, example], capture_output=True, text=True, timeout=60)
    assert done.returncode == 1 and f"process {first.pid} " in done.stderr, done
    assert os.listdir(folder.name) == ["run.skein"]
    first.kill()
    first.wait()
    daemon.kill()
    daemon.communicate()
    run(*words, example, expect=2)
    assert sorted(os.listdir(folder.name)) == ["run.skein", "run.skein.previous"]


def check_size():
    run(norvctl, "run", "--standin", "--quiet", "--flight-recorder", trace,
        "--flight-recorder-size", "64KiB", example, expect=2)
    assert os.path.getsize(trace) == 64 * 1024
    run(norvctl, "call", "--standin", "--flight-recorder", trace, "--flight-recorder-size", "20000",
        "getVersion")
    assert os.path.getsize(trace) == 20000
    assert any("ended seq=1 " in line for line in run(skein, "dump", trace).splitlines())


def check_bad_size():
    for size in ("1KiB", "3GiB", "0", "-5", "many", "4parsecs"):
        words = (norvctl, "run", "--standin", "--flight-recorder", trace,
                 "--flight-recorder-size", size, example)
        done = subprocess.run(words, capture_output=True, text=True, timeout=60)
        assert done.returncode == 1 and done.stdout == "", (size, done)
        assert "size" in done.stderr, (size, done.stderr)
        assert not os.path.exists(trace), size
    run(norvctl, "run", "--standin", "--flight-recorder-size", "1MiB", example, expect=1)


globals()["check_" + case]()
