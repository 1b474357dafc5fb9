# Lays out a system's files in a directory of its own that is gone after the test.
package Imitated;

use strict;
use warnings;
use Exporter 'import';
use File::Basename qw(dirname);
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use Agent::Problems;
use Agent::Process qw(run);
use Linux::Tree;

our @EXPORT_OK = qw(imitated output_of problem_texts rest write_file);

# A Linux::Tree of { path => text, "path/" => [uid, gid] or undef for a directory, path
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
        if (ref $value) {
            mkpath(dirname($place));
            symlink $$value, $place or die "$place: $!\n";
            next;
        }
        write_file($place, $value);
    }
    return (Linux::Tree->new(root => $root), Agent::Problems->new);
}

# Writes the file, or to its end with '>>', and makes the directories above it.
sub write_file {
    my ($path, $text, $how) = @_;
    mkpath(dirname($path));
    open my $file, $how || '>', $path or die "$path: $!\n";
    print $file $text;
    close $file or die "$path: $!\n";
    return;
}

# Waits until another change of a file just written must change its times.
sub rest { return select undef, undef, undef, 0.1 }

# What a program prints; dies if it fails.
sub output_of {
    my (@argv) = @_;
    my $result = run(\@argv);
    die "@argv: $result->{err}" if $result->{status};
    return $result->{out};
}

sub problem_texts {
    my ($problems) = @_;
    return [map {"$_->{severity} $_->{object}: $_->{text}"} $problems->all];
}

1;
