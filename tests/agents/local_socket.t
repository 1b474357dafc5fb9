# Which servers behind a socket count: those that only root or a service account could have
# put there.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use FakeServer;
use Linux::LocalSocket qw(look_at_socket);
use Test::More;
use Independent;
use Time::HiRes ();

my @MYSQL = (getpwnam 'mysql')[2, 3];
my @PLAIN = (getpwnam 'plain')[2, 3];
my $number = 0;

# What is found of a server of an account, in a directory with this owner and mode.
sub look {
    my ($account, $owner, $mode, $change) = @_;
    my $directory = '/mnt/case' . ++$number;
    mkdir $directory or die $!;
    # The server may write there until it has made its socket.
    chmod 0777, $directory or die $!;
    my $server = FakeServer->new(account => $account, path => "$directory/socket");
    chown @$owner, $directory or die $!;
    chmod $mode, $directory or die $!;
    $change->("$directory/socket") if $change;
    return look_at_socket("$directory/socket", \@MYSQL);
}

my %trusted = (state => 'trusted', owner => \@MYSQL);

test 'A server of root or of the service account counts' => sub {
    is_deeply look('mysql', \@MYSQL, 0755), \%trusted,
        'a server of the service account in its own directory counts';
    is_deeply look('root', [0, 0], 0755), { state => 'trusted', owner => [0, 0] }, 'a server of root counts';
    is_deeply look('mysql', [0, 0], 01777), \%trusted,
        'a server in a directory like /tmp counts if the service account owns its socket';
    is_deeply look('mysql', \@MYSQL, 02775), \%trusted,
        'a server in a directory that the group of the service account may write into counts';
};

test 'A server of another account or in a place of others does not count' => sub {
    is_deeply look('plain', [0, 0], 01777), { state => 'foreign', uid => $PLAIN[0] },
        'a server of another account does not count';
    is_deeply look('plain', [0, 0], 01777, sub { chown @MYSQL, $_[0] or die $! }),
        { state => 'foreign', uid => $PLAIN[0] },
        'a server of another account does not count at a socket of the service account';
    is_deeply look('mysql', [0, 0], 01777, sub { chown @PLAIN, $_[0] or die $! }),
        { state => 'foreign', uid => $PLAIN[0] },
        'a server of the service account does not count at a socket of another account';
    is_deeply look('mysql', \@PLAIN, 0755), { state => 'foreign', uid => $PLAIN[0] },
        'a server in a directory of another account does not count';
    is_deeply look('mysql', [0, 0], 0777), { state => 'foreign', uid => 0, directory => "/mnt/case$number" },
        'a server in a directory that all may write into does not count';
    is_deeply look('mysql', [0, $PLAIN[1]], 0775),
        { state => 'foreign', uid => 0, directory => "/mnt/case$number" },
        'a server in a directory that the group of others may write into does not count';
};

test 'All directories above a socket are looked at' => sub {
    mkdir '/mnt/outer' or die $!;
    mkdir '/mnt/outer/inner' or die $!;
    chown @MYSQL, '/mnt/outer/inner' or die $!;
    my $inner = FakeServer->new(account => 'mysql', path => '/mnt/outer/inner/socket');
    is_deeply look_at_socket('/mnt/outer/inner/socket', \@MYSQL), \%trusted,
        'a server below directories of root and of the service account counts';
    chown @PLAIN, '/mnt/outer' or die $!;
    is_deeply look_at_socket('/mnt/outer/inner/socket', \@MYSQL), { state => 'foreign', uid => $PLAIN[0] },
        'a server below a directory of another account does not count';
    chown 0, 0, '/mnt/outer' or die $!;
    $inner->stop;
    is_deeply look_at_socket('/mnt/outer/inner/socket', \@MYSQL),
        { state => 'none', why => 'Connection refused',
        left_over => 1 }, 'a socket that the service account has left is known as left over';
    is_deeply look_at_socket('/mnt/outer/inner/missing', \@MYSQL),
        { state => 'none', why => 'No such file or directory' },
        'a missing socket is no server';
    is_deeply look_at_socket('/mnt/outer', \@MYSQL), { state => 'none', why => 'it is no socket' },
        'a directory is no server';
    is look_at_socket('/mnt/outer/' . 'x' x 200, \@MYSQL)->{state}, 'none',
        'a path that is too long is no server';
};

# Servers that accept no connections take no time if they are of other accounts, and little otherwise.
sub busy {
    my ($account, $path) = @_;
    my $server = FakeServer->new(account => $account, path => $path, queue => 1);
    my @waiting;
    for (1 .. 4) {
        my $socket = IO::Socket::UNIX->new(Type => Socket::SOCK_STREAM());
        $socket->blocking(0);
        push @waiting, $socket;
        last if !connect $socket, Socket::pack_sockaddr_un($path);
    }
    return [$server, @waiting];
}

test 'Servers that accept no connections take little time' => sub {
    mkdir '/mnt/busy' or die $!;
    chmod 01777, '/mnt/busy' or die $!;
    my @busy = map { busy('plain', "/mnt/busy/$_") } 1 .. 20;
    my $began = Time::HiRes::time();
    is_deeply look_at_socket("/mnt/busy/$_", \@MYSQL), { state => 'foreign', uid => $PLAIN[0] },
        "busy server $_ of another account does not count"
        for 1 .. 20;
    # Each would take two seconds.
    cmp_ok Time::HiRes::time() - $began, '<', 20,
        'the agent does not wait for busy servers of another account';
    push @busy, busy('mysql', '/mnt/busy/own');
    is_deeply look_at_socket('/mnt/busy/own', \@MYSQL), { state => 'none', why => 'it takes no connections',
        left_over => 1 },
        'the agent does not wait for ever for a busy server of the service account';
};

run_tests;
