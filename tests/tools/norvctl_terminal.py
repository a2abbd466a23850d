"""What a person sees in a terminal: colours, the bar while a run takes long, the numbers at the end."""

import os
import pty
import re
import select
import signal
import subprocess
import time

import harness
from harness import ScriptedDaemon, command, equal, norvctl, write_file


class Terminal:
    """norvctl with a terminal as its output and its errors."""

    def __init__(self, *arguments):
        self.end, other = pty.openpty()
        self.popen = subprocess.Popen(
            [harness.NORVCTL, *arguments], stdin=subprocess.DEVNULL, stdout=other, stderr=other
        )
        os.close(other)
        self.text = ""

    def _read(self, until):
        """Takes in what there is; false when the program has closed its side."""
        assert select.select([self.end], [], [], max(0, until - time.monotonic()))[0], self.text
        try:
            data = os.read(self.end, 65536)
        except OSError:  # how a terminal says that nobody holds its other side
            return False
        self.text += data.decode()
        return bool(data)

    def wait_for(self, pattern):
        until = time.monotonic() + harness.PATIENCE
        while not re.search(pattern, self.text):
            assert self._read(until), f"ended without {pattern!r}:\n{self.text!r}"

    def finish(self):
        until = time.monotonic() + harness.PATIENCE
        while self._read(until):
            pass
        os.close(self.end)
        return self.popen.wait(max(0.1, until - time.monotonic()))


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
