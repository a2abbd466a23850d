"""What the library keeps to and no run of it shows: in its sources, its objects and its imports."""

import ctypes
import os
import re
import subprocess

import check

LIBRARY = os.environ["LIBRARY"]
MODULES = ["types", "client", "manager"]


def code(path):
    """A source without its comments, every run of white space one blank."""
    with open(os.path.join(check.SOURCES, path)) as file:
        text = re.sub(r"//[^\n]*", "", file.read())
    return re.sub(r"\s+", " ", text)


def files(*modules):
    found = []
    for module in modules or MODULES:
        for folder, _, names in os.walk(os.path.join(check.SOURCES, module)):
            found += [os.path.relpath(os.path.join(folder, name), check.SOURCES)
                      for name in sorted(names) if name.endswith((".h", ".cpp", ".def"))]
    assert found, "no sources"
    return found


def everything(*modules):
    return "\n".join(code(path) for path in files(*modules))


def arguments(name, text):
    """The arguments of every call, up to the first closing parenthesis."""
    return re.findall(r"(?<![\w:])" + name + r"\(([^()]*)\)", text)


def imports():
    lines = check.run(check.need("nm"), "-DC", "--undefined-only", LIBRARY).splitlines()
    return [line.split(None, 1)[1] for line in lines]


def imported(pattern):
    return [name for name in imports() if re.match(pattern, name)]


def body(path, head):
    """The body of the function whose definition starts so."""
    text = code(path)
    at = text.index(head)
    start = text.index("{", at)
    depth = 0
    for end in range(start, len(text)):
        depth += {"{": 1, "}": -1}.get(text[end], 0)
        if depth == 0:
            return text[start:end + 1]
    raise AssertionError(f"{head} has no end")


def in_order(text, *parts):
    at = 0
    for part in parts:
        found = text.find(part, at)
        assert found >= 0, f"no {part!r} where it belongs in\n{text}"
        at = found + len(part)


def test_each_class_lives_in_its_module():
    for module, names in {
        "types": ["GrpcRequestType", "GrpcCmd", "CmdGroup", "CmdConfigGroup", "GrpcGlobalCmdConfig",
                  "ConnectionConfig", "GrpcErrorHandlingStatus"],
        "client": ["GrpcClient", "AsyncClientCall"],
        "manager": ["ConnectionsMgr", "CmdConfigGroupSm"],
    }.items():
        for name in names:
            header = f"{module}/include/Norv/{name}.h"
            assert re.search(rf"(class|struct|enum) {name} ", code(header)), header
    assert "class LinkQueue " in code("types/include/Lumo/LinkQueue.h")
    for name in ("PtrInterface", "Entity", "NotifieeConst", "Lock", "Condition", "LumoType"):
        assert re.search(rf"class (LUMO_\w+(\(.*?\))? )?{name} ", everything("framework")), name


def test_anchors_pass_no_flags():
    flags = []
    text = everything()
    for kind, count in (("LockAnchor", 2), ("ActivityLockAnchor", 1)):
        for given in re.findall(rf"\b{kind} \w+\(([^()]*)\);", text):
            flags += given.split(",")[count - 1:]
    assert len(flags) >= 5, f"only {len(flags)} anchors found"
    check.equal({flag.strip() for flag in flags}, {"0"}, "flags of the anchors")


def test_nobody_clears_the_error_flag():
    given = [argument for argument in arguments(r"(?:\w+(?:->|\.))?errorOccuredIs", everything())
             if argument != "bool errorOccured"]
    check.equal(given, ["true"], "what the flag is set to")


def test_only_the_manager_asks_the_environment():
    # What it asks for is seen at the platform, by manager_platform_test.
    nm = check.need("nm")
    asking = {re.search(r"norv_(\w+)\.dir", path)[1] for path in os.environ["OBJECTS"].split(":")
              if re.search(r" (secure_)?getenv$", check.run(nm, "--undefined-only", path), re.M)}
    check.equal(asking, {"manager"}, "modules that call getenv")


def test_no_file_is_read():
    check.equal(imported(r"(f?open(64)?|std::basic_i?fstream|popen)\b"), [], "imports")


def test_one_plain_channel_one_stub_one_client_one_thread():
    text = everything()
    for call in ("grpc::CreateChannel(address, grpc::InsecureChannelCredentials())",
                 "BESSControl::NewStub(channel)", "new GrpcClient(", "new std::thread(",
                 "new grpc::CompletionQueue()"):
        check.equal(text.count(call), 1, call)
    check.equal(len(imported(r"grpc::CreateChannel\(")), 1, "ways to a channel")
    check.equal(imported(r"grpc::(CreateCustomChannel|ChannelArguments)"), [], "imports")
    for more in ("CreateChannel", "NewStub"):
        check.equal(text.count(more), 1, more)


def test_a_worker_that_has_begun_is_neither_joined_nor_detached():
    check.equal(imported(r"std::(j?thread)::(detach|request_stop)\b"), [], "imports")
    # The one that is joined was told to leave before it began.
    check.equal(everything().count("->join()"), 1, "joins")
    in_order(body("manager/src/ConnectionsMgr.cpp", "void ConnectionsMgr::Connecting::takeDown()"),
             "tellWorker(leaves)", "->join()")


def test_calls_have_no_deadline():
    text = everything("client")
    for word in ("set_deadline", "AsyncNext", "AddMetadata", "set_compression_algorithm",
                 "set_credentials", "PrepareAsync", "StartCall", "error_details"):
        assert word not in text, word
    check.equal(text.count("cq_->Next("), 2, "waits for a completion")
    check.equal(text.count("set_wait_for_ready(true)"), 1, "calls that wait for the daemon")


def test_three_trace_handles():
    names = re.findall(r'TraceHandle handle\("(\w+)"', everything())
    check.equal(sorted(names), ["GrpcClient", "GrpcTypes", "NorvConnectionsMgr"], "default handles")


def test_the_manager_leaves_clock_version_and_flush_to_others():
    for call, definitions in (("clockIs", 1), ("doFlushPendingQueue", 1)):
        sources = "\n".join(code(path) for path in files("manager", "client", "types")
                            if path.endswith(".cpp"))
        found = re.findall(rf"(?<!&)(?<!trace<ManagerTrace::)\b(?:\w+::)*{call}\(", sources)
        check.equal(len(found), definitions, f"{call}( in sources")
    assert "enqueueVersion()" not in everything("manager")


def test_steps_that_do_not_show():
    manager = "manager/src/ConnectionsMgr.cpp"
    client = "client/src/GrpcClient.cpp"
    in_order(body(manager, "void ConnectionsMgr::Connecting::connect()"),
             "new GrpcClient(channel, mgr_.pendingQueue_, mgr_.grpcErrorHandlingStatus_, "
             "mgr_.threadLock_, mgr_.threadCondition_)",
             "startWorker()", "clientStarted")
    in_order(body(manager, "ConnectionsMgr::~ConnectionsMgr()"), "destroyGrpcClient()", "leave()")
    in_order(body(client, "GrpcClient::GrpcClient("), "starting", "NewStub", "cmdGroup_ = ",
             "errorStatus_ = ", "lock_ = ", "condition_ = ", "cq_ = new")
    in_order(body(client, "GrpcClient::~GrpcClient()"), "terminating", "cq_->Shutdown()",
             'LUMO_ASSERT(cq_, "cq_")', "delete cq_")
    sending = body(client, "void GrpcClient::sendRequestCommon(")
    in_order(sending, "new AsyncClientCall<Response>()", "dynamic_cast<const Request*>(cmd->request())",
             "LUMO_ASSERT(request,", "set_wait_for_ready(true)", "responseReader.reset(",
             "Finish(&call->response, &call->status, call)", "if (!call->status.ok())", "failedSend")
    assert "errorOccured" not in sending and sending.count("Finish(") == 1


def test_reactors_become_zombies_one_by_one_and_held():
    machine = body("manager/src/CmdConfigGroupSm.cpp", "void CmdConfigGroupSm::lumoDoZombieReactors(")
    in_order(machine, "if (zombie == lumoMarkedForDeletion()) return;",
             "Lumo::Ptr<LumoClock> clock = lumoClock_) clock->lumoDoZombieReactors(zombie);",
             "Lumo::Ptr<LumoConfigGroup> group = lumoConfigGroup_)",
             "group->lumoDoZombieReactors(zombie);", "lumoMarkedForDeletionIs(zombie);")
    manager = body("manager/src/ConnectionsMgr.cpp", "void ConnectionsMgr::lumoDoZombieReactors(")
    in_order(manager, "if (zombie == lumoMarkedForDeletion()) return;",
             "Lumo::Ptr<LumoGlobalCmdConfig> reactor = lumoGlobalCmdConfig_)",
             "reactor->lumoDoZombieReactors(zombie);", "lumoMarkedForDeletionIs(zombie);")


def test_the_workers_flag_is_set_back_once_only():
    loop = body("client/src/GrpcClient.cpp", "void GrpcClient::doProcessGrpcCmd()")
    in_order(loop, "bool ok = false;", "while (true)", "cmd = getCmdFromQueue();",
             "sendRequestInternal(cmd);", "cq_->Next(&tag, &ok);", "if (ok) processResponse(cmd, tag);",
             "noMoreCmds", "LockAnchor", "condition_->wait(lock_);", "wakenUp")
    check.equal(len(re.findall(r"\bok = ", loop)), 1, "assignments to the flag")
    assert "return" not in loop and "break" not in loop, "a way out of the loop"


def test_references_are_reported_then_subtracted_then_looked_at():
    step = body("framework/include/Lumo/PtrInterface.h", "void referencesDec() const")
    in_order(step, "recordReferenceRemove()", "references_.dec()", "handleZeroRef()")


def test_thread_ids_assert_their_size():
    text = '"sizeof( U64 ) >= sizeof( pthread_t )"'
    for head in ("pthread_t toPthread(U64 const& id)", "U64 toU64(pthread_t const& thread)"):
        in_order(body("framework/src/ThreadId.cpp", head), "LUMO_ASSERT(", text)


def test_the_conversions_of_the_request_type_are_forwards():
    source = "types/src/GrpcRequestType.cpp"
    text = code(source)
    assert "using Services = Lumo::EnumType<unsigned int>;" in text
    for head, service in {
        "GrpcRequestType GrpcRequestTypeInstance(U32 value)": "instance",
        "GrpcRequestType GrpcRequestTypeInstance(const Lumo::String& name)": "instance",
        "std::ostream& operator<<(std::ostream& out, const GrpcRequestType& type)": "operatorLessLess",
        "Lumo::String valueToStrep(const GrpcRequestType& type)": "valueToStrep",
        "Lumo::String stringValue(GrpcRequestType type)": "stringValue",
        "void sequenceToValue(": "sequenceToValue",
    }.items():
        forward = body(source, head)
        check.equal(re.findall(r"Services::(\w+)\(_lumoType_GrpcRequestType, ", forward), [service],
                    f"services that {head} calls")
        assert not re.search(r"\b(if|for|while|switch)\b|\?", forward), forward
    check.equal(re.findall(r"\bnamespace (\w+) {", text), ["Norv"], "named namespaces")


def test_the_queue_takes_no_lock():
    for path in ("types/include/Lumo/LinkQueue.h", "types/include/Norv/CmdBatch.h",
                 "types/include/Norv/CmdGroup.h", "types/src/CmdGroup.cpp"):
        check.equal(re.findall(r"\b\w*(?:Lock|Anchor|mutex|atomic)\w*", code(path)), [], path)


def test_nobody_moves_the_indexes_of_a_queue():
    # Two declarations and the definition of the one that is not inline.
    check.equal(len(re.findall(r"\bcmdBatchMetadataIs\b", everything())), 3, "mentions")
    check.equal(len(re.findall(r"\bcmdBatch_\.metadataIs\(", everything())), 2, "calls inside of them")


def test_no_pending_count_is_taken_back():
    assert "pendingCountInc" in everything()
    assert "pendingCountDec" not in everything()


def test_members_in_their_order():
    in_order(code("types/include/Norv/GrpcCmd.h"), "private:", "google::protobuf::Message* request_;",
             "GrpcRequestType requestType_;")
    in_order(code("types/include/Norv/CmdBatch.h"), "class CmdBatchEntry", "private:", "U32 index_;",
             "Lumo::Ptr<GrpcCmd> cmdBatch_;", "Lumo::Ptr<CmdBatchEntry> lqNext_;")
    in_order(code("types/include/Lumo/LinkQueue.h"), "private:", "Index headIndex_;",
             "Index tailIndex_;", "U32 version_ = 0;", "U32 members_ = 0;", "Ptr<Entry> head_;",
             "Entry* tail_ = nullptr;")
    in_order(code("types/include/Norv/ConnectionConfig.h"), "private:", "U16 portNum_;",
             "Lumo::String host_;")
    in_order(code("types/include/Norv/GrpcErrorHandlingStatus.h"), "private:",
             "std::atomic<bool> errorOccured_{false};")
    in_order(code("client/include/Norv/GrpcClient.h"), "private:", "> stub_;", "cq_;", "cmdGroup_;",
             "errorStatus_;", "lock_;", "condition_;")
    in_order(code("manager/include/Norv/ConnectionsMgr.h"), "void leave();", "hostConfig_;",
             "lumoGlobalCmdConfig_;", "pendingQueue_;", "grpcErrorHandlingStatus_;", "client_ =",
             "grpcReplyThread_ =", "threadLock_ =", "threadCondition_ =", "cmdConfigGroupSm_{4};",
             "initialized_ =")
    in_order(code("framework/include/Lumo/Clock.h"),
             "std::map<NotifieeListClockKey, NotifieeListClockLinkNode> schedule_;")


def test_headers_need_exceptions_and_type_information():
    includes = [f"-I{check.SOURCES}/{module}/include" for module in ("framework", "types", "manager")]
    compiler = [check.need("g++"), "-std=c++20", "-fsyntax-only", *includes, "-x", "c++", "-"]
    for option, complaint in ((None, None), ("-fno-exceptions", "exception handling disabled"),
                              ("-fno-rtti", "-fno-rtti")):
        done = subprocess.run(compiler + ([option] if option else []), capture_output=True, text=True,
                              input="#include <Norv/ConnectionsMgr.h>\n")
        check.equal(done.returncode == 0, option is None, f"whether it compiles with {option}: {done.stderr}")
        assert not complaint or complaint in done.stderr, done.stderr


def initialisers(path):
    """The priorities with which an object has code run when it is loaded; 0 for none given."""
    table = check.run(check.need("readelf"), "-SW", path)
    return {int(priority or 0) for priority in re.findall(r" \.init_array(?:\.(\d+))? ", table)}


def called_when_loaded(path):
    table = check.run(check.need("objdump"), "-drC", "-j", ".text.startup", path)
    names = set(re.findall(r"R_\w+\s+(.+?)-0x[0-9a-f]+$", table, re.M))
    return {name for name in names if not name.startswith(".") and name != "__dso_handle"}


def test_each_module_has_one_initialiser():
    if os.environ["SANITIZED"]:
        raise check.Skip("a sanitizer adds initialisers of its own")
    found = {}
    for path in os.environ["OBJECTS"].split(":"):
        name = os.path.basename(path).removesuffix(".o")
        ours = initialisers(path) - {0}
        if ours:
            found[name] = ours
        elif initialisers(path):
            # Headers of gRPC and Protocol Buffers bring the standard streams, and nothing of ours.
            brought = called_when_loaded(path)
            assert brought <= {"std::ios_base::Init::Init()", "std::ios_base::Init::~Init()",
                               "__cxa_atexit"}, f"{name} has code of its own: {brought}"
    check.equal(found, {"ManagerModule.cpp": {1001}, "TypesModule.cpp": {1002},
                        "ClientModule.cpp": {1003}}, "initialisers")
    in_order(code("framework/include/Lumo/RegisteringModule.h"), "typeNodeIs(type); *registered = 0;",
             "std::ios_base::Init streams_;", "ExceptionTester exceptions_;")


def test_the_bytes_of_the_modules_are_zero_once_it_is_loaded():
    if os.environ["SANITIZED"]:
        raise check.Skip("a sanitized library cannot be loaded into Python")
    table = check.run(check.need("readelf"), "-sW", LIBRARY)
    symbols = re.findall(r"([0-9a-f]+) +1 OBJECT +LOCAL +DEFAULT +\d+ (\S+10registeredE)$", table, re.M)
    check.equal(len(symbols), 2, f"bytes in {LIBRARY}")
    library = ctypes.CDLL(LIBRARY)
    with open("/proc/self/maps") as maps:
        base = min(int(line.split("-")[0], 16) for line in maps if os.path.realpath(LIBRARY) in line)
    assert library, "not loaded"
    for address, name in symbols:
        check.equal(ctypes.c_char.from_address(base + int(address, 16)).value, b"\0", name)


def test_each_class_has_its_descriptor_and_its_record():
    listed = check.run(check.need("nm"), "-C", "--defined-only", LIBRARY)
    classes = re.findall(r"LUMO_OBJECT\((\w+)\)", everything())
    assert len(classes) >= 12, classes
    for name in set(classes):
        for static in ("_lumoType", "lumoAllocTrackTypeInfo_"):
            assert re.search(rf"\b{name}(<[^>]*>)?::{static}$", listed, re.M), f"{name}::{static}"


if __name__ == "__main__":
    check.main()
