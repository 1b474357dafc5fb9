# What changes, is put in the way, cannot be read or does not fit while archives are made.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Archive;
use Agent::Private;
use Agent::Process qw(run);
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use Imitated qw(output_of rest);
use Independent;
use PackedTree;
use POSIX ();
use SourceTree qw(listing);
use Test::More;

# --- what changes while it is read ---

sub content_of {
    my ($directory) = @_;
    my $sums = 'cd "$1" && find . -type f -print0 | LC_ALL=C sort -z | xargs -0 md5sum --';
    return output_of('sh', '-c', $sums, 'sh', $directory);
}

test 'What changed after the scan is read again' => sub {
    my $tree = PackedTree->new;
    my $live = $tree->top . '/live';
    $tree->fill("live/$_", "old $_") for qw(kept removed changed renamed);
    link "$live/changed", "$live/changed too" or die $!;
    rest();
    $tree->packed($tree->tar_of(['/live'], between => [sub {
        unlink "$live/removed";
        $tree->fill('live/changed', 'new');
        $tree->fill('live/added', 'added');
        rename "$live/renamed", "$live/under another name";
        $tree->fill('live/directory/added', 'added');
    }, sub { $tree->fill('live/changed', 'newer still') }]), 0);
    my $copy = $tree->unpacked . '/live';
    is content_of($copy), content_of($live), 'the copy has the new content';
    is_deeply [map { (stat "$copy/$_")[3] } 'changed', 'changed too'], [2, 2],
        'two names of one file are so in the copy';
    is_deeply $tree->notes, [], 'no problem is named for a file that was removed before it was read';
};

# Starts a process that appends to a file until it is killed or the test has ended.
sub start_growing {
    my ($path) = @_;
    my $parent = $$;
    my $child = fork;
    die $! if !defined $child;
    return $child if $child;
    open my $log, '>>', $path or POSIX::_exit(1);
    while (getppid == $parent) { syswrite $log, 'x'; select undef, undef, undef, 0.0005 }
    POSIX::_exit(0);
}

test 'A file that changes each time it is read is named and packed' => sub {
    my $tree = PackedTree->new;
    my $growing = $tree->fill('log/growing', 'x' x 5_000_000);
    $tree->fill('log/quiet', 'x');
    my $child = start_growing($growing);
    $tree->packed($tree->tar_of(['/log']), 0);
    kill 'KILL', $child;
    waitpid $child, 0;
    is_deeply $tree->notes, ['warning|/log/growing|changed each of the 3 times it was read'],
        'the file that changes is named';
    my $copy = $tree->unpacked;
    cmp_ok -s "$copy/log/growing", '>=', 5_000_000, 'the file that changes is packed';
    is -s "$copy/log/quiet", 1, 'the other file is packed';
};

# --- the owner of a directory cannot make the agent read something else ---

my $HOME = "/home/ali\nce \\& ,x";
my $PUBLIC = "$HOME/app/public";

# A tree with the home of an account, and a directory that only root may read.
sub tree_of_account {
    my $tree = PackedTree->new;
    my $top = $tree->top;
    mkpath("$top/secret/public");
    $tree->fill("secret/$_/key", 'SECRET') for qw(public sub);
    $tree->fill("$PUBLIC/$_", 'own') for qw(page sub/key);
    link "$top$PUBLIC/page", "$top$PUBLIC/page too" or die $!;
    symlink 'page', "$top$PUBLIC/link" or die $!;
    output_of('chown', '-R', '1234:1234', "$top$HOME");
    chmod 0700, "$top/secret" or die $!;
    return $tree;
}

# Whether the secret is anywhere below a directory.
sub has_secret { return run(['grep', '-rq', 'SECRET', $_[0]])->{status} == 0 }

test 'A directory below one that is not root\'s is packed at its place' => sub {
    my $tree = tree_of_account();
    my ($top, @said) = ($tree->top);
    $tree->packed_while(sub { }, $PUBLIC);
    push @said, @{ $tree->notes };
    is_deeply listing($tree->unpacked . $PUBLIC), listing("$top$PUBLIC"),
        'the copy has all that the directory has';
    $tree->packed($tree->tar_of([$PUBLIC], exclude => ["$top$PUBLIC/sub"]), 0);
    push @said, @{ $tree->notes };
    ok !-e $tree->unpacked . "$PUBLIC/sub", 'a directory that is excluded is left out';
    $tree->packed_while(sub { $tree->fill("$PUBLIC/page", 'newer') }, $PUBLIC);
    push @said, @{ $tree->notes };
    is_deeply listing($tree->unpacked . $PUBLIC), listing("$top$PUBLIC"),
        'a file that changes after the scan is read again';
    is_deeply \@said, [], 'no problem is named';
};

# A copy of the public directory, packed while a link to the target takes the place of a directory. Expects
# that the secret behind the link is not in it.
sub copy_with_link {
    my ($tree, $directory, $target) = @_;
    my $top = $tree->top;
    $tree->packed_while(sub {
        rename "$top$directory", "$top$HOME/moved away" or die $!;
        symlink "$top$target", "$top$directory" or die $!;
    }, $PUBLIC);
    my $copy = $tree->unpacked;
    ok !has_secret($copy), 'the file that the link leads to is not in the archive';
    return $copy;
}

test 'A link that takes the place of a directory is packed as a link' => sub {
    my $copy = copy_with_link(tree_of_account(), "$PUBLIC/sub", '/secret/sub');
    ok -l "$copy$PUBLIC/sub", 'the link is in the archive';
};

test 'A link that takes the place of a directory above is not followed' => sub {
    my $tree = tree_of_account();
    copy_with_link($tree, "$HOME/app", '/secret');
    my %named = map { $_ => 1 } @{ $tree->notes };
    is_deeply [keys %named], ["error|$PUBLIC|cannot be read: Permission denied"],
        'the directory that cannot be reached is named';
};

test 'A second name of a file of another account is left out' => sub {
    my $tree = tree_of_account();
    my $top = $tree->top;
    link "$top/secret/sub/key", "$top$PUBLIC/stolen" or die $!;
    link $tree->fill('secret/open', 'open to all'), "$top$PUBLIC/open" or die $!;
    chmod 0600, "$top/secret/sub/key" or die $!;
    $tree->packed_while(sub { }, $PUBLIC);
    my $copy = $tree->unpacked;
    ok !has_secret($copy), 'a file that only its owner may read is left out';
    ok -e "$copy$PUBLIC/open", 'a file that all may read is packed';
    is_deeply $tree->notes, ["error|$PUBLIC/stolen|is left out: it is a further name of a file of another"
        . ' account (0) that lies elsewhere too'], 'only the name that is left out is named';
    unlink "$top$PUBLIC/stolen" or die $!;
    $tree->packed($tree->tar_of([$PUBLIC, '/secret']), 0);
    is_deeply listing($tree->unpacked . '/secret/sub'), listing("$top/secret/sub"),
        "a file of root with a further name is packed with root's own directory";
};

# --- what cannot be read ---

sub as_nobody {
    my ($code) = @_;
    local ($), $>) = ('65534 65534', 65534);
    return $code->();
}

test 'What cannot be read is named and the rest is packed' => sub {
    my $tree = PackedTree->new;
    my $top = $tree->top;
    $tree->fill("private/$_", $_) for qw(open closed directory/inside);
    chmod 0600, "$top/private/closed" or die $!;
    chmod 0700, "$top/private/directory" or die $!;
    my $own = tempdir(CLEANUP => 1);
    chown 65534, 65534, $own or die $!;
    rest();
    as_nobody(sub {
        my $private = Agent::Private->new($own);
        my $tar = $tree->tar_of(['/private'], private => $private);
        my $archive = Agent::Archive->new(private => $private, name => 'x.tar', bytes => $tar->scan->{bytes});
        $tar->pack($archive);
        $archive->complete;
    });
    my %said = map { $_ => 1 } @{ $tree->notes };
    is_deeply [sort keys %said], ['error|/private/closed|cannot be read: Permission denied',
        'error|/private/directory|cannot be read: Permission denied'],
        'the file and the directory that cannot be read are named';
    is_deeply [sort split /\n/, output_of('tar', '-tf', "$own/x.tar")], ['./private/', './private/open'],
        'the directory and the file that can be read are packed';
};

# --- the disk ---

test 'A large archive is written to the disk in pieces' => sub {
    # While the disk takes a piece the agent cannot report how far it is, so a piece is small.
    my $private = Agent::Private->new(tempdir(CLEANUP => 1));
    my ($written, $settled, $most) = (0, 0, 0);
    my ($write, $settle) = (\&Agent::Private::File::write, \&Agent::Private::File::settle);
    no warnings 'redefine';
    local *Agent::Private::File::write = sub { $written += length $_[1]; $write->(@_) };
    local *Agent::Private::File::settle = sub {
        $most = $written - $settled if $written - $settled > $most;
        $settled = $written;
        $settle->(@_);
    };
    my $archive = Agent::Archive->new(private => $private, name => 'content/large', compress => 0);
    $archive->put('x' x 1_000_000) for 1 .. 100;
    is $archive->complete->{size}, 100_000_000, 'the archive has all bytes';
    is $settled, 100_000_000, 'all bytes are on the disk at the end';
    cmp_ok $most, '<', 35_000_000, 'no more than a piece of the archive ever waits for the disk';
};

test 'A full disk ends an archive and nothing of it stays' => sub {
    my $small = tempdir(CLEANUP => 1);
    output_of('mount', '-t', 'tmpfs', '-o', 'size=2m,mode=700', 'small', $small);
    {
        my $tree = PackedTree->new;
        my $private = Agent::Private->new($small);
        $tree->fill('log/large', join '', map { chr rand 256 } 1 .. 3_000_000);
        my $tar = $tree->tar_of(['/log'], private => $private);
        my $need = $tar->scan->{bytes};
        ok !eval { Agent::Archive->new(private => $private, name => 'x', bytes => $need, compress => 1); 1 },
            'an archive for which there is no space is refused at once';
        like $@, qr/\ANo room: $need bytes are needed and \d+ may be used\n\z/,
            'the error says how much is missing';
        for my $compress (0, 1) {
            my $archive = Agent::Archive->new(private => $private, name => 'x', compress => $compress);
            ok !eval { $tar->pack($archive); 1 }, 'a full disk ends the archive';
            like $@, qr/\ACannot write .*: No space left on device\n\z/, 'the error gives the reason';
            undef $archive;
            is_deeply [grep { !/list\.new/ } glob "$small/*"], [], 'no file of the archive stays';
            $tar->scan;
        }
    }
    output_of('umount', $small);
};

run_tests;
