# What the kinds of database servers have in common: questions to their client
# programs, the dump as a stream, problems. A kind gives `label` (what a reader calls
# the server), `problems`, `limit` (seconds for one question) and environment().
package Linux::DatabaseServer;

use strict;
use warnings;
use Agent::Process qw(run stream);
use Exporter 'import';
use Linux::LocalSocket qw(look_at_socket);
use Linux::Users;

our @EXPORT_OK = qw(one_line escaped trusted_sockets);

my $TAIL_BYTES = 400;
my $NAMED_SOCKETS = 3;

# Which of the sockets (paths of the tree) count: ([{ path, owner => [uid, gid] }],
# [paths of others], [{ path, why } of those that a server has left]). Those count at which
# servers of root or of the named service accounts listen (see Linux::LocalSocket). The
# servers of others become problems, one for each account. Options: tree, problems, product => what
# such a server is called, accounts => [names], dump => the program that dumps.
sub trusted_sockets {
    my ($options, @paths) = @_;
    my ($tree, $users) = ($options->{tree}, Linux::Users->new($options->{tree}));
    my @accounts = map { [@$_{qw(uid gid)}] } grep {defined} map { $users->by_name($_) }
        @{ $options->{accounts} };
    my (@trusted, @foreign, @left, %seen);
    for my $path (@paths) {
        my $real = $tree->real($path);
        next if !defined $real || $seen{$real}++;
        my $found = look_at_socket($tree->path($real), @accounts);
        push @trusted, { path => $path, owner => $found->{owner} } if $found->{state} eq 'trusted';
        push @foreign, { path => $path, %$found } if $found->{state} eq 'foreign';
        push @left, { path => $path, why => $found->{why} } if $found->{left_over};
    }
    name_open_directory($options, $_) for grep { defined $_->{directory} } @foreign;
    my %of;
    push @{ $of{ $_->{uid} } }, $_->{path} for grep { !defined $_->{directory} } @foreign;
    name_own_server($options, $users->name_of($_), @{ $of{$_} }) for sort { $a <=> $b } keys %of;
    return (\@trusted, [map { $_->{path} } @foreign], \@left);
}

sub name_open_directory {
    my ($options, $socket) = @_;
    $options->{problems}->add(severity => 'error', object => $options->{product}, text =>
        "The server at $socket->{path} is not asked, since other accounts may write into the directory"
        . " $socket->{directory}: its databases are not dumped. Let only root and the server's account"
        . ' write there, and dump again');
    return;
}

sub name_own_server {
    my ($options, $account, @paths) = @_;
    my $more = @paths - $NAMED_SOCKETS;
    my $where = join ', ', @paths[0 .. ($more > 0 ? $NAMED_SOCKETS : @paths) - 1];
    $where .= " and $more more" if $more > 0;
    $options->{problems}->add(severity => 'error', object => $account, text =>
        "The account has a $options->{product} server of its own at $where, which is not the host's and is"
        . ' not asked: its databases are not dumped. Dump those that are needed as this account, with '
        . $options->{dump});
    return;
}

sub problem {
    my ($self, $severity, $database, $text) = @_;
    my $object = defined $database ? "$self->{product} database $database->{name}" : $self->{label};
    $self->{problems}->add(severity => $severity, object => $object, text => $text);
    return;
}

# What a client program says to the SQL on its standard input: (output, undef), or
# (undef, what went wrong).
sub question {
    my ($self, $argv, $sql) = @_;
    my $result = run($argv, stdin => $sql, limit => $self->{limit}, env => $self->environment);
    return undef, sprintf 'no answer within %.3g seconds', $self->{limit}
        if ($result->{why} || '') eq 'limit';
    return undef, one_line($result->{err}) if $result->{status};
    return $result->{out}, undef;
}

# Streams a dump into $sink. Gives { status, err, complete }: whether it ends with the
# line that its program writes last of all. The option env changes environment().
sub stream_dump {
    my ($self, $argv, $last_line, $sink, %options) = @_;
    my $tail = '';
    my $environment = { %{ $self->environment }, %{ $options{env} || {} } };
    my $result = stream($argv, %options, env => $environment, out => sub {
        $tail .= $_[0];
        $tail = substr $tail, -$TAIL_BYTES if length $tail > $TAIL_BYTES;
        $sink->($_[0]);
        return 1;
    });
    return { %$result, complete => $tail =~ $last_line ? 1 : 0 };
}

sub one_line {
    my ($text) = @_;
    $text =~ s/\s+/ /g;
    $text =~ s/\A | \z//g;
    return length $text ? $text : 'it ended with an error and no word';
}

# A text as it stands between quotes whose reader takes backslashes as escapes.
sub escaped {
    my ($text) = @_;
    $text =~ s/([\\'])/\\$1/g;
    return "'$text'";
}

1;
