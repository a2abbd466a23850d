"""Bad usage and bad input: status 1, a word on standard error, and nothing sent."""

import harness
from harness import ScriptedDaemon, equal, norvctl, write_file

GOOD = '{"type":"getVersion"}'


def refuse(arguments, *words, input=None):
    """Expects norvctl to refuse, saying these words, without a call to its daemon."""
    daemon = ScriptedDaemon()
    arguments = [arguments[0], *daemon.address, *arguments[1:]]
    finished = norvctl(*arguments, input=input)
    equal(finished.status, 1, finished)
    equal(finished.out, "", "nothing is reported")
    for word in words:
        assert word in finished.err, f"no {word!r}:\n{finished}"
    equal(daemon.calls(), [], "nothing is sent")


def refuse_line(line, *words):
    """Expects a file to be refused for its third line; the first is good, the second blank."""
    file = write_file(GOOD, "", line, GOOD)
    refuse(["run", file], file + ":3:", "nothing was sent", *words)


def refuse_usage(*arguments):
    finished = norvctl(*arguments)
    equal(finished.status, 1, finished)
    equal(finished.out, "")
    assert finished.err, "no word about it"


def test_malformed_json():
    refuse_line('{"type":}', ":3:9: malformed JSON")


def test_unfinished_line():
    refuse_line('{"type":"getVersion"', ":3:21: malformed JSON")


def test_words_after_the_object():
    refuse_line('{"type":"getVersion"} {}', ":3:23: malformed JSON")


def test_number_out_of_range():
    refuse_line('{"type":"getVersion","request":{"a":1e999}}', "1e999")


def test_nesting_without_end():
    depth = 300000
    nested = "[" * depth + "]" * depth
    refuse_line('{"type":"getVersion","request":' + nested + "}", "deep")


def test_command_and_announcement_in_one():
    refuse_line('{"type":"getVersion","announce":"main"}', "not both")


def test_no_object():
    refuse_line("[1]", "a line is a JSON object")


def test_neither_command_nor_announcement():
    refuse_line('{"queue":"main"}', '"type"', '"announce"')


def test_unknown_type():
    refuse_line('{"type":"createPrt"}', '"createPrt"', 'nearest is "createPort"', ":3:2:")


def test_type_in_wrong_case():
    refuse_line('{"type":"LISTPORTS"}', '"LISTPORTS"')


def test_type_that_is_no_text():
    refuse_line('{"type":7}', '"type" must be a text, not number')


def test_queue_that_is_no_text():
    refuse_line('{"type":"getVersion","queue":[]}', '"queue" must be a text, not array')


def test_announce_that_is_no_text():
    refuse_line('{"announce":1}', '"announce" must be a text, not number')


def test_unknown_field():
    refuse_line('{"type":"createPort","request":{"nme":"a"}}', "createPort", "nme", ":3:22:")


def test_value_of_wrong_kind():
    refuse_line('{"type":"createPort","request":{"numIncQ":"many"}}', "createPort", '"many"')


def test_request_that_is_no_object():
    refuse_line('{"type":"createPort","request":[1]}', "createPort")


def test_unknown_type_of_argument():
    refuse_line(
        '{"type":"createPort","request":{"arg":{"@type":"type.googleapis.com/bess.pb.Lost"}}}',
        "bess.pb.Lost",
    )


def test_get_port_conf():
    refuse_line('{"type":"getPortConf"}', "ends the process", "listPorts", "--allow-abort")


def test_every_bad_line_is_told():
    file = write_file('{"type":}', GOOD, '{"type":"nothing"}', "x")
    refuse(["run", file], *[f"{file}:{line}:" for line in (1, 3, 4)])


def test_many_bad_lines_are_counted():
    refuse(["run", write_file(*["x"] * 500)], "... and 480 more")


def test_one_bad_file_of_two():
    good = write_file(GOOD, name="good.jsonl")
    bad = write_file("x", name="bad.jsonl")
    refuse(["run", good, bad], bad + ":1:")


def test_a_check_sends_nothing():
    daemon = ScriptedDaemon()
    harness.os.environ["NORV_HOST"] = "127.0.0.1"
    harness.os.environ["NORV_PORT"] = daemon.port
    good = write_file(GOOD, '{"announce":"main"}', GOOD, name="good.jsonl")
    equal(norvctl("check", good).out, "2 commands and 1 announcements, all good\n")
    equal(norvctl("check", "-", input=GOOD).status, 0)
    bad = write_file(GOOD, '{"type":"createPrt"}', '{"announce":"man"}', name="bad.jsonl")
    finished = norvctl("check", good, bad)
    equal((finished.status, finished.out), (1, ""), finished)
    for words in (bad + ":2:", 'nearest is "createPort"', bad + ":3: this queue is announced"):
        assert words in finished.err, finished
    equal(daemon.calls(), [])


def test_standard_input_is_sent_up_to_the_bad_line():
    daemon = ScriptedDaemon()
    finished = norvctl("run", *daemon.address, "-", input=GOOD + "\nx\n" + GOOD + "\n")
    equal(finished.status, 1, finished)
    assert "standard input:2:" in finished.err and "1 commands before it were sent" in finished.err
    equal(daemon.calls(), ["getVersion"])


def test_a_file_as_a_stream_is_sent_up_to_the_bad_line():
    daemon = ScriptedDaemon()
    file = write_file(GOOD, GOOD, "x", GOOD)
    finished = norvctl("run", "--stream", *daemon.address, file)
    equal(finished.status, 1, finished)
    assert file + ":3:" in finished.err, finished
    equal(daemon.calls(), ["getVersion"] * 2)


def test_unknown_key():
    refuse_line('{"type":"destroyPort","reqest":{"name":"a"}}', ":3:23:", 'unknown key "reqest"', '"request"')
    refuse_line('{"type":"getVersion","seq":1}', 'unknown key "seq"')
    refuse_line('{"announce":"main","situation":""}', "no other key")


def test_key_given_twice():
    refuse_line('{"type":"getVersion","type":"resetAll"}', ":3:22:", 'key "type" comes twice')
    refuse_line('{"type":"createPort","request":{"name":"a","name":"b"}}', '"name" comes twice')


def test_nul():
    refuse_line('{"type":"getVersion"}\0{"type":"killBess"}', ":3:22:", "NUL")
    refuse_line('{"type":"getVersion","queue":"a\\u0000b"}', '"queue"', "NUL")
    refuse_line('{"announce":"a\\u0000b"}', '"announce"', "NUL")


def test_announcement_of_a_queue_that_never_gets_a_command():
    refuse_line('{"announce":"man"}', "this queue is announced and never gets a command")


def test_announcement_of_a_queue_that_never_gets_a_command_in_a_stream():
    daemon = ScriptedDaemon()
    finished = norvctl("run", *daemon.address, "-", input=GOOD + '\n{"announce":"man"}\n')
    equal(finished.status, 1, finished)
    assert "standard input:2: this queue is announced" in finished.err, finished
    equal(daemon.calls(), ["getVersion"])


def test_raw_request_that_is_none():
    refuse_line('{"type":"destroyPort","request_raw":"?"}', "no base64")
    refuse_line('{"type":"destroyPort","request_raw":"CgA"}', "no base64")
    refuse_line('{"type":"destroyPort","request_raw":"Cn8="}', "no DestroyPortRequest")


def test_raw_request_that_is_another():
    # The bytes of a name "a".
    refuse_line('{"type":"destroyPort","request":{"name":"b"},"request_raw":"CgFh"}', ":3:46:", "different things")
    refuse_line('{"type":"destroyPort","request":{},"request_raw":"CgFh"}', "different things")
    refuse_line('{"type":"destroyPort","request_raw":"CgFh","request":{"nme":"a"}}', ":3:44:", "nme")


def test_standard_input_that_is_closed():
    read_end, write_end = harness.os.pipe()
    harness.os.close(write_end)
    finished = harness.subprocess.run(
        ["sh", "-c", f"{harness.NORVCTL} run --standin - <&-"],
        capture_output=True, text=True, timeout=harness.PATIENCE,
    )
    harness.os.close(read_end)
    equal(finished.returncode, 1, finished)
    assert "standard input: " in finished.stderr, finished


def test_host_beside_the_standin():
    file = write_file(GOOD)
    for option in (["--host", "a"], ["--port", "1"]):
        finished = norvctl("run", "--standin", *option, file)
        equal(finished.status, 1, finished)
        assert "excludes" in finished.err, finished


def test_hosts_without_a_name():
    for hosts in ("", "a,,b", "a,"):
        finished = norvctl("run", "--host", hosts, write_file(GOOD))
        equal(finished.status, 1, finished)
        assert "--host: a host's name is empty" in finished.err, finished


def test_several_hosts_where_one_is_asked():
    for verb in (["show"], ["watch"], ["doctor"], ["shell"]):
        finished = norvctl(*verb, "--host", "a,b")
        equal(finished.status, 1, finished)
        assert "--host: 'a,b' is a list; this verb takes one host" in finished.err, finished
    harness.os.environ["NORV_HOST"] = "a,b"
    finished = norvctl("show")
    equal(finished.status, 1, finished)
    assert "NORV_HOST: 'a,b' is a list" in finished.err, finished


def test_port_of_the_environment():
    harness.os.environ["NORV_PORT"] = "many"
    finished = norvctl("call", "getVersion")
    equal(finished.status, 1, finished)
    assert "NORV_PORT" in finished.err and "'many'" in finished.err, finished
    # Where a stand-in is driven nobody asks for the port.
    finished = norvctl("call", "--standin", "getVersion")
    equal(finished.status, 0, finished)


def test_missing_file():
    good = write_file(GOOD)
    refuse(["run", good, good + ".lost"], good + ".lost: No such file or directory")


def test_folder():
    refuse(["run", harness.SOURCES], harness.SOURCES)


def test_call_of_unknown_type():
    refuse(["call", "getVersin"], 'nearest is "getVersion"')


def test_call_with_unknown_field():
    refuse(["call", "createPort", '{"nme":"a"}'], "nme", "norvctl template createPort")


def test_call_with_a_key_given_twice():
    refuse(["call", "createPort", '{"name":"a","name":"b"}'], "line 1, column 13", '"name" comes twice', "template createPort")
    refuse(["call", "createPort", "-"], "line 3, column 1", '"name" comes twice', input='{\n"name":"a",\n"name":"b"}\n')
    refuse(["call", "createPort", '{"name":}'], "line 1, column 9", "malformed JSON")
    refuse(["call", "createPort", "{name:'a'}"], "malformed JSON")
    refuse(["call", "createPort", ""], "malformed JSON")
    refuse(["call", "createPort", "-"], "NUL", input='{"name":"a"}\0')


def test_a_field_under_both_its_names():
    fields = '{"num_inc_q":1,"numIncQ":2}'
    refuse(["call", "createPort", fields], '"numIncQ" and "num_inc_q" are the same field')
    refuse_line('{"type":"createPort","request":' + fields + "}", ":3:22:", "the same field")
    # In an argument, and in the elements of a list.
    strip = '{"@type":"type.googleapis.com/bess.pb.PMDPortArg","vlan_offload_rx_strip":true,"vlanOffloadRxStrip":false}'
    refuse_line('{"type":"createPort","request":{"arg":' + strip + "}}", '"vlanOffloadRxStrip" and "vlan_offload_rx_strip"')
    inner = '{"class":{"leaf_module_name":"a","leafModuleName":"b"}}'
    refuse_line('{"type":"addTc","request":' + inner + "}", '"leafModuleName" and "leaf_module_name"')


def test_options_of_call_that_exclude_each_other():
    refuse(["call", "--json", "--yaml", "getVersion"], "excludes")


def test_recording_into_an_input():
    file = write_file(GOOD)
    refuse(["run", "--record", file, file], "one of the files to run")


def test_template_of_unknown_type():
    finished = norvctl("template", "createPrt")
    equal(finished.status, 1)
    assert 'nearest is "createPort"' in finished.err, finished


def test_unknown_option():
    refuse(["run", "--fly", write_file(GOOD)], "--fly")
    refuse(["call", "--quiet", "getVersion"], "--quiet")


def test_options_with_bad_values():
    file = write_file(GOOD)
    refuse(["run", "--timeout", "-1", file], "--timeout")
    refuse(["run", "--timeout", "soon", file], "--timeout")
    refuse(["run", "--timeout", "nan", file], "--timeout")
    refuse(["run", "--timeout", "1e300", file], "--timeout")
    refuse(["run", "--on-failure", "perhaps", file], "--on-failure")
    finished = norvctl("run", "--port", "70000", file)
    equal(finished.status, 1)
    assert "--port" in finished.err, finished


def test_simulation_would_send_nothing():
    harness.os.environ["SIMULATION_NORV"] = ""
    refuse(["run", write_file(GOOD)], "SIMULATION_NORV")


def test_usage():
    refuse_usage()
    refuse_usage("run")
    refuse_usage("call")
    refuse_usage("template")
    refuse_usage("fly")


harness.main()
