"""Runs each test in a process of its own, which is a copy of this one, and several of them at a time.

Most tests wait for a server most of the time. So, unless their number is given, another one begins whenever a processor
has had nothing to do for a moment.
"""
import collections
import dataclasses
import gc
import json
import os
import select
import signal
import time
import traceback

import pytest
from _pytest.runner import runtestprotocol

# For each processor: so many tests run in any case, and no more than so many.
FEWEST, MOST = 2, 6
# The moment is not shorter, since the system counts in steps of 10 ms.
MOMENT_SECONDS = 0.1


class Processors:
    """The processors that this process may use."""

    def __init__(self):
        self._own = {f"cpu{number}" for number in os.sched_getaffinity(0)}
        self.number = len(self._own)
        self._began, self._ticks = time.monotonic(), self._count()

    def had_nothing_to_do(self):
        """Whether at least half a processor was idle since the last answer, which is a moment ago or longer."""
        if time.monotonic() - self._began < MOMENT_SECONDS:
            return False
        before, self._began, self._ticks = self._ticks, time.monotonic(), self._count()
        idle, total = (now - then for now, then in zip(self._ticks, before))
        return idle * self.number * 2 >= total

    def _count(self):
        """(idle ticks, all ticks)"""
        idle = total = 0
        with open("/proc/stat", encoding="ascii") as lines:
            for line in lines:
                name, *ticks = line.split()
                if name in self._own:
                    ticks = list(map(int, ticks[:8]))
                    idle += ticks[3] + ticks[4]
                    total += sum(ticks)
        return idle, total


@dataclasses.dataclass
class Running:
    """The process of a test: `end` becomes readable when it has ended, and the file `reports` has its reports then."""
    item: pytest.Item
    pid: int
    end: int
    reports: int


REPORTS = pytest.StashKey()


class OwnProcesses:
    """A plugin of pytest that runs the tests of a session."""

    def __init__(self, number=None):
        """`number` tests run at a time; None: as many as keep the processors busy."""
        self._processors = Processors()
        self._fewest = number or FEWEST * self._processors.number
        self._most = number or MOST * self._processors.number
        self._running = {}
        self._poll = select.poll()

    @pytest.hookimpl(tryfirst=True)
    def pytest_runtestloop(self, session):
        if session.testsfailed or session.config.option.collectonly:
            return None
        waiting = collections.deque(session.items)
        # What is there now stays: the collector would touch all of it in each process, which would copy it.
        gc.collect()
        gc.freeze()
        try:
            while waiting or self._running:
                while waiting and self._has_room():
                    self._start(waiting.popleft())
                for end, _ in self._poll.poll(MOMENT_SECONDS * 1000 if waiting else None):
                    self._finish(self._running.pop(end))
                if session.shouldfail:
                    raise session.Failed(session.shouldfail)
                if session.shouldstop:
                    raise session.Interrupted(session.shouldstop)
        finally:
            for test in self._running.values():
                os.kill(test.pid, signal.SIGKILL)
                os.waitpid(test.pid, 0)
        return True

    @pytest.hookimpl(tryfirst=True)
    def pytest_runtest_protocol(self, item):
        """Runs the test in its process, where no report goes to the other plugins."""
        item.stash[REPORTS] = runtestprotocol(item, log=False)
        return True

    def _has_room(self):
        number = len(self._running)
        return number < self._fewest or (number < self._most and self._processors.had_nothing_to_do())

    def _start(self, item):
        reports = os.memfd_create("reports")
        pid = os.fork()
        if pid == 0:
            be_the_test(item, reports)
        test = Running(item, pid, os.pidfd_open(pid), reports)
        self._running[test.end] = test
        self._poll.register(test.end, select.POLLIN)

    def _finish(self, test):
        self._poll.unregister(test.end)
        _, status = os.waitpid(test.pid, 0)
        reports = read_reports(test, status)
        os.close(test.end)
        os.close(test.reports)
        hook = test.item.ihook
        hook.pytest_runtest_logstart(nodeid=test.item.nodeid, location=test.item.location)
        for report in reports:
            hook.pytest_runtest_logreport(report=report)
        hook.pytest_runtest_logfinish(nodeid=test.item.nodeid, location=test.item.location)


def be_the_test(item, reports):
    """Never returns: this process runs one test, writes its reports into the file `reports`, and ends."""
    status = 1
    try:
        capture = item.config.pluginmanager.getplugin("capturemanager")
        # Its output must not go to the file that the other tests have, too.
        capture.stop_global_capturing()
        capture.start_global_capturing()
        capture.suspend_global_capture(in_=True)
        item.ihook.pytest_runtest_protocol(item=item, nextitem=None)
        made = [item.config.hook.pytest_report_to_serializable(config=item.config, report=report)
                for report in item.stash[REPORTS]]
        with open(reports, "w", encoding="ascii", closefd=False) as file:
            json.dump(made, file)
        status = 0
    except BaseException:
        traceback.print_exc()
    finally:
        os._exit(status)


def read_reports(test, status):
    """The reports of an ended process; without any of its own, those of a failure."""
    item = test.item
    if status == 0:
        with open(test.reports, encoding="ascii", closefd=False) as file:
            file.seek(0)
            return [item.config.hook.pytest_report_from_serializable(config=item.config, data=data)
                    for data in json.load(file)]
    code = os.waitstatus_to_exitcode(status)
    why = f"{item.nodeid}: its process ended with " + (f"signal {-code}" if code < 0 else f"status {code}")
    return [pytest.TestReport(item.nodeid, item.location, {item.name: 1}, outcome, text, when,
                              user_properties=item.user_properties)
            for outcome, text, when in (("failed", why, "call"), ("passed", None, "teardown"))]
