# What of a web application that packages have brought must be taken along: its configuration below
# /etc, and of its other directories what the packages' records do not have or what was changed.
# Unchanged files of a package are left out: installing it brings them again.
package Linux::PackageContent;

use strict;
use warnings;
use Linux::Site qw(below is_of_system);

# Below these nothing is kept that cannot be made anew.
my $PASSING = qr{\A/(?:var/(?:cache|log|run|lock|tmp)|run|tmp)(?:/|\z)};
my $GENERATED = qr{(?:\A|/)__pycache__\z};

# { directories, paths, changed }: the application's own directories, the paths to pack of them and of
# files that it has in directories of others, and how many of its files are not as they came.
sub of_package {
    my ($tree, $packages, $id) = @_;
    my @family = $packages->family($id);
    my $self = bless { tree => $tree, listed => $packages->paths_of(@family),
        changed => { map { %{ $packages->changed($_) } } @family } }, __PACKAGE__;
    my $shared = $packages->shared($self->{listed}, @family);
    my @own = grep { $_ !~ $PASSING } own_directories($tree, $self->{listed}, $shared);
    my @changed = grep { $_ !~ $PASSING } sort keys %{ $self->{changed} };
    my $is_outside = sub { my $path = $_[0]; !grep { below($path, $_) } @own };
    my @elsewhere = grep { $is_outside->($_) && ($self->{changed}{$_} || is_setting($tree, $_)) }
        sort keys %{ $self->{listed} };
    my @made = grep { $tree->exists($_) && $is_outside->($_) } $packages->made_in_etc(@family);
    return { directories => \@own, changed => scalar @changed,
        paths => [(map { m{\A/etc/} ? $_ : $self->kept_in($_) } @own), @elsewhere, @made] };
}

sub is_setting {
    my ($tree, $path) = @_;
    return $path =~ m{\A/etc/} && ($tree->is_link($path) || $tree->is_file($path));
}

# The outermost directories that only this application has.
sub own_directories {
    my ($tree, $listed, $shared) = @_;
    my @own;
    for my $path (sort keys %$listed) {
        next if $shared->{$path} || is_of_system($path) || grep { below($path, $_) } @own;
        next if $path =~ m{\A/usr/share/(?:doc|man|lintian|locale)/};
        my @stat = $tree->lstat($path);
        push @own, $path if @stat && -d _;
    }
    return @own;
}

# The outermost paths below a directory that are not of a package, or not as they came.
sub kept_in {
    my ($self, $directory) = @_;
    my @kept;
    for my $path (map {"$directory/$_"} $self->{tree}->list($directory)) {
        next if $path =~ $GENERATED;
        if (!$self->{listed}{$path}) {
            push @kept, $path;
            next;
        }
        my @stat = $self->{tree}->lstat($path) or next;
        if    (-d _)                    { push @kept, $self->kept_in($path) }
        elsif ($self->{changed}{$path}) { push @kept, $path }
    }
    return @kept;
}

1;
