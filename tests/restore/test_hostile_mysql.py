"""Hostile databases of MySQL: accounts, rights, other databases and files of this host stay as they were."""
import pytest
import server_dumps
from hostile_databases import files, place, prepare_directory, taken_over

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


@pytest.fixture
def mariadb():
    prepare_directory()
    with server_dumps.server("mysql", "/mnt/mariadb") as server:
        server.sql(MYSQL)
        yield server


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
