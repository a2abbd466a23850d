"""ci/mutation in a scratch tree with a library of one source and a header: which faults it finds, and what it makes of
a survivor."""

import os

import scratch
from scratch import equal, has

CMAKE = """cmake_minimum_required(VERSION 3.22)
project(tiny LANGUAGES CXX)
add_library(norv SHARED manager/src/Tiny.cpp)
target_include_directories(norv PUBLIC manager/include)
set_target_properties(norv PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/bin)
foreach(test manager_test manager_memory_test manager_platform_test library_test library_trace_test)
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


# A header whose code only the tests contain.
HEADER = """template <class T>
class Counter {
 public:
  explicit Counter(int start) { count_ = start; }
  void countIs(int count);
  T count() const { return count_; }

 private:
  bool counts_ = true;
  T count_;
};
"""
HEADER_PATH = "manager/include/Norv/Tiny.h"
SEES_HEADER = """#include <Norv/Tiny.h>
int main() { return Counter<int>(2).count() == 2 ? 0 : 1; }
"""
# A guard, something that looks like one and is needed below, and an end of something that looks like a declaration.
GUARDED = """int depth = 0;
struct Deeper {
  Deeper(int by) : by_(by) { depth += by; }
  ~Deeper() { depth -= by_; }
  int by_;
};
int larger(int one, int other) {
  Deeper deeper(1);
  int* copy = new int(depth);
  const int result = *copy;
  if (one) {
    delete copy;
  }
  return result;
}
"""


def tree(test, accepted=EQUIVALENT, source=SOURCE, header=None):
    made = scratch.Tree("ci/mutation")
    for path, text in (("CMakeLists.txt", CMAKE), ("CMakePresets.json", PRESETS), ("manager/src/Tiny.cpp", source),
                       ("Test.cpp", test), ("ci/mutation.accepted", accepted), (".gitignore", "build/\n")):
        made.write(path, text)
    if header:
        made.write(HEADER_PATH, header)
    made.commit()
    return made


def test_lists_the_faults_of_each_line():
    status, said = tree(SEES_ALL).run("ci/mutation", "--list")
    equal(status, 0)
    found = {line.split(": ", 1)[1] for line in said.splitlines()}
    equal(found, {"dropped: ++calls;", "dropped: if (one > other) return one;", "inverted: if (one > other) return one;",
                  ">= for >: if (one > other) return one;", "nothing returned: if (one > other) return one;",
                  "nothing returned: return other;"})


def listed(*arguments, **what):
    status, said = tree(SEES_ALL, "", **what).run("ci/mutation", "--list", *arguments)
    equal(status, 0)
    return [line.split(": ", 1)[1] for line in said.splitlines()]


def test_lists_the_faults_of_a_header():
    equal(listed(HEADER_PATH, header=HEADER),
          ["emptied: explicit Counter(int start) { count_ = start; }",
           "nothing returned: T count() const { return count_; }",
           "false for true: bool counts_ = true;"])


def test_lists_the_guards_of_a_function():
    found = listed(source=GUARDED)
    equal([fault for fault in found if fault.startswith(("guard", "dropped"))],
          ["guard dropped: Deeper deeper(1);", "dropped: delete copy;"])
    equal(listed("--kind", "guard dropped", source=GUARDED), ["guard dropped: Deeper deeper(1);"])


def test_tells_the_same_line_of_two_functions_apart():
    source = "int calls = 0;\nvoid one() {\n  ++calls;\n}\nvoid other() {\n  ++calls;\n}\n"
    equal(listed(source=source), ["dropped: ++calls;", "dropped: ++calls; (2)"])


def test_plants_in_headers_also_what_only_the_tests_contain():
    made = tree(SEES_HEADER, "", header=HEADER)
    status, said = made.run("ci/mutation", "--jobs", "2", HEADER_PATH)
    equal(status, 1)
    has(said, f"noticed   {HEADER_PATH}:4: emptied: ", f"noticed   {HEADER_PATH}:6: nothing returned: ",
        f"SURVIVES  {HEADER_PATH}:9: false for true: ", "1 of 3 faults survive")
    for copy in ("1", "2"):
        equal(made.read(f"build/mutation/{copy}/{HEADER_PATH}"), HEADER)


def test_goes_on_with_what_the_next_fault_is_alone_in():
    # The survivor in the header is compiled into every test before the source has its turn.
    survivor = f"{HEADER_PATH}: false for true: bool counts_ = true;\n"
    both = SEES_ALL.replace("extern", "#include <Norv/Tiny.h>\nextern")
    both = both.replace("calls == 2 ?", "calls == 2 && Counter<int>(2).count() == 2 ?")
    status, said = tree(both, EQUIVALENT + "# Nobody looks.\n" + survivor, header=HEADER).run("ci/mutation")
    equal(status, 0)
    has(said, "0 of 9 faults survive, and 2 that are accepted, of 9 that there are")


def test_passes_where_the_tests_notice_all_but_what_is_accepted():
    made = tree(SEES_ALL)
    status, said = made.run("ci/mutation")
    equal(status, 0)
    has(said, "noticed   manager/src/Tiny.cpp:4: dropped: ++calls;", "accepted  manager/src/Tiny.cpp:5: >= for >",
        "0 of 6 faults survive")
    equal(made.read("build/mutation/1/manager/src/Tiny.cpp"), SOURCE)
    equal(made.git("status", "--short"), "")


def test_names_a_fault_that_survives():
    status, said = tree(SEES_NO_COUNT).run("ci/mutation")
    equal(status, 1)
    has(said, "SURVIVES  manager/src/Tiny.cpp:4: dropped: ++calls;", "1 of 6 faults survive")
    equal(tree(SEES_NO_COUNT, EQUIVALENT + "# Nobody needs it.\n" + UNCOUNTED).run("ci/mutation")[0], 0)


def test_counts_what_is_known_and_real():
    status, said = tree(SEES_NO_COUNT, EQUIVALENT + "# Nobody looks.\nreal " + UNCOUNTED).run("ci/mutation")
    equal(status, 1)
    has(said, "is known  manager/src/Tiny.cpp:4: dropped: ++calls;",
        "1 of 6 faults survive, and 1 that are accepted, of 6 that there are")


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
    has(said, "without any fault this fails in build/mutation/1: ")


def test_refuses_what_is_no_source_of_the_library():
    made = tree(SEES_ALL)
    status, said = made.run("ci/mutation", "Test.cpp")
    equal(status, 1)
    has(said, "not a source of the layers", "Test.cpp")
    assert not os.path.exists(made.inside("build/mutation"))


if __name__ == "__main__":
    scratch.main()
