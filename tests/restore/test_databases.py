"""Databases: loaded by accounts that have rights on them alone, renewed, verified and undone."""
import contextlib
import os
import re
import shutil
import subprocess

import pytest
import server_dumps
import world
from made_session import PROGRAM

MYSQL = r"""
CREATE DATABASE shop; USE shop;
CREATE TABLE t (id int primary key auto_increment, v varchar(50), b blob) CHARSET utf8mb4;
INSERT INTO t (v, b) VALUES ('a\n\'x),(', x'00ff'), (NULL, NULL), ('grün', NULL);
CREATE TABLE empty (id int) DATA DIRECTORY='/mnt/elsewhere' COMMENT=' DATA DIRECTORY=';
CREATE VIEW names AS SELECT v FROM t;
CREATE USER shop@localhost IDENTIFIED BY 'right';
CREATE USER 'ed'@'%' IDENTIFIED BY 'x' REQUIRE SSL WITH MAX_QUERIES_PER_HOUR 5 PASSWORD EXPIRE NEVER;
CREATE ROLE team; GRANT SELECT ON shop.t TO team; GRANT team TO shop@localhost;
SET DEFAULT ROLE team FOR shop@localhost;
GRANT ALL ON shop.* TO shop@localhost; GRANT SELECT (v) ON shop.t TO 'ed'@'%';
CREATE DEFINER=shop@localhost VIEW mine AS SELECT * FROM names;
DELIMITER ;;
CREATE PROCEDURE many() BEGIN SELECT 1; SELECT 2; END;;
CREATE DEFINER=shop@localhost FUNCTION twice(a int) RETURNS int DETERMINISTIC RETURN a*2;;
CREATE TRIGGER noted BEFORE INSERT ON t FOR EACH ROW BEGIN SET NEW.v = CONCAT('<', NEW.v); END;;
CREATE EVENT nightly ON SCHEDULE EVERY 1 DAY DO BEGIN DELETE FROM t WHERE id > 100; END;;
DELIMITER ;
"""
DROP_MYSQL = "DROP DATABASE shop; DROP USER shop@localhost, 'ed'@'%'; DROP ROLE team;"

POSTGRESQL = r"""
CREATE ROLE shop LOGIN PASSWORD 'right'; CREATE ROLE readers LOGIN; ALTER ROLE shop SET search_path TO "a b", public;
CREATE DATABASE shop OWNER shop; ALTER DATABASE shop SET work_mem TO '5MB';
ALTER ROLE readers IN DATABASE shop SET search_path TO public;
REVOKE CONNECT ON DATABASE shop FROM PUBLIC; GRANT CONNECT ON DATABASE shop TO readers;
GRANT readers TO shop WITH ADMIN OPTION;
COMMENT ON DATABASE shop IS 'hello';
\connect shop
CREATE TABLE t (id serial primary key, v text); INSERT INTO t (v) SELECT E'x\\y\n' || i FROM generate_series(1, 3) i;
ALTER TABLE t OWNER TO shop;
CREATE TABLE "Empty one" (id int);
CREATE EXTENSION citext; CREATE SCHEMA s AUTHORIZATION shop; CREATE EXTENSION pg_trgm SCHEMA s;
CREATE TABLE s.names (n citext); INSERT INTO s.names VALUES ('A'); ALTER TABLE s.names OWNER TO readers;
CREATE VIEW v AS SELECT v FROM t; GRANT SELECT ON v TO readers; GRANT SELECT (id) ON t TO readers;
CREATE FUNCTION f(a int) RETURNS text LANGUAGE plpgsql SECURITY DEFINER AS $$
BEGIN
  IF a > 5 THEN  -- a line as those that are taken out
ALTER TABLE t OWNER TO postgres;
  END IF;
  RETURN session_user || ' ' || current_user;
END $$;
ALTER FUNCTION f(int) OWNER TO shop; REVOKE ALL ON FUNCTION f FROM PUBLIC; GRANT EXECUTE ON FUNCTION f TO readers;
CREATE MATERIALIZED VIEW mv AS SELECT count(*) FROM t;
CREATE FUNCTION mark() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN NEW.v := '<' || NEW.v; RETURN NEW; END $$;
CREATE TRIGGER mark BEFORE INSERT ON t FOR EACH ROW EXECUTE FUNCTION mark();
SELECT lo_from_bytea(4711, '\xcafe');
"""
DROP_POSTGRESQL = "DROP DATABASE shop; DROP ROLE shop; DROP ROLE readers;"


def told(server, sql, database=None):
    return server.sql(sql, database).decode().strip()


@pytest.fixture
def mariadb():
    with server_dumps.server("mysql", "/mnt/mariadb") as server:
        yield server


@pytest.fixture
def postgresql():
    with server_dumps.server("postgresql", "/mnt/postgresql") as server:
        yield server


def check_that_room_is_asked_for(session, place):
    """The plan reports if a file system has no room for the databases."""
    os.makedirs(place, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k", "own", place], check=True)
    assert f"the file system of {place} has " in session.run("plan", check=3).stdout
    subprocess.run(["umount", place], check=True)


def mysql_state(server):
    """Accounts, rights and databases, and the rows and definitions of databases that no test restores."""
    return told(server, """
        SELECT User, Host, plugin, authentication_string, is_role, default_role FROM mysql.user ORDER BY 1, 2;
        SELECT * FROM mysql.global_priv WHERE User NOT IN ('root', 'mariadb.sys') ORDER BY 1, 2;
        SELECT Host, Db, User, Select_priv, Grant_priv FROM mysql.db ORDER BY 1, 2, 3;
        SELECT Host, Db, User, Table_name, Table_priv, Column_priv FROM mysql.tables_priv ORDER BY 1, 2, 3, 4;
        SELECT Host, User, Role, Admin_option FROM mysql.roles_mapping ORDER BY 1, 2, 3;
        SELECT schema_name FROM information_schema.schemata ORDER BY 1;
        SELECT routine_schema, routine_name FROM information_schema.routines WHERE routine_schema <> 'sys'
            ORDER BY 1, 2;
        SELECT * FROM mysql.plugin; SELECT * FROM mysql.func; SELECT * FROM mysql.servers""")


def test_makes_a_database_of_mariadb_with_accounts_and_rights(session, mariadb):
    os.makedirs("/mnt/elsewhere")
    shutil.chown("/mnt/elsewhere", "mysql")
    mariadb.sql(MYSQL)
    shown = "SHOW GRANTS FOR shop@localhost; SHOW GRANTS FOR 'ed'@'%'; SHOW GRANTS FOR team"
    grants = told(mariadb, shown)
    server_dumps.dump_all(session)
    mariadb.sql(DROP_MYSQL)
    before = mysql_state(mariadb)
    check_that_room_is_asked_for(session, "/var/lib/mysql")
    done = session.run("apply", check=0)
    assert told(mariadb, shown) == grants
    assert server_dumps.as_shop(mariadb, "SELECT v FROM t ORDER BY id").stdout == "a\\n'x),(\nNULL\ngrün\n"
    assert server_dumps.as_shop(mariadb, "SELECT twice(4), (SELECT COUNT(*) FROM mine)").stdout == "8\t3\n"
    definers = """SELECT definer FROM information_schema.views WHERE table_schema = 'shop'
        UNION ALL SELECT definer FROM information_schema.routines WHERE routine_schema = 'shop'
        UNION ALL SELECT definer FROM information_schema.triggers WHERE trigger_schema = 'shop'
        UNION ALL SELECT definer FROM information_schema.events WHERE event_schema = 'shop'"""
    assert told(mariadb, definers).split("\n") == ["shop@localhost"] * 6
    assert re.search(r"run as shop@localhost here: .*trigger noted \(root@localhost\)", done.stdout + done.stderr)
    written = server_dumps.as_shop(mariadb, "INSERT INTO t (v) VALUES ('new'); SELECT v FROM t WHERE id = 4")
    assert written.stdout == "<new\n"
    mariadb.sql("DELETE FROM shop.t WHERE id = 4; ALTER TABLE shop.t AUTO_INCREMENT = 4")
    assert "COMMENT=' DATA DIRECTORY='" in told(mariadb, "SHOW CREATE TABLE shop.empty")
    assert not os.listdir("/mnt/elsewhere/shop")
    assert "0 changed" in session.run("apply", check=0).stdout
    verified = session.run("verify", check=0)
    assert "2 tables, 3 rows" in verified.stdout
    session.run("undo", check=0)
    assert mysql_state(mariadb) == before


def test_makes_a_database_of_postgresql_with_roles_and_rights(session, postgresql):
    postgresql.sql(POSTGRESQL)
    server_dumps.dump_all(session)
    postgresql.sql(DROP_POSTGRESQL)
    check_that_room_is_asked_for(session, "/var/lib/postgresql")
    connections = "SELECT sum(sessions) FROM pg_stat_database"
    before = int(told(postgresql, connections))
    done = session.run("apply", check=0)
    made = int(told(postgresql, connections)) - before
    assert made <= 6, f"{made} connections for one database, each of them by a program that is started"
    rows = server_dumps.as_shop(postgresql, "SELECT v FROM public.t ORDER BY id")
    assert rows.stdout == "x\\y\n1\nx\\y\n2\nx\\y\n3\n"
    assert told(postgresql, "SELECT f(1)", "shop") == "postgres shop"
    assert "OWNER TO postgres" in told(postgresql, "SELECT prosrc FROM pg_proc WHERE proname = 'f'", "shop")
    owners = """SELECT relname || ' ' || pg_get_userbyid(relowner) FROM pg_class WHERE oid >= 16384 AND relkind IN
        ('r', 'v', 'm', 'S') ORDER BY 1"""
    assert told(postgresql, owners, "shop").split("\n") == [
        "Empty one shop", "mv shop", "names readers", "t shop", "t_id_seq shop", "v shop"]
    rights = """SELECT datname, datacl FROM pg_database WHERE datname = 'shop';
        SELECT relacl FROM pg_class WHERE relname = 'v'; SELECT proacl FROM pg_proc WHERE proname = 'f';
        SELECT attacl FROM pg_attribute WHERE attrelid = 'public.t'::regclass AND attname = 'id';
        SELECT rolname, rolcanlogin, rolsuper, rolcreatedb FROM pg_roles WHERE rolname IN ('shop', 'readers')
            ORDER BY 1;
        SELECT setdatabase > 0, setrole > 0, setconfig FROM pg_db_role_setting ORDER BY 3;
        SELECT extname FROM pg_extension ORDER BY 1; SELECT lo_get(4711); SELECT count FROM mv"""
    # Since PostgreSQL 17 an owner also has the right MAINTAIN on a table.
    assert told(postgresql, rights, "shop").replace("arwdDxtm/", "arwdDxt/").split("\n") == [
        "shop|{shop=CTc/shop,=T/shop,readers=c/shop}",
        "{shop=arwdDxt/shop,readers=r/shop}", "{shop=X/shop,readers=X/shop}",
        "{readers=r/shop}", "readers|t|f|f", "shop|t|f|f", "f|t|{\"search_path=\\\"a b\\\", public\"}",
        "t|t|{search_path=public}", "t|f|{work_mem=5MB}", "citext", "pg_trgm", "plpgsql", "\\xcafe", "3"]
    assert "5 objects that belonged to postgres there belong to shop here" in done.stdout + done.stderr
    assert "0 changed" in session.run("apply", check=0).stdout
    assert "3 tables, 4 rows" in session.run("verify", check=0).stdout
    session.run("undo", check=0)
    assert told(postgresql, ALL_OF_POSTGRESQL).split("\n") == ["postgres", "postgres", "template0", "template1"]


LEFT = {
    "mysql": "SELECT User FROM mysql.user WHERE User LIKE 'sondrel%' UNION SELECT User FROM"
             " information_schema.processlist WHERE User LIKE 'sondrel%'",
    "postgresql": "SELECT rolname FROM pg_roles WHERE rolname LIKE 'sondrel%' UNION SELECT datname FROM pg_database"
                  " WHERE datname LIKE 'sondrel%'",
}


def renewal(session, server, kind, databases):
    """A later fetch renews what is unchanged here. What was changed here is kept, until --replace decides."""
    table, database = ("shop.t", None) if kind == "mysql" else ("t", "shop")

    def rows():
        return told(server, f"SELECT COUNT(*) FROM {table}", database)

    element = databases["shop"]
    sql = server_dumps.sql_of(session, element)
    row, new = {"mysql": (b"(1,'a\\n", b"(4,'more',NULL),\n"), "postgresql": (b"1\tx\\\\y", b"4\tmore\n")}[kind]
    assert row in sql
    session.run("apply", check=0)
    server_dumps.put(session, element, sql.replace(row, new + row, 1))
    assert "1 changed" in session.run("apply", check=0).stdout
    assert rows() == "4"
    server.sql(f"DELETE FROM {table} WHERE id = 4", database)
    assert "0 changed" in session.run("apply", check=0).stdout, "it was loaded from the same dump"
    different = session.run("verify")
    assert different.returncode != 0 and "has 3 rows and not 4" in different.stdout
    server_dumps.put(session, element, sql)
    kept = session.run("apply")
    assert "0 changed" in kept.stdout and "was changed here" in kept.stdout + kept.stderr and rows() == "3"
    undone = session.run("undo")
    assert "remove it yourself" in undone.stdout + undone.stderr and rows() == "3"
    session.run("apply", f"--replace={kind}:shop", check=0)
    session.run("undo", check=0)


def killed(session, server, kind, element):
    """After a kill in the middle of the load nothing is left running, and a rerun completes the load."""
    sql = server_dumps.sql_of(session, element)
    mark, gate, waiting = {
        "mysql": (b"UNLOCK TABLES;", b"SELECT SLEEP(1000);\n",
                  "SELECT COUNT(*) FROM information_schema.processlist WHERE info LIKE 'SELECT SLEEP(1000)%'"),
        "postgresql": (b"-- Data for Name: t;", b"\nSELECT pg_catalog.pg_sleep(1000);\n",
                       "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'"),
    }[kind]
    server_dumps.put(session, element, sql.replace(mark, gate + mark, 1))
    session.write()
    with subprocess.Popen([PROGRAM, "apply", session.directory], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL) as run:
        def is_waiting():
            return told(server, waiting) == "1"

        world.wait_until(is_waiting, "the load to come to the gate", 60)
        run.kill()
    server_dumps.put(session, element, sql)
    assert "1 changed" in session.run("apply", check=0).stdout
    assert told(server, LEFT[kind]) == ""
    session.run("verify", check=0)
    session.run("undo", check=0)


def cut(session, server, element):
    """A truncated dump, or one with another sum than the description's, is refused, and nothing is left of it."""
    sql = server_dumps.sql_of(session, element)
    kind = element.get("kind")
    server_dumps.put(session, element, sql[:len(sql) // 2])
    failed = session.run("apply")
    assert failed.returncode == 1 and "not whole" in failed.stderr + failed.stdout
    assert told(server, LEFT[kind]) == ""
    server_dumps.put(session, element, sql)
    path = f"{session.directory}/archives/{element.find('content').get('file')}"
    with open(path, "r+b") as file:
        file.seek(20)
        file.write(b"xxxx")
    failed = session.run("apply")
    assert failed.returncode == 1 and "by its sum" in failed.stderr + failed.stdout
    # What follows the end mark of the dump is ignored.
    server_dumps.put(session, element, sql + b"-- behind the end\n" * 500_000)
    session.run("apply", check=0)
    session.run("undo", check=0)


PLAIN_MYSQL = MYSQL.replace(" DATA DIRECTORY='/mnt/elsewhere'", "")
ALL_OF_POSTGRESQL = ("SELECT datname FROM pg_database UNION ALL SELECT rolname FROM pg_roles WHERE rolname !~ '^pg_'"
                     " ORDER BY 1")


def test_renews_a_database_of_mariadb(session, mariadb):
    mariadb.sql(PLAIN_MYSQL)
    databases = server_dumps.dump_all(session)
    mariadb.sql(DROP_MYSQL)
    before = mysql_state(mariadb)
    renewal(session, mariadb, "mysql", databases)
    assert mysql_state(mariadb) == before


def test_old_rows_of_a_versioned_table_move_and_count(session, mariadb):
    mariadb.sql("""CREATE DATABASE shop; CREATE TABLE shop.prices (id INT PRIMARY KEY, v INT) WITH SYSTEM VERSIONING;
        INSERT INTO shop.prices VALUES (1, 10), (2, 20), (3, 30); UPDATE shop.prices SET v = 11 WHERE id = 1;
        DELETE FROM shop.prices WHERE id = 2""")
    history = "SELECT id, v, row_start, row_end FROM shop.prices FOR SYSTEM_TIME ALL ORDER BY 1, 2"
    before = told(mariadb, history)
    server_dumps.dump_all(session)
    mariadb.sql("DROP DATABASE shop")
    session.run("apply", check=0)
    assert told(mariadb, history) == before
    assert "1 tables, 4 rows" in session.run("verify", check=0).stdout
    session.run("undo", check=0)


def test_completes_a_database_of_mariadb_after_a_kill(session, mariadb):
    mariadb.sql(PLAIN_MYSQL)
    databases = server_dumps.dump_all(session)
    mariadb.sql(DROP_MYSQL)
    before = mysql_state(mariadb)
    killed(session, mariadb, "mysql", databases["shop"])
    cut(session, mariadb, databases["shop"])
    assert mysql_state(mariadb) == before


def test_renews_a_database_of_postgresql(session, postgresql):
    postgresql.sql(POSTGRESQL)
    databases = server_dumps.dump_all(session)
    postgresql.sql(DROP_POSTGRESQL)
    renewal(session, postgresql, "postgresql", databases)
    assert told(postgresql, ALL_OF_POSTGRESQL).split("\n") == ["postgres", "postgres", "template0", "template1"]


def test_completes_a_database_of_postgresql_after_a_kill(session, postgresql):
    postgresql.sql(POSTGRESQL)
    databases = server_dumps.dump_all(session)
    postgresql.sql(DROP_POSTGRESQL)
    killed(session, postgresql, "postgresql", databases["shop"])
    cut(session, postgresql, databases["shop"])
    assert told(postgresql, ALL_OF_POSTGRESQL).split("\n") == ["postgres", "postgres", "template0", "template1"]


@contextlib.contextmanager
def psql_of_before(server):
    """Puts a psql without \\restrict in the place of this host's."""
    place = f"{server.programs}/psql"
    shutil.copy2(place, "/mnt/psql")
    with open("/mnt/psql-of-before", "w", encoding="ascii") as script:
        script.write("#!/bin/sh\nsed -u 's/^.restrict/\\\\nonsense/' | /mnt/psql \"$@\"\n")
    os.chmod("/mnt/psql-of-before", 0o755)
    subprocess.run(["mount", "--bind", "/mnt/psql-of-before", place], check=True)
    yield
    subprocess.run(["umount", place], check=True)


def test_does_not_read_again_what_postgresql_says_that_it_has_copied(session, postgresql):
    """If the dump prints what looks like a count, the rows are counted."""
    postgresql.sql("CREATE ROLE shop LOGIN;\nCREATE DATABASE shop OWNER shop;\n\\connect shop\n"
                   "CREATE TABLE none (i int); CREATE TABLE t AS SELECT i FROM generate_series(1, 1000) i;"
                   "ALTER TABLE none OWNER TO shop; ALTER TABLE t OWNER TO shop;")
    element = server_dumps.dump_all(session)["shop"]
    sql, end = server_dumps.sql_of(session, element), b"--\n-- PostgreSQL database dump complete"
    assert sql.count(end) == 1
    postgresql.sql("DROP DATABASE shop; DROP ROLE shop;")
    with psql_of_before(postgresql):
        assert "psql here does not know \\restrict" in session.run("apply", check=1).stderr
    assert told(postgresql, LEFT["postgresql"]) == ""
    for more, least, most in ((b"", 0, 1), (b"SELECT 'COPY 7';\n", 1000, 1000), (b"-- the same\n", 0, 1)):
        server_dumps.put(session, element, sql.replace(end, more + end))
        # The earlier one is found unchanged, whatever way its rows were counted.
        assert "1 changed" in session.run("apply", check=0).stdout
        read = int(told(postgresql, "SELECT seq_tup_read FROM pg_stat_user_tables WHERE relname = 't'", "shop"))
        assert least <= read <= most
    assert "2 tables, 1000 rows" in session.run("verify", check=0).stdout
