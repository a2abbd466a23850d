"""bench/flame on samples of a few lines: what it draws of them, and how wide."""

import os
import re
import subprocess
import sys

import scratch
from scratch import equal

BAR = re.compile(r'<g class="k(\d)"><title>(.*): ([0-9.]+)%</title><rect x="([0-9.]+)" y="(\d+)" width="([0-9.]+)"')


def sample(*innermost_first):
    return "".join(f"\t  1234 {name}\n" for name in innermost_first) + "\n"


def drawn(samples, begin="work"):
    done = subprocess.run([sys.executable, "-B", os.path.join(scratch.SOURCES, "bench/flame"), begin], input=samples,
                          capture_output=True, text=True, check=False)
    return done.returncode, done.stdout, done.stderr


def bars(samples):
    status, svg, said = drawn(samples)
    equal((status, said), (0, ""))
    return {name: (int(kind), float(share), float(x), int(y), float(width))
            for kind, name, share, x, y, width in BAR.findall(svg)}


def test_a_bar_is_as_wide_as_its_share():
    found = bars(3 * sample("malloc", "work", "main") + sample("Norv::send(int)", "work", "main"))
    equal({name: bar[1] for name, bar in found.items()}, {"work": 100, "malloc": 75, "Norv::send": 25})
    assert abs(found["malloc"][4] - 3 * found["Norv::send"][4]) < 0.2, found


def test_what_is_called_lies_on_its_caller():
    found = bars(sample("c", "b", "work") + sample("b", "work") + sample("a", "work"))
    assert found["c"][3] < found["b"][3] < found["work"][3], found
    equal((found["a"][3], found["c"][2]), (found["b"][3], found["b"][2]))
    assert found["b"][2] >= found["a"][2] + found["a"][4] - 0.2, found


def test_what_is_outside_is_left_out():
    equal(set(bars(sample("a", "work") + 5 * sample("a", "other", "main"))), {"work", "a"})


def test_what_is_too_narrow_to_be_seen_takes_no_room():
    many = 10000 * sample("a", "work")
    alone, beside = drawn(many)[1], drawn(many + sample(*"zyxwvutsrqponmlkjihg", "work"))[1]
    equal(re.search(r'viewBox="[^"]*"', beside)[0], re.search(r'viewBox="[^"]*"', alone)[0])
    equal(set(bars(many + sample("c", "b", "work"))), {"work", "a"})


def test_names_lose_their_arguments():
    found = bars(sample("void Lumo::visit<Norv::A, std::map<int, int> >(Norv::A&)", "work") +
                 sample("operator new(unsigned long)", "work") + sample("cfree@GLIBC_2.2.5", "work") +
                 sample("(anonymous namespace)::Box<int>::~Box()", "work"))
    equal(set(found), {"work", "Lumo::visit", "operator new", "cfree", "Box::~Box"})
    equal([found[name][0] for name in ("Lumo::visit", "operator new", "cfree", "Box::~Box")], [1, 4, 4, 5])


def test_names_are_escaped():
    status, svg, _ = drawn(sample("a<b&c", "work"))
    equal(status, 0)
    assert "a&lt;b&amp;c" in svg and "<b" not in svg, svg


def test_nothing_to_draw_is_an_error():
    equal(drawn(sample("a", "main")), (1, "", "flame: no sample is within work\n"))


if __name__ == "__main__":
    scratch.main()
