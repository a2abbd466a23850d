"""What the tests of ci/ share: a scratch tree under git, in a folder of its own, with a script of ci/ in it."""

import os
import shutil
import subprocess
import sys
import tempfile

SOURCES = os.environ["SOURCES"]


class Tree:
    def __init__(self, *scripts):
        self._folder = tempfile.TemporaryDirectory(prefix="norv-scratch-")
        self.path = self._folder.name
        for script in scripts:
            os.makedirs(os.path.dirname(self.inside(script)), exist_ok=True)
            shutil.copy(os.path.join(SOURCES, script), self.inside(script))
        self.git("init", "--quiet", "--initial-branch=main")
        self.git("config", "user.name", "test")
        self.git("config", "user.email", "test@localhost")

    def inside(self, path):
        return os.path.join(self.path, path)

    def write(self, path, text, mode=0o644):
        os.makedirs(os.path.dirname(self.inside(path)), exist_ok=True)
        with open(self.inside(path), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.inside(path), mode)

    def read(self, path):
        with open(self.inside(path), encoding="utf-8") as file:
            return file.read()

    def git(self, *arguments):
        return subprocess.run(["git", *arguments], cwd=self.path, check=True, text=True,
                              stdout=subprocess.PIPE).stdout

    def commit(self):
        self.git("add", "--all")
        self.git("commit", "--quiet", "--message", "a change")

    def run(self, *command):
        """Status, and both outputs as one text."""
        done = subprocess.run(command, cwd=self.path, check=False, text=True, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.returncode, done.stdout


def need(program):
    if not shutil.which(program):
        print(f"skipped: {program} is not installed")
        sys.exit(77)


def has(text, *parts):
    for part in parts:
        assert part in text, f"no {part!r} in:\n{text}"


def equal(got, expected):
    assert got == expected, f"expected {expected!r}, got {got!r}"


def main():
    vars(sys.modules["__main__"])["test_" + sys.argv[1]]()
