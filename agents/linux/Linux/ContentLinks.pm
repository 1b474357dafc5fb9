# Links that lead out of the archive they are in: methods of Linux::Content, which has { tree,
# inventory, packed => { real path => ... } of what is in the archives of sites }.
package Linux::ContentLinks;

use strict;
use warnings;
use Errno qw(ENOENT ENOTDIR);
use Linux::Site qw(below);

# Whether a link leads into its archive by a path that has links itself.
sub is_inside {
    my ($self, $tar, $link) = @_;
    my $real = $self->{tree}->real($link);
    return defined $real && grep { below($real, $_) } $tar->starts;
}

# What a link of a site leads to, if it must be packed with the site: not the system's, not what
# holds many things, and of the account that made the link where that was not root.
sub behind_link {
    my ($self, $item, $link) = @_;
    my $tree = $self->{tree};
    my $real = $item->{site} ? $tree->real($link) : undef;
    return if !defined $real || !$self->{inventory}->parts->is_place($real);
    return if defined $item->{home} && below($real, $tree->real($item->{home}));
    my ($maker) = ($tree->lstat($link))[4];
    my ($owner) = ($tree->stat($real))[4];
    return $maker && $maker != $owner ? () : $real;
}

# Says of links that lead out of their archive what is there.
sub note_links {
    my ($self, $item, $notes, @links) = @_;
    my $tree = $self->{tree};
    my %real = map { $_->[0] => $tree->real($_->[0]) } @links;
    my $brought = $self->{inventory}->parts->brought_by_packages(grep {defined} values %real);
    for my $link (sort { $a->[0] cmp $b->[0] } @links) {
        my ($path, $target) = @$link;
        # Those of enabled units and of parts of servers' settings; packages make them anew.
        next if $item->{kind} eq 'settings' && defined $real{$path} && $brought->{ $real{$path} };
        my $real = $real{$path};
        my ($severity, $text) = !defined $real ? $self->of_broken_link($path)
            : $brought->{$real} ? ('warning', 'is not packed: install there what it belongs to')
            : $self->of_link($item, $path, $real);
        $self->note($item, $notes, $severity, $path, "is a symbolic link to $target, which $text");
    }
    return;
}

sub of_broken_link {
    my ($self, $path) = @_;
    my $is_there = defined $self->{tree}->real($path) || $! != ENOENT && $! != ENOTDIR;
    return $is_there ? ('error',
        "cannot be followed ($!) and is in no archive with it: copy it by hand if it is needed")
        : ('info', 'is not there');
}

sub of_link {
    my ($self, $item, $path, $real) = @_;
    my $home = defined $item->{home} ? $self->{tree}->real($item->{home}) : undef;
    return ('info', 'is in the archive of the client') if defined $home && below($real, $home);
    return ('info', 'is of a site and in its archive') if grep { below($real, $_) } keys %{ $self->{packed} };
    return ('error', 'is of a site that is not in this dump: dump that site, too')
        if grep { below($real, $_) } $self->directories_of('sites');
    # Such as "..": it is there when the link is.
    return ('warning', 'is above it: only those parts of it are packed that belong to what was asked for')
        if below($path, $real);
    return ('error', 'is not packed: copy it by hand');
}

1;
