# Which programs of the host the agent runs: only those that no other account than root can change.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use File::Path qw(mkpath);
use Linux::HostProgram qw(answer_of program);
use Linux::Tree;
use Test::More;
use Independent;
use Imitated qw(imitated);

my $tree = Linux::Tree->new;
# Scratch space of the private world, of which every directory is root's.
my $directory = '/mnt/programs';
my $program = "$directory/bin/say";
mkpath("$directory/bin");
open my $file, '>', $program or die "$program: $!\n";
print $file "#!/bin/sh\necho \"said \$*\"\nexit \$1\n";
close $file or die "$program: $!\n";
chmod 0755, $program or die $!;

sub asked { return answer_of($tree, [$program, @_]) }

test 'A program of root is asked' => sub {
    is asked(0, 'word'), "said 0 word\n", 'a program of root in directories of root is asked';
    is asked(1), undef, 'the answer of a program that fails does not count';
    is answer_of($tree, [$program, 1], partly => 1), "said 1\n",
        'the answer of a program that fails counts where a part of it is enough';
    is answer_of((imitated())[0], [$program, 0]), undef,
        'no program is asked about a system that does not run';
    is answer_of($tree, ['/usr/bin/tail', '-f', '/dev/null'], limit => 0.2), undef,
        'a program that does not end has no answer';
    is answer_of($tree, ['no-such-program-anywhere']), undef, 'a missing program has no answer';
    like program('sh'), qr{\A/(?:usr/)?bin/sh\z}, 'programs are found by their names';
};

test 'The environment does not decide where programs are found' => sub {
    local $ENV{PATH} = "$directory/bin";
    is program('say'), undef, 'a program in a directory of PATH is not found';
};

# Each of these lets another account replace the program.
my @cases = (
    ['another account owns it', sub { chown 1234, 0, $program }, sub { chown 0, 0, $program }],
    ['a group may write it', sub { chmod 0775, $program }, sub { chmod 0755, $program }],
    ['all may write it', sub { chmod 0757, $program }, sub { chmod 0755, $program }],
    ['another account owns its directory', sub { chown 1234, 0, "$directory/bin" },
        sub { chown 0, 0, "$directory/bin" }],
    ['all may write its directory', sub { chmod 01777, "$directory/bin" },
        sub { chmod 0755, "$directory/bin" }],
    ['a group may write a directory above', sub { chmod 0775, $directory }, sub { chmod 0755, $directory }],
    ['it is not executable', sub { chmod 0644, $program }, sub { chmod 0755, $program }],
);
for my $case (@cases) {
    my ($what, $do, $undo) = @$case;
    test "A program is not asked where $what" => sub {
        $do->() or die $!;
        my $said = asked(0);
        $undo->() or die $!;
        is $said, undef, "the program is not asked where $what";
        is asked(0), "said 0\n", 'the program is asked again when all is in order';
    };
}

test 'A link of root may lead to a program and one of another account may not' => sub {
    symlink "$directory/bin", "$directory/link" or die $!;
    is answer_of($tree, ["$directory/link/say", 0]), "said 0\n",
        'a link of root to the directory of a program is followed';
    system('chown', '-h', '1234', "$directory/link") == 0 or die 'chown';
    is answer_of($tree, ["$directory/link/say", 0]), undef, 'a link of another account is not followed';
    is program("$directory/bin"), undef, 'a directory is no program';
};

run_tests;
