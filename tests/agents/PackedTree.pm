# A tree that a test fills, and an agent that packs it.
package PackedTree;

use strict;
use warnings;
use Agent::Archive;
use Agent::Private;
use Agent::Tar;
use File::Temp qw(tempdir);
use Imitated qw(rest);
use SourceTree qw(unpack_archive);

our @ISA = ('SourceTree');

sub new {
    my ($class) = @_;
    my $self = $class->SUPER::new;
    $self->{private} = Agent::Private->new(tempdir(CLEANUP => 1));
    return $self;
}

sub private { return $_[0]{private} }

# The archive that packed() has made.
sub archive { return $_[0]{private}->dir . '/content/x.tar' }

# What the last tar_of() has noted: ["severity|path|text", "link|path|target"].
sub notes { return $_[0]{notes} }

# An Agent::Tar of paths of the tree. The functions of `between` are called one after the other, each before
# tar runs once more after the scan.
sub tar_of {
    my ($self, $paths, %options) = @_;
    my $notes = $self->{notes} = [];
    my $tar = Agent::Tar->new(private => $self->{private}, top => $self->{top}, paths => $paths,
        note => sub { push @$notes, join '|', @_ },
        leads_out => sub { push @$notes, join '|', 'link', @_ }, %options);
    return $options{between} ? bless $tar, 'PackedTree::Interrupted' : $tar;
}

# Scans and packs; gives what the scan has found and what is known of the archive.
sub packed {
    my ($self, $tar, $compress) = @_;
    my $found = $tar->scan;
    my $archive = Agent::Archive->new(private => $self->{private}, name => 'content/x.tar',
        compress => $compress, bytes => $found->{bytes});
    $tar->pack($archive);
    return { %$found, %{ $archive->complete } };
}

# Packs paths and calls a function after the scan, before tar runs.
sub packed_while {
    my ($self, $between, @paths) = @_;
    rest();
    return $self->packed($self->tar_of([@paths], between => [$between]), 0);
}

# A new directory with what the archive holds.
sub unpacked {
    my ($self) = @_;
    my $to = tempdir(CLEANUP => 1);
    unpack_archive($self->archive, $to);
    return $to;
}

package PackedTree::Interrupted;
our @ISA = ('Agent::Tar');

sub run_tar {
    my ($self, @arguments) = @_;
    my $next = shift @{ $self->{between} };
    $next->() if $next;
    return $self->SUPER::run_tar(@arguments);
}

1;
