# The sections for directories that stand outside of Apache's virtual hosts, kept so that those for
# a directory are found without a look at all of them.
package Linux::ApacheSections;

use strict;
use warnings;
use Linux::Tree;

# No sections yet.
sub new { return bless { above => {}, below => {}, open => [] }, $_[0] }

# Adds the definition of a section; $path is that of its directory, where its word is one.
sub add {
    my ($self, $definition, $path) = @_;
    my $section = $definition->{directive};
    if ($section->{name} eq 'directorymatch' || $section->{args}[0] =~ /\A~|[*?\[]/) {
        push @{ $self->{open} }, $definition;
        return;
    }
    push @{ $self->{above}{$path} }, $definition;
    while ($path =~ s{/[^/]+\z}{}) {
        push @{ $self->{below}{ length $path ? $path : '/' } }, $definition;
    }
    return;
}

# The definitions of the sections that may count for some directories: those of them, above and
# below them, also by patterns. Each once; undef stands for no directory.
sub around {
    my ($self, @directories) = @_;
    @directories = grep {defined} @directories;
    my @found = grep { my $section = $_->{directive}; grep { may_touch($section, $_) } @directories }
        @{ $self->{open} };
    for my $directory (@directories) {
        push @found, @{ $self->{below}{$directory} || [] };
        for (my $path = $directory; length $path; $path =~ s{/[^/]*\z}{}) {
            push @found, @{ $self->{above}{$path} || [] };
        }
        push @found, @{ $self->{above}{'/'} || [] };
    }
    my %seen;
    return grep { !$seen{ $_->{number} }++ } @found;
}

# Whether a section with a pattern may hold for a directory, what is above it or what is in
# it; with an expression it may always.
sub may_touch {
    my ($section, $directory) = @_;
    my $pattern = $section->{args}[0];
    return 1 if $section->{name} eq 'directorymatch' || $pattern =~ /\A~/;
    my @patterns = grep {length} split m{/}, $pattern;
    my @parts    = grep {length} split m{/}, $directory;
    my $last = @patterns < @parts ? $#patterns : $#parts;
    return !grep { $parts[$_] !~ Linux::Tree::pattern($patterns[$_]) } 0 .. $last;
}

1;
