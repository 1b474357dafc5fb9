# What differs in MySQL 8: roles are accounts, and the default roles are in the statement that
# creates an account. Debian has no such server, so programs that answer as its documentation
# says replace its clients.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Problems;
use FakeServer;
use Imitated qw(problem_texts);
use Linux::MySql;
use Linux::Tree;
use PrivateServer qw(dumped);
use Test::More;
use Independent;

my $listener = once(sub {
    unlink '/etc/mysql';
    mkdir $_ or die "$_: $!" for '/run/mysqld', '/mnt/programs';
    chown((getpwnam 'mysql')[2, 3], '/run/mysqld') or die $!;
    my $listener = FakeServer->new(account => 'mysql', path => '/run/mysqld/mysqld.sock');
    $ENV{PATH} = "/mnt/programs:$ENV{PATH}";
    return $listener;
});

sub program {
    my ($name, $text) = @_;
    open my $file, '>', "/mnt/programs/$name" or die $!;
    print {$file} "#!$^X\n$text";
    close $file or die $!;
    chmod 0755, "/mnt/programs/$name" or die $!;
    return;
}

my $HELP = <<'END';
  --plugin-dir=name   Directory for client-side plugins.
  --local-infile      Enable/disable LOAD DATA LOCAL INFILE.
  --enable-cleartext-plugin
                      Enable/disable the clear text authentication plugin.
  --set-gtid-purged[=name]
  --column-statistics Add an ANALYZE TABLE statement
  --no-tablespaces    This option will suppress CREATE LOGFILE GROUP
  -E, --events        Dump events.
END

# Statement => rows; what is not here is an error. As MySQL 8.0 prints them.
my %answers = (
    'SELECT VERSION(), @@socket;' => ["8.0.36\t/run/mysqld/mysqld.sock"],
    'SELECT schema_name FROM information_schema.schemata;' => [qw(shop stock sys mysql)],
    'SELECT table_schema, IFNULL' => ["shop\t16384", "stock\t0"],
    'FROM information_schema.schema_privileges' => [
        "'shop_rw'\@'%'\tshop\t\t\tINSERT\tNO", "'shop_rw'\@'%'\tshop\t\t\tSELECT\tNO",
        "'audit'\@'%'\tstock\t\t\tSELECT\tNO"],
    'FROM information_schema.table_privileges' => [],
    'FROM information_schema.column_privileges' => [],
    'FROM mysql.procs_priv' => [],
    'FROM information_schema.user_privileges' => ["'backup'\@'localhost'\tSELECT",
        "'mysql.sys'\@'localhost'\tSUPER",
        "'root'\@'localhost'\tSELECT"],
    'FROM mysql.role_edges' => ["app\tlocalhost\taudit\t%\tN\tY", "app\tlocalhost\tshop_rw\t%\tN\tY",
        "boss\t%\tshop_rw\t%\tY\tN"],
    'SELECT User, Host, plugin, HEX(authentication_string), 0 FROM mysql.user;' => [
        map {"$_\tcaching_sha2_password\t41\t0"} "app\tlocalhost", "boss\t%", "shop_rw\t%", "audit\t%"],
    'SHOW CREATE USER `app`@`localhost`;' =>
        ["CREATE USER `app`\@`localhost` IDENTIFIED WITH 'caching_sha2_password' AS"
        . " 0x24412430303524 DEFAULT ROLE `audit`\@`%`,`shop_rw`\@`%` REQUIRE NONE PASSWORD EXPIRE DEFAULT"
            . " ACCOUNT UNLOCK"],
    'SHOW CREATE USER `boss`@`%`;' =>
        ["CREATE USER `boss`\@`%` IDENTIFIED WITH 'caching_sha2_password' AS 0x24 REQUIRE NONE"
        . " ACCOUNT UNLOCK ATTRIBUTE '{\"comment\": \"it''s DEFAULT ROLE `x`\@`%` here\"}'"],
    'SHOW CREATE USER `shop_rw`@`%`;' =>
        ["CREATE USER `shop_rw`\@`%` IDENTIFIED WITH 'caching_sha2_password' REQUIRE NONE"
        . " PASSWORD EXPIRE ACCOUNT LOCK"],
    'SHOW GRANTS FOR `app`@`localhost`;' => ["GRANT USAGE ON *.* TO `app`\@`localhost`",
        "GRANT `audit`\@`%`,`shop_rw`\@`%` TO `app`\@`localhost`"],
    'SHOW GRANTS FOR `boss`@`%`;' => ["GRANT USAGE ON *.* TO `boss`\@`%`",
        "GRANT BACKUP_ADMIN ON *.* TO `boss`\@`%`", "GRANT `shop_rw`\@`%` TO `boss`\@`%` WITH ADMIN OPTION"],
    'SHOW GRANTS FOR `shop_rw`@`%`;' => ["GRANT USAGE ON *.* TO `shop_rw`\@`%`",
        "GRANT SELECT, INSERT ON `shop`.* TO `shop_rw`\@`%`"],
    'SELECT table_name FROM information_schema.views' => [],
    'SELECT table_name FROM information_schema.tables' => [],
    "SELECT 'event'" => [],
    'SELECT default_character_set_name' => ["utf8mb4\tutf8mb4_0900_ai_ci"],
    'SHOW GLOBAL VARIABLES' => ["lower_case_table_names\t0",
        "sql_mode\tONLY_FULL_GROUP_BY,STRICT_TRANS_TABLES"],
);
# As lines of hexadecimal words, which need no quoting.
sub write_answers {
    open my $file, '>', '/mnt/answers' or die $!;
    print {$file} map { join(' ', map { unpack 'H*', $_ } $_, map {"$_\n"} @{ $answers{$_} })
        . "\n" } sort keys %answers;
    close $file or die $!;
    return;
}

my $RECORD = q{open my $record, '>>', '/mnt/arguments' or die; print {$record} join(' ', $0, @ARGV), "\n"; close $record;};
my $ASK_FOR_HELP = qq{if (grep { \$_ eq '--help' } \@ARGV) { print <<'HELP'; exit 0 }\n${HELP}HELP\n};

sub write_programs {
    program('mariadb', $ASK_FOR_HELP . $RECORD . <<'EOF');
local $/ = undef;
my $asked = <STDIN>;
$asked =~ s/\s+/ /g;
open my $file, '<', '/mnt/answers' or die;
for (split /\n/, readline $file) {
    my ($statement, @rows) = map { pack 'H*', $_ } split / /;
    next if index($asked, $statement) < 0;
    print @rows;
    exit 0;
}
print STDERR "ERROR 1146 (42S02) at line 1: no answer to: $asked\n";
exit 1;
EOF
    program('mariadb-dump', $ASK_FOR_HELP . $RECORD . q{print "CREATE DATABASE `shop`;\n-- Dump completed\n";});
    return;
}

my $looked = once(sub {
    $listener->();
    write_answers();
    write_programs();
    my $problems = Agent::Problems->new;
    my ($server) = Linux::MySql->found(tree => Linux::Tree->new, problems => $problems, limit => 20);
    return { server => $server, problems => $problems, databases => { map { $_->{name} => $_ } $server->databases } };
});

test 'Databases have the accounts of their roles' => sub {
    my ($server, $problems) = @{ $looked->() }{qw(server problems)};
    is $server->description->{product}, 'MySQL', 'the server is one of MySQL';
    my %databases = map { $_->{name} => $_ } $server->databases;
    is_deeply [sort keys %databases], [qw(shop stock)], 'the databases of the server itself are left out';
    is_deeply [map {"$_->{name}\@$_->{host}"} @{ $databases{shop}{users} }], ['app@localhost', 'boss@%', 'shop_rw@%'],
        'a database has the accounts of its roles';
    is_deeply [grep {/server only/} @{ problem_texts($problems) }], ['warning MySQL: These accounts have rights on the whole server only and are in no dump:'
        . ' `backup`@`localhost`. Make those on the new host that something logs in as'],
        'an account with rights on the whole server only is named';
};

test 'Roles are created, then granted, then made default roles' => sub {
    my ($server, $problems, %databases) = (@{ $looked->() }{qw(server problems)}, %{ $looked->()->{databases} });
    is dumped($server, $databases{shop}), <<'EOF', 'roles are created, granted, and made default roles';
-- Accounts of the database shop
CREATE USER IF NOT EXISTS `app`@`localhost` IDENTIFIED WITH 'caching_sha2_password' AS 0x24412430303524 REQUIRE NONE PASSWORD EXPIRE DEFAULT ACCOUNT UNLOCK;
CREATE USER IF NOT EXISTS `boss`@`%` IDENTIFIED WITH 'caching_sha2_password' AS 0x24 REQUIRE NONE ACCOUNT UNLOCK ATTRIBUTE '{"comment": "it''s DEFAULT ROLE `x`@`%` here"}';
CREATE USER IF NOT EXISTS `shop_rw`@`%` IDENTIFIED WITH 'caching_sha2_password' REQUIRE NONE PASSWORD EXPIRE ACCOUNT LOCK;

CREATE DATABASE `shop`;
-- Dump completed

-- What the accounts may do
GRANT `shop_rw`@`%` TO `app`@`localhost`;
GRANT `shop_rw`@`%` TO `boss`@`%` WITH ADMIN OPTION;
GRANT SELECT, INSERT ON `shop`.* TO `shop_rw`@`%`;
SET DEFAULT ROLE `shop_rw`@`%` TO `app`@`localhost`;
EOF
    is scalar(grep { $_ eq 'warning MySQL database shop: The account `boss`@`%` loses its server-wide rights. Give it'
        . ' those anew that it needs: BACKUP_ADMIN' } @{ problem_texts($problems) }), 1,
        'an account that loses rights on the whole server is named';
};

test 'An account whose grants the server does not show is missing' => sub {
    my ($server, $problems, %databases) = (@{ $looked->() }{qw(server problems)}, %{ $looked->()->{databases} });
    dumped($server, $databases{stock});
    like join("\n", @{ problem_texts($problems) }), qr/^error MySQL database stock: The account `audit`\@`%` and its grants are/m,
        'an account whose grants are not shown is an error of its database';
};

test 'An account that is granted to others is a role' => sub {
    my ($server, %databases) = ($looked->()->{server}, %{ $looked->()->{databases} });
    my $details = $server->details($databases{shop});
    is_deeply $details->{users}, [{ name => 'app', host => 'localhost', kind => 'login', authentication => 'caching_sha2_password' },
        { name => 'boss', host => '%', kind => 'login', authentication => 'caching_sha2_password' },
        { name => 'shop_rw', host => '%', kind => 'role', authentication => undef }],
        'an account that is granted to others is described as a role';
    is_deeply $details->{memberships}, [{ role => 'shop_rw', 'role-host' => '%', to => 'app', host => 'localhost', grantable => 0,
        default => 1 }, { role => 'shop_rw', 'role-host' => '%', to => 'boss', host => '%', grantable => 1, default => 0 }],
        'the members of a role are described';
};

test 'Each command connects to the socket and sends no password or file' => sub {
    my ($server, %databases) = ($looked->()->{server}, %{ $looked->()->{databases} });
    dumped($server, $databases{shop});
    open my $file, '<', '/mnt/arguments' or die $!;
    my @commands = readline $file;
    my $to = '--protocol=socket --host=localhost --socket=/run/mysqld/mysqld.sock --plugin-dir=/dev/null'
        . ' --skip-enable-cleartext-plugin --local-infile=0 ';
    is_deeply [grep { index($_, " $to") < 0 } @commands], [],
        'each command has the options for the socket and against sending a password or a file';
    cmp_ok scalar @commands, '>', 15, 'more than 15 commands were run';
    like join('', grep {/mariadb-dump/} @commands), qr/ --set-gtid-purged=OFF --column-statistics=0 /,
        'the program that dumps gets what MySQL 8 needs';
};

run_tests;
