# What other accounts than root and the service accounts put where the agent looks for database
# servers: it hides no server, gets no secret and its answers are not used.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Problems;
use Agent::Process qw(run);
use FakeServer;
use File::Path qw(rmtree);
use FoundDatabases qw(found_servers);
use Imitated qw(problem_texts write_file);
use Linux::MySql;
use Linux::PostgreSql;
use Linux::Tree;
use Test::More;
use Independent;
use Time::HiRes ();

my $SECRET = 'the-word-of-root';

# A /tmp of the test's own, and none of the files that the packages have left on this machine.
run(['mount', '-t', 'tmpfs', '-o', 'mode=1777', 'own', $_])->{status} and die "Cannot mount $_\n"
    for '/tmp', '/var/lib/mysql';
unlink '/etc/postgresql', '/etc/mysql';
mkdir $_ or die "$_: $!\n" for '/etc/sondrel', '/run/mysqld';
chown((getpwnam 'mysql')[2, 3], '/run/mysqld') or die $!;

# No server, and no settings but the agent's own: files that a server asks for are sent, unless the agent
# forbids it.
sub begin_anew {
    my ($more_options) = @_;
    rmtree(['/etc/mysql', '/etc/postgresql']);
    unlink '/tmp/mysql.sock', '/tmp/other.sock', '/run/mysqld/mysqld.sock', glob '/tmp/.s.PGSQL.*';
    write_file('/etc/sondrel/mysql.cnf', "[mysql]\nlocal-infile=1\n[client]\nuser=agent\npassword=$SECRET\n"
        . ($more_options || ''));
    chmod 0600, '/etc/sondrel/mysql.cnf' or die $!;
    return;
}

# The seconds for one server.
my $LIMIT = 3;

sub look { return found_servers($_[0], limit => $LIMIT) }

# --- what speaks as MySQL ---

sub send_packet {
    my ($connection, $number, $payload) = @_;
    print {$connection} substr(pack('V', length $payload), 0, 3), chr $number, $payload;
    $connection->flush;
    return;
}

sub receive_packet {
    my ($connection) = @_;
    my $got = read $connection, my $head, 4;
    return undef if !$got || $got < 4;
    my $payload = '';
    read $connection, $payload, unpack 'V', substr($head, 0, 3) . "\0";
    return (ord substr($head, 3), $payload);
}

my $OK = "\0\0\0\2\0\0\0";

# Takes every login, after it has asked for the password by the plugin, if one is given.
# Answers every statement by asking for a file of the client's, if one is given.
sub mysql_server {
    my ($plugin, $wanted) = @_;
    my $abilities = 0x1 | 0x8 | 0x80 | 0x200 | 0x2000 | 0x8000 | 0x80000;
    return sub {
        my ($connection, $said) = @_;
        send_packet($connection, 0, "\x0a" . "8.0.36\0" . pack('V', 1) . 'saltsalt' . "\0"
            . pack('v', $abilities & 0xffff)
            . "\x21" . pack('v', 2) . pack('v', $abilities >> 16) . chr(21) . "\0" x 10 . "saltsaltsalt\0"
            . "mysql_native_password\0");
        my ($number, $login) = receive_packet($connection);
        return if !defined $login;
        syswrite $said, "login\n";
        if (defined $plugin) {
            send_packet($connection, $number + 1, "\xfe$plugin\0"
                . ($plugin eq 'dialog' ? "\4Password: " : 'x' x 20 . "\0"));
            ($number, my $answer) = receive_packet($connection);
            syswrite $said, "answer: $answer\n" if defined $answer;
            return if !defined $answer;
        }
        send_packet($connection, $number + 1, $OK);
        while (defined((($number, my $command) = receive_packet($connection))[1])) {
            if (!defined $wanted || $command =~ /\A\x01/) {
                send_packet($connection, $number + 1, $OK);
                next;
            }
            send_packet($connection, $number + 1, "\xfb$wanted");
            while (my ($next, $content) = receive_packet($connection)) {
                last if !defined $content;
                syswrite $said, "file: $content\n" if length $content;
                $number = $next;
                last if !length $content;
            }
            send_packet($connection, $number + 1, $OK);
        }
    };
}

my $OF_PLAIN = 'error plain: The account has a MySQL or MariaDB server of its own at /tmp/mysql.sock, which'
    . ' is not the'
    . " host's and is not asked: its databases are not dumped. Dump those that are needed as this account,"
        . " with mysqldump";

for my $plugin ('mysql_clear_password', 'dialog', 'mysql_native_password') {
    test "A server of an account that asks by $plugin is not spoken to" => sub {
        begin_anew();
        my $fake = FakeServer->new(account => 'plain', path => '/tmp/mysql.sock',
            talk => mysql_server($plugin));
        my ($problems, @servers) = look('Linux::MySql');
        is $fake->said, '', 'the server is sent nothing';
        is_deeply [\@servers, problem_texts($problems)], [[], [$OF_PLAIN]],
            'the server is named and is not taken for one of the host';
    };
}

for my $plugin ('mysql_clear_password', 'dialog', 'caching_sha2_password', 'sha256_password') {
    test "A server of the service account that asks by $plugin does not learn the password" => sub {
        begin_anew();
        my $fake = FakeServer->new(account => 'mysql', path => '/run/mysqld/mysqld.sock',
            talk => mysql_server($plugin));
        my ($problems) = look('Linux::MySql');
        like $fake->said, qr/\Alogin\n/, 'the server gets a login';
        unlike $fake->said, qr/\Q$SECRET\E/, 'the server does not get the password in clear text';
        like join("\n", @{ problem_texts($problems) }),
            qr/\Aerror MariaDB: The server cannot be asked: .*\Q$plugin\E/,
            'the error names the plugin';
    };
}

test 'A server that asks for a file gets none' => sub {
    begin_anew();
    my $wanted = '/etc/sondrel/mysql.cnf';
    my $fake = FakeServer->new(account => 'mysql', path => '/run/mysqld/mysqld.sock',
        talk => mysql_server(undef, $wanted));
    look('Linux::MySql');
    like $fake->said, qr/\Alogin\n/, 'the server gets a login';
    unlike $fake->said, qr/file:/, 'the client sends no file';
    my $server = bless { tree => Linux::Tree->new, problems => Agent::Problems->new, version => '8.0.36',
        dump => '/usr/bin/mariadb-dump', limit => 3,
        login => ["--defaults-extra-file=$wanted", '--protocol=socket',
            '--socket=/run/mysqld/mysqld.sock'] }, 'Linux::MySql';
    my $before = length $fake->said;
    $server->dump_tables({ name => 'shop' }, [], sub { });
    like substr($fake->said, $before), qr/\A(?:login\n)+\z/, 'the program that dumps logs in and sends no file';
};

test 'Option files of the host do not lead the login to other servers' => sub {
    begin_anew("host=127.0.0.1\nprotocol=tcp\nsocket=/tmp/other.sock\n");
    my $fake = FakeServer->new(account => 'mysql', path => '/run/mysqld/mysqld.sock', talk => mysql_server());
    my $other = FakeServer->new(account => 'plain', path => '/tmp/other.sock',
        talk => mysql_server('mysql_clear_password'));
    my ($problems) = look('Linux::MySql');
    like $fake->said, qr/\Alogin\n/, 'the server of the host gets a login';
    is $other->said, '', 'the server that an option file names is sent nothing';
    like join("\n", @{ problem_texts($problems) }), qr{^error plain: .* own at /tmp/other\.sock,}m,
        'the server that an option file names is named';
};

test 'An account that clients log in as is no account that a server runs as' => sub {
    begin_anew();
    write_file('/etc/mysql/conf.d/own.cnf', "[client]\nuser = plain\n[mysqld]\nuser = sudoer\n");
    for my $case ([plain => 0, 'no login'], [sudoer => 1, 'a login']) {
        my ($account, $counts, $gets) = @$case;
        chmod 0777, '/run/mysqld' or die $!;
        my $fake = FakeServer->new(account => $account, path => '/run/mysqld/mysqld.sock',
            talk => mysql_server('none'));
        chmod 0755, '/run/mysqld' or die $!;
        look('Linux::MySql');
        is $fake->said =~ /\Alogin\n/ ? 1 : 0, $counts, "a server that runs as $account gets $gets";
    }
};

# --- what speaks as PostgreSQL ---

sub silent_server {
    return sub {
        my ($connection, $said) = @_;
        while (sysread $connection, my $bytes, 4096) { syswrite $said, $bytes }
    };
}

test 'Servers of an account take no time and are named once' => sub {
    begin_anew();
    my @fakes = map { FakeServer->new(account => 'plain', path => "/tmp/.s.PGSQL.$_",
        talk => silent_server()) } 5401 .. 5420;
    my $began = Time::HiRes::time();
    my ($problems, @servers) = look('Linux::PostgreSql');
    cmp_ok Time::HiRes::time() - $began, '<', $LIMIT,
        'the agent does not wait for twenty servers of an account';
    is_deeply [join('', map { $_->said } @fakes), scalar @servers], ['', 0],
        'no server of the account is sent anything or taken for one of the host';
    is_deeply problem_texts($problems),
        ['error plain: The account has a PostgreSQL server of its own at /tmp/.s.PGSQL.5401,'
        . " /tmp/.s.PGSQL.5402, /tmp/.s.PGSQL.5403 and 17 more, which is not the host's and is not"
            . " asked: its databases are"
        . ' not dumped. Dump those that are needed as this account, with pg_dump'],
        'all servers of the account are named in one problem';
};

test 'Several servers of the service account that hang take no longer than one may' => sub {
    begin_anew();
    my @fakes = map { FakeServer->new(account => 'postgres', path => "/tmp/.s.PGSQL.$_",
        talk => silent_server()) } 5401 .. 5406;
    my $began = Time::HiRes::time();
    my ($problems, @servers) = look('Linux::PostgreSql');
    cmp_ok Time::HiRes::time() - $began, '<', 3 * $LIMIT,
        'six servers together take less time than three may take';
    is_deeply [map { /no answer within [\d.]+ seconds/ ? 'no answer within N seconds'
        : $_ } @{ problem_texts($problems) }],
        [('no answer within N seconds') x 6], 'each server that does not answer is named';
};

test 'A socket that the service account has left is a server that is down' => sub {
    begin_anew();
    # What the service account has left behind is a server that is down; what others have left is nothing.
    for my $case (
        [postgres => 'is a server that is down',
            'error PostgreSQL (port 5401): The server cannot be asked: it is'
            . ' not running (/tmp/.s.PGSQL.5401: Connection refused)'],
        [plain => 'is not named'],
    ) {
        my ($account, $what, @expected) = @$case;
        FakeServer->new(account => $account, path => '/tmp/.s.PGSQL.5401')->stop;
        my ($problems) = look('Linux::PostgreSql');
        is_deeply problem_texts($problems), \@expected, "a socket that $account has left $what";
        unlink '/tmp/.s.PGSQL.5401';
    }
};

test 'An account that takes the port of a server that is down is not spoken to' => sub {
    begin_anew();
    write_file('/etc/postgresql/15/main/postgresql.conf', "port = 5432\n");
    my $squatter = FakeServer->new(account => 'plain', path => '/tmp/.s.PGSQL.5432', talk => silent_server());
    my ($problems, $server) = look('Linux::PostgreSql');
    is $squatter->said, '', 'the account is sent nothing';
    is problem_texts($problems)->[-1],
        'error PostgreSQL (port 5432): The server cannot be asked: it is not running, and the'
        . " server at /tmp/.s.PGSQL.5432 is not the host's",
        'the server of the host is named as one that does not run';

    # The other case: it takes the socket after the agent has looked at it.
    @$server{qw(directory owner)} = ('/tmp', [(getpwnam 'postgres')[2, 3]]);
    my (undef, $error) = $server->ask('SELECT 1');
    like $error, qr/requirepeer/, 'the client refuses a socket that the account takes later';
    is $squatter->said, '', 'the client sends the account nothing';
};

run_tests;
