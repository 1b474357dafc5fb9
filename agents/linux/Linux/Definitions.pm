# What the configuration of a web server defines under a name for all its sites (maps,
# groups of servers, zones, formats of logs), and which of it a part of the
# configuration uses, also by way of other definitions.
package Linux::Definitions;

use strict;
use warnings;

# names_of => sub { ($directive) -> the names under which it is used; none for a
# directive that defines nothing. A variable has its "$" in front }, prefix => what the
# identifiers of definitions begin with.
sub new {
    my ($class, %options) = @_;
    return bless { %options, all => [], by_name => {} }, $class;
}

# Takes those of some directives that define something; gives the others.
sub take {
    my ($self, @directives) = @_;
    my @others;
    for my $directive (@directives) {
        my @names = $self->{names_of}->($directive);
        if (@names) { $self->add($directive, @names) }
        else        { push @others, $directive }
    }
    return @others;
}

# Adds a definition and gives it: { id, number, directive, names }.
sub add {
    my ($self, $directive, @names) = @_;
    my $number = @{ $self->{all} };
    my $definition = { number => $number, id => "$self->{prefix}-" . ($number + 1), directive => $directive,
        names => \@names };
    push @{ $self->{all} }, $definition;
    push @{ $self->{by_name}{$_} }, $definition for @names;
    return $definition;
}

sub all { return @{ $_[0]{all} } }

# The definitions that directives use, in the order of the configuration. Every word that
# is the name of one counts: one too many does no harm, one too few breaks the site.
sub used_by {
    my ($self, @directives) = @_;
    my %used;
    $self->collect(\%used, words_in(@directives));
    return sorted(values %used);
}

# Some definitions with those that they use themselves.
sub with_inner {
    my ($self, @definitions) = @_;
    my %used;
    for my $definition (grep { !$used{ $_->{number} } } @definitions) {
        $used{ $definition->{number} } = $definition;
        $self->collect(\%used, words_in($definition->{directive}));
    }
    return sorted(values %used);
}

sub sorted { return sort { $a->{number} <=> $b->{number} } @_ }

sub collect {
    my ($self, $used, @words) = @_;
    while (defined(my $word = pop @words)) {
        for my $definition (@{ $self->{by_name}{$word} || [] }) {
            next if $used->{ $definition->{number} };
            $used->{ $definition->{number} } = $definition;
            $definition->{words} ||= [words_in($definition->{directive})];
            push @words, @{ $definition->{words} };
        }
    }
    return;
}

# Every word in the arguments, names and foreign text of directives and what is in
# them, once: variables with their "$", others without the marks around them.
sub words_in {
    my %words;
    my @todo = @_;
    while (my $directive = pop @todo) {
        push @todo, @{ $directive->{block} } if $directive->{block};
        for my $text ($directive->{name}, @{ $directive->{args} }, $directive->{text}) {
            next if !defined $text;
            $words{$_} = 1 for $text =~ /[\w.-]+/g;
            next if index($text, '$') < 0;
            $words{"\$$_"} = 1 for $text =~ /\$\{?(\w+)/g;
        }
    }
    return keys %words;
}

1;
