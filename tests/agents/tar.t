use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Archive;
use Agent::Private;
use Agent::Process qw(run);
use Agent::Tar;
use Digest::MD5 ();
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use Imitated qw(output_of rest write_file);
use IO::Socket::UNIX;
use Socket;
use Test::More;

my $top = tempdir(CLEANUP => 1);
my $dir = tempdir(CLEANUP => 1);
my $private = Agent::Private->new($dir);
my @notes;

sub fill {
    my ($path, $bytes) = @_;
    write_file("$top/$path", $bytes);
    return "$top/$path";
}

sub tar_of {
    my ($paths, %options) = @_;
    @notes = ();
    return Agent::Tar->new(private => $private, top => $top, paths => $paths,
        note => sub { push @notes, join '|', @_ },
        leads_out => sub { push @notes, join '|', 'link', @_ }, %options);
}

sub packed {
    my ($tar, $compress) = @_;
    my $found = $tar->scan;
    my $archive = Agent::Archive->new(private => $private, name => 'content/x.tar', compress => $compress,
        bytes => $found->{bytes});
    $tar->pack($archive);
    return { %$found, %{ $archive->complete } };
}

# What the archive holds, unpacked elsewhere.
sub unpacked {
    my $to = tempdir(CLEANUP => 1);
    output_of('tar', '-x', '-p', '-f', "$dir/content/x.tar", '--acls', '--xattrs', '--numeric-owner', '-C', $to);
    return $to;
}

# One line for each object of a tree: all that a copy must have too.
sub listing {
    my ($from) = @_;
    my $format = '%P %y %m %U %G %n %s %T@ %l\n';
    my @lines = sort split /\n/, output_of('find', $from, '-mindepth', '2', '-printf', $format);
    # The size of a directory is the file system's affair.
    s/\A(.* d \d+ \d+ \d+) \d+ \d+ /$1 / for @lines;
    my @files = split /\0/, output_of('find', $from, '-type', 'f', '-print0');
    my %sums;
    for my $file (@files) {
        open my $handle, '<', $file or die "$file: $!";
        $sums{ substr $file, length $from } = Digest::MD5->new->addfile($handle)->hexdigest;
    }
    # A directory lists its entries in an order of its own.
    my $acls = output_of('sh', '-c', 'cd "$1" && find . -print0 | LC_ALL=C sort -z | xargs -0 getfacl -n -P --', 'sh', $from);
    return { lines => \@lines, sums => \%sums, acls => $acls };
}

mkdir "$top/$_" or die $! for qw(site site/empty site/closed site/deep);
my @names = ("a\nb", 'a\\nb', 'a\\101', '-rf', '*', "\xff\xfe", "\xc3\xa4", ' sp ace ', q('"), "tab\t", '$(id)',
    'x' x 255, '[a]', '{b,c}', '~', '#', ';&|');
fill("site/$_", "content of $_") for @names;
fill('site/hard', 'linked');
link "$top/site/hard", "$top/site/deep/hard too" or die $!;
symlink 'hard', "$top/site/soft" or die $!;
symlink 'nowhere', "$top/site/dangling" or die $!;
symlink '../away/x', "$top/site/deep/away" or die $!;
symlink '../../away', "$top/site/deep/out" or die $!;
symlink '/etc/passwd', "$top/site/absolute" or die $!;
output_of('mkfifo', "$top/site/fifo");
output_of('truncate', '-s', '30M', fill('site/sparse', 'begin'));
open my $sparse, '>>', "$top/site/sparse" or die $!;
print $sparse 'end';
close $sparse;
output_of('setfacl', '-m', 'u:33:r,g:44:rw', "$top/site/hard");
output_of('setfacl', '-m', 'd:u:33:rwx', "$top/site/deep");
chown 1234, 4321, "$top/site/*", "$top/site/empty" or die $!;
chmod 04711, fill('site/setuid', 'x') or die $!;
chmod 0000, "$top/site/closed" or die $!;
output_of('touch', '-d', '2001-02-03 04:05:06.123456789', "$top/site/~");
output_of('touch', '-h', '-d', '1999-01-01', "$top/site/soft");
output_of('touch', '-d', '2002-01-01', "$top/site/deep");

# perl has no function of its own for this.
sub set_attribute {
    my ($path, $value) = @_;
    output_of('python3', '-c', 'import os,sys; os.setxattr(sys.argv[1], "trusted.note", sys.argv[2].encode())', $path, $value);
    return;
}
set_attribute("$top/site/hard", 'noted');

rest();
my $result = packed(tar_of(['/site', '/site/deep']), 0);
is run(['grep', '-ac', 'SCHILY.xattr.trusted.note=noted', "$dir/content/x.tar"])->{out}, "1\n", 'attributes of files are in the archive';
is_deeply [sort @notes], [
    'link|/site/absolute|/etc/passwd', 'link|/site/deep/out|../../away',
], 'links that lead out of the archive are named';
my $copy = unpacked();
is_deeply listing($copy), listing($top), 'the copy has names, owners, modes, times, links, ACLs and content';
cmp_ok 512 * (stat "$copy/site/sparse")[12], '<', 1_000_000, 'a sparse file stays sparse';
cmp_ok $result->{size}, '<', $result->{bytes} + 10_000, 'the scan says how large an archive may become';
is $result->{size}, -s "$dir/content/x.tar", 'the size is right';
is $result->{unpacked}, $result->{size}, 'and the size without compression';
is $result->{md5}, output_of('md5sum', "$dir/content/x.tar") =~ /\A(\w+)/ && $1, 'so is the sum';

my $gz = packed(tar_of(['/site']), 1);
is $gz->{md5}, output_of('md5sum', "$dir/content/x.tar") =~ /\A(\w+)/ && $1, 'the sum of a compressed archive is right';
is $gz->{unpacked}, $result->{size}, 'it knows how much it unpacks to';
is_deeply listing(unpacked()), listing($top), 'a compressed archive has the same in it';
is packed(tar_of(['/site/deep']), 1)->{md5}, packed(tar_of(['/site/deep']), 1)->{md5},
    'the same sources make the same archive';

my $scan = sub { tar_of(['/site'], @_)->scan->{fingerprint} };
rest();
my $before = $scan->();
is $scan->(), $before, 'the fingerprint of the same is the same';
for my $change (
    ['content', sub { fill('site/~', 'other') }], ['mode', sub { chmod 0600, "$top/site/~" }],
    ['owner', sub { chown 5, 5, "$top/site/~" }], ['time', sub { utime 1, 1, "$top/site/~" }],
    ['new file', sub { fill('site/new', '') }], ['name', sub { rename "$top/site/new", "$top/site/newer" }],
    ['removal', sub { unlink "$top/site/newer" }], ['ACL', sub { output_of('setfacl', '-b', "$top/site/hard") }],
) {
    $change->[1]->();
    rest();
    my $now = $scan->();
    isnt $now, $before, "$change->[0]: the fingerprint changes";
    $before = $now;
}
isnt $scan->(exclude => ["$top/site/deep"]), $before, 'so it does when something is left out';

packed(tar_of(['/site'], exclude => ["$top/site/deep", "$top/absent"]), 0);
ok !-e unpacked() . '/site/deep', 'what is to be left out is not there';

mkdir "$top/site/$_" or die $! for 'deep*', '[d]eep', 'deepest', '[de]';
fill("site/$_/inside", 'x') for 'deep*', '[d]eep', 'deepest', '[de]';
packed(tar_of(['/site'], exclude => ["$top/site/deep*", "$top/site/[d]eep", "$top/site/[de]"]), 0);
{
    my $there = unpacked();
    is_deeply [grep { -e "$there/site/$_" } 'deep', 'deep*', '[d]eep', 'deepest', '[de]'], [qw(deep deepest)],
        'a name with the signs of a pattern leaves out no other';
}
output_of('rm', '-r', map {"$top/site/$_"} 'deep*', '[d]eep', 'deepest', '[de]');

{
    my $socket = IO::Socket::UNIX->new(Local => "$top/site/socket", Listen => 1) or die $!;
    rest();
    packed(tar_of(['/site/socket', '/site/~']), 0);
    is_deeply \@notes, ['info|/site/socket|is a socket, which cannot be packed'], 'a socket is named';
    unlink "$top/site/socket";
}

# --- what changes while it is read: tar is held up by a reader who is not there yet ---

# Packs with something done after the scan, before tar begins.
package Slow;
our @ISA = ('Agent::Tar');

sub run_tar {
    my ($self, @rest) = @_;
    my $next = shift @{ $self->{between} };
    $next->() if $next;
    return $self->SUPER::run_tar(@rest);
}

package main;

mkdir "$top/live" or die $!;
fill("live/$_", "old $_") for qw(kept removed changed renamed);
link "$top/live/changed", "$top/live/changed too" or die $!;
rest();
my $slow = bless tar_of(['/live'], between => [sub {
    unlink "$top/live/removed";
    fill('live/changed', 'new');
    fill('live/added', 'added');
    rename "$top/live/renamed", "$top/live/under another name";
    mkdir "$top/live/directory";
    fill('live/directory/added', 'added');
}, sub { fill('live/changed', 'newer still') }]), 'Slow';
packed($slow, 0);
$copy = unpacked();
is_deeply listing("$copy/live")->{sums}, listing("$top/live")->{sums}, 'what changed after the scan is read again';
is_deeply [map { (stat "$copy/live/$_")[3] } 'changed', 'changed too'], [2, 2], 'and stays linked';
is_deeply \@notes, [], 'what was removed before its turn is not missed';

# A file that grows whenever tar has begun to read it.
mkdir "$top/log" or die $!;
fill('log/growing', 'x' x 5_000_000);
fill('log/quiet', 'x');
my $grower = fork;
die $! if !defined $grower;
if (!$grower) {
    open my $log, '>>', "$top/log/growing" or die $!;
    my $parent = getppid;
    while (getppid == $parent) { syswrite $log, 'x'; select undef, undef, undef, 0.0005 }
    require POSIX;
    POSIX::_exit(0);
}
packed(tar_of(['/log']), 0);
kill 'KILL', $grower;
waitpid $grower, 0;
is_deeply \@notes, ['warning|/log/growing|changed each of the 3 times it was read'], 'what never rests is named';
$copy = unpacked();
cmp_ok -s "$copy/log/growing", '>=', 5_000_000, 'and packed nevertheless';
is -s "$copy/log/quiet", 1, 'with all the others';

# --- who has a directory makes nothing else be read ---

# Tells if the secret is anywhere below a directory.
sub seen { return run(['grep', '-rq', 'SECRET', $_[0]])->{status} == 0 }

# Packs a directory of an account with something done before tar begins.
sub packed_while {
    my ($between, @paths) = @_;
    rest();
    packed((bless tar_of([@paths], between => [$between]), 'Slow'), 0);
    return;
}

# Directories above what is packed are made by who unpacks it.
sub unpacked_app {
    my $app = unpacked() . '/home/*/app';
    ($app) = glob $app;
    chown 1234, 1234, $app or die $!;
    return $app;
}

my $DIRECTORY = "/home/ali\nce \\& ,x";
mkpath("$top$DIRECTORY/app/public/sub");
mkpath("$top/secret/$_") for qw(public sub);
fill("secret/$_/key", 'SECRET') for qw(public sub);
fill("$DIRECTORY/app/public/$_", 'own') for qw(page sub/key);
link "$top$DIRECTORY/app/public/page", "$top$DIRECTORY/app/public/page too" or die $!;
symlink 'page', "$top$DIRECTORY/app/public/link" or die $!;
output_of('chown', '-R', '1234:1234', "$top$DIRECTORY");
chmod 0700, "$top/secret" or die $!;

packed_while(sub { }, "$DIRECTORY/app/public");
is_deeply listing(unpacked_app()), listing("$top$DIRECTORY/app"),
    'a directory whose path is not only root\'s is packed at its place';
packed(tar_of(["$DIRECTORY/app/public"], exclude => ["$top$DIRECTORY/app/public/sub"]), 0);
ok !-e unpacked() . "$DIRECTORY/app/public/sub", 'without what is to be left out';
packed_while(sub { fill("$DIRECTORY/app/public/page", 'newer') }, "$DIRECTORY/app/public");
is_deeply listing(unpacked_app()), listing("$top$DIRECTORY/app"), 'and read again when it changes';
is_deeply \@notes, [], 'without a word';

packed_while(sub {
    rename "$top$DIRECTORY/app/public/sub", "$top$DIRECTORY/kept" or die $!;
    symlink "$top/secret/sub", "$top$DIRECTORY/app/public/sub" or die $!;
}, "$DIRECTORY/app/public");
ok -l unpacked() . "$DIRECTORY/app/public/sub",
    'a link that takes the place of a directory is packed as a link';
ok !seen(unpacked()), 'and not what it leads to';
unlink "$top$DIRECTORY/app/public/sub" or die $!;
rename "$top$DIRECTORY/kept", "$top$DIRECTORY/app/public/sub" or die $!;
packed_while(sub {
    rename "$top$DIRECTORY/app", "$top$DIRECTORY/away" or die $!;
    symlink "$top/secret", "$top$DIRECTORY/app" or die $!;
}, "$DIRECTORY/app/public");
ok !seen(unpacked()), 'nor is it when it takes the place of a directory above';
my %named = map { $_ => 1 } @notes;
is_deeply [keys %named], ["error|$DIRECTORY/app/public|cannot be read: Permission denied"], 'which is named';
unlink "$top$DIRECTORY/app" or die $!;
rename "$top$DIRECTORY/away", "$top$DIRECTORY/app" or die $!;

link "$top/secret/sub/key", "$top$DIRECTORY/app/public/stolen" or die $!;
fill('secret/open', 'open to all');
link "$top/secret/open", "$top$DIRECTORY/app/public/open" or die $!;
chmod 0600, "$top/secret/sub/key" or die $!;
packed_while(sub { }, "$DIRECTORY/app/public");
my $stolen = unpacked();
ok !seen($stolen), 'a second name of a file of somebody else is left out';
ok -e "$stolen$DIRECTORY/app/public/open", 'unless everybody may read it';
is_deeply \@notes, ["error|$DIRECTORY/app/public/stolen|is left out: it is a further name of a file of"
    . ' another account (0) that lies elsewhere too'], 'and named';
unlink "$top$DIRECTORY/app/public/stolen" or die $!;
packed(tar_of(["$DIRECTORY/app/public", '/secret']), 0);
is_deeply listing(unpacked() . '/secret/sub'), listing("$top/secret/sub"), 'root has its own';

# --- what cannot be read ---

sub as_nobody {
    my ($code) = @_;
    local ($), $>) = ('65534 65534', 65534);
    return $code->();
}

mkdir "$top/private" or die $!;
fill("private/$_", $_) for qw(open closed);
mkdir "$top/private/directory", 0700 or die $!;
fill('private/directory/inside', 'x');
chmod 0600, "$top/private/closed" or die $!;
chmod 0755, $top or die $!;
rest();
my $own = tempdir(CLEANUP => 1);
chown 65534, 65534, $own or die $!;
as_nobody(sub {
    my $theirs = Agent::Private->new($own);
    my $tar = tar_of(['/private'], private => $theirs);
    my $found = $tar->scan;
    my $archive = Agent::Archive->new(private => $theirs, name => 'x.tar', bytes => $found->{bytes});
    $tar->pack($archive);
    $archive->complete;
});
my %said = map { $_ => 1 } @notes;
is_deeply [sort keys %said], ['error|/private/closed|cannot be read: Permission denied',
    'error|/private/directory|cannot be read: Permission denied'], 'what cannot be read is named';
is_deeply [sort split /\n/, output_of('tar', '-tf', "$own/x.tar")], ['./private/', './private/open'],
    'the rest is packed';

# --- the disk ---

{
    # What waits for the disk cannot tell how far it is: never for much at a time.
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
    is $archive->complete->{size}, 100_000_000, 'a large archive is whole';
    is $settled, 100_000_000, 'and on the disk';
    cmp_ok $most, '<', 35_000_000, 'where it came in pieces';
    $private->remove('content/large');
}

# --- no room ---

my $small = tempdir(CLEANUP => 1);
output_of('mount', '-t', 'tmpfs', '-o', 'size=2m,mode=700', 'small', $small);
my $tight = Agent::Private->new($small);
fill('log/growing', join '', map { chr rand 256 } 1 .. 3_000_000);
my $tar = tar_of(['/log'], private => $tight);
my $need = $tar->scan->{bytes};
ok !eval { Agent::Archive->new(private => $tight, name => 'x', bytes => $need, compress => 1); 1 },
    'room is asked for first';
like $@, qr/\ANo room: $need bytes are needed and \d+ may be used\n\z/, 'and what is missing is told';
for my $compress (0, 1) {
    my $archive = Agent::Archive->new(private => $tight, name => 'x', compress => $compress);
    ok !eval { $tar->pack($archive); 1 }, 'a full disk ends it';
    like $@, qr/\ACannot write .*: No space left on device\n\z/, 'for that reason';
    undef $archive;
    is_deeply [grep { !/list\.new/ } glob "$small/*"], [], 'with nothing left behind';
    $tar->scan;
}
undef $tar;
output_of('umount', $small);

done_testing;
