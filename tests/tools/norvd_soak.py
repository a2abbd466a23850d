"""norvd for a long time, among random changes and faults. NORV_SOAK_SECONDS says how long, NORV_SEED
which; prints a table, a row for each tenth of the time."""

import os
import random
import re
import signal
import time

import agent
import harness
from agent import Bed, wait_until
from harness import equal

SECONDS = float(os.environ.get("NORV_SOAK_SECONDS", "15"))


def document(generator):
    """Some modules in a row, a table with some rules."""
    number = generator.randint(5, 30)
    text = "modules:\n  fib:\n    class: ExactMatch\n    arg: {fields: [{offset: 26, num_bytes: 4}]}\n"
    rules = [f"      - {{gate: {i % 4}, fields: [10.0.{i // 256}.{i % 256}]}}\n"
             for i in generator.sample(range(2000), generator.randint(1, 200))]
    text += "    rules:\n" + "".join(rules)
    for i in range(number):
        text += f"  m{i}: {{class: {generator.choice(['Bypass', 'Bypass', 'Merge'])}}}\n"
    text += "connections:\n  - fib -> m0\n"
    for i in range(number - 1):
        text += f"  - m{i} -> m{i + 1}\n"
    return text


class Soak:
    def __init__(self, seed):
        self.generator = random.Random(seed)
        self.bed = Bed(document(self.generator))
        self.control = f"unix:{self.bed.folder}/control"
        self.counts = {}
        self.start_daemon()
        self.bed.start("--prune", "--allow-mass-delete", "--stuck-after", "1")
        self.bed.wait_in_sync()

    def start_daemon(self):
        self.bed.start_daemon("--control", self.control)

    def child(self):
        """The process below the supervisor; None while there is none."""
        pid = self.bed.agent.popen.pid
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
            children = file.read().split()
        return int(children[0]) if children else None

    def resident(self):
        """KiB, and open files, of that process."""
        while True:
            child = self.child()
            try:
                with open(f"/proc/{child}/status", encoding="ascii") as file:
                    kib = int(re.search(r"VmRSS:\s+(\d+)", file.read()).group(1))
                return kib, len(os.listdir(f"/proc/{child}/fd"))
            except (OSError, AttributeError):
                time.sleep(0.01)

    def ctl(self, *words):
        harness.Process(harness.STANDIN, "ctl", self.control, *words).finish()

    # What may happen.

    def change(self):
        self.bed.write(document(self.generator))

    def broken(self):
        self.bed.write("modules: {a: Nothing}\n")

    def restart_daemon(self):
        self.bed.kill_daemon()
        self.start_daemon()

    def stop_daemon(self):
        self.bed.daemon.signal(signal.SIGSTOP)
        time.sleep(self.generator.uniform(0, 0.3))
        self.bed.daemon.signal(signal.SIGCONT)

    def kill_norvd(self):
        child = self.child()
        if child:
            os.kill(child, signal.SIGKILL)

    def kept(self):
        """Files of the state directory, and their bytes."""
        sizes = []
        for entry in os.scandir(self.bed.state):
            try:
                sizes.append(entry.stat().st_size)
            except FileNotFoundError:
                pass  # replaced meanwhile
        return len(sizes), sum(sizes)

    def fault(self):
        kind = self.generator.choice(["status", "error", "undecodable", "no-reply", "hang-up",
                                      "hang-up-after", "delay ms=100"])
        rpc = self.generator.choice(["createModule", "connectModules", "moduleCommand",
                                     "destroyModule", "listModules", "getModuleInfo"])
        nth = self.generator.randint(1, 5)
        self.ctl("add", f"kind={kind} rpc={rpc} nth={nth}")

    def person(self):
        self.bed.call("disconnectModules", '{"name": "fib", "ogate": 0}')

    def step(self):
        actions = [self.change] * 6 + [self.broken, self.restart_daemon, self.stop_daemon,
                                       self.kill_norvd, self.fault, self.fault, self.person]
        action = self.generator.choice(actions)
        self.counts[action.__name__] = self.counts.get(action.__name__, 0) + 1
        action()
        time.sleep(self.generator.uniform(0, 0.3))

    def settle(self):
        """Without faults, and with a good document, all is as wanted."""
        self.ctl("clear")
        self.change()
        wait_until(self.arrived, "as wanted",
                   lambda: f"{self.bed.plan('--prune')}\n{self.bed.agent.text()[-4000:]}")
        self.bed.wait_in_sync()

    def arrived(self):
        """Whether all is as wanted. What faults in a row have had quarantined, a person lifts."""
        status = self.bed.status() or {"objects": {}}
        for name, one in status["objects"].items():
            if one["state"] == "quarantined":
                self.counts["retry"] = self.counts.get("retry", 0) + 1
                harness.norvctl("retry", name, "--state-dir", self.bed.state, "--host", "127.0.0.1", "--port",
                                str(self.bed.port))
        return self.bed.plan("--prune").status == 0


def test_ends_as_wanted():
    seed = int(os.environ.get("NORV_SEED", "1"))
    soak = Soak(seed)
    print(f"seed {seed}, {SECONDS:.0f} s\n")
    print("| s | steps | restarts | commands | resident, KiB | open files | kept files | kept, KiB |\n"
          "|--:|--:|--:|--:|--:|--:|--:|--:|")
    start = time.monotonic()
    residents = []
    files = []
    steps = 0
    for tenth in range(1, 11):
        while True:
            soak.step()
            steps += 1
            if time.monotonic() - start >= SECONDS * tenth / 10:
                break
        soak.settle()
        status = soak.bed.status()
        kib, opened = soak.resident()
        kept, kept_bytes = soak.kept()
        residents.append(kib)
        files.append(opened)
        commands = sum(status["outcomes"].values())
        print(f"| {time.monotonic() - start:.0f} | {steps} | {status['restarts']} | {commands} "
              f"| {kib} | {opened} | {kept} | {kept_bytes // 1024} |", flush=True)
        # The recordings of eight failures, with their details; else one file for each purpose.
        assert kept <= 16 + 10, os.listdir(soak.bed.state)
        assert kept_bytes < 12 * 4.5 * 1024 * 1024, kept_bytes
    print("\n" + ", ".join(f"{count} {name}" for name, count in sorted(soak.counts.items())))
    assert steps >= 10, steps
    # Nothing grows without end: the later half is not far above the first.
    assert max(residents[5:]) < 1.5 * max(residents[:5]), residents
    assert max(files[5:]) <= max(files[:5]) + 16, files


def test_one_process_stays_small():
    """Changes without a fault: nothing ends the process, and its memory stays as it is."""
    # The address sanitizer keeps 256 MB of what was freed, if it is not told otherwise.
    options = os.environ.get("ASAN_OPTIONS", "")
    os.environ["ASAN_OPTIONS"] = options + (":" if options else "") + "quarantine_size_mb=1"
    soak = Soak(2)
    start = time.monotonic()
    residents = []
    while time.monotonic() - start < SECONDS:
        soak.settle()
        residents.append(soak.resident()[0])
    equal(soak.bed.status()["restarts"], 0)
    half = len(residents) // 2
    assert half >= 3, residents
    assert max(residents[half:]) < 1.3 * max(residents[:half]), residents
    print(f"{len(residents)} documents, {residents[0]} to {residents[-1]} KiB")


if __name__ == "__main__":
    agent.main()
