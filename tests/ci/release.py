"""ci/release in a scratch tree whose gates and packages are stand-ins: what it refuses, and what it does."""

import os
import subprocess

import scratch
from scratch import equal, has

CALLED = "#!/bin/sh\necho \"called: $1\"\n"
CHANGELOG = """# Changelog

## [Unreleased]

## [0.2.0] - 2026-01-31

### Added

- Something new.

## [0.1.0] - 2025-12-24

- The first.
"""


def tree(changelog=CHANGELOG, version="0.2.0", dev=CALLED):
    made = scratch.Tree("ci/release")
    made.write("CMakeLists.txt", f"cmake_minimum_required(VERSION 3.22)\nproject(norv VERSION {version} LANGUAGES CXX)\n")
    made.write("CHANGELOG.md", changelog)
    made.write("dev", dev, 0o755)
    made.commit()
    return made


def refused(made, *parts, version="0.2.0"):
    status, said = made.run("ci/release", version)
    equal(status, 1)
    has(said, *parts)
    assert "called:" not in said, f"it began all the same:\n{said}"
    equal(made.git("tag", "--list"), "")


def test_passes_the_gates_makes_the_packages_and_tags():
    made = tree()
    status, said = made.run("ci/release", "0.2.0")
    equal(status, 0)
    assert said.index("called: gates") < said.index("called: package") < said.index("v0.2.0 is made"), said
    equal(made.git("tag", "--list"), "v0.2.0\n")
    equal(made.git("rev-parse", "v0.2.0^{commit}"), made.git("rev-parse", "HEAD"))
    equal(made.git("tag", "--list", "--format=%(contents)", "v0.2.0").strip(),
          "norv 0.2.0\n\n### Added\n\n- Something new.")


def test_a_dry_run_says_what_it_would_do():
    made = tree()
    status, said = made.run("ci/release", "0.2.0", "--dry-run")
    equal(status, 0)
    has(said, "release: ./dev gates\nrelease: ./dev package\nrelease: git tag v0.2.0 ")
    assert "called:" not in said and "is made" not in said, said
    equal(made.git("tag", "--list"), "")


def test_a_dry_run_refuses_as_well():
    made = tree(version="0.1.9")
    status, said = made.run("ci/release", "0.2.0", "--dry-run")
    equal(status, 1)
    has(said, "CMakeLists.txt has the version 0.1.9")


def test_refuses_changes_that_are_not_committed():
    made = tree()
    made.write("new.txt", "")
    refused(made, "not committed")


def test_refuses_another_version_in_the_build():
    refused(tree(version="0.1.9"), "CMakeLists.txt has the version 0.1.9")


def test_refuses_a_changelog_without_the_version():
    refused(tree(changelog=CHANGELOG.replace("[0.2.0]", "[0.3.0]")), "begins with [0.3.0] - 2026-01-31",
            "write: ## [0.2.0] - ")


def test_refuses_a_version_without_a_date():
    refused(tree(changelog=CHANGELOG.replace("[0.2.0] - 2026-01-31", "0.2.0")), "begins with 0.2.0")


def test_refuses_a_day_that_is_none_or_to_come():
    refused(tree(changelog=CHANGELOG.replace("2026-01-31", "2026-02-30")), "no such day as 2026-02-30")
    refused(tree(changelog=CHANGELOG.replace("2026-01-31", "9999-01-01")), "in the future, 9999-01-01")


def test_refuses_a_version_without_changes():
    refused(tree(changelog=CHANGELOG.replace("- Something new.\n", "")), "tells no change of 0.2.0")


def test_refuses_changes_that_belong_to_no_version():
    refused(tree(changelog=CHANGELOG.replace("[Unreleased]\n", "[Unreleased]\n\n- Left behind.\n")),
            "has changes under [Unreleased]")


def test_refuses_what_is_no_version():
    refused(tree(), "0.2 is no version", version="0.2")


def test_refuses_a_version_that_is_not_later_than_all():
    made = tree()
    made.git("tag", "v0.10.0")
    status, said = made.run("ci/release", "0.2.0")
    equal(status, 1)
    has(said, "0.10.0 is released already")
    equal(made.git("tag", "--list"), "v0.10.0\n")


def after_a_release(function):
    """A tree in which 0.1.0 is released, and whose library has these functions since then."""
    for program in ("abidw", "abidiff", "g++"):
        scratch.need(program)
    made = tree()

    def describe(code):
        made.write("build/queue.cpp", code)
        subprocess.run(["g++", "-g", "-shared", "-fPIC", "queue.cpp", "-o", "queue.so"], check=True,
                       cwd=made.inside("build"))
        made.write("ci/abi/queue.abi", subprocess.run(["abidw", "--no-corpus-path", "queue.so"], check=True, text=True,
                                                      cwd=made.inside("build"), stdout=subprocess.PIPE).stdout)
        made.commit()

    made.write(".gitignore", "build/\n")
    describe("int length() { return 1; }")
    made.git("tag", "v0.1.0")
    describe(function)
    return made


def test_what_came_takes_no_new_first_number():
    made = after_a_release("int length() { return 1; } int width() { return 1; }")
    equal(made.run("ci/release", "0.2.0", "--dry-run")[0], 0)


def test_refuses_a_broken_interface_under_the_same_first_number():
    for changed in ("int width() { return 1; }", "long length() { return 1; }"):
        status, said = after_a_release(changed).run("ci/release", "0.2.0")
        equal(status, 1)
        has(said, "ci/abi/queue.abi has changed since 0.1.0", "raise the first number")
        assert "called:" not in said, said


def test_refuses_a_library_that_has_gone():
    made = after_a_release("int length() { return 1; } int width() { return 1; }")
    os.remove(made.inside("ci/abi/queue.abi"))
    made.commit()
    status, said = made.run("ci/release", "0.2.0")
    equal(status, 1)
    has(said, "ci/abi/queue.abi has changed since 0.1.0")


def test_a_new_first_number_may_break():
    made = after_a_release("int width() { return 1; }")
    made.write("CMakeLists.txt", "project(norv VERSION 1.0.0 LANGUAGES CXX)\n")
    made.write("CHANGELOG.md", CHANGELOG.replace("[0.2.0]", "[1.0.0]"))
    made.commit()
    equal(made.run("ci/release", "1.0.0", "--dry-run")[0], 0)


def test_a_gate_that_fails_leaves_no_tag():
    for fails in ("gates", "package"):
        made = tree(dev=f'#!/bin/sh\n[ "$1" != {fails} ]\n')
        status, said = made.run("ci/release", "0.2.0")
        equal(status, 1)
        has(said, f"./dev {fails} failed; nothing is tagged")
        equal(made.git("tag", "--list"), "")


def test_a_tree_that_changes_meanwhile_is_not_tagged():
    made = tree(dev="#!/bin/sh\necho >left-behind\n")
    status, said = made.run("ci/release", "0.2.0")
    equal(status, 1)
    has(said, "the tree has changed meanwhile; nothing is tagged")
    equal(made.git("tag", "--list"), "")


if __name__ == "__main__":
    scratch.main()
