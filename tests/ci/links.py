"""ci/links on documents of a few lines: which links it refuses."""

import scratch
from scratch import equal


def said_of(text):
    made = scratch.Tree("ci/links")
    made.write("docs/other.md", "# Other\n\n## How it *goes* on\n\n```\n# not a heading\n```\n")
    made.write("docs/one.md", text)
    made.commit()
    return made.run("ci/links")


FINE = (0, "links: those of 2 documents lead somewhere\n")


def test_what_is_there_is_found():
    equal(said_of("[a](other.md) [b](other.md#how-it-goes-on) [c](#own)\n# Own\n![d](../docs/other.md)\n"), FINE)
    equal(said_of("[a](https://nowhere.example/at/all)\n"), FINE)


def test_what_is_not_there_is_named():
    equal(said_of("[a](gone.md)\n"), (1, "docs/one.md: there is no gone.md\n"))
    equal(said_of("[a](other.md#gone) [b](#gone)\n"),
          (1, "docs/one.md: docs/other.md has no heading #gone\ndocs/one.md: docs/one.md has no heading #gone\n"))
    equal(said_of("[a](other.md#not-a-heading)\n"), (1, "docs/one.md: docs/other.md has no heading #not-a-heading\n"))


def test_listings_have_no_links():
    equal(said_of("`[a](gone.md)`\n\n```cpp\n[a](gone.md)\n```\n"), FINE)


scratch.main()
