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


def outcome(source, sanitizer, variable, file):
    """Whether the sanitizer finds nothing in the program, and what it says."""
    scratch.need("g++")
    with tempfile.TemporaryDirectory(prefix="norv-suppressed-") as folder:
        with open(f"{folder}/program.cpp", "w", encoding="utf-8") as program:
            program.write(source)
        subprocess.run(["g++", "-std=c++20", "-g", f"-fsanitize={sanitizer}", "-pthread", "program.cpp", "-o", "program"],
                       cwd=folder, check=True)
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


NAMESPACES = ["grpc", "google::protobuf", "bess::pb", "absl"]


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


def test_each_rule_has_its_reason():
    for name in ("tsan.supp", "lsan.supp"):
        with open(os.path.join(scratch.SOURCES, "ci", name), encoding="utf-8") as file:
            lines = file.read().splitlines()
        bare = [line for before, line in zip([""] + lines, lines)
                if line and not line.startswith("#") and not before.startswith("#")]
        equal(bare, [])


if __name__ == "__main__":
    scratch.main()
