"""Fixtures of the end-to-end tests, how they are named and ordered, and what a failed test leaves behind."""
import faulthandler
import os
import re
import shutil
import zlib

import pytest

import source_host
import world
from own_processes import OwnProcesses

FAILURES = os.environ.get("SONDREL_FAILURES", f"{os.path.dirname(world.TESTS)}/build/tests/failures")


def pytest_addoption(parser):
    parser.addoption("--sentence", metavar="REGEX", help="only tests whose sentence (see tests/README.md) matches")
    parser.addoption("--group", action="append", help="only tests of this group of the matrix; may be repeated")
    parser.addoption("--one-of-each", action="store_true", help="of a test with several sets of parameters only one")
    parser.addoption("--show-sentences", action="store_true", help="with --collect-only: list them")
    parser.addoption("--own-processes", action="store_true", help="run each test in a process and a world of its own")
    parser.addoption("--at-a-time", metavar="NUMBER", type=int,
                     help="with --own-processes: run so many at a time, and not as many as keep the processors busy")


def pytest_configure(config):
    if config.getoption("own_processes"):
        number = config.getoption("at_a_time")
        if number is not None and number < 1:
            raise pytest.UsageError(f"so many tests cannot run at a time: {number}")
        config.pluginmanager.register(OwnProcesses(number))
    config.addinivalue_line("markers", "slow(limit_seconds=240): takes long; left out of the quick run")
    config.addinivalue_line("markers", "matrix(group): a case of the fault and attack matrix, see scripts/matrix")
    config.addinivalue_line("markers", "release_only: replaces functions of the system, as a sanitizer does, or runs no sondrel")


def sentence(item):
    """test_scout.py::test_stores_it[root login] -> "scout: stores it (root login)".

    Several files have one subject: test_scout__faults.py has tests of "scout", too.
    """
    topic = item.path.stem[len("test_"):].partition("__")[0]
    name, _, variant = item.name[len("test_"):].partition("[")
    text = f"{topic}: {name}".replace("_", " ")
    return text + (f" ({variant[:-1]})" if variant else "")


def pytest_collection_modifyitems(config, items):
    """Names the tests, selects the requested ones, and spreads the slow ones over the first half."""
    names = [sentence(item) for item in items]
    repeated = sorted({name for name in names if names.count(name) > 1})
    if repeated:
        raise pytest.UsageError(f"names given twice: {repeated}")
    for item, name in zip(items, names):
        # These appear in the JUnit report.
        item.user_properties += [("sentence", name)] + [
            ("matrix", marker.args[0]) for marker in item.iter_markers("matrix")]
    chosen = one_of_each(items) if config.getoption("one_of_each") else items
    chosen = {id(item) for item in chosen}
    wanted, left_out = [], []
    for item in items:
        (wanted if id(item) in chosen and is_wanted(config, item) else left_out).append(item)
    config.hook.pytest_deselected(items=left_out)
    items[:] = wanted
    # The slow ones begin early, so that the last tests are quick ones, and not all beside each other.
    slow = [item for item in items if item.get_closest_marker("slow")]
    quick = [item for item in items if not item.get_closest_marker("slow")]
    step = max(1, len(items) // (2 * len(slow))) if slow else 1
    items[:] = quick
    for number, item in enumerate(slow):
        items.insert(number * step, item)


def one_of_each(items):
    """One item of each test function: of the first function its first, of the second its second, and so on.

    So each kind of login and each way to fetch content is among the items.
    """
    functions = {}
    for item in items:
        functions.setdefault((item.path, item.originalname), []).append(item)
    return [several[number % len(several)] for number, several in enumerate(functions.values())]


def is_wanted(config, item):
    pattern, groups = config.getoption("sentence"), config.getoption("group")
    return (not pattern or re.search(pattern, sentence(item))) and (
        not groups or any(marker.args[0] in groups for marker in item.iter_markers("matrix")))


def pytest_collection_finish(session):
    if session.config.getoption("show_sentences"):
        print("\n".join(sentence(item) for item in session.items))
    if session.config.getoption("own_processes") and not session.config.option.collectonly:
        source_host.prepare_source_hosts()


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_setup(item):
    """Isolates the process of one test (--own-processes).

    Signals to its process group reach no other process, and it ends with pytest. A test that hangs is ended, even
    in a system call, and the time limit file says where it was.
    """
    if item.config.getoption("own_processes"):
        os.setsid()
        world.die_with_parent()
        slow = item.get_closest_marker("slow")
        seconds = slow.kwargs.get("limit_seconds", 240) if slow else 120
        os.makedirs(FAILURES, exist_ok=True)
        item.stash[TIME_LIMIT_FILE] = open(failure_path(item) + ".time-limit", "w", encoding="utf-8")
        faulthandler.dump_traceback_later(seconds, exit=True, file=item.stash[TIME_LIMIT_FILE])


@pytest.hookimpl(trylast=True)
def pytest_runtest_teardown(item):
    if TIME_LIMIT_FILE in item.stash:
        # This is the last step of a test's tear-down.
        faulthandler.cancel_dump_traceback_later()
        os.unlink(item.stash[TIME_LIMIT_FILE].name)


TIME_LIMIT_FILE = pytest.StashKey()


@pytest.fixture(scope="session", autouse=True)
def private_world():
    world.enter()


@pytest.fixture(autouse=True)
def clean_world():
    """Removes what an earlier test left, when several tests share a world."""
    for directory in (world.SESSION, world.SOURCE_TREE, world.RECORDS, world.LOGS, world.RUNS, world.AGENTS):
        shutil.rmtree(directory, ignore_errors=True)
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
    """A source host that listens on port 22 and records every command that it gets."""
    with source_host.SourceHost() as host:
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
    """Runs the test with the shipped configuration, and again with CONTENT_VERIFY in the host's configuration; true for
    the latter.
    """
    kept = world.read(world.CONFIGURATION)
    world.write(world.CONFIGURATION, kept + CONTENT_VERIFY[request.param].encode())
    yield request.param == "verified"
    world.write(world.CONFIGURATION, kept)


@pytest.fixture
def cases(record_property):
    """For a test with many cases: cases(12) counts as twelve. Without it a test is one case."""
    return lambda number: record_property("cases", number)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.skipped:
        report.outcome = "failed"
        report.longrepr = f"{item.nodeid} was skipped, and no test may be: {report.longrepr}"
    if report.failed:
        report.sections.append(("what is left of it", keep_evidence(item)))


def failure_path(item):
    """A path for this test alone: the names of two tests that run at the same time may differ only in a blank."""
    return f"{FAILURES}/{re.sub(r'[^A-Za-z0-9_.-]+', '_', item.name)}-{zlib.crc32(item.nodeid.encode()):08x}"


def keep_evidence(item):
    """Copies the session, the logs and the records out of the private world, for inspection."""
    kept = failure_path(item)
    shutil.rmtree(kept, ignore_errors=True)
    os.makedirs(kept)
    for directory in (world.SESSION, world.RECORDS, world.LOGS, world.RUNS):
        if os.path.isdir(directory):
            # Not copied: content files, which can be large, and fifos, which would block.
            shutil.copytree(directory, f"{kept}/{os.path.basename(directory)}", symlinks=True,
                            ignore=lambda parent, names: [n for n in names if unfit(os.path.join(parent, n))])
    return kept


def unfit(path):
    return not (os.path.isdir(path) or os.path.islink(path)
                or os.path.isfile(path) and os.path.getsize(path) <= 1 << 20)
