"""The sample agent by itself, as its own operator would run it."""
import os
import shutil
import subprocess

import pytest

from world import SOURCE_TREE, TESTS, files_below, tree, write

AGENT = "/mnt/agent"


@pytest.fixture
def agent():
    """Runs the agent with arguments and input; it must succeed. Returns its output."""
    for part in ("shared", "sample"):
        shutil.copytree(f"{TESTS}/sample-agent/{part}", AGENT, dirs_exist_ok=True)
    write(f"{AGENT}/source-tree", SOURCE_TREE + "\n")

    def run(*arguments, given=b""):
        return subprocess.run(["perl", f"{AGENT}/sample-agent.pl", *arguments], input=given, cwd="/", check=True,
                              stdout=subprocess.PIPE).stdout
    yield run
    shutil.rmtree(AGENT)


def dumped():
    return {os.fsdecode(path): content for path, content in files_below(f"{AGENT}/content").items()}


@pytest.mark.parametrize("options, expected", [
    ([], {"domains/d/mail/1", "domains/d/web/1"}), (["--only-mail"], {"domains/d/mail/1"}),
    (["--only-hosting"], {"domains/d/web/1"}), (["--no-content"], set()),
], ids=["all", "mail", "hosting", "no content"])
def test_dumps_the_kind_of_content_that_was_asked_for(agent, options, expected):
    write(f"{SOURCE_TREE}/domains/d/mail/1", "letter")
    write(f"{SOURCE_TREE}/domains/d/web/1", "page")
    write(f"{SOURCE_TREE}/domains/other/web/1", "page")
    agent("--migration-mode", "--dump-domains=-", *options, given=b"d")
    assert set(dumped()) == expected


def test_lists_what_is_still_there(agent):
    write(f"{SOURCE_TREE}/clients/c/one", "1")
    write(f"{SOURCE_TREE}/clients/c/two", "22")
    agent("--migration-mode", "--dump-all")
    os.unlink(f"{AGENT}/content/clients/c/one")
    name, attributes, _, files = tree(agent("--get-content-list"))
    assert name == "contentlist" and [file[2] for file in files] == ["content/clients/c/two", "dump.xml"]
    size = 2 + os.path.getsize(f"{AGENT}/dump.xml")
    assert attributes == [("size", str(size)), ("unpacked", str(size))]


def test_leaves_out_what_xml_cannot_name(agent):
    for name in ("good", os.fsdecode(b"bad\1"), os.fsdecode(b"bad\xff")):
        write(f"{SOURCE_TREE}/domains/d/{name}", "x")
    agent("--migration-mode", "--dump-all")
    assert set(dumped()) == {"domains/d/good"}


def test_fails_for_an_object_that_is_not_there(agent):
    with pytest.raises(subprocess.CalledProcessError):
        agent("--migration-mode", "--dump-domains=-", given=b"absent")


def test_fails_when_a_list_is_missing_on_its_input(agent):
    os.makedirs(f"{SOURCE_TREE}/domains/d")
    with pytest.raises(subprocess.CalledProcessError):
        agent("--migration-mode", "--dump-domains=-", "--dump-clients=-", given=b"d")
