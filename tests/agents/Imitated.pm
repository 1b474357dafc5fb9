# Lays out a system's files in a folder of its own that is gone after the test.
package Imitated;

use strict;
use warnings;
use Exporter 'import';
use File::Basename qw(dirname);
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use Agent::Problems;
use Linux::Tree;

our @EXPORT_OK = qw(imitated problem_texts write_file);

# A Linux::Tree of { path => text, "path/" => [uid, gid] or undef for a folder, path
# => \target for a symbolic link }, and new problems.
sub imitated {
    my %files = @_;
    my $root = tempdir(CLEANUP => 1);
    for my $path (sort keys %files) {
        my ($value, $place) = ($files{$path}, "$root/$path");
        if ($path =~ m{/\z}) {
            mkpath($place);
            chown @$value, $place or die "$place: $!\n" if $value;
            next;
        }
        mkpath(dirname($place));
        if (ref $value) {
            symlink $$value, $place or die "$place: $!\n";
            next;
        }
        write_file($place, $value);
    }
    return (Linux::Tree->new(root => $root), Agent::Problems->new);
}

sub write_file {
    my ($path, $text) = @_;
    open my $file, '>', $path or die "$path: $!\n";
    print $file $text;
    close $file or die "$path: $!\n";
    return;
}

sub problem_texts {
    my ($problems) = @_;
    return [map {"$_->{severity} $_->{object}: $_->{text}"} $problems->all];
}

1;
