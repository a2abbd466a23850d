"""ci/hardened on a program and a library of a few lines: what it says of one that was built without a protection."""

import subprocess

import scratch
from scratch import equal, has

# Writes to an array of a size that is known as it runs, so that the stack is guarded and the call fortified.
PROGRAM = """#include <cstdio>
int main(int count, char** words) {
  char text[64];
  std::snprintf(text, sizeof text, "%d %s", count, words[0]);
  return std::puts(text) < 0;
}
"""
ALL = ("-O2", "-D_FORTIFY_SOURCE=2", "-fstack-protector-strong", "-fPIE", "-pie", "-Wl,-z,relro,-z,now")


def said_of(*options):
    made = scratch.Tree("ci/hardened")
    made.write("program.cpp", PROGRAM)
    subprocess.run(["g++", made.inside("program.cpp"), "-o", made.inside("program"), *options], check=True)
    return made.run("sh", "ci/hardened", "program")


def without(option, *instead):
    assert option in ALL
    return said_of(*(one for one in ALL if one != option), *instead)


def test_a_program_with_all_of_it_passes():
    equal(said_of(*ALL), (0, "hardened: 1 programs and libraries\n"))


def test_what_is_missing_is_named():
    equal(without("-pie", "-no-pie"), (1, "hardened: program is not position independent\n"))
    equal(without("-fstack-protector-strong", "-fno-stack-protector"),
          (1, "hardened: program does not guard its stack\n"))
    equal(without("-D_FORTIFY_SOURCE=2", "-U_FORTIFY_SOURCE"), (1, "hardened: program has no fortified call\n"))
    equal(without("-Wl,-z,relro,-z,now", "-Wl,-z,relro,-z,lazy"),
          (1, "hardened: program finds functions as they are called\n"))
    equal(without("-Wl,-z,relro,-z,now", "-Wl,-z,norelro,-z,now"),
          (1, "hardened: program can be written where it is relocated\n"))


def test_a_library_needs_no_fortified_call():
    status, said = without("-D_FORTIFY_SOURCE=2", "-U_FORTIFY_SOURCE", "-shared", "-fPIC")
    equal((status, said), (0, "hardened: 1 programs and libraries\n"))


def test_a_file_that_is_not_there_is_named():
    made = scratch.Tree("ci/hardened")
    status, said = made.run("sh", "ci/hardened", "nothing")
    equal(status, 1)
    has(said, "nothing cannot be read")


if __name__ == "__main__":
    scratch.main()
