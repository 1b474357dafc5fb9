# What reading the configuration of the web servers has in common: files by their
# paths from a base folder, each parsed once, put in place where they are included.
# Those who derive from it give parse($file, $text) and expand(\@directives, @stack).
package Linux::ConfigReader;

use strict;
use warnings;
use Agent::Process qw(breathe);
use Errno qw(EACCES);

our $MOST_DEPTH = 20;

# The name of what stands for the beginning of an included file: it may hold nothing else.
our $INCLUDED = 'included file';

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
    return $pattern if $pattern !~ /[*?\[]/;
    note_unreadable(@$self{qw(tree problems)}, $pattern);
    return $self->{tree}->glob($pattern);
}

# A pattern finds nothing in a folder that this account may not read.
sub note_unreadable {
    my ($tree, $problems, $pattern) = @_;
    my ($folders) = $pattern =~ m{\A(.*)/};
    for my $folder ($tree->glob($folders)) {
        $tree->list($folder);
        $problems->add(severity => 'error', object => $folder, text => "Cannot be read: $!") if $! == EACCES;
    }
    return;
}

# The first of some files that is there; also one that may only not be looked at.
sub first_of {
    my ($self, @files) = @_;
    for my $file (@files) {
        return $file if $self->{tree}->lstat($file) || $! == EACCES;
    }
    return undef;
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
        push @out, { name => $INCLUDED, args => [], file => $file, line => 1 };
        push @out, $self->expand($parsed, @stack, $file);
    }
    return @out;
}

# The directives of one file as they stand; undef where it cannot be read.
sub parsed {
    my ($self, $file, $by) = @_;
    return $self->{parsed}{$file} if exists $self->{parsed}{$file};
    breathe();
    my $text = $self->{tree}->read_file($file);
    return $self->{parsed}{$file} = $self->parse($file, $text) if defined $text;
    my $why = "Cannot be read: $!";
    $why .= " (included by $by->{file})" if $by;
    $self->problem('error', $file, 0, $why);
    return $self->{parsed}{$file} = $by ? undef : [];
}

1;
