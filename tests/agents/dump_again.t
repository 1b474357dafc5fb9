# Dumps one after the other, at the same time, and dumps that are interrupted.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Kept;
use Agent::Problems;
use Agent::Process qw(run);
use DumpedHost;
use Imitated qw(rest);
use Linux::Content;
use Linux::ContentList;
use Linux::Dump;

test 'A second dump makes what has changed or is gone' => sub {
    rest();
    dumped('', '--dump-all');
    my $first = inodes();
    open my $page, '>>', $tree->path('/home/alice/app/public/index.php') or die $!;
    print $page 'changed';
    close $page;
    rest();
    unlink "$dir/content/sites/c.test.tar.gz" or die $!;
    dumped('', '--dump-all');
    my $second = inodes();
    my @made = grep { ($first->{$_} || '') ne $second->{$_} } sort keys %$second;
    is_deeply \@made, [qw(content/sites/a.test.tar.gz content/sites/c.test.tar.gz)],
        'only the archives that have changed or are gone are made';
    is run(['tar', '-xOf', "$dir/content/sites/a.test.tar.gz", './home/alice/app/public/index.php'])->{out},
        'indexchanged', 'the new archive has the new content';
    open my $archive, '>>', "$dir/content/sites/b.test.tar.gz" or die $!;
    print $archive 'x';
    close $archive;
    is error_of(sub { Linux::ContentList::text_of($private) }),
        "content/sites/b.test.tar.gz has changed since: make a new dump\n",
        'there is no content list while an archive is not as it was made';
    dumped('', '--dump-all');
    is run(['gzip', '-t', "$dir/content/sites/b.test.tar.gz"])->{status}, 0,
        'an archive that was touched is made again';
};

test 'A failure is a problem of its object whatever its text' => sub {
    my $problems = Agent::Problems->new;
    my $content = Linux::Content->new(problems => $problems);
    ok eval { $content->attempt({ kind => 'site', label => 'a.test' }, sub { die "Ended by chance\n" }); 1 },
        'a failure whose text is like that of a signal does not end the dump';
    is $problems->count('error'), 1, 'the failure is an error';
};

test 'The status is there before anything is looked at' => sub {
    dumped('', '--no-content');
    my ($before, $stage, $pid);
    no warnings 'redefine';
    my $look = \&Linux::Inventory::new;
    local *Linux::Inventory::new = sub {
        ($stage, $pid) = map { found("string(/dumping-status/\@$_)", "$dir/dumping-status.xml") } qw(stage pid);
        $before = -e "$dir/dump.xml";
        return $look->(@_);
    };
    unlink "$dir/dumping-status.xml" or die $!;
    dumped('', '--dump-all', '--no-content');
    is_deeply [$stage, $pid, $before], ['inventory', $$, undef],
        'the status has its stage and its process, and the description of the last dump is gone';
};

test 'A second dump at the same time is refused' => sub {
    my $lock = Linux::Dump::take_lock($private);
    my $refusal = "Another dump is still running in this directory\n";
    is error_of(sub { dumped('', '--dump-all') }), $refusal, 'a dump is refused while another one runs';
    is error_of(sub { Linux::ContentList::text_of($private) }), $refusal,
        'a content list is refused while a dump runs';
};

test 'There is no list of a dump that was not completed' => sub {
    Agent::Kept->new($private)->begin;
    ok !eval { Linux::ContentList::text_of($private); 1 },
        'the content list of a dump that was not completed is refused';
    like $@, qr/no complete dump/, 'the error says that there is no complete dump';
};

test 'A dump that gets a termination signal leaves nothing incomplete' => sub {
    # Without archives that could be reused.
    dumped('', '--no-content');
    my $child = fork;
    die $! if !defined $child;
    if (!$child) {
        $SIG{TERM} = sub { die $Agent::Status::ended = "Ended by SIGTERM\n" };
        no warnings 'redefine';
        my $pack = \&Agent::Tar::pack;
        my $count = 0;
        *Agent::Tar::pack = sub { kill TERM => $$ if ++$count == 3; eval { $pack->(@_); 1 } or die $@ };
        eval { dumped('', '--dump-all'); };
        require POSIX;
        POSIX::_exit($@ =~ /\AEnded by SIGTERM/ ? 7 : 1);
    }
    waitpid $child, 0;
    is $? >> 8, 7, 'a dump ends on a termination signal';
    is found('string(/dumping-status/@stage)', "$dir/dumping-status.xml"), 'failed',
        'the status says that the dump has failed';
    is_deeply [grep {/\.new\z/} @{ files() }], [], 'no incomplete archive stays';
    ok !-e "$dir/dump.xml", 'there is no description of the dump';
    my $kept = inodes();
    rest();
    dumped('', '--dump-all');
    my $after = inodes();
    is_deeply [grep { $after->{$_} ne $kept->{$_} } keys %$kept], [],
        'the next dump keeps the archives that were complete';
    is_deeply files(), \@EVERYTHING, 'the next dump makes all other archives';
};

test 'No file of a dump is open to others' => sub {
    dumped('', '--dump-all');
    my @modes = map { sprintf '%o', (lstat)[2] & 07777 } map {"$dir/$_"} @{ files() }, 'dump.xml', 'dumping-status.xml',
        'state', 'lock', 'key';
    is_deeply [grep { $_ ne '600' } @modes], [], 'the mode of each file is 0600';
};

run_tests;
