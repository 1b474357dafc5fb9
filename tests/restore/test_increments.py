"""Increments: they are applied together with their archive, and must not do more than an archive could."""
import gzip
import os
import tarfile

import pytest
from destination import snapshot
from lxml import etree
from made_session import made_of
from test_files import directory, file, link, site

SHOP = "./home/alice/shop"
FILE = "content/sites/shop.test.tar.gz"


def part(session, tag, name, content):
    """Puts a file into the session; returns its element."""
    element = etree.fromstring(session.content("site", name, content))
    element.tag = tag
    del element.attrib["kind"]
    return element


def followed(session, number, members, gone=()):
    """Adds an increment with these members to the site's archive. `gone` is its list of vanished names."""
    content = session.tree.find(".//domain/content")
    increment = part(session, "increment", FILE.replace(".tar", f"=.{number}.tar"), made_of(*members))
    if gone:
        names = b"".join(name + b"\0" for name in gone)
        increment.append(part(session, "gone", FILE.replace(".tar", f"=.{number}.gone"), gzip.compress(names)))
    content.append(increment)
    session.tree.set("version", "2.1")


def first():
    """The members of the whole archive."""
    return (directory(SHOP), directory(f"{SHOP}/old"), file(f"{SHOP}/old/a\nb"), file(f"{SHOP}/page", b"first"),
            file(f"{SHOP}/turns", b"a file"), directory(f"{SHOP}/becomes-a-link"),
            file(f"{SHOP}/becomes-a-link/inside"),
            file(f"{SHOP}/one", b"linked"), link(f"{SHOP}/two", f"{SHOP}/one", tarfile.LNKTYPE),
            file(f"{SHOP}/untouched", b"x" * 3000))


def second(session):
    """A first increment: changes, a directory that is gone, other types, and one more name of a file."""
    followed(session, 1, [
        directory(SHOP, mtime=1700000100), file(f"{SHOP}/page", b"second"), directory(f"{SHOP}/turns"),
        file(f"{SHOP}/turns/inside", b"new"), link(f"{SHOP}/becomes-a-link", "turns"),
        file(f"{SHOP}/one", b"linked"), link(f"{SHOP}/two", f"{SHOP}/one", tarfile.LNKTYPE),
        link(f"{SHOP}/three", f"{SHOP}/one", tarfile.LNKTYPE)],
        [os.fsencode(f"{SHOP}/{name}") for name in (
            "turns", "old/a\nb", "old", "becomes-a-link/inside", "becomes-a-link", "never there")])


def third(session):
    """A second increment: what was gone is back, and another file is gone."""
    followed(session, 2, [directory(SHOP), directory(f"{SHOP}/old"), file(f"{SHOP}/old/again", b"again")],
             [os.fsencode(f"{SHOP}/page")])


def contents():
    """{path: content, target, or None for a directory} of the site here."""
    found = {}
    for place, directories, names in os.walk("/home/alice/shop"):
        for path in (f"{place}/{name}" for name in directories + names):
            name = path.removeprefix("/home/alice/shop/")
            if os.path.islink(path):
                found[name] = os.readlink(path)
            elif os.path.isdir(path):
                found[name] = None
            else:
                with open(path, "rb") as opened:
                    found[name] = opened.read()
    return found


AFTER_SECOND = {
    "page": b"second", "turns": None, "turns/inside": b"new", "becomes-a-link": "turns", "one": b"linked",
    "two": b"linked", "three": b"linked", "untouched": b"x" * 3000}
AFTER_THIRD = {**AFTER_SECOND, "old": None, "old/again": b"again"}
del AFTER_THIRD["page"]


def test_makes_what_base_and_increments_are_together(session):
    site(session, *first())
    second(session)
    third(session)
    session.run("plan", check=0)
    session.run("apply", check=0)
    assert contents() == AFTER_THIRD
    assert os.stat("/home/alice/shop/one").st_nlink == 3
    assert "0 changed" in session.run("apply", check=0).stdout
    assert "same" in session.run("verify", check=0).stdout


def test_applies_each_increment_as_a_difference_and_keeps_what_was_changed_here(session):
    before = snapshot()
    site(session, *first())
    session.run("apply", check=0)
    untouched = os.stat("/home/alice/shop/untouched")
    second(session)
    assert "0 changed" not in session.run("apply", check=0).stdout
    assert contents() == AFTER_SECOND
    assert os.stat("/home/alice/shop/untouched").st_ino == untouched.st_ino
    with open("/home/alice/shop/page", "wb") as page:
        page.write(b"changed here")
    third(session)
    assert "/home/alice/shop/page" in session.run("apply", check=0).stdout
    assert contents() == {**AFTER_THIRD, "page": b"changed here"}
    os.unlink("/home/alice/shop/page")
    session.run("undo", check=0)
    assert snapshot() == before


def test_names_as_gone_remove_nothing_elsewhere_and_nothing_behind_links(session):
    site(session, *first())
    session.run("apply", check=0)
    os.makedirs("/srv/other")
    with open("/srv/other/file", "wb") as other:
        other.write(b"other")
    os.mkdir("/home/alice/shop/mine")
    with open("/home/alice/shop/mine/file", "wb") as mine:
        mine.write(b"mine")
    os.symlink("/srv/other", "/home/alice/shop/link")
    followed(session, 1, [directory(SHOP)], [
        b"./srv/other/file", b"/srv/other/file", b"./home/alice/shop/../../../srv/other/file", b"../srv/other/file",
        b"./home/alice/shop/link/file", b"./home/alice/shop/mine/file", b"./home/alice/shop/mine", b"./home/alice",
        b"./etc/passwd", b"", b"."])
    before = snapshot("/srv", "/home", "/etc")
    session.run("apply", check=0)
    assert snapshot("/srv", "/home", "/etc") == before


def test_takes_no_members_of_an_increment_that_an_archive_could_not_have(session):
    site(session, *first())
    followed(session, 1, [
        file("./etc/cron.d/evil", b"* * * * * root true"), file("./srv/elsewhere"), file(f"{SHOP}/../up"),
        file(f"{SHOP}/setuid", mode=0o4755), link(f"{SHOP}/passwd", "./etc/passwd", tarfile.LNKTYPE)])
    session.run("apply", check=0)
    assert not any(map(os.path.lexists, ("/etc/cron.d/evil", "/srv/elsewhere", "/home/alice/up",
                                         "/home/alice/shop/passwd")))
    assert os.stat("/home/alice/shop/setuid").st_mode & 0o7777 == 0o755


@pytest.mark.parametrize("name", [FILE, FILE.replace(".tar", "=.1.tar"), FILE.replace(".tar", "=.1.gone")])
@pytest.mark.parametrize("damage", ["missing", "other", "cut"])
def test_unpacks_nothing_where_a_part_is_not_the_fetched_one(session, name, damage):
    site(session, *first())
    second(session)
    path = f"{session.directory}/archives/{name}"
    if damage == "missing":
        os.unlink(path)
    else:
        with open(path, "r+b") as archive:
            if damage == "cut":
                archive.truncate(os.path.getsize(path) - 5)
            else:
                archive.write(b"#")
    done = session.run("apply", check=1)
    assert name in done.stderr
    assert "--from=dump --full" in done.stderr
    assert not os.path.exists("/home/alice/shop/page")


def test_refuses_a_list_that_ends_in_the_middle_of_a_name(session):
    site(session, *first())
    second(session)
    gone = session.tree.find(".//gone")
    text = session.content("site", gone.get("file"), gzip.compress(b"./home/alice/shop/pa"))
    gone.attrib.update({key: value for key, value in etree.fromstring(text).attrib.items() if key != "kind"})
    assert "ends in the middle" in session.run("apply", check=1).stderr


def test_counts_increments_in_the_report(session):
    site(session, *first())
    second(session)
    session.run("report", check=0)
    os.unlink(f"{session.directory}/archives/{FILE.replace('.tar', '=.1.tar')}")
    with open(f"{session.directory}/report.html", encoding="utf-8") as page:
        whole = page.read()
    session.run("report", check=0)
    with open(f"{session.directory}/report.html", encoding="utf-8") as page:
        assert page.read() != whole
