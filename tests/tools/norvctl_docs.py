"""Every command line of our programs that README.md, docs/ and the manual pages show can be typed as it stands."""

import os
import re
import shutil
import signal
import subprocess
import tempfile

import harness
from harness import Process, Standin, equal, norvctl

PROGRAMS = os.path.dirname(harness.NORVCTL)
OURS = r"(?:norvctl|norvd|skein|bessd-standin)"


def readme_lines():
    with open(harness.SOURCES + "/README.md", encoding="utf-8") as file:
        lines = [line.strip().replace("build/bin/", "") for line in file if line.startswith("    ")]
    for line in lines:
        if re.match(rf"({OURS}|.*\| {OURS}) ", line):
            yield line.removesuffix(" &")


def page_lines():
    verbs = re.findall(r"norvctl\\-(\w+)\(1\)", norvctl("man").out)
    assert len(verbs) > 10, verbs
    for page in [norvctl("man", verb).out for verb in verbs] + written_pages():
        examples = page.split(".SH EXAMPLES\n")[1].split(".SH ")[0]
        for bold in re.findall(r"^\\fB(.*)\\fR$|^\.B (.*)$", examples, re.M):
            yield "".join(bold).replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")


def written_pages():
    """Those that no program tells."""
    pages = []
    for path in ("tools/skein/skein.1", "standin/bessd-standin.1"):
        with open(f"{harness.SOURCES}/{path}", encoding="utf-8") as file:
            pages.append(file.read())
    return pages


def document_lines():
    """The lines of code in docs/ that begin with a program of ours; after two blanks comes what is said of it."""
    for name in sorted(os.listdir(harness.SOURCES + "/docs")):
        if not name.endswith(".md"):
            continue
        with open(f"{harness.SOURCES}/docs/{name}", encoding="utf-8") as file:
            for block in re.findall(r"^```\w*\n(.*?)^```|((?:^    .*\n)+)", file.read(), re.M | re.S):
                for line in "".join(block).splitlines():
                    if typed := re.match(rf"(?:    |\$ )?({OURS} (?!listening |controlled ).*)", line):
                        yield re.sub(r"  .*", "", typed[1])


# What serves or watches until it is told to end.
RUNS_ON = re.compile(r"^(norvd|bessd-standin(?! ctl)|tail -f) |norvctl (.* )?(watch|top)\b|--follow|--watch")


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
        for name in ("demo.skein", "run.skein"):
            shutil.copy(self.folder + "/FILE", f"{self.folder}/{name}")
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
        # Where another one listens already, or somebody else's does.
        line = re.sub(r"^bessd-standin(?! ctl )(?!.*--listen)", "bessd-standin --listen 127.0.0.1:0", line)
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
            assert process.returncode in (0, 130, -signal.SIGINT), (line, process.returncode, out, err)
            return 0, out, err


# What is said of a line that does as it should: that a busy daemon is waited for, and what an export leaves out.
NOTES = re.compile(r"^norvctl: (no answer yet from |port \w+: the daemon does not tell |hooks: no gate tells of any; )")


def check(lines):
    place = Place()
    lines = list(lines)
    for line in lines:
        status, out, err = place.type(line)
        # Of norvctl: 2, a refusal, which some examples show; 4, a plan with something to do.
        assert status == 0 or status in (2, 4) and re.search(r"\bnorvctl ", line), (line, status, out, err)
        complaints = [text for text in err.splitlines() if text.startswith("norvctl: ") and not NOTES.search(text)]
        assert not complaints or status == 2, (line, status, out, err)
    print(len(lines), "lines")
    return lines


def test_lines_of_the_readme():
    lines = check(readme_lines())
    for program in ("norvctl", "skein", "bessd-standin", "echo"):
        assert any(line.split()[0] == program for line in lines), (program, lines)


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
