"""What a person sees in a terminal: colours, the bar while a run takes long, the numbers at the end."""

import os
import re
import signal

import harness
from harness import ScriptedDaemon, Standin, command, equal, norvctl, write_file
from terminal import Terminal


def mixed():
    """A refused, a good and a failing command."""
    daemon = ScriptedDaemon("error=16", "ok", "status=13")
    return daemon, write_file(command("resetAll"), command("getVersion"), command("pauseAll"))


def test_colours_by_outcome():
    daemon, file = mixed()
    terminal = Terminal("run", *daemon.address, file)
    equal(terminal.finish(), 3)
    assert re.search(r"\x1b\[33mrefused *\x1b\[0m", terminal.text), repr(terminal.text)
    assert re.search(r"\x1b\[31mfailed *\x1b\[0m", terminal.text), repr(terminal.text)
    assert not re.search(r"\x1b\[\d+mok", terminal.text), repr(terminal.text)


def test_no_colour_and_no_bar_outside_a_terminal():
    daemon, file = mixed()
    finished = norvctl("run", *daemon.address, file)
    equal(finished.status, 3)
    assert "\x1b" not in finished.out + finished.err, finished
    assert "\r" not in finished.out + finished.err, finished


def test_a_bar_while_it_takes_long():
    daemon = ScriptedDaemon("ok", "hold")
    terminal = Terminal("run", *daemon.address, write_file(*[command("getVersion")] * 4))
    terminal.wait_for(r"\r\[={10} {30}\] 1/4  \d+/s ")
    terminal.popen.send_signal(signal.SIGINT)
    equal(terminal.finish(), 130)
    # The bar is wiped before the next line is written.
    assert re.search(r"\r\x1b\[K +2 ", terminal.text), repr(terminal.text)


def test_the_bar_stays_while_the_lines_go_elsewhere():
    standin = Standin()
    file = write_file(*[command("getVersion")] * 200000)
    line = '"$0" "$@" >/dev/null'
    terminal = Terminal("-c", line, harness.NORVCTL, "run", *standin.address, file, program="sh")
    # One after the other, and nothing wiped between them.
    terminal.wait_for(r"\r\[[= ]+\] \d+/200000  \d+/s \r\[[= ]+\] \d+/200000")
    os.killpg(terminal.popen.pid, signal.SIGINT)
    terminal.finish()
    assert terminal.text.endswith("\r\x1b[K"), repr(terminal.text[-200:])


def test_the_bar_fits_a_narrow_terminal():
    daemon = ScriptedDaemon("ok", "hold")
    terminal = Terminal("run", *daemon.address, write_file(*[command("getVersion")] * 4), columns=30)
    terminal.wait_for(r"1/4  \d+/s")
    terminal.popen.send_signal(signal.SIGINT)
    equal(terminal.finish(), 130)
    bars = re.findall(r"\r([^\r\n]*1/4 [^\r\n\x1b]*)", terminal.text)
    assert bars and all(len(bar) < 30 for bar in bars), bars


def test_no_colour_if_the_environment_says_so():
    os.environ["NO_COLOR"] = "1"
    daemon, file = mixed()
    terminal = Terminal("run", *daemon.address, file)
    equal(terminal.finish(), 3)
    assert not re.search(r"\x1b\[3\dm", terminal.text), repr(terminal.text)


def test_what_is_down_is_coloured():
    standin = Standin()
    equal(norvctl("call", *standin.address, "addWorker", '{"wid":"0"}').status, 0)
    terminal = Terminal("show", *standin.address, "workers")
    equal(terminal.finish(), 0)
    assert re.search(r"\x1b\[33mpaused\x1b\[0m", terminal.text), repr(terminal.text)


def test_a_link_that_is_down_is_coloured():
    standin = Standin()
    for type, request in (
        ("createPort", '{"name":"up","driver":"UnixSocketPort"}'),
        ("createPort", '{"name":"gone","driver":"PMDPort","arg":{"@type":"type.googleapis.com/bess.pb.PMDPortArg","vdev":"net_null0"}}'),
        ("setPortConf", '{"name":"gone","conf":{"mtu":1500,"macAddr":"02:00:00:00:00:01","adminUp":false}}'),
    ):
        finished = norvctl("call", *standin.address, type, request)
        equal(finished.status, 0, finished)
    terminal = Terminal("show", *standin.address, "ports", columns=200)
    equal(terminal.finish(), 0)
    assert re.search(r"gone .*\x1b\[31mdown\x1b\[0m", terminal.text), repr(terminal.text)
    assert re.search(r"up .*\x1b\[32mup\x1b\[0m", terminal.text), repr(terminal.text)


def test_watch_shows_a_table_at_once():
    standin = Standin()
    equal(norvctl("call", *standin.address, "createPort", '{"name":"left","driver":"UnixSocketPort"}').status, 0)
    terminal = Terminal("watch", *standin.address, "--interval", "3600")
    terminal.wait_for(r"ports at [^\n]*\n.*packet/s[^\n]*\n.*left  UnixSocketPort [^\n]*-")
    terminal.popen.send_signal(signal.SIGINT)
    equal(terminal.finish(), 130)


def test_watch_refreshes_in_place_and_leaves_a_last_table():
    standin = Standin()
    equal(norvctl("call", *standin.address, "addWorker", '{"wid":"0"}').status, 0)
    terminal = Terminal("watch", *standin.address, "--interval", "0.05")
    terminal.wait_for(r"\x1b\[\d+A.*ports at")
    terminal.popen.send_signal(signal.SIGINT)
    equal(terminal.finish(), 130)
    assert terminal.text.endswith("\x1b[J"), repr(terminal.text[-200:])


def test_median_and_percentile_are_of_the_latencies_shown():
    daemon = ScriptedDaemon()
    finished = norvctl("run", *daemon.address, write_file(*[command("getVersion")] * 150))
    equal(finished.status, 0)
    latencies = sorted(map(float, re.findall(r"getVersion +([0-9.]+) us", finished.out)))
    equal(len(latencies), 150)
    told = re.search(r"median ([0-9.]+) us, 99th percentile ([0-9.]+) us\n$", finished.out)
    equal(float(told.group(1)), latencies[75 - 1])
    equal(float(told.group(2)), latencies[149 - 1])  # 148.5 of them, rounded up


harness.main()
