"""The shell: lines from a pipe, and on a terminal with completion and history."""

import os
import re
import signal
import tempfile
import time

import harness
from harness import Standin, equal, norvctl
from terminal import Terminal


def shell(text, *arguments):
    return norvctl("shell", *(arguments or ("--standin",)), input=text)


def test_lines_from_a_pipe():
    finished = shell("getVersion\nshow workers --json\n# a remark\n\ncall listPorts\n")
    equal(finished.status, 0, finished)
    assert '"version": "bessd-standin' in finished.out and "[]" in finished.out, finished


def test_one_daemon_for_all_lines():
    finished = shell('createModule {"name": "in", "mclass": "Sink"}\nshow modules\n')
    equal(finished.status, 0, finished)
    assert re.search(r"^in +Sink", finished.out, re.M), finished


def test_a_body_over_several_lines():
    finished = shell('createModule {"name": "in",\n  "mclass":\n "Sink"}\nshow modules\n')
    equal(finished.status, 0, finished)
    assert re.search(r"^in +Sink", finished.out, re.M), finished


def test_the_status_of_the_last_line():
    equal(shell('destroyModule {"name":"lost"}\n').status, 2)
    equal(shell('destroyModule {"name":"lost"}\ngetVersion\n').status, 0)
    equal(shell('destroyModule {"name":"lost"}\nexit\ngetVersion\n').status, 2)


def test_errors_are_named():
    finished = shell('destroyModule {"name":"lost"}\n')
    assert "refused: ENOENT: " in finished.err, finished


def test_what_is_neither_verb_nor_type():
    finished = shell("getVersin\nshell\n")
    equal(finished.status, 1)
    assert 'nearest is "getVersion"' in finished.err and "this is the shell" in finished.err, finished


def test_a_lost_daemon_does_not_end_it():
    standin = Standin()
    text = "killBess\ncall --timeout 2 getVersion\ndescribe Sink\n"
    finished = shell(text, *standin.address)
    equal(finished.status, 0, finished)
    assert "Sink: module class" in finished.out and "no answer" in finished.err, finished


def test_an_abort_does_not_end_it():
    finished = shell("call --allow-abort getPortConf\ndescribe Sink\n")
    equal(finished.status, 0, finished)
    assert "ended by an assertion" in finished.err and "Sink: module class" in finished.out, finished


class Session(Terminal):
    def __init__(self, *arguments):
        super().__init__("shell", *(arguments or ("--standin",)), input=True)
        self.wait_for("norvctl [^ ]*> ")

    def command(self, line, pattern):
        """Types a line until it shows the effect: a key that comes just as the terminal changes from
        one command's mode to the editor's is lost."""
        for _ in range(harness.PATIENCE // 5):
            self.type(line + "\n")
            try:
                return self.wait_for(pattern, patience=5)
            except AssertionError:
                pass
        raise AssertionError(f"no {pattern!r}: {self.text!r}")


def home():
    folder = tempfile.mkdtemp(dir=os.getcwd())
    os.environ["XDG_STATE_HOME"] = folder
    return folder


def leave(session):
    session.wait_for("norvctl [^ ]*> ")
    session.type("\x15exit\n")
    return session.finish()


def test_completion_of_verbs_types_and_fields():
    home()
    session = Session()
    session.command("templ\tcreateMod\t", r'"mclass": ""')
    session.command("templ\tcreateMod\t--cla\tExactM\t", "bess.pb.ExactMatchArg")
    session.command('createModule {"mcl\t":"Sin\t","na\t":"drain"}', '"name": "drain"')
    equal(leave(session), 0)


def test_completion_in_a_line_that_goes_on():
    home()
    session = Session()
    session.type('createModule {"mclass":"Sink",\n')
    session.wait_for(r"\.\.\. ")
    session.type('"na\t":"drain"}\n')
    session.wait_for('"name": "drain"')
    equal(leave(session), 0)


def test_completion_of_live_names():
    home()
    standin = Standin()
    for type, request in (
        ("createModule", '{"name":"firewall","mclass":"Source"}'),
        ("createPort", '{"name":"uplink","driver":"UnixSocketPort"}'),
        ("addWorker", '{"wid":"37"}'),
        ("addTc", '{"class":{"name":"slices","policy":"round_robin","wid":"37"}}'),
    ):
        equal(norvctl("call", *standin.address, type, request).status, 0)
    session = Session(*standin.address)
    session.command('getPortStats {"name":"upl\t"}', "actualHist")
    session.command('getTcStats {"name":"sli\t"}', "timestamp")
    session.command('getMclassInfo {"name":"ExactM\t"}', "set_default_gate")
    session.command('updateTcParams {"class":{"leafModuleName":"fire\t"}}', "Only 'rate_limit'")
    session.command('destroyWorker {"wid":"3\t"}', "Worker 37 has active tasks")
    session.command('getModuleInfo {"name":"fire\t"}', '"mclass": "Source"')
    equal(leave(session), 0)


def test_history_is_kept():
    folder = home()
    session = Session()
    session.command("describe Sink", "Sink: module class")
    equal(leave(session), 0)
    mode = os.stat(folder + "/norvctl_history").st_mode
    equal(mode & 0o777, 0o600, "requests are in it")
    session = Session()
    session.command("\x1b[A\x1b[A", "Sink: module class")
    equal(leave(session), 0)


def test_interrupting_a_line_and_a_command():
    home()
    session = Session()
    session.type("getVer\x03")
    session.wait_for("norvctl [^ ]*> ")
    session.command("describe Sink", "Sink: module class")
    session.command("watch", "ports at")
    session.type("\x03")
    session.command("describe Merge", "Merge: module class")
    equal(leave(session), 0)


def test_interrupting_whatever_the_editor_does():
    home()
    session = Session()
    for _ in range(400):
        session.type("getVer\x7f")
        os.kill(session.popen.pid, signal.SIGINT)
    session.command("\x15describe Sink", "Sink: module class")
    equal(leave(session), 0)


def test_interrupting_between_the_candidates():
    home()
    session = Session()
    session.type("describe \t\t")
    session.wait_for("WorkerSplitArg[^>]*> describe ")
    session.type("\x03")
    session.wait_for("norvctl [^ ]*> ")
    session.command("describe Sink", "Sink: module class")
    equal(leave(session), 0)


def test_interrupting_where_the_output_is_no_terminal():
    home()
    # The other end of the pipe is to see the end of what the shell writes.
    command = f'trap "" INT; {harness.NORVCTL} shell --standin | cat'
    session = Terminal("-c", command, program="/bin/sh", input=True)
    session.type("describe Sink\n")
    session.wait_for("Sink: module class")
    until = time.monotonic() + harness.PATIENCE
    while session.popen.poll() is None and time.monotonic() < until:
        session.type("\x03")  # the first may still be for the command
        time.sleep(0.1)
    equal(session.finish(), 0)


def test_letters_of_every_language():
    for locale, word in (("C.UTF-8", "desc\u0414"), ("C", "desc")):
        home()
        os.environ["LC_ALL"] = locale
        session = Session()
        session.command("describe Sink", "Sink: module class")
        # Each byte would be a key with Meta to the editor: one seeks in the history.
        session.type("desc\u0414\n")
        session.wait_for(f'neither verb nor type: "{word}"')
        session.command('createModule {"mclass":"Sink","name":"\u0414"}', "name")
        equal(leave(session), 0)
    del os.environ["LC_ALL"]


harness.main()
