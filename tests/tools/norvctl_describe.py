"""What the tool tells of the protocol: templates, descriptions, help, manual pages, completion."""

import json
import os
import re
import shutil
import subprocess

import harness
from harness import NORVCTL, equal, norvctl


def template(*arguments):
    finished = norvctl("template", *arguments)
    equal(finished.status, 0, finished)
    return finished.out


def test_fields_of_which_only_one_may_be_given():
    equal("portId" in json.loads(template("createPort", "--driver", "PMDPort"))["arg"], True)
    text = template("createPort", "--driver", "PMDPort", "--comments")
    for field in ("portId: 0  # uint64", "# or instead: pci:", "# or instead: vdev:"):
        assert field in text, text
    assert "# Name and options of a virtual device." in text, text


def test_the_argument_of_a_class():
    body = json.loads(template("createModule", "--class", "ExactMatch"))
    equal(body["mclass"], "ExactMatch")
    equal(body["arg"]["@type"], "type.googleapis.com/bess.pb.ExactMatchArg")
    assert "fields" in body["arg"], body


def test_the_argument_of_a_command():
    body = json.loads(template("moduleCommand", "--class", "Queue", "--command", "set_size"))
    equal((body["cmd"], body["arg"]["@type"]), ("set_size", "type.googleapis.com/bess.pb.QueueCommandSetSizeArg"))
    equal(body["arg"]["size"], "0")


def test_the_argument_of_a_hook():
    body = json.loads(template("configureGateHook", "--hook", "Tcpdump"))
    equal(body["hook"]["className"], "Tcpdump")
    equal(body["hook"]["arg"]["@type"], "type.googleapis.com/bess.pb.TcpdumpArg")


def test_templates_of_classes_are_taken():
    for name in ("Sink", "Queue", "Merge", "NoOP", "RoundRobin", "PortInc"):
        body = template("createModule", "--class", name)
        assert norvctl("call", "--standin", "createModule", body).status in (0, 2), name


def test_choices_that_do_not_fit():
    for arguments, words in (
        (["createPort", "--class", "Sink"], "--class is for createModule"),
        (["createModule", "--class", "Snk"], 'nearest is "Sink"'),
        (["createPort", "--driver", "PMD"], 'nearest is "PMDPort"'),
        (["createModule", "--driver", "PMDPort"], "--driver is for createPort"),
        (["moduleCommand", "--class", "Queue", "--command", "set_sise"], 'nearest is "set_size"'),
        (["moduleCommand", "--command", "add"], "together with --class"),
        (["moduleCommand", "--class", "Queue"], "needs --command; Queue has "),
        (["moduleCommand", "--class", "Sink"], "Sink has no commands"),
        (["configureGateHook", "--hook", "Trak"], 'nearest is "Track"'),
        (["getVersion", "--hook", "Track"], "--hook is for configureGateHook"),
    ):
        finished = norvctl("template", *arguments)
        equal((finished.status, finished.out), (1, ""), finished)
        assert words in finished.err, finished


def test_the_advice_of_an_error_shows_the_field():
    body = '{"mclass":"Queue","arg":{"@type":"type.googleapis.com/bess.pb.QueueArg","sise":1}}'
    finished = norvctl("call", "--standin", "createModule", body)
    equal(finished.status, 1)
    assert "`norvctl template createModule --class Queue`" in finished.err, finished
    assert "size" in template("createModule", "--class", "Queue")


def describe(*names):
    finished = norvctl("describe", *names)
    equal(finished.status, 0, finished)
    return finished.out


def test_a_request():
    text = describe("connectModules")
    for words in ("request ConnectModulesRequest", "skipDefaultHooks", "bool", "Track hook", "response EmptyResponse"):
        assert words in text, text


def test_a_class():
    text = describe("L2Forward")
    for words in ("set_default_gate", "L2ForwardCommandAddArg", "createModule takes L2ForwardArg", "repeated string"):
        assert words in text, text


def test_a_driver_a_hook_and_a_message():
    assert "instead of pci, vdev" in describe("PMDPort")
    assert "configureGateHook takes TrackArg" in describe("Track")
    text = describe("QueueArg")
    assert "class Queue" in text and "command set_runtime_config of Queue" in text, text
    assert "Histogram" in describe("MeasureCommandGetSummaryResponse.Histogram")


def test_everything_that_the_overview_names():
    words = describe().split()
    assert {"createPort", "ExactMatch", "PMDPort", "Track"} <= set(words), words
    for name in words:
        if name in ("ExactMatch", "WorkerSplit", "getPortConf", "Tcpdump", "VPort"):
            assert name in describe(name)


def test_a_misspelled_name():
    finished = norvctl("describe", "ExactMach")
    equal((finished.status, finished.out), (1, ""))
    assert "ExactMatch" in finished.err, finished


def test_version():
    finished = norvctl("--version")
    equal(finished.status, 0)
    assert finished.out.startswith("norvctl 0."), finished


def verbs():
    lines = norvctl("--help").out.split("Subcommands:")[1].split("\n\n")[0].splitlines()
    return [line.split()[0] for line in lines if line.startswith("  ") and line[2] != " "]


def test_every_verb_has_help_and_a_page():
    names = verbs()
    assert {"run", "call", "check", "replay", "show", "watch", "shell", "doctor"} <= set(names), names
    for name in names:
        equal(norvctl(name, "--help").status, 0, name)
        assert "--help" in norvctl("help", name).out, name
        page = norvctl("man", name).out
        for part in (".TH NORVCTL\\-" + name.upper(), ".SH OPTIONS", ".SH EXAMPLES", ".SH EXIT STATUS"):
            assert part in page, page
    assert "norvctl\\-show(1)" in norvctl("man").out


def test_the_page_of_the_program_names_every_variable():
    """Those that an option takes, as its help tells."""
    page = norvctl("man").out
    verbs = re.findall(r"norvctl\\-(\w+)\(1\)", page)
    named = {"NORV_HOST", "NORV_PORT"}
    for verb in verbs:
        named |= set(re.findall(r"Env:(\w+)", norvctl(verb, "--help").out))
    assert len(named) >= 5, named
    equal([name for name in sorted(named) if f"\\fB{name}\\fR" not in page], [])


def test_pages_are_readable():
    if not shutil.which("man"):
        harness.skip("there is no man")
    page = norvctl("man", "run").out
    shown = subprocess.run(["man", "-l", "-"], input=page, capture_output=True, text=True, env={**os.environ, "MANPAGER": "cat", "MANROFFOPT": "-ww"})
    assert "norvctl-run - run files of commands" in shown.stdout, shown
    equal(shown.stderr, "")


def test_help_of_command_files():
    text = norvctl("help", "files").out
    for word in ("request_raw", "announce", "situation", "--stream"):
        assert word in text, text


def test_describe_of_a_part_of_names():
    finished = norvctl("describe", "port")
    equal((finished.status, finished.out), (1, ""), finished)
    for name in ("VPort", "PMDPort", "createPort", "listPorts"):
        assert name in finished.err, finished
    assert " more (`norvctl describe` lists all)" in finished.err, finished
    finished = norvctl("describe", "PMDprt")
    assert "the nearest are PMDPort" in finished.err, finished


def completed(line):
    """What bash completes at the end of the line."""
    words = line.split(" ")
    script = norvctl("completion", "bash").out
    script += f"COMP_WORDS=({' '.join(repr(word) for word in words)}); COMP_CWORD={len(words) - 1}; _norvctl\n"
    script += 'printf "%s\\n" "${COMPREPLY[@]}"\n'
    done = subprocess.run(["bash"], input=script, capture_output=True, text=True)
    equal((done.returncode, done.stderr), (0, ""))
    return done.stdout.split()


def test_bash_completion():
    equal(completed("norvctl te"), ["template"])
    equal(completed("norvctl call createP"), ["createPort"])
    equal(completed("norvctl run --flight-recorder-s"), ["--flight-recorder-size"])
    equal(completed("norvctl template createModule --class Exact"), ["ExactMatch"])
    equal(completed("norvctl show por"), ["ports"])


def test_zsh_completion():
    if not shutil.which("zsh"):
        harness.skip("there is no zsh")
    script = norvctl("completion", "zsh").out
    done = subprocess.run(["zsh", "-n"], input=script, capture_output=True, text=True)
    equal((done.returncode, done.stderr), (0, ""))
    assert "--flight-recorder-size[" in script and "'ports'" not in script


harness.main()
