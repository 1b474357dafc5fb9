# The directory of the agent: what it writes there is closed to others, and links that others put there
# are not followed.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
# What others do in the moment before the program goes on, and the modes that files had before.
my ($after_unlink, @modes);

BEGIN {
    no warnings 'once';
    *CORE::GLOBAL::unlink = sub {
        my $done = CORE::unlink(@_);
        my $why = $!;
        if (my $step = $after_unlink) {
            undef $after_unlink;
            $step->();
        }
        $! = $why;
        return $done;
    };
    *CORE::GLOBAL::chmod = sub {
        my ($mode, @files) = @_;
        push @modes, map { sprintf '%o', (stat $_)[2] & 07777 } grep {ref} @files;
        return CORE::chmod($mode, @files);
    };
}

use File::Temp qw(tempdir);
use Test::More;
use Independent;
use Agent::Private;

my $OWNER = 4711;
my ($dir, $private, $secret);

# A new directory of the owner, and a file beside it that nothing may touch.
sub begin_anew {
    $dir = tempdir(CLEANUP => 1);
    chown $OWNER, 4712, $dir or die $!;
    chmod 0755, $dir or die $!;
    $private = Agent::Private->new($dir);
    $secret = tempdir(CLEANUP => 1);
    open my $file, '>', "$secret/x" or die $!;
    print $file 'secret';
    close $file or die $!;
    chmod 0644, "$secret/x" or die $!;
    return;
}

sub of { my @stat = lstat $private->path($_[0]); return sprintf '%o %d:%d', $stat[2] & 07777, @stat[4, 5] }

sub slurp { open my $file, '<', $_[0] or die $!; local $/; return scalar <$file> }

sub untouched { return is_deeply [glob "$secret/*"], ["$secret/x"], 'no file appears behind a link' }

test 'Documents are for the owner of the directory only' => sub {
    begin_anew();
    is of('.'), "700 $OWNER:4712", 'the directory is closed to others';
    $private->replace('a/b/document', "one\n");
    is slurp("$dir/a/b/document"), "one\n", 'a document is written';
    is of('a/b/document'), "600 $OWNER:4712",
        'a document belongs to the owner of the directory, with mode 0600';
    is of($_), "700 $OWNER:4712", "the directory $_ belongs to the same owner, with mode 0700" for qw(a a/b);
    {
        my $old = umask 0;
        $private->replace('open', '');
        is of('open'), "600 $OWNER:4712", 'a document has mode 0600 whatever the umask is';
        umask $old;
    }
    $private->replace('a/b/document', 'two');
    is $private->read('a/b/document'), 'two', 'a document is replaced';
    ok !defined $private->read('absent'), 'an absent file has no bytes';
    is_deeply [$private->files_below('a')], ['a/b/document'], 'files are found in directories';
    is_deeply [$private->files_below('absent')], [], 'there is nothing in an absent directory';
};

test 'A link in place of a directory is refused' => sub {
    begin_anew();
    symlink $secret, "$dir/directory" or die $!;
    for my $step (
        [replace => 'directory/x', 'y'], [remove => 'directory/x'], [facts => 'directory/x'],
        [read => 'directory/x'],
        [open_append => 'directory/y'], [files_below => 'directory'],
    ) {
        my ($method, @arguments) = @$step;
        is error_of(sub { $private->$method(@arguments) }), "$dir/directory is not a directory of its own\n",
            "a link in place of a directory is refused: $method";
    }
    untouched();
};

test 'A link in place of a file is replaced and not followed' => sub {
    begin_anew();
    symlink "$secret/x", "$dir/document" or die $!;
    $private->replace('document', 'new');
    ok !-l "$dir/document" && slurp("$secret/x") eq 'secret',
        'a link in place of a file is replaced, not followed';
    symlink "$secret/y", "$dir/later.new" or die $!;
    $private->replace('later', 'new');
    untouched();
};

test 'A link or a second name of a file is not read or appended to' => sub {
    begin_anew();
    symlink "$secret/x", "$dir/document" or die $!;
    my $refusal = qr/\ACannot open \Q$dir\E\/document: Too many levels of symbolic links\n\z/;
    like error_of(sub { $private->read('document') }), $refusal, 'a link is not read';
    like error_of(sub { $private->open_append('document') }), $refusal, 'a link is not appended to';
    is slurp("$secret/x"), 'secret', 'the file behind a link stays as it was';
    unlink "$dir/document" or die $!;
    link "$secret/x", "$dir/document" or die $!;
    is error_of(sub { $private->open_append('document') }),
        "$dir/document is not a plain file of the agent\n", 'a second name of a file is not appended to';
    is sprintf('%o', (stat "$secret/x")[2] & 07777), '644',
        'the mode of a file with a second name stays as it was';
};

test 'A new file is never open to others and never one that they have made' => sub {
    begin_anew();
    my $old = umask 0;
    @modes = ();
    $private->replace('born', '');
    is_deeply \@modes, ['600'], 'a new file has mode 0600 before its mode is set';
    umask $old;
    for my $case (['link', sub { symlink "$secret/z", "$dir/new.new" or die $! }],
        ['file', sub { open my $planted, '>', "$dir/new.new" or die $! }])
    {
        my ($what, $plant) = @$case;
        $after_unlink = $plant;
        is error_of(sub { $private->replace('new', 'secret') }),
            "Cannot make $dir/new.new: File exists\n",
            "a $what that others have just put there is not written to";
        CORE::unlink("$dir/new.new");
    }
    untouched();
};

test 'A file that is not kept leaves nothing' => sub {
    begin_anew();
    {
        my $file = $private->create('half');
        $file->write('x' x 100_000);
        ok !-e "$dir/half", 'a file is not there before it is complete';
        is of('half.new'), "600 $OWNER:4712", 'a file that is not complete is closed to others';
    }
    ok !-e "$dir/half.new", 'a file that is not kept leaves nothing';
};

test 'Names of objects become names of files that are safe and different' => sub {
    my %names = ('a.b-C_1' => 'a.b-C_1', '*.a.test' => '=2A.a.test', '-rf' => '=2Drf', '.' => '=2E',
        '..' => '=2E.',
        'a/b' => 'a=2Fb', 'a=b' => 'a=3Db', '' => '=', "a\n\0" => 'a=0A=00', "\xc3\xa4" => '=C3=A4');
    is Agent::Private::safe_name($_), $names{$_}, 'a name is safe: ' . $names{$_} for sort keys %names;
    my %seen;
    $seen{ Agent::Private::safe_name($_) }++ for map { ('x' x 300) . $_, ('=' x 100) . $_ } 1 .. 50;
    is keys %seen, 100, 'long names stay different';
    is scalar(grep { length > 180 } keys %seen), 0, 'long names become short enough for an ending';
};

test 'A directory of another account is refused' => sub {
    my $closed = tempdir(CLEANUP => 1);
    chown 4711, 4711, $closed or die $!;
    my $refused = fork_as(4713, sub { Agent::Private->new($closed) });
    like $refused, qr/belongs to another account/, "another account's directory is refused";
};

# The error that the code dies with as that user.
sub fork_as {
    my ($uid, $code) = @_;
    pipe my $from, my $to or die $!;
    my $pid = fork;
    die $! if !defined $pid;
    if (!$pid) {
        $) = "$uid $uid";
        $( = $uid;
        ($<, $>) = ($uid, $uid);
        eval { $code->() };
        syswrite $to, $@;
        require POSIX;
        POSIX::_exit(0);
    }
    close $to;
    local $/;
    my $said = <$from>;
    waitpid $pid, 0;
    return $said;
}

run_tests;
