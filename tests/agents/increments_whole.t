# With increments an archive is made whole where a change could be lost otherwise.
use strict;
use warnings;
# Each archive waits for the disk, which others may use.
BEGIN { $ENV{TMPDIR} = '/dev/shm' }
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Chain;
use Agent::Kept;
use Agent::Manifest;
use Agent::Private;
use Agent::Tar;
use File::Temp qw(tempdir);
use Imitated qw(rest);
use IncrementalDumps;
use Independent;
use POSIX ();
use Test::More;

my $PAGE = 'site/docs/page';

test 'An archive is whole if no increments are asked for' => sub {
    my $tree = IncrementalDumps->begun;
    my $content = $tree->dumped_after($PAGE, 'an increment');
    is scalar @{ $content->{increments} }, 1, 'a change makes an increment';
    $tree->fetch;
    $tree->fill($PAGE, 'once more');
    $tree->is_whole($tree->dumped(increments => 0), 'the archive is whole');
    is scalar(grep {/=\./} map { $tree->private->files_below($_) } qw(content known)), 0,
        'no file of the increments stays';
    $tree->fetch;
    $tree->is_whole($tree->dumped_after($PAGE, 'and once more'),
        'the next archive is whole, since it has nothing to follow');
};

test 'An archive is whole if the one before was not fetched' => sub {
    my $tree = IncrementalDumps->new;
    $tree->dumped_after($PAGE, 'not fetched');
    $tree->is_whole($tree->dumped_after($PAGE, 'changed'), 'the archive is whole');
};

test 'An increment that was not fetched is replaced by one that has its changes' => sub {
    my $tree = IncrementalDumps->new;
    $tree->fill('site/large', 'x' x 400_000);
    $tree->fill('site/vanishes', 'x');
    $tree->dumped_after($PAGE, 'a page');
    $tree->fetch;
    is scalar @{ $tree->dumped_after($PAGE, 'a first increment')->{increments} }, 1,
        'an increment follows what was fetched';
    unlink $tree->top . '/site/vanishes' or die $!;
    my $second = $tree->dumped_after('site/docs/other', 'a second one');
    is scalar @{ $second->{increments} }, 1, 'the increment that was not fetched is replaced by one other';
    $tree->fetch;
    $tree->is_tree($second, 'base and increment are the tree');
};

test 'An archive is whole if increments reach half of the base' => sub {
    my $tree = IncrementalDumps->begun;
    $tree->is_whole($tree->dumped_after('site/large', 'y' x 2_000_000), 'the archive is whole');
};

test 'An archive is whole if other files are left out than before' => sub {
    my $tree = IncrementalDumps->begun;
    my $left_out = $tree->top . '/site/docs';
    no warnings 'redefine';
    local *Linux::Content::of_kernel = sub { return $left_out };
    $tree->is_whole($tree->dumped_after('site/large', 'y' x 1000), 'the archive is whole');
};

test 'An archive is whole if the agent has removed the one before and was killed' => sub {
    my $tree = IncrementalDumps->new;
    $tree->dumped_after($PAGE, 'not fetched');
    $tree->fill($PAGE, 'killed while it is packed');
    rest();
    my $child = fork;
    die $! if !defined $child;
    if (!$child) {
        no warnings 'redefine';
        *Agent::Tar::pack = sub { kill KILL => $$ };
        $tree->dumped;
        POSIX::_exit(0);
    }
    waitpid $child, 0;
    is $? & 127, 9, 'a dump is killed between removing an archive and making it again';
    $tree->is_whole($tree->dumped, 'the archive is whole');
};

test 'An archive is whole if the record of the one before is incomplete' => sub {
    my $tree = IncrementalDumps->begun;
    my ($name) = $tree->private->files_below('known');
    my $record = $tree->private->dir . "/$name";
    truncate $record, (-s $record) - 3 or die $!;
    $tree->is_whole($tree->dumped_after($PAGE, 'with half a record'), 'the archive is whole');
};

test 'An archive is whole if there was no room for the record of the one before' => sub {
    my $tree = IncrementalDumps->begun;
    my $content;
    {
        no warnings 'redefine';
        local *Agent::Manifest::keep = sub { die "No room is left\n" };
        chmod 0700, $tree->top . '/site/docs';
        $content = $tree->dumped_after($PAGE, 'with a full disk');
    }
    is scalar @{ $content->{increments} || [] }, 1, 'an increment is made that cannot be followed';
    like join('', $tree->problems->elements), qr/next dump.*whole.*No room is left/s,
        'a problem says that the next dump will be whole, and why';
    $tree->fetch;
    $tree->is_tree($content, 'base and increment are the tree');
    is_deeply [grep {/\.new\z/} $tree->private->files_below('known')], [], 'no incomplete record stays';
    $tree->is_whole($tree->dumped_after($PAGE, 'after a full disk'), 'the next archive is whole');
};

test 'Only their owner may read the records that are kept for increments' => sub {
    my $tree = IncrementalDumps->begun;
    $tree->dumped_after($PAGE, 'an increment');
    my @records = $tree->private->files_below('known');
    is scalar @records, 2, 'there is a record of each archive';
    is_deeply [grep { (lstat $tree->private->dir . "/$_")[2] & 0177 } @records], [],
        'other accounts have no right to a record';
};

test 'A dump of a database has no increments' => sub {
    my $private = Agent::Private->new(tempdir(CLEANUP => 1));
    my $name = 'content/databases/mysql-shop.sql.gz';
    my @warnings;
    local $SIG{__WARN__} = sub { push @warnings, @_ };
    my $kept = Agent::Kept->new($private);
    $kept->begin;
    $private->replace($name, 'rows');
    $kept->add({ name => $name, size => 4, md5 => '0' x 32, unpacked => 4 }, '-');
    my $chain = Agent::Chain->new(kept => $kept, private => $private, name => $name);
    is_deeply [[$chain->names], \@warnings], [[$name], []],
        'the dump is the only file of its chain, and nothing warns';
    $chain->drop_from(0);
    is_deeply [$chain->names, $private->files_below('content')], [], 'the dump is removed';
};

run_tests;
