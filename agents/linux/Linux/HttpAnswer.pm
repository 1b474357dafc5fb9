# An answer by HTTP/1, read piece by piece from a server that may send anything: what is kept of it is
# bounded, whatever comes.
package Linux::HttpAnswer;

use strict;
use warnings;

our $MOST_BODY = 1024 * 1024;

my $MOST_HEAD = 65536;
# Pieces of a body of known length may be told in many more bytes than it has.
my $MOST_BYTES = 16 * 1024 * 1024;
my $MOST_LINE  = 4096;
my $MOST_VALUE = 2000;

sub new {
    my ($class) = @_;
    return bless { bytes => '', got => 0, body => '', read => \&read_head }, $class;
}

# Takes what has come; true when nothing more is needed: the answer is whole, what is kept of it is
# full, or it is none.
sub take {
    my ($self, $bytes) = @_;
    return 1 if $self->{done};
    $self->{bytes} .= $bytes;
    $self->{got} += length $bytes;
    1 while !$self->{done} && $self->{read}->($self);
    $self->{done} = 1 if $self->{got} > $MOST_BYTES;
    return $self->{done} ? 1 : 0;
}

# { status, location, type, body, whole }: location and type (of content) are undef where the answer
# has none, body has at most $MOST_BODY bytes, whole is 0 where it is longer or has ended too early.
# With a second value, and undef as the first, where there is no answer: why. ended: true if the server
# has closed the connection.
sub result {
    my ($self, $ended) = @_;
    return (undef, $self->{why}) if defined $self->{why};
    return (undef, $self->{got} ? 'sends no whole header' : 'says nothing') if !defined $self->{status};
    my $whole = $self->{whole} || $self->{until_end} && $ended && !$self->{done};
    return { (map { $_ => $self->{$_} } qw(status location type body)), whole => $whole ? 1 : 0 };
}

# Each of these takes its part off the bytes, and is true if there may be more to do.
sub read_head {
    my ($self) = @_;
    # No byte is looked through again with each one that comes.
    pos $self->{bytes} = $self->{searched} || 0;
    if ($self->{bytes} !~ /\n\r?\n/g) {
        $self->{searched} = length $self->{bytes} < 2 ? 0 : length($self->{bytes}) - 2;
        my $begins = substr $self->{bytes}, 0, 7;
        return $self->fail('sends no HTTP') if substr('HTTP/1.', 0, length $begins) ne $begins;
        return length $self->{bytes} > $MOST_HEAD ? $self->fail('sends too long a header') : 0;
    }
    my $head = substr $self->{bytes}, 0, pos $self->{bytes}, '';
    $self->{searched} = 0;
    return $self->fail('sends too long a header') if length $head > $MOST_HEAD;
    my ($status) = $head =~ /\AHTTP\/1\.[01] ([1-9][0-9]{2})(?:[ \r\n]|\z)/;
    return $self->fail('sends no HTTP') if !defined $status;
    # One before the answer itself.
    return 1 if $status < 200 && $status != 101;
    $self->{status} = $status;
    $self->use_header($head);
    return 1;
}

sub use_header {
    my ($self, $head) = @_;
    my %value;
    for my $line (split /\r?\n/, $head) {
        my ($name, $value) = $line =~ /\A([A-Za-z0-9_-]+):[ \t]*(.*?)[ \t]*\z/s or next;
        $value{ lc $name } = substr $value, 0, $MOST_VALUE if !defined $value{ lc $name };
    }
    @$self{qw(location type)} = @value{qw(location content-type)};
    my ($coding, $length) = @value{qw(transfer-encoding content-length)};
    if ($self->{status} == 101 || $self->{status} == 204 || $self->{status} == 304) { $self->finish }
    elsif (defined $coding && $coding =~ /\bchunked\s*\z/i) { $self->{read} = \&read_chunk_size }
    elsif (defined $length && $length =~ /\A[0-9]{1,15}\z/) { $self->expect($length, \&finish) }
    else {
        $self->{until_end} = 1;
        $self->expect($MOST_BODY + 1, \&finish);
    }
    return;
}

# Reads this many bytes of the body, and goes on with what comes then.
sub expect {
    my ($self, $length, $next) = @_;
    @$self{qw(left next read)} = ($length, $next, \&read_body);
    return;
}

sub read_body {
    my ($self) = @_;
    my $piece = substr $self->{bytes}, 0, $self->{left};
    substr($self->{bytes}, 0, length $piece) = '';
    $self->{left} -= length $piece;
    $self->{body} .= $piece;
    if (length $self->{body} > $MOST_BODY) {
        $self->{body} = substr $self->{body}, 0, $MOST_BODY;
        $self->{done} = 1;
        return 0;
    }
    return 0 if $self->{left};
    $self->{next}->($self);
    return 1;
}

sub read_chunk_size {
    my ($self) = @_;
    my ($line) = substr($self->{bytes}, 0, $MOST_LINE) =~ /\A([^\n]*\n)/;
    return length $self->{bytes} < $MOST_LINE ? 0 : $self->stop if !defined $line;
    my ($size) = $line =~ /\A([0-9A-Fa-f]{1,12})[ \t]*(?:;.*)?\r?\n\z/s or return $self->stop;
    substr($self->{bytes}, 0, length $line) = '';
    return $self->finish if $size =~ /\A0+\z/;
    # No number of a chunk is too large for a perl with integers of 32 bits: the body is full before.
    my $length = length $size > 7 ? $MOST_BODY + 1 : hex $size;
    $self->expect($length, sub { $_[0]{read} = \&read_chunk_end });
    return 1;
}

sub read_chunk_end {
    my ($self) = @_;
    return 0 if $self->{bytes} !~ /\A(?:\r?\n|[^\r\n]|\r[^\n])/;
    return $self->stop if $self->{bytes} !~ s/\A\r?\n//;
    $self->{read} = \&read_chunk_size;
    return 1;
}

sub finish {
    my ($self) = @_;
    @$self{qw(done whole)} = (1, 1);
    return 0;
}

# Of no use from here on; what is there counts.
sub stop {
    my ($self) = @_;
    $self->{done} = 1;
    return 0;
}

sub fail {
    my ($self, $why) = @_;
    @$self{qw(done why)} = (1, $why);
    return 0;
}

1;
