# A private database server for one test, ended with it: see source_databases.py.
package PrivateServer;

use strict;
use warnings;
use Agent::Process qw(run start);
use Exporter 'import';
use FindBin;
use Scalar::Util qw(weaken);
use Test::More;

our @EXPORT_OK = qw(dumped dump_while_written);

# Those that may still run when the file ends; stopped before the status of the file is known.
my @started;

END {
    local $?;
    $_->stop for grep {defined} @started;
}

# kind: mariadb or postgresql; sockets: the directory of its socket, the usual one if not given.
sub new {
    my ($class, $kind, $directory, $sockets) = @_;
    $sockets = { mariadb => '/run/mysqld', postgresql => '/run/postgresql' }->{$kind} if !defined $sockets;
    my $child = start(['/usr/bin/python3', "$FindBin::Bin/../e2e/source_databases.py", $kind, $directory, $sockets],
        stdin => 'pipe', stderr => \*STDERR);
    defined readline $child->{out} or die "The private $kind does not start\n";
    my $self = bless { kind => $kind, sockets => $sockets, child => $child }, $class;
    push @started, $self;
    weaken($started[-1]);
    return $self;
}

# What SQL prints, with tabs between fields; dies if it fails.
sub sql {
    my ($self, $sql, $database) = @_;
    my @client = $self->{kind} eq 'mariadb'
        ? ('mariadb', '--no-defaults', "--socket=$self->{sockets}/mysqld.sock", '--batch', '--skip-column-names',
            '--default-character-set=utf8mb4', '--max-allowed-packet=64M', defined $database ? "--database=$database" : ())
        : (qw(runuser -u postgres -- psql -X -q -A -t -v ON_ERROR_STOP=1 -h), $self->{sockets}, '-F', "\t", '-d',
            defined $database ? $database : 'postgres', '-f', '-');
    my $result = run(\@client, stdin => $sql);
    die "$result->{err}\n" if $result->{status};
    return $result->{out};
}

# Dumps a database by the agent's object of the server: the dump, which must succeed.
sub dumped {
    my ($server, $database) = @_;
    my $sql = '';
    is $server->dump($database, sub { $sql .= $_[0] }), undef, "the dump of $database->{name} succeeds";
    return $sql;
}

# Dumps a database by the agent's object of the server, and calls `write` once, as soon
# as the dump has what `pattern` matches: (error, what was dumped, how often it was called).
sub dump_while_written {
    my ($server, $database, $pattern, $write) = @_;
    my ($dumped, $calls) = ('', 0);
    my $error = $server->dump($database, sub {
        $dumped .= $_[0];
        return if $calls || $dumped !~ $pattern;
        $calls++;
        $write->();
    });
    return ($error, $dumped, $calls);
}

sub stop {
    my ($self) = @_;
    my $child = delete $self->{child} or return;
    close delete $child->{in};
    Agent::Process::finish($child);
    return;
}

sub DESTROY {
    my ($self) = @_;
    local $?;
    $self->stop;
    return;
}

1;
