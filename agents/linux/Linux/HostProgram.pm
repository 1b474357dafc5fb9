# Asks the programs of the source host itself: a server knows best what its settings mean.
# A program counts only where nobody but root can have put it there, and its answer only
# where it comes in time; the caller reads files otherwise.
package Linux::HostProgram;

use strict;
use warnings;
use Agent::Process qw(run);
use Exporter 'import';
use Fcntl qw(S_ISREG S_IWGRP S_IWOTH);

our @EXPORT_OK = qw(answer_of program);

my $SECONDS = 15;
my $MOST_BYTES = 16 * 1024 * 1024;
my @PLACES = qw(/usr/sbin /usr/bin /sbin /bin /usr/local/sbin /usr/local/bin);

# What a program prints, undef where it is not there, is not root's, fails, or takes too
# long. argv => its name or path, and its arguments; options: limit => seconds, partly => 1
# for what it prints even if it fails. It reads nothing on its standard input. No program of
# another system than the running one is asked.
sub answer_of {
    my ($tree, $argv, %options) = @_;
    return undef if $tree->root ne '/';
    my ($name, @arguments) = @$argv;
    my $program = program($name);
    return undef if !defined $program;
    my $limit = defined $options{limit} ? $options{limit} : $SECONDS;
    my $asked = run([$program, @arguments], limit => $limit, most => $MOST_BYTES);
    return undef if $asked->{why} || $asked->{status} && !$options{partly};
    return $asked->{out};
}

# Path of an installed program that only root can have put there; undef otherwise.
sub program {
    my ($name) = @_;
    my @paths = $name =~ m{\A/} ? $name : map {"$_/$name"} @PLACES;
    my ($found) = grep { is_of_root($_) } @paths;
    return $found;
}

# True for a file that root owns and no other account can change or replace: neither it,
# nor the directories and links that lead to it.
sub is_of_root {
    my ($path) = @_;
    my @todo = grep {length} split m{/+}, $path;
    my ($here, $links) = ('', 0);
    while (defined(my $part = shift @todo)) {
        next if $part eq '.';
        if ($part eq '..') {
            $here =~ s{/[^/]*\z}{};
            next;
        }
        my @stat = lstat "$here/$part" or return 0;
        return 0 if $stat[4] != 0;
        if (-l _) {
            return 0 if ++$links > 40;
            my $target = readlink "$here/$part";
            return 0 if !defined $target;
            $here = '' if $target =~ m{\A/};
            unshift @todo, grep {length} split m{/+}, $target;
            next;
        }
        return 0 if $stat[2] & (S_IWGRP | S_IWOTH);
        $here .= "/$part";
    }
    my @stat = lstat $here;
    return @stat && S_ISREG($stat[2]) && -x _ ? 1 : 0;
}

1;
