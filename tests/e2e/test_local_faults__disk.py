"""What a run does when the destination's own disk is full."""
import dataclasses
import os
import shutil
import signal
import stat
import subprocess

import pytest

from content import left, offered
from invariants import ARCHIVES, check, complete, temporaries
from local_jobs import (CONTENT, DOCUMENTS, DUMPS, ENTRIES, PAGE,  # noqa: F401  # pylint: disable=unused-import
                        content, each_job, full_device, innermost, mount, no_mounts, remount, source)
from system_faults import Fault, preload  # a fixture  # noqa: F401  # pylint: disable=unused-import
from tool import Destination, Session
from world import BINARY, DTM, ROOT, SESSION, read, write

pytestmark = pytest.mark.matrix("local")


def run_with_more_and_more_room(job, options_for, most):
    """Runs on file systems of growing size until one is large enough; returns how many were not."""
    failed = 0
    for amount in range(most):
        mount(SESSION, options_for(amount))
        # This file takes room that the run does not have.
        write(f"{SESSION}/filler", b"x" * PAGE)
        outcome = job.run()
        job.check(outcome)
        if outcome.code != 0:
            failed += 1
            remount(SESSION, "size=10m,nr_inodes=1000")
            assert job.start().finish(20).code == 0
            job.check_done()
        roomy = outcome.code == 0 and Session().log().endswith("Exit code: 0\n") and Session().exists(job.result)
        subprocess.run(["umount", SESSION], check=True)
        if roomy:
            return failed
    raise AssertionError(f"{most} was not enough")


@each_job
def test_session_on_a_full_disk_fails_until_all_has_room(cases, job):
    failed = run_with_more_and_more_room(job, lambda pages: f"size={(pages + 1) * PAGE}", 30)
    assert failed >= 5
    cases(failed)


@each_job
def test_session_without_inodes_fails_until_all_have_one(cases, job):
    # One inode belongs to the directory and one to the filler.
    failed = run_with_more_and_more_room(job, lambda number: f"size=10m,nr_inodes={number + 2}", 20)
    assert failed >= 3
    cases(failed)


@pytest.mark.usefixtures("content_verify")
@pytest.mark.parametrize("pages", [0, 2, 5], ids=["first byte", "byte 8192", "last buffer"])
def test_content_file_that_outgrows_its_disk_stays_on_the_source_host(pages):
    mount(DUMPS, f"size={(pages + 1) * PAGE}")
    write(f"{DUMPS}/filler", b"x" * PAGE)
    content()
    job = dataclasses.replace(CONTENT, options=("--no-check-space", "--dumps-dir", DUMPS))
    outcome = job.start().finish(20)
    check(outcome, ENTRIES, target=DUMPS)
    assert (outcome.code, innermost("transfer.result")) == (2, "StreamWrite")
    assert left(ROOT) == sorted(ENTRIES)
    assert os.path.getsize(f"{DUMPS}/first") == pages * PAGE


# (size of the file, room): large enough that a second thread writes it
LARGE = {"amid the file": (6 << 20, 2 << 20), "last bytes": ((2 << 20) + 1000, 2 << 20)}


@pytest.mark.usefixtures("content_verify")
@pytest.mark.parametrize("size, room", LARGE.values(), ids=LARGE)
def test_large_content_file_that_outgrows_its_disk_stays_on_the_source_host(size, room):
    entries = {"large": bytes(range(256)) * (size // 256) + b"x" * (size % 256), "next": b"n"}
    mount(DUMPS, f"size={room}")
    offered(ROOT, *entries.items())
    job = dataclasses.replace(CONTENT, options=("--no-check-space", "--dumps-dir", DUMPS))
    outcome = job.start().finish(60)
    check(outcome, entries, target=DUMPS)
    assert (outcome.code, innermost("transfer.result")) == (2, "StreamWrite")
    assert "No space left on device" in Session().read("transfer.result").decode()
    assert left(ROOT) == sorted(entries)
    assert read(f"{DUMPS}/large") == entries["large"][:room]
    remount(DUMPS, f"size={2 * size}")
    assert job.start().finish(60).code == 0
    assert {name: read(f"{DUMPS}/{name}") for name in entries} == entries
    assert left(ROOT) == []


@pytest.mark.release_only
@pytest.mark.parametrize("document", DOCUMENTS)
def test_document_that_finds_no_room_at_a_byte_is_told(preload, cases, document):
    job, name, size, told = DOCUMENTS[document]
    limits = [limit for limit in (0, 1, 8191, 8192) if limit < size - 1] + [size - 1]
    for limit in limits:
        shutil.rmtree(SESSION, ignore_errors=True)
        fault = Fault(preload, "full", limit, path=Session().file(name))
        outcome = job.run(environment=fault.environment)
        assert fault.struck(), limit
        job.check(outcome)
        assert outcome.code == (2 if told else 0)
        assert not told or innermost(job.result) == told
        if name in job.documents:
            assert Session().read(name) == job.documents[name][:limit]
    cases(len(limits))


def with_full_stream(number):
    """The words in front of the tool's command that make a standard stream a full device."""
    return ["sh", "-c", f'exec "$@" {number}>/dev/full', "sh", BINARY]


def test_stop_whose_text_cannot_be_written_is_still_a_clean_stop():
    content()
    path = f"{ROOT.agent_dir}/first"
    os.unlink(path)
    os.mkfifo(path)
    running = CONTENT.start(through=with_full_stream(1))
    with open(path, "wb") as pipe:  # returns when it is read
        running.send(signal.SIGUSR1)
        pipe.write(b"x")
    assert running.finish(20).code == 0
    assert Session().result("transfer.result")[1] == [("status", "success")]
    assert "INFO k.log: Migration has been terminated\n" in Session().log()
    assert not Session().exists("dump-name")


@pytest.mark.parametrize("script, code", [("exit 0", 0), ("exit 3", 2)], ids=["success", "failure"])
def test_error_output_that_is_full_changes_no_exit_code(script, code):
    write(f"{DTM}/scout.pl", script)
    # A verbose run writes its log to standard error, too.
    assert Destination(ROOT).run("send-scout", "--verbose", through=with_full_stream(2)).code == code
    assert Session().log().endswith(f"Exit code: {code}\n")
    assert Session().result()[1] == [("status", "error" if code else "success")]


@pytest.mark.parametrize("document", DOCUMENTS)
def test_document_on_a_full_device_is_told(document):
    job, name, _, told = DOCUMENTS[document]
    full_device(name)
    outcome = job.run()
    # A document that is replaced does not depend on what was in its place.
    replaced = name in ("migration.status", "migration.result")
    if replaced or not told:
        assert outcome.code == 0
        job.check_done()
        assert stat.S_ISCHR(os.lstat(Session().file(name)).st_mode) is not replaced
    else:
        # The tool does not write content into a device.
        assert (outcome.code, innermost(job.result)) == (
            2, "CantRetrieveContentFile" if name.startswith("archives") else told)
        assert temporaries(SESSION) == []
        if job is CONTENT:
            assert set(left(ROOT)) | complete(ENTRIES, ARCHIVES) == set(ENTRIES)
