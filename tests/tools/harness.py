"""Starts norvctl and daemons for tests, and waits for what they do.

A test file defines functions test_NAME() and ends with harness.main(). The programs and the source
folder come from the environment: NORVCTL, STANDIN, SCRIPTED_DAEMON, SOURCES.
"""

import json
import os
import re
import select
import signal
import socket
import subprocess
import sys
import time

NORVCTL = os.environ["NORVCTL"]
STANDIN = os.environ["STANDIN"]
SCRIPTED_DAEMON = os.environ["SCRIPTED_DAEMON"]
SOURCES = os.environ["SOURCES"]

# How many times as long programs take, at most, as they do in the ordinary build.
SLOWNESS = 20 if os.environ.get("SANITIZED") else 1
# Of places that are tried one by one, each how many-eth: those between show a sanitizer nothing more.
STRIDE = 5 if os.environ.get("SANITIZED") else 1
# Seconds until an effect counts as missing; generous, as a loaded machine is slow.
PATIENCE = 60 * SLOWNESS

OUTCOMES = ["ok", "refused", "failed", "undecodable", "dropped"]

# What to end and to remove when the test ends, in whichever way.
running = []
written = []


def skip(reason):
    print("skipped:", reason)
    sys.exit(77)


def somebodys(path, mode=0o1777):
    """Gives the file, link or folder to somebody else, and lets everybody write its folder."""
    if os.geteuid() != 0:
        skip("only root gives files away")
    os.chmod(os.path.dirname(path), mode)
    os.lchown(path, 65534, 65534)


def equal(actual, expected, what=""):
    assert actual == expected, f"{what}\n  expected {expected!r}\n  got      {actual!r}"


class Finished:
    """What a program left behind."""

    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err

    def __repr__(self):
        return f"status {self.status}\n{self.out[-3000:]}\n--- standard error\n{self.err[-3000:]}"


class Process:
    """A running program whose output is read as it comes."""

    def __init__(self, *command, stdin=subprocess.DEVNULL):
        self.popen = subprocess.Popen(
            command, stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        self.texts = {self.popen.stdout: "", self.popen.stderr: ""}
        running.append(self)

    @property
    def out(self):
        return self.texts[self.popen.stdout]

    @property
    def err(self):
        return self.texts[self.popen.stderr]

    def _read(self, until):
        """Takes in what there is, waiting for it till `until`; false when all ends are closed."""
        open_ends = [end for end in self.texts if not end.closed]
        if not open_ends:
            return False
        for end in select.select(open_ends, [], [], max(0, until - time.monotonic()))[0]:
            data = os.read(end.fileno(), 65536)
            self.texts[end] += data.decode()
            if not data:
                end.close()
        return True

    def wait_for(self, pattern, err=False):
        """Waits until a text that matches has been written; the match."""
        until = time.monotonic() + PATIENCE
        while True:
            found = re.search(pattern, self.err if err else self.out)
            if found:
                return found
            assert time.monotonic() < until, f"no {pattern!r} in time:\n{self.out}\n{self.err}"
            assert self._read(until), f"ended without {pattern!r}:\n{self.out}\n{self.err}"

    def finish(self, patience=PATIENCE):
        """Waits for its end."""
        until = time.monotonic() + patience
        while self._read(until):
            if time.monotonic() >= until:
                raise AssertionError(f"still running after {patience} s:\n{self.out}\n{self.err}")
        return Finished(self.popen.wait(max(0.1, until - time.monotonic())), self.out, self.err)

    def signal(self, number):
        self.popen.send_signal(number)

    def end(self):
        if self.popen.poll() is None:
            self.popen.kill()
        self.popen.wait()


class Standin(Process):
    def __init__(self, port=0, options=()):
        super().__init__(STANDIN, "--listen", f"127.0.0.1:{port}", *options)
        self.port = self.wait_for(r"listening on 127\.0\.0\.1:(\d+)\n").group(1)
        self.address = ("--host", "127.0.0.1", "--port", self.port)


class ScriptedDaemon(Process):
    """Answers what it is told; see ScriptedDaemon.cpp for the words."""

    def __init__(self, *answers):
        super().__init__(SCRIPTED_DAEMON, *answers, stdin=subprocess.PIPE)
        self.port = self.wait_for(r"port (\d+)\n").group(1)
        self.address = ("--host", "127.0.0.1", "--port", self.port)

    def go_on(self):
        """Gives the answer that one `wait` keeps back, now or when it is asked for."""
        self.popen.stdin.write(b"\n")
        self.popen.stdin.flush()

    def calls(self):
        """The types of all calls there were. Ends the daemon."""
        self.popen.stdin.close()
        finished = self.finish()
        equal(finished.status, 0, finished)
        return re.findall(r"call (\w+)", finished.out)


def norvctl(*arguments, input=None, patience=PATIENCE):
    """Runs norvctl to its end."""
    process = Process(NORVCTL, *arguments, stdin=subprocess.PIPE if input is not None else None)
    if input is not None:
        process.popen.stdin.write(input.encode())
        process.popen.stdin.close()
    return process.finish(patience)


def write_file(*lines, name="commands.jsonl"):
    """A file of this test's own, removed at its end: texts as they are, all else as JSON."""
    path = os.path.join(os.getcwd(), f"norvctl-{os.getpid()}-{name}")
    written.append(path)
    with open(path, "w") as file:
        for line in lines:
            file.write((line if isinstance(line, str) else json.dumps(line)) + "\n")
    return path


def command(type, queue=None, **request):
    line = {"type": type, "request": request}
    if queue is not None:
        line["queue"] = queue
    return line


class Result:
    """A finished `--json` run: its commands, its summary, and that the two agree."""

    def __init__(self, finished):
        self.finished = finished
        self.status = finished.status
        objects = [json.loads(line) for line in finished.out.splitlines()]
        assert objects and list(objects[-1]) == ["summary"], finished
        self.summary = objects.pop()["summary"]
        self.commands = objects
        self._check()

    def _check(self):
        keys = ["sent"] + OUTCOMES + ["unanswered", "seconds", "rate", "ended", "target"]
        equal([key for key in self.summary if key != "failure"], keys)
        equal("failure" in self.summary, self.summary["failed"] != 0, self.finished)
        for outcome in OUTCOMES:
            equal(self.summary[outcome], self.outcomes().count(outcome), self.finished)
        for row in self.commands:
            row["unanswered"] = row["outcome"] == "failed" and "status" not in row
        equal(self.summary["unanswered"], self.column("unanswered").count(True), self.finished)
        sent = len(self.commands) - self.summary["dropped"] - self.summary["unanswered"]
        equal(self.summary["sent"], sent, "what was neither dropped nor under way was sent")
        numbers = [row["seq"] for row in self.commands if row["seq"] != 0]
        equal(numbers, list(range(1, len(numbers) + 1)), "commands in the order of their numbers")
        for row in self.commands:
            equal(list(row)[:4], ["seq", "queue", "type", "outcome"], row)
            equal("latency_us" in row, row["outcome"] != "dropped" and not row["unanswered"], row)
            equal("response" in row, row["outcome"] in ("ok", "refused"), row)
            code = row.get("response", {}).get("error", {}).get("code", 0)
            equal(code != 0, row["outcome"] == "refused", row)

    def ends_in_one_failure(self):
        """Expects some commands to be done, one to fail, and the rest, at least one, dropped."""
        answered, lost = self.summary["ok"], self.summary["dropped"]
        equal(self.outcomes(), ["ok"] * answered + ["failed"] + ["dropped"] * lost)
        assert lost > 0, self.summary

    def column(self, key):
        return [row[key] for row in self.commands]

    def outcomes(self):
        return self.column("outcome")

    def types(self):
        return self.column("type")

    def error_codes(self):
        return [
            row.get("response", {}).get("error", {}).get("code", 0) for row in self.commands
        ]


def run(*arguments, **options):
    """Runs `norvctl run --json`."""
    return Result(norvctl("run", "--json", *arguments, **options))


def free_port():
    """A port that nobody listens on."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def main():
    test = vars(sys.modules["__main__"])["test_" + sys.argv[1]]
    try:
        test()
    finally:
        for process in running:
            # One that was stopped must go on to end.
            if process.popen.poll() is None:
                process.signal(signal.SIGCONT)
            process.end()
        for path in set(written):
            os.remove(path)
