"""The section .lumo.type of the library file: the registered names, for tools that read the file."""

import itertools
import os
import re
import subprocess
import tempfile

import check

# What linkers and strip are asked to do with the library.
SOURCE = os.path.join(check.SOURCES, "manager/src/TypeSection.cpp")
INCLUDE = os.path.join(check.SOURCES, "types/include")
OPTIONS = {
    "plain": ["-O0"],
    "optimised": ["-O2"],
    "small": ["-Os", "-fdata-sections", "-ffunction-sections"],
    "lto": ["-O2", "-flto"],
}


def expected():
    """Each name ends with a NUL and starts on a multiple of four; nothing follows the last NUL."""
    content = b""
    for name in check.TYPES:
        content += b"\0" * (-len(content) % 4) + name.encode() + b"\0"
    return content


def section(library):
    objcopy = check.need("objcopy")
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "section")
        subprocess.run([objcopy, "-O", "binary", "--only-section=.lumo.type", library, out], check=True)
        with open(out, "rb") as file:
            return file.read()


def test_names_stand_on_multiples_of_four():
    content = expected()
    offsets = [content.index(name.encode() + b"\0") for name in check.TYPES]
    check.equal(offsets, [0, 24, 48, 72, 88, 120, 144, 168, 184], "offsets of the names")
    check.equal(len(content), 210, "size")


def test_library_has_it():
    check.equal(section(os.environ["LIBRARY"]), expected(), "section of the library")


def test_library_linked_in_reverse_has_it():
    check.equal(section(os.environ["REVERSED"]), expected(), "section of the reversed library")


def test_it_is_read_only_data():
    lines = check.run(check.need("readelf"), "-SW", os.environ["LIBRARY"]).splitlines()
    rows = [line for line in lines if " .lumo.type " in line]
    check.equal(len(rows), 1, "number of sections")
    match = re.search(r"\.lumo\.type +(\w+) +([0-9a-f]+) +([0-9a-f]+) +([0-9a-f]+) +\w+ +(\w+)", rows[0])
    kind, address, _, size, flags = match.groups()
    check.equal(kind, "PROGBITS", "type")
    check.equal(int(size, 16), 210, "size")
    check.equal(int(address, 16) % 4, 0, "alignment of the address")
    assert "A" in flags and "W" not in flags and "X" not in flags, f"flags {flags}"


def survives(compiler):
    """The section's own object, compiled, linked and stripped in every way a distribution may."""
    check.need(compiler)
    tried = 0
    with tempfile.TemporaryDirectory() as folder:
        for (name, options), collect in itertools.product(OPTIONS.items(), (False, True)):
            link = ["-Wl,--gc-sections"] if collect else []
            if "clang" in compiler and "-flto" in options:
                check.need("ld.lld")
                link.append("-fuse-ld=lld")
            library = os.path.join(folder, f"{name}{collect}.so")
            check.run(compiler, "-std=c++20", "-fPIC", "-shared", *options, "-I" + INCLUDE, SOURCE,
                      "-o", library, *link)
            what = f"{compiler} {name}{' gc-sections' if collect else ''}"
            check.equal(section(library), expected(), what)
            check.run(check.need("strip"), library)
            check.equal(section(library), expected(), what + " stripped")
            tried += 1
    check.equal(tried, 2 * len(OPTIONS), "variants tried")


def test_survives_gcc():
    survives("g++")


def test_survives_clang():
    survives("clang++")


if __name__ == "__main__":
    check.main()
