"""norvd beside a stand-in daemon: whatever happens, the switch ends as wanted."""

import json
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

import agent
import harness
from agent import Bed, child_of, wait_until
from harness import equal, norvctl

PIPELINE = """modules:
  in: {class: Source}
  fib:
    class: ExactMatch
    arg: {fields: [{offset: 26, num_bytes: 4}]}
    default_gate: 0
    rules:
      - {gate: 1, fields: [10.0.0.1]}
  drop: Sink
  other: Sink
connections:
  - in -> fib
  - fib -> drop
  - fib:1 -> other
"""


def many(number, extra=""):
    """So many modules in a row, and connections between them."""
    text = "modules:\n"
    for i in range(number):
        text += f"  m{i}: {{class: Bypass}}\n"
    text += extra + "connections:\n"
    for i in range(number - 1):
        text += f"  - m{i} -> m{i + 1}\n"
    return text


def as_wanted(bed):
    """The document as it is now has arrived, and norvd says so."""
    wait_until(lambda: bed.plan().status == 0, "the switch is as wanted",
               lambda: f"{bed.plan()}\n{bed.agent.text()[-3000:]}")
    bed.wait_in_sync()


# --- the daemon -----------------------------------------------------------------------------------


def test_a_daemon_that_is_absent_at_the_start():
    bed = Bed(PIPELINE)
    bed.start()
    status = bed.wait_for(lambda one: "the connection is refused" in one["state"], "it says why")
    assert re.match(rf"waiting for the daemon at 127\.0\.0\.1:{bed.port} since 20", status["state"]), status
    equal(bed.get("/readyz")[0], 503)
    equal(bed.get("/healthz")[0], 200)
    bed.start_daemon()
    as_wanted(bed)
    equal(bed.get("/readyz")[0], 200)
    assert f"daemon: answers at 127.0.0.1:{bed.port}" in bed.agent.text(), bed.agent.text()


def test_a_daemon_that_is_killed_while_nothing_goes_on():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start(interval=1000)
    bed.wait_in_sync()
    bed.kill_daemon()
    # At once, not at the next look.
    bed.wait_for(lambda one: not one["in_sync"], "the loss is seen")
    bed.start_daemon()
    as_wanted(bed)
    equal(bed.status()["restarts"], 1)


def test_a_daemon_that_is_killed_at_every_tenth_command():
    number = 50
    bed = Bed(many(number))
    bed.start()
    for rpc in ("createModule", "connectModules"):
        for nth in range(10, number, 10):
            bed.start_daemon("--fault", f"kind=exit rpc={rpc} nth={nth}")
            bed.daemon.finish()
    bed.start_daemon()
    as_wanted(bed)
    equal(bed.status()["counts"]["in sync"], 2 * number - 1)


def test_a_daemon_that_is_stopped_and_goes_on():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start("--stuck-after", "0.5")
    bed.wait_in_sync()
    bed.daemon.signal(signal.SIGSTOP)
    bed.wait_for(lambda one: one["restarts"] > 0, "the silence ends the process")
    bed.write(PIPELINE.replace("fib:1", "fib:2"))
    bed.daemon.signal(signal.SIGCONT)
    as_wanted(bed)


def test_a_command_without_an_answer_ends_the_process():
    bed = Bed(PIPELINE)
    bed.start_daemon("--fault", "kind=no-reply rpc=createModule name=fib nth=1")
    bed.start("--stuck-after", "0.5")
    as_wanted(bed)
    failures = [one["text"] for one in bed.status()["failures"]]
    found = [re.match(r"createModule of module fib is without an answer for (\S+) s$", text) for text in failures]
    assert len(found) == 1 and float(found[0].group(1)) >= 0.5, failures


def test_each_command_has_its_own_time():
    """All together they take twice as long as one may, and wait for each other."""
    bed = Bed(many(12))
    bed.start_daemon("--latency", "200")
    bed.start("--stuck-after", "2")
    equal(bed.wait_in_sync()["restarts"], 0)


class Proxy:
    """A port that leads to the daemon's, as soon as it listens, and can drop its connections."""

    def __init__(self, port):
        self.target = port
        self.ends = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            near = self.listener.accept()[0]
            threading.Thread(target=self._join, args=(near,), daemon=True).start()

    def _join(self, near):
        self.ends.append(near)
        while True:
            try:
                far = socket.create_connection(("127.0.0.1", self.target))
                break
            except ConnectionRefusedError:
                time.sleep(0.01)
        self.ends.append(far)
        threading.Thread(target=self._pass, args=(near, far), daemon=True).start()
        self._pass(far, near)

    @staticmethod
    def _pass(one, other):
        try:
            while data := one.recv(65536):
                other.sendall(data)
        except OSError:
            pass
        for end in (one, other):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def drop(self):
        for end in self.ends:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


class ServiceManager:
    """Hears what norvd tells it, and goes on hearing: the system keeps a few words for one that does not,
    and who has more to say waits."""

    def __init__(self, bed):
        self.told = []
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        listener.bind(f"{bed.folder}/notify")
        self.environment = {**os.environ, "NOTIFY_SOCKET": f"{bed.folder}/notify", "WATCHDOG_USEC": "300000"}
        threading.Thread(target=self._hear, args=(listener,), daemon=True).start()

    def _hear(self, listener):
        while True:
            self.told += listener.recv(65536).decode().splitlines()

    def wait_for_turns(self, number):
        """So many of norvd's watchdog."""
        before = self.told.count("WATCHDOG=1")
        wait_until(lambda: self.told.count("WATCHDOG=1") >= before + number, "its watchdog turns")


def test_a_connection_that_is_made_again_is_not_lost_for_ever():
    bed = Bed(PIPELINE)
    log = f"{bed.folder}/calls"
    bed.start_daemon("--log", log)
    proxy = Proxy(bed.port)

    def looks():
        with open(log, encoding="utf-8") as file:
            return sum('"listModules"' in line for line in file)

    manager = ServiceManager(bed)
    bed.start(interval=1000, port=proxy.port, env=manager.environment)
    bed.wait_in_sync()
    for _ in range(3):
        before = looks()
        proxy.drop()
        # Over the connection made again, or by a fresh process where that came too late.
        wait_until(lambda: looks() > before, "it looks again", bed.agent.text)
        bed.wait_in_sync()
        # It has no reason to look meanwhile.
        manager.wait_for_turns(10)
        assert looks() <= before + 3, (looks() - before, bed.agent.text())


def test_a_daemon_that_is_restarted_often_is_no_rival():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    # A connection through it is made again before it is refused, and norvd lives on.
    proxy = Proxy(bed.port)
    bed.start(interval=1000, port=proxy.port)
    bed.wait_in_sync()
    for _ in range(5):
        bed.kill_daemon()
        bed.start_daemon()
        wait_until(lambda: "fib:1 -> other" in bed.live(), "all is there again",
                   lambda: f"{bed.status()}\n{bed.agent.text()}")
        bed.wait_in_sync()


def test_a_host_that_swallows_what_is_sent_is_tried_again_and_again():
    bed = Bed(PIPELINE)
    with socket.socket() as listener:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", bed.port))
        listener.listen(0)
        # A queue that is full takes nobody in, and says nothing.
        filling = []
        for _ in range(3):
            filling.append(socket.socket())
            filling[-1].setblocking(False)
            filling[-1].connect_ex(("127.0.0.1", bed.port))
        own = {one.getsockname()[1] for one in filling}

        def several():
            lines = []
            for table in ("/proc/net/tcp", "/proc/net/tcp6"):
                with open(table, encoding="ascii") as file:
                    lines += file.readlines()[1:]
            under_way = set()
            for line in lines:
                local, remote, state = line.split()[1:4]
                if int(remote.split(":")[1], 16) == bed.port and state == "02":
                    under_way.add(int(local.split(":")[1], 16))
            return len(under_way - own) > 3

        bed.start("--stuck-after", "30")
        wait_until(several, "attempts are made beside each other", bed.agent.text)
        for one in filling:
            one.close()
    bed.start_daemon()
    as_wanted(bed)


def test_a_failed_command_ends_the_process_and_is_told_of():
    bed = Bed(PIPELINE)
    bed.start_daemon("--fault", "kind=status rpc=connectModules nth=2 code=13 text=broken")
    bed.start()
    as_wanted(bed)
    failures = [one["text"] for one in bed.status()["failures"]]
    assert any(text.startswith("connectModules of connection ") and " failed: " in text and "broken" in text for text in failures), failures
    files = os.listdir(bed.state)
    assert any(re.search(r"\.trace\.failure-\d+$", name) for name in files), files


def test_the_note_stays_that_of_the_command_that_failed():
    for kind in ("kind=status code=13", "kind=hang-up"):
        bed = Bed(many(30))
        bed.start_daemon("--fault", f"{kind} rpc=connectModules nth=3")
        bed.start()
        as_wanted(bed)
        failed = re.findall(r"lost: (connectModules of connection \S+) failed: ", bed.agent.text())
        equal(len(failed), 1, bed.agent.text())
        # Others waited behind it.
        equal(re.findall(r"death: \d of 3 while (.*)", bed.agent.text()), failed)


def test_what_was_done_without_an_answer_is_not_done_again():
    for rpc in ("createModule", "connectModules"):
        bed = Bed(many(10))
        log = f"{bed.folder}/calls"
        bed.start_daemon("--log", log, "--fault", f"kind=hang-up-after rpc={rpc} nth=5")
        bed.start()
        as_wanted(bed)
        assert "refused" not in bed.agent.text(), bed.agent.text()
        with open(log, encoding="utf-8") as file:
            calls = [json.loads(line) for line in file if line.endswith("\n")]
        made = [json.dumps(call["request"]) for call in calls if call["type"] in ("createModule", "connectModules")]
        equal(len(made), len(set(made)), made)
        equal(len(made), 19)


def test_a_switch_that_cannot_be_read_whole_is_not_compared():
    bed = Bed(PIPELINE)
    control, log = f"unix:{bed.folder}/control", f"{bed.folder}/calls"
    bed.start_daemon("--control", control, "--log", log)
    bed.start(supervise=False)
    bed.wait_in_sync()
    before = bed.live()
    bed.agent.signal(signal.SIGTERM)
    bed.agent.finish()
    bed.write(many(12))
    for rpc in ("listMclass", "listWorkers", "listPorts", "listModules", "getModuleInfo", "listTcs"):
        harness.Process(harness.STANDIN, "ctl", control, "clear").finish()
        harness.Process(harness.STANDIN, "ctl", control, "add", f"kind=status rpc={rpc} code=13 text=broken").finish()
        bed.start("--prune", "--allow-mass-delete", supervise=False)
        status = bed.wait_for(lambda one: "broken" in one["state"], "it says why")
        assert status["state"].startswith("waiting for the daemon at "), status
        equal(status["counts"], {})
        equal(bed.get("/readyz")[0], 503)
        bed.agent.signal(signal.SIGTERM)
        equal(bed.agent.finish(), 0)
    harness.Process(harness.STANDIN, "ctl", control, "clear").finish()
    equal(bed.live(), before)
    bed.start("--prune", "--allow-mass-delete")
    as_wanted_with_prune(bed)


def test_an_undecodable_reply_is_looked_into():
    bed = Bed(PIPELINE)
    bed.start_daemon("--fault", "kind=undecodable rpc=createModule name=fib nth=1")
    bed.start()
    status = bed.wait_in_sync()
    equal(status["restarts"], 0)
    equal(status["outcomes"]["undecodable"], 1)
    as_wanted(bed)


def test_what_is_right_is_not_touched_by_a_restart():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start(supervise=False)
    bed.wait_in_sync()
    bed.agent.signal(signal.SIGKILL)
    bed.agent.finish()
    bed.start(supervise=False)
    status = bed.wait_in_sync()
    equal(sum(status["outcomes"].values()), 0)


# --- norvd itself ---------------------------------------------------------------------------------


def test_killed_two_hundred_times_while_the_wanted_state_changes():
    seed = int(os.environ.get("NORV_SEED", "1"))
    generator = random.Random(seed)
    bed = Bed(many(20))
    bed.start_daemon()
    begin = time.monotonic()
    bed.start("--prune", "--allow-mass-delete", supervise=False)
    bed.wait_in_sync()
    life = time.monotonic() - begin
    for _ in range(200):
        bed.agent.signal(signal.SIGKILL)
        bed.agent.finish()
        bed.write(many(generator.randint(1, 30)))
        bed.start("--prune", "--allow-mass-delete", supervise=False)
        # A random moment is what this is about, from the beginning to the switch as wanted.
        time.sleep(generator.uniform(0, life))
    bed.agent.end()
    bed.start("--prune", "--allow-mass-delete")
    as_wanted_with_prune(bed)
    cut = bed.agent.text().count(" apply: ") - bed.agent.text().count(" applied: ")
    print(f"cut short in the middle of an apply: {cut}; a whole life took {life:.2f} s")
    assert cut > 0, life


def test_a_signal_ends_it_whatever_it_waits_for():
    bed = Bed(PIPELINE)
    bed.start_daemon("--fault", "kind=no-reply rpc=createModule name=fib")
    bed.start(supervise=False)
    bed.wait_for(lambda one: re.match(r"one command \(createModule of module fib\) is under way for", one["state"]),
                 "it says what is under way")
    under_way = bed.status()["under_way"]
    equal((under_way["command"], under_way["object"]), ("createModule", "module fib"))
    assert under_way["seconds"] > 0.3 and under_way["since"].startswith("20"), under_way
    told = norvctl("status", "--agent", "unix:" + bed.socket).out
    assert re.search(r"^under way since 20\S+: createModule of module fib$", told, re.M), told
    bed.agent.signal(signal.SIGTERM)
    equal(bed.agent.finish(), 0)


def test_a_signal_ends_it_whatever_its_main_thread_does():
    if os.environ["SANITIZED"] == "thread":
        harness.skip("the sanitizer keeps signals from a thread that waits to open a pipe")
    bed = Bed(PIPELINE)
    os.mkdir(bed.state)
    # To open a pipe waits for who writes it.
    os.mkfifo(f"{bed.state}/localhost_{bed.port}.wanted.yaml")
    bed.start_daemon()
    bed.start(supervise=False)
    wait_until(lambda: os.path.exists(f"{bed.state}/localhost_{bed.port}.norvd"), "it has begun")
    wait_until(lambda: "fifo_open" in wait_channel(bed.agent.popen.pid) or
               "wait_for_partner" in wait_channel(bed.agent.popen.pid), "it waits", bed.agent.text)
    bed.agent.signal(signal.SIGTERM)
    equal(bed.agent.finish(), 0)


def wait_channel(pid):
    """Where in the kernel the main thread waits, if that is told."""
    with open(f"/proc/{pid}/wchan", encoding="ascii") as file:
        return file.read()


SMALL = """modules: {src: Source, queue: {class: Queue, arg: {size: %d}}, out: Sink}
connections: [src -> queue, queue -> out]
"""


class Pausing:
    """A switch whose worker stands still while a queue is made longer; usually nothing is kept of it."""

    def __init__(self, state="none", **options):
        self.bed = Bed(SMALL % 64)
        self.control = f"unix:{self.bed.folder}/control"
        self.log = f"{self.bed.folder}/calls"
        self.bed.start_daemon("--control", self.control, "--log", self.log)
        self.bed.start("--stuck-after", "60", state=state, interval=1000, **options)
        self.bed.wait_in_sync()

    def strike(self, kind, step):
        """Begins the change, up to the fault at one of its steps: it stands, is changed, runs."""
        calls = self.calls()
        look = calls[::-1].index("getVersion") + 1
        equal(harness.Process(harness.STANDIN, "ctl", self.control, "add", f"{kind} nth={look + step}")
              .finish().status, 0)
        self.bed.write(SMALL % 128)
        wait_until(self.struck, "the fault strikes", self.bed.agent.text)
        equal(self.calls()[len(calls) + look:][:step - 1], ["pauseWorker", "moduleCommand"][:step - 1])

    def struck(self):
        told = harness.Process(harness.STANDIN, "ctl", self.control, "faults").finish().out
        return not told.startswith("0 of")

    def runs(self):
        return "running: false" not in self.bed.live()

    def calls(self):
        """The types of all calls that were answered, in their order."""
        with open(self.log, encoding="utf-8") as file:
            return [json.loads(line)["type"] for line in file if line.endswith("\n")]


def test_a_signal_leaves_no_worker_standing():
    for kind, step in (("kind=no-reply", 1), ("kind=no-reply", 2), ("kind=delay ms=100", 1),
                       ("kind=delay ms=100", 2)):
        pausing = Pausing(supervise=False)
        pausing.strike(kind, step)
        pausing.bed.agent.signal(signal.SIGTERM)
        equal(pausing.bed.agent.finish(), 0)
        assert pausing.runs(), (kind, step, pausing.bed.agent.text())


def test_a_failure_leaves_no_worker_standing():
    for kind in ("kind=status code=13", "kind=hang-up", "kind=hang-up-after"):
        pausing = Pausing()
        pausing.strike(kind, 2)
        wait_until(lambda: "size: 128" in pausing.bed.live(), "as wanted", pausing.bed.agent.text)
        pausing.bed.wait_for(lambda one: one["in_sync"] and one["outcomes"]["failed"] == 0, "a fresh process")
        assert pausing.runs(), (kind, pausing.bed.agent.text())


def test_a_change_of_mind_leaves_no_worker_standing():
    pausing = Pausing()
    before = len(pausing.calls())
    pausing.strike("kind=delay ms=1000", 2)
    pausing.bed.write(SMALL % 256)
    wait_until(lambda: pausing.calls()[before:].count("resumeWorker") == 2, "both are through",
               pausing.bed.agent.text)
    pausing.bed.wait_in_sync()
    calls = pausing.calls()[before:]
    assert pausing.runs() and "size: 256" in pausing.bed.live()
    first = calls.index("pauseWorker")
    # It runs before anything is looked at again.
    equal(calls[first:first + 3], ["pauseWorker", "moduleCommand", "resumeWorker"], calls)
    equal(calls.count("pauseWorker"), 2)


def test_what_is_under_way_is_in_doubt_until_it_is_through():
    pausing = Pausing(state=None)
    bed = pausing.bed

    def doubtful():
        with open(f"{bed.state}/localhost_{bed.port}.json", encoding="utf-8") as file:
            return {(one["kind"], one["name"]) for one in json.load(file)["objects"] if one.get("doubtful")}

    equal(doubtful(), set())
    pausing.strike("kind=no-reply", 2)
    equal(doubtful(), {("module", "queue"), ("worker", "0")})
    # The next process knows by that what the last one, which could end nothing, has left behind.
    os.kill(child_of(bed.agent.popen.pid), signal.SIGKILL)
    bed.wait_for(lambda one: one["in_sync"] and one["restarts"] == 1, "a fresh process")
    as_wanted(bed)
    assert pausing.runs() and "size: 128" in bed.live(), bed.agent.text()
    equal(doubtful(), set())


def test_aborted_it_ends_and_keeps_the_recording():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start(supervise=False)
    bed.wait_in_sync()
    bed.agent.signal(signal.SIGABRT)
    equal(bed.agent.finish(), -signal.SIGABRT)
    assert "norvd: lost: aborted by a signal" in bed.agent.text(), bed.agent.text()
    bed.start(supervise=False)
    status = bed.wait_in_sync()
    equal(status["failures"][-1]["text"], "the process was aborted")
    copy = f"{bed.state}/localhost_{bed.port}.trace.failure-1"
    with open(copy + ".json", encoding="utf-8") as file:
        equal(json.load(file)["reason"], "the process was aborted")
    assert os.path.getsize(copy) > 1000


def test_a_command_under_which_it_is_aborted_is_told():
    bed = Bed(PIPELINE)
    bed.start_daemon("--fault", "kind=no-reply rpc=createModule name=fib nth=1")
    bed.start()
    bed.wait_for(lambda one: (one["under_way"] or {}).get("object") == "module fib", "it is under way")
    os.kill(child_of(bed.agent.popen.pid), signal.SIGSEGV)
    as_wanted(bed)
    failures = [one["text"] for one in bed.status()["failures"]]
    assert "the process was aborted while createModule of module fib" in failures, failures
    assert "death: 1 of 3 while createModule of module fib" in bed.agent.text(), bed.agent.text()


def test_recordings_are_not_kept_for_ever():
    bed = Bed(PIPELINE)
    os.mkdir(bed.state)
    trace = f"localhost_{bed.port}.trace.failure-"
    for i in range(1, 21):
        for name in (f"{trace}{i}", f"{trace}{i}.json"):
            with open(f"{bed.state}/{name}", "w", encoding="ascii") as file:
                file.write("x")
    bed.start_daemon("--fault", "kind=status rpc=connectModules nth=1 code=13 text=broken")
    bed.start()
    as_wanted(bed)
    left = sorted(name for name in os.listdir(bed.state) if name.startswith(trace))
    equal(left, sorted(f"{trace}{i}{tail}" for i in range(15, 22) for tail in ("", ".json")))


def test_bad_options():
    for arguments, text in (
        ([], "--wanted"),
        (["--wanted", "x", "--interval", "0"], "--interval"),
        (["--wanted", "x", "--interval", "nan"], "--interval"),
        (["--wanted", "x", "--stuck-after", "inf"], "--stuck-after"),
        (["--wanted", "x", "--http", "127.0.0.1:http"], "--http"),
        (["--wanted", "x", "--http", "127.0.0.1:65536"], "--http"),
        (["--wanted", "x", "--http", "::1:80"], "--http"),
        (["--wanted", "x", "--http", "unix:"], "--http"),
        (["--wanted", "x", "--port", "70000"], "--port"),
        (["--wanted", "x", "--port", "0"], "--port"),
        (["--wanted", "x", "--host", ""], "--host"),
        (["--wanted", "x", "--nonsense"], "--nonsense"),
    ):
        process = harness.Process(agent.NORVD, *arguments)
        finished = process.finish()
        equal(finished.status, 2, finished)
        assert text in finished.err, finished


def test_its_manual_page_has_what_its_help_has():
    told = harness.Process(agent.NORVD, "--help").finish().out
    page = harness.Process(agent.NORVD, "--man").finish().out
    options, variables = set(re.findall(r"--[a-z-]+", told)), set(re.findall(r"Env:(\w+)", told))
    assert len(options) > 10 and "NORV_HOST" in variables, told
    for word in options | variables:
        assert word.replace("-", "\\-") in page, (word, page)
    for section in ("DESCRIPTION", "OPTIONS", "SIGNALS", "FILES", "EXIT STATUS"):
        assert f"\n.SH {section}\n" in page, (section, page)
    if not shutil.which("groff"):
        harness.skip("no groff here to read it")
    reader = harness.Process("groff", "-man", "-ww", "-z", stdin=subprocess.PIPE)
    reader.popen.stdin.write(page.encode())
    reader.popen.stdin.close()
    finished = reader.finish()
    equal((finished.status, finished.err), (0, ""), page)


def test_its_unit_is_in_order():
    if not shutil.which("systemd-analyze"):
        harness.skip("no systemd-analyze here")
    with open(f"{harness.SOURCES}/tools/norvd/service/norvd.service.in", encoding="utf-8") as file:
        text = file.read()
    # However often it ends, it is started again.
    unit_section = text[text.index("[Unit]"):text.index("[Service]")]
    assert "\nStartLimitIntervalSec=0\n" in unit_section and "\nRestart=always\n" in text, text
    # Nothing is installed here.
    text = re.sub(r"^ExecStart=\S+", "ExecStart=" + agent.NORVD, text, flags=re.M)
    text = re.sub(r"^Documentation=.*\n", "", text, flags=re.M)
    bed = Bed(PIPELINE)
    unit = f"{bed.folder}/norvd.service"
    with open(unit, "w", encoding="utf-8") as file:
        file.write(text)
    finished = harness.Process("systemd-analyze", "verify", unit).finish()
    equal((finished.status, finished.err), (0, ""), finished)
    finished = harness.Process("systemd-analyze", "security", "--offline=true", "--threshold=20",
                               unit).finish()
    equal(finished.status, 0, finished)


def test_it_tells_its_supervisor():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    manager = ServiceManager(bed)
    bed.start(supervise=False, env=manager.environment)
    wait_until(lambda: "READY=1" in manager.told, "it is ready")
    wait_until(lambda: any(text.startswith("STATUS=nothing to do") for text in manager.told), "it says how it is")
    manager.wait_for_turns(2)
    bed.agent.signal(signal.SIGTERM)
    wait_until(lambda: "STOPPING=1" in manager.told, "it says that it ends")


def test_levels_are_for_the_journal_alone():
    bed = Bed(PIPELINE)
    bed.start(env={**os.environ, "JOURNAL_STREAM": "8:12345"})
    wait_until(lambda: "start: " in bed.agent.text(), "it says something")
    assert re.search(r"^20\d\d-.* norvd: start: ", bed.agent.text(), re.M), bed.agent.text()
    bed.agent.end()
    log = f"{bed.folder}/journal"
    with open(log, "wb") as file:
        found = os.fstat(file.fileno())
    bed.start(env={**os.environ, "JOURNAL_STREAM": f"{found.st_dev}:{found.st_ino}"}, log=log)
    wait_until(lambda: "start: " in bed.agent.text(), "it says something")
    assert re.search(r"^<5>start: ", bed.agent.text(), re.M), bed.agent.text()


def test_what_the_last_process_ended_of_is_told_until_the_switch_answers():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start("--stuck-after", "5")
    bed.wait_in_sync()
    bed.daemon.signal(signal.SIGSTOP)
    bed.wait_for(lambda one: one["state"].startswith(
        "stopped after a failure: the daemon does not answer any more: "), "it is said")
    bed.daemon.signal(signal.SIGCONT)
    as_wanted(bed)
    # It is over then, also for the next one.
    with open(f"{bed.state}/localhost_{bed.port}.norvd", encoding="utf-8") as file:
        equal(json.load(file)["lost"], "")


# --- the document ---------------------------------------------------------------------------------


def test_a_changed_document_is_followed():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start(interval=1000)
    bed.wait_in_sync()
    bed.write(PIPELINE.replace("fib:1 ->", "fib:3 ->"))
    wait_until(lambda: "fib:3 -> other" in bed.live(), "the change has arrived", bed.agent.text)
    # In place, as some editors do.
    with open(bed.wanted, "w", encoding="utf-8") as file:
        file.write(PIPELINE.replace("fib:1 ->", "fib:4 ->"))
    wait_until(lambda: "fib:4 -> other" in bed.live(), "the change has arrived", bed.agent.text)


def test_a_document_of_several_files():
    bed = Bed("modules: {src: Source, out: Merge}\n")
    second = f"{bed.folder}/second.yaml"
    with open(second, "w", encoding="utf-8") as file:
        file.write("connections: [src -> out]\n")
    bed.start_daemon()
    bed.start("--wanted", second, interval=1000)
    status = bed.wait_in_sync()
    equal(status["document"], f"{bed.wanted}, {second}")
    assert "src -> out" in bed.live()
    with open(second, "w", encoding="utf-8") as file:
        file.write("connections: ['src -> 1:out']\n")
    wait_until(lambda: "src -> 1:out" in bed.live(), "the change has arrived", bed.agent.text)
    # What is said twice names both.
    bed.write("modules: {src: Source, out: Merge}\nconnections: [src -> out]\n")
    status = bed.wait_for(lambda one: one["notices"], "it is said")
    assert bed.wanted in status["notices"][0] and second in status["notices"][0], status


def test_a_signal_reads_the_document_again():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    before = bed.agent.text().count("is in force")
    bed.agent.signal(signal.SIGHUP)
    wait_until(lambda: bed.agent.text().count("is in force") > before, "it is read", bed.agent.text)


def test_a_broken_document_leaves_the_last_good_one_in_force():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    bed.write(PIPELINE.replace("class: Source", "class: Sauce"))
    status = bed.wait_for(lambda one: one["notices"], "it is said")
    assert re.search(r"wanted\.yaml:2:\d+: no module class \"Sauce\"", status["notices"][0]), status
    assert not status["in_sync"], status
    # Who asks for it to be read again is told again.
    bed.agent.signal(signal.SIGHUP)
    wait_until(lambda: bed.agent.text().count("document: not taken: ") == 2, "it is said again", bed.agent.text)
    # The last good one goes on to be kept up, and outlives the process.
    equal(bed.call("destroyModule", '{"name": "drop"}').status, 0)
    wait_until(lambda: "  drop: Sink" in bed.live(), "the drift is repaired", bed.agent.text)
    bed.kill_daemon()
    bed.wait_for(lambda one: one["state"].startswith("waiting"), "the loss is seen")
    bed.start_daemon()
    status = bed.wait_for(lambda one: one["restarts"] > 0 and "the last good one" in one["document"],
                          "a fresh process has it, too")
    wait_until(lambda: "fib:1 -> other" in bed.live(), "all is there again", bed.agent.text)
    bed.write(PIPELINE.replace("fib:1", "fib:5"))
    as_wanted(bed)


def test_a_document_that_is_gone_leaves_the_last_good_one_in_force():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start("--prune")
    bed.wait_in_sync()
    os.remove(bed.wanted)
    status = bed.wait_for(lambda one: one["notices"], "it is said")
    assert "cannot be read: No such file" in status["notices"][0], status
    assert "fib:1 -> other" in bed.live()
    bed.write(PIPELINE)
    as_wanted(bed)


def test_an_empty_document_does_not_empty_the_switch():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start("--prune")
    bed.wait_in_sync()
    before = bed.live()
    bed.write("")
    status = bed.wait_for(lambda one: one["notices"], "it is said")
    assert status["notices"][0].startswith("it is empty, and was not before; "), status
    equal(bed.live(), before)
    # Also where nobody knows what was wanted.
    bed.agent.signal(signal.SIGTERM)
    bed.agent.finish()
    bed.start("--prune", state="none")
    status = bed.wait_for(lambda one: one["notices"], "it is said")
    assert re.search(r"it would delete \d+ of \d+ objects", status["notices"][0]), status
    equal(bed.live(), before)
    bed.write(PIPELINE)
    as_wanted(bed)


def test_an_empty_document_is_not_taken_for_one_that_said_something():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    for restarts in (0, 1):
        bed.write("")
        status = bed.wait_for(lambda one: one["notices"] and one["restarts"] == restarts, "it is said")
        assert status["notices"][0].startswith("it is empty, and was not before; "), status
        equal(bed.call("destroyModule", '{"name": "drop"}').status, 0)
        wait_until(lambda: "  drop: Sink" in bed.live(), "the last good one is kept up", bed.agent.text)
        # A fresh process knows it, too.
        bed.agent.signal(signal.SIGTERM)
        equal(bed.agent.finish(), 0)
        bed.start()
    bed.wait_for(lambda one: one["restarts"] == 2, "it has begun")
    bed.agent.signal(signal.SIGTERM)
    equal(bed.agent.finish(), 0)
    bed.start("--allow-mass-delete")
    status = bed.wait_in_sync()
    equal(status["objects"], {})


def test_an_empty_document_is_one_where_nothing_was_wanted():
    bed = Bed("")
    bed.start_daemon()
    bed.start()
    equal(bed.wait_in_sync()["objects"], {})


def test_a_document_that_changes_in_mid_apply_takes_effect_at_once():
    bed = Bed(many(300))
    log = f"{bed.folder}/calls"
    bed.start_daemon("--latency", "5", "--log", log)
    bed.start("--prune", "--allow-mass-delete", interval=1000)
    bed.wait_for(lambda one: one["state"].startswith("applying: ") and one["outcomes"]["ok"], "it applies")
    bed.write(many(5))
    as_wanted_with_prune(bed)
    with open(log, encoding="utf-8") as file:
        made = sum('"createModule"' in line for line in file)
    assert made < 300, made


def as_wanted_with_prune(bed):
    wait_until(lambda: bed.plan("--prune").status == 0, "the switch is as wanted", bed.agent.text)
    bed.wait_in_sync()


def test_another_file_beside_the_document_changes_nothing():
    bed = Bed(many(100))
    bed.start_daemon("--latency", "5")
    bed.start(interval=1000)
    bed.wait_for(lambda one: one["state"].startswith("applying: ") and one["outcomes"]["ok"], "it applies")
    for i in range(10):
        with open(f"{bed.folder}/other", "w", encoding="ascii") as file:
            file.write("x")
        done = bed.status()["outcomes"]["ok"]
        bed.wait_for(lambda one: one["outcomes"]["ok"] > done or one["in_sync"], "it goes on")
    as_wanted(bed)
    equal(bed.agent.text().count(" apply: "), 1)


def test_most_of_a_switch_is_not_deleted_without_a_word():
    bed = Bed(many(12))
    bed.start_daemon()
    bed.start("--prune")
    bed.wait_in_sync()
    bed.write(many(3))
    status = bed.wait_for(lambda one: one["notices"], "it is said")
    assert "--allow-mass-delete" in status["notices"][0], status
    assert "m11" in bed.live()
    bed.agent.signal(signal.SIGTERM)
    bed.agent.finish()
    bed.start("--prune", "--allow-mass-delete")
    as_wanted(bed)
    assert "m11" not in bed.live()


# --- others ---------------------------------------------------------------------------------------


def test_what_a_person_changes_is_repaired():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    equal(bed.call("disconnectModules", '{"name": "fib", "ogate": 1}').status, 0)
    wait_until(lambda: "fib:1 -> other" in bed.live(), "the connection is back", bed.agent.text)
    as_wanted(bed)


def test_observing_only_reports():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    equal(bed.call("createModule", '{"name": "extra", "mclass": "Sink"}').status, 0)
    bed.start("--observe", "--prune")
    status = bed.wait_for(lambda one: one["counts"], "it is compared")
    equal(status["in_sync"], False)
    for name, text in (("module fib", "is not there"), ("module extra", "is not wanted")):
        equal((status["objects"][name]["state"], status["objects"][name]["text"]), ("differs", text))
    assert status["state"].startswith("differs: "), status
    equal(json.loads(bed.get("/plan.json")[1])["changes"][0]["action"], "create")
    assert "fib" not in bed.live() and "extra" in bed.live()


def test_a_rival_is_not_fought():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start(interval=0.3)
    bed.wait_in_sync()

    def contested():
        bed.call("disconnectModules", '{"name": "fib", "ogate": 1}')
        status = bed.status()
        return status if status and status["counts"].get("contested") else None

    status = wait_until(contested, "the contest is reported", bed.agent.text)
    equal(status["objects"]["connection fib:1"]["state"], "contested")
    assert "somebody else changes it back" in status["objects"]["connection fib:1"]["text"], status
    # Left alone, it is repaired after a pause.
    as_wanted(bed)


def test_a_refused_object_is_tried_again_and_the_rest_is_right():
    bed = Bed(PIPELINE)
    bed.start_daemon("--fault", "kind=error rpc=createModule name=fib code=12 text=no room",
                     "--control", f"unix:{bed.folder}/control")
    bed.start()
    status = bed.wait_for(lambda one: one["counts"].get("blocked") == 3, "what needs it is blocked")
    equal(status["objects"]["module fib"]["state"], "refused")
    assert "no room" in status["objects"]["module fib"]["text"], status
    equal(status["objects"]["connection fib:1"]["text"], "by module fib")
    equal(status["objects"]["module drop"]["state"], "in sync")
    assert status["state"].startswith("refused: module fib: "), status
    failures = [one["text"] for one in status["failures"]]
    assert any(text.startswith("createModule of module fib was refused: ") for text in failures), failures
    harness.Process(harness.STANDIN, "ctl", f"unix:{bed.folder}/control", "clear").finish()
    as_wanted(bed)


def test_a_refused_object_is_tried_again_by_hand():
    bed = Bed(PIPELINE)
    control = f"unix:{bed.folder}/control"
    bed.start_daemon("--fault", "kind=error rpc=createModule name=fib code=12 text=no room", "--control", control)
    bed.start(interval=1000)
    bed.wait_for(lambda one: one["counts"].get("refused"), "it is refused")
    harness.Process(harness.STANDIN, "ctl", control, "clear").finish()
    equal(norvctl("retry", "module fib", *at(bed)).status, 0)
    as_wanted(bed)


def test_a_worker_pauses_for_a_table_also_while_an_object_is_refused():
    text = "workers: {0: {core: 0, running: true}}\n" + PIPELINE
    bed = Bed(text)
    bed.start_daemon("--fault", "kind=error rpc=createModule name=bad code=12 text=no room")
    bed.start(interval=0.3)
    bed.wait_in_sync()
    text = text.replace("  drop: Sink\n", "  drop: Sink\n  bad: Sink\n")
    bed.write(text)
    bed.wait_for(lambda one: one["counts"].get("refused"), "it is refused")
    bed.write(text.replace("10.0.0.1]}\n", "10.0.0.1]}\n      - {gate: 2, fields: [10.0.0.2]}\n"))
    # Pause, rule and resumption.
    wait_until(lambda: "applied: 1 of 2 objects, 3 commands" in bed.agent.text(), "it is applied", bed.agent.text)
    equal(bed.status()["objects"]["module fib"]["state"], "in sync")


def test_an_object_that_kills_its_daemon_is_left_out():
    bed = Bed(many(8, "  bad: Sink\n") + "  - m7 -> bad\n")
    fault = "kind=exit rpc=createModule name=bad"
    bed.start()
    for _ in range(3):
        bed.start_daemon("--fault", fault)
        bed.daemon.finish()
    bed.start_daemon("--fault", fault)
    status = bed.wait_for(lambda one: one["counts"].get("quarantined"), "it is quarantined")
    equal(status["objects"]["module bad"]["state"], "quarantined")
    equal(status["objects"]["module bad"]["text"], "the daemon died 3 times while createModule of module bad")
    failures = [one["text"] for one in status["failures"]]
    equal(sum(text.startswith("createModule of module bad failed: ") for text in failures), 3, failures)
    status = bed.wait_for(lambda one: one["counts"]["in sync"] == 15, "the rest is right")
    equal(status["objects"]["connection m7:0"]["state"], "blocked")
    assert status["state"].startswith("quarantined: module bad: "), status
    # It may be tried again by hand, and when it is wanted otherwise.
    finished = norvctl("retry", "bad", "--state-dir", bed.state, "--host", "127.0.0.1", "--port",
                       str(bed.port))
    equal(finished.status, 0, finished)
    bed.daemon.finish()
    bed.start_daemon()
    as_wanted(bed)


def test_deaths_that_are_not_in_a_row_are_no_quarantine():
    bed = Bed(many(2, "  bad: Sink\n"))
    control = f"unix:{bed.folder}/control"
    bed.start_daemon("--control", control)
    bed.start()
    as_wanted(bed)
    for count in range(1, 5):
        # It is made, and the connection lost.
        harness.Process(harness.STANDIN, "ctl", control, "add",
                        "kind=hang-up-after rpc=createModule name=bad nth=1").finish()
        equal(bed.call("destroyModule", '{"name": "bad"}').status, 0)
        wait_until(lambda: bed.agent.text().count("death: 1 of 3") == count, "it is noted", bed.agent.text)
        harness.Process(harness.STANDIN, "ctl", control, "clear").finish()
        as_wanted(bed)
    assert "death: 2 of 3" not in bed.agent.text(), bed.agent.text()


def test_deaths_under_another_value_do_not_count():
    bed = Bed(many(2, "  bad: {class: Queue}\n"))
    bed.start()
    fault = "kind=exit rpc=createModule name=bad"
    for size in (0, 0, 128, 256, 256):
        if size:
            bed.write(many(2, f"  bad: {{class: Queue, arg: {{size: {size}}}}}\n"))
        bed.start_daemon("--fault", fault)
        bed.daemon.finish()
    bed.start_daemon()
    as_wanted(bed)
    equal(re.findall(r"death: (\d) of 3 while createModule of module bad", bed.agent.text()),
          ["1", "2", "1", "1", "2"])


def test_an_object_of_a_long_name_is_left_out_as_well():
    name = "\u00e4" * 3000
    bed = Bed(json.dumps({"modules": {"good": "Sink", name: "Sink"}}))
    bed.start()
    fault = f"kind=exit rpc=createModule name={name}"
    for _ in range(3):
        bed.start_daemon("--fault", fault)
        bed.daemon.finish()
    bed.start_daemon("--fault", fault)
    status = bed.wait_for(lambda one: one["counts"].get("quarantined"), "it is quarantined")
    equal(status["objects"]["module " + name]["state"], "quarantined")
    equal(norvctl("retry", name, *at(bed)).status, 0)
    bed.daemon.finish()


def at(bed):
    """The options that say which norvd."""
    return ["--state-dir", bed.state, "--host", "127.0.0.1", "--port", str(bed.port)]


def test_what_is_asked_again_is_not_lost():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start(supervise=False)
    bed.wait_in_sync()
    os.kill(bed.agent.popen.pid, signal.SIGSTOP)
    for words in ("fib", "module drop", "nonsense"):
        finished = norvctl("retry", words, *at(bed))
        equal(finished.status, 4 if words == "nonsense" else 0, finished)
        equal("nonsense is not wanted" in finished.err, words == "nonsense", finished)
    os.kill(bed.agent.popen.pid, signal.SIGCONT)
    for line in ("retry: fib is tried again", "retry: module drop is tried again",
                 "retry: no object is called nonsense"):
        wait_until(lambda: line in bed.agent.text(), line, bed.agent.text)


def test_nothing_is_asked_of_one_that_does_not_run():
    bed = Bed(PIPELINE)
    finished = norvctl("retry", "fib", *at(bed))
    assert finished.status == 1 and "no norvd for " in finished.err, finished
    bed.start_daemon()
    bed.start(supervise=False)
    bed.wait_in_sync()
    bed.agent.signal(signal.SIGTERM)
    bed.agent.finish()
    finished = norvctl("retry", "fib", *at(bed))
    assert finished.status == 1 and "does not run" in finished.err, finished
    assert not [name for name in os.listdir(bed.state) if "retry" in name]


def test_a_state_directory_that_everybody_may_write_is_refused():
    bed = Bed(PIPELINE)
    os.makedirs(bed.state, exist_ok=True)
    os.chmod(bed.state, 0o777)
    bed.start()
    equal(bed.agent.finish(), 2)
    assert f"norvd: cannot keep the state in {bed.state}: " in bed.agent.text(), bed.agent.text()
    finished = norvctl("retry", "fib", *at(bed))
    assert finished.status == 1 and "everybody may write; take that away (chmod o-w)" in finished.err, finished
    equal(os.listdir(bed.state), [])


def test_another_user_may_ask():
    if os.geteuid() != 0:
        harness.skip("only root gives files away")
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start(supervise=False)
    bed.wait_in_sync()
    # As if norvd ran as somebody else.
    name = f"{bed.state}/localhost_{bed.port}"
    os.chown(name + ".lock", 12345, 12345)
    os.kill(bed.agent.popen.pid, signal.SIGSTOP)
    equal(norvctl("retry", "fib", *at(bed)).status, 0)
    found = os.stat(name + ".retry")
    equal((found.st_uid, found.st_gid, found.st_mode & 0o777), (12345, 12345, 0o600))
    os.kill(bed.agent.popen.pid, signal.SIGCONT)


def test_a_quarantine_ends_with_another_value():
    bed = Bed(many(2, "  bad: {class: Queue}\n"))
    bed.start()
    for _ in range(3):
        bed.start_daemon("--fault", "kind=exit rpc=createModule name=bad")
        bed.daemon.finish()
    bed.start_daemon()
    bed.wait_for(lambda one: one["counts"].get("quarantined"), "it is quarantined")
    assert "bad" not in bed.live()
    bed.write(many(2, "  bad: {class: Queue, arg: {size: 128}}\n"))
    as_wanted(bed)


# --- what is kept ---------------------------------------------------------------------------------


def test_a_full_disk_does_not_stop_it():
    if os.environ["SANITIZED"] == "thread":
        harness.skip("with the limit on files the sanitizer does not come up itself")
    bed = Bed(PIPELINE)
    os.mkdir(bed.state)
    bed.start_daemon()
    process = harness.Process(
        "prlimit", "--fsize=0", agent.NORVD, "--wanted", bed.wanted, "--host", "127.0.0.1", "--port",
        str(bed.port), "--state-dir", bed.state, "--http", "unix:" + bed.socket, "--interval", "0.2")
    bed.agent = bed.daemon
    status = bed.wait_for(lambda one: one["counts"].get("in sync") == 7, "the switch is as wanted")
    assert any("File too large" in text for text in status["notices"]), status
    process.wait_for(r"memory: cannot write .* File too large; going on without", err=True)


def test_the_log_names_what_an_apply_is_about():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    assert re.search(r" apply: (\w+ \S+, ){4}\w+ \S+ and \d+ more; commands: \d+$", bed.agent.text(), re.M), bed.agent.text()
    equal(bed.call("destroyModule", '{"name": "drop"}').status, 0)
    wait_until(lambda: " apply: module drop and connection fib:0; commands: 2\n" in bed.agent.text(), "it names them",
               bed.agent.text)


def test_a_disk_that_gets_room_again():
    bed = Bed(PIPELINE)
    os.mkdir(bed.state)
    mount = f"mount -t tmpfs -o size=8m,mode=700 none {bed.state} && "
    if harness.Process("unshare", "-rm", "sh", "-c", mount + "true").finish().status != 0:
        harness.skip("nothing can be mounted here")
    bed.start_daemon()
    filled = f"head -c 9000000 /dev/zero 2>/dev/null >{bed.state}/filling; "
    bed.start(supervise=False, program=("unshare", "-rm", "sh", "-c", mount + filled + 'exec "$@"', "sh", agent.NORVD))
    status = bed.wait_for(lambda one: one["counts"].get("in sync") == 7, "the switch is as wanted")
    assert any("No space left on device" in text for text in status["notices"]), status
    name = f"localhost_{bed.port}.norvd"
    inside = f"/proc/{bed.agent.popen.pid}/root{bed.state}"
    assert not os.path.exists(f"{inside}/localhost_{bed.port}.wanted.yaml"), os.listdir(inside)
    os.remove(f"{inside}/filling")
    # Without another occasion to write.
    wait_until(lambda: f"{name} is in order again" in bed.agent.text(), "it is said", bed.agent.text)
    wait_until(lambda: os.path.exists(f"{inside}/localhost_{bed.port}.wanted.yaml"), "all is kept", bed.agent.text)
    bed.wait_for(lambda one: not one["notices"], "nothing is amiss")
    bed.write(PIPELINE.replace("fib:1 ->", "fib:3 ->"))
    wait_until(lambda: "fib:3 -> other" in bed.live(), "the change has arrived", bed.agent.text)
    equal(bed.status()["restarts"], 0)


def test_a_folder_that_cannot_be_searched_does_not_stop_it():
    bed = Bed(PIPELINE)
    os.symlink("state", bed.state)
    bed.start_daemon()
    bed.start()
    status = bed.wait_in_sync()
    assert any("Too many levels of symbolic links" in text for text in status["notices"]), status
    equal(status["restarts"], 0)


def test_a_damaged_note_is_said():
    bed = Bed(PIPELINE)
    os.mkdir(bed.state)
    bed.start_daemon()
    for text in ('!{"object":1}\n', "!nonsense", "?\0\0\n", '*["x"]\n'):
        with open(f"{bed.state}/localhost_{bed.port}.underway", "w", encoding="utf-8") as file:
            file.write(text)
        before = bed.agent.text().count("cannot be used; what the last") if bed.agent else 0
        bed.start(supervise=False)
        bed.wait_in_sync()
        equal(bed.agent.text().count("cannot be used; what the last"), before + 1, text)
        bed.agent.signal(signal.SIGTERM)
        equal(bed.agent.finish(), 0)


def test_a_damaged_memory_lies_aside():
    bed = Bed(PIPELINE)
    os.mkdir(bed.state)
    name = f"{bed.state}/localhost_{bed.port}"
    purposes = ("norvd", "json", "wanted.yaml")
    for purpose in purposes:
        with open(f"{name}.{purpose}", "w", encoding="utf-8") as file:
            file.write("{ nothing")
    bed.write("modules: {a: Nothing}")
    bed.start_daemon()
    bed.start()
    bed.wait_for(lambda one: one["state"].startswith("there is no document to go by: "), "it says so")
    bed.write(PIPELINE)
    as_wanted(bed)
    for purpose in purposes:
        assert os.path.exists(f"{name}.{purpose}.damaged"), os.listdir(bed.state)
    equal(bed.agent.text().count("lies aside"), len(purposes), bed.agent.text())


def test_without_a_folder_nothing_is_kept():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start(state="none")
    bed.wait_in_sync()
    assert not os.path.exists(bed.state)


# --- looking at it --------------------------------------------------------------------------------


def test_metrics_by_the_conventions():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    status, text = bed.get("/metrics")
    equal(status, 200)
    lines = dict(line.rsplit(" ", 1) for line in text.splitlines() if not line.startswith("#"))
    equal(lines["norv_in_sync"], "1")
    equal(lines['norv_objects{state="in sync"}'], "7")
    equal(lines['norv_commands_total{outcome="refused"}'], "0")
    assert float(lines['norv_commands_total{outcome="ok"}']) >= 8, text
    equal(lines["norv_command_seconds_count"], lines['norv_commands_total{outcome="ok"}'])
    assert 'norv_gate_packets_total{module="fib",gate="1"}' in lines, text
    named = set(re.findall(r"^# TYPE (\S+)", text, re.M))
    for name in {re.sub(r"(_bucket|_sum|_count)?(\{.*)?$", "", line) for line in lines}:
        assert name in named, (name, named)
    equal(named, set(re.findall(r"`(norv_\w+)", table_of("Metric"))), "as its document has them")


def table_of(head):
    """That of norvd's document whose first column has this head: its first column."""
    with open(f"{harness.SOURCES}/docs/norvd.md", encoding="utf-8") as file:
        text = file.read()
    rows = re.search(rf"^\| {head} \|.*\n\|.*\n((?:\|.*\n)+)", text, re.M).group(1)
    return "\n".join(row.split(" | ")[0] for row in rows.splitlines())


def test_its_document_names_the_words_of_its_log():
    said = set()
    folder = f"{harness.SOURCES}/tools/norvd"
    for name in os.listdir(folder):
        if name.endswith(".cpp"):
            with open(f"{folder}/{name}", encoding="utf-8") as file:
                said |= set(re.findall(r'log\(Level::\w+,\s*(?:std::string\()?"(\w+): ', file.read()))
    assert len(said) > 10, said
    equal(set(re.findall(r"`(\w+)`", table_of("Word"))), said)


def test_names_are_made_safe():
    name = "<script>alert(1)</script>"
    bed = Bed(f"modules:\n  \"{name}\": Sink\n")
    bed.start_daemon("--fault", "kind=error rpc=createModule code=22 text=<b>no</b>")
    bed.start()
    bed.wait_for(lambda one: one["counts"].get("refused"), "it is refused")
    text = bed.get("/")[1]
    assert name not in text and "<b>no" not in text, text
    assert "&lt;script&gt;alert(1)" in text and "&lt;b&gt;no" in text, text


def test_the_documents_are_served():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    assert "fib:1 -> other" in bed.get("/wanted.yaml")[1]
    live = bed.get("/live.yaml")[1]
    assert "fib:1 -> other" in live and "10.0.0.1" in live, live
    equal(json.loads(bed.get("/plan.json")[1])["changes"], [])
    equal(bed.get("/nothing")[0], 404)


def test_a_socket_that_is_in_use_is_not_taken_away():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    first = bed.agent
    other = Bed(PIPELINE)
    other.start(http="unix:" + bed.socket, supervise=False)
    wait_until(lambda: "the pages cannot be served at unix:" in other.agent.text(), "it is said",
               other.agent.text)
    equal(bed.wait_in_sync()["daemon"]["address"], f"127.0.0.1:{bed.port}")
    # What a process that is gone has left is no obstacle.
    first.end()
    wait_until(lambda: "pages: served at" in other.agent.text(), "it is served", other.agent.text)


def test_traffic_of_ports_is_counted():
    bed = Bed("ports: {p: {driver: PMDPort, arg: {vdev: net_null0}}}\n"
              "modules: {in: {class: PortInc, arg: {port: p}}, out: Sink}\nconnections: [in -> out]\n")
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    text = wait_until(lambda: "norv_port_packets_total{" in bed.get("/metrics")[1] and bed.get("/metrics")[1],
                      "it is told")
    for name in ("packets", "bytes", "dropped_packets"):
        for way in ("in", "out"):
            assert re.search(rf'^norv_port_{name}_total{{port="p",direction="{way}"}} \d+$', text, re.M), text


def test_few_commands_are_queued_at_once():
    bed = Bed(many(200))
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    depths = re.findall(r'^norv_queue_depth_max\{.*\} (\d+)$', bed.get("/metrics")[1], re.M)
    assert 16 < max(map(int, depths)) <= 64, depths


def test_a_request_has_a_size():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    for request, statuses in (
        (b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 5000\r\n\r\n" + b"x" * 5000, (413,)),
        (b"GET /" + b"x" * 20000 + b" HTTP/1.1\r\nHost: x\r\n\r\n", (414,)),
        (b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\nxx", (404,)),
    ):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as one:
            one.settimeout(harness.PATIENCE)
            one.connect(bed.socket)
            one.sendall(request)
            answer = one.recv(65536)
        assert int(answer.split()[1]) in statuses, (request[:50], answer)
    equal(bed.get("/healthz")[0], 200)


def test_a_port_that_is_taken_is_said_and_tried_again():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen()
        port = listener.getsockname()[1]
        bed.start(http=f"127.0.0.1:{port}", supervise=False)
        wait_until(lambda: "the pages cannot be served at" in bed.agent.text(), "it is said",
                   bed.agent.text)
        wait_until(lambda: "fib:1 -> other" in bed.live(), "the switch is as wanted", bed.agent.text)
    wait_until(lambda: "pages: served at" in bed.agent.text(), "they are served", bed.agent.text)


def test_slow_readers_hold_nothing_up():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    over = threading.Event()

    def drip():
        """Asks a byte at a time, without an end."""
        while not over.is_set():
            try:
                with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as one:
                    one.connect(bed.socket)
                    one.sendall(b"GET / HTTP/1.1\r\nX: ")
                    while not over.wait(0.05):
                        one.sendall(b"x")
            except OSError:
                pass

    def never_reads():
        """Asks, and does not take the answer."""
        while not over.is_set():
            try:
                with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as one:
                    one.connect(bed.socket)
                    one.sendall(b"GET / HTTP/1.1\r\n\r\n")
                    over.wait(5)
            except OSError:
                pass

    # More than have a thread, or may wait for one.
    slow = [threading.Thread(target=which, daemon=True) for which in [drip] * 70 + [never_reads] * 30]
    for one in slow:
        one.start()
    try:
        for _ in range(3):
            equal(wait_until(lambda: bed.get("/healthz"), "others are served")[0], 200)
        bed.write(PIPELINE.replace("fib:1", "fib:6"))
        wait_until(lambda: "fib:6 -> other" in bed.live(), "as wanted", bed.agent.text)
    finally:
        over.set()
        for one in slow:
            one.join()
    as_wanted(bed)


def test_the_status_on_a_terminal():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    finished = norvctl("status", "--agent", "unix:" + bed.socket)
    equal(finished.status, 0, finished)
    assert finished.out.startswith("nothing to do: 7 objects are as wanted\n"), finished
    finished = norvctl("status", "--agent", "unix:" + bed.socket, "--json")
    equal(json.loads(finished.out)["in_sync"], True)
    bed.write(PIPELINE.replace("class: Source", "class: Sauce"))
    bed.wait_for(lambda one: one["notices"], "it is said")
    finished = norvctl("status", "--agent", "unix:" + bed.socket)
    equal(finished.status, 4, finished)
    assert "Sauce" in finished.out, finished
    finished = norvctl("status", "--agent", "unix:" + bed.folder + "/nobody")
    equal(finished.status, 3, finished)
    assert "no norvd answers at unix:" in finished.err, finished
    for wrong in ("127.0.0.1:http", "127.0.0.1:99999", "http://127.0.0.1:9514", "::1:9514", "unix:"):
        finished = norvctl("status", "--agent", wrong)
        equal(finished.status, 1, finished)
        assert "that is neither HOST:PORT nor unix:PATH" in finished.err, finished


def test_the_status_is_watched():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    watching = harness.Process(harness.NORVCTL, "status", "--watch", "--agent", "unix:" + bed.socket)
    watching.wait_for(r"(?s)nothing to do: 7 .*nothing to do: 7 ")
    bed.write(PIPELINE.replace("class: Source", "class: Sauce"))
    watching.wait_for("as wanted by the last good|no module class")
    bed.agent.end()
    watching.wait_for("no norvd answers at unix:", err=True)
    bed.write(PIPELINE)
    bed.start()
    watching.wait_for(r"(?s)no module class.*nothing to do: 7 ")
    watching.signal(signal.SIGINT)
    equal(watching.finish().status, 0)


if __name__ == "__main__":
    agent.main()
