"""Looking at a switch: show, watch, doctor."""

import json
import os
import re
import shutil
import signal
import socket
import threading

import harness
from harness import NORVCTL, Process, ScriptedDaemon, Standin, command, equal, free_port, norvctl, run, write_file

FIRST_LIGHT = harness.SOURCES + "/examples/first-light.jsonl"


def switch(*options):
    """A stand-in with the first light's pipeline, as it is before the last lines take it down."""
    with open(FIRST_LIGHT) as file:
        lines = [line for line in file.read().splitlines() if '"announce":"scheduler"' not in line]
    lines = [line for line in lines if not ('"scheduler"' in line and '"resetAll"' in line)]
    standin = Standin(options=options)
    finished = norvctl("run", *standin.address, "--quiet", write_file(*lines, name="first-light.jsonl"))
    assert finished.status in (0, 2), finished
    return standin


def show(standin, *arguments):
    finished = norvctl("show", *standin.address, *arguments)
    equal(finished.status, 0, finished)
    return finished.out


def live(standin, type, key):
    return json.loads(norvctl("call", *standin.address, type).out)[key]


def test_every_table():
    standin = switch()
    for what, title in (
        ("ports", "port"),
        ("modules", "module"),
        ("tcs", "traffic class"),
        ("workers", "worker"),
        ("drivers", "driver"),
        ("classes", "class"),
    ):
        rows = show(standin, what).splitlines()
        assert rows[0].split("  ")[0].strip().startswith(title), rows
        assert len(rows) > 1, rows
        things = json.loads(show(standin, what, "--json"))
        equal(len(things), len(rows) - 1, what)


def test_plugins():
    standin = Standin()
    equal(show(standin, "plugins", "--json"), "[]\n")
    with open("/proc/self/maps") as maps:  # any shared object will do
        path = next(line.split()[-1] for line in maps if ".so" in line)
    equal(norvctl("call", *standin.address, "importPlugin", json.dumps({"path": path})).status, 0)
    assert path in show(standin, "plugins").splitlines()[1], show(standin, "plugins")
    equal(json.loads(show(standin, "plugins", "--json")), [path])


def test_tables_have_what_the_daemon_lists():
    standin = switch()
    names = {one["name"] for one in live(standin, "listModules", "modules")}
    rows = show(standin, "modules").splitlines()[1:]
    equal({row.split()[0] for row in rows}, names)
    names = {one["name"] for one in live(standin, "listPorts", "ports")}
    equal({row.split()[0] for row in show(standin, "ports").splitlines()[1:]}, names)


def test_columns_are_aligned():
    rows = show(switch(), "modules").splitlines()
    column = rows[0].index("class")
    for row in rows[1:]:
        assert row[column - 1] == " " and row[column] != " ", rows


def test_an_empty_switch():
    finished = norvctl("show", "--standin")
    equal((finished.status, finished.out), (0, "there are no modules\n"))
    finished = norvctl("show", "--standin", "ports")
    equal((finished.status, finished.out, finished.err), (0, "", "there are no ports\n"))


def test_the_pipeline():
    standin = switch()
    text = show(standin)
    modules = json.loads(show(standin, "pipeline", "--json"))["modules"]
    connections = sum(len(one["ogates"]) for one in modules)
    assert connections > 0
    equal(len(re.findall(r"^  [├└]─\d+─> \d+:\S+", text, re.M)), connections, text)
    dot = show(standin, "pipeline", "--dot")
    equal(dot.count(" -> "), connections, dot)
    assert dot.startswith("digraph") and dot.endswith("}\n"), dot


def test_rates_of_the_pipeline():
    standin = switch("--traffic", "1500000")
    rate = r"1\.\d+ Mpacket/s, \d+ Mbit/s"
    text = show(standin)
    connections = len(re.findall(r"─> ", text))
    equal(len(re.findall(r"─\d+─> \d+:\S+  " + rate + "$", text, re.M)), connections, text)
    dot = show(standin, "pipeline", "--dot")
    equal(len(re.findall(r'label="' + rate + '"]', dot)), connections, dot)
    equal(len(json.loads(show(standin, "pipeline", "--json"))["rates"]), connections)
    assert "packet/s" not in show(standin, "pipeline", "--interval", "0")


def test_the_pipeline_as_a_picture():
    if not shutil.which("dot"):
        finished = norvctl("show", "--standin", "--svg")
        equal(finished.status, 1)
        assert "graphviz" in finished.err, finished
        return
    picture = show(switch(), "pipeline", "--svg")
    assert "<svg" in picture and "</svg>" in picture, picture


def test_names_are_made_safe():
    standin = Standin()
    name = "\x1b[2J\"<script>"
    request = json.dumps({"name": name, "mclass": "Sink"})
    equal(norvctl("call", *standin.address, "createModule", request).status, 0)
    for arguments in (["modules"], ["pipeline"], ["pipeline", "--dot"]):
        text = show(standin, *arguments)
        assert "\x1b" not in text, text
    finished = norvctl("watch", *standin.address, name, "--interval", "0.05", "--count", "1")
    assert finished.out.startswith("\\x1b[2J") and "\x1b" not in finished.out, finished
    refused = norvctl("call", *standin.address, "destroyModule", json.dumps({"name": "\x1b[31m"}))
    equal(refused.status, 2, refused)
    assert "\\x1b[31m" in refused.err and "\x1b" not in refused.out + refused.err, refused
    equal(json.loads(show(standin, "modules", "--json"))[0]["name"], name)


def test_json_and_yaml_have_nothing_that_a_terminal_obeys():
    standin = Standin()
    name = "a\x7f\x85\x9b2J\u202eb\u2066ü"
    request = json.dumps({"name": name, "mclass": "Sink"})
    equal(norvctl("call", *standin.address, "createModule", request).status, 0)
    file = write_file(command("listModules"))
    for arguments in (["call", "listModules"], ["call", "--json", "listModules"], ["call", "--yaml", "listModules"],
                      ["run", "--json", file], ["show", "modules", "--json"], ["show", "pipeline", "--json"]):
        finished = norvctl(arguments[0], *standin.address, *arguments[1:])
        equal(finished.status, 0, finished)
        assert not set("\x7f\x85\x9b\u202e\u2066") & set(finished.out), repr(finished.out)
        assert r"\u202e" in finished.out, finished
    equal(json.loads(norvctl("call", *standin.address, "listModules").out)["modules"][0]["name"], name)
    shown = norvctl("call", *standin.address, "--yaml", "listModules").out
    equal(json.loads(re.search(r'name: (".*")', shown).group(1)), name)


def test_nobody_listens():
    for verb in (["show"], ["show", "ports"], ["watch"], ["doctor"], ["call", "getPortConf"]):
        finished = norvctl(*verb[:1], "--host", "127.0.0.1", "--port", str(free_port()), *verb[1:])
        equal(finished.status, 3, finished)
        assert "the connection is refused" in finished.out + finished.err, finished


def test_get_port_conf_is_asked_beside_the_library():
    standin = switch()
    port = live(standin, "listPorts", "ports")[0]["name"]
    finished = norvctl("call", *standin.address, "getPortConf", json.dumps({"name": port}))
    equal(finished.status, 0, finished)
    assert "mtu" in json.loads(finished.out)["conf"], finished
    assert "beside the library" in finished.err, finished
    finished = norvctl("call", *standin.address, "getPortConf", '{"name":"lost"}')
    equal(finished.status, 2, finished)


def test_responses_alone_on_the_output():
    equal(list(json.loads(norvctl("call", "--standin", "getVersion").out)), ["version"])
    equal(norvctl("call", "--standin", "--yaml", "getVersion").out.split(":")[0], "version")
    equal(json.loads(norvctl("call", "--standin", "listPorts").out), {})
    equal(json.loads(norvctl("call", "--standin", "--emit-defaults", "listPorts").out)["ports"], [])


def test_bodies_from_a_file_and_from_standard_input():
    body = '{"driverName":\n "PMDPort"}'
    file = write_file(body, name="body.json")
    for arguments, text in ((["@" + file], None), (["-"], body)):
        finished = norvctl("call", "--standin", "getDriverInfo", *arguments, input=text)
        equal(finished.status, 0, finished)
        equal(json.loads(finished.out)["name"], "PMDPort")
    finished = norvctl("call", "--standin", "getVersion", "@" + file + ".lost")
    equal(finished.status, 1)
    assert "No such file" in finished.err, finished


def test_watch_in_a_pipe():
    standin = switch()
    for what in ("ports", "tcs", "pipeline"):
        finished = norvctl("watch", *standin.address, what, "--interval", "0.05", "--count", "2")
        equal(finished.status, 0, finished)
        equal(finished.out.count(f"{what} at 127.0.0.1:"), 3, "the first has no rates yet")
        assert "/s" in finished.out and "\x1b" not in finished.out, finished
        finished = norvctl("watch", *standin.address, what, "--json", "--interval", "0.05", "--count", "3")
        rows = [json.loads(line) for line in finished.out.splitlines()]
        equal(len(rows), 3)
        assert rows[0]["rates"] and rows[0]["time"], rows


def test_watch_a_module():
    standin = switch()
    modules = json.loads(show(standin, "modules", "--json"))
    name = next(one["name"] for one in modules if one["ogates"])
    finished = norvctl("watch", *standin.address, name, "--interval", "0.05", "--count", "1")
    equal(finished.status, 0, finished)
    assert "out 0" in finished.out, finished
    finished = norvctl("watch", *standin.address, name + "x", "--count", "1")
    equal(finished.status, 1)
    assert f'the nearest is "{name}"' in finished.err, finished


def test_watch_outlives_the_daemon():
    standin = switch()
    process = Process(NORVCTL, "watch", *standin.address, "--interval", "0.05")
    process.wait_for("ports at")
    standin.signal(signal.SIGKILL)
    process.wait_for("no answer from")
    standin.finish()
    again = Standin(standin.port)
    seen = len(process.out)
    process.wait_for("(?s)no answer.*(there is nothing to watch yet|packet/s)")
    process.signal(signal.SIGINT)
    equal(process.finish().status, 130)


def requests():
    """How many the protocol has."""
    return len(re.findall(r"^ *\d+ ", norvctl("types").out, re.M))


def test_doctor_of_a_daemon_that_fits():
    finished = norvctl("doctor", "--standin")
    equal(finished.status, 0, finished)
    for words in (f"all {requests()} are there, as it describes itself", "round trip", "20 calls: median", "bessd-standin"):
        assert words in finished.out, finished
    rows = [json.loads(line) for line in norvctl("doctor", "--standin", "--json").out.splitlines()]
    equal({row["health"] for row in rows}, {"ok"})


def test_doctor_changes_nothing():
    """A task without a place gets one at the end of a call that pauses the workers, refused or not."""
    standin = Standin()
    equal(norvctl("call", *standin.address, "createModule", '{"mclass":"Source"}').status, 0)
    norvctl("doctor", *standin.address)
    listed = json.loads(norvctl("call", *standin.address, "listTcs", '{"wid":"-1"}').out)
    equal([one["class"]["wid"] for one in listed["classesStatus"]], ["-1"])
    equal(json.loads(norvctl("call", *standin.address, "listWorkers").out), {})


def test_doctor_without_reflection():
    daemon = ScriptedDaemon()
    finished = norvctl("doctor", *daemon.address)
    assert f"all {requests()} are there, by calls without effect" in finished.out, finished
    assert re.search("note +gate hooks +whether the reply to a hook that is put on decodes", finished.out), finished
    assert "getModuleInfo shows whether the hook is there" in finished.out, finished


def test_doctor_of_a_newer_daemon():
    process = Process(harness.STANDIN, "--listen", "127.0.0.1:0", "--newer")
    port = process.wait_for(r"listening on 127\.0\.0\.1:(\d+)\n").group(1)
    address = ("--host", "127.0.0.1", "--port", port)
    equal(norvctl("call", *address, "createPort", '{"driver":"UnixSocketPort"}').status, 0)
    finished = norvctl("doctor", *address)
    equal(finished.status, 0, finished)
    assert "note  replies     of listPorts carry fields that this protocol does not have" in finished.out, finished
    assert "The daemon is newer than this protocol." in finished.out, finished


def test_doctor_of_a_daemon_that_lacks_calls():
    process = Process(harness.STANDIN, "--listen", "127.0.0.1:0", "--as-recorded")
    port = process.wait_for(r"listening on 127\.0\.0\.1:(\d+)\n").group(1)
    finished = norvctl("doctor", "--host", "127.0.0.1", "--port", port)
    equal(finished.status, 2, finished)
    assert f"{requests() - 2} of {requests()} are there" in finished.out, finished
    assert "Do not send addPortMacAddress and removePortMacAddress" in finished.out, finished


def test_doctor_of_a_reply_that_does_not_decode():
    standin = Standin(options=("--fault", "kind=undecodable rpc=listPlugins"))
    finished = norvctl("doctor", *standin.address)
    equal(finished.status, 2, finished)
    assert re.search("bad +replies +the reply of listPlugins does not decode here", finished.out), finished
    assert "Ask the daemon with a client of its own version" in finished.out, finished


def test_doctor_of_a_daemon_whose_first_replies_do_not_decode():
    standin = Standin(options=("--fault", "kind=undecodable rpc=listMclass"))
    finished = norvctl("doctor", *standin.address)
    equal(finished.status, 3, finished)
    assert "the reply does not decode as ListMclassResponse" in finished.out, finished


def test_doctor_of_a_daemon_without_classes():
    finished = norvctl("doctor", *ScriptedDaemon().address)
    equal(finished.status, 2, finished)
    assert re.search("bad +classes +0 module classes", finished.out), finished
    assert "A daemon without classes makes no module" in finished.out, finished
    rows = [json.loads(line) for line in norvctl("doctor", "--json", *ScriptedDaemon().address).out.splitlines()]
    equal([row["about"] for row in rows if row["health"] == "bad"], ["classes"])


class HttpProxy:
    """Takes every connection that a CONNECT asks for to one port of this machine."""

    def __init__(self, port):
        self.target = ("127.0.0.1", int(port))
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.asked = []
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            client, _ = self.listener.accept()
            words = b""
            while b"\r\n\r\n" not in words:
                words += client.recv(1)
            self.asked.append(words.split()[1].decode())
            client.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
            server = socket.create_connection(self.target)
            for one, other in ((client, server), (server, client)):
                threading.Thread(target=self._pass_on, args=(one, other), daemon=True).start()

    @staticmethod
    def _pass_on(one, other):
        try:
            while data := one.recv(65536):
                other.sendall(data)
            other.shutdown(socket.SHUT_WR)
        except OSError:
            pass


def test_doctor_through_a_proxy():
    standin = Standin()
    proxy = HttpProxy(standin.port)
    os.environ.pop("no_grpc_proxy", None)
    os.environ["http_proxy"] = f"http://127.0.0.1:{proxy.port}"
    finished = norvctl("doctor", "--host", "switch.invalid", "--port", "10514")
    equal(finished.status, 2, finished)
    assert re.search(f"bad +proxy +calls go through a proxy, as the environment has http_proxy=.*:{proxy.port}", finished.out), finished
    assert "Set no_proxy for this host" in finished.out and "round trip" in finished.out, finished
    equal(set(proxy.asked), {"switch.invalid:10514"})


harness.main()
