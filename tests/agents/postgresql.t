# The PostgreSQL servers of a host: what they hold is listed, dumped whole and made anew.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Problems;
use Imitated qw(problem_texts);
use Linux::PostgreSql;
use Linux::Tree;
use PrivateServer qw(dumped dump_while_written);
use Test::More;

# The settings that the package has left on this machine are not those of the test.
unlink '/etc/postgresql';
my @look = (limit => 20, restrict_key => 'akeyoftheagent');

sub look {
    my $problems = Agent::Problems->new;
    my @servers = Linux::PostgreSql->found(tree => Linux::Tree->new, problems => $problems, @look);
    return ($problems, @servers);
}

my $source = PrivateServer->new('postgresql', '/mnt/source-server');
mkdir '/mnt/space' or die $!;
chown((getpwnam 'postgres')[2, 3], '/mnt/space') or die $!;
my $awkward = q{-x dbname='q' "é\\};
(my $awkward_quoted = $awkward) =~ s/"/""/g;
$source->sql(<<"END");
CREATE ROLE shop LOGIN PASSWORD 'pa''ss' CONNECTION LIMIT 9 VALID UNTIL '2040-01-02';
SET password_encryption = 'md5';
CREATE ROLE "old ""quoted"" \$role\$" LOGIN PASSWORD 'old';
CREATE ROLE team NOLOGIN NOINHERIT CREATEDB REPLICATION BYPASSRLS;
GRANT pg_monitor TO shop;
CREATE ROLE member LOGIN;
CREATE ROLE stranger LOGIN;
GRANT team TO member WITH ADMIN OPTION;
ALTER ROLE shop SET search_path TO "own ""one""", public;
ALTER ROLE shop SET application_name TO 'it''s';
CREATE DATABASE shop OWNER shop;
ALTER DATABASE shop SET work_mem TO '5MB';
REVOKE CONNECT ON DATABASE shop FROM PUBLIC;
GRANT CONNECT ON DATABASE shop TO "old ""quoted"" \$role\$" WITH GRANT OPTION;
ALTER ROLE member IN DATABASE shop SET search_path TO public;
CREATE DATABASE "$awkward_quoted";
CREATE DATABASE closed;
CREATE DATABASE pattern IS_TEMPLATE true;
ALTER DATABASE closed ALLOW_CONNECTIONS false;
CREATE TABLESPACE "fast ""one""" LOCATION '/mnt/space';
CREATE DATABASE raw ENCODING 'SQL_ASCII' LOCALE 'C' TEMPLATE template0 TABLESPACE "fast ""one""";
CREATE DATABASE latin ENCODING 'LATIN1' LOCALE 'C' TEMPLATE template0;
END
# Bytes that are no UTF-8.
$source->sql(q{CREATE TABLE t (v text); INSERT INTO t VALUES (E'gr\\xfcn'); ALTER TABLE t SET TABLESPACE pg_default}, 'raw');
$source->sql(q{SET client_encoding = 'UTF8'; CREATE TABLE "größe" (v text); INSERT INTO "größe" VALUES ('grün')},
    'latin');
$source->sql(<<'END', 'shop');
CREATE EXTENSION IF NOT EXISTS plpgsql;
CREATE TYPE colour AS ENUM ('red', 'green');
CREATE TABLE orders (id serial PRIMARY KEY, item text, picture bytea, price numeric(9,2), at timestamptz, tags text[],
    paint colour, more jsonb, double_price numeric GENERATED ALWAYS AS (price * 2) STORED);
INSERT INTO orders (item, picture, price, at, tags, paint, more) VALUES
    (E'tea ''🍵'' \\ \n and\t', '\x00ff0a5c', 1.50, '2020-01-02 03:04:05+00', '{a,"b c"}', 'red', '{"a": [1]}'),
    (NULL, NULL, NULL, NULL, NULL, NULL, NULL);
CREATE VIEW cheap AS SELECT item FROM orders WHERE price < 2;
CREATE FUNCTION twice(a int) RETURNS int LANGUAGE plpgsql AS $$ BEGIN RETURN a * 2; END $$;
CREATE FUNCTION mark() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN NEW.item := '<' || NEW.item; RETURN NEW; END $$;
CREATE TRIGGER mark BEFORE INSERT ON orders FOR EACH ROW EXECUTE FUNCTION mark();
ALTER TABLE orders OWNER TO shop;
GRANT SELECT (item) ON orders TO team;
SELECT lo_from_bytea(4711, '\xcafe');
END

my ($problems, $server) = look();
is_deeply problem_texts($problems), [], 'a good server has no problems';
my ($version) = $source->sql('SHOW server_version') =~ /\A(\S+)/;
is_deeply $server->description, { kind => 'postgresql', label => 'PostgreSQL (port 5432)',
    product => 'PostgreSQL', running => 1, version => $version, address => '/run/postgresql/.s.PGSQL.5432' }, 'the server is described';
my %databases = map { $_->{name} => $_ } $server->databases;
is_deeply [sort keys %databases], [$awkward, qw(closed latin pattern raw shop)], 'all databases are found but its own';
is $databases{shop}{server}, 'PostgreSQL (port 5432)', 'a database tells its server';
cmp_ok $databases{shop}{bytes}, '>', 1_000_000, 'the size of a database is known';
is_deeply [map { $_->{name} } @{ $databases{shop}{users} }], ['member', 'old "quoted" $role$', 'shop', 'team'],
    'the roles of a database are found by ownership, grants and membership';
is_deeply $databases{$awkward}{users}, [], 'the role that every server has is none of them';

is $server->password_matches('shop', "pa'ss"), 1, 'a password is known to be right';
is $server->password_matches('shop', 'pass'), 0, 'a password is known to be wrong';
is $server->password_matches('old "quoted" $role$', 'old'), 1, 'an old kind of hash is known to be right';
is $server->password_matches('old "quoted" $role$', 'new'), 0, 'an old kind of hash is known to be wrong';
is $server->password_matches('nobody', 'pass'), undef, 'nothing is known of a missing role';

my %sql = map { $_ => dumped($server, $databases{$_}) } $awkward, qw(latin pattern raw shop);
is_deeply problem_texts($problems), ['info PostgreSQL database raw: What lies in these tablespaces comes into the default one:'
    . ' fast "one"', 'info PostgreSQL database shop: The role shop loses its server-wide rights: pg_monitor',
    'info PostgreSQL database shop: The role team loses its server-wide rights: CREATEDB, BYPASSRLS, REPLICATION'],
    'what does not come along is named';
is dumped((look())[1], $databases{shop}), $sql{shop}, 'a second dump is equal';
is $server->dump($databases{closed}, sub { }), 'it takes no connections', 'a closed database is refused';

# What older programs leave out of their dumps.
is $server->database_statements($databases{shop}), <<'END', 'settings and rights of the database are known too';
SET client_encoding = 'UTF8';
ALTER DATABASE "shop" SET "work_mem" TO '5MB';
ALTER ROLE "member" IN DATABASE "shop" SET "search_path" TO 'public';
REVOKE ALL ON DATABASE "shop" FROM PUBLIC;
GRANT TEMPORARY ON DATABASE "shop" TO PUBLIC;
GRANT CONNECT ON DATABASE "shop" TO "shop";
GRANT CREATE ON DATABASE "shop" TO "shop";
GRANT TEMPORARY ON DATABASE "shop" TO "shop";
GRANT CONNECT ON DATABASE "shop" TO "old ""quoted"" $role$" WITH GRANT OPTION;
END

# A second server gets the dumps, and then answers as the first one.
my $target = PrivateServer->new('postgresql', '/mnt/target-server', '/mnt/target');
$target->sql($sql{$_}) for sort keys %sql;
$target->sql($server->database_statements($databases{shop}));
my @questions = (
    ['SELECT * FROM orders ORDER BY id', 'shop'],
    ['SELECT * FROM cheap', 'shop'],
    ['SELECT encode(textsend(v), $$hex$$) FROM t', 'raw'],
    [q{SET client_encoding = 'UTF8'; SELECT v, encode(v::bytea, 'hex') FROM "größe"}, 'latin'],
    ['SELECT twice(4), encode(lo_get(4711), $$hex$$)', 'shop'],
    ['SELECT tgname, pg_get_triggerdef(oid) FROM pg_trigger', 'shop'],
    ['SELECT relname, relacl, pg_get_userbyid(relowner) FROM pg_class WHERE relnamespace = $$public$$::regnamespace'
        . ' ORDER BY 1', 'shop'],
    ['SELECT attname, attacl FROM pg_attribute WHERE attrelid = $$orders$$::regclass ORDER BY 1', 'shop'],
    ["SELECT nextval('orders_id_seq')", 'shop'],
    ['SELECT datname, pg_get_userbyid(datdba), ARRAY(SELECT unnest(datacl)::text ORDER BY 1), datcollate'
        . ' FROM pg_database WHERE datallowconn ORDER BY 1'],
    ['SELECT rolname, rolcanlogin, rolinherit, rolconnlimit, rolvaliduntil, rolpassword FROM pg_authid'
        . " WHERE rolname <> 'stranger' ORDER BY 1"],
    ['SELECT roleid::regrole, member::regrole, admin_option FROM pg_auth_members WHERE roleid >= 16384'
        . ' ORDER BY 1::text, 2::text'],
    ['SELECT setrole::regrole, (SELECT datname FROM pg_database d WHERE d.oid = setdatabase), setconfig'
        . ' FROM pg_db_role_setting ORDER BY 1::text, 2'],
);
is $target->sql(@$_), $source->sql(@$_), "equal: $_->[0]" for @questions;
is $target->sql("SELECT rolcreatedb FROM pg_roles WHERE rolname = 'team'"), "f\n", 'server-wide rights stay behind';
is $target->sql("SELECT 1 FROM pg_roles WHERE rolname = 'stranger'"), '', 'strangers stay behind';

# What is written while a dump runs is not in it.
my $rows = 50_000;
$source->sql('CREATE DATABASE long');
$source->sql("CREATE TABLE a (t text); CREATE TABLE z (t text);"
    . " INSERT INTO a SELECT 'row-' || n || repeat(' ', 100) FROM generate_series(1, $rows) AS n", 'long');
my %long = (%{ $databases{shop} }, name => 'long', users => []);
my ($error, $dumped, $written) = dump_while_written($server, \%long, qr/row-1\b/,
    sub { $source->sql('DELETE FROM a; INSERT INTO z VALUES ($$row-too-late$$)', 'long') });
is $error, undef, 'a long dump is whole';
is $written, 1, 'somebody wrote while it ran';
is scalar(() = $dumped =~ /row-[0-9]+/g), $rows, 'the rows of a dump are those of its beginning';
unlike $dumped, qr/row-too-late/, 'in all tables';
$source->sql('DROP DATABASE long');

# The server's own database counts once somebody uses it.
$source->sql('CREATE TABLE mine (a int)');
is_deeply [map { $_->{name} } (look())[1]->databases], [$awkward, qw(closed latin pattern postgres raw shop)],
    'a used database of the server is found';
$source->sql('INSERT INTO mine VALUES (7); ALTER DATABASE postgres SET work_mem TO $$7MB$$');
my ($of_server) = grep { $_->{name} eq 'postgres' } (look())[1]->databases;
$target->sql(dumped($server, $of_server));
is $target->sql($_), $source->sql($_), "equal: $_" for 'SELECT * FROM mine', 'SHOW work_mem';

# Objects in a database cannot stand in for what we ask with.
$source->sql(<<'END', 'postgres');
CREATE FUNCTION public.textsend(text) RETURNS bytea LANGUAGE sql AS 'SELECT ''\x66616b65''::bytea';
ALTER DATABASE postgres SET search_path TO public, pg_catalog;
END
is_deeply [map { $_->{name} } (look())[1]->databases], [$awkward, qw(closed latin pattern postgres raw shop)],
    'functions that others made are not called';

# A dump that is cut off is no dump.
my $pieces = 0;
ok !eval { $server->dump($databases{shop}, sub { die "disk full\n" if $pieces++ }); 1 }, 'a sink that dies ends the dump';
is $@, "disk full\n", 'the reason of the sink is kept';

# Several servers, one of them down, one switched off.
mkdir $_ or die "$_: $!" for '/etc/postgresql', map { ("/etc/postgresql/$_", "/etc/postgresql/$_/main") } 13, 14, 15;
my %set_up = (13 => [5434, 'auto'], 14 => [5435, 'manual'], 15 => [5432, 'auto']);
for my $number (keys %set_up) {
    my ($port, $start) = @{ $set_up{$number} };
    my %content = ('postgresql.conf' => "#port = 1\nport = $port\t# (change requires restart)\n",
        'start.conf' => "# comment\n\n$start\n");
    for my $name (keys %content) {
        open my $file, '>', "/etc/postgresql/$number/main/$name" or die $!;
        print {$file} $content{$name};
        close $file or die $!;
    }
}
$target->stop;
($problems, my @servers) = look();
is_deeply [map { [@$_{qw(address running)}] } map { $_->description } @servers],
    [['/run/postgresql/.s.PGSQL.5432', 1], [undef, 0], [undef, 0]], 'servers are found by sockets and by settings';
is_deeply problem_texts($problems), ['error PostgreSQL (port 5434): The server cannot be asked: it is not running',
    'info PostgreSQL (port 5435): The server cannot be asked: it is not running'], 'servers that are down are named';

# Without root we ask as ourselves.
my $result = Agent::Process::run(['runuser', '-u', 'nobody', '--', $^X, (map {"-I$_"} @INC), '-MLinux::PostgreSql',
    '-MLinux::Tree', '-MAgent::Problems', '-e', 'my $p = Agent::Problems->new; my ($s) = Linux::PostgreSql->found('
        . 'tree => Linux::Tree->new, problems => $p, limit => 20); print $_->{text}, "\n" for $p->all']);
like $result->{out}, qr/\AThe server cannot be asked: .*role "nobody" does not exist/, 'a plain account is told what it misses';

$source->stop;
like $server->dump($databases{shop}, sub { }), qr/failed: No such file or directory/, 'a dump from a server that went away fails';
done_testing;
