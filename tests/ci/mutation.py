"""ci/mutation in a scratch tree with a library of one source: which faults it finds, and what it makes of a survivor."""

import os

import scratch
from scratch import equal, has

CMAKE = """cmake_minimum_required(VERSION 3.22)
project(tiny LANGUAGES CXX)
add_library(norv SHARED manager/src/Tiny.cpp)
set_target_properties(norv PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/bin)
foreach(test manager_test manager_platform_test library_test)
  add_executable(${test} Test.cpp)
  target_link_libraries(${test} norv)
endforeach()
"""
PRESETS = """{"version": 3, "configurePresets": [{"name": "gcc", "generator": "Ninja", "binaryDir": "${sourceDir}/build"}]}"""
SOURCE = """// Not a fault: a < b
int calls = 0;
int larger(int one, int other) {
  ++calls;
  if (one > other) return one;
  return other;
}
"""
SEES_ALL = """extern int calls;
int larger(int, int);
int main() { return larger(2, 1) == 2 && larger(1, 2) == 2 && calls == 2 ? 0 : 1; }
"""
SEES_NO_COUNT = SEES_ALL.replace(" && calls == 2", "")
EQUIVALENT = "manager/src/Tiny.cpp: >= for >: if (one > other) return one;\n"
UNCOUNTED = "manager/src/Tiny.cpp: dropped: ++calls;\n"


def tree(test, accepted=EQUIVALENT, source=SOURCE):
    made = scratch.Tree("ci/mutation")
    for path, text in (("CMakeLists.txt", CMAKE), ("CMakePresets.json", PRESETS), ("manager/src/Tiny.cpp", source),
                       ("Test.cpp", test), ("ci/mutation.accepted", accepted), (".gitignore", "build/\n")):
        made.write(path, text)
    made.commit()
    return made


def test_lists_the_faults_of_each_line():
    status, said = tree(SEES_ALL).run("ci/mutation", "--list")
    equal(status, 0)
    found = {line.split(": ", 1)[1] for line in said.splitlines()}
    equal(found, {"dropped: ++calls;", "dropped: if (one > other) return one;", "inverted: if (one > other) return one;",
                  ">= for >: if (one > other) return one;", "nothing returned: if (one > other) return one;",
                  "nothing returned: return other;"})


def test_passes_where_the_tests_notice_all_but_what_is_accepted():
    made = tree(SEES_ALL)
    status, said = made.run("ci/mutation")
    equal(status, 0)
    has(said, "noticed   manager/src/Tiny.cpp:4: dropped: ++calls;", "accepted  manager/src/Tiny.cpp:5: >= for >",
        "0 of 6 faults survive")
    equal(made.read("build/mutation/manager/src/Tiny.cpp"), SOURCE)
    equal(made.git("status", "--short"), "")


def test_names_a_fault_that_survives():
    status, said = tree(SEES_NO_COUNT).run("ci/mutation")
    equal(status, 1)
    has(said, "SURVIVES  manager/src/Tiny.cpp:4: dropped: ++calls;", "1 of 6 faults survive")
    equal(tree(SEES_NO_COUNT, EQUIVALENT + "# Nobody needs it.\n" + UNCOUNTED).run("ci/mutation")[0], 0)


def test_a_fault_that_makes_a_test_run_for_ever_is_noticed():
    # What is dropped is the way out.
    source = "int larger(int one, int other) {\n  while (one < other) {\n    one += other;\n  }\n  return one;\n}\n"
    test = "int larger(int, int);\nint main() { return larger(1, 2) == 3 ? 0 : 1; }\n"
    made = tree(test, "", source)
    status, said = made.run("ci/mutation")
    has(said, "noticed   manager/src/Tiny.cpp:3: dropped: one += other;", "SURVIVES")
    equal(status, 1)


def test_refuses_what_is_accepted_and_gone():
    status, said = tree(SEES_ALL, EQUIVALENT + "manager/src/Tiny.cpp: dropped: --calls;\n").run("ci/mutation")
    equal(status, 1)
    has(said, "dropped: --calls;", "remove them")
    assert EQUIVALENT not in said, said


def test_refuses_a_tree_whose_tests_fail():
    status, said = tree(SEES_ALL.replace("calls == 2", "calls == 3")).run("ci/mutation")
    equal(status, 1)
    has(said, "without any fault this fails in build/mutation: ")


def test_refuses_what_is_no_source_of_the_library():
    made = tree(SEES_ALL)
    status, said = made.run("ci/mutation", "Test.cpp")
    equal(status, 1)
    has(said, "not a source of the layers", "Test.cpp")
    assert not os.path.exists(made.inside("build/mutation"))


if __name__ == "__main__":
    scratch.main()
