"""Hostile databases of PostgreSQL: accounts, rights, other databases and files of this host stay as they were."""
import pytest
import server_dumps
from hostile_databases import files, place, prepare_directory, taken_over

POSTGRESQL = """
CREATE ROLE bob LOGIN PASSWORD 'bobs'; CREATE DATABASE victim OWNER bob;
CREATE ROLE shop LOGIN PASSWORD 'right'; CREATE DATABASE shop OWNER shop;
\\connect victim
CREATE TABLE t (v text); INSERT INTO t VALUES ('precious'); ALTER TABLE t OWNER TO bob;
\\connect shop
CREATE TABLE t (id int); INSERT INTO t VALUES (1), (2); ALTER TABLE t OWNER TO shop;
"""
POSTGRESQL_ATTACKS = r"""
\! touch /mnt/open/1
SELECT 1 \! touch /mnt/open/2
\unrestrict guess
\connect victim
\c - postgres
\o /mnt/open/3
\w /mnt/open/4
\i /mnt/open/attack.sql
\copy public.t TO '/mnt/open/5'
\g |touch /mnt/open/6
COPY public.t TO '/mnt/open/7';
COPY public.t TO PROGRAM 'touch /mnt/open/8';
COPY public.t FROM '/etc/passwd';
CREATE ROLE evil SUPERUSER LOGIN;
ALTER ROLE shop SUPERUSER;
ALTER ROLE postgres PASSWORD 'evil';
ALTER ROLE bob PASSWORD 'evil';
ALTER SYSTEM SET archive_command = 'touch /mnt/open/9';
SET ROLE postgres;
SET SESSION AUTHORIZATION postgres;
RESET SESSION AUTHORIZATION;
SET ROLE bob;
GRANT postgres TO shop;
GRANT bob TO shop;
GRANT pg_read_server_files TO shop;
GRANT ALL ON DATABASE victim TO shop;
CREATE EXTENSION dblink;
CREATE EXTENSION file_fdw;
CREATE FUNCTION public.evil() RETURNS int LANGUAGE c AS '/mnt/open/evil.so';
SELECT pg_catalog.lo_import('/etc/passwd');
SELECT pg_catalog.lo_export(pg_catalog.lo_from_bytea(0, 'x'), '/mnt/open/10');
SELECT pg_catalog.pg_read_file('/etc/passwd');
DROP DATABASE victim;
ALTER DATABASE victim OWNER TO shop;
ALTER DATABASE victim SET work_mem TO '1MB';
ALTER DATABASE shop SET session_preload_libraries TO 'evil';
ALTER ROLE shop IN DATABASE shop SET session_preload_libraries TO 'evil';
ALTER TABLE public.t OWNER TO bob;
REASSIGN OWNED BY bob TO shop;
DROP OWNED BY bob;
CREATE TABLESPACE evil LOCATION '/mnt/open';
CREATE DATABASE evil;
UPDATE pg_catalog.pg_authid SET rolsuper = true;
CREATE FUNCTION public.make_evil() RETURNS event_trigger LANGUAGE plpgsql AS $$ BEGIN END $$;
CREATE EVENT TRIGGER evil ON ddl_command_start EXECUTE FUNCTION public.make_evil();
CREATE SUBSCRIPTION evil CONNECTION 'dbname=victim' PUBLICATION p;
DO $$ BEGIN EXECUTE 'CREATE ROLE evil'; END $$;
CREATE FUNCTION public.as_owner() RETURNS int LANGUAGE plpgsql SECURITY DEFINER AS $$ BEGIN
    EXECUTE 'CREATE ROLE evil SUPERUSER'; RETURN 1; END $$;
ALTER FUNCTION public.as_owner() OWNER TO postgres;
CREATE FUNCTION public.trojan(public.t) RETURNS text LANGUAGE plpgsql AS $$ BEGIN
    EXECUTE 'CREATE ROLE evil SUPERUSER'; RETURN 'x'; END $$;
CREATE CAST (public.t AS text) WITH FUNCTION public.trojan(public.t) AS IMPLICIT;
CREATE FUNCTION public.count(bigint) RETURNS bigint LANGUAGE plpgsql AS $$ BEGIN
    EXECUTE 'CREATE ROLE evil SUPERUSER'; RETURN 1; END $$;
CREATE FUNCTION public.sum_evil(bigint, bigint) RETURNS bigint LANGUAGE plpgsql AS $$ BEGIN
    EXECUTE 'CREATE ROLE evil SUPERUSER'; RETURN 1; END $$;
CREATE AGGREGATE public.sum(bigint) (SFUNC = public.sum_evil, STYPE = bigint);
ALTER DATABASE shop SET search_path TO 'public', 'pg_catalog';
CREATE TABLE public.guarded (id int);
ALTER TABLE public.guarded ENABLE ROW LEVEL SECURITY;
CREATE POLICY p ON public.guarded USING (public.trojan(NULL) IS NULL);
CREATE TABLE public.reached (v int);
COPY public.reached (v) FROM stdin;
7
\.
"""


def state_of_postgresql(server):
    """What must not change; without what belongs to the database shop."""
    told = server.sql("""
        SELECT rolname, rolsuper, rolcreaterole, rolcreatedb, rolcanlogin, rolreplication, rolbypassrls,
            CASE rolname WHEN 'shop' THEN '' ELSE rolpassword END FROM pg_authid WHERE rolname <> 'shop';
        SELECT 'super ' || rolname FROM pg_authid WHERE rolsuper;
        SELECT pg_get_userbyid(roleid), pg_get_userbyid(member) FROM pg_auth_members;
        SELECT datname, datdba, coalesce(datacl, acldefault('d', datdba)) FROM pg_database
            WHERE datname <> 'shop';
        SELECT spcname FROM pg_tablespace;
        SELECT * FROM pg_db_role_setting WHERE setconfig::text ~ 'preload' OR setdatabase NOT IN
            (SELECT oid FROM pg_database WHERE datname = 'shop');
        SELECT name, setting FROM pg_settings WHERE name = 'archive_command'""")
    inside = server.sql("SELECT v FROM t; SELECT relname, relowner, relacl FROM pg_class WHERE oid >= 16384", "victim")
    return sorted((told + inside).decode().split("\n")) + files()


@pytest.fixture
def postgresql():
    prepare_directory()
    with server_dumps.server("postgresql", "/mnt/postgresql") as server:
        server.sql(POSTGRESQL)
        yield server


def test_sql_of_postgresql_reaches_nothing_but_its_database(session, postgresql):
    element, sql = taken_over(session)
    postgresql.sql("DROP DATABASE shop; DROP ROLE shop")
    before = state_of_postgresql(postgresql)
    end = sql.index(b"--\n-- PostgreSQL database dump complete")
    server_dumps.put(session, element, sql[:end] + POSTGRESQL_ATTACKS.encode() + sql[end:])
    session.run("apply", check=0)
    assert state_of_postgresql(postgresql) == before
    assert postgresql.sql("SELECT count(*) FROM t; SELECT v FROM reached", "shop") == b"2\n7\n"
    session.run("plan", check=0)
    session.run("verify")
    owners = b"SELECT DISTINCT pg_get_userbyid(proowner) FROM pg_proc WHERE oid >= 16384"
    assert postgresql.sql(owners.decode(), "shop") == b"shop\n"
    assert postgresql.sql("SELECT extname FROM pg_extension", "shop") == b"plpgsql\n"
    session.run("undo", check=0)
    assert state_of_postgresql(postgresql) == before


def test_sql_of_postgresql_that_looks_like_rows_is_run_without_rights(session, postgresql):
    element, sql = taken_over(session)
    postgresql.sql("DROP DATABASE shop; DROP ROLE shop")
    before = state_of_postgresql(postgresql)
    end = sql.index(b"--\n-- PostgreSQL database dump complete")
    hidden = (b"SELECT '\nCOPY public.t (id) FROM stdin;\n';\nGRANT ALL ON public.t TO bob;\nCREATE EXTENSION dblink;\n"
              b"\\connect victim\nDROP TABLE public.t;\n\\! touch /mnt/open/hidden\n\\.\n")
    server_dumps.put(session, element, sql[:end] + hidden + sql[end:])
    session.run("apply")
    assert state_of_postgresql(postgresql) == before


def test_roles_in_sql_of_postgresql_are_read_strictly(session, postgresql):
    element, sql = taken_over(session)
    postgresql.sql("DROP DATABASE shop; DROP ROLE shop")
    before = state_of_postgresql(postgresql)
    start = sql.index(b"DO $role$")
    end = sql.index(b"\n", start)
    line = sql[start:end]
    for name, changed in {
        "rights": line.replace(b" LOGIN ", b" LOGIN SUPERUSER "),
        "more SQL": line.replace(b"END IF;", b"CREATE ROLE evil; END IF;"),
        "code": line.replace(b"END IF;", b"ALTER ROLE \"shop\" SET \"session_preload_libraries\" TO 'evil'; END IF;"),
        "local code": line.replace(
            b"END IF;", b"ALTER ROLE \"shop\" SET \"local_preload_libraries\" TO 'evil'; END IF;"),
        "a role of the server": line.replace(b'"shop"', b'"postgres"'),
        "after it": line + b" CREATE ROLE evil;",
    }.items():
        server_dumps.put(session, element, sql[:start] + changed + sql[end:])
        session.run("apply", check=0)
        assert state_of_postgresql(postgresql) == before, name
        assert postgresql.sql("SELECT rolsuper, rolconfig FROM pg_roles WHERE rolname = 'shop'") == b"f|\n", name
        session.run("undo", check=0)


POSTGRESQL_DESCRIPTIONS = {
    "the administrator": '<user name="postgres" kind="login"/>',
    "a role of all servers": '<user name="pg_read_server_files" kind="role"/>',
    "a name that ends a text": '<user name="x&quot; SUPERUSER; --" kind="login"/>',
    "a name that is cut": f'<user name="{"x" * 64}" kind="login"/>',
    "the administrator's role": '<membership role="postgres" to="shop" grantable="no"/>',
    "rights for another": '<grant to="bob" on="database" object="shop" grantable="no"><right>CONNECT</right></grant>',
    "another database": '<grant to="shop" on="database" object="victim" grantable="no"><right>CONNECT</right></grant>',
    "SQL as a right": '<grant to="shop" on="table" object="public.t" grantable="no">'
                      '<right>SELECT ON public.t TO bob; CREATE ROLE evil; --</right></grant>',
    "SQL as an object": '<grant to="shop" on="table" object="public.t TO bob; CREATE ROLE evil; --" grantable="no">'
                        '<right>SELECT</right></grant>',
    "SQL as a column": '<grant to="shop" on="column" object="public.t" '
                       'column="id) ON public.t TO bob; --" grantable="no">'
                       '<right>SELECT</right></grant>',
}


def test_descriptions_of_postgresql_give_nothing_but_their_database(session, postgresql):
    element, _ = taken_over(session)
    postgresql.sql("DROP DATABASE shop; DROP ROLE shop")
    before = state_of_postgresql(postgresql)
    for name, xml in POSTGRESQL_DESCRIPTIONS.items():
        added = place(element, xml)
        session.run("apply", check=0)
        now = [line for line in state_of_postgresql(postgresql) if not line.startswith('x" SUPERUSER; --|f|')]
        assert now == before, name
        element.remove(added)
        session.run("undo", check=0)
        assert state_of_postgresql(postgresql) == before, name
    for attribute, value in {"owner": "bob", "collation": "C'; CREATE ROLE evil; --", "name": "template1",
                             "encoding": "UTF8'; CREATE ROLE evil; --"}.items():
        was = element.get(attribute)
        element.set(attribute, value)
        session.run("apply")
        assert [line for line in state_of_postgresql(postgresql) if "shop_owner" not in line] == before, attribute
        element.set(attribute, was)
        session.run("undo", check=0)
    place(element, '<extension name="citext&quot;; CREATE ROLE evil; --" version="1" schema="public"/>')
    assert "Cannot be restored" in session.run("plan").stdout
    session.run("apply")
    assert state_of_postgresql(postgresql) == before


def test_an_existing_role_of_postgresql_keeps_its_password_and_owns_nothing(session, postgresql):
    element, _ = taken_over(session)
    element.set("owner", "bob")
    place(element, '<user name="bob" kind="login"/>')
    postgresql.sql("DROP DATABASE shop; DROP ROLE shop")
    before = state_of_postgresql(postgresql)
    assert "--replace=postgresql:shop" in session.run("plan", check=3).stdout
    session.run("apply", "--replace=postgresql:shop", check=0)
    assert [line for line in state_of_postgresql(postgresql) if "shop_owner" not in line] == before
    assert b"bob" not in postgresql.sql("SELECT pg_get_userbyid(relowner) FROM pg_class", "shop")
