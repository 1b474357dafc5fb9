# Copyright 2026 the sondrel maintainers
"""Reports the state of a migration, from its session directory."""
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: sondrel_migrate_info
short_description: Reports the state of a migration
version_added: 0.1.0
author: sondrel maintainers (@sondrel)
description:
  - Reads what C(sondrel-migrate) and C(sondrel) leave in a session directory, without disturbing a run.
options:
  wait_seconds:
    description: Waits for the end of a run that is at work, at most so many seconds.
    type: float
    default: 0
extends_documentation_fragment: sondrel.migration.session
seealso:
  - module: sondrel.migration.sondrel_migrate
"""

EXAMPLES = r"""
- name: Wait for the end of a migration
  sondrel.migration.sondrel_migrate_info:
    session: /var/lib/migration/old1.example
    wait_seconds: 60
  register: info
  until: info.migration.state not in ['running', 'queued']
  retries: 1440
  delay: 0

- name: Show what is missing from the dump
  ansible.builtin.debug:
    msg: "{{ info.migration.errors }} errors, see {{ info.migration.dump }}"
"""

RETURN = r"""
migration:
  description: The state of the migration.
  type: dict
  returned: always
  contains:
    state:
      description:
        - C(finished), C(failed), C(stopped), C(cut short), C(waiting) or C(running).
        - C(queued) if the run waits for a free slot, C(refused) if the last run could not begin.
        - C(absent) if there was no run.
      type: str
      sample: finished
    step:
      description: The step that failed, was stopped or is next; empty for a finished migration.
      type: str
      sample: content
    exit_code:
      description: The exit code of that step or run; null if none has ended.
      type: int
      sample: 0
    reason:
      description: Why the step failed or the run was refused.
      type: str
    output:
      description: The last lines that the last run printed.
      type: list
      elements: str
    steps:
      description: The state, times, exit code and reason of each step, by its name.
      type: dict
    bytes:
      description: The size of the content on this host.
      type: int
      sample: 1900000000
    files:
      description: The number of its files.
      type: int
      sample: 214
    counted:
      description: Whether the dump reports its problems; false if there is no dump yet.
      type: bool
    errors:
      description: How many problems of the dump are errors, something that is missing from the result.
      type: int
    warnings:
      description: How many are warnings, something that may not work on this host.
      type: int
    notes:
      description: How many need no action.
      type: int
    problems:
      description: The errors, and the messages that came with the content though its transfer succeeded.
      type: int
    session:
      description: The session directory.
      type: str
      sample: /var/lib/migration/old1.example
    dump:
      description: The description of what was found.
      type: str
      sample: /var/lib/migration/old1.example/dump.xml
    content:
      description: The directory of the content.
      type: str
      sample: /var/lib/migration/old1.example/archives
    log:
      description: The log of the runs.
      type: str
      sample: /var/lib/migration/old1.example/migration.log
"""

import os
import re
import time

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.sondrel.migration.plugins.module_utils.sondrel_session import (
    BEGUN, ENDED, SessionProblem, is_at_work, log_of, read_document, recorded_settings, status_of, wait_for_end)

LAST_LINES = 5
POLL_SECONDS = 5
LOG_TAIL_BYTES = 1 << 16
# Exit codes of runs that changed nothing: settings refused, another run active, program missing.
BEGUN_NOTHING = (1, 4, 127)
# How lines of `sondrel-migrate status` end that report problems.
DUMP_PROBLEMS = r", (\d+) errors?, (\d+) warnings?, (\d+) notes?\Z"
CONTENT_PROBLEMS = r", problems in transfer\.result: (\d+)\Z"


def last_run(session):
    """(exit code, last lines) of the last run of the role; (None, []) if the log has none."""
    try:
        with open(log_of(session), "rb") as log:
            log.seek(max(0, os.fstat(log.fileno()).st_size - LOG_TAIL_BYTES))
            text = log.read().decode("utf-8", "replace")
    except FileNotFoundError:
        return None, []
    text = re.split("^" + BEGUN + ".*\n", text, flags=re.MULTILINE)[-1]
    ended = re.search(ENDED + r"\S+ with exit code (\d+)\n\Z", text)
    said = text[:ended.start()] if ended else text
    return int(ended.group(1)) if ended else None, said.splitlines()[-LAST_LINES:]


def steps_in(session):
    state = read_document(session + "/migrate/state.xml")
    steps = {}
    for node in state.iter("step") if state is not None else ():
        code = node.get("exit-code")
        steps[node.get("name")] = {
            "state": node.get("state"), "started": node.get("started", ""), "ended": node.get("ended", ""),
            "exit_code": None if code is None else int(code), "reason": (node.text or "").strip()}
    return steps


def size_of(directory):
    """(bytes, files) below a directory."""
    size = count = 0
    for parent, _, names in os.walk(directory):
        for name in names:
            size += os.lstat(os.path.join(parent, name)).st_size
            count += 1
    return size, count


def problems_in(status):
    """The problem counts of a dump and of a transfer that succeeded otherwise."""
    in_dump = re.search(DUMP_PROBLEMS, status.get("dump", ""))
    errors, warnings, notes = map(int, in_dump.groups()) if in_dump else (0, 0, 0)
    in_content = re.search(CONTENT_PROBLEMS, status.get("content", ""))
    return {"counted": bool(in_dump), "errors": errors, "warnings": warnings, "notes": notes,
            "problems": errors + (int(in_content.group(1)) if in_content else 0)}


def standing(text, at_work):
    """(state, step, exit code or None) from the status of sondrel-migrate."""
    if text.startswith("running"):
        return "running", "", None
    if at_work:
        return "queued", "", None
    found = re.match(r"(.*?)(?: at (\w+))?(?: with exit code (\d+))?$", text)
    return found.group(1) or "absent", found.group(2) or "", found.group(3) and int(found.group(3))


def is_newer(path, other):
    """Whether the file was written after the other one; false if either is missing."""
    try:
        return os.lstat(path).st_mtime_ns > os.lstat(other).st_mtime_ns
    except FileNotFoundError:
        return False


def collected(module, program, session):
    # In this order: a run that ends after the first call has written its end before the second one reads it.
    at_work = is_at_work(session)
    status = status_of(module, program, session)
    state, step, code = standing(status.get("state", ""), at_work)
    run_code, output = last_run(session)
    steps = steps_in(session)
    reason = steps.get(step, {}).get("reason", "")
    is_over = state not in ("running", "queued")
    # Since the role's run was refused, an administrator may have continued the migration by hand.
    if is_newer(session + "/migrate/state.xml", log_of(session)):
        run_code = None
    if is_over and run_code in BEGUN_NOTHING and code != run_code:
        state, step, code, reason = "refused", "", run_code, output[-1] if output else ""
    elif state == "finished":
        code = 0
    elif is_over and code is None:
        code = run_code
    content = recorded_settings(session).get("dumps-dir", session + "/archives")
    size, count = size_of(content)
    return {"state": state, "step": step, "exit_code": code, "reason": reason, "output": output, "steps": steps,
            "bytes": size, "files": count, "session": session, "dump": session + "/dump.xml", "content": content,
            "log": session + "/migration.log", **problems_in(status)}


def wait(module, program, session, seconds):
    """Returns when no run is active, or after that many seconds."""
    end = time.monotonic() + seconds
    wait_for_end(session, seconds)
    # A run that was started by hand is polled: to wait for its lock could block the next run.
    while (status_of(module, program, session).get("state", "").startswith("running")
           and time.monotonic() + POLL_SECONDS < end):
        time.sleep(POLL_SECONDS)


def main():
    module = AnsibleModule(
        argument_spec=dict(
            session=dict(type="path", required=True),
            wait_seconds=dict(type="float", default=0),
            program=dict(type="str", default="sondrel-migrate")),
        supports_check_mode=True)
    session = os.path.abspath(module.params["session"])
    program = module.get_bin_path(module.params["program"], required=True)
    try:
        if module.params["wait_seconds"]:
            wait(module, program, session, module.params["wait_seconds"])
        migration = collected(module, program, session)
    except (SessionProblem, OSError) as error:
        module.fail_json(msg=str(error))
    module.exit_json(changed=False, migration=migration)


if __name__ == "__main__":
    main()
