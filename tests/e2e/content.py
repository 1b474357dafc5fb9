"""An agent with a content list, for the tests of --get-content and its failures."""
import hashlib
import os
from xml.sax.saxutils import escape

import pytest

from source_host import deployed_agent


def each_way(name, table, compared, slow=()):
    """Parametrizes `name` with each value of a table: {id: value}.

    Each value is tested with the shipped configuration. Those whose ids are in `compared` are tested again with
    CONTENT_VERIFY (see the fixture content_verify): for the others that would be the same run twice. Those in `slow`
    take long.
    """
    cases = [pytest.param(way, value, id=f"{way}-{key}", marks=[pytest.mark.slow] * (key in slow))
             for key, value in table.items() for way in ("unverified", "verified")[:2 if key in compared else 1]]

    def decorate(test):
        parametrized = pytest.mark.parametrize(f"content_verify, {name}", cases, indirect=["content_verify"])
        return pytest.mark.usefixtures("content_verify")(parametrized(test))
    return decorate


def md5(content):
    return hashlib.md5(content).hexdigest()


def content_list(entries, unpacked=None):
    """The document for [(name, content or None, attributes)]; the given attributes replace the computed ones."""
    total = sum(len(content or b"") for _, content, _ in entries)
    files = []
    for name, content, attributes in entries:
        given = {"size": len(content or b""), "md5sum": md5(content or b""), **attributes}
        text = "".join(f' {key}="{value}"' for key, value in given.items() if value is not None)
        files.append(f"<file{text}>{escape(name, {chr(13): '&#13;'})}</file>")
    unpacked = total if unpacked is None else unpacked
    return f'<contentlist size="{total}" unpacked="{unpacked}">{"".join(files)}</contentlist>'


def offered(login, *entries, unpacked=None):
    """Installs an agent on the source host that offers these entries: (name, content[, attributes]).

    An entry whose content is None is listed, but its file does not exist.
    """
    entries = [(*entry, {})[:3] for entry in entries]
    files = {name: content for name, content, _ in entries if content is not None}
    document = content_list(entries, unpacked)
    deployed_agent(login, f'[ "$*" = --get-content-list ] && cat "${{0%/*}}/list.xml"\n',
                   {"list.xml": document, **files})


def left(login):
    """Names of the content files that are still on the source host."""
    found = []
    for parent, _, names in os.walk(login.agent_dir):
        found += [os.path.relpath(os.path.join(parent, name), login.agent_dir) for name in names]
    return sorted(set(found) - {"agent", "list.xml"})
