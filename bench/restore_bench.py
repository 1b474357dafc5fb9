#!/usr/bin/python3
"""Measures sondrel-restore against tar and the database client; started by bench/restore. See README.md."""
import argparse
import contextlib
import json
import os
import random
import shutil
import statistics
import subprocess
import sys
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path[:0] = [f"{TOP}/restore", f"{TOP}/tests/restore", f"{TOP}/tests/e2e", f"{TOP}/bench"]

import destination  # noqa: E402  pylint: disable=wrong-import-position
import server_dumps  # noqa: E402  pylint: disable=wrong-import-position
import world  # noqa: E402  pylint: disable=wrong-import-position
from figure import Figure  # noqa: E402  pylint: disable=wrong-import-position
from made_session import PROGRAM, MadeSession, packed  # noqa: E402  pylint: disable=wrong-import-position

PAIRS = 3
MOST_MEMORY = 150


def timed(*command):
    """The seconds and the peak memory in MiB of a command, which must succeed."""
    started, peak = time.monotonic(), 0.0
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as process:
        while process.poll() is None:
            peak = max(peak, _peak_of(process.pid))
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(0.02)
    if process.returncode:
        sys.exit(f"{' '.join(command)} failed")
    return time.monotonic() - started, peak


def _peak_of(pid):
    """The peak of the program itself. The kernel's number at its end would include this process before exec."""
    try:
        with open(f"/proc/{pid}/status", encoding="ascii") as status:
            return next((int(line.split()[1]) / 1024 for line in status if line.startswith("VmHWM:")), 0.0)
    except OSError:
        return 0.0


def restore(session, command, *options):
    """The seconds and peak memory of a command of sondrel-restore."""
    session.write()
    return timed(PROGRAM, command, session.directory, *options)


def fill(directory, count, size):
    """Makes files of bytes that cannot be compressed."""
    source = random.Random(size)
    for number in range(count):
        place = f"{directory}/{number // 200:03}"
        os.makedirs(place, exist_ok=True)
        with open(f"{place}/{number}", "wb") as file:
            for start in range(0, size, 1 << 20):
                file.write(source.randbytes(min(1 << 20, size - start)))


def of_alice(session, name, root, count, size):
    """Adds a site whose archive has `count` files of `size` bytes; returns the path of the archive."""
    fill(root, count, size)
    for place, directories, files in os.walk(root):
        for each in [place, *(f"{place}/{one}" for one in directories + files)]:
            os.chown(each, 30001, 30001)
    content = session.content("site", f"content/sites/{name}.tar.gz", packed(root))
    client = session.tree.find("client")
    client = client if client is not None else session.add_client("alice", 30001)
    session.add_site(client, name, root, content)
    shutil.rmtree(root)
    return f"{session.directory}/archives/content/sites/{name}.tar.gz"


def sites(session, scale):
    """1000 sites of 20 files, and 100 databases."""
    for number in range(round(1000 * scale)):
        of_alice(session, f"site{number}.test", f"/srv/site{number}", 20, 4096)
    with server_dumps.server("mysql", "/mnt/mariadb") as server:
        names = [f"shop{number}" for number in range(round(100 * scale))]
        server.sql("".join(f"CREATE DATABASE {name}; CREATE TABLE {name}.t (id int, v text);"
                           f"INSERT INTO {name}.t VALUES (1, 'a'), (2, 'b');"
                           f"CREATE USER {name}@localhost IDENTIFIED BY 'x';"
                           f"GRANT ALL ON {name}.* TO {name}@localhost;" for name in names))
        server_dumps.dump_all(session)
        server.sql("".join(f"DROP DATABASE {name}; DROP USER {name}@localhost;" for name in names))
        first, peak = restore(session, "apply")
        second, _ = restore(session, "apply")
    return [Figure("apply", first, "s", most=300), Figure("second apply", second, "s", most=20),
            Figure("peak memory", peak, "MiB", most=MOST_MEMORY)]


def site(session, scale):
    """2 GB in files of 1 MiB, compared with tar."""
    archive = of_alice(session, "large.test", "/srv/large", round(2000 * scale), 1 << 20)
    ours, theirs, peaks = [], [], []
    for _ in range(PAIRS):
        os.sync()
        seconds, peak = restore(session, "apply")
        ours.append(seconds)
        peaks.append(peak)
        restore(session, "undo")
        os.makedirs("/srv/by-tar")
        os.sync()
        theirs.append(timed("tar", "--extract", "--gzip", "--same-owner", f"--file={archive}",
                            "--directory=/srv/by-tar")[0])
        shutil.rmtree("/srv/by-tar")
    return [Figure("speed, tar = 1:", statistics.median(theirs) / statistics.median(ours), "", least=0.8),
            Figure("apply", statistics.median(ours), "s"), Figure("peak memory", max(peaks), "MiB", most=MOST_MEMORY)]


def rows(session, scale):
    """A table of a million rows, compared with the server's own client and the same dump."""
    count, figures = round(1_000_000 * scale), []
    for kind in ("mysql", "postgresql"):
        with server_dumps.server(kind, f"/mnt/{kind}") as server:
            figures += _rows(session, kind, server, count)
    return figures


def _rows(session, kind, server, count):
    if kind == "mysql":
        server.sql("CREATE DATABASE shop; CREATE TABLE shop.t (id int PRIMARY KEY, v varchar(60), n int, KEY (n));"
                   "INSERT INTO shop.t SELECT seq, CONCAT('abc def ghi jkl mno ', seq), seq % 977 FROM"
                   f" shop.seq_1_to_{count}; CREATE USER shop@localhost IDENTIFIED BY 'x'; GRANT ALL ON shop.* TO"
                   " shop@localhost")
    else:
        server.sql("CREATE ROLE shop LOGIN;\nCREATE DATABASE shop OWNER shop;\n\\connect shop\n"
                   "CREATE TABLE t (id int PRIMARY KEY, v text, n int); CREATE INDEX ON t (n);"
                   "INSERT INTO t SELECT g, 'abc def ghi jkl mno ' || g,"
                   f" g % 977 FROM generate_series(1, {count}) g; ALTER TABLE t OWNER TO shop;")
    for element in list(session.tree.iterfind("unassigned/database")):
        element.getparent().remove(element)
    element = server_dumps.dump_all(session)["shop"]
    archive = f"{session.directory}/archives/{element.find('content').get('file')}"
    for other in [each for each in element.getparent() if each is not element]:
        other.getparent().remove(other)
    drop = "DROP DATABASE shop;\nDROP USER shop@localhost" if kind == "mysql" else "DROP DATABASE shop;\nDROP ROLE shop"
    ours, theirs, peaks = [], [], []
    for _ in range(PAIRS):
        server.sql(drop)
        seconds, peak = restore(session, "apply")
        ours.append(seconds)
        peaks.append(peak)
        restore(session, "undo")
        server.sql("CREATE DATABASE shop" + ("" if kind == "mysql" else ";\nCREATE ROLE shop;"))
        with subprocess.Popen(["gzip", "-dc", archive], stdout=subprocess.PIPE) as unpacked:
            theirs.append(_by_client(kind, server, unpacked.stdout))
        if kind == "mysql":
            server.sql("CREATE USER IF NOT EXISTS shop@localhost")
    ratio = statistics.median(theirs) / statistics.median(ours)
    return [Figure(f"{kind}, client = 1:", ratio, "", least=0.9), Figure(f"{kind}", statistics.median(ours), "s"),
            Figure("peak memory", max(peaks), "MiB", most=MOST_MEMORY)]


def _by_client(kind, server, stream):
    if kind == "mysql":
        command = ["mariadb", "--no-defaults", f"--socket={server.socket}", "--force", "shop"]
    else:
        command = ["setpriv", "--reuid=postgres", "--regid=postgres", "--clear-groups", f"{server.programs}/psql", "-X",
                   "-q", "-h", server.sockets, "-d", "shop", "-f", "-"]
    started = time.monotonic()
    subprocess.run(command, stdin=stream, check=False, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd="/")
    return time.monotonic() - started


def files(session, scale):
    """The memory for 100,000 small files."""
    of_alice(session, "many.test", "/srv/many", round(100_000 * scale), 100)
    first, peak = restore(session, "apply")
    second, again = restore(session, "apply")
    return [Figure("apply", first, "s"), Figure("second apply", second, "s"),
            Figure("peak memory", max(peak, again), "MiB", most=MOST_MEMORY)]


CASES = {"sites": sites, "site": site, "rows": rows, "files": files}


def main():
    parser = argparse.ArgumentParser(description="Measures sondrel-restore.", allow_abbrev=False)
    parser.add_argument("--scale", type=float, default=1.0, help="of the sizes; the figures mean nothing with another")
    parser.add_argument("--json", default="", metavar="FILE", help="all numbers")
    parser.add_argument("cases", nargs="*", metavar="CASE", help=f"of {', '.join(CASES)}; all of them without")
    options = parser.parse_args()
    if set(options.cases) - set(CASES):
        parser.error(f"the cases are {', '.join(CASES)}")
    found = {}
    print("| case | figures | load before |\n|---|---|---|")
    for name in options.cases or CASES:
        # Each case runs in a process and a private world of its own, like a test.
        reader, writer = os.pipe()
        if not (child := os.fork()):
            os.close(reader)
            world.enter()
            destination.make()
            load = os.getloadavg()[0]
            figures = CASES[name](MadeSession("/mnt/session"), options.scale)
            with os.fdopen(writer, "w") as out:
                json.dump([load, [[str(each), each.value] for each in figures]], out)
            os._exit(0)
        os.close(writer)
        with os.fdopen(reader) as result:
            text = result.read()
        if os.waitpid(child, 0)[1] or not text:
            sys.exit(f"{name} failed")
        load, figures = json.loads(text)
        found[name] = {"load_before": load, "figures": figures}
        print(f"| `{name}` | {'; '.join(each[0] for each in figures)} | {load:.1f} |", flush=True)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as out:
            json.dump(found, out, indent=1)


if __name__ == "__main__":
    main()
