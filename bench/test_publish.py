"""Tables and plots of the page on performance."""
import copy
import json
import os
import subprocess
import sys
import xml.etree.ElementTree

import pytest

from publish import BEGIN, END, PLOTS, TOP, merged, page_with, plots, publish, section

SVG = "{http://www.w3.org/2000/svg}"


def contestant(seconds):
    return {"median_seconds": seconds, "median_cpu_seconds": 0.1, "peak_mib": 12.0, "seconds": [seconds]}


RUN = {"date": "2026-01-02", "pairs": 5, "scale": 1,
       "machine": {"cpu": "A <fast> one", "cores": 2, "memory_gib": 23.5, "load_before": 0.25,
                   "ssh": "OpenSSH_9.2p1 Debian-2, OpenSSL 3.0", "libssh2": "1.10.0-3"},
       "cases": {
           "rtt-100": {"contestants": {"sondrel": contestant(2.0), "rsync": contestant(8.0)}, "figures": [
               {"what": "speed, rsync = 1:", "value": 4.0, "unit": "", "least": 1.6, "most": None, "met": True}]},
           "rtt-50": {"contestants": {"sondrel": contestant(1.0), "rsync": contestant(4.0)}, "figures": []},
           "help": {"contestants": {}, "figures": [
               {"what": "median", "value": 12.5, "unit": "ms", "least": None, "most": 10, "met": False}]}}}


@pytest.fixture
def place(tmp_path):
    """A directory in which no run has been published yet."""
    (tmp_path / "pictures").mkdir()
    (tmp_path / "performance.md").write_text(f"before\n\n{BEGIN}\nold\n{END}\n\nafter\n")
    (tmp_path / "results.json").write_text('{"runs": []}')
    return tmp_path


def test_page_has_a_row_for_each_case_and_says_whose_the_targets_are(place):
    publish(RUN, place / "results.json", place)
    page = (place / "performance.md").read_text()
    assert page.startswith("before\n") and page.endswith("\nafter\n") and "old" not in page
    assert "this project's target" in page
    assert "| `rtt-100` | 2.00 s |  | 8.00 s |  | speed, rsync = 1: 4 (at least 1.6: met) |" in page
    assert "| `help` |  |  |  |  | median 12.5 ms (at most 10: MISSED) |" in page
    assert "2026-01-02; medians of 5 turns. A <fast> one, 2 cores" in page
    assert "(pictures/performance-large.svg)" in page and "performance-small" not in page
    # Without a new run the page stays the same: what was published is kept for the next run.
    publish(None, place / "results.json", place)
    assert (place / "performance.md").read_text() == page


def test_bars_of_a_plot_are_as_long_as_the_seconds(place):
    publish(RUN, place / "results.json", place)
    assert os.listdir(place / "pictures") == ["performance-large.svg"]
    root = xml.etree.ElementTree.fromstring((place / "pictures/performance-large.svg").read_text())
    widths = [float(bar.get("width")) for bar in root.iter(f"{SVG}rect") if bar.get("height") == "12"]
    # The shorter distance comes first.
    assert [round(width / widths[0], 2) for width in widths] == [1, 4, 2, 8]
    texts = [text.text for text in root.iter(f"{SVG}text")]
    assert texts[1:3] == ["sondrel", "rsync"] and {"rtt-50", "rtt-100", "1 s", "8 s"} <= set(texts)
    assert all(float(bar.get("x", 0)) + float(bar.get("width")) <= float(root.get("width"))
               for bar in root.iter(f"{SVG}rect"))


def test_cases_of_a_further_run_replace_those_of_older_ones():
    further = copy.deepcopy({**RUN, "date": "2026-02-03", "cases": {"help": RUN["cases"]["help"]}})
    both = merged(merged({"runs": []}, RUN), further)
    assert [list(run["cases"]) for run in both["runs"]] == [["rtt-100", "rtt-50"], ["help"]]
    assert [run["date"] for run in merged(both, RUN)["runs"]] == ["2026-01-02"]


@pytest.mark.parametrize("run, reason", [({**RUN, "scale": 0.5}, "another scale"), ({"sites": {}}, "no results")],
                         ids=["of another scale", "of another program"])
def test_publishes_no_run(place, run, reason):
    before = {path: path.read_bytes() for path in place.iterdir() if path.is_file()}
    with pytest.raises(ValueError, match=reason):
        publish(run, place / "results.json", place)
    assert before == {path: path.read_bytes() for path in place.iterdir() if path.is_file()}


def test_a_page_without_marks_is_not_written():
    with pytest.raises(ValueError, match="no marks"):
        page_with("a page", "text")


def test_names_the_file_that_it_cannot_read(tmp_path):
    done = subprocess.run([sys.executable, f"{TOP}/bench/publish.py", tmp_path / "absent.json"], stderr=subprocess.PIPE,
                          text=True, check=False)
    assert done.returncode == 1 and "absent.json" in done.stderr and "Traceback" not in done.stderr


def test_published_page_and_plots_are_those_of_the_published_results():
    with open(f"{TOP}/bench/results.json", encoding="utf-8") as file:
        results = json.load(file)
    with open(f"{TOP}/docs/performance.md", encoding="utf-8") as file:
        page = file.read()
    assert page == page_with(page, section(results)), "run bench/publish.py"
    drawn = plots(results)
    for name, *_ in PLOTS:
        path = f"{TOP}/docs/pictures/{name}"
        assert os.path.exists(path) == (name in drawn), name
        if name in drawn:
            with open(path, encoding="utf-8") as file:
                assert file.read() == drawn[name], "run bench/publish.py"
