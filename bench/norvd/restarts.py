#!/usr/bin/env python3
"""From the moment that the daemon listens again to a switch as wanted: norvd, which repairs the first-light
pipeline of examples/ after each of 100 restarts of a stand-in, beside a person who types `norvctl apply` at
that very moment. Prints the pairs, in milliseconds, then median and worst. Argument: the folder of the
programs."""

import os
import socket
import statistics
import subprocess
import sys
import tempfile
import time

PROGRAMS = os.path.abspath(sys.argv[1])
ROUNDS = 5 if "BENCH_QUICK" in os.environ else 100
DOCUMENT = os.path.join(os.path.dirname(__file__), "../../examples/first-light.yaml")


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Daemon:
    """A stand-in, empty each time."""

    def __init__(self, port):
        self.process = subprocess.Popen(
            [f"{PROGRAMS}/bessd-standin", "--newer", "--listen", f"127.0.0.1:{port}"],
            stdout=subprocess.PIPE, text=True)
        self.process.stdout.readline()
        self.listening = time.monotonic()

    def wait_until_as_wanted(self, log):
        """Milliseconds until norvd says so, which it does when it has looked."""
        while "nothing to do" not in log.read():
            assert time.monotonic() - self.listening < 60, "never as wanted"
            time.sleep(0.001)
        return (time.monotonic() - self.listening) * 1000

    def end(self):
        self.process.kill()
        self.process.wait()


def main():
    with tempfile.TemporaryDirectory() as folder:
        port = free_port()
        agent = subprocess.Popen(
            [f"{PROGRAMS}/norvd", "--wanted", DOCUMENT, "--host", "127.0.0.1", "--port", str(port),
             "--state-dir", folder, "--http", "off", "--supervise"],
            stderr=open(f"{folder}/log", "w", encoding="utf-8"))
        log = open(f"{folder}/log", encoding="utf-8")
        mine, peer = [], []
        other = free_port()
        try:
            for _ in range(ROUNDS):
                daemon = Daemon(port)
                mine.append(daemon.wait_until_as_wanted(log))
                daemon.end()
                daemon = Daemon(other)
                subprocess.run(
                    [f"{PROGRAMS}/norvctl", "apply", "--yes", "--quiet", "--state-dir", "none",
                     "--host", "127.0.0.1", "--port", str(other), DOCUMENT], check=True,
                    stdout=subprocess.DEVNULL)
                peer.append((time.monotonic() - daemon.listening) * 1000)
                daemon.end()
                print("pair restart", mine[-1], peer[-1])
        finally:
            agent.terminate()
            agent.wait()
    print(f"from listening to as wanted, {ROUNDS} restarts: norvd median "
          f"{statistics.median(mine):.0f} ms, worst {max(mine):.0f} ms; norvctl apply typed at "
          f"once: median {statistics.median(peer):.0f} ms, worst {max(peer):.0f} ms")


main()
