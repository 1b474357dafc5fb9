# How a server of PostgreSQL is asked, by its own client programs as the account that runs it:
# methods of Linux::PostgreSql, which has { tree, limit, port, directory => of its socket, owner => [uid, gid]
# of it, version, once it is known }.
package Linux::PostgreSqlClient;

use strict;
use warnings;
use base 'Linux::DatabaseServer';
use Agent::Process qw(run which);
use Linux::DatabaseServer qw(escaped);

my @PROGRAM_DIRECTORIES = qw(/usr/lib/postgresql/*/bin /usr/pgsql-*/bin);

# Between fields and rows; all texts that others choose are asked for in hexadecimal.
my ($FIELD, $ROW) = ("\x1f", "\x1e");

# Becomes the account given by its ids before it runs the program. Its directory may be
# one that this account cannot enter.
my $AS_ACCOUNT = 'my ($uid, $gid) = splice @ARGV, 0, 2; chdir "/"; $( = $gid; $) = "$gid $gid"; '
    . '($<, $>) = ($uid, $uid); exit 126 if $< != $uid || $> != $uid; exec { $ARGV[0] } @ARGV; exit 127';

# The program of the server's own major version, or the newest: older ones refuse.
sub choose_program {
    my ($self, $name) = @_;
    my @programs = grep { -x && -f _ } map { $self->{tree}->path($_) . "/$name" }
        map { $self->{tree}->glob($_) } @PROGRAM_DIRECTORIES;
    my ($major) = defined $self->{version} ? $self->{version} =~ /\A([0-9]{2}|[0-9]\.[0-9]+)/ : ();
    my ($same) = defined $major ? grep { m{[/-]\Q$major\E/bin/} } @programs : ();
    my ($newest) = sort { number($b) <=> number($a) } @programs;
    return $same || $newest || which($name);
}

sub number { return $_[0] =~ m{([0-9.]+)/bin/} ? $1 : 0 }

# The command that runs a program of the server's clients: as the server's own
# account when we may, which it knows without a password.
sub command {
    my ($self, $program, @arguments) = @_;
    my ($uid, $gid) = @{ $self->{owner} };
    my @to = ('--host', $self->{tree}->path($self->{directory}), '--port', $self->{port}, '--no-password');
    return [$program, @to, @arguments] if $> || !$uid;
    my $name = getpwuid $uid;
    push @to, '--username', $name if defined $name;
    return [$^X, '-e', $AS_ACCOUNT, $uid, $gid, $program, @to, @arguments];
}

# What names a database to the clients. They go away when another account has put a
# server there meanwhile.
sub connection_to {
    my ($self, $name) = @_;
    my $account = $self->clients_know_peers ? getpwuid $self->{owner}[0] : undef;
    return 'dbname=' . escaped($name) . (defined $account ? ' requirepeer=' . escaped($account) : '');
}

# The clients look whose the server is since version 9.1.
sub clients_know_peers {
    my ($self) = @_;
    if (!defined $self->{knows_peers}) {
        my $version = run([$self->choose_program('psql'), '--version'], limit => 20)->{out};
        $self->{knows_peers} = $version =~ /\b([0-9]+)\.([0-9]+)/ && ($1 > 9 || $1 == 9 && $2 > 0) ? 1 : 0;
    }
    return $self->{knows_peers};
}

# Objects that an account made in a database must not stand in for the system's own.
sub environment {
    my %clean = map { $_ => undef } grep { /\APG/ } keys %ENV;
    return { %clean, PGCLIENTENCODING => 'UTF8', PGOPTIONS => '-c search_path=pg_catalog',
        PGCONNECT_TIMEOUT => 10 };
}

# Runs one query: (rows, undef), or (undef, what went wrong).
sub ask {
    my ($self, $sql, $database) = @_;
    my $name = defined $database ? $database : 'postgres';
    my ($out, $error) = $self->question($self->command($self->choose_program('psql'), '--no-psqlrc',
        '--quiet', '--no-align', '--tuples-only', '--field-separator', $FIELD, '--record-separator', $ROW,
        '--set', 'ON_ERROR_STOP=1', '--dbname', $self->connection_to($name), '--file', '-'), "$sql;");
    return undef, $error if defined $error;
    $out =~ s/\n\z//;
    return [map { [split /$FIELD/, $_, -1] } split /$ROW/, $out], undef;
}

1;
