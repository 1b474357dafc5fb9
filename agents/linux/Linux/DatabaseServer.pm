# What the kinds of database servers have in common: questions to their client
# programs, the dump as a stream, problems. A kind gives `label` (what a reader calls
# the server), `problems`, `limit` (seconds for one question) and environment().
package Linux::DatabaseServer;

use strict;
use warnings;
use Agent::Process qw(run stream);
use Exporter 'import';

our @EXPORT_OK = qw(one_line escaped);

my $TAIL_BYTES = 400;

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
    return undef, "no answer within $self->{limit} seconds" if ($result->{why} || '') eq 'limit';
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
