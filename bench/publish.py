#!/usr/bin/python3
"""Writes tables and plots of docs/performance.md from measured results; see README.md."""
import argparse
import json
import os
import sys

from bar_chart import bar_chart
from figure import Figure

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BEGIN = "<!-- begin: written by bench/publish.py -->"
END = "<!-- end: written by bench/publish.py -->"
COLUMNS = ("sondrel", "scp", "rsync")
# The plots: file name, title, and prefixes of the names of the cases.
PLOTS = [("performance-large.svg", "One large file: seconds, less is better", ("loopback-", "rtt-")),
         ("performance-small.svg", "Many small files: seconds, less is better", ("many-", "batch-", "deploy-")),
         ("performance-changes.svg", "What has changed since the last pass: seconds, less is better", ("changes-",))]


def merged(published, run):
    """The published results {"runs": [...]} and one more run, whose cases replace older ones of the same name.

    Raises ValueError if the run was measured at another scale, or is no result of bench/run.
    """
    if not {"scale", "pairs", "machine", "cases"} <= set(run):
        raise ValueError("these are no results of bench/run")
    if run["scale"] != 1:
        raise ValueError("results of another scale mean nothing")
    kept = [{**old, "cases": {name: case for name, case in old["cases"].items() if name not in run["cases"]}}
            for old in published["runs"]]
    return {"runs": [old for old in kept if old["cases"]] + [run]}


def machine_line(run):
    found = run["machine"]
    load = found.get("load_before")
    parts = [found["cpu"], f"{found['cores']} cores", f"{found['memory_gib']:.0f} GiB", found["ssh"].split(",")[0],
             f"libssh2 {found['libssh2']}", "load before unknown" if load is None else f"load before {load:.1f}"]
    turns = "one turn" if run["pairs"] == 1 else f"{run['pairs']} turns"
    return f"{run.get('date', 'Undated')}; medians of {turns}. {', '.join(parts)}."


def seconds_of(case, name):
    runs = case["contestants"].get(name)
    return f"{runs['median_seconds']:.2f} s" if runs else ""


def row(name, case):
    others = [f"{other} {seconds_of(case, other)}" for other in case["contestants"] if other not in COLUMNS]
    figures = [Figure(*(each[key] for key in ("what", "value", "unit", "least", "most"))) for each in case["figures"]]
    cells = [f"`{name}`", *(seconds_of(case, column) for column in COLUMNS), ", ".join(others),
             "; ".join(map(str, figures))]
    return f"| {' | '.join(cells)} |"


def table(run):
    return "\n".join([machine_line(run), "",
                      f"| case | {' | '.join(f'`{name}`' for name in COLUMNS)} | other | figures (this project's target) |",
                      "|---|---|---|---|---|---|", *(row(name, case) for name, case in run["cases"].items())])


def plots(results):
    """{file name: text}; a plot without cases is left out."""
    cases = {name: case["contestants"] for run in results["runs"] for name, case in run["cases"].items()}
    drawn = {}
    for file, title, beginnings in PLOTS:
        groups = {name: {who: runs["median_seconds"] for who, runs in contestants.items()}
                  for name, contestants in sorted(cases.items(), key=lambda each: order(each[0]))
                  if name.startswith(beginnings)}
        if groups:
            drawn[file] = bar_chart(title, "s", groups)
    return drawn


def order(name):
    """A sort key that compares numbers in names by value: rtt-50 comes before rtt-100."""
    return [part.zfill(6) if part.isdigit() else part for part in name.split("-")]


def section(results):
    """The text for the page between its marks."""
    pictures = [f"![{title}](pictures/{file})" for file, title, _ in PLOTS if file in plots(results)]
    return "\n\n".join([*pictures, *map(table, results["runs"])])


def page_with(page, text):
    """The page with `text` between its marks. Raises ValueError if it has no marks."""
    before, begin, rest = page.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise ValueError("the page has no marks")
    return f"{before}{BEGIN}\n\n{text}\n\n{END}{after}"


def publish(run=None, results=f"{TOP}/bench/results.json", docs=f"{TOP}/docs"):
    """Adds the run, if one is given, to the results file, and writes the page and the plots from that file."""
    with open(results, encoding="utf-8") as file:
        published = json.load(file)
    if run:
        published = merged(published, run)
    path = f"{docs}/performance.md"
    with open(path, encoding="utf-8") as file:
        page = page_with(file.read(), section(published))
    # Write nothing before all texts are made, so that an error leaves the files as they were.
    texts = {results: json.dumps(published, indent=1) + "\n", path: page,
             **{f"{docs}/pictures/{name}": text for name, text in plots(published).items()}}
    for name, text in texts.items():
        with open(name, "w", encoding="utf-8") as file:
            file.write(text)


def main():
    parser = argparse.ArgumentParser(prog="bench/publish.py", description=__doc__)
    parser.add_argument("runs", nargs="*", metavar="FILE", help="results of bench/run to add first")
    options = parser.parse_args()
    try:
        for path in options.runs or [None]:
            if path is None:
                publish()
                continue
            with open(path, encoding="utf-8") as file:
                publish(json.load(file))
    except (OSError, ValueError) as error:
        sys.exit(f"bench/publish.py: {error}")


if __name__ == "__main__":
    main()
