"""Every command line of our programs that README.md, docs/ and the manual pages show can be typed as it stands."""

import os
import re
import signal
import subprocess
import tempfile

import harness
from harness import Process, Standin, equal, norvctl

PROGRAMS = os.path.dirname(harness.NORVCTL)


def readme_lines():
    with open(harness.SOURCES + "/README.md") as file:
        lines = [line.rstrip("\n") for line in file]
    for line in lines:
        if re.match(r"    (build/bin/norvctl|norvctl|.*\| norvctl) ", line):
            yield line.strip().replace("build/bin/norvctl", "norvctl")


def page_lines():
    verbs = re.findall(r"norvctl\\-(\w+)\(1\)", norvctl("man").out)
    assert len(verbs) > 10, verbs
    for verb in verbs:
        examples = norvctl("man", verb).out.split(".SH EXAMPLES\n")[1].split(".SH ")[0]
        for bold in re.findall(r"^\\fB(.*)\\fR$", examples, re.M):
            yield bold.replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")


def document_lines():
    """The lines of code in docs/ that begin with a program of ours; after two blanks comes what is said of it."""
    for name in sorted(os.listdir(harness.SOURCES + "/docs")):
        if not name.endswith(".md"):
            continue
        with open(f"{harness.SOURCES}/docs/{name}", encoding="utf-8") as file:
            for block in re.findall(r"^```\w*\n(.*?)^```|((?:^    .*\n)+)", file.read(), re.M | re.S):
                for line in "".join(block).splitlines():
                    if typed := re.match(r"(?:    |\$ )?((?:norvctl|norvd|skein|bessd-standin) (?!listening |controlled ).*)", line):
                        yield re.sub(r"  .*", "", typed[1])


# What serves or watches until it is told to end.
RUNS_ON = re.compile(r"^(norvd|bessd-standin|tail -f) |norvctl (.* )?(watch|top)\b|--follow|--watch")


class Place:
    """A folder with the files that the lines name, and a daemon with the names that they name."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(dir=os.getcwd())
        os.symlink(harness.SOURCES + "/examples", self.folder + "/examples")
        self.write("commands.jsonl", '{"type":"getVersion"}\n')
        self.write("talk.jsonl", '{"type":"getVersion","request":{},"response":{"version":"1"},"status":{"code":0,"message":""}}\n')
        self.write("127.0.0.1.yaml", "modules: {a: Sink, fib: Bypass}\n")
        os.mkdir(self.folder + "/.zfunc")
        self.standin = Standin()
        controlled = Process(harness.STANDIN, "--listen", "127.0.0.1:0", "--control", "127.0.0.1:0")
        self.control = controlled.wait_for(r"controlled at (\S+)\n").group(1)
        recorded = norvctl("run", "--standin", "--quiet", "--flight-recorder", self.folder + "/FILE",
                           self.folder + "/commands.jsonl")
        equal(recorded.status, 0, recorded)
        pages = f"unix:{self.folder}/pages"
        state = f"{self.folder}/state"
        agent = Process(
            os.environ["NORVD"], "--wanted", f"{self.folder}/127.0.0.1.yaml", "--host", "127.0.0.1",
            "--port", self.standin.port, "--http", pages, "--state-dir", state)
        agent.wait_for("pages: served at", err=True)
        self.environment = {
            "NORV_AGENT": pages,
            "NORV_AGENT_STATE": state,
            **os.environ,
            "PATH": PROGRAMS + ":" + os.environ["PATH"],
            "HOME": self.folder,
            "NORV_HOST": "127.0.0.1",
            "NORV_PORT": self.standin.port,
            "MANPAGER": "cat",
        }

    def write(self, name, text):
        with open(os.path.join(self.folder, name), "w") as file:
            file.write(text)

    def type(self, line):
        """Runs the line; one that is to run on is interrupted after some seconds."""
        line = re.sub(r"\bswitch\d\b", "127.0.0.1", line)
        line = line.replace("127.0.0.1:40124", self.control).replace("/tmp/", self.folder + "/")
        process = subprocess.Popen(
            ["bash", "-c", line],
            cwd=self.folder,
            env=self.environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        try:
            out, err = process.communicate(timeout=3 if RUNS_ON.search(line) else harness.PATIENCE)
            return process.returncode, out, err
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGINT)
            out, err = process.communicate(timeout=harness.PATIENCE)
            assert RUNS_ON.search(line), f"does not end: {line}"
            return 130, out, err


# What is said of a line that does as it should: that a busy daemon is waited for, and what an export leaves out.
NOTES = re.compile(r"^norvctl: (no answer yet from |port \w+: the daemon does not tell |hooks: no gate tells of any; )")


def check(lines):
    place = Place()
    lines = list(lines)
    for line in lines:
        status, out, err = place.type(line)
        # 2: a refusal, which some examples show; 4: a plan with something to do.
        assert status in (0, 2, 4, 130), (line, status, out, err)
        complaints = [text for text in err.splitlines() if text.startswith("norvctl: ") and not NOTES.search(text)]
        assert not complaints or status == 2, (line, status, out, err)
    print(len(lines), "lines")
    return lines


def test_lines_of_the_readme():
    assert len(check(readme_lines())) >= 5


def test_lines_of_the_documents():
    lines = check(document_lines())
    for program in ("norvctl", "norvd", "skein", "bessd-standin"):
        assert any(line.startswith(program + " ") for line in lines), (program, lines)


def test_lines_of_the_manual():
    assert len(check(page_lines())) >= 25


def test_every_option_of_the_readme_is_there():
    with open(harness.SOURCES + "/README.md") as file:
        text = file.read()
    known = "".join(norvctl("man", verb).out for verb in re.findall(r"norvctl\\-(\w+)\(1\)", norvctl("man").out))
    known = known.replace("\\-", "-") + norvctl("man").out.replace("\\-", "-")
    for line in text.splitlines():
        if "norvctl" not in line:
            continue
        for option in re.findall(r"(?<![\w-])--[a-z][a-z-]+", line):
            assert option in known or "cmake" in line, (option, line)


harness.main()
