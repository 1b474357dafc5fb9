# The document dumping-status.xml: how far a dump has come. It is there before
# anything else is done and always whole; tick(), called wherever something takes
# time, renews it at least every second. While it cannot be written the old one
# stays, and the next tick tries again.
package Agent::Status;

use strict;
use warnings;
use Agent::Xml qw(element document);
use POSIX ();
use Time::HiRes ();

our $FILE = 'dumping-status.xml';

# Set by the handler of a signal to the text to end with. Whoever waits comes by
# here, so that an eval in between does not lose it.
our $ended;

my $TICK_SECONDS = 0.5;

# asked is the way of sending content that was asked for besides archives, if any.
sub new {
    my ($class, $private, $problems, $asked) = @_;
    my $self = bless {
        private => $private, problems => $problems, asked => $asked, written => 0, started => now(),
        stage => 'starting', object => undef, done => 0, total => 0, bytes => 0,
    }, $class;
    $self->write;
    return $self;
}

sub now { return POSIX::strftime('%Y-%m-%dT%H:%M:%SZ', gmtime) }

# Changes some of stage, object, done, total and bytes (read so far, of all objects).
sub set {
    my ($self, %changes) = @_;
    my $moved = defined $changes{stage} && $changes{stage} ne $self->{stage};
    @$self{ keys %changes } = values %changes;
    $moved ? $self->write_or_wait : $self->tick;
    return;
}

sub tick {
    my ($self) = @_;
    $self->write_or_wait if Time::HiRes::time() - $self->{written} >= $TICK_SECONDS;
    return;
}

sub write_or_wait {
    my ($self) = @_;
    eval { $self->write };
    die $ended if defined $ended;
    return;
}

# Writes the document now; dies if that is not possible.
sub write {
    my ($self) = @_;
    $self->{written} = Time::HiRes::time();
    my @attributes = map { $_ => $self->{$_} } qw(stage object done total bytes);
    my $file = $self->{private}->create($FILE);
    $file->write(document(element('dumping-status', [
        version => 1, @attributes, problems => $self->{problems}->count, pid => $$,
        started => $self->{started}, updated => now(),
    ], $self->{asked} ? element('transport', [asked => $self->{asked}, used => 'archives']) : ())));
    $file->keep;
    return;
}

1;
