# What the agent remembers from one dump to the next, and the status that it shows meanwhile.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Kept;
use Agent::Private;
use Agent::Problems;
use Agent::Process qw(run);
use Agent::Status;
use File::Temp qw(tempdir);
use Test::More;
use Independent;

my ($dir, $private);

# A directory of an agent that has not dumped anything.
sub begin_anew {
    $dir = tempdir(CLEANUP => 1);
    $private = Agent::Private->new($dir);
    return;
}

sub made {
    my ($name, $bytes) = @_;
    $private->replace($name, $bytes);
    return { name => $name, size => length $bytes, md5 => '0' x 32, unpacked => 10 };
}

sub again { return Agent::Kept->new($private) }

# The record of a dump that runs and has made two archives.
sub two_archives {
    begin_anew();
    my $kept = again();
    $kept->begin;
    $kept->add(made('content/a', 'aaa'), 'f1');
    $kept->add(made('content/b', 'bbb'), 'f2');
    return $kept;
}

test 'Nothing is complete at first' => sub {
    begin_anew();
    ok !again()->complete, 'the dump of a new directory is not complete';
};

test 'An archive is remembered at once' => sub {
    my $kept = two_archives();
    is again()->find('content/a')->{fingerprint}, 'f1', 'an archive is remembered at once';
    ok !again()->complete, 'the dump is not complete yet';
    $kept->add(made('content/a', 'aaaa'), 'f3');
    is again()->find('content/a')->{fingerprint}, 'f3', 'the last record of an archive counts';
    ok !defined again()->find('content/c'), 'an archive without a record is not known';
};

test 'An incomplete line is not taken for an archive' => sub {
    two_archives();
    open my $state, '>>', "$dir/state" or die $!;
    print $state "archive\tcontent/c\t3";
    close $state;
    $private->replace('content/c', 'ccc');
    is_deeply [map { $_->{name} } again()->all], [qw(content/a content/b)],
        'an incomplete line is not taken for an archive';
};

test 'A dump is complete once it is finished, until it changes or another begins' => sub {
    my $kept = two_archives();
    $kept->retain('content', 'content/a');
    is_deeply [$private->files_below('content')], ['content/a'], 'an archive that is not retained is removed';
    $kept->finish;
    ok again()->complete, 'a dump is complete once it is finished';
    is_deeply [map { $_->{name} } again()->all], ['content/a'],
        'a finished dump has the archives that were retained';
    utime 1, 1, "$dir/content/a" or die $!;
    ok !defined again()->find('content/a'), 'an archive that was changed is not taken for the same';
    $kept->begin;
    ok !again()->complete, 'the next dump is not complete when it begins';
    $private->replace('state', "something else\ncomplete\n");
    ok !again()->complete, 'a dump is not complete by the state of another version';
};

sub on_small_disk {
    my $small = tempdir(CLEANUP => 1);
    my $mounted = run(['mount', '-t', 'tmpfs', '-o', 'size=64k,mode=700', 'small', $small]);
    is $mounted->{status}, 0, 'a small disk is mounted';
    my $problems = Agent::Problems->new;
    return ($small, $problems, Agent::Status->new(Agent::Private->new($small), $problems));
}

sub shown {
    my ($small, $attribute) = @_;
    my $result = run(['xmllint', '--xpath', "string(/*/\@$attribute)", "$small/dumping-status.xml"]);
    chomp $result->{out};
    return $result->{out};
}

test 'The status stays as it was while the disk is full' => sub {
    my ($small, $problems, $status) = on_small_disk();
    is shown($small, 'stage'), 'starting', 'a status is there from the beginning';
    $status->set(stage => 'content', total => 5);
    is shown($small, 'total'), 5, 'the total of a new stage is shown at once';
    open my $filler, '>', "$small/filler" or die $!;
    1 while syswrite $filler, 'x' x 4096;
    $problems->add(severity => 'error', object => 'x', text => 'y');
    $status->set(stage => 'document', done => 5);
    is shown($small, 'stage'), 'content', 'the old status stays while the disk is full';
    like error_of(sub { $status->write }), qr/: No space left on device\n\z/,
        'the caller gets an error while the disk is full';
    ok !-e "$small/dumping-status.xml.new", 'no incomplete status stays';
    close $filler;
    unlink "$small/filler" or die $!;
    $status->write;
    is_deeply [map { shown($small, $_) } qw(stage done problems pid)], ['document', 5, 1, $$],
        'the status is up to date once there is room';
    run(['umount', $small]);
};

run_tests;
