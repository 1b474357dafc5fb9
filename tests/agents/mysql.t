# The MariaDB server of a host: its databases are listed, dumped whole and restored.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use FoundDatabases qw(dumps_of found_servers with_databases);
use Imitated qw(output_of problem_texts);
use Linux::MySql;
use Linux::Tree;
use PrivateServer qw(dumped dump_while_written);
use Test::More;
use Independent;

sub look { return found_servers('Linux::MySql', @_) }
sub looked { return with_databases(look()) }

my $source_server = once(sub {
    my $source = PrivateServer->new('mariadb', '/mnt/source-server');
    $source->sql(<<'END');
CREATE DATABASE shop COLLATE utf8mb4_bin;
USE shop;
CREATE TABLE orders (id INT PRIMARY KEY AUTO_INCREMENT, item TEXT, picture BLOB, flags BIT(5), price DECIMAL(9,2),
    at TIMESTAMP NULL, total DECIMAL(9,2) AS (price * 2) STORED, KEY (price));
INSERT INTO orders (item, picture, flags, price, at) VALUES ('tea ''🍵'' \\ \n and', x'00ff0a0d271a5c', b'10101', 1.50,
    '2020-01-02 03:04:05'), (NULL, NULL, NULL, NULL, NULL), ('', '', 0, 0, NULL);
CREATE TABLE log (line VARCHAR(50)) ENGINE=MyISAM;
INSERT INTO log VALUES ('one');
CREATE TABLE kept (a INT) WITH SYSTEM VERSIONING;
INSERT INTO kept VALUES (1);
UPDATE kept SET a = 2;
CREATE SEQUENCE numbers START WITH 7;
CREATE VIEW cheap AS SELECT item FROM orders WHERE price < 2;
CREATE TABLE gone (a INT);
CREATE VIEW broken AS SELECT a FROM gone;
DROP TABLE gone;
CREATE USER 'shop'@'%' IDENTIFIED BY 'pa''ss';
CREATE USER 'o''brien'@'localhost' IDENTIFIED BY '';
CREATE USER 'reader'@'10.0.0.%' IDENTIFIED BY 'x';
CREATE USER 'stranger'@'localhost' IDENTIFIED BY 'y';
CREATE ROLE buyers;
GRANT ALL ON shop.* TO 'shop'@'%';
GRANT FILE ON *.* TO 'shop'@'%';
GRANT SELECT (item), UPDATE (price) ON shop.orders TO 'o''brien'@'localhost';
GRANT SELECT ON shop.* TO buyers;
GRANT buyers TO 'reader'@'10.0.0.%';
SET DEFAULT ROLE buyers FOR 'reader'@'10.0.0.%';
DELIMITER //
CREATE DEFINER='shop'@'%' PROCEDURE count_them() BEGIN SELECT COUNT(*) FROM orders; END//
CREATE FUNCTION twice(a INT) RETURNS INT DETERMINISTIC RETURN a * 2//
CREATE TRIGGER mark BEFORE INSERT ON log FOR EACH ROW BEGIN SET NEW.line = CONCAT('<', NEW.line, '>'); END//
CREATE USER 'admin'@'%' IDENTIFIED BY 'z'//
CREATE DEFINER='admin'@'%' FUNCTION of_admin() RETURNS INT RETURN 1//
CREATE DEFINER='admin'@'%' VIEW seen_by_admin AS SELECT item FROM orders//
CREATE EVENT daily ON SCHEDULE EVERY 1 DAY DO DELETE FROM log//
DELIMITER ;
GRANT EXECUTE ON PROCEDURE shop.count_them TO 'stranger'@'localhost';
CREATE DATABASE `sh%p`;
CREATE DATABASE `-x ``é`;
CREATE TABLE `-x ``é`.`t ``"'é` (`c ``"'é` INT);
INSERT INTO `-x ``é`.`t ``"'é` VALUES (5);
CREATE VIEW `-x ``é`.`v ``w` AS SELECT * FROM `-x ``é`.`t ``"'é`;
CREATE USER 'ba``ck``'@'localhost' IDENTIFIED BY 'x';
GRANT SELECT ON `-x ``é`.* TO 'ba``ck``'@'localhost' WITH GRANT OPTION;
CREATE DATABASE client_a;
CREATE DATABASE clientba;
GRANT SELECT ON `client\_%`.* TO 'stranger'@'localhost';
END
    return $source;
});

my $dumps = once(sub {
    $source_server->();
    return dumps_of(looked());
});

test 'The databases of a server are found with their accounts' => sub {
    my $source = $source_server->();
    my ($problems, $server) = look();
    is_deeply $server->description, { kind => 'mysql', label => 'MariaDB', product => 'MariaDB', running => 1,
        version => (split /\n/, $source->sql('SELECT VERSION()'))[0], address => '/run/mysqld/mysqld.sock' },
        'the server is described';
    my %databases = map { $_->{name} => $_ } $server->databases;
    is_deeply [sort keys %databases], ['-x `é', qw(client_a clientba sh%p shop)],
        'all databases but its own are found';
    is_deeply problem_texts($problems), [], 'a good server has no problems';
    cmp_ok $databases{shop}{bytes}, '>', 16384, 'the size of a database is known';
    is $databases{client_a}{bytes}, 0, 'an empty database has no bytes';
    is_deeply [map {"$_->{name}\@$_->{host}"} @{ $databases{shop}{users} }],
        ['buyers@', 'o\'brien@localhost', 'reader@10.0.0.%', 'shop@%', 'stranger@localhost'],
        'the accounts of a database are found by all kinds of grants and by roles';
    is_deeply [map { $_->{name} } @{ $databases{client_a}{users} }], ['stranger'],
        'the account of a grant with a wildcard is found';
    is_deeply [map { $_->{name} } @{ $databases{'-x `é'}{users} }], ['ba``ck``'],
        'the account of a database with a backtick in its name is found';
    is_deeply $databases{clientba}{users}, [], 'an escaped wildcard of a grant stands for itself';
    is_deeply $databases{'sh%p'}{users}, [],
        'a database with a name like a pattern has no accounts of others';
};

test 'Passwords of accounts are compared' => sub {
    $source_server->();
    my ($server) = looked();
    is $server->password_matches('shop', "pa'ss"), 1, 'a password is known to be right';
    is $server->password_matches('shop', 'pass'), 0, 'a password is known to be wrong';
    is $server->password_matches('nobody', 'pass'), undef, 'nothing is known of a missing account';
};

test 'A database is described with what a restore needs to know' => sub {
    my $source = $source_server->();
    my ($server, $databases) = looked();
    my %databases = %$databases;
    my $details = $server->details($databases{shop});
    is_deeply [@$details{qw(version encoding collation)}], [$server->{version}, 'utf8mb4', 'utf8mb4_bin'],
        'a database has its character set, its collation and the version of its server';
    my %setting = map {@$_} @{ $details->{settings} };
    my @expected_settings = map { [split /\t/] } split /\n/,
        $source->sql(q{SHOW GLOBAL VARIABLES WHERE Variable_name IN
        ('sql_mode', 'lower_case_table_names', 'character_set_server', 'collation_server')});
    is_deeply [map { [$_, $setting{$_}] } map { $_->[0] } @expected_settings], \@expected_settings,
        'a database has the settings of its server that decide what its SQL means';
    my %plain = (host => 'localhost', authentication => 'mysql_native_password');
    is_deeply $details->{users}, [{ name => 'buyers', host => undef, kind => 'role',
        authentication => undef },
        (map { { %plain, %$_, kind => 'login' } } { name => "o'brien" },
            { name => 'reader', host => '10.0.0.%' },
            { name => 'shop', host => '%' }, { name => 'stranger' })],
            'accounts are described without a hash';
    is_deeply $details->{memberships}, [{ role => 'buyers', 'role-host' => undef, to => 'reader',
        host => '10.0.0.%',
        grantable => 0, default => 1 }], 'the members of roles are described';
    my %right = (host => 'localhost', object => 'orders', column => undef, grantable => 0);
    my @grants = sort { "$a->{to} $a->{on}" cmp "$b->{to} $b->{on}" } grep { $_->{to} ne 'shop' } @{ $details->{grants} };
    is_deeply \@grants, [
        { %right, to => 'buyers', host => undef, on => 'database', object => 'shop', rights => ['SELECT'] },
        { %right, to => "o'brien", on => 'column', column => 'item', rights => ['SELECT'] },
        { %right, to => "o'brien", on => 'column', column => 'price', rights => ['UPDATE'] },
        { %right, to => 'stranger', on => 'procedure', object => 'count_them', rights => ['EXECUTE'] },
    ], 'each right is described with its account, its object and its column';
    my ($all) = grep { $_->{to} eq 'shop' } @{ $details->{grants} };
    cmp_ok scalar @{ $all->{rights} }, '>', 15, 'all rights on a database are described one by one';
    is_deeply [map { $_->{grantable} } @{ $server->details($databases{'-x `é'})->{grants} }], [1],
        'a right that may be granted to others is described as such';
    is_deeply [map { "$_->{object} $_->{rights}[0]" } @{ $server->details($databases{client_a})->{grants} }],
        ['client\_% SELECT'], 'rights on many databases keep their pattern';
    is_deeply [map {"$_->{kind} $_->{object} $_->{name}\@$_->{host} $_->{known}"} @{ $details->{definers} }], [
        'event daily root@localhost 0', 'function of_admin admin@% 0', 'function twice root@localhost 0',
        'procedure count_them shop@% 1', 'trigger mark root@localhost 0', 'view broken root@localhost 0',
        'view cheap root@localhost 0', 'view seen_by_admin admin@% 0'],
        'views, routines, triggers and events are listed with the accounts they run as';
};

test 'What is not in a dump is named' => sub {
    my $problems = $dumps->()->{problems};
    is_deeply problem_texts($problems), [
        'warning MariaDB database shop: The view broken cannot be read and stays out: ERROR 1356 (HY000) at'
            . ' line 1:'
            . " View 'shop.broken' references invalid table(s) or column(s) or function(s) or"
                . " definer/invoker of view"
            . ' lack rights to use them',
        'warning MariaDB database shop: What changes in these tables while they are dumped may be half in the'
            . ' dump, since their engine has no transactions: log',
        'warning MariaDB database shop: Views, routines, triggers or events of it run as accounts that are'
            . ' not in the dump,'
            . ' and fail until the new host has them: admin@%',
        'warning MariaDB database shop: The account `shop`@`%` loses its server-wide rights. Give it those'
            . ' anew that it needs:'
            . ' FILE',
    ], 'each thing that is not in the dump is named';
    my ($server, $databases) = looked();
    my $sql = dumped($server, $databases->{shop});
    is dumped((look())[1], $databases->{shop}), $sql, 'a second dump is equal';
    like $sql, qr/^-- This view could not be read:\n-- CREATE .* VIEW `shop`\.`broken` AS/m,
        'a broken view is kept as a comment';
};

test 'A second server with the dumps answers as the first one' => sub {
    my $source = $source_server->();
    my %sql = %{ $dumps->()->{sql} };
    my $target = PrivateServer->new('mariadb', '/mnt/target-server', '/mnt/target');
    $target->sql($sql{$_}) for sort keys %sql;
    my @questions = (
        'SELECT *, HEX(picture), HEX(item), HEX(flags) FROM shop.orders',
        'SELECT * FROM shop.log',
        'SELECT a, row_start, row_end FROM shop.kept FOR SYSTEM_TIME ALL ORDER BY 1',
        'SELECT * FROM shop.cheap',
        'SHOW CREATE TABLE shop.orders',
        'SHOW CREATE VIEW shop.cheap',
        'SHOW CREATE PROCEDURE shop.count_them',
        'SHOW CREATE FUNCTION shop.twice',
        'SELECT action_statement, action_timing, definer, sql_mode FROM information_schema.triggers',
        'SHOW CREATE DATABASE shop',
        'SELECT definer, event_definition, interval_value, interval_field, starts FROM'
            . ' information_schema.events',
        q{SELECT * FROM `-x ``é`.`t ``"'é`},
        "SHOW GRANTS FOR 'o''brien'\@'localhost'",
        "SHOW GRANTS FOR 'reader'\@'10.0.0.%'",
        "SHOW GRANTS FOR 'stranger'\@'localhost'",
        'SHOW GRANTS FOR buyers',
        "SHOW CREATE USER 'shop'\@'%'",
        q{SELECT User, Host, default_role, authentication_string FROM mysql.user WHERE User <> 'admin' ORDER BY 1, 2},
        'SELECT NEXTVAL(shop.numbers)',
    );
    is $target->sql("$_;"), $source->sql("$_;"), "both servers answer the same to: $_" for @questions;
    (my $without = $source->sql("SHOW GRANTS FOR 'shop'\@'%'")) =~ s/GRANT FILE/GRANT USAGE/;
    is $target->sql("SHOW GRANTS FOR 'shop'\@'%'"), $without, 'server-wide rights are not restored';
    $target->stop;
};

test 'What is written while a dump runs is not in it' => sub {
    my $source = $source_server->();
    my ($server, $databases) = looked();
    my $rows = 50_000;
    $source->sql("CREATE DATABASE `long`; USE `long`; CREATE TABLE a (t VARCHAR(200)); CREATE TABLE z (t"
        . " TEXT);"
        . " INSERT INTO a SELECT CONCAT('row-', seq, REPEAT(' ', 100)) FROM seq_1_to_$rows");
    my %long = (%{ $databases->{shop} }, name => 'long', users => []);
    my ($error, $dumped, $written) = dump_while_written($server, \%long, qr/row-1\b/,
        sub { $source->sql('DELETE FROM a; INSERT INTO z VALUES ("row-too-late")', 'long') });
    is $error, undef, 'the dump succeeds';
    is $written, 1, 'rows are written while the dump runs';
    is scalar(() = $dumped =~ /row-[0-9]+/g), $rows, 'the rows of a dump are those of its beginning';
    unlike $dumped, qr/row-too-late/, 'a row that is written meanwhile is not in the dump of a later table';
    $source->sql('DROP DATABASE `long`');
};

test 'A damaged table is named and the others are dumped' => sub {
    my $source = $source_server->();
    $source->sql("CREATE DATABASE harmed; USE harmed; CREATE TABLE orders (id INT); INSERT INTO orders"
        . " VALUES (1);"
        . " CREATE TABLE log (line VARCHAR(50)) ENGINE=MyISAM; INSERT INTO log VALUES ('one'); FLUSH TABLES"
            . " log");
    truncate '/mnt/source-server/data/harmed/log.MYI', 10 or die $!;
    my ($server, $databases, $problems) = looked();
    my $sql = dumped($server, $databases->{harmed});
    $source->sql('DROP DATABASE harmed');
    like $sql, qr/INSERT INTO `orders`/, 'the other table of a damaged database is dumped';
    like join("\n", @{ problem_texts($problems) }),
        qr/^error MariaDB database harmed: Not in the dump: .*\blog\b/m,
        'the damaged table is an error';
};

test 'A password is in a file or nowhere' => sub {
    my $source = $source_server->();
    my (undef, $databases) = looked();
    my %databases = %$databases;
    $source->sql("CREATE USER 'agent'\@'localhost' IDENTIFIED BY 'secret-word';"
        . " GRANT ALL ON *.* TO 'agent'\@'localhost' WITH GRANT OPTION;"
        . " ALTER USER 'root'\@'localhost' IDENTIFIED BY 'other-word'");
    my ($problems, $server) = look();
    is $server->description->{running}, 0, 'a server that refuses the login counts as one that does not run';
    like join("\n", @{ problem_texts($problems) }),
        qr/\Aerror MariaDB: The server cannot be asked: ERROR 1045 .*Access denied/,
        'a login that is refused is an error';
    mkdir '/etc/sondrel' or die $!;
    open my $file, '>', '/etc/sondrel/mysql.cnf' or die $!;
    print {$file} "[client]\nuser=agent\npassword=secret-word\n";
    close $file or die $!;
    chmod 0600, '/etc/sondrel/mysql.cnf' or die $!;
    ($problems, $server) = look();
    is_deeply [map { $_->{name} } $server->databases], [sort keys %databases],
        'all databases are found by the login of an option file';
    is_deeply problem_texts($problems),
        ['warning MariaDB: These accounts have rights on the whole server only and are in no'
        . ' dump: `agent`@`localhost`. Make those on the new host that something logs in as'],
        'only the account with rights on the whole server is named';
    ok $server->opens_all('agent'), 'an account with rights on the whole server opens every database';
    ok !$server->opens_all($_), "$_ does not open every database" for 'shop', 'admin';
    like dumped($server, $databases{client_a}), qr/CREATE DATABASE/,
        'a dump is made by the login of the option file';
    output_of('mariadb', '--defaults-file=/etc/sondrel/mysql.cnf', '--socket=/run/mysqld/mysqld.sock', '-e',
        q{ALTER USER root@localhost IDENTIFIED VIA mysql_native_password USING 'invalid' OR unix_socket});
    $source->sql("DROP USER 'agent'\@'localhost'");
    unlink '/etc/sondrel/mysql.cnf' or die $!;
};

test 'A server that does not answer is asked once' => sub {
    $source_server->();
    open my $file, '<', '/mnt/source-server/pid' or die $!;
    chomp(my $pid = readline $file);
    kill STOP => $pid or die $!;
    my ($problems) = look(limit => 1);
    kill CONT => $pid or die $!;
    is_deeply problem_texts($problems),
        ['error MariaDB: The server cannot be asked: no answer within 1 seconds'],
        'a server that does not answer is named once';
};

test 'A plain account takes what its own login may see' => sub {
    $source_server->();
    mkdir '/mnt/plain' or die $!;
    open my $file, '>', '/mnt/plain/.my.cnf' or die $!;
    print {$file} "[client]\nuser=shop\npassword=\"pa'ss\"\n";
    close $file or die $!;
    my $code = <<'END';
    use Linux::MySql; use Linux::Tree; use Agent::Problems;
    my $problems = Agent::Problems->new;
    my ($server) = Linux::MySql->found(tree => Linux::Tree->new, problems => $problems);
    for my $database ($server->databases) {
        print "database $database->{name}\n";
        my $error = $server->dump($database, sub { print $_[0] });
        print defined $error ? "failed: $error\n" : "whole\n";
    }
    print "$_->{severity} $_->{text}\n" for $problems->all;
END
    my $result = Agent::Process::run(['runuser', '-u', 'nobody', '--', 'env', 'HOME=/mnt/plain', $^X,
        (map {"-I$_"} @INC), '-e', $code]);
    like $result->{out}, qr/^database shop$/m, 'a plain account sees its own database';
    unlike $result->{out}, qr/^database client/m, 'a plain account sees no databases of others';
    like $result->{out}, qr/^INSERT INTO `orders`.*^GRANT ALL PRIVILEGES ON `shop`\.\* TO `shop`\@`%`;\n.*^whole$/ms,
        'a plain account dumps its database with its grants';
    like $result->{out}, qr/^CREATE USER IF NOT EXISTS `shop`\@`%` IDENTIFIED/m,
        'the account of a plain login is in the dump';
    is $result->{err}, '', 'nothing is written to standard error';
};

test 'A dump that is cut off is no dump' => sub {
    $source_server->();
    my ($server, $databases) = looked();
    my $pieces = 0;
    ok !eval { $server->dump($databases->{shop}, sub { die "disk full\n" if $pieces++ }); 1 },
        'a receiver of the dump that dies ends it';
    is $@, "disk full\n", 'the error of the receiver is kept';
};

test 'A dump from a server that went away fails' => sub {
    $source_server->();
    my ($server, $databases) = looked();
    my $socket = '/run/mysqld/mysqld.sock';
    rename $socket, "$socket.away" or die $!;
    my $error = $server->dump($databases->{shop}, sub { });
    rename "$socket.away", $socket or die $!;
    like $error, qr/Can't connect/, 'a dump from a server that went away fails';
};

test 'A server that is down is named and a program without data is no server' => sub {
    mkdir $_ or die "$_: $!"
        for map {"/mnt/system$_"} '', qw(/usr /usr/sbin /var /var/lib /var/lib/mysql /var/lib/mysql/mysql);
    open my $file, '>', '/mnt/system/usr/sbin/mysqld' or die $!;
    my ($problems, $server) = look(tree => Linux::Tree->new(root => '/mnt/system'));
    is_deeply $server->description,
        { kind => 'mysql', label => 'MySQL', product => 'MySQL', running => 0, version => undef,
            address => undef },
        'a server that is down is described as one that does not run';
    is_deeply [$server->databases], [], 'a server that is down lists nothing';
    is_deeply problem_texts($problems),
        ['error MySQL: The server cannot be asked: no server of the host listens at'
        . ' any of its sockets'],
        'a server that is down is an error';
    rmdir '/mnt/system/var/lib/mysql/mysql' or die $!;
    my (undef, @servers) = look(tree => Linux::Tree->new(root => '/mnt/system'));
    is_deeply \@servers, [],
        'a program without data is no server';
};

run_tests;
