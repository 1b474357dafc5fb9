"""The benchmark itself, with small sizes."""
import json
import os
import subprocess
import sys

import pytest

from bench import CASES, Figure
from contestants import TOP

HERE = f"{TOP}/bench"
SMOKE = ["relay", "loopback-tmpfs", "loopback-disk", "rtt-10-1gbit", "many-50ms", "present-many", "present-large",
         "deploy-loopback", "batch-50ms", "batch-deploy-50ms", "changes-50ms", "memory", "help"]
RESULTS = "/mnt/results.json"


def bench(*arguments, **environment):
    return subprocess.run([sys.executable, f"{HERE}/bench.py", "--json", RESULTS, *arguments], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, check=False, env={**os.environ, **environment})


def test_measures_every_kind_of_case():
    done = bench("--pairs", "1", "--scale", "0.002", *SMOKE)
    assert done.returncode == 0, done.stderr
    heading, _, *rows = done.stdout.splitlines()
    assert heading == "| case | medians | figures |"
    assert [row.split(" ")[1] for row in rows] == SMOKE
    with open(RESULTS, encoding="utf-8") as results:
        cases = json.load(results)["cases"]
    assert list(cases) == SMOKE
    for name, case in cases.items():
        assert all(figure["met"] is None for figure in case["figures"]), "targets hold in full size only"
        for contestant in case["contestants"].values():
            assert contestant["median_seconds"] > 0 and contestant["peak_mib"] > 0, name
            assert len(contestant["seconds"]) == 1
    contestants = {name: list(case["contestants"]) for name, case in cases.items()}
    assert contestants["loopback-tmpfs"] == ["sondrel", "scp", "rsync", "ssh cat"]
    for name in "loopback-disk", "rtt-10-1gbit", "many-50ms", "deploy-loopback":
        assert contestants[name] == ["sondrel", "scp", "rsync"]
        seconds = {peer: runs["median_seconds"] for peer, runs in cases[name]["contestants"].items()}
        assert cases[name]["figures"][0]["value"] == min(seconds["scp"], seconds["rsync"]) / seconds["sondrel"]
    for name in "batch-50ms", "batch-deploy-50ms":
        assert contestants[name] == ["sondrel", "rsync"]
    # The tool cannot learn of a file 50 ms away in less than 50 ms.
    figures = {figure["what"]: figure["value"] for figure in cases["many-50ms"]["figures"]}
    assert figures["per file at 50 ms"] > 50 and figures["round trips per file"] > 1


@pytest.mark.parametrize("program, reason", [("false", "exit code 1"), ("true", "are not the same")])
def test_believes_no_tool_that_has_fetched_nothing(program, reason):
    done = bench("--pairs", "1", "--scale", "0.001", "rtt-10", SONDREL_BINARY=f"/bin/{program}")
    assert done.returncode == 1
    assert reason in done.stderr
    assert done.stdout == ""


def test_publishes_nothing_that_was_measured_in_small():
    done = bench("--publish", "--scale", "0.5", "help")
    assert done.returncode == 2 and "another scale" in done.stderr


def test_refuses_a_case_that_there_is_not():
    done = bench("rtt-11")
    assert done.returncode == 2
    assert "no such case: rtt-11" in done.stderr and all(case in done.stderr for case in CASES)


@pytest.mark.parametrize("figure, text", [
    (Figure("speed", 1.5, "x", least=1.3), "speed 1.5 x (at least 1.3: met)"),
    (Figure("speed", 1.2, "x", least=1.3), "speed 1.2 x (at least 1.3: MISSED)"),
    (Figure("memory", 96, "MiB", most=96), "memory 96 MiB (at most 96: met)"),
    (Figure("memory", 97.5, "MiB", most=96), "memory 97.5 MiB (at most 96: MISSED)"),
    (Figure("memory", 12, "MiB"), "memory 12 MiB")], ids=str)
def test_tells_whether_a_target_is_met(figure, text):
    assert str(figure) == text
