"""Single requests: `call`, `types` and `template`."""

import json
import os
import re

import harness
from harness import ScriptedDaemon, equal, norvctl


def types():
    """The rows that `norvctl types` prints: number, name, request, response."""
    finished = norvctl("types")
    equal(finished.status, 0)
    rows = [line.split() for line in finished.out.splitlines()]
    return [row for row in rows if re.fullmatch(r"\d+", row[0])]


def test_types_lists_them_all():
    rows = types()
    with open(os.path.join(harness.SOURCES, "types/include/Norv/GrpcRequests.def"), encoding="utf-8") as file:
        stated = re.findall(r"^NORV_REQUEST\( *(\d+), (\w+), +\w+, +(\w+), +(\w+)\)$", file.read(), re.M)
    assert len(stated) > 1, stated
    equal([tuple(row) for row in rows], stated)
    assert ["createPort", "CreatePortRequest", "CreatePortResponse"] in [row[1:] for row in rows]


def test_an_unknown_verb():
    finished = norvctl("shwo", "ports")
    equal((finished.status, finished.out), (1, ""))
    assert 'unknown verb "shwo"; the nearest is "show"' in finished.err, finished


def test_call_prints_the_response():
    finished = norvctl("call", "--standin", "getVersion")
    equal(finished.status, 0)
    assert re.search(r'\{\n  "version": "bessd-standin .*"\n\}', finished.out), finished


def test_call_with_a_request():
    request = {"driver": "PMDPort", "arg": {"@type": "type.googleapis.com/bess.pb.PMDPortArg"}}
    request["arg"]["vdev"] = "net_null0"
    finished = norvctl("call", "--standin", "createPort", json.dumps(request))
    equal(finished.status, 0)
    equal(json.loads(finished.out)["name"], "pmd_port0")


def test_call_prints_the_response_alone_as_json():
    finished = norvctl("call", "--standin", "--json", "listPorts")
    equal((finished.status, finished.out, finished.err), (0, "{}\n", ""))


def test_call_refused():
    finished = norvctl("call", "--standin", "--json", "getPortStats", '{"name":"lost"}')
    equal(finished.status, 2)
    equal(len(finished.out.splitlines()), 1)
    equal(json.loads(finished.out)["error"]["code"], 2)
    assert "refused: ENOENT: " in finished.err, finished


def test_call_of_a_refusal_names_the_error():
    finished = norvctl("call", "--standin", "getPortStats", '{"name":"lost"}')
    equal(finished.status, 2)
    assert "refused: ENOENT: " in finished.err and "lost" in finished.err, finished
    equal(json.loads(finished.out)["error"]["code"], 2)


def test_get_port_conf_if_insisted_on_ends_the_tool():
    daemon = ScriptedDaemon()
    finished = norvctl("call", *daemon.address, "--allow-abort", "getPortConf")
    equal(finished.status, -harness.signal.SIGABRT, finished)


def test_every_template_is_a_request():
    for _, name, *_ in types():
        finished = norvctl("template", name)
        equal(finished.status, 0, name)
        template = json.loads(finished.out)
        equal(type(template), dict, name)
        if name == "getPortConf":
            continue
        called = norvctl("call", "--standin", "--json", name, finished.out)
        # The stand-in's own tests know which it has to answer.
        if "UNIMPLEMENTED" in called.err:
            continue
        assert called.status in (0, 2), f"{name} {finished.out}: {called}"
        equal(type(json.loads(called.out)), dict, name)


def test_templates_show_every_field():
    finished = norvctl("template", "connectModules")
    equal(set(json.loads(finished.out)), {"m1", "m2", "ogate", "igate", "skipDefaultHooks"})


harness.main()
