"""Fixtures of the end-to-end tests, and what a failed test leaves behind."""
import os
import re
import shutil

import pytest

import world

FAILURES = os.environ.get("SONDREL_FAILURES", f"{os.path.dirname(world.TESTS)}/build/tests/failures")


def pytest_configure(config):
    config.addinivalue_line("markers", "slow: takes long; left out of the quick run")
    config.addinivalue_line("markers", "matrix(group): a case of the fault and attack matrix, see scripts/matrix")
    config.addinivalue_line("markers", "release_only: replaces functions of the system, as a sanitizer does, or runs no sondrel")


@pytest.fixture(scope="session", autouse=True)
def private_network():
    world.enter_private_network()


@pytest.fixture(autouse=True)
def clean_world():
    """Nothing of an earlier test is there, when several of them share a world."""
    for folder in (world.SESSION, world.SOURCE_TREE, world.RECORDS, world.LOGS, world.RUNS, world.AGENTS):
        shutil.rmtree(folder, ignore_errors=True)
    for login in world.LOGINS:
        for entry in os.scandir(login.home):
            remove = shutil.rmtree if entry.is_dir(follow_symlinks=False) else os.unlink
            remove(entry.path)
    os.makedirs(world.AGENTS)
    for path in (f"{world.DTM}/scout.pl", world.SELECTED):
        if os.path.exists(path):
            os.unlink(path)


@pytest.fixture
def source():
    """A source host that listens on port 22 and keeps every command that it is sent."""
    with world.SourceHost() as host:
        yield host


@pytest.fixture
def system_log():
    with world.SystemLog() as log:
        yield log


@pytest.fixture(params=list(world.LOGIN_KINDS))
def login(request):
    """Each kind of login in turn."""
    return world.LOGIN_KINDS[request.param]


CONTENT_VERIFY = {"unverified": "", "verified": "CONTENT_VERIFY yes\n"}


@pytest.fixture(params=list(CONTENT_VERIFY))
def content_verify(request):
    """Once as shipped, and once with CONTENT_VERIFY in the host's configuration; true for that."""
    kept = world.read(world.CONFIGURATION)
    world.write(world.CONFIGURATION, kept + CONTENT_VERIFY[request.param].encode())
    yield request.param == "verified"
    world.write(world.CONFIGURATION, kept)


@pytest.fixture
def cases(request):
    """For a test of many cases: cases(12) counts twelve of them. Without it a test is one case."""
    def count(number):
        request.config.stash[COUNTED] = request.config.stash.get(COUNTED, 0) + number
    return count


COUNTED = pytest.StashKey()


def pytest_terminal_summary(terminalreporter, config):
    if COUNTED in config.stash:
        terminalreporter.write_line(f"cases: {config.stash[COUNTED]}")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.skipped:
        report.outcome = "failed"
        report.longrepr = f"{item.nodeid} was skipped, and no test may be: {report.longrepr}"
    if report.failed:
        report.sections.append(("what is left of it", keep_evidence(item.name)))


def keep_evidence(name):
    """Copies the session, the logs and the records out of the private world, to be looked at."""
    kept = f"{FAILURES}/{re.sub(r'[^A-Za-z0-9_.-]+', '_', name)}"
    shutil.rmtree(kept, ignore_errors=True)
    os.makedirs(kept)
    for folder in (world.SESSION, world.RECORDS, world.LOGS, world.RUNS):
        if os.path.isdir(folder):
            # Content files can be large, and fifos would block: those stay behind.
            shutil.copytree(folder, f"{kept}/{os.path.basename(folder)}", symlinks=True,
                            ignore=lambda parent, names: [n for n in names if unfit(os.path.join(parent, n))])
    return kept


def unfit(path):
    return not (os.path.isdir(path) or os.path.islink(path)
                or os.path.isfile(path) and os.path.getsize(path) <= 1 << 20)
