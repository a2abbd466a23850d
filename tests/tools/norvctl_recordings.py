"""Recorded conversations with a daemon, played to the stand-in: every recorded error code comes.

The recordings lie in ../shared/recordings beside the checkout; without them there is nothing to do.
"""

import json
import os

import harness
from harness import equal, run, skip

FOLDER = os.path.join(harness.SOURCES, "..", "shared", "recordings")


def playable():
    """The recordings that can be sent as they are: no calls without an answer, no getPortConf,
    no requests of which only bytes are known."""
    if not os.path.isdir(FOLDER):
        skip(f"there are no recordings at {FOLDER}")
    for name in sorted(os.listdir(FOLDER)):
        path = os.path.join(FOLDER, name)
        with open(path) as file:
            lines = [json.loads(line) for line in file if line.strip()]
        plain = all(
            line["status"]["code"] == 0
            and line["type"] != "getPortConf"
            and "request_raw" not in line
            for line in lines
        )
        if plain:
            yield path, lines


def expected_code(line):
    return line.get("response", {}).get("error", {}).get("code", 0)


def test_recorded_error_codes():
    played = 0
    for path, lines in playable():
        result = run("--standin", path)
        expected = [expected_code(line) for line in lines]
        equal(result.types(), [line["type"] for line in lines], path)
        equal(result.error_codes(), expected, path)
        equal(result.status, 2 if any(expected) else 0, path)
        played += 1
    assert played >= 30, f"only {played} recordings can be played"
    print(played, "recordings played")


harness.main()
