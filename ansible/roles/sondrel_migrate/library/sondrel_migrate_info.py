"""Tells how far a migration is, from its session directory."""
import os
import re
import time

from ansible.module_utils.basic import AnsibleModule
from ansible.module_utils.sondrel_session import (BEGUN, ENDED, SessionProblem, is_at_work, log_of, read_document,
                                                  recorded_settings, status_of, wait_for_end)

DOCUMENTATION = r"""
module: sondrel_migrate_info
short_description: Tells how far a migration is
description:
  - Reads what sondrel-migrate and sondrel leave in a session directory, without disturbing a run.
options:
  session: {type: path, required: true, description: The session directory.}
  wait_seconds:
    type: float
    default: 0
    description: Waits for the end of the run that is at work, so long at most.
  program: {type: str, default: sondrel-migrate, description: Name or path of the program.}
"""

RETURN = r"""
migration:
  type: dict
  returned: always
  description: >-
    C(state): finished, failed, stopped, cut short, waiting, running, queued (for a free slot), refused where the
    last run could not begin, or absent where there was none; C(step) at which it stands, and C(exit_code) of that;
    C(reason) of a failure; C(output), what the last run said at its end; C(steps), how each one went; C(bytes) and
    C(files) of the content that is here; C(errors), C(warnings) and C(notes), which the dump names,
    and C(counted), false where there is no dump yet, or none that names any; C(problems), the errors and the messages of the result though it is a success; C(session), C(dump), C(content)
    and C(log), where it lies.
"""

LAST_LINES = 5
LOOK_SECONDS = 5
LOG_TAIL_BYTES = 1 << 16
# The settings were refused, somebody else was at work, the program is missing.
BEGUN_NOTHING = (1, 4, 127)
# What the status of sondrel-migrate ends with.
DUMP_PROBLEMS = r", (\d+) errors?, (\d+) warnings?, (\d+) notes?\Z"
CONTENT_PROBLEMS = r", problems in transfer\.result: (\d+)\Z"


def last_run(session):
    """(exit code, the last lines) of the last run of the role; (None, []) where it did not tell."""
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


def size_of(folder):
    """(bytes, files) below a folder."""
    size = count = 0
    for parent, _, names in os.walk(folder):
        for name in names:
            size += os.lstat(os.path.join(parent, name)).st_size
            count += 1
    return size, count


def problems_in(status):
    """What the dump names and what the content came with, though both are done."""
    in_dump = re.search(DUMP_PROBLEMS, status.get("dump", ""))
    errors, warnings, notes = map(int, in_dump.groups()) if in_dump else (0, 0, 0)
    in_content = re.search(CONTENT_PROBLEMS, status.get("content", ""))
    return {"counted": bool(in_dump), "errors": errors, "warnings": warnings, "notes": notes,
            "problems": errors + (int(in_content.group(1)) if in_content else 0)}


def standing(text, at_work):
    """(state, step, exit code or None) by the status of sondrel-migrate."""
    if text.startswith("running"):
        return "running", "", None
    if at_work:
        return "queued", "", None
    found = re.match(r"(.*?)(?: at (\w+))?(?: with exit code (\d+))?$", text)
    return found.group(1) or "absent", found.group(2) or "", found.group(3) and int(found.group(3))


def is_newer(path, other):
    """Whether the file was written after the other one; false where one is missing."""
    try:
        return os.lstat(path).st_mtime_ns > os.lstat(other).st_mtime_ns
    except FileNotFoundError:
        return False


def collected(module, program, session):
    # In this order: a run that ends in between has written down its end.
    at_work = is_at_work(session)
    status = status_of(module, program, session)
    state, step, code = standing(status.get("state", ""), at_work)
    run_code, output = last_run(session)
    steps = steps_in(session)
    reason = steps.get(step, {}).get("reason", "")
    is_over = state not in ("running", "queued")
    # Somebody may have gone on by hand since the role was refused.
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
    """Returns when no run is at work, or after so many seconds."""
    end = time.monotonic() + seconds
    wait_for_end(session, seconds)
    # Whoever waited for the lock of a run that was begun by hand could have it in the next one's way.
    while (status_of(module, program, session).get("state", "").startswith("running")
           and time.monotonic() + LOOK_SECONDS < end):
        time.sleep(LOOK_SECONDS)


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
