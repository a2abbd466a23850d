#!/usr/bin/env python3
"""CPU time to print a record of a trace file: `skein dump`, beside babeltrace2 on the same records in its own
format. Prints the pairs, in nanoseconds. Argument: the folder of the programs."""

import os
import resource
import subprocess
import sys
import tempfile

PROGRAMS = os.path.abspath(sys.argv[1])
QUICK = "BENCH_QUICK" in os.environ
RECORDS, TURNS = (50_000, 3) if QUICK else (500_000, 7)


def nanoseconds_each(*command):
    """CPU time; both programs are to print a line for each record."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    with subprocess.Popen(command, stdout=subprocess.PIPE) as program:
        lines = 0
        while block := program.stdout.read(1 << 20):
            lines += block.count(b"\n")
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    assert program.returncode == 0, command
    assert lines == RECORDS, (command, lines)
    return (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1e9 / RECORDS


def main():
    with tempfile.TemporaryDirectory() as folder:
        file, ctf = f"{folder}/records", f"{folder}/ctf"
        subprocess.run([f"{PROGRAMS}/trace_records", file, str(RECORDS)], check=True)
        subprocess.run([f"{PROGRAMS}/skein", "export", "--format", "ctf", file, ctf], check=True)
        commands = [(f"{PROGRAMS}/skein", "dump", file), ("babeltrace2", ctf)]
        for turn in range(TURNS):
            # In every second turn the peer first.
            took = {command: nanoseconds_each(*command) for command in (commands[::-1] if turn % 2 else commands)}
            print("pair reader", *(took[command] for command in commands))


main()
