# Goes into directories without ever following a symbolic link, also one that is put on the
# way at that very moment: what is done in the directory is done in the one that was meant.
package Agent::Directory;

use strict;
use warnings;
use Errno qw(EACCES);
use Exporter 'import';
use Fcntl qw(S_ISLNK);

our @EXPORT_OK = qw(enter leave);

# Makes a directory below $top the current one. Gives undef, with the reason in $!, where
# it is not there or its path leads through a link. leave() must follow either way.
sub enter {
    my ($top, $directory) = @_;
    chdir $top or return undef;
    for my $part (grep {length} split m{/}, $directory) {
        my @named = lstat $part or return undef;
        if (!S_ISLNK($named[2])) {
            chdir $part or return undef;
            my @here = lstat '.';
            next if @here && $here[0] == $named[0] && $here[1] == $named[1];
        }
        $! = EACCES;
        return undef;
    }
    return 1;
}

# Paths of this program are absolute: it needs no directory of its own.
sub leave {
    my $why = $!;
    chdir '/' or die "Cannot go to /: $!\n";
    $! = $why;
    return;
}

1;
