# Increments: unpacked in order after their base they are the tree, whatever happened to it.
use strict;
use warnings;
# Each archive waits for the disk, which others may use.
BEGIN { $ENV{TMPDIR} = '/dev/shm' }
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Tar;
use File::Path qw(mkpath rmtree);
use Imitated qw(output_of rest);
use IncrementalDumps;
use Independent;
use Test::More;

my @ODD = ("a\nb", 'a\\nb', 'a\\101', '-rf', '*', "\xff\xfe", ' sp ace ', "tab\t", '[a]', "cr\r", 'x', 'x ',
    './..x', '~');
$_ =~ s{/}{:}g for @ODD;

# A tree with all that the steps below change.
sub full_tree {
    my $tree = IncrementalDumps->new;
    my $site = $tree->top . '/site';
    mkpath([map {"$site/$_"} 'empty', 'moves/tree', 'turns/into-file/with/files']);
    $tree->fill("site/many/$_", "of $_") for @ODD, map {"file$_"} 1 .. 300;
    $tree->fill("site/docs/$_", "content of $_\n" x 50) for qw(page old set-back owner mode note acl);
    $tree->fill('site/docs/deep/file', 'deep');
    $tree->fill('site/turns/into-directory', 'file');
    $tree->fill('site/turns/into-file/with/files/inside', 'x');
    symlink '../docs', "$site/turns/link-into-directory" or die $!;
    symlink 'page', "$site/docs/link" or die $!;
    $tree->fill("site/moves/tree/$_", "moved $_") for 1 .. 3;
    $tree->fill('site/moves/one', 'one');
    link $tree->fill('site/linked', 'one file'), "$site/docs/linked too" or die $!;
    $tree->fill('site/alone', 'will have a second name');
    output_of('truncate', '-s', '30M', $tree->fill('site/sparse', 'begin'));
    $tree->fill('site/large', 'x' x 400_000);
    $tree->fill("people/alice/app/$_", "of $_") for qw(page code/one code/two);
    output_of('chown', '-R', '1234:1234', $tree->top . '/people/alice');
    rest();
    return $tree;
}

sub change_content {
    my ($tree) = @_;
    $tree->fill('site/docs/page', 'changed');
    return;
}

sub change_attributes {
    my ($tree) = @_;
    my $docs = $tree->top . '/site/docs';
    chmod 0600, "$docs/mode";
    chown 1234, 4321, "$docs/owner";
    $tree->set_attribute('site/docs/note', 'noted');
    output_of('setfacl', '-m', 'u:33:r', "$docs/acl");
    my @times = (stat "$docs/set-back")[8, 9];
    $tree->fill('site/docs/set-back', "Content of set-back\n" x 50);
    utime @times, "$docs/set-back";
    return;
}

sub change_names {
    my ($tree) = @_;
    my $site = $tree->top . '/site';
    $tree->fill('site/new', 'new');
    mkpath("$site/new directory/below");
    unlink "$site/docs/old", "$site/docs/deep/file";
    rmdir $_ or die "$_: $!" for "$site/docs/deep", "$site/empty";
    $tree->fill("site/many/$_", "changed $_") for 'x', "a\nb";
    unlink map {"$site/many/$_"} '-rf', 'a\\101', "\xff\xfe", ' sp ace ', "tab\t";
    return;
}

sub rename_some {
    my ($tree) = @_;
    my $site = $tree->top . '/site';
    rename "$site/moves/tree", "$site/moves/wood" or die $!;
    rename "$site/moves/one", "$site/moves/two" or die $!;
    rename "$site/docs/mode", "$site/docs/note" or die $!;
    return;
}

sub change_types {
    my ($tree) = @_;
    my $site = $tree->top . '/site';
    rmtree("$site/turns/into-file");
    $tree->fill('site/turns/into-file', 'a file now');
    unlink "$site/turns/into-directory", "$site/turns/link-into-directory", "$site/docs/link";
    mkpath("$site/turns/$_/with") for qw(into-directory link-into-directory);
    $tree->fill('site/turns/link-into-directory/page', 'x');
    symlink 'owner', "$site/docs/link" or die $!;
    return;
}

sub change_links {
    my ($tree) = @_;
    my $site = $tree->top . '/site';
    link "$site/alone", "$site/docs/no longer alone" or die $!;
    unlink "$site/linked";
    $tree->fill('site/linked', 'another file');
    return;
}

sub change_second_directory {
    my ($tree) = @_;
    my $top = $tree->top;
    unlink "$top/people/alice/app/code/one", "$top/site/docs/no longer alone";
    $tree->fill('people/alice/app/code/two', 'changed');
    open my $sparse, '+<', "$top/site/sparse" or die $!;
    seek $sparse, 20_000_000, 0;
    print $sparse 'in the middle';
    close $sparse or die $!;
    return;
}

my @STEPS = (
    ['content alone', \&change_content],
    ['mode, owner, attributes, access control list, and a time that was set back', \&change_attributes],
    ['new, vanished and odd names', \&change_names],
    ['renamed files and directories', \&rename_some],
    ['files, directories and links in the place of others', \&change_types],
    ['further names of files', \&change_links],
    ['names taken away, a sparse file, and another directory', \&change_second_directory],
);

test 'A base and its increments are the tree after each kind of change' => sub {
    my $tree = full_tree();
    my $base = $tree->dumped;
    is_deeply $base->{increments}, [], 'the first archive is whole';
    $tree->fetch;
    $tree->is_tree($base, 'the first archive is the tree when it is unpacked');
    for my $step (@STEPS) {
        my ($what, $change) = @$step;
        $change->($tree);
        is $tree->follows($what)->{md5}, $base->{md5}, "$what: the base stays as it was";
    }
    my $last = $tree->follows('after all changes');
    my $first = $last->{increments}[0];
    is scalar @{ $last->{increments} }, 7, 'each dump after a change has added an increment';
    is_deeply $tree->members($first), ['./site/', './site/docs/', './site/docs/page'],
        'an increment has what has changed, and the directories above it';
    ok !defined $first->{gone}, 'an increment has no list of vanished names if none has vanished';
    cmp_ok 512 * (stat $tree->restored($last) . '/site/sparse')[12], '<', 1_000_000,
        'a sparse file stays sparse';
};

test 'What has not changed since it was fetched is not made again' => sub {
    my $tree = IncrementalDumps->begun;
    my ($one, $other) = map { $tree->dumped } 1, 2;
    is_deeply [$other->{md5}, $other->{increments}, [$tree->private->files_below('content')]],
        [$one->{md5}, [], []],
        'the second dump names the same archive, without increments, and makes no file';
};

test 'Files without a newer time are packed with the directory that was renamed' => sub {
    my $tree = IncrementalDumps->begun;
    my $top = $tree->top;
    $tree->fill('elsewhere/old directory/from before', 'x');
    $tree->follows('before the directory is renamed');
    rename "$top/elsewhere/old directory", "$top/site/old directory" or die $!;
    my $content = $tree->follows('a directory with older files');
    is_deeply [grep {/from before/} @{ $tree->members($content->{increments}[-1]) }],
        ['./site/old directory/from before'], 'the files of the renamed directory are in the increment';
    is_deeply $tree->follows('without a further change')->{increments}, $content->{increments},
        'a dump without a further change adds no increment';
};

test 'A change at the time of the dump is in the next increment' => sub {
    my $tree = IncrementalDumps->begun;
    my $file = $tree->fill('site/docs/same.time', 'first');
    $tree->dumped;
    my @times = (stat $file)[8, 9];
    $tree->fetch;
    $tree->fill('site/docs/same.time', 'again');
    utime @times, $file;
    $tree->follows('a change at the same time');
};

test 'A file that is there only while tar reads is removed by the next increment' => sub {
    my $tree = IncrementalDumps->begun;
    my $top = $tree->top;
    my $brief = $tree->fill('elsewhere/brief/file', 'brief');
    my $run_tar = \&Agent::Tar::run_tar;
    my $content;
    {
        no warnings 'redefine';
        my $done = 0;
        local *Agent::Tar::run_tar = sub {
            my @arguments = @_;
            rename "$top/elsewhere/brief", "$top/site/brief" or die $! if !$done++;
            return $run_tar->(@arguments);
        };
        $content = $tree->dumped_after('site/docs/page', 'changed with it');
    }
    $tree->fetch;
    ok +(grep {m{/brief/file}} @{ $tree->members($content->{increments}[-1]) }),
        'the file is in the increment that was made meanwhile';
    rmtree("$top/site/brief");
    $tree->follows('a file that was there while tar read');
};

run_tests;
