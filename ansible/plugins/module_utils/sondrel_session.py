# Copyright 2026 the sondrel maintainers
"""What the modules know about a session directory."""
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import contextlib
import fcntl
import os
import signal
import stat
import xml.etree.ElementTree

# sondrel writes no larger documents.
LARGEST_DOCUMENT_BYTES = 1 << 20
BEGUN, ENDED = "# begun ", "# ended "


class SessionProblem(Exception):
    """A file of the session is not one that sondrel wrote. The text is for the administrator."""


def log_of(session):
    """The path of the log with the output of the runs. It is beside the session directory: sondrel-migrate makes that.

    The process that runs sondrel-migrate for the role locks this file (flock). It holds the lock from before the run
    until it has recorded the end of the run there.
    """
    return session + ".log"


def is_at_work(session):
    """Whether a run that the role started has not ended yet."""
    return not wait_for_end(session, 0)


def wait_for_end(session, seconds):
    """True as soon as no run of the role is active; False if one still is after that many seconds."""
    try:
        log = open(log_of(session), "rb")
    except FileNotFoundError:
        return True
    with log:
        try:
            if seconds:
                with alarm_after(seconds):
                    fcntl.flock(log, fcntl.LOCK_SH)
            else:
                fcntl.flock(log, fcntl.LOCK_SH | fcntl.LOCK_NB)
        except (BlockingIOError, TimeoutError):
            return False
    return True


@contextlib.contextmanager
def alarm_after(seconds):
    """Raises TimeoutError in the body if it takes longer than that many seconds."""
    def raise_timeout(number, frame):
        raise TimeoutError

    before = signal.signal(signal.SIGALRM, raise_timeout)
    signal.setitimer(signal.ITIMER_REAL, seconds)
    try:
        yield
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)


def status_of(module, program, session):
    """The lines of `sondrel-migrate status` as {name: text}; empty if no run was started."""
    if not os.path.lexists(session + "/migrate/state.xml"):
        return {}
    code, out, err = module.run_command([program, "status", session])
    if code != 0:
        raise SessionProblem(err.strip())
    return dict(line.split(": ", 1) for line in out.splitlines() if ": " in line)


def read_document(path):
    """The root of an XML document; None if the file is missing.

    Raises SessionProblem for a file that sondrel did not write: a special file, one that is too long, or one with a
    document type.
    """
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK)
    except FileNotFoundError:
        return None
    with open(descriptor, "rb") as file:
        status = os.fstat(descriptor)
        if not stat.S_ISREG(status.st_mode) or status.st_size > LARGEST_DOCUMENT_BYTES:
            raise SessionProblem(path + " is no document of sondrel")
        text = file.read(LARGEST_DOCUMENT_BYTES)
    if b"<!DOCTYPE" in text:
        raise SessionProblem(path + " is no document of sondrel")
    try:
        return xml.etree.ElementTree.fromstring(text)
    except xml.etree.ElementTree.ParseError as error:
        raise SessionProblem("%s: %s" % (path, error))


def recorded_settings(session):
    """The settings with which the migration was started, as {name: text}."""
    state = read_document(session + "/migrate/state.xml")
    return {} if state is None else {node.get("name"): node.text or "" for node in state.iter("setting")}
