# What reading the configuration of the web servers has in common: files by their
# paths from a base directory, each parsed once, put in place where they are included.
# Those who derive from it give parse($file, $text) and expand(\@directives, @stack).
package Linux::ConfigReader;

use strict;
use warnings;
use Agent::Process qw(breathe);
use Errno qw(EACCES);

our $MOST_DEPTH = 20;

# The name of what stands for the beginning of an included file: it may hold nothing else.
our $INCLUDED = 'included file';

# tree => Linux::Tree, problems => Agent::Problems, texts => { path => the text of a file
# as the server itself has it } or undef
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

# A pattern finds nothing in a directory that this account may not read.
sub note_unreadable {
    my ($tree, $problems, $pattern) = @_;
    my ($directories) = $pattern =~ m{\A(.*)/};
    for my $directory ($tree->glob($directories)) {
        $tree->list($directory);
        $problems->add(severity => 'error', object => $directory, text => "Cannot be read: $!")
            if $! == EACCES;
    }
    return;
}

# Those of some files that are there; of a directory that may not be looked into, the first,
# which is a problem when it is read.
sub present {
    my ($tree, @files) = @_;
    my %closed;
    return grep { $tree->lstat($_) || ($! == EACCES && m{\A(.*)/} && !$closed{$1}++) } @files;
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

# A file that the agent may not read stays so, whatever the server says.
sub text_of {
    my ($self, $file) = @_;
    my $told = $self->{texts}{$file};
    return defined $told && $self->{tree}->is_file($file) ? $told : $self->{tree}->read_file($file);
}

# All files that were read, sorted.
sub files {
    my ($self) = @_;
    return sort grep { $self->{parsed}{$_} } keys %{ $self->{parsed} };
}

# Compares what was read with the files that the server itself says it reads.
sub note_missed {
    my ($self, $server, @files) = @_;
    my %read = map { $self->{tree}->tidy($_) => 1 } keys %{ $self->{parsed} };
    for my $file (grep { !$read{$_} } map { $self->{tree}->tidy($_) } @files) {
        $self->problem('error', $file, 0, "$server says that it reads this file, to which no inclusion has"
            . ' led the agent: look whether sites in it are missing, and move them by hand');
    }
    return;
}

# The directives of one file as they stand; undef where it cannot be read.
sub parsed {
    my ($self, $file, $by) = @_;
    return $self->{parsed}{$file} if exists $self->{parsed}{$file};
    breathe();
    my $text = $self->text_of($file);
    return $self->{parsed}{$file} = $self->parse($file, $text) if defined $text;
    my $why = "Cannot be read: $!";
    $why .= " (included by $by->{file})" if $by;
    $self->problem('error', $file, 0, $why);
    return $self->{parsed}{$file} = $by ? undef : [];
}

1;
