"""ci/format, ci/tidy and ci/coverage beside programs that note how they were called and say what they are told to: what
they are asked, of which sources, and that their no is the script's no."""

import os

import scratch
from scratch import equal, has

# Notes its arguments; fails where one of them is the source that is wrong.
PROGRAM = """#!/bin/sh
echo "$0 $*" >>"$TREE/called"
for word in "$@"; do
  [ "$word" != "$WRONG" ] || exit 1
done
"""


def called(script, wrong="", argument=()):
    """Status and words of the script, and the calls of its programs, each without its folder."""
    made = scratch.Tree(script)
    for program in ("clang-format", "clang-tidy", "gcovr", "cmake"):
        made.write(f"programs/{program}", PROGRAM, 0o755)
    for source in ("types/src/Cmd.cpp", "types/include/Norv/Cmd.h", "tests/types/CmdTest.cpp", "docs/threads.md"):
        made.write(source, "int one;\n")
    made.commit()
    made.write("build/Generated.cpp", "int two;\n")
    status, said = made.run("env", f"PATH={made.inside('programs')}:{os.environ['PATH']}", f"TREE={made.path}",
                            f"WRONG={wrong}", "sh", script, *argument)
    calls = [line.removeprefix(made.inside("programs/")) for line in made.read("called").splitlines()]
    return status, said, calls


def test_all_sources_of_the_tree_are_asked_for_their_form():
    status, said, calls = called("ci/format")
    equal((status, said), (0, "format: 3 files in order\n"))
    equal(calls, ["clang-format --dry-run --Werror tests/types/CmdTest.cpp types/include/Norv/Cmd.h types/src/Cmd.cpp"])


def test_a_source_out_of_form_is_refused():
    status, said, _ = called("ci/format", "types/include/Norv/Cmd.h")
    equal((status, said), (1, "format: run ./dev format\n"))


def test_clang_tidy_reads_the_tree_as_it_is_built():
    status, said, calls = called("ci/tidy", argument=["build-clang"])
    equal((status, said), (0, "tidy: nothing found\n"))
    equal(calls, ["cmake --build build-clang --target bessgrpc",
                  "clang-tidy -p build-clang --quiet --warnings-as-errors=* tests/types/CmdTest.cpp types/src/Cmd.cpp"])


def test_a_finding_of_clang_tidy_is_refused():
    status, said, _ = called("ci/tidy", "types/src/Cmd.cpp", ["build-clang"])
    assert status != 0, said
    assert "nothing found" not in said, said


def test_too_little_coverage_is_refused():
    status, said, [call] = called("ci/coverage", argument=["build-coverage"])
    equal((status, said), (0, "coverage: build-coverage/coverage/index.html\n"))
    has(call, "gcovr ", " --object-directory build-coverage ", " --fail-under-line 95 --fail-under-branch 85")
    has(call, *(f" --filter {folder}/ " for folder in ("framework", "types", "client", "manager", "agent", "state")))
    status, said, _ = called("ci/coverage", "--fail-under-line", ["build-coverage"])
    equal((status, said), (1, ""))


scratch.main()
