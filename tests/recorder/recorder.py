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


def record():
    run(norvctl, "run", "--standin", "--quiet", "--flight-recorder", trace, example, expect=2)
    return run(skein, "dump", trace).splitlines()


def check_dump():
    lines = record()
    for number in range(1, commands + 1):
        assert sum(f": announced seq={number} " in line for line in lines) == 1, number
        assert sum(f": ended seq={number} " in line for line in lines) == 1, number
    assert sum("outcome=refused" in line for line in lines) == 1
    assert any("Connecting to Bessd (" in line for line in lines)


def check_json():
    """The JSON trace format: each event has what its phase asks for, slices follow one another."""
    lines = record()
    target = os.path.join(folder.name, "run.json")
    run(skein, "export", "--format", "perfetto", trace, target)
    with open(target) as file:
        events = json.load(file)["traceEvents"]
    needed = {
        "M": {"name", "pid", "tid", "args"},
        "X": {"name", "cat", "pid", "tid", "ts", "dur", "args"},
        "C": {"name", "pid", "tid", "ts", "args"},
        "i": {"name", "cat", "pid", "tid", "ts", "s"},
    }
    for event in events:
        assert needed[event["ph"]] <= event.keys(), event
    slices = [event for event in events if event["ph"] == "X"]
    assert [event["args"]["sequence"] for event in slices] == list(range(1, commands + 1))
    end = 0
    for event in slices:
        assert event["dur"] >= 0 and event["ts"] >= end - 0.001, event
        end = event["ts"] + event["dur"]
    depths = {event["name"]: event["args"]["commands"] for event in events if event["ph"] == "C"}
    assert len(depths) == 3 and set(depths.values()) == {0}, depths
    others = [event for event in events if event["ph"] in "Ci"]
    assert len(others) == len(lines), (len(others), len(lines))


def check_ctf():
    if not shutil.which("babeltrace2"):
        print("babeltrace2 is not installed")
        sys.exit(77)
    lines = record()
    target = os.path.join(folder.name, "ctf")
    run(skein, "export", "--format", "ctf", trace, target)
    assert len(run("babeltrace2", target).splitlines()) == len(lines)


def check_svg():
    record()
    target = os.path.join(folder.name, "run.svg")
    run(skein, "export", "--format", "svg", trace, target)
    titles = xml.dom.minidom.parse(target).getElementsByTagName("title")
    assert len(titles) == commands
    assert sum("refused" in title.firstChild.data for title in titles) == 1


def check_failure():
    daemon = subprocess.Popen([scripted_daemon, "ok", "ok", "ok", "status=14"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    port = daemon.stdout.readline().decode().split()[1]
    run(norvctl, "run", "--host", "127.0.0.1", "--port", port, "--timeout", "30", "--quiet",
        "--flight-recorder", trace, example, expect=3)
    daemon.communicate()
    with open(trace + ".failure-1.json") as file:
        details = json.load(file)
    command = details["command"]
    assert command["seq"] == 4 and command["outcome"] == "failed", details
    assert "error_code: 14" in details["reason"] and command["type"] == "listDrivers", details
    frozen = run(skein, "dump", trace + ".failure-1").splitlines()
    assert any("Failure to process response: error_code: 14" in line for line in frozen)
    assert any(": ended seq=4 " in line and "outcome=failed" in line for line in frozen)
    assert not os.path.exists(trace + ".failure-2")


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
