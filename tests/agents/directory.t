# The directory that is entered is the one that was named, whatever other accounts put in its place meanwhile.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;

# Done once just before the program goes into a directory of this name.
my (%before);

BEGIN {
    no warnings 'once';
    *CORE::GLOBAL::chdir = sub {
        my ($directory) = @_;
        my $step = delete $before{$directory};
        $step->() if $step;
        return CORE::chdir($directory);
    };
}

use Agent::Directory qw(enter leave);
use Errno qw(EACCES);
use File::Path qw(mkpath);
use File::Temp qw(tempdir);

# A new directory with the directories that are entered.
sub laid_out {
    my $top = tempdir(CLEANUP => 1);
    mkpath("$top/$_") for qw(site/public site/kept secret/public);
    return $top;
}

# Expects that the directory is not entered because other accounts may have changed the path.
sub is_refused {
    my ($top, $path, $what) = @_;
    ok !enter($top, $path) && $! == EACCES, $what;
    leave();
    return;
}

test 'A directory is entered if it is there' => sub {
    my $top = laid_out();
    ok enter($top, '/site/public'), 'a directory below others is entered';
    is_deeply [(stat '.')[0, 1]], [(stat "$top/site/public")[0, 1]],
        'the directory that was entered is the current one';
    leave();
    ok !enter($top, '/site/absent'), 'a directory that is not there is not entered';
    leave();
};

test 'A link in the path is refused' => sub {
    my $top = laid_out();
    symlink 'site', "$top/link" or die $!;
    is_refused($top, '/link/public', 'the path through the link is refused');
};

test 'A link that takes the place of a directory at that very moment is refused' => sub {
    my $top = laid_out();
    $before{site} = sub {
        rename "$top/site", "$top/moved" or die $!;
        symlink 'secret', "$top/site" or die $!;
    };
    is_refused($top, '/site/public', 'the path through the new link is refused');
};

test 'Another directory that takes its place at that very moment is refused' => sub {
    my $top = laid_out();
    $before{public} = sub {
        rename "$top/site/public", "$top/site/old" or die $!;
        rename "$top/secret/public", "$top/site/public" or die $!;
    };
    is_refused($top, '/site/public', 'the path to the other directory is refused');
};

run_tests;
