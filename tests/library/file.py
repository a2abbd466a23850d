"""The library file as a file: what it registers when loaded, its descriptors, its imports."""

import os
import re

import check

LIBRARY = os.environ["LIBRARY"]
FRAMEWORK = os.environ["FRAMEWORK"]

ASSERTIONS = [
    "grpcReplyThread()",
    "threadCondition()",
    "threadLock()",
    "client()",
    "cq_",
    'request && "Found an invalid Grpc Request"',
    'false && "unknown request type."',
    "!Lumo::FwkEntityReadsPreserve::anyActive( this )",
]


def registered(library):
    """The registry of a program of the framework alone, before and after it loads the library."""
    lines = check.run(os.environ["REGISTRY_DUMP"], library).splitlines()
    at = lines.index("loaded")
    return lines[:at], lines[at + 1:]


def test_loading_registers_the_types_in_order():
    before, after = registered(LIBRARY)
    check.equal(before, [], "types before loading")
    check.equal(after, check.TYPES, "types after loading")


def test_order_of_linking_does_not_matter():
    check.equal(registered(os.environ["REVERSED"])[1], check.TYPES, "types of the reversed library")


def symbols(library):
    """Name, section and kind of every defined object of a library."""
    readelf = check.need("readelf")
    sections = dict(re.findall(r"^ *\[ *(\d+)\] (\S+)", check.run(readelf, "-SW", library), re.M))
    table = check.run(readelf, "-sW", "--demangle", library)
    found = re.findall(r"^ *\d+: [0-9a-f]+ +\S+ OBJECT +\S+ +\S+ +(\d+) (.*)$", table, re.M)
    return {(name, sections[index]) for index, name in found}


def constantInitialised(library, least):
    """Descriptors lie where nothing can write once the loader is done, so no initialiser makes them."""
    descriptors = {(name, where) for name, where in symbols(library)
                   if "_lumoType" in name and not name.startswith("__odr_asan")}
    assert len(descriptors) >= least, f"only {len(descriptors)} descriptors found"
    for name, where in descriptors:
        assert where in (".data.rel.ro", ".data.rel.ro.local", ".rodata"), f"{name} lies in {where}"


def test_descriptors_of_the_library_are_constant_initialised():
    constantInitialised(LIBRARY, len(check.TYPES))


def test_descriptors_of_the_framework_are_constant_initialised():
    constantInitialised(FRAMEWORK, 10)


def test_assertions_are_on_in_every_build():
    with open(LIBRARY, "rb") as file:
        content = file.read()
    for text in ASSERTIONS:
        assert text.encode() + b"\0" in content, f"no assertion {text}"
    assert "__assert_fail" in check.run(check.need("nm"), "-D", LIBRARY), "nothing calls __assert_fail"


def test_wakes_by_broadcast_only():
    names = set()
    for library in (LIBRARY, FRAMEWORK):
        names |= {line.split()[-1].split("@")[0]
                  for line in check.run(check.need("nm"), "-D", "--undefined-only", library).splitlines()}
    assert "pthread_cond_broadcast" in names
    assert "pthread_cond_signal" not in names


def test_leaves_the_counting_of_references_to_the_framework():
    named = []
    for module in ("types", "client", "manager"):
        for folder, _, files in os.walk(os.path.join(check.SOURCES, module)):
            for name in files:
                with open(os.path.join(folder, name)) as file:
                    if "enableThreadSafePointers" in file.read():
                        named.append(name)
    check.equal(named, [], "files that name the flag")


def kinds():
    """Which function has how many instances: one for each pair of messages, one for each response."""
    with open(os.path.join(check.SOURCES, "types/include/Norv/GrpcRequests.def"), encoding="utf-8") as file:
        pairs = set(re.findall(r"^NORV_REQUEST\(.*, +(\w+), +(\w+)\)$", file.read(), re.M))
    assert len(pairs) > 1, pairs
    return ("sendRequestCommon", len(pairs)), ("processResponseCommon", len({response for _, response in pairs}))


def test_client_has_one_instance_per_kind_of_request_and_response():
    nm = check.need("nm")
    lines = check.run(nm, "-C", "--defined-only", os.environ["CLIENT_OBJECT"]).splitlines()
    for function, count in kinds():
        start = re.compile(r"^[0-9a-f]+ [TtWw] void Norv::GrpcClient::" + function + "<")
        instances = {line for line in lines if start.match(line)}
        check.equal(len(instances), count, "instances of " + function)



def test_exports_every_instance_of_the_client():
    exported = check.run(check.need("nm"), "-DC", "--defined-only", LIBRARY)
    for function, count in kinds():
        instances = set(re.findall(r"^[0-9a-f]+ [TW] void Norv::GrpcClient::" + function + "<.*$",
                                   exported, re.M))
        check.equal(len(instances), count, "exported instances of " + function)


def exported(library):
    return {line.split(maxsplit=1)[1]
            for line in check.run(check.need("nm"), "-DC", "--defined-only", library).splitlines()}


def test_exports_do_not_depend_on_the_optimiser():
    ours = exported(LIBRARY)
    assert len(ours) > 100, ours
    check.equal(sorted(ours ^ exported(os.environ["RELEASE"])), [], "what only one of the builds exports")


def test_exports_nothing_of_other_libraries():
    named = re.compile(r"^. (void )?(\S*\w for |(non-)?virtual thunk to |typeinfo name for |guard variable for )?"
                       r"(Norv|Lumo|Skein|Twine)::")
    for library in (LIBRARY, FRAMEWORK):
        check.equal([line for line in sorted(exported(library)) if not named.match(line)], [], library)


if __name__ == "__main__":
    check.main()
