# The PostgreSQL servers of this host, one object for each; asked and dumped by their
# own client programs as the account that runs the server, or as ourselves without
# root. Nothing on a server changes.
package Linux::PostgreSql;

use strict;
use warnings;
use base qw(Linux::PostgreSqlClient Linux::PostgreSqlRoles Linux::PostgreSqlDetails Linux::PostgreSqlDump);
use Errno qw(EACCES);
use Linux::DatabaseServer qw(trusted_sockets);
use Linux::PostgreSqlText qw(hex_of is_of_server text_of);
use List::Util qw(first);
use Time::HiRes ();

my $ACCOUNT = 'postgres';
my @SOCKET_DIRECTORIES = qw(/run/postgresql /var/run/postgresql /tmp);

# The directories with the settings of a server: those of Debian and of Red Hat.
my @CLUSTERS = qw(/etc/postgresql/*/* /var/lib/pgsql/data /var/lib/pgsql/*/data);
my $DEFAULT_PORT = 5432;

# All servers that the host has, running or not. Options: tree, problems, limit =>
# seconds for one question and for the first one to all servers together, restrict_key =>
# what makes dumps equal, lock_milliseconds => how long a dump waits for a locked table.
sub found {
    my ($class, %options) = @_;
    my ($tree, %by_port) = ($options{tree});
    my ($sockets, $foreign, $left) = trusted_sockets({ %options, product => 'PostgreSQL',
        accounts => [$ACCOUNT], dump => 'pg_dump' }, sockets($tree));
    for my $socket (@$sockets) {
        my ($directory, $port) = directory_and_port($socket->{path});
        $by_port{$port} ||= { directory => $directory, owner => $socket->{owner} };
    }
    $by_port{ $_->{port} }{automatic} ||= $_->{automatic} for clusters($tree);
    for my $socket (@$left) {
        my (undef, $port) = directory_and_port($socket->{path});
        $by_port{$port}{left} = "$socket->{path}: $socket->{why}" if !$by_port{$port}{directory};
    }
    for my $path (@$foreign) {
        my ($directory, $port) = directory_and_port($path);
        $by_port{$port}{foreign} = $path if $by_port{$port} && !$by_port{$port}{directory};
    }
    my @servers = map { bless { limit => 60, lock_milliseconds => 60_000, product => 'PostgreSQL',
        label => "PostgreSQL (port $_)", port => $_, %options, %{ $by_port{$_} } }, $class }
        sort { $a <=> $b } keys %by_port;
    connect_all(@servers);
    return @servers;
}

# All that may be sockets of servers.
sub sockets {
    my ($tree) = @_;
    return map {
        my $directory = $_;
        map {"$directory/$_"} grep {/\A\.s\.PGSQL\.[0-9]{1,5}\z/} $tree->list($directory)
    } @SOCKET_DIRECTORIES;
}

sub directory_and_port { return $_[0] =~ m{\A(.*)/[^/]*\.([0-9]+)\z} }

# Those that do not answer take together no longer than one that does not.
sub connect_all {
    my (@servers) = @_;
    my $until = @servers ? Time::HiRes::time() + $servers[0]{limit} : 0;
    while (my $server = shift @servers) {
        my $left = $until - Time::HiRes::time();
        local $server->{limit} = $left > 0 ? $left / (1 + @servers) : 0.1;
        $server->connect;
    }
    return;
}

# The servers that are set up: { port, automatic => whether they start with the host }.
sub clusters {
    my ($tree) = @_;
    my @found;
    for my $directory (map { $tree->glob($_) } @CLUSTERS) {
        my @lines = $tree->read_lines("$directory/postgresql.conf");
        next if !@lines && !$tree->exists("$directory/postgresql.conf") && $! != EACCES;
        my ($port) = map { /^\s*port\s*=?\s*'?([0-9]+)/ ? $1 : () } reverse @lines;
        my $start = first { /^\w/ } $tree->read_lines("$directory/start.conf");
        push @found, { port => $port || $DEFAULT_PORT,
            automatic => !defined $start || $start =~ /^auto/ ? 1 : 0 };
    }
    return @found;
}

sub connect {
    my ($self) = @_;
    my $error = 'it is not running';
    $error .= " ($self->{left})" if defined $self->{left};
    $error .= ", and the server at $self->{foreign} is not the host's" if defined $self->{foreign};
    if ($self->{directory}) {
        my $rows;
        ($rows, $error) = $self->choose_program('psql') ? $self->ask('SHOW server_version')
            : (undef, 'its client program is not installed');
        ($self->{version}) = $rows->[0][0] =~ /\A(\S+)/ if $rows && @$rows;
    }
    return if !defined $error;
    # One that was stopped on purpose is no fault.
    my $severity = $self->{directory} || $self->{left} || $self->{automatic} ? 'error' : 'info';
    $self->problem($severity, undef, "The server cannot be asked: $error");
    return;
}

# This server, as a list of servers describes it.
sub description {
    my ($self) = @_;
    my $address = $self->{directory} ? "$self->{directory}/.s.PGSQL.$self->{port}" : undef;
    return { kind => 'postgresql', label => $self->{label}, product => 'PostgreSQL',
        version => $self->{version}, address => $address, running => defined $self->{version} ? 1 : 0 };
}

# Every database but the server's own: its templates, and the other one unless it is in use.
sub databases {
    my ($self) = @_;
    return if !defined $self->{version};
    my ($rows, $error) = $self->ask('SELECT oid, ' . hex_of('datname') . ", datallowconn,
        CASE WHEN has_database_privilege(oid, 'CONNECT') THEN pg_database_size(oid) END
        FROM pg_database WHERE datname NOT IN ('template0', 'template1') ORDER BY datname");
    if (defined $error) {
        $self->problem('error', undef, "The databases cannot be listed: $error");
        return;
    }
    my @databases;
    for (@$rows) {
        my ($id, $name, $allowed, $bytes) = @$_;
        $name = text_of($name);
        next if is_of_server({ name => $name }) && !$self->in_use($name);
        push @databases, { kind => 'postgresql', server => $self->{label}, name => $name, id => $id,
            bytes => length $bytes ? $bytes : undef, users => [$self->users($id)],
            closed => $allowed eq 'f' };
    }
    return @databases;
}

sub in_use {
    my ($self, $name) = @_;
    my ($rows) = $self->ask("SELECT 1 FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace
        WHERE c.oid >= 16384 AND n.nspname <> 'information_schema' AND n.nspname !~ '^pg_' LIMIT 1", $name);
    return $rows && @$rows;
}

1;
