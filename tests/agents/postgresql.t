# The PostgreSQL servers of a host: their databases are listed, dumped whole and restored.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Problems;
use File::Path qw(rmtree);
use FoundDatabases qw(dumps_of found_servers with_databases);
use Imitated qw(problem_texts);
use Linux::PostgreSql;
use Linux::Tree;
use PrivateServer qw(dumped dump_while_written);
use Test::More;
use Independent;

# The settings that the package has left on this machine are not those of the test.
unlink '/etc/postgresql';

sub look { return found_servers('Linux::PostgreSql', restrict_key => 'akeyoftheagent') }
sub looked { return with_databases(look()) }

my $awkward = q{-x dbname='q' "é\\};
my $source_server = once(sub {
    my $source = PrivateServer->new('postgresql', '/mnt/source-server');
    mkdir '/mnt/space' or die $!;
    chown((getpwnam 'postgres')[2, 3], '/mnt/space') or die $!;
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
ALTER DATABASE shop SET TimeZone TO 'Asia/Tokyo';
CREATE DATABASE german ICU_LOCALE 'de-DE' LOCALE_PROVIDER icu TEMPLATE template0;
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
GRANT SELECT ON cheap TO PUBLIC;
CREATE EXTENSION citext;
CREATE FUNCTION as_shop() RETURNS int LANGUAGE sql SECURITY DEFINER AS 'SELECT 1';
ALTER FUNCTION as_shop() OWNER TO shop;
SELECT lo_from_bytea(4711, '\xcafe');
END
    return $source;
});

my $dumps = once(sub {
    $source_server->();
    return dumps_of(looked(), $awkward, qw(german latin pattern raw shop));
});

# A second server, which gets the dumps.
my $target_server = once(sub {
    my %sql = %{ $dumps->()->{sql} };
    my ($server, $databases) = looked();
    my $target = PrivateServer->new('postgresql', '/mnt/target-server', '/mnt/target');
    $target->sql($sql{$_}) for sort keys %sql;
    $target->sql($server->database_statements($databases->{shop}));
    return $target;
});

test 'The databases of a server are found with their roles' => sub {
    my $source = $source_server->();
    my ($problems, $server) = look();
    is_deeply problem_texts($problems), [], 'a good server has no problems';
    my ($version) = $source->sql('SHOW server_version') =~ /\A(\S+)/;
    is_deeply $server->description, { kind => 'postgresql', label => 'PostgreSQL (port 5432)',
        product => 'PostgreSQL', running => 1, version => $version,
        address => '/run/postgresql/.s.PGSQL.5432' }, 'the server is described';
    my %databases = map { $_->{name} => $_ } $server->databases;
    is_deeply [sort keys %databases], [$awkward, qw(closed german latin pattern raw shop)],
        'all databases are found but its own';
    is $databases{shop}{server}, 'PostgreSQL (port 5432)', 'a database names its server';
    cmp_ok $databases{shop}{bytes}, '>', 1_000_000, 'the size of a database is known';
    is_deeply [map { $_->{name} } @{ $databases{shop}{users} }],
        ['member', 'old "quoted" $role$', 'shop', 'team'],
        'the roles of a database are found by ownership, grants and membership';
    is_deeply $databases{$awkward}{users}, [], 'the role that every server has is no role of a database';
};

test 'Passwords of roles are compared' => sub {
    my $source = $source_server->();
    my ($server) = looked();
    is $server->password_matches('shop', "pa'ss"), 1, 'a password is known to be right';
    is $server->password_matches('shop', 'pass'), 0, 'a password is known to be wrong';
    is $server->password_matches('old "quoted" $role$', 'old'), 1,
        'a password with an old kind of hash is known to be right';
    is $server->password_matches('old "quoted" $role$', 'new'), 0,
        'a password with an old kind of hash is known to be wrong';
    # Every role may set such a hash for itself, which takes the server as long; here it is put there at once.
    $source->sql(q{UPDATE pg_authid SET rolpassword = 'SCRAM-SHA-256$900000000:c2FsdA==$} . 'A' x 43 . '=:'
        . 'A' x 43
        . q{=' WHERE rolname = 'member'});
    is +(look())[1]->password_matches('member', 'pass'), undef,
        'a number of rounds that a role has made up is not used';
    $source->sql(q{UPDATE pg_authid SET rolpassword = NULL WHERE rolname = 'member'});
    is $server->password_matches('nobody', 'pass'), undef, 'nothing is known of a missing role';
};

test 'A database is described with what a restore needs to know' => sub {
    my $source = $source_server->();
    my ($server, $databases) = looked();
    my %databases = %$databases;
    my $version = $server->description->{version};
    my $details = $server->details($databases{shop});
    is_deeply [@$details{qw(version owner encoding collation ctype provider locale)}],
        [$version, 'shop', 'UTF8', 'C.UTF-8', 'C.UTF-8', 'libc', undef],
        'a database has its owner and its locale';
    is_deeply [@{ $server->details($databases{latin}) }{qw(encoding collation)}], ['LATIN1', 'C'],
        'another database has an encoding and a collation of its own';
    is_deeply [@{ $server->details($databases{german}) }{qw(provider locale)}], ['icu', 'de-DE'],
        'a database with a locale of ICU has it';
    is_deeply $details->{extensions}, [map { my ($name, $its, $schema) = split /\t/; { name => $name,
        version => $its,
        schema => $schema } } split /\n/,
        $source->sql('SELECT extname, extversion, extnamespace::regnamespace FROM pg_extension'
        . ' ORDER BY 1', 'shop')], 'extensions have version and schema';
    is_deeply [map { $_->{name} } @{ $details->{extensions} }], ['citext', 'plpgsql'],
        'all extensions are described';
    is_deeply $details->{users}, [map { { name => $_->[0], kind => $_->[1], authentication => $_->[2] } }
        ['member', 'login', undef], ['old "quoted" $role$', 'login', 'md5'],
            ['shop', 'login', 'scram-sha-256'],
        ['team', 'role', undef]], 'roles are described without a hash';
    is_deeply $details->{memberships}, [{ role => 'team', to => 'member', grantable => 1 }],
        'the members of roles are described';
    my @told = map { join ' ', $_->{to}, $_->{on}, $_->{object}, defined $_->{column} ? $_->{column} : '-',
        $_->{grantable},
        join ',', @{ $_->{rights} } } @{ $details->{grants} };
    is_deeply \@told, [
        'PUBLIC database shop - 0 TEMPORARY', 'old "quoted" $role$ database shop - 1 CONNECT',
        'PUBLIC schema public - 0 USAGE', 'PUBLIC view public.cheap - 0 SELECT',
        'team column public.orders item 0 SELECT',
    ], 'each right is described with its role, object and column, but not those of owners';
    is_deeply $details->{definers}, [{ name => 'shop', kind => 'routine', object => 'public.as_shop',
        known => 1 }],
        'what runs with the rights of its owner is listed';
    my %setting = map {@$_} @{ $details->{settings} };
    is_deeply [@setting{qw(TimeZone standard_conforming_strings)}], ['Asia/Tokyo', 'on'],
        'settings are those of the database';
    is_deeply [sort grep { defined $server->details($databases{closed})->{$_} } qw(encoding owner grants
        extensions)],
        [qw(encoding owner)], 'a database that takes no connections is described by its encoding and owner';
};

test 'What is not in a dump is named' => sub {
    my $problems = $dumps->()->{problems};
    my ($server, $databases) = looked();
    my $loses = 'loses its server-wide rights. Give it those anew that it needs:';
    is_deeply problem_texts($problems),
        ['info PostgreSQL database raw: What lies in these tablespaces comes into the default one:'
        . ' fast "one"', map {"warning PostgreSQL database shop: The role $_"} "shop $loses pg_monitor",
        "team $loses CREATEDB, BYPASSRLS, REPLICATION"],
        'each thing that is not in the dump is named';
    my $sql = dumped($server, $databases->{shop});
    is dumped((look())[1], $databases->{shop}), $sql, 'a second dump is equal';
    is $server->dump($databases->{closed}, sub { }), 'it takes no connections',
        'a closed database is refused';
};

test 'Settings and rights of a database are known that older programs leave out' => sub {
    $source_server->();
    my ($server, $databases) = looked();
    is $server->database_statements($databases->{shop}), <<'END', 'settings and rights have statements';
SET client_encoding = 'UTF8';
ALTER DATABASE "shop" SET "work_mem" TO '5MB';
ALTER DATABASE "shop" SET "TimeZone" TO 'Asia/Tokyo';
ALTER ROLE "member" IN DATABASE "shop" SET "search_path" TO 'public';
REVOKE ALL ON DATABASE "shop" FROM PUBLIC;
GRANT TEMPORARY ON DATABASE "shop" TO PUBLIC;
GRANT CONNECT ON DATABASE "shop" TO "shop";
GRANT CREATE ON DATABASE "shop" TO "shop";
GRANT TEMPORARY ON DATABASE "shop" TO "shop";
GRANT CONNECT ON DATABASE "shop" TO "old ""quoted"" $role$" WITH GRANT OPTION;
END
};

test 'A second server with the dumps answers as the first one' => sub {
    my ($source, $target) = ($source_server->(), $target_server->());
    my @questions = (
        ['SELECT * FROM orders ORDER BY id', 'shop'],
        ['SELECT * FROM cheap', 'shop'],
        ['SELECT encode(textsend(v), $$hex$$) FROM t', 'raw'],
        [q{SET client_encoding = 'UTF8'; SELECT v, encode(v::bytea, 'hex') FROM "größe"}, 'latin'],
        ['SELECT twice(4), encode(lo_get(4711), $$hex$$)', 'shop'],
        ['SELECT tgname, pg_get_triggerdef(oid) FROM pg_trigger', 'shop'],
        ['SELECT relname, relacl, pg_get_userbyid(relowner) FROM pg_class WHERE relnamespace ='
            . ' $$public$$::regnamespace'
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
    is $target->sql(@$_), $source->sql(@$_), "both servers answer the same to: $_->[0]" for @questions;
    is $target->sql("SELECT rolcreatedb FROM pg_roles WHERE rolname = 'team'"), "f\n",
        'server-wide rights are not restored';
    is $target->sql("SELECT 1 FROM pg_roles WHERE rolname = 'stranger'"), '',
        'a role that no database needs is not restored';
};

test 'What is written while a dump runs is not in it' => sub {
    my $source = $source_server->();
    my ($server, $databases) = looked();
    my $rows = 50_000;
    $source->sql('CREATE DATABASE long');
    $source->sql("CREATE TABLE a (t text); CREATE TABLE z (t text);"
        . " INSERT INTO a SELECT 'row-' || n || repeat(' ', 100) FROM generate_series(1, $rows) AS n",
        'long');
    my %long = (%{ $databases->{shop} }, name => 'long', users => []);
    my ($error, $dumped, $written) = dump_while_written($server, \%long, qr/row-1\b/,
        sub { $source->sql('DELETE FROM a; INSERT INTO z VALUES ($$row-too-late$$)', 'long') });
    is $error, undef, 'the dump succeeds';
    is $written, 1, 'rows are written while the dump runs';
    is scalar(() = $dumped =~ /row-[0-9]+/g), $rows, 'the rows of a dump are those of its beginning';
    unlike $dumped, qr/row-too-late/, 'a row that is written meanwhile is not in the dump of a later table';
    $source->sql('DROP DATABASE long');
};

test 'A locked table delays a dump for a limited time only' => sub {
    $source_server->();
    my (undef, $databases) = looked();
    my @locked = (limit => 20, lock_milliseconds => 300);
    my ($patient) = Linux::PostgreSql->found(tree => Linux::Tree->new, problems => Agent::Problems->new,
        @locked);
    my $client = Agent::Process::start([qw(runuser -u postgres -- psql -X -q -A -t -h /run/postgresql -d
        shop)],
        stdin => 'pipe');
    print {$client->{in}} "BEGIN; LOCK TABLE orders; SELECT 'locked';\n";
    $client->{in}->flush;
    is readline $client->{out}, "locked\n", 'a table is locked';
    my $until = time + 15;
    # It would end once the lock is released.
    my $error = $patient->dump($databases->{shop}, sub { }, tick => sub { close delete $client->{in}
        if $client->{in} && time > $until });
    like $error, qr/timeout/, 'the dump of a locked table ends with an error';
    ok $client->{in}, 'the dump ends while the table is still locked';
    Agent::Process::finish($client);
};

test 'What a server makes up does not go into SQL' => sub {
    $source_server->();
    my ($server) = looked();
    my $evil = '1 SUPERUSER; DROP ROLE shop; --';
    my $lying = bless { %$server, roles => undef, involved => undef, memberships => undef },
        'Linux::PostgreSql';
    my $hex = unpack 'H*', 'eve';
    no warnings 'redefine';
    local *Linux::PostgreSqlClient::ask = sub {
        my (undef, $sql) = @_;
        return [['16999', $hex, 't', 't', $evil, '', '', '']], undef if $sql =~ /FROM pg_authid/;
        return [['16999', "ALL ON DATABASE shop TO eve; $evil", 'f'], ['0', 'CONNECT', 'f']], undef
            if $sql =~ /aclexplode/;
        return [], undef;
    };
    my $database = { name => 'shop', id => 1, users => [{ name => 'eve', id => 16999 }] };
    my $sql = $lying->role_statements($database) . $lying->database_statements($database);
    like $sql, qr/CREATE ROLE "eve" LOGIN CONNECTION LIMIT -1.*GRANT CONNECT ON DATABASE "shop" TO PUBLIC;/s,
        'what is well-formed goes into the SQL';
    unlike $sql, qr/SUPERUSER|DROP/, 'what a server makes up does not go into the SQL';
};

test 'The database of the server itself counts once it is used' => sub {
    my ($source, $target, $server) = ($source_server->(), $target_server->(), looked());
    $source->sql('CREATE TABLE mine (a int)');
    is_deeply [map { $_->{name} } (look())[1]->databases],
        [$awkward, qw(closed german latin pattern postgres raw shop)],
        'a used database of the server is found';
    $source->sql('INSERT INTO mine VALUES (7); ALTER DATABASE postgres SET work_mem TO $$7MB$$');
    my ($of_server) = grep { $_->{name} eq 'postgres' } (look())[1]->databases;
    $target->sql(dumped($server, $of_server));
    is $target->sql($_), $source->sql($_),
        "both servers answer the same to: $_" for 'SELECT * FROM mine', 'SHOW work_mem';

    $source->sql(<<'END', 'postgres');
CREATE FUNCTION public.textsend(text) RETURNS bytea LANGUAGE sql AS 'SELECT ''\x66616b65''::bytea';
ALTER DATABASE postgres SET search_path TO public, pg_catalog;
END
    is_deeply [map { $_->{name} } (look())[1]->databases],
    [$awkward, qw(closed german latin pattern postgres raw shop)],
        'databases are found although a function of others has the name of a system function';
    $source->sql('DROP FUNCTION public.textsend(text)');
    $_->sql('DROP TABLE mine; ALTER DATABASE postgres RESET ALL') for $source, $target;
};

test 'A dump that is cut off is no dump' => sub {
    $source_server->();
    my ($server, $databases) = looked();
    my $pieces = 0;
    ok !eval { $server->dump($databases->{shop}, sub { die "disk full\n" if $pieces++ }); 1 },
        'a receiver of the dump that dies ends it';
    is $@, "disk full\n", 'the error of the receiver is kept';
};

test 'Servers are found by sockets and by settings' => sub {
    $source_server->();
    mkdir $_ or die "$_: $!" for '/etc/postgresql',
        map { ("/etc/postgresql/$_", "/etc/postgresql/$_/main") } 13, 14, 15;
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
    my ($problems, @servers) = look();
    is_deeply [map { [@$_{qw(address running)}] } map { $_->description } @servers],
        [['/run/postgresql/.s.PGSQL.5432', 1], [undef, 0], [undef, 0]],
        'servers are found by sockets and by settings';
    is_deeply problem_texts($problems),
        ['error PostgreSQL (port 5434): The server cannot be asked: it is not running',
        'info PostgreSQL (port 5435): The server cannot be asked: it is not running'],
        'servers that are down are named with their ports';
    rmtree('/etc/postgresql');
};

test 'A plain account asks as itself' => sub {
    my $source = $source_server->();
    my $result = Agent::Process::run(['runuser', '-u', 'nobody', '--', $^X, (map {"-I$_"} @INC),
        '-MLinux::PostgreSql',
        '-MLinux::Tree', '-MAgent::Problems', '-e',
        'my $p = Agent::Problems->new; my ($s) = Linux::PostgreSql->found('
            . 'tree => Linux::Tree->new, problems => $p, limit => 20); print $_->{text}, "\n" for $p->all']);
    like $result->{out}, qr/\AThe server cannot be asked: .*role "nobody" does not exist/,
        'a plain account without a role gets the reason';

    $source->sql('CREATE ROLE nobody LOGIN; GRANT shop TO nobody');
    $result = Agent::Process::run(['runuser', '-u', 'nobody', '--', $^X, (map {"-I$_"} @INC),
        '-MLinux::PostgreSql',
        '-MLinux::Tree', '-MAgent::Problems', '-e',
        'my $p = Agent::Problems->new; my ($s) = Linux::PostgreSql->found('
            . 'tree => Linux::Tree->new, problems => $p, limit => 20); my ($shop) = grep { $_->{name} eq'
                . ' "shop" } $s->databases;'
            . '$s->dump($shop, sub { }); print "$_->{severity} $_->{text}\n" for $p->all']);
    like $result->{out}, qr/^error The password of the role shop is not in the dump, since only administrators may read it\. Dump as/m,
        'a password that only administrators may read is an error';
    $source->sql('DROP ROLE nobody');
};

test 'A dump from a server that went away fails' => sub {
    my $socket = '/run/postgresql/.s.PGSQL.5432';
    $source_server->();
    my ($server, $databases) = looked();
    rename $socket, "$socket.away" or die $!;
    my $error = $server->dump($databases->{shop}, sub { });
    rename "$socket.away", $socket or die $!;
    like $error, qr/failed: No such file or directory/, 'a dump from a server that went away fails';
};
run_tests;
