# What reading the configuration of the web servers has in common: files by their
# paths from a base folder, each parsed once, put in place where they are included.
# Those who derive from it give parse($file, $text) and expand(\@directives, @stack).
package Linux::ConfigReader;

use strict;
use warnings;

our $MOST_DEPTH = 20;

# tree => Linux::Tree, problems => Agent::Problems
sub new {
    my ($class, %self) = @_;
    return bless { %self, parsed => {} }, $class;
}

sub absolute {
    my ($self, $path) = @_;
    return $path =~ m{^/} ? $path : "$self->{base}/$path";
}

sub problem {
    my ($self, $severity, $file, $line, $text) = @_;
    $text = "Line $line: $text" if $line;
    $self->{problems}->add(severity => $severity, object => $file, text => $text);
    return;
}

# The files that the word of an inclusion means.
sub matching {
    my ($self, $word) = @_;
    my $pattern = $self->absolute($word);
    return $pattern =~ /[*?\[]/ ? $self->{tree}->glob($pattern) : $pattern;
}

# The directives of files that stand for the directive that includes them; the stack
# holds the files that are being read.
sub directives_of {
    my ($self, $directive, $files, @stack) = @_;
    my @out;
    for my $file (@$files) {
        if (@stack > $MOST_DEPTH || grep { $_ eq $file } @stack) {
            $self->problem('warning', @$directive{qw(file line)}, "includes $file, which includes itself");
            next;
        }
        my $parsed = $self->parsed($file, $directive) or next;
        push @out, $self->expand($parsed, @stack, $file);
    }
    return @out;
}

# The directives of one file as they stand; undef where it cannot be read.
sub parsed {
    my ($self, $file, $by) = @_;
    return $self->{parsed}{$file} if exists $self->{parsed}{$file};
    my $text = $self->{tree}->read_file($file);
    return $self->{parsed}{$file} = $self->parse($file, $text) if defined $text;
    my $why = "Cannot be read: $!";
    $why .= " (included by $by->{file})" if $by;
    $self->problem('error', $file, 0, $why);
    return $self->{parsed}{$file} = $by ? undef : [];
}

1;
