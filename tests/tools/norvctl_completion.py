"""Completion in a bash and a zsh that a person types into."""

import os
import shutil
import tempfile

import harness
from harness import equal, norvctl
from terminal import Terminal


class Shell(Terminal):
    """An interactive shell without settings of its own that completes norvctl."""

    def __init__(self, program, *options):
        if not shutil.which(program):
            harness.skip(f"there is no {program}")
        os.environ["PATH"] = os.path.dirname(harness.NORVCTL) + ":" + os.environ["PATH"]
        os.environ["TERM"] = "xterm"
        super().__init__(*options, input=True, columns=200, program=program)

    def do(self, line):
        """A command that is through when this returns."""
        self.type(line + "; echo 'rea''dy'\n")
        self.wait_for("\nready|\rready")

    def leave(self):
        self.type("\x15exit\n")
        return self.finish()


def try_out(shell):
    shell.type("norvctl templ\tcreateMod\t--cla\tExactM\t\n")
    shell.wait_for("bess.pb.ExactMatchArg")
    shell.type("norvctl show --stan\tpor\t--js\t\n")
    shell.wait_for(r"\[\]")
    shell.type("norvctl describ\tPMDP\t\n")
    shell.wait_for("PMDPort: port driver")
    # Names of files, where a file is wanted.
    folder = tempfile.mkdtemp()
    try:
        with open(folder + "/commands.jsonl", "w") as file:
            file.write('{"type":"getVersion"}\n')
        shell.do("cd " + folder)
        shell.type("norvctl check comm\t\n")
        shell.wait_for("1 commands and 0 announcements, all good")
        shell.do("cd /")
    finally:
        shutil.rmtree(folder)
    # Several that fit are listed.
    shell.type("norvctl call pause\t\t")
    shell.wait_for("pauseAll")
    shell.wait_for("pauseWorker")
    equal(shell.leave(), 0)


def test_in_bash():
    shell = Shell("bash", "--norc", "--noprofile", "-i")
    shell.do("source <(norvctl completion bash)")
    try_out(shell)


def test_in_zsh():
    folder = tempfile.mkdtemp()
    try:
        with open(folder + "/_norvctl", "w") as file:
            file.write(norvctl("completion", "zsh").out)
        shell = Shell("zsh", "-f", "-i")
        shell.do(f"fpath=({folder} $fpath); autoload -Uz compinit; compinit -u -D")
        try_out(shell)
    finally:
        shutil.rmtree(folder)


harness.main()
