"""norvd beside a stand-in daemon: whatever happens, the switch ends as wanted."""

import json
import os
import random
import re
import shutil
import signal
import time

import agent
import harness
from agent import Bed, wait_until
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
    status = bed.wait_for(lambda one: "Connection refused" in one["state"], "it says why")
    assert re.match(rf"waiting for the daemon at 127\.0\.0\.1:{bed.port} since 20", status["state"]), status
    equal(bed.get("/readyz")[0], 503)
    equal(bed.get("/healthz")[0], 200)
    bed.start_daemon()
    as_wanted(bed)
    equal(bed.get("/readyz")[0], 200)


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
    assert any(re.match(r"createModule of module fib is without an answer for", text) for text in failures), failures


def test_a_failed_command_ends_the_process_and_is_told_of():
    bed = Bed(PIPELINE)
    bed.start_daemon("--fault", "kind=status rpc=connectModules nth=2 code=13 text=broken")
    bed.start()
    as_wanted(bed)
    failures = [one["text"] for one in bed.status()["failures"]]
    assert any(text.startswith("connectModules of connection ") and " failed: " in text and "broken" in text for text in failures), failures
    files = os.listdir(bed.state)
    assert any(re.search(r"\.trace\.failure-\d+$", name) for name in files), files


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
    for i in range(200):
        bed.write(many(generator.randint(1, 30)))
        bed.start("--prune", "--allow-mass-delete", supervise=False)
        # A random moment is what this is about.
        time.sleep(generator.uniform(0, 0.12))
        bed.agent.signal(signal.SIGKILL)
        bed.agent.finish()
    bed.start("--prune", "--allow-mass-delete")
    as_wanted(bed)


def test_a_signal_ends_it_whatever_it_waits_for():
    bed = Bed(PIPELINE)
    bed.start_daemon("--fault", "kind=no-reply rpc=createModule name=fib")
    bed.start(supervise=False)
    bed.wait_for(lambda one: re.match(r"one command \(createModule of module fib\) is under way for", one["state"]),
                 "it says what is under way")
    bed.agent.signal(signal.SIGTERM)
    equal(bed.agent.finish(), 0)


def test_a_signal_to_the_supervisor_ends_both():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    bed.agent.signal(signal.SIGTERM)
    equal(bed.agent.finish(), 0)
    equal(bed.get("/healthz"), None)


def test_a_second_one_for_the_same_switch_does_not_start():
    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    first = bed.agent
    bed.start(http="off")
    equal(bed.agent.finish(), 2)
    assert "another norvd keeps the switch" in bed.agent.text(), bed.agent.text()
    equal(first.popen.poll(), None)


def test_bad_options():
    for arguments, text in (
        ([], "--wanted"),
        (["--wanted", "x", "--interval", "0"], "--interval"),
        (["--wanted", "x", "--port", "70000"], "--port"),
        (["--wanted", "x", "--nonsense"], "--nonsense"),
    ):
        process = harness.Process(agent.NORVD, *arguments)
        finished = process.finish()
        equal(finished.status, 2, finished)
        assert text in finished.err, finished


def test_its_unit_is_in_order():
    if not shutil.which("systemd-analyze"):
        harness.skip("no systemd-analyze here")
    built = os.path.dirname(os.path.dirname(agent.NORVD))
    with open(f"{built}/tools/norvd/norvd.service", encoding="utf-8") as file:
        text = file.read()
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
    import socket

    bed = Bed(PIPELINE)
    bed.start_daemon()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as listener:
        listener.bind(f"{bed.folder}/notify")
        listener.settimeout(harness.PATIENCE)
        bed.start(supervise=False, env={**os.environ, "NOTIFY_SOCKET": f"{bed.folder}/notify",
                                        "WATCHDOG_USEC": "300000"})
        told = []
        while not ("READY=1" in told and "WATCHDOG=1" in told and
                   any(text.startswith("STATUS=nothing to do") for text in told)):
            told += listener.recv(65536).decode().splitlines()
        bed.agent.signal(signal.SIGTERM)
        while "STOPPING=1" not in told:
            told += listener.recv(65536).decode().splitlines()


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
    assert re.search(r"it would delete \d+ of \d+ objects", status["notices"][0]), status
    equal(bed.live(), before)
    bed.write(PIPELINE)
    as_wanted(bed)


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
    bed.start("--observe")
    status = bed.wait_for(lambda one: one["counts"], "it is compared")
    equal(status["in_sync"], False)
    equal(status["objects"]["module fib"]["state"], "differs")
    assert status["state"].startswith("differs: "), status
    equal(json.loads(bed.get("/plan.json")[1])["changes"][0]["action"], "create")
    assert "fib" not in bed.live()


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
    harness.Process(harness.STANDIN, "ctl", f"unix:{bed.folder}/control", "clear").finish()
    as_wanted(bed)


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
    assert status["objects"]["module bad"]["text"].startswith("the daemon died 3 times: "), status
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


def test_a_damaged_memory_lies_aside():
    bed = Bed(PIPELINE)
    os.mkdir(bed.state)
    name = f"{bed.state}/localhost_{bed.port}"
    for purpose in ("norvd", "json"):
        with open(f"{name}.{purpose}", "w", encoding="utf-8") as file:
            file.write("{ nothing")
    bed.start_daemon()
    bed.start()
    as_wanted(bed)
    for purpose in ("norvd", "json"):
        assert os.path.exists(f"{name}.{purpose}.damaged"), os.listdir(bed.state)
    assert "lies aside" in bed.agent.text()


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


def test_a_port_that_is_taken_is_said_and_tried_again():
    import socket

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


def test_a_slow_reader_holds_nothing_up():
    import socket

    bed = Bed(PIPELINE)
    bed.start_daemon()
    bed.start()
    bed.wait_in_sync()
    slow = []
    for _ in range(12):
        one = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        one.connect(bed.socket)
        one.sendall(b"GET / HTT")
        slow.append(one)
    equal(wait_until(lambda: bed.get("/healthz"), "others are served")[0], 200)
    bed.write(PIPELINE.replace("fib:1", "fib:6"))
    as_wanted(bed)
    for one in slow:
        one.close()


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


if __name__ == "__main__":
    agent.main()
