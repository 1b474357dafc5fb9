"""Commands, links and messages of the documents."""
import errno
import glob
import os
import re
import subprocess

import pytest

from documented import TOP
from world import read

DOCUMENTS = [path for path in sorted(glob.glob("**/*.md", root_dir=TOP, recursive=True)) if not path.startswith("build/")]
# The name of a test cannot contain a slash.
each_document = pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.replace("/", " "))
SHOWN = {"text", "console"}
RUN_HOW = {"online", "last", "long"}


def blocks(document):
    """[(words after the fence, text)] of each fenced block, and the lines outside of the blocks."""
    found, outside, fence = [], [], None
    for line in read(f"{TOP}/{document}").decode().splitlines():
        mark = re.match(r"\s*```(.*)$", line)
        if mark and fence is None:
            fence = (mark[1].split(), [])
        elif mark:
            found.append((fence[0], "\n".join(fence[1])))
            fence = None
        elif fence:
            fence[1].append(line)
        else:
            outside.append(line)
    assert fence is None, "a block is not closed"
    return found, outside


@each_document
def test_block_of_a_document_says_whether_and_how_it_is_run(document):
    found, outside = blocks(document)
    for words, text in found:
        assert words and (words[0] in SHOWN and not words[1:] or words[0] == "sh" and set(words[1:]) <= RUN_HOW), text
    indented = [line for before, line in zip(outside, outside[1:]) if not before and line.startswith("    ")]
    assert not indented, "commands that are not run, or text that looks like them"


@each_document
def test_commands_of_a_document_are_words_of_a_shell(document):
    for words, text in blocks(document)[0]:
        if words[0] == "sh":
            checked = subprocess.run(["bash", "-n"], input=text, text=True, capture_output=True, check=False)
            assert (checked.returncode, checked.stderr) == (0, ""), text


def anchors(document):
    """What a link can name after "#": the headings, in the form that a web view of the repository gives them."""
    headings = [line.lstrip("#") for line in blocks(document)[1] if line.startswith("#")]
    return {re.sub(r"[^\w -]", "", heading.strip().lower()).replace(" ", "-") for heading in headings}


@each_document
def test_links_of_a_document_lead_somewhere(document):
    text = "\n".join(blocks(document)[1])
    for link in re.findall(r"\]\(([^)\s]+)\)", text):
        assert "://" not in link, f"a resource of others may vanish: {link}"
        path, _, anchor = link.partition("#")
        target = os.path.normpath(os.path.join(os.path.dirname(document), path)) if path else document
        assert os.path.exists(f"{TOP}/{target}"), link
        assert not anchor or anchor in anchors(target), link


def test_documents_that_are_installed_link_to_nothing_that_stays_behind():
    for document in (name for name in DOCUMENTS if name.startswith("docs/")):
        for link in re.findall(r"\]\(([^)#\s]+)", "\n".join(blocks(document)[1])):
            target = os.path.normpath(os.path.join(os.path.dirname(document), link))
            assert target.startswith("docs/"), f"{document}: {link}"


def test_files_that_a_first_change_touches_are_there():
    change = read(f"{TOP}/CONTRIBUTING.md").decode().split("## Your first change")[1].split("\n## ")[0]
    cells = [row.split("|")[1] for row in change.splitlines() if row.startswith("| `")]
    named = [path for cell in cells for path in re.findall(r"`([^`]+)`", cell)]
    assert len(named) > 15
    for path in named:
        assert os.path.exists(f"{TOP}/{path}"), path


def test_readme_is_short():
    assert len(read(f"{TOP}/README.md").splitlines()) <= 120


def test_messages_that_the_troubleshooting_page_looks_up_are_those_of_the_programs():
    rows = [line.split("|")[1] for line in blocks("docs/troubleshooting.md")[1] if line.startswith("| ")]
    sources = b"".join(read(path) for layer in ("commons", "hostlib", "transport", "sondrel", "migrate")
                       for path in glob.glob(f"{TOP}/{layer}/*.[ch]*")).decode()
    # A text may continue in the next line.
    texts = re.sub(r'"\s*"', "", sources)
    messages = [message for row in rows for message in re.findall(r"`([A-Z][^`.]+ [^`]+?)`", row)
                if message != os.strerror(errno.ENOSPC)]
    assert len(messages) > 10
    for part in (part for message in messages for part in message.split(" ... ")):
        assert part in texts, part


def test_every_document_that_has_commands_is_run_in_fresh_roots():
    listed = re.search(r"^documents=\((.*?)\)", read(f"{TOP}/scripts/fresh-roots").decode(), re.DOTALL | re.MULTILINE)[1]
    with_commands = {document for document in DOCUMENTS if any(words[0] == "sh" for words, _ in blocks(document)[0])}
    assert with_commands and with_commands <= set(listed.split())
