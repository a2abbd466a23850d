"""ci/headers in a scratch tree: which headers it looks at, and what it says of one that does not stand alone."""

import os
import subprocess

import scratch
from scratch import equal, has, need

CMAKE = "cmake_minimum_required(VERSION 3.22)\nproject(tiny NONE)\nadd_custom_target(bessgrpc)\n"
GOOD = "#pragma once\n#include <string>\ninline std::string text() { return {}; }\n"
# In a folder of the tests, which are included as they lie: nobody else gets it.
HELPER = "#pragma once\n#include <support/Nothing.h>\n"


def looked_at(*others):
    need("clang++")
    need("ninja")
    made = scratch.Tree("ci/headers")
    made.write("CMakeLists.txt", CMAKE)
    made.write("framework/include/Lumo/Good.h", GOOD)
    made.write("tests/support/include/support/Helper.h", HELPER)
    for path, text in others:
        made.write(path, text)
    made.commit()
    subprocess.run(["cmake", "-G", "Ninja", "-S", made.path, "-B", made.inside("build")], check=True,
                   stdout=subprocess.DEVNULL)
    os.makedirs(made.inside("build/protocol"))
    return made.run("sh", "ci/headers", "build")


def test_what_stands_alone_passes():
    equal(looked_at(), (0, "headers: 1 stand alone, twice, in four ways\n"))


def test_what_needs_another_header_first_is_named_with_each_way():
    status, said = looked_at(("types/include/Norv/Bad.h", "#pragma once\ninline std::string other() { return {}; }\n"))
    equal(status, 1)
    has(said, *(f"<Norv/Bad.h> with {compiler} as {standard}:" for compiler in ("g++", "clang++")
                for standard in ("c++20", "c++2b")))
    assert "Good.h" not in said and "Helper.h" not in said, said


def test_what_cannot_be_included_twice_is_named():
    status, said = looked_at(("types/include/Norv/Twice.h", "inline int one() { return 1; }\n"))
    equal(status, 1)
    has(said, "<Norv/Twice.h>", "redefinition")


def test_a_conversion_that_loses_is_named():
    status, said = looked_at(("types/include/Norv/Loses.h",
                              "#pragma once\ninline int one(long long of) { return of; }\n"))
    equal(status, 1)
    has(said, "<Norv/Loses.h>", "conversion")


if __name__ == "__main__":
    scratch.main()
