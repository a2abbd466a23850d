"""bench/run on a folder of made-up programs: what its table says of their turns, and how it ends."""

import json
import re

import scratch
from scratch import equal, has

ROWS = """from dataclasses import dataclass
from typing import Optional


@dataclass(frozen=True)
class Row:
    name: str
    program: str
    here: str
    peer: Optional[str]
    peer_name: str
    goal: Optional[float]
    unit: str = "ns"
    per: int = 1
    long: bool = False


ROWS = [
    Row("ahead", "pairs", "ahead", None, "another", 1.0),
    Row("now and then", "pairs", "near", None, "another", 1.0),
    Row("behind", "pairs", "behind", None, "another", 1.0),
    Row("shown only", "pairs", "shown", None, "another", None, "ms"),
    Row("each of ten", "bench", "Ours/10", "Theirs/10", "another", 1.0, per=10),
    Row("very long", "pairs", "long", None, "another", 1.0, long=True),
]
"""
# The middle half of `near` reaches below 1.
PAIRS = """#!/bin/sh
for turn in 1 2 3 4 5; do
  echo "pair ahead $turn $((2 * turn))"
  echo "pair behind $((4 * turn)) $turn"
done
echo pair near 8 10
echo pair near 9 10
echo pair near 11 10
echo pair near 12 10
echo pair near 13 10
echo pair shown 300 100
echo pair long 1 2
echo "one thing more"
[ -z "$BENCH_QUICK" ] || echo "in haste"
"""
# Two processes a turn; those of the second turn take twice as long.
BENCH = """#!/usr/bin/env python3
import json, re, sys
runs = sys.argv[0] + ".runs"
open(runs, "a").write(" ".join(sys.argv[1:]) + "\\n")
slow = 2 if len(open(runs).readlines()) in (3, 4) else 1
there = [{"run_name": "Ours/10", "cpu_time": 30 * slow, "time_unit": "ns"},
         {"run_name": "Theirs/10", "cpu_time": 0.04 * slow, "time_unit": "us"}]
filters = [argument.split("=", 1)[1] for argument in sys.argv if argument.startswith("--benchmark_filter=")]
print(json.dumps({"benchmarks": [one for one in there if re.search(filters[0], one["run_name"])]}))
"""
DOCUMENT = "before\n<!-- written by ./dev bench --write -->\nold\n<!-- to here -->\nafter\n"


def tree():
    made = scratch.Tree("bench/run")
    made.write("bench/rows.py", ROWS)
    made.write("bin/pairs", PAIRS, 0o755)
    made.write("bin/bench", BENCH, 0o755)
    made.write("speed.md", DOCUMENT)
    return made


def run(made, *arguments):
    return made.run("bench/run", made.path, *arguments)


def line_of(said, name):
    return next(" ".join(line.split()) for line in said.splitlines() if line.startswith(name))


def test_a_row_is_the_median_of_its_turns_and_their_middle_half():
    _, said = run(tree())
    equal(line_of(said, "ahead"), "ahead 3 ns another: 6 ns 0.5 0.5 to 0.5 1 met")
    equal(line_of(said, "now and then"), "now and then 11 ns another: 10 ns 1.1 0.9 to 1.2 1 missed within the spread")
    equal(line_of(said, "behind"), "behind 12 ns another: 3 ns 4 4 to 4 1 missed")
    equal(line_of(said, "shown only"), "shown only 300 ms another: 100 ms 3 3 to 3")


def runs_of(made):
    return made.read("bin/bench.runs").splitlines()


def test_a_turn_of_benchmarks_is_a_process_for_each_and_every_second_one_the_other_way_round():
    made = tree()
    _, said = run(made)
    equal(line_of(said, "each of ten"), "each of ten 3 ns another: 4 ns 0.75 0.75 to 0.75 1 met")
    ours, theirs = "--benchmark_filter=^Ours/10$", "--benchmark_filter=^Theirs/10$"
    equal([one.split()[-1] for one in runs_of(made)], ([ours, theirs, theirs, ours] * 6)[:22])


def test_a_benchmark_that_is_not_there_is_an_error():
    made = tree()
    made.write("bin/bench", BENCH.replace("Theirs/10", "Theirs/100"), 0o755)
    status, said = run(made, "--row", "each")
    equal(status, 1)
    has(said, "bench: bench has no benchmark Theirs/10")
    made.write("bin/bench", "#!/bin/sh\n", 0o755)  # as one does in which nothing matches
    status, said = run(made, "--row", "each")
    equal(status, 1)
    has(said, "bench: bench has no benchmark Ours/10")


def test_a_check_fails_for_what_is_missed_beyond_the_spread():
    equal(run(tree())[0], 0)
    status, said = run(tree(), "--check")
    equal(status, 1)
    has(said, "1 goals missed: behind")
    equal(run(tree(), "--check", "--row", "now|ahead|shown")[0], 0)


def test_a_quick_run_leaves_long_rows_out():
    _, said = run(tree(), "--quick")
    assert "very long" not in said, said
    has(run(tree())[1], "very long")


def test_a_quick_run_takes_fewer_and_shorter_turns():
    made = tree()
    _, said = run(made, "--quick")
    has(said, "in haste")
    equal(len(runs_of(made)), 2 * 5)
    has(runs_of(made)[0], "--benchmark_min_time=0.02 ")
    made = tree()
    assert "in haste" not in run(made)[1]
    has(runs_of(made)[0], "--benchmark_min_time=0.25 ")


def test_a_row_that_nothing_measures_is_an_error():
    made = tree()
    made.write("bin/pairs", "#!/bin/sh\n", 0o755)
    status, said = run(made, "--row", "ahead")
    equal(status, 1)
    has(said, "pairs says nothing of ahead")
    status, said = run(made, "--row", "nothing of the kind")
    equal(status, 1)
    has(said, "no row matches nothing of the kind", "each of ten")
    made.write("bin/pairs", "#!/bin/sh\nexit 3\n", 0o755)
    status, said = run(made, "--row", "ahead")
    equal(status, 1)
    has(said, "ended with status 3")


def test_the_table_is_written_between_its_marks():
    made = tree()
    run(made, "--write", made.inside("speed.md"))
    text = made.read("speed.md")
    assert text.startswith("before\n<!-- written by ./dev bench --write -->\nA full run of norv "), text
    assert text.endswith("\n- one thing more\n<!-- to here -->\nafter\n"), text
    assert "old" not in text, text
    has(text, "| behind | 12 ns | another: 3 ns | 4 | 4 to 4 | 1 | missed |\n")
    run(made, "--quick", "--write", made.inside("speed.md"))
    has(made.read("speed.md"), "A quick run, ")


def test_a_part_is_not_written_as_the_whole():
    made = tree()
    status, said = run(made, "--row", "ahead", "--write", made.inside("speed.md"))
    equal(status, 2)
    has(said, "not with --row")
    equal(made.read("speed.md"), DOCUMENT)


def test_a_file_that_cannot_be_written_is_seen_before_anything_is_measured():
    made = tree()
    for option in ("--json", "--write"):
        status, said = run(made, option, made.inside("nowhere/out"))
        equal(status, 2)
        has(said, "nowhere/out cannot be written: No such file or directory")
        assert "bin/pairs" not in said, said


def test_a_document_without_a_place_for_the_table_is_seen_before_anything_is_measured():
    made = tree()
    for text in ("no marks\n", DOCUMENT.replace("<!-- to here -->\n", "")):
        made.write("other.md", text)
        status, said = run(made, "--write", made.inside("other.md"))
        equal(status, 2)
        has(said, "other.md has no place for the table")
        assert "bin/pairs" not in said, said
        equal(made.read("other.md"), text)


def test_a_script_of_this_folder_is_given_that_of_the_programs():
    made = tree()
    made.write("bench/rows.py", ROWS + 'ROWS = [Row("by a script", "one/script.py", "it", None, "another", 1.0)]\n')
    made.write("bench/one/script.py", "#!/bin/sh\necho \"$1\"\necho pair it 1 2\n", 0o755)
    _, said = run(made)
    equal(line_of(said, "by a script"), "by a script 1 ns another: 2 ns 0.5 0.5 to 0.5 1 met")
    has(said, f"{made.path}/bin\n")


def test_each_row_has_a_name_of_its_own():
    made = scratch.Tree("bench/run", "bench/rows.py")
    _, said = run(made, "--row", "nothing of the kind")
    names = [line.strip() for line in said.splitlines() if line.startswith("  ")]
    assert len(names) > 40, said
    equal(len(names), len(set(names)))


def test_what_is_measured_and_with_what_is_named():
    _, said = run(tree(), "--row", "ahead")
    assert re.search(r"^norv .+, on \d+ cores of .*, g\+\+ [\d.]+, gRPC ", said, re.M), said
    assert not re.search(r" \d+:\d", said), said


def test_the_same_as_json():
    made = tree()
    run(made, "--row", "behind", "--json", made.inside("out.json"))
    out = json.loads(made.read("out.json"))
    equal(out["also"], ["one thing more"])
    equal(out["quick"], False)
    [row] = out["rows"]
    equal((row["row"], row["ratio"], row["goal"], row["verdict"]), ("behind", 4, 1, "missed"))


if __name__ == "__main__":
    scratch.main()
