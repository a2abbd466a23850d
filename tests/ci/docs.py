"""ci/docs in a scratch tree: which comments come to the pages, and what it complains about."""

import html
import re

import scratch
from scratch import equal, has

HEADER = """#pragma once

// What stands before an empty line speaks of no declaration: unseen one.

// Of the whole header.
namespace Lumo {

// A queue of <things>, with \\nothing in it that is a command, nor @these, 100% text.
//
//   Queue queue(1);  // a listing
class Queue {
 public:
  // Takes `length` of them.
  explicit Queue(int length) : length_(length) {
    // Unseen two, within a body.
    if (length_ < 0) length_ = 0;
  }
  int length() const { return length_; }  // never below 0
  int first() const {  // 0 of an empty one
    return length_ > 0 ? 1 : 0;
  }
  int bare() const;

 private:
  int length_;
};

enum class Colour {
  red,   // as blood
  blue,  // as the sky
};

}  // namespace Lumo
"""


def tree(header=HEADER, readme="# A project\n\nSee [the queue](docs/queue.md).\n"):
    scratch.need("doxygen")
    made = scratch.Tree("ci/docs", "ci/Doxyfile")
    made.write("CMakeLists.txt", "project(norv VERSION 4.5.6 LANGUAGES CXX)\n")
    made.write(".gitignore", "build\n")
    for name in ("CHANGELOG.md", "CONTRIBUTING.md", "SECURITY.md", "docs/queue.md"):
        made.write(name, f"# {name}\n\nWords.\n")
    made.write("README.md", readme)
    made.write("framework/include/Lumo/Queue.h", header)
    made.commit()
    return made


def page(made, name):
    """The text of a page."""
    text = made.read(f"build/docs/{name}.html")
    return re.sub(r"\s+", " ", html.unescape(re.sub(r"<[^>]+>", "", text)))


def test_comments_before_a_declaration_and_behind_a_member_come_to_the_pages():
    made = tree()
    equal(made.run("ci/docs"), (0, "docs: build/docs/index.html, of 1 headers\n"))
    queue = page(made, "classLumo_1_1Queue")
    has(queue, "A queue of <things>, with \\nothing in it that is a command, nor @these, 100% text.",
        "Queue queue(1); // a listing", "Takes length of them.", "never below 0", "0 of an empty one", "bare () const", "norv 4.5.6")
    has(page(made, "namespaceLumo"), "as blood", "as the sky")
    assert "nseen" not in queue, queue
    has(page(made, "Queue_8h"), "Of the whole header.")
    assert "whole" not in page(made, "namespaceLumo")
    has(page(made, "index"), "A project")


def test_a_name_that_is_gone_is_an_error():
    made = tree(HEADER.replace("`length`", "`size`"))
    status, said = made.run("ci/docs")
    equal(status, 1)
    equal(said, "framework/include/Lumo/Queue.h:13: no header and no file has the name `size`\n")


def test_a_dead_link_between_documents_is_an_error():
    made = tree(readme="# A project\n\nSee [the queue](docs/queues.md).\n")
    status, said = made.run("ci/docs")
    equal(status, 1)
    has(said, "docs/queues.md")


def test_the_comments_of_the_tree_itself_stay():
    made = tree()
    made.run("ci/docs")
    equal(made.read("framework/include/Lumo/Queue.h"), HEADER)
    equal(made.git("status", "--porcelain"), "")


if __name__ == "__main__":
    scratch.main()
