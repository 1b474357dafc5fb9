"""Database servers of the tests: a new one has nothing of what another test has done with its own."""
import pytest

import source_databases
from source_databases import MariaDb, PostgreSql

pytestmark = pytest.mark.release_only


@pytest.mark.parametrize("kind, names", [(MariaDb, "SHOW DATABASES"), (PostgreSql, "SELECT datname FROM pg_database")])
def test_begin_with_what_the_first_of_their_kind_began_with(kind, names, monkeypatch):
    source_databases.hide_installed()
    monkeypatch.setenv(source_databases.KEPT, "/mnt/kept")
    seen = []
    for directory in ("/mnt/first", "/mnt/second"):
        with kind(directory) as server:
            seen.append(server.sql(f"{names};"))
            server.sql("CREATE DATABASE shop;")
            assert b"shop" in server.sql(f"{names};")
    assert seen[0] == seen[1] and b"shop" not in seen[0]
