# Copyright 2026 the sondrel maintainers
"""The summary of many migrations, as lines of text."""
from __future__ import absolute_import, division, print_function

__metaclass__ = type



def size_text(size):
    """The size in bytes, in the format of sondrel-migrate."""
    if size < 1000:
        return "%d B" % size
    for unit in ("kB", "MB", "GB", "TB"):
        size /= 1000.0
        if size < 1000 or unit == "TB":
            return "%.1f %s" % (size, unit)


def counted(number, what):
    return "%d %s%s" % (number, what, "" if number == 1 else "s")


def problems_of(migration):
    """The problem counts of the dump and of the content, as parts of a line."""
    counts = [counted(migration[what + "s"], what) for what in ("error", "warning", "note")]
    messages = migration["problems"] - migration["errors"]
    return (counts if migration["counted"] else []) + (
        ["%s of the content" % counted(messages, "problem")] if messages else [])


def line_of(name, migration):
    """State, step, exit code, bytes, problems, place and reason of one migration."""
    if not migration:
        return name + ": not begun"
    parts = [migration["state"] + (" at " + migration["step"] if migration["step"] else "")]
    if migration["exit_code"]:
        parts.append("exit code %s" % migration["exit_code"])
    parts.append("%s in %s files" % (size_text(migration["bytes"]), migration["files"]))
    parts += problems_of(migration)
    parts.append("%s:%s" % (migration["destination"], migration["session"]))
    # An error message of the source host may have several lines.
    reason = " ".join(migration["reason"].split())
    return name + ": " + ", ".join(parts) + (": " + reason if reason else "")


def sondrel_summary(hosts, hostvars):
    """A line for each migration, and a last one for all."""
    migrations = [(name, hostvars[name].get("sondrel_migration")) for name in hosts]
    finished = [found for _, found in migrations if found and found["state"] == "finished"]
    return [line_of(name, found) for name, found in migrations] + [
        "%d of %d finished, %s" % (len(finished), len(migrations),
                                   size_text(sum(found["bytes"] for _, found in migrations if found)))]


def sondrel_failure(migration):
    """Why a migration is not finished: its state, and where its logs are."""
    parts = [line_of(migration["destination"], migration)]
    if migration["state"] != "unknown":
        parts.append("See %s, and %s.log for what the runs said" % (migration["log"], migration["session"]))
    return ". ".join(parts)


class FilterModule:
    def filters(self):
        return {"sondrel_summary": sondrel_summary, "sondrel_failure": sondrel_failure}
