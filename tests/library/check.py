"""What the tests of the library file share: programs to run, the names it registers, and main().

A test file defines functions test_NAME() and ends with check.main(). Programs, files and folders
come from the environment that CMakeLists.txt sets. A test that lacks a program of the platform is
skipped with a message.
"""

import os
import shutil
import subprocess
import sys
import traceback

SOURCES = os.environ["SOURCES"]

# The registered types, in the order of their registration.
TYPES = [
    "Norv::CmdConfigGroupSm",
    "Norv::ConnectionConfig",
    "Norv::ConnectionsMgr",
    "Norv::GrpcCmd",
    "Norv::GrpcErrorHandlingStatus",
    "Norv::CmdConfigGroup",
    "Norv::GrpcRequestType",
    "Norv::CmdGroup",
    "Norv::GrpcGlobalCmdConfig",
]


class Skip(Exception):
    pass


def need(program):
    if not shutil.which(program):
        raise Skip(f"{program} is not installed")
    return program


def run(*command):
    """Standard output of a command that must succeed."""
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == 0, f"{' '.join(command)}: {done.stderr}"
    return done.stdout


def equal(got, expected, what):
    assert got == expected, f"{what}:\n  expected {expected!r}\n  got      {got!r}"


def main():
    test = sys.modules["__main__"].__dict__["test_" + sys.argv[1]]
    try:
        test()
    except Skip as reason:
        print(f"skipped: {reason}")
        sys.exit(77)
    except AssertionError:
        traceback.print_exc()
        sys.exit(1)
