#!/usr/bin/env python3
"""How long a program takes from exec to the answer to its first getVersion at an empty stand-in, through a
manager and through a bare stub, and the CPU time of loading what each stands on. Prints the pairs, in
milliseconds, and what the library adds to a program. Argument: the folder of the programs."""

import os
import re
import resource
import subprocess
import sys
import time

PROGRAMS = os.path.abspath(sys.argv[1])
TURNS = 10 if "BENCH_QUICK" in os.environ else 60
ELAPSED, CPU = 0, 1  # of what milliseconds() gives


def milliseconds(*command):
    """Until it ends, and its CPU time."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    begin = time.perf_counter()
    subprocess.run(command, check=True)
    took = time.perf_counter() - begin
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return took * 1000, cpu * 1000


def print_pair(turn, key, which, *arguments):
    """Ours and the peer's, which comes first in every second turn."""
    costs = {}
    for program in ("start_manager", "start_stub")[::-1 if turn % 2 else 1]:
        costs[program] = milliseconds(f"{PROGRAMS}/{program}", *arguments)[which]
    print("pair", key, costs["start_manager"], costs["start_stub"])


def library():
    path = os.path.realpath(f"{PROGRAMS}/../lib/libnorv.so")
    relocations = subprocess.run(["readelf", "-rW", path], stdout=subprocess.PIPE, text=True,
                                 check=True).stdout
    sections = subprocess.run(["readelf", "-SW", path], stdout=subprocess.PIPE, text=True,
                              check=True).stdout
    initialisers = re.search(r"\.init_array\s+\S+\s+\S+\s+\S+\s+(\S+)", sections)
    print(f"libnorv.so: {os.path.getsize(path) // 1024} KiB, "
          f"{len(re.findall(r'R_X86_64', relocations))} relocations, "
          f"{int(initialisers.group(1), 16) // 8 if initialisers else 0} static initialisers")


def main():
    daemon = subprocess.Popen([f"{PROGRAMS}/bessd-standin", "--listen", "127.0.0.1:0"],
                              stdout=subprocess.PIPE, text=True)
    try:
        port = daemon.stdout.readline().strip().rsplit(":", 1)[1]
        for turn in range(TURNS):
            print_pair(turn, "startup", ELAPSED, port)
            print_pair(turn, "load", CPU)
    finally:
        daemon.terminate()
        daemon.wait()
    library()


main()
