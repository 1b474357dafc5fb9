"""The page that `report` writes about a session: its content, its escaping, and how a browser shows it."""
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest
from lxml import etree, html
from made_session import PROGRAM

from sondrel_restore import figures, report, verification
from sondrel_restore.journal import Journal
from sondrel_restore.kind import Finding, Item, RestoreError, State
from sondrel_restore.session import Session

EXAMPLES = Path(__file__).parents[2] / "docs" / "formats" / "examples"
ALLOWED_ELEMENTS = set("""html head meta title style body header main nav section h1 h2 h3 p span strong br bdi
    a ul li dl div dt dd table caption thead tbody tr th td svg rect""".split())
ALLOWED_ATTRIBUTES = set("""charset http-equiv content name lang class id href aria-label aria-labelledby
    aria-hidden scope viewbox preserveaspectratio width height""".split())
# The elements that name a file: archives, increments, and lists of vanished names.
FETCHED = ("content", "increment", "gone")
HOSTILE = ("""<script>alert(1)</script><img src=x onerror=alert(2)>"'>{{ 7*7 }}{% raw %}</style></title>&amp;"""
           "\u202egpj")


@pytest.fixture(name="session")
def a_session(tmp_path):
    """A session as sondrel-migrate leaves it, with files of the sizes in the example description."""
    tmp_path.chmod(0o700)
    (tmp_path / "migrate").mkdir(mode=0o700)
    shutil.copy(EXAMPLES / "dump.xml", tmp_path / "dump.xml")
    shutil.copy(EXAMPLES / "migrate-state.xml", tmp_path / "migrate" / "state.xml")
    for content in etree.parse(str(tmp_path / "dump.xml")).iter(*FETCHED):
        archive = tmp_path / "archives" / content.get("file")
        archive.parent.mkdir(mode=0o755, parents=True, exist_ok=True)
        archive.write_bytes(b"")
        os.truncate(archive, int(content.get("size")))
    (tmp_path / "archives").chmod(0o700)
    return tmp_path


def change(session, xpath, **attributes):
    """Changes an element of the description."""
    dump = etree.parse(str(session / "dump.xml"))
    element = dump.xpath(xpath)[0]
    text = attributes.pop("text", None)
    if text is not None:
        element.text = text
    for name, value in attributes.items():
        element.set(name, value)
    dump.write(str(session / "dump.xml"))


def page_of(session):
    """The page, as text and as a tree."""
    path = report.write_report(Session(str(session)))
    text = Path(path).read_text(encoding="utf-8")
    return text, html.fromstring(text)


def words(element):
    """The text of an element, with single spaces."""
    return " ".join(" ".join(element.itertext()).split())


def section(page, name):
    return page.xpath(f"//section[@aria-labelledby='{name}']")[0]


def test_counts_what_moved_and_how_much(session):
    page = page_of(session)[1]
    shown = {words(each.find("dt")): words(each.find("dd")) for each in page.xpath("//dl/div")}
    dump = etree.parse(str(session / "dump.xml"))
    sizes = sum(int(each.get("size")) for each in dump.iter(*FETCHED))
    assert shown["Sites"] == str(len(dump.findall(".//site")))
    assert shown["Databases"] == "2" and shown["Mailboxes"] == "1"
    assert shown["Fetched"] == figures.format_bytes(sizes)
    assert shown["Time of the steps"] == "7:41"


def test_names_an_archive_that_is_missing_or_cut_short(session):
    (session / "archives/content/sites/a.test.tar.gz").unlink()
    os.truncate(session / "archives/content/mailboxes/info=40a.test.tar.gz", 5)
    page = page_of(session)[1]
    rows = [words(row) for row in section(page, "moved").iter("tr") if "not here" in words(row)]
    assert len(rows) == 2
    assert rows[0].startswith("a.test site") and rows[1].startswith("info@a.test mailbox")
    assert "2 objects without the archive" in words(page.xpath("//p[starts-with(@class, 'verdict')]")[0])


def test_takes_archives_from_where_the_migration_put_them(session):
    state = etree.parse(str(session / "migrate" / "state.xml"))
    etree.SubElement(state.getroot(), "setting", name="dumps-dir").text = str(session / "elsewhere")
    state.write(str(session / "migrate" / "state.xml"))
    os.rename(session / "archives", session / "elsewhere")
    assert "not here" not in page_of(session)[0]


def test_shows_problems_by_severity_with_errors_first(session):
    change(session, "//problem[2]", severity="error", text="It is in no archive: dump again as root")
    shutil.copy(EXAMPLES / "execution-result.objects.xml", session / "migration.result")
    problems = section(page_of(session)[1], "problems")
    assert [words(each) for each in problems.iter("h3")] == [
        "Error (2): Missing from the result", "Warning (2): May not work on this host",
        "Info (1): For your information"]
    errors = [words(each) for each in problems.xpath(".//li[@class='error']")]
    assert errors == [
        "a.test It is in no archive: dump again as root",
        "a.example (migration.result) Cannot rename one to two: No space left on device"]


def test_says_that_there_are_more_problems_than_it_shows(session, monkeypatch):
    monkeypatch.setattr(report, "MOST_PROBLEMS", 1)
    problems = section(page_of(session)[1], "problems")
    assert len(problems.xpath(".//li[@class='warning']")) == 1
    assert "1 more are in dump.xml" in words(problems)


def test_shows_steps_with_bars_in_proportion(session):
    steps = section(page_of(session)[1], "steps")
    rows = {words(row.find("th")): row for row in steps.xpath(".//tbody/tr")}
    assert "7:38" in words(rows["dump"]) and "no space left on /home" in words(rows["dump"])
    assert rows["dump"].find(".//rect").get("width") == "100.0"
    assert rows["scout"].find(".//rect").get("width") == "0.5"
    assert "not ended" in words(rows["content"])


def test_knows_a_session_without_sondrel_migrate(session):
    shutil.rmtree(session / "migrate")
    shutil.copy(EXAMPLES / "dumping-status.finished.xml", session / "dumping-status.xml")
    assert "dump finished" in words(section(page_of(session)[1], "steps"))


def test_tells_what_was_restored_and_what_was_broken_off(session):
    journal = Journal(session / "restore")
    with journal.locked():
        for number in (1, 2):
            item = Item("mailbox", f"m{number}@a.test", State.MAKE, "")
            journal.begin(item)
        journal.done(item, {})
    restored = section(page_of(session)[1], "restore")
    assert [words(cell) for cell in restored.xpath(".//tbody/tr/*")] == ["mailbox", "1", "1"]
    assert [words(each) for each in restored.iter("li")] == ["mailbox:m1@a.test"]


def test_shows_the_last_verification_with_differences_first(session):
    (session / "restore").mkdir(mode=0o700)
    verification.save(session / "restore", [
        Finding("nginx:a.test", "https://a.test/", True),
        Finding("nginx:b.test", "https://b.test/", True),
        Finding("nginx:b.test", "title", False, "is \"Error\" here, was \"Shop\" there")])
    page = page_of(session)[1]
    rows = [words(row) for row in section(page, "verification").xpath(".//tbody/tr")]
    assert rows == ['nginx:b.test 2 Differs title: is "Error" here, was "Shop" there', "nginx:a.test 1 Same"]
    assert "1 object differs here" in words(page.xpath("//p[starts-with(@class, 'verdict')]")[0])


def test_refuses_a_verification_that_is_damaged(session):
    (session / "restore").mkdir(mode=0o700)
    (session / "restore" / verification.FILE_NAME).write_bytes(b'{"findings": [{}]}')
    with pytest.raises(RestoreError, match="run verify again"):
        page_of(session)


def test_is_written_by_the_command(session):
    ran = subprocess.run([PROGRAM, "report", str(session)], check=True, capture_output=True, text=True)
    assert ran.stdout == f"{session}/report.html\n"
    assert "info@a.test" in (session / "report.html").read_text(encoding="utf-8")


def test_is_the_caller_s_alone_and_replaces_a_link(session):
    target = session / "target"
    target.write_text("untouched")
    (session / report.FILE_NAME).symlink_to(target)
    page_of(session)
    about = os.lstat(session / report.FILE_NAME)
    assert (about.st_mode, about.st_uid) == (0o100600, os.geteuid())
    assert target.read_text() == "untouched"


def hostile_session(session):
    """Makes all texts of the description that a page shows an attacker's."""
    for xpath in ("//domain", "//database", "//client", "//unassigned/database"):
        change(session, xpath, name=HOSTILE)
    change(session, "//mailbox", address=HOSTILE)
    change(session, "//problem", object=HOSTILE, text=HOSTILE)
    change(session, "//server", distribution=HOSTILE)
    change(session, "/dump", host=HOSTILE)
    change(session, "//domain/name[2]", text=HOSTILE)


def test_shows_hostile_names_as_text(session):
    hostile_session(session)
    text, page = page_of(session)
    elements = [each for each in page.iter() if isinstance(each.tag, str)]
    assert {each.tag for each in elements} <= ALLOWED_ELEMENTS
    assert {name for each in elements for name in each.attrib} <= ALLOWED_ATTRIBUTES
    assert all(each.get("href").startswith("#") for each in page.iter("a"))
    assert HOSTILE.replace("\u202e", "\\u202e") in words(section(page, "moved"))
    assert "\u202e" not in text and "<script" not in text
    assert page.findtext(".//title").startswith("Migration of <script>")


def test_names_nothing_outside_of_itself(session):
    text = page_of(session)[0]
    assert not re.search(r"(?i)\b(?:src|srcset|action|data|poster)\s*=|url\(|@import|//[a-z0-9-]+\.", text)


def test_reads_no_other_file_for_a_result(session):
    (session / "secret").write_text("known to root only", encoding="utf-8")
    (session / "migration.result").write_text(
        f'<!DOCTYPE execution-result [<!ENTITY x SYSTEM "{(session / "secret").as_uri()}"><!ENTITY y "doubled">]>'
        '<execution-result status="error"><message code="A" id="1" severity="error"><description>&x;&y;&y;'
        '</description></message></execution-result>', encoding="utf-8")
    text = page_of(session)[0]
    assert "known to root only" not in text and "doubled" not in text


def contrast(one, other):
    """The contrast ratio of two colours, as the guidelines for accessible web pages define it."""
    def luminance(colour):
        parts = [int(colour[at:at + 2], 16) / 255 for at in (1, 3, 5)]
        linear = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
        return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]
    darker, lighter = sorted(map(luminance, (one, other)))
    return (lighter + 0.05) / (darker + 0.05)


def test_can_be_read_in_all_its_colours():
    style = (report.TEMPLATES / "report.css").read_text(encoding="utf-8")
    themes = re.findall(r":root \{(.*?)\}", style, re.S)
    assert len(themes) == 3
    for theme in themes:
        colours = dict(re.findall(r"--(\w+): (#\w{6})", theme))
        for ink in ("ink", "soft", "error", "warning", "info", "good"):
            for ground in ("paper", "panel"):
                assert contrast(colours[ink], colours[ground]) >= 4.5, (ink, ground, theme)


def browse(place, page, *options):
    """The browser's document after loading a page, and its error messages."""
    ran = subprocess.run(
        ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
         "--disable-background-networking", "--allow-file-access-from-files", "--enable-logging=stderr",
         f"--user-data-dir={place}/browser", "--virtual-time-budget=5000", "--dump-dom", *options,
         page.as_uri()],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=90, check=True, text=True,
        env={"PATH": os.environ["PATH"], "HOME": str(place)})
    return ran.stdout, ran.stderr


# Measures the page at the width of a phone, 360 points, and whether its own style is applied.
MEASURE = """<!DOCTYPE html><body><iframe src="report.html" style="width:360px;height:640px;border:0"></iframe>
<script>onload = () => {
  const page = document.querySelector("iframe").contentDocument, root = page.documentElement;
  document.body.textContent = JSON.stringify({
    overflow: root.scrollWidth - root.clientWidth, scripts: page.scripts.length, title: page.title,
    columns: page.defaultView.getComputedStyle(page.querySelector(".figures")).gridTemplateColumns.split(" ").length,
    images: page.images.length});
}</script>"""


def test_fits_a_phone_in_a_browser_and_runs_nothing_even_if_a_script_got_in(session, tmp_path):
    hostile_session(session)
    text = page_of(session)[0]
    # As if one text had not been escaped: the policy alone must block it.
    assert "</main>" in text
    (session / "report.html").write_text(
        text.replace("</main>", "<script>document.title = 'taken'</script><img src='x' onerror=\"document.title="
                                "'taken'\"><p style='width:3000px'>wide</p></main>"), encoding="utf-8")
    (session / "measure.html").write_text(MEASURE, encoding="utf-8")
    shown, complaints = browse(tmp_path, session / "measure.html")
    body = html.fromstring(shown).find("body").text_content()
    assert '"overflow":0' in body and '"columns":2' in body, (body, complaints)
    assert '"title":"Migration of <script>alert(1)' in body
    assert complaints.count("Refused to") + complaints.count("violates the following Content Security Policy") >= 2
