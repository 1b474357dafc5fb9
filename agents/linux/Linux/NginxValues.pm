# The values that words with variables can have in a server of nginx's, as far as the names of the
# server, "set" and maps decide them.
package Linux::NginxValues;

use strict;
use warnings;
use Exporter 'import';
use Linux::Site qw(is_host_name);

our @EXPORT_OK = qw($OPEN variable_name);

my $MOST_VALUES = 1000;
my $HOST_VARIABLE = qr/\A(?:host|http_host|server_name|ssl_server_name)\z/;

# Stands for what only a request decides; no path holds it.
our $OPEN = "\x01";

# names => [of the server; it may grow later], maps => { variable => the directive of its map }.
sub new {
    my ($class, %self) = @_;
    return bless { %self, patterns => [], sets => {} }, $class;
}

# Adds a regular expression that is a name of the server.
sub add_pattern {
    my ($self, $pattern) = @_;
    push @{ $self->{patterns} }, $pattern;
    return;
}

sub has_patterns { return @{ $_[0]{patterns} } > 0 }

# Adds a word that "set" gives to a variable somewhere in the server.
sub add_set {
    my ($self, $variable, $word) = @_;
    push @{ $self->{sets}{ variable_name($variable) } }, $word;
    return;
}

# What a word with variables can be, at most $MOST_VALUES of { text, because };
# what requests decide is $OPEN in it, with the variable as `because` where it is not the host.
sub of {
    my ($self, $word) = @_;
    return { text => $word } if $word !~ /\$/;
    my (@out, %seen);
    my @exact = grep { is_host_name($_) } @{ $self->{names} };
    my $only_exact = @exact && @exact == @{ $self->{names} };
    for my $host (@exact, $only_exact ? () : undef) {
        push @out, grep { !$seen{ $_->{text} }++ } $self->expand($word, $host, 0);
        last if @out >= $MOST_VALUES;
    }
    return @out;
}

sub expand {
    my ($self, $word, $host, $depth) = @_;
    my @out = { text => '' };
    for my $piece (grep {length} split /(\$\{?\w+\}?)/, $word) {
        my $is_variable = $piece =~ /\A\$/;
        my @values = $is_variable ? $self->variable(variable_name($piece), $host, $depth)
            : { text => $piece };
        my @longer;
        for my $start (@out) {
            push @longer, map { join_texts($start, $_) } @values;
        }
        @out = @longer > $MOST_VALUES ? @longer[0 .. $MOST_VALUES - 1] : @longer;
    }
    return @out;
}

sub join_texts {
    my ($start, $end) = @_;
    my $because = defined $start->{because} ? $start->{because} : $end->{because};
    return { text => "$start->{text}$end->{text}", because => $because };
}

sub variable {
    my ($self, $name, $host, $depth) = @_;
    my $unknown = { text => $OPEN, because => $name };
    return $unknown if $depth > 10;
    return $self->server_name if $name eq 'server_name';
    return { text => defined $host ? $host : $OPEN } if $name =~ $HOST_VARIABLE;
    return map { $self->expand($_, $host, $depth + 1) } @{ $self->{sets}{$name} } if $self->{sets}{$name};
    return $self->map_values($self->{maps}{$name}, $host, $depth + 1) if $self->{maps}{$name};
    return { text => $OPEN } if grep { /\(\?P?[<']\Q$name\E[>']/ } @{ $self->{patterns} };
    return { text => $OPEN } if $name =~ /\A[1-9]\z/ && @{ $self->{patterns} };
    return $unknown;
}

# Only the first name ever stands in this variable.
sub server_name {
    my ($self) = @_;
    my $name = $self->{names}[0];
    return { text => defined $name && is_host_name($name) ? $name : $OPEN };
}

# The values of a variable that a map gives to a host, or all that it can give.
sub map_values {
    my ($self, $map, $host, $depth) = @_;
    my @rules = grep { @{ $_->{args} } == 1 } @{ $map->{block} };
    my $of_host = defined $host && variable_name($map->{args}[0]) =~ $HOST_VARIABLE;
    if ($of_host) {
        my ($rule) = ((grep { lc $_->{name} eq $host } @rules), (grep { in_map($_->{name}, $host) } @rules),
            (grep { $_->{name} eq 'default' } @rules));
        @rules = $rule || ();
    }
    return map { $self->expand($_->{args}[0], $host, $depth) } grep { length $_->{args}[0] } @rules;
}

sub in_map {
    my ($key, $host) = @_;
    return $host =~ /.\Q$1\E\z/i if $key =~ /\A\*(\..+)/;
    return $host eq lc $1 || $host =~ /\.\Q$1\E\z/i if $key =~ /\A\.(.+)/;
    return if $key !~ /\A~(\*?)(.+)/s;
    my ($any_case, $expression) = ($1, $2);
    # An expression that perl does not know matches nothing.
    no warnings 'regexp';
    my $pattern = eval { $any_case ? qr/$expression/i : qr/$expression/ } or return;
    return $host =~ $pattern;
}

# The name in a word that is a variable.
sub variable_name {
    my ($word) = @_;
    $word =~ s/\A\$\{?(\w+)\}?\z/$1/;
    return $word;
}

1;
