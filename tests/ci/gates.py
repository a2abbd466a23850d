"""ci/gates with a ./dev that only writes down what it is asked for: what is run, what is passed over, how it ends."""

import os

import scratch
from scratch import equal, has

DEV = """#!/bin/sh
echo "$*" >>asked
echo "said by $*"
[ ! -e fails ] || [ "$(cat fails)" != "$1" ]
"""


def tree():
    made = scratch.Tree("ci/gates")
    made.write("dev", DEV, 0o755)
    made.write(".gitignore", "build/\nasked\nfails\n")
    made.write("source", "one\n")
    made.commit()
    return made


def asked(made):
    return made.read("asked").splitlines()


def test_a_gate_has_a_line_and_a_log():
    made = tree()
    status, said = made.run("ci/gates", "form", "asan")
    equal(status, 0)
    [form, asan] = said.splitlines()
    assert form.split()[:2] == ["form", "passed"] and asan.split()[:2] == ["asan", "passed"], said
    equal(asked(made), ["form", "check asan"])
    equal(made.read("build/gates/asan.log"), "said by check asan\n")


def test_what_passed_on_the_same_sources_is_not_run_again():
    made = tree()
    made.run("ci/gates", "form")
    has(made.run("ci/gates", "form")[1], "passed before")
    equal(asked(made), ["form"])
    made.run("ci/gates", "--again", "form")
    equal(asked(made), ["form", "form"])


def test_it_is_run_again_on_other_sources_also_where_they_are_not_committed():
    made = tree()
    made.run("ci/gates", "form")
    made.write("source", "two\n")
    made.run("ci/gates", "form")
    made.write("another", "new\n")
    made.git("add", "another")
    made.run("ci/gates", "form")
    equal(asked(made), ["form"] * 3)
    equal(made.git("status", "--short"), "A  another\n M source\n")
    # As it was committed, nothing is left to do.
    made.git("add", "--all")
    made.git("commit", "--quiet", "--message", "two")
    made.run("ci/gates", "form")
    equal(asked(made), ["form"] * 3)


def test_a_file_that_git_does_not_know_is_an_error():
    made = tree()
    made.write("another", "new\n")
    status, said = made.run("ci/gates", "form")
    equal(status, 1)
    has(said, "git does not know another")
    assert not os.path.exists(made.inside("asked")), said


def test_what_was_run_on_changing_sources_is_run_again():
    made = tree()
    made.write("dev", "#!/bin/sh\necho \"$*\" >>asked\necho more >>source\n", 0o755)
    made.commit()
    status, said = made.run("ci/gates", "form")
    equal(status, 0)
    has(said, "the sources have changed meanwhile")
    made.run("ci/gates", "form")
    equal(asked(made), ["form"] * 2)


def test_what_could_not_be_tried_has_not_passed():
    made = tree()
    made.write("dev", "#!/bin/sh\necho \"$*\" >>asked\necho no room here\nexit 77\n", 0o755)
    made.commit()
    for _ in range(2):
        status, said = made.run("ci/gates", "package")
        equal(status, 77)
        has(said, "SKIPPED", ": no room here", "1 gates could not be tried here: package")
    equal(asked(made), ["package"] * 2)


def test_tests_that_could_not_be_tried_are_counted():
    made = tree()
    made.write("dev", "#!/bin/sh\nprintf '1/3 Test #1: a ...***Skipped   0.00 sec\\n\\t  1 - a (Skipped)\\n\\t  3 - c (Skipped)\\n'\n",
               0o755)
    made.commit()
    status, said = made.run("ci/gates", "gcc")
    equal(status, 0)
    has(said, "passed", "; 2 tests could not be tried here")


def test_the_others_go_on_after_one_that_fails():
    made = tree()
    made.write("fails", "form")
    status, said = made.run("ci/gates", "form", "asan")
    equal(status, 1)
    has(said, "FAILED", "see build/gates/form.log", "1 gates failed: form")
    equal(asked(made), ["form", "check asan"])
    made.write("fails", "")
    status, said = made.run("ci/gates", "form", "asan")
    equal(status, 0)
    equal(asked(made), ["form", "check asan", "form"])


def test_a_gate_that_there_is_not_is_an_error():
    made = tree()
    status, said = made.run("ci/gates", "form", "from")
    equal(status, 2)
    has(said, "no gate from")


if __name__ == "__main__":
    scratch.main()
