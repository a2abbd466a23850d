"""The suppressions of the sanitizers hide what is the libraries', and nothing of ours: small programs with a
race or a leak in each, compiled here, run with the files of ci/."""

import os
import subprocess
import tempfile

import scratch
from scratch import equal, has

# Two threads, each adding to one counter in `racy`; what orders them is nothing that the sanitizer knows.
RACE = """
#include <atomic>
#include <thread>
int counter;
std::atomic<int> turn{0};
namespace NAMESPACE {
template <class T> struct Holder {};
struct Message {};
}
namespace Norv { struct Ours {}; }
RACY
int main() {
  std::thread other([] { racy(); turn.store(1, std::memory_order_relaxed); });
  while (turn.load(std::memory_order_relaxed) == 0) {}
  racy();
  other.join();
}
"""
# Gives memory up in one of the functions, each where the library has one of that name.
LEAK = """
#include <cstdlib>
#include <string>
#include <thread>
static std::string where;
static void giveUp(const char* here) {
  if (where == here) *static_cast<void* volatile*>(std::malloc(64)) = nullptr;
}
namespace Norv {
struct GrpcClient {
  template <class Request> __attribute__((noinline)) void sendRequestCommon() { giveUp("record"); }
  __attribute__((noinline)) void processResponse() { giveUp("response"); }
  __attribute__((noinline)) void doProcessGrpcCmd() { giveUp("loop"); sendRequestCommon<int>(); processResponse(); }
};
struct ConnectionsMgr {
  struct Connecting {
    __attribute__((noinline)) void connect() {
      giveUp("connection");
      startWorker();
      worker = nullptr;
    }
    __attribute__((noinline)) void startWorker() {
      worker = new std::thread([] { giveUp("worker"); GrpcClient().doProcessGrpcCmd(); });
      worker->join();
      if (where != "object") delete worker;
    }
    std::thread* volatile worker = nullptr;
  };
};
}
int main(int, char**) {
  where = "WHERE";
  Norv::ConnectionsMgr::Connecting().connect();
}
"""


def outcome(source, sanitizer, variable, file, library=None, code="", instrumented=False):
    """Whether the sanitizer finds nothing in the program, and what it says. The code is a shared library's."""
    scratch.need("g++")
    with tempfile.TemporaryDirectory(prefix="norv-suppressed-") as folder:

        def build(name, text, *options):
            with open(f"{folder}/{name}.cpp", "w", encoding="utf-8") as program:
                program.write(text)
            subprocess.run(["g++", "-std=c++20", "-g", "-pthread", f"{name}.cpp", "-o", name, *options], cwd=folder,
                           check=True)

        loaded = []
        if library:
            build(library, code, "-shared", "-fPIC", *([f"-fsanitize={sanitizer}"] if instrumented else []))
            loaded = [f"-Wl,--push-state,--no-as-needed,-rpath,{folder}", library, "-Wl,--pop-state"]
        build("program", source, f"-fsanitize={sanitizer}", *loaded)
        options = f"suppressions={scratch.SOURCES}/ci/{file}" if file else ""
        done = subprocess.run([f"{folder}/program"], env={**os.environ, variable: options}, check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode == 0, done.stdout


def race(namespace, racy, file="tsan.supp"):
    source = RACE.replace("RACY", racy).replace("NAMESPACE", namespace)
    return outcome(source, "thread", "TSAN_OPTIONS", file)


THEIRS = "namespace NAMESPACE { void add() { ++counter; } }\nvoid racy() { NAMESPACE::add(); }"
# Ours, with something of theirs among its template arguments.
OURS = ("namespace Norv { template <class T> struct Client { static void add() { ++counter; } }; }\n"
        "void racy() { Norv::Client<NAMESPACE::Holder<Norv::Ours>>::add(); Norv::Client<NAMESPACE::Message>::add(); }")


NAMESPACES = ["grpc", "google::protobuf", "bess::pb", "absl", "support::FakeDaemon"]
# Functions of a library that have no namespace, or one of the standard library's that runs a library's.
FUNCTIONS = [
    ("void grpc_add() { ++counter; }", "grpc_add()"),
    ("namespace grpc { struct Task {}; }\n"
     "namespace std { template <class Function, class Task> struct _Function_handler {\n"
     "  static void add() { ++counter; }\n"
     "}; }", "std::_Function_handler<void(), grpc::Task>::add()"),
]


def test_a_race_of_a_library_is_passed_over():
    for namespace in NAMESPACES:
        good, said = race(namespace, THEIRS)
        assert good, f"{namespace}: {said}"


def test_without_the_file_it_is_reported():
    good, said = race("grpc", THEIRS, file=None)
    assert not good, said
    has(said, "data race", "grpc::add")


def test_a_race_of_ours_is_reported_whatever_it_is_instantiated_with():
    for namespace in NAMESPACES:
        good, said = race(namespace, OURS)
        assert not good, f"{namespace}: {said}"
        has(said, "data race", "Norv::Client<")


def test_a_race_of_a_library_s_function_is_passed_over():
    for code, call in FUNCTIONS:
        good, said = race("theirs", f"{code}\nvoid racy() {{ {call}; }}")
        assert good, f"{call}: {said}"


def test_a_race_of_ours_is_reported_whatever_it_is_called():
    for code, call in (("namespace Norv { void grpc_add() { ++counter; } }", "Norv::grpc_add()"),
                       ("namespace support { struct Daemon { static void add() { ++counter; } }; }",
                        "support::Daemon::add()"),
                       (FUNCTIONS[1][0], "std::_Function_handler<void(), Norv::Ours>::add()")):
        good, said = race("theirs", f"{code}\nvoid racy() {{ {call}; }}")
        assert not good, f"{call}: {said}"
        has(said, "data race")


# What Debian builds, by the name of its library: in code of its own, and where it calls the C library.
ADDS = "static int counter;\nvoid add() { ++counter; }\n"
COPIES = "#include <cstring>\nstatic char text[64];\nvoid add() { std::memset(text, 1, sizeof text); }\n"


def race_in(library, code, instrumented):
    source = RACE.replace("RACY", "void add();\nvoid racy() { add(); }").replace("NAMESPACE", "theirs")
    return outcome(source, "thread", "TSAN_OPTIONS", "tsan.supp", library, code, instrumented)


RACY_LIBRARIES = ["libgrpc.so", "libgpr.so", "libabsl_base.so", "libupb.so"]
CALLED_FROM = ["libgrpc.so", "libgrpc++.so", "libgpr.so", "libprotobuf.so", "libcares.so"]


def test_a_race_within_a_library_is_passed_over():
    for library in RACY_LIBRARIES:
        good, said = race_in(library, ADDS, instrumented=True)
        assert good, f"{library}: {said}"
    for library in CALLED_FROM:
        good, said = race_in(library, COPIES, instrumented=False)
        assert good, f"{library}: {said}"


def test_a_race_within_a_library_of_ours_is_reported():
    for library in ("libnorv.so", "liblumo.so", "libbessgrpc.so", "libnorv_standin.so"):
        for code, instrumented in ((ADDS, True), (COPIES, False)):
            good, said = race_in(library, code, instrumented)
            assert not good, f"{library}: {said}"
            has(said, "data race")


# A thread that has ended and that nobody joins.
LOST = "#include <thread>\nvoid lose() { (void)new std::thread([] {}); }\n"


def lost_in(library):
    return outcome("#include <unistd.h>\nvoid lose();\nint main() { lose(); sleep(1); }\n", "thread", "TSAN_OPTIONS",
                   "tsan.supp", library, LOST, instrumented=True)


def test_a_thread_that_is_never_joined_is_reported_but_for_the_library_s():
    good, said = lost_in("libgpr.so")
    assert good, said
    good, said = lost_in("libnorv.so")
    assert not good, said
    has(said, "thread leak")


# An inline function of a library that gives a lock back, which it did not take where that is seen.
UNLOCKS = """
#include <pthread.h>
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
namespace google { namespace protobuf { namespace internal {
template <class Key> struct MapField { static void sync() { pthread_mutex_unlock(&mutex); } };
} } }
namespace Norv { template <class Map> struct Plan { static void sync() { pthread_mutex_unlock(&mutex); } }; }
int main() { FUNCTION; }
"""


def test_a_lock_that_was_not_taken_is_reported_but_for_the_library_s():
    theirs = "google::protobuf::internal::MapField<int>"
    good, said = outcome(UNLOCKS.replace("FUNCTION", theirs + "::sync()"), "thread", "TSAN_OPTIONS", "tsan.supp")
    assert good, said
    good, said = outcome(UNLOCKS.replace("FUNCTION", f"Norv::Plan<{theirs}>::sync()"), "thread", "TSAN_OPTIONS",
                         "tsan.supp")
    assert not good, said
    has(said, "unlock of an unlocked mutex")


def leak(where, file="lsan.supp"):
    return outcome(LEAK.replace("WHERE", where), "address", "LSAN_OPTIONS", file)


GIVEN_UP = ["object", "record"]


def test_what_a_manager_and_its_worker_give_up_may_leak():
    for where in GIVEN_UP:
        good, said = leak(where)
        assert good, f"{where}: {said}"


def test_nothing_else_of_them_may_leak():
    for where, function in (("connection", "Connecting::connect()"), ("worker", "startWorker()::{lambda"),
                            ("loop", "GrpcClient::doProcessGrpcCmd"), ("response", "GrpcClient::processResponse")):
        good, said = leak(where)
        assert not good, f"{where}: {said}"
        has(said, function)


def test_without_the_file_it_is_a_leak():
    for where in GIVEN_UP:
        good, said = leak(where, file=None)
        assert not good, f"{where}: {said}"
        has(said, "detected memory leaks")


# Whoever calls it, the memory is asked for there.
KEEPS = "#include <cstdlib>\nvoid keep() { *static_cast<void* volatile*>(std::malloc(64)) = nullptr; }\n"


def test_what_the_resolver_keeps_may_leak_and_no_library_of_ours():
    for library, expected in (("libcares.so", True), ("libnorv.so", False), ("liblumo.so", False)):
        good, said = outcome("void keep();\nint main() { keep(); }\n", "address", "LSAN_OPTIONS", "lsan.supp", library,
                             KEEPS, instrumented=True)
        equal((library, good), (library, expected))
        if not expected:
            has(said, "detected memory leaks", "keep()")


def lines_of(name):
    with open(os.path.join(scratch.SOURCES, "ci", name), encoding="utf-8") as file:
        return file.read().splitlines()


def rules_of(name):
    return sorted(line for line in lines_of(name) if line and not line.startswith("#"))


def test_each_rule_is_tried():
    """Those of the tests above, and no other."""
    equal(rules_of("tsan.supp"), sorted(
        [f"called_from_lib:{library}" for library in CALLED_FROM]
        + [f"race:{library.split('.')[0].split('_')[0]}" for library in RACY_LIBRARIES]
        + [f"race:^{namespace}" + ("" if "Daemon" in namespace else "::") for namespace in NAMESPACES]
        + ["race:^grpc_", "race:^std::_Function_handler<void (), grpc::"]
        + ["thread:libgpr", "mutex:^google::protobuf::internal::MapField"]))
    equal(rules_of("lsan.supp"), sorted([
        "leak:^Norv::ConnectionsMgr::Connecting::startWorker()$", "leak:^void Norv::GrpcClient::sendRequestCommon<",
        "leak:libcares.so"]))


def test_each_rule_has_its_reason():
    for name in ("tsan.supp", "lsan.supp"):
        lines = lines_of(name)
        bare = [line for before, line in zip([""] + lines, lines)
                if line and not line.startswith("#") and not before.startswith("#")]
        equal(bare, [])


if __name__ == "__main__":
    scratch.main()
