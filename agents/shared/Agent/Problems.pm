# Collects what went wrong or should be known, in the order of finding. The same
# problem of the same object is kept once.
package Agent::Problems;

use strict;
use warnings;
use Agent::Xml qw(element text);
use Exporter 'import';

our @EXPORT_OK = qw(problem);

my %KNOWN = map { $_ => 1 } qw(error warning info);

sub new {
    my ($class) = @_;
    return bless { all => [], seen => {} }, $class;
}

# severity: error (something is missing from the result), warning (an
# administrator should look at it), info; object: what it is about, as the reader knows it.
sub add {
    my ($self, %problem) = @_;
    my ($severity, $object, $text) = @problem{qw(severity object text)};
    die "Unknown severity of a problem: $severity\n" if !$KNOWN{$severity};
    $object = '' if !defined $object;
    return if $self->{seen}{ join "\0", $severity, $object, $text }++;
    push @{ $self->{all} }, { severity => $severity, object => $object, text => $text };
    return;
}

# A method for classes whose objects have an Agent::Problems as `problems`: adds one to it.
sub problem {
    my ($self, $severity, $object, $text) = @_;
    return $self->{problems}->add(severity => $severity, object => $object, text => $text);
}

# Drops what was found about these objects.
sub forget {
    my ($self, @objects) = @_;
    my %dropped = map { $_ => 1 } @objects;
    $self->{all} = [grep { !$dropped{ $_->{object} } } @{ $self->{all} }];
    return;
}

sub all { return @{ $_[0]{all} } }

# Number of problems, or of those with one severity.
sub count {
    my ($self, $severity) = @_;
    return scalar grep { !defined $severity || $_->{severity} eq $severity } $self->all;
}

sub elements {
    my ($self) = @_;
    return map {
        element('problem', [severity => $_->{severity}, object => $_->{object}], text($_->{text}))
    } $self->all;
}

1;
