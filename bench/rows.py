"""The rows of the table: what is measured, beside which peer, and how far ahead of it we want to be."""

from dataclasses import dataclass
from typing import Optional


@dataclass(frozen=True)
class Row:
    name: str
    program: str  # in the build folder, or a script beside this file
    here: str  # a benchmark of the program, or the key of the pairs that it prints
    peer: Optional[str]  # a benchmark of the program; None where it prints pairs
    peer_name: str
    goal: Optional[float]  # the highest ratio of costs that is good enough; None: only shown
    unit: str = "ns"
    per: int = 1  # operations of an iteration
    long: bool = False  # left out of a quick run


def benchmark(program, name, here, peer, peer_name, goal, per=1, long=False):
    return Row(name, program, here, peer, peer_name, goal, per=per, long=long)


def pairs(program, name, key, peer_name, goal, unit, long=False):
    return Row(name, program, key, None, peer_name, goal, unit, long=long)


def notifications():
    for number in (1, 10, 100, 1000):
        reactors = "1 reactor" if number == 1 else f"{number:,} reactors"
        yield benchmark("framework_bench", f"a change told to {reactors}", f"Notify/{number}",
                        f"SignalsEmit/{number}", "boost::signals2", 1.0)
        yield benchmark("framework_bench", f"a change told to {reactors}, beside one that locks nothing",
                        f"Notify/{number}", f"SigcEmit/{number}", "sigc++", 2.0)


ROWS = [
    *notifications(),
    benchmark("framework_bench", "an integer attribute read by its descriptor", "GenericRead", "MappedRead",
              "map of std::function, by a hash", 2.5),
    benchmark("framework_bench", "an object made and destroyed", "PtrLife", "BoostLife",
              "boost::intrusive_ptr", 1.2),
    benchmark("framework_bench", "a counted pointer copied and released, atomic", "PtrCopyAtomic",
              "BoostCopyAtomic", "boost::intrusive_ptr", 1.1),
    benchmark("framework_bench", "a lock anchor", "Anchor", "BareMutex", "error-checking mutex", 1.1),
    benchmark("types_bench", "a command appended and one taken, 10 waiting", "QueueAppendAndTake/10",
              "DequeAppendAndTake/10", "deque of shared_ptr", 1.0),
    benchmark("types_bench", "a command appended and one taken, 10,000,000 waiting",
              "QueueAppendAndTake/10000000/iterations:1000000",
              "DequeAppendAndTake/10000000/iterations:1000000", "deque of shared_ptr", 1.0, long=True),
    benchmark("types_bench", "1,000 commands appended, then all taken, each", "QueueBatch/1000",
              "DequeBatch/1000", "deque of shared_ptr", 1.3, per=1000),
    benchmark("types_bench", "100,000 commands appended, then all taken, each", "QueueBatch/100000",
              "DequeBatch/100000", "deque of shared_ptr", 1.3, per=100000),
    benchmark("types_bench", "a command made, appended, taken and destroyed",
              "QueueLifeOfACommand/10", "DequeLifeOfACommand/10",
              "deque of shared_ptr, requests on the heap", 1.2),
    benchmark("trace_bench", "a text line to a null sink", "TextLineToNullSink", "SpdlogSyncToNull",
              "spdlog", 0.8),
    benchmark("trace_bench", "a ring record with two integers, one thread",
              "RingRecordSingleThreaded", "MonotonicClock", "the monotonic clock read", 0.6),
    pairs("trace/reader.py", "CPU time of a trace file's record printed", "reader", "babeltrace2, of the same as CTF", 0.2,
          "ns"),
    pairs("road_rates", "a command on the whole road", "road", "the better stub loop", 1.0, "us"),
    pairs("road_rates", "CPU time of a command on the whole road", "road_cpu", "the better stub loop", 1.03, "us"),
    pairs("road_rates", "1,000,000 commands queued at once, each", "drain", "of 1,000 queued", None,
          "us", long=True),
    pairs("road_kit", "CPU time of a command with the kit around", "kit_cpu", "without the kit", 1.5,
          "us"),
    pairs("road_kit", "CPU time of a command with the kit around, 1,000,000 in one announcement", "kit_queue",
          "without the kit", 1.5, "us", long=True),
    pairs("road_kit", "CPU time of 1,000,000 in one announcement through the kit, not sent", "kit_announcement",
          "without the kit", 1.5, "ms", long=True),
    pairs("road_kit", "CPU time of 1,000,000 in one announcement through the kit, beside fewer", "kit_growth",
          "100,000 of them", 11, "ms", long=True),
    pairs("road_managers", "a command of 1 manager to its server", "managers_1", "1 thread with a stub", 1.0,
          "us"),
    pairs("road_managers", "a command of 8 managers to 8 servers", "managers_8",
          "8 threads with stubs", 1.0, "us"),
    pairs("road_managers", "a command of 64 managers to 64 servers", "managers_64",
          "64 threads with stubs", 1.0, "us"),
    pairs("road_managers", "the last of 8 managers through, over the first", "managers_8_uneven",
          "8 threads with stubs", None, "times"),
    pairs("road_managers", "the last of 64 managers through, over the first", "managers_64_uneven",
          "64 threads with stubs", None, "times"),
    pairs("road_managers", "memory of a first idle manager, with what gRPC starts", "manager_first_memory",
          "a first thread with a stub", 1.2, "KiB"),
    pairs("road_managers", "threads of a first idle manager, with what gRPC starts", "manager_first_threads",
          "a first thread with a stub", 1.2, "threads"),
    pairs("road_managers", "memory of an idle manager more, 64 in all", "manager_memory", "a thread with a stub more",
          1.2, "KiB"),
    pairs("road_managers", "threads of an idle manager more, 64 in all", "manager_threads",
          "a thread with a stub more", 1.1, "threads"),
    pairs("road_managers", "a command through 10 named queues", "producers", "through one", 1.05, "us"),
    pairs("start/startup.py", "from exec to the first response", "startup", "a bare stub program", 1.1,
          "ms"),
    pairs("start/startup.py", "CPU time of a program that only loads the library", "load",
          "gRPC and the messages alone", 1.1, "ms"),
    pairs("standin_rates", "the stand-in's getVersion, 10,000 modules there", "get_version",
          "a server of empty functions", 1.11, "us"),
    pairs("standin_rates", "the stand-in's getVersion, 8 callers at a time", "get_version_8",
          "a server of empty functions", 1.11, "us"),
    pairs("standin_rates", "the stand-in's createModule and destroyModule", "create_module",
          "a server of empty functions", 1.11, "us"),
    pairs("standin_rates", "100,000 rules in one request to it", "rules_at_once", "half a second", 1.0, "ms"),
    pairs("state_rates", "1,000 modules, 2,000 connections applied", "apply", "stub calls by hand", 1.1,
          "ms"),
    pairs("state_rates", "the plan of 10,000 modules onto nothing", "plan_growth", "of 1,000", 12, "ms"),
    pairs("state_rates", "100,000 rules onto an empty table", "rules", "one add for each", 0.05, "ms",
          long=True),
    pairs("state_rates", "10 of 100,000 rules changed", "ten_rules", "10 calls", 1.2, "calls", long=True),
    pairs("note_cost", "norvd's note of the command under way", "note", "a command to a stand-in", None,
          "ns"),
    pairs("norvd/restarts.py", "first-light as wanted again after a restart of the daemon", "restart",
          "norvctl apply, typed at once", None, "ms"),
]
