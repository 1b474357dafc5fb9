"""Databases of a host that was broken into: accounts, rights, other databases and files stay as they were."""
import os

import pytest
import server_dumps
from lxml import etree

MYSQL = """
CREATE DATABASE victim; CREATE TABLE victim.t (v varchar(20)); INSERT INTO victim.t VALUES ('precious');
CREATE USER bob@localhost IDENTIFIED BY 'bobs'; GRANT ALL ON victim.* TO bob@localhost; CREATE ROLE bobs_role;
CREATE DATABASE shop; CREATE TABLE shop.t (id int); INSERT INTO shop.t VALUES (1), (2);
CREATE USER shop@localhost IDENTIFIED BY 'right'; GRANT ALL ON shop.* TO shop@localhost;
"""
# After the tables of the dump; each is refused by the server or by its client.
MYSQL_ATTACKS = r"""
\! touch /mnt/open/1
system touch /mnt/open/2
\. /mnt/open/attack.sql
source /mnt/open/attack.sql
tee /mnt/open/3
\T /mnt/open/4
pager touch /mnt/open/5
SELECT 1 \! touch /mnt/open/6
;
USE victim;
DROP TABLE victim.t;
USE shop;
DROP DATABASE victim;
GRANT ALL ON *.* TO shop@localhost WITH GRANT OPTION;
GRANT SELECT ON victim.* TO shop@localhost;
GRANT ALL ON shop.* TO bob@localhost;
CREATE USER evil@'%' IDENTIFIED BY 'evil';
CREATE ROLE evil_role;
GRANT bobs_role TO shop@localhost;
SET PASSWORD FOR root@localhost = PASSWORD('evil');
ALTER USER root@localhost IDENTIFIED BY 'evil';
DROP USER bob@localhost;
SELECT 'x' INTO OUTFILE '/mnt/open/7';
SELECT 'x' INTO DUMPFILE '/mnt/open/8';
CREATE TABLE read_here (v text);
LOAD DATA INFILE '/etc/passwd' INTO TABLE read_here;
LOAD DATA LOCAL INFILE '/mnt/open/attack.sql' INTO TABLE read_here;
INSERT INTO read_here VALUES (LOAD_FILE('/mnt/open/attack.sql'));
CREATE  DEFINER = root@localhost PROCEDURE as_root() INSERT INTO victim.t VALUES ('evil');
CREATE DEFINER=bob@localhost VIEW as_bob AS SELECT * FROM victim.t;
CREATE VIEW spy AS SELECT * FROM victim.t;
CREATE TABLE victim.mine (v int);
RENAME TABLE t TO victim.t2;
CREATE TRIGGER victim.evil BEFORE INSERT ON victim.t FOR EACH ROW SET NEW.v = 'evil';
CREATE EVENT victim.evil ON SCHEDULE EVERY 1 SECOND DO DELETE FROM victim.t;
SET GLOBAL general_log_file = '/mnt/open/9';
SET GLOBAL event_scheduler = ON;
SET GLOBAL max_connections = 1;
INSTALL SONAME 'ha_example';
CREATE FUNCTION evil RETURNS INTEGER SONAME 'evil.so';
CREATE SERVER evil FOREIGN DATA WRAPPER mysql OPTIONS (HOST 'evil.test');
CREATE TABLE elsewhere (v int) ENGINE=InnoDB DATA DIRECTORY='/mnt/open';
INSERT INTO mysql.global_priv VALUES ('%', 'evil', '{}');
UPDATE mysql.global_priv SET priv = '{"access":18446744073709551615}' WHERE User = 'shop';
CREATE TABLE mysql.evil (v int);
SHUTDOWN;
FLUSH PRIVILEGES;
DELIMITER ;;
CREATE DEFINER=`root`@`localhost` FUNCTION `of_root`() RETURNS int RETURN 1
;;
\! touch /mnt/open/10
;;
DELIMITER ;
/*!50001 CREATE ALGORITHM=UNDEFINED */
/*!50013 DEFINER=`root`@`localhost` SQL SECURITY DEFINER */
/*!50001 VIEW `view_of_root` AS select 1 AS `v` */;
SET PASSWORD = PASSWORD('known');
CREATE TABLE reached (v int);
"""

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


def state_of_mysql(server):
    """What must not change; without what belongs to the database shop."""
    told = server.sql("""
        SELECT * FROM mysql.global_priv; SELECT * FROM mysql.db; SELECT * FROM mysql.tables_priv;
        SELECT * FROM mysql.columns_priv; SELECT * FROM mysql.procs_priv; SELECT * FROM mysql.roles_mapping;
        SELECT * FROM mysql.plugin; SELECT * FROM mysql.func; SELECT * FROM mysql.servers; SELECT * FROM victim.t;
        SELECT schema_name FROM information_schema.schemata;
        SELECT table_schema, table_name FROM information_schema.tables WHERE table_schema IN ('mysql', 'victim');
        SELECT trigger_schema FROM information_schema.triggers; SELECT event_schema FROM information_schema.events;
        SHOW GLOBAL VARIABLES WHERE Variable_name IN ('general_log_file', 'event_scheduler', 'max_connections')""")
    return sorted(line for line in told.decode().split("\n") if "shop" not in line) + files()


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


def files():
    return sorted(os.listdir("/mnt/open"))


def prepare_folder():
    os.makedirs("/mnt/open")
    os.chmod("/mnt/open", 0o777)
    with open("/mnt/open/attack.sql", "w", encoding="ascii") as file:
        file.write("CREATE TABLE from_a_file (v int);\n")


@pytest.fixture
def mariadb():
    prepare_folder()
    with server_dumps.server("mysql", "/mnt/mariadb") as server:
        server.sql(MYSQL)
        yield server


@pytest.fixture
def postgresql():
    prepare_folder()
    with server_dumps.server("postgresql", "/mnt/postgresql") as server:
        server.sql(POSTGRESQL)
        yield server


def taken_over(session, name="shop"):
    """The element and the SQL of that database alone."""
    found = server_dumps.dump_all(session)
    for other, element in found.items():
        if other != name:
            element.getparent().remove(element)
    return found[name], server_dumps.sql_of(session, found[name])


def test_sql_of_mariadb_reaches_nothing_but_its_database(session, mariadb):
    element, sql = taken_over(session)
    mariadb.sql("DROP DATABASE shop; DROP USER shop@localhost")
    before = state_of_mysql(mariadb)
    end = sql.index(b"/*!40103 SET TIME_ZONE=@OLD_TIME_ZONE */;")
    server_dumps.put(session, element, sql[:end] + MYSQL_ATTACKS.encode() + sql[end:])
    session.run("apply", check=0)
    assert state_of_mysql(mariadb) == before
    tables = mariadb.sql("SELECT table_name FROM information_schema.tables WHERE table_schema = 'shop'")
    assert set(tables.decode().split()) == {"t", "read_here", "reached", "view_of_root"}
    assert mariadb.sql("SELECT COUNT(*) FROM shop.t UNION ALL SELECT COUNT(v) FROM shop.read_here") == b"2\n0\n"
    assert mariadb.sql("""SELECT DISTINCT definer FROM information_schema.routines WHERE routine_schema = 'shop'
        UNION SELECT definer FROM information_schema.views WHERE table_schema = 'shop'""") == b"shop@localhost\n"
    assert mariadb.sql("SHOW GRANTS FOR shop@localhost").decode().count("GRANT") == 2
    assert b"GRANT USAGE ON *.* TO `shop`" in mariadb.sql("SHOW GRANTS FOR shop@localhost")


def test_accounts_in_sql_of_mariadb_are_read_strictly(session, mariadb):
    element, sql = taken_over(session)
    mariadb.sql("DROP DATABASE shop; DROP USER shop@localhost")
    before = state_of_mysql(mariadb)
    own = b"CREATE USER IF NOT EXISTS `shop`@`localhost`"
    start = sql.index(own)
    end = sql.index(b"\n", start)
    for line in (
        own + b" IDENTIFIED WITH mysql_native_password AS '*x'; GRANT ALL ON *.* TO shop@localhost;",
        own + b" IDENTIFIED BY 'x' REQUIRE NONE; CREATE USER evil;",
        own + b" IDENTIFIED VIA pam USING 'evil';",
        own + b" REQUIRE NONE WITH MAX_QUERIES_PER_HOUR 5 GRANT OPTION;",
        b"CREATE USER IF NOT EXISTS `evil`@`%` IDENTIFIED WITH mysql_native_password AS '" + b"*" + b"A" * 40 + b"';",
        b"CREATE USER IF NOT EXISTS `root`@`%`;",
        b"GRANT ALL ON *.* TO `shop`@`localhost`;",
    ):
        after = b"GRANT ALL ON *.* TO `shop`@`localhost`;\n"
        server_dumps.put(session, element, sql[:start] + line + sql[end:] + after)
        session.run("apply", check=0)
        assert state_of_mysql(mariadb) == before, line
        assert b'"account_locked":true' in mariadb.sql("SELECT Priv FROM mysql.global_priv WHERE User = 'shop'"), line
        session.run("undo", check=0)


MYSQL_DESCRIPTIONS = {
    "an account of the server": '<user name="root" host="%" kind="login"/>',
    "all roles": '<user name="PUBLIC" kind="role"/>',
    "a name that ends a text": "<user name=\"x'@'%' IDENTIFIED BY 'x\" host=\"%\" kind=\"login\"/>",
    "a host that ends a text": "<user name=\"shop2\" host=\"%' IDENTIFIED BY 'x\" kind=\"login\"/>",
    "a pattern for all databases": '<grant to="shop" host="localhost" on="database" object="%" grantable="yes">'
                                   '<right>SELECT</right></grant>',
    "another database": '<grant to="shop" host="localhost" on="database" object="victim" grantable="no">'
                        '<right>SELECT</right></grant>',
    "another's table": '<grant to="shop" host="localhost" on="table" object="t` TO bob@localhost; -- " grantable="no">'
                       '<right>SELECT</right></grant>',
    "rights on the server": '<grant to="shop" host="localhost" on="database" object="shop" grantable="no">'
                            '<right>SUPER</right><right>FILE</right><right>ALL PRIVILEGES</right></grant>',
    "SQL as a right": '<grant to="shop" host="localhost" on="database" object="shop" grantable="no">'
                      '<right>SELECT ON *.* TO shop@localhost; --</right></grant>',
    "rights on what a right is not on": '<grant to="shop" host="localhost" on="*.* TO shop@localhost; --" object="x" '
                                        'grantable="no"><right>SELECT</right></grant>',
    "rights for another": '<grant to="bob" host="localhost" on="database" object="shop" grantable="no">'
                          '<right>SELECT</right></grant>',
    "a role of another": '<membership role="bobs_role" to="shop" host="localhost" grantable="no" default="yes"/>',
    "a definer of the server": '<definer name="root" host="localhost" kind="view" object="v" in-dump="yes"/>',
}


def place(element, xml):
    """Puts an element where the schema wants it: before the first that comes later."""
    order = ("user", "membership", "grant", "definer", "extension", "setting", "content")
    added = etree.fromstring(xml)
    later = [each for each in element if order.index(each.tag) > order.index(added.tag)]
    later[0].addprevious(added)
    return added


def test_descriptions_of_mariadb_give_nothing_but_their_database(session, mariadb):
    mariadb.sql("CREATE VIEW shop.v AS SELECT * FROM shop.t")
    element, _ = taken_over(session)
    mariadb.sql("DROP DATABASE shop; DROP USER shop@localhost")
    before = state_of_mysql(mariadb)
    for name, xml in MYSQL_DESCRIPTIONS.items():
        added = place(element, xml)
        session.run("apply", check=0)
        now = [line for line in state_of_mysql(mariadb) if "IDENTIFIED BY" not in line]
        assert now == before, name
        given = mariadb.sql("SHOW GRANTS FOR shop@localhost").decode()
        assert "victim" not in given and given.count("ON *.*") == 1 and "bobs_role" not in given, name
        assert mariadb.sql("SELECT definer FROM information_schema.views WHERE table_schema = 'shop'"
                           ) == b"shop@localhost\n", name
        element.remove(added)
        session.run("undo", check=0)
        assert state_of_mysql(mariadb) == before, name


def test_names_of_databases_of_mariadb_lead_to_no_other(session, mariadb):
    element, sql = taken_over(session)
    mariadb.sql("DROP DATABASE shop; DROP USER shop@localhost")
    before = state_of_mysql(mariadb)
    for name in "mysql", "MySQL", "sys", "information_schema", "a/b", "":
        element.set("name", name)
        assert "Cannot be restored" in session.run("plan", "--replace=mysql:" + name).stdout
        session.run("apply", "--replace=mysql:" + name)
        assert state_of_mysql(mariadb) == before, name
    # One that would stand for all in a grant.
    element.set("name", "%")
    for grant in element.iterfind("grant"):
        grant.set("object", "%")
    server_dumps.put(session, element, sql.replace(b"INSERT INTO", b"DROP TABLE victim.t;\nINSERT INTO"))
    session.run("apply", check=0)
    assert "precious" in "".join(state_of_mysql(mariadb))
    assert server_dumps.as_shop(mariadb, "SELECT * FROM t", "%").stdout == "1\n2\n"
    assert "denied" in server_dumps.as_shop(mariadb, "SELECT * FROM victim.t", "%").stderr
    session.run("undo", check=0)
    assert state_of_mysql(mariadb) == before


def test_what_is_here_is_not_overwritten_unasked(session, mariadb):
    element, _ = taken_over(session)
    mariadb.sql("DROP DATABASE shop")
    before = mariadb.sql("SELECT * FROM mysql.global_priv")
    planned = session.run("plan", check=3)
    assert "--replace=mysql:shop" in planned.stdout
    place(element, '<definer name="shop" host="localhost" kind="view" object="v" in-dump="yes"/>')
    session.run("apply", "--replace=mysql:shop", check=0)
    assert mariadb.sql("SELECT * FROM mysql.global_priv") == before
    session.run("undo", check=0)
    assert mariadb.sql("SELECT * FROM mysql.global_priv") == before


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
