"""ci/abi/check in a scratch tree with two libraries of a few lines: what is a change of the interface, and what
it takes to accept one."""

import os
import subprocess

import scratch
from scratch import equal, has

CLASS = """
namespace Norv {{
class Queue {{
 public:
  explicit Queue(int length);
  int length() const;
  {inside}
  template <class T> T as() const {{ return static_cast<T>(length_); }}
 private:
  int length_;
  {members}
}};
Queue::Queue(int length) : length_(length) {{}}
int Queue::length() const {{ return {body}; }}
{functions}
}}
"""
USUAL = {"inside": "", "members": "", "body": "length_", "functions": ""}


def build(tree, folder="build/lib", **changed):
    for name, text in (("liblumo", "namespace Lumo { int zero() { return 0; } }\n"),
                       ("libnorv", CLASS.format(**{**USUAL, **changed}))):
        tree.write(f"{folder}/../{name}.cpp", text)
        tree.write(f"{folder}/{name}.so", "")
        subprocess.run(["g++", "-g", "-shared", "-fPIC", f"../{name}.cpp", "-o", f"{name}.so"], check=True,
                       cwd=tree.inside(folder))


def described():
    """A tree whose libraries are as described."""
    for program in ("abidw", "abidiff", "g++", "nm"):
        scratch.need(program)
    tree = scratch.Tree("ci/abi/check")
    tree.write(".gitignore", "build*\n")
    tree.write("CHANGELOG.md", "# Changelog\n")
    tree.commit()
    build(tree)
    tree.write("CHANGELOG.md", "# Changelog\n\n- The ABI is described.\n")
    status, said = tree.run("ci/abi/check", "--accept")
    assert status == 0 and "accepted" in said, said
    tree.commit()
    return tree


def check(tree, *arguments):
    return tree.run("ci/abi/check", *arguments)


def test_what_is_as_described_passes():
    tree = described()
    equal(check(tree), (0, "abi: the libraries' interfaces are as described\n"))


def test_a_body_and_an_instance_of_a_template_are_no_interface():
    tree = described()
    build(tree, body="as<int>() + 1")
    has(subprocess.run(["nm", "-DC", tree.inside("build/lib/libnorv.so")], check=True, text=True,
                       stdout=subprocess.PIPE).stdout, "W int Norv::Queue::as<int>() const")
    equal(check(tree)[0], 0)


def test_a_function_that_goes_fails():
    tree = described()
    build(tree, functions="int more() { return 1; }")
    tree.write("CHANGELOG.md", tree.read("CHANGELOG.md") + "- more() is there: the ABI has grown.\n")
    equal(check(tree, "--accept")[0], 0)
    tree.commit()
    build(tree)
    status, said = check(tree)
    equal(status, 1)
    has(said, "libnorv:\n", "1 Removed", "Norv::more", "./dev abi --accept")


def test_a_function_that_comes_fails():
    tree = described()
    build(tree, functions="int more() { return 1; }")
    status, said = check(tree)
    equal(status, 1)
    has(said, "1 Added", "Norv::more")


def test_a_member_that_comes_fails():
    tree = described()
    build(tree, members="int more_ = 0;")
    status, said = check(tree)
    equal(status, 1)
    has(said, "type size changed", "Norv::Queue")


def test_a_virtual_function_that_comes_fails():
    tree = described()
    build(tree, inside="virtual ~Queue() = default;")
    equal(check(tree)[0], 1)


def test_is_accepted_only_with_a_line_in_the_changelog():
    tree = described()
    build(tree, members="int more_ = 0;")
    before = tree.read("ci/abi/libnorv.abi")
    status, said = check(tree, "--accept")
    equal(status, 1)
    has(said, "not accepted: CHANGELOG.md has no new line")
    equal(tree.read("ci/abi/libnorv.abi"), before)
    # One of something else is none.
    tree.write("CHANGELOG.md", tree.read("CHANGELOG.md") + "- A queue is longer.\n")
    equal(check(tree, "--accept")[0], 1)
    tree.write("CHANGELOG.md", tree.read("CHANGELOG.md") + "- ABI: a queue is longer.\n")
    equal(check(tree, "--accept")[0], 0)
    assert tree.read("ci/abi/libnorv.abi") != before
    equal(check(tree)[0], 0)


def test_is_the_same_wherever_it_is_made():
    tree = described()
    build(tree, folder="build-elsewhere/deeper/lib")
    equal(check(tree, "--libraries", "build-elsewhere/deeper/lib")[0], 0)
    for name in ("liblumo", "libnorv"):
        os.remove(tree.inside(f"ci/abi/{name}.abi"))
    tree.write("CHANGELOG.md", "# Changelog\n\n- ABI: once more.\n")
    equal(check(tree, "--accept", "--libraries", "build-elsewhere/deeper/lib")[0], 0)
    equal(tree.git("status", "--porcelain", "ci"), "")
    assert tree.path not in tree.read("ci/abi/libnorv.abi")


def test_a_library_that_is_not_there_fails():
    tree = described()
    os.remove(tree.inside("build/lib/libnorv.so"))
    equal(check(tree), (1, "abi: there is no build/lib/libnorv.so; build it, with: ./dev build\n"))


if __name__ == "__main__":
    scratch.main()
