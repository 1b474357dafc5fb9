"""Runs sondrel-restore in a copy of the test's process, which has loaded its modules: starting Python takes
longer than most of what the tests need of it.

What the program's own start decides (its interpreter, its module path, signals from outside) is tested by `started` of
made_session.
"""
import os
import subprocess
import sys
import threading
import traceback

from made_session import PROGRAM, started

from sondrel_restore import command_line, kinds, report

# Loads the modules of all kinds; `report` loads the template engine.
assert kinds.all_kinds() and report


def run(arguments):
    """Runs the program with these arguments and without input, as subprocess.run does with captured output.

    Environment, working directory, namespaces and accounts are those of the caller. A process with threads is not
    copied, since their locks would stay locked: the program is started.
    """
    if threading.active_count() > 1:
        return started(arguments)
    files = [os.memfd_create(name) for name in ("stdout", "stderr")]
    try:
        child = os.fork()
        if child == 0:
            _be_the_program(arguments, *files)
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        return subprocess.CompletedProcess([PROGRAM, *arguments], status, *map(_text, files))
    finally:
        for file in files:
            os.close(file)


def _be_the_program(arguments, out, err):
    """Never returns: the copy must not go on with the test."""
    code = 1
    try:
        for file, number in ((os.open(os.devnull, os.O_RDONLY), 0), (out, 1), (err, 2)):
            os.dup2(file, number)
        # pytest has put objects of its own here. The files are written as the interpreter writes its standard output.
        sys.stdin, sys.stdout, sys.stderr = (
            open(number, mode, buffering, encoding=own.encoding, errors=own.errors, closefd=False)
            for number, mode, buffering, own in ((0, "r", -1, sys.__stdin__), (1, "w", -1, sys.__stdout__),
                                                 (2, "w", 1, sys.__stderr__)))
        sys.argv = [PROGRAM, *arguments]
        code = command_line.main()
    except SystemExit as end:
        code = end.code or 0
    except BaseException:  # pylint: disable=broad-except
        traceback.print_exc()
    finally:
        sys.stdout.flush()
        sys.stderr.flush()
        os._exit(code)


def _text(file):
    with open(file, encoding="utf-8", closefd=False) as text:
        text.seek(0)
        return text.read()
