"""norvd's own supervisor: it starts norvd again, whatever ended it."""

import os
import re
import shutil
import signal
import sys

import agent
from agent import Bed, child_of, children_of, wait_until
from harness import equal

DOCUMENT = """modules: {in: Source, drop: Sink}
connections: [in -> drop]
"""


def as_wanted(bed):
    """The document has arrived, and norvd says so."""
    wait_until(lambda: bed.plan().status == 0, "the switch is as wanted", bed.agent.text)
    bed.wait_in_sync()


def test_a_signal_ends_both():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    bed.agent.signal(signal.SIGTERM)
    equal(bed.agent.finish(), 0)
    equal(bed.get("/healthz"), None)


def test_passes_a_hang_up_on():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    bed.agent.signal(signal.SIGHUP)
    wait_until(lambda: "signal: reading the wanted document again" in bed.agent.text(), "it is heard",
               bed.agent.text)
    equal(bed.status()["restarts"], 0)


def test_starts_again_after_growing_pauses():
    bed = Bed(DOCUMENT)
    bed.start()
    killed = set()
    for count in range(1, 5):
        child = wait_until(lambda: child_of(bed.agent.popen.pid), "there is one")
        assert child not in killed
        killed.add(child)
        os.kill(child, signal.SIGKILL)
        wait_until(lambda: bed.agent.text().count("starting it again in") == count, "it is said",
                   bed.agent.text)
    pauses = [int(ms) for ms in re.findall(r"starting it again in (\d+) ms", bed.agent.text())]
    for pause, longest in zip(pauses, (50, 100, 200, 400)):
        assert 25 <= pause <= longest, pauses
    bed.start_daemon()
    as_wanted(bed)
    # One that had got as far as that is started again soon.
    bed.kill_daemon()
    found = wait_until(lambda: re.search(r"with status 75; starting it again in (\d+) ms", bed.agent.text()),
                       "it is said", bed.agent.text)
    assert int(found.group(1)) <= 50, bed.agent.text()


def test_leaves_no_zombies():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    os.mkdir(f"{bed.folder}/bin")
    with open(f"{bed.folder}/bin/dot", "w", encoding="ascii") as file:
        file.write(f"#!/bin/sh\necho $$ >{bed.folder}/drawing\nexec sleep 1000\n")
    os.chmod(f"{bed.folder}/bin/dot", 0o755)
    # As in a container, where it is the first of all processes.
    adopt = "import ctypes, os, sys; ctypes.CDLL(None).prctl(36, 1); os.execv(sys.argv[1], sys.argv[1:])"
    bed.start(program=(sys.executable, "-c", adopt, agent.NORVD),
              env={**os.environ, "PATH": f"{bed.folder}/bin:{os.environ['PATH']}"})
    bed.wait_in_sync()
    bed.get("/")

    def drawing():
        try:
            with open(f"{bed.folder}/drawing", encoding="ascii") as file:
                return int(file.read() or 0)
        except FileNotFoundError:
            return 0

    orphan = wait_until(drawing, "it draws", bed.agent.text)
    os.kill(child_of(bed.agent.popen.pid), signal.SIGKILL)
    bed.wait_for(lambda one: one["restarts"] == 1, "a fresh process")
    os.kill(orphan, signal.SIGKILL)
    # What drew, and the shell around it.
    wait_until(lambda: len(children_of(bed.agent.popen.pid)) == 1, "they are gone",
               lambda: f"{children_of(bed.agent.popen.pid)}\n{bed.agent.text()}")


def test_goes_on_when_it_cannot_start():
    bed = Bed(DOCUMENT)
    program = f"{bed.folder}/norvd"
    shutil.copy(agent.NORVD, program)
    bed.start_daemon()
    bed.start(program=(program,))
    bed.wait_in_sync()
    os.chmod(program, 0)
    os.kill(child_of(bed.agent.popen.pid), signal.SIGKILL)
    wait_until(lambda: bed.agent.text().count("cannot start norvd: Permission denied") > 1, "it is said",
               bed.agent.text)
    os.chmod(program, 0o755)
    as_wanted(bed)


def test_one_supervisor_is_enough():
    for option in ("--supervise", "--supervise=true", "--supervise=1"):
        bed = Bed(DOCUMENT)
        bed.start_daemon()
        bed.start(option, "--supervise", supervise=False)
        bed.wait_in_sync()
        child = child_of(bed.agent.popen.pid)
        assert child and child_of(child) is None, option
        bed.agent.signal(signal.SIGTERM)
        equal(bed.agent.finish(), 0)


def test_ends_when_the_very_first_start_is_refused():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    first = bed.agent
    bed.start(http="off")
    equal(bed.agent.finish(), 2)
    assert "another norvd keeps the switch" in bed.agent.text(), bed.agent.text()
    equal(first.popen.poll(), None)
    bed.start("--nonsense", http="off")
    equal(bed.agent.finish(), 2)


def state_of(pid):
    """R, S, Z and so on."""
    with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as file:
        return file.read().rsplit(")", 1)[1].split()[0]


def test_never_gives_up_once_norvd_was_there():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    # Somebody takes the switch between two of its starts.
    supervisor, child = bed.agent, child_of(bed.agent.popen.pid)
    supervisor.signal(signal.SIGSTOP)
    os.kill(child, signal.SIGKILL)
    # With the last of its threads go its files.
    wait_until(lambda: state_of(child) == "Z" and len(os.listdir(f"/proc/{child}/task")) == 1, "it is dead")
    bed.start(supervise=False, http="off", log=f"{bed.folder}/other.log")
    other, bed.agent = bed.agent, supervisor
    wait_until(lambda: "start: keeping the switch" in other.text(), "another one has it", other.text)
    supervisor.signal(signal.SIGCONT)
    wait_until(lambda: supervisor.text().count("norvd ended with status 2; starting it again in") > 1,
               "it is tried again", supervisor.text)
    assert "another norvd keeps the switch" in supervisor.text(), supervisor.text()
    other.signal(signal.SIGTERM)
    equal(other.finish(), 0)
    equal(bed.call("destroyModule", '{"name": "drop"}').status, 0)
    as_wanted(bed)


def test_outlives_who_reads_its_log():
    bed = Bed(DOCUMENT)
    bed.start_daemon()
    reader, log = os.pipe()
    redirect = "import os, sys; os.dup2(int(sys.argv[1]), 2); os.execv(sys.argv[2], sys.argv[2:])"
    bed.start(program=(sys.executable, "-c", redirect, str(log), agent.NORVD), pass_fds=(log,))
    os.close(log)
    bed.wait_in_sync()
    os.close(reader)
    for restarts in (1, 2):
        os.kill(child_of(bed.agent.popen.pid), signal.SIGKILL)
        bed.wait_for(lambda one: one["in_sync"] and one["restarts"] == restarts, "a fresh process")


if __name__ == "__main__":
    agent.main()
