"""ci/layers on a tree of a few headers: which includes it refuses."""

import scratch
from scratch import equal, has

FINE = "layers: includes go one way\n"
HEADERS = ["framework/include/Lumo/Ptr.h", "framework/include/Lumo/PrivateFile.h", "types/include/Norv/Cmd.h",
           "types/include/Norv/GrpcRequests.def", "manager/include/Norv/Mgr.h"]


def said_of(path, line):
    """What it says of a file with this line."""
    made = scratch.Tree("ci/layers")
    for header in HEADERS:
        made.write(header, "#pragma once\n")
    made.write(path, line + "\n")
    made.commit()
    return made.run("sh", "ci/layers")


def refused(path, line, *words):
    status, said = said_of(path, line)
    equal(status, 1)
    has(said, f"layers: {path} includes ", *words)


def test_includes_go_down():
    equal(said_of("manager/src/Mgr.cpp", "#include <Norv/Cmd.h>"), (0, FINE))
    equal(said_of("types/src/Cmd.cpp", "#include <Lumo/Ptr.h>"), (0, FINE))
    equal(said_of("tools/norvd/main.cpp", "#include <Norv/Mgr.h>"), (0, FINE))


def test_nothing_includes_what_stands_above_it():
    refused("types/src/Cmd.cpp", "#include <Norv/Mgr.h>", "Norv/Mgr.h of manager/")
    refused("framework/include/Lumo/More.h", "#  include <Norv/Cmd.h>", "Norv/Cmd.h of types/")
    refused("protocol/src/Facts.cpp", "#include <Lumo/Ptr.h>", "Lumo/Ptr.h of framework/")


def test_no_way_leads_around():
    refused("types/src/Cmd.cpp", '#include "../../manager/include/Norv/Mgr.h"', "which is not in types/")
    refused("types/src/Cmd.cpp", '#include "./../../manager/include/Norv/Mgr.h"', "which is not in types/")
    refused("types/src/Cmd.cpp", "#include <../../manager/include/Norv/Mgr.h>", "which is not in types/")
    refused("manager/src/Mgr.cpp", '#include "types/src/Own.h"', "another folder's src/")
    refused("manager/src/Mgr.cpp", '#include "../../types/src/Own.h"', "another folder's src/")
    equal(said_of("framework/src/skein/Ring.cpp", '#include "../trace/Line.h"'), (0, FINE))


def test_types_stand_on_messages_alone():
    refused("types/src/Cmd.cpp", "#include <grpcpp/grpcpp.h>", "a gRPC header")


def test_the_stand_in_has_two_headers_of_others():
    equal(said_of("standin/src/Server.cpp", "#include <Norv/GrpcRequests.def>\n#include <Lumo/PrivateFile.h>"), (0, FINE))
    refused("standin/src/Server.cpp", "#include <Lumo/Ptr.h>", "Lumo/Ptr.h of framework/")
    refused("standin/src/Server.cpp", "#include <Norv/Cmd.h>", "Norv/Cmd.h of types/")


scratch.main()
