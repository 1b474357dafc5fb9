# Archives that follow earlier ones: unpacked in order they are the tree, whatever happened to it; and they are
# made only where nothing can be lost by it.
use strict;
use warnings;
# Each archive waits for the disk, which others may use.
BEGIN { $ENV{TMPDIR} = '/dev/shm' }
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Kept;
use Agent::Private;
use Agent::Problems;
use Agent::Process qw(run);
use Digest::MD5 ();
use File::Path qw(mkpath rmtree);
use File::Temp qw(tempdir);
use Imitated qw(output_of rest write_file);
use Linux::Content;
use Linux::Tree;
use Test::More;

# What Linux::Content asks of others where no links lead out.
package NoInventory;
sub parts { return $_[0] }
sub brought_by_packages { return {} }

package NoStatus;
sub set { return }

package main;

my $top = tempdir(CLEANUP => 1);
my $fetched = tempdir(CLEANUP => 1);
my ($dir, $private, $problems, @exclude);

# A new agent, which knows nothing, and a new host to fetch to.
sub begin_anew {
    rmtree($fetched, { keep_root => 1 });
    $dir = tempdir(CLEANUP => 1);
    $private = Agent::Private->new($dir);
    return;
}
begin_anew();

sub fill {
    my ($path, $bytes) = @_;
    write_file("$top/$path", $bytes);
    return "$top/$path";
}

# Dumps the directory "site", and gives what dump.xml is made of.
sub dumped {
    my (%options) = @_;
    $problems = Agent::Problems->new;
    my $kept = Agent::Kept->new($private);
    $kept->begin;
    my $object = {};
    my $content = Linux::Content->new(tree => Linux::Tree->new(root => $top), problems => $problems,
        private => $private, kept => $kept, status => (bless { done => 0 }, 'NoStatus'),
        inventory => (bless {}, 'NoInventory'), options => { increments => 1, compress => 1, %options });
    my $item = { kind => 'mailbox', label => 'site', object => $object, name => 'content/sites/site.tar'
        . ($options{compress} || !exists $options{compress} ? '.gz' : ''), paths => ['/site', '/people/alice/app'] };
    $content->make($item);
    $kept->finish;
    return $object->{content}[0];
}

# Moves what is there to the host that it is wanted on, as sondrel does.
sub fetch {
    my ($most) = @_;
    my @names = $private->files_below('content');
    for my $name (defined $most ? @names[0 .. $most - 1] : @names) {
        my ($directory) = $name =~ m{\A(.*)/};
        mkpath("$fetched/$directory");
        output_of('mv', "$dir/$name", "$fetched/$name");
    }
    return;
}

# What comes of unpacking all in order, with the tools that every host has.
sub restored {
    my ($content) = @_;
    my $to = tempdir(CLEANUP => 1);
    unpack_one($to, $content);
    for my $increment (@{ $content->{increments} }) {
        if ($increment->{gone}) {
            check_sum($increment->{gone});
            output_of('sh', '-c', 'cd "$1" && gzip -dc "$2" | xargs -0 -r rm -df --', 'sh', $to, "$fetched/$increment->{gone}{name}");
        }
        unpack_one($to, $increment);
    }
    return $to;
}

sub unpack_one {
    my ($to, $archive) = @_;
    check_sum($archive);
    output_of('tar', '-x', '-p', '-f', "$fetched/$archive->{name}", '--acls', '--xattrs', '--xattrs-include=*',
        '--numeric-owner', '-C', $to);
    return;
}

sub check_sum {
    my ($archive) = @_;
    my ($sum) = output_of('md5sum', "$fetched/$archive->{name}") =~ /\A\\?(\w+)/;
    $sum eq $archive->{md5} or die "$archive->{name} is another one";
    return;
}

sub set_attribute {
    my ($path, $value) = @_;
    output_of('python3', '-c', 'import os,sys; os.setxattr(sys.argv[1], "trusted.note", sys.argv[2].encode())', $path, $value);
    return;
}

# One line for each path of a tree: all that a copy must have too, and which names are of one file.
sub listing {
    my ($from) = @_;
    my $script = <<'PYTHON';
import hashlib, os, stat, sys
top, files = os.fsencode(sys.argv[1]), {}
for where, directories, names in os.walk(top):
    directories.sort()
    for name in sorted(directories + names):
        path = os.path.join(where, name)
        it = os.lstat(path)
        what = [os.path.relpath(path, top), oct(it.st_mode), it.st_uid, it.st_gid, it.st_mtime_ns]
        if stat.S_ISREG(it.st_mode):
            what += [it.st_size, hashlib.md5(open(path, "rb").read()).hexdigest(), it.st_nlink,
                     files.setdefault(it.st_ino, what[0])]
        if stat.S_ISLNK(it.st_mode):
            what.append(os.readlink(path))
        else:
            what.append([(key, os.getxattr(path, key)) for key in sorted(os.listxattr(path))])
        print(what)
PYTHON
    return [map { split /\n/, output_of('python3', '-c', $script, "$from/$_") } 'site', 'people/alice/app'];
}

sub members {
    my ($archive) = @_;
    return [sort split /\n/, output_of('tar', '-tf', "$fetched/$archive->{name}")];
}

# Dumps and fetches, and holds the copy against the tree; gives the content.
sub follows {
    my ($what) = @_;
    rest();
    my $content = dumped();
    fetch();
    is_deeply listing(restored($content)), listing($top), "$what: base and increments are the tree";
    return $content;
}

mkdir "$top/site" or die $!;
chmod 0755, $top;
mkdir "$top/site/$_" or die $! for qw(docs docs/deep empty turns moves many);
my @odd = ("a\nb", 'a\\nb', 'a\\101', '-rf', '*', "\xff\xfe", ' sp ace ', "tab\t", '[a]', "cr\r", 'x', 'x ', './..x', '~');
$_ =~ s{/}{:}g for @odd;
fill("site/many/$_", "of $_") for @odd, map {"file$_"} 1 .. 300;
fill("site/docs/$_", "content of $_\n" x 50) for qw(page old same.second set-back owner mode note acl);
fill('site/docs/deep/file', 'deep');
fill('site/turns/into-directory', 'file');
mkpath("$top/site/turns/into-file/with/files");
fill('site/turns/into-file/with/files/inside', 'x');
symlink '../docs', "$top/site/turns/link-into-directory" or die $!;
symlink 'page', "$top/site/docs/link" or die $!;
mkdir "$top/site/moves/tree" or die $!;
fill("site/moves/tree/$_", "moved $_") for 1 .. 3;
fill('site/moves/one', 'one');
fill('site/linked', 'one file');
link "$top/site/linked", "$top/site/docs/linked too" or die $!;
fill('site/alone', 'will have a second name');
output_of('truncate', '-s', '30M', fill('site/sparse', 'begin'));
fill('site/large', 'x' x 400_000);
# What is packed from another directory than the root of the system, since that is not root's.
mkpath("$top/people/alice/app/code");
fill("people/alice/app/$_", "of $_") for qw(page code/one code/two);
output_of('chown', '-R', '1234:1234', "$top/people/alice");

rest();
my $base = dumped();
is_deeply $base->{increments}, [], 'the first archive is whole';
fetch();
is_deeply listing(restored($base)), listing($top), 'and is the tree';
my $again = dumped();
is_deeply [$again->{md5}, $again->{increments}, [$private->files_below('content')]], [$base->{md5}, [], []],
    'what has not changed since it was fetched is not made again';

for my $step (
    ['nothing but content', sub { fill('site/docs/page', 'changed') }],
    ['only mode, owner, attributes, access control list, and a time that was set back', sub {
        chmod 0600, "$top/site/docs/mode";
        chown 1234, 4321, "$top/site/docs/owner";
        set_attribute("$top/site/docs/note", 'noted');
        output_of('setfacl', '-m', 'u:33:r', "$top/site/docs/acl");
        my @times = (stat "$top/site/docs/set-back")[8, 9];
        fill('site/docs/set-back', "Content of set-back\n" x 50);
        utime @times, "$top/site/docs/set-back";
    }],
    ['new, vanished and odd names', sub {
        fill('site/new', 'new');
        mkpath("$top/site/new directory/below");
        unlink "$top/site/docs/old", "$top/site/docs/deep/file";
        rmdir "$top/site/docs/deep";
        rmdir "$top/site/empty";
        fill("site/many/$_", "changed $_") for 'x', "a\nb";
        unlink map {"$top/site/many/$_"} '-rf', 'a\\101', "\xff\xfe", ' sp ace ', "tab\t";
    }],
    ['what was renamed', sub {
        rename "$top/site/moves/tree", "$top/site/moves/wood" or die $!;
        rename "$top/site/moves/one", "$top/site/moves/two" or die $!;
        rename "$top/site/docs/mode", "$top/site/docs/note" or die $!;
    }],
    ['files, directories and links in the place of others', sub {
        rmtree("$top/site/turns/into-file");
        fill('site/turns/into-file', 'a file now');
        unlink "$top/site/turns/into-directory", "$top/site/turns/link-into-directory", "$top/site/docs/link";
        mkpath("$top/site/turns/$_/with") for qw(into-directory link-into-directory);
        fill('site/turns/link-into-directory/page', 'x');
        symlink 'owner', "$top/site/docs/link" or die $!;
    }],
    ['further names of files', sub {
        link "$top/site/alone", "$top/site/docs/no longer alone" or die $!;
        unlink "$top/site/linked";
        fill('site/linked', 'another file');
    }],
    ['names taken away, a sparse file, and another directory', sub {
        unlink "$top/people/alice/app/code/one";
        fill('people/alice/app/code/two', 'changed');
        unlink "$top/site/docs/no longer alone";
        open my $sparse, '+<', "$top/site/sparse" or die $!;
        seek $sparse, 20_000_000, 0;
        print $sparse 'in the middle';
        close $sparse;
    }],
) {
    my ($what, $do) = @$step;
    $do->();
    my $content = follows($what);
    is $content->{md5}, $base->{md5}, "$what: the base stays";
}
my $last = follows('at the end');
is scalar @{ $last->{increments} }, 7, 'each dump has added one';
is_deeply members($last->{increments}[0]), ['./site/', './site/docs/', './site/docs/page'],
    'with what has changed, and the directories on the way';
cmp_ok 512 * (stat restored($last) . '/site/sparse')[12], '<', 1_000_000, 'holes stay holes';
ok !defined $last->{increments}[0]{gone}, 'without a list where nothing has vanished';

# --- a change that leaves no newer time: a clock that was set back, or a file that came by a renamed directory ---

mkpath("$top/elsewhere/old directory");
fill('elsewhere/old directory/from before', 'x');
rest();
follows('before');
rename "$top/elsewhere/old directory", "$top/site/old directory" or die $!;
follows('a directory with older files');
is_deeply [grep {/from before/} @{ members(follows('again')->{increments}[-1]) }], ['./site/old directory/from before'],
    'comes with them';

# --- what changes within the moment of the dump ---

fill('site/docs/same.second', 'first');
dumped();
my @times = (stat "$top/site/docs/same.second")[8, 9];
fetch();
fill('site/docs/same.second', 'again');
utime @times, "$top/site/docs/same.second";
follows('a change in the same moment');

# --- a file that is there only while tar reads: it is in an archive, and never was for the next one ---

{
    no warnings 'redefine';
    my $run = \&Agent::Tar::run_tar;
    my $done = 0;
    local *Agent::Tar::run_tar = sub {
        my @arguments = @_;
        mkpath("$top/elsewhere/brief");
        fill('elsewhere/brief/file', 'brief') if !$done;
        rest();
        rename "$top/elsewhere/brief", "$top/site/brief" if !$done++;
        return $run->(@arguments);
    };
    fill('site/docs/page', 'changed with it');
    rest();
    my $content = dumped();
    fetch();
    ok +(grep {m{/brief/file}} @{ members($content->{increments}[-1]) }), 'what came meanwhile is in the archive';
    rmtree("$top/site/brief");
}
follows('what was there while tar read');

# --- when an archive is made whole ---

sub is_whole {
    my ($content, $why) = @_;
    is_deeply [$content->{increments}, -e "$dir/$content->{name}" ? 1 : 0], [[], 1], "whole: $why";
    return;
}

fill('site/docs/page', 'once more');
is_whole(dumped(increments => 0), 'where no increments are asked for');
is scalar(grep {/=\./} $private->files_below('content'), $private->files_below('known')), 0, 'with nothing left of them';
fetch();
fill('site/docs/page', 'and once more');
is_whole(dumped(), 'after one that was not made to be followed');
rest();
fill('site/docs/page', 'again');
is_whole(dumped(), 'when the one before was not fetched');
rest();
fetch();
fill('site/docs/page', 'a first increment');
rest();
my $first = dumped();
is scalar @{ $first->{increments} }, 1, 'an increment follows what was fetched';
fill('site/docs/page', 'a second one');
unlink "$top/site/many/file7";
rest();
my $second = dumped();
is scalar @{ $second->{increments} }, 1, 'one that was not fetched is made anew';
fetch();
is_deeply listing(restored($second)), listing($top), 'so that nothing is missing';
fill('site/large', 'y' x 2_000_000);
rest();
is_whole(dumped(), 'when increments come to half of the base');
fetch();
fill('site/docs/page', 'with other files left out');
rest();
{
    no warnings 'redefine';
    local *Linux::Content::of_kernel = sub { return "$top/site/moves" };
    is_whole(dumped(), 'when other files are left out');
}

# --- what was not fetched and is not there ---

begin_anew();
rest();
dumped();
fill('site/docs/page', 'killed while it is packed');
rest();
my $child = fork;
die $! if !defined $child;
if (!$child) {
    no warnings 'redefine';
    *Agent::Tar::pack = sub { kill KILL => $$ };
    dumped();
}
waitpid $child, 0;
is $? & 127, 9, 'a dump is killed between removing an archive and making it again';
is_whole(dumped(), 'when the one before was removed by the agent');

begin_anew();
rest();
dumped();
fetch();
{
    my ($name) = $private->files_below('known');
    fill('site/docs/page', 'with half a manifest');
    truncate "$dir/$name", (-s "$dir/$name") - 3 or die $!;
}
rest();
is_whole(dumped(), 'when nobody knows any more what the one before has');
fetch();
chmod 0700, "$top/site/docs";
fill('site/docs/page', 'with a full disk');
{
    no warnings 'redefine';
    local *Agent::Manifest::keep = sub { die "No room is left\n" };
    rest();
    my $content = dumped();
    is scalar @{ $content->{increments} || [] }, 1, 'an archive is made where it cannot be followed';
    like join('', $problems->elements), qr/next dump.*whole.*No room is left/s, 'which is told';
    fetch();
    is_deeply listing(restored($content)), listing($top), 'and is right';
}
fill('site/docs/page', 'after a full disk');
rest();
is_whole(dumped(), 'after one of which nothing could be kept');
{
    my (@warnings, $name);
    local $SIG{__WARN__} = sub { push @warnings, @_ };
    $name = 'content/databases/mysql-shop.sql.gz';
    my $kept = Agent::Kept->new($private);
    $kept->begin;
    write_file("$dir/$name", 'rows');
    $kept->add({ name => $name, size => 4, md5 => '0' x 32, unpacked => 4 }, '-');
    my $chain = Agent::Chain->new(kept => $kept, private => $private, name => $name);
    is_deeply [[$chain->names], [@warnings]], [[$name], []], 'a dump of a database has no increments';
    $chain->drop_from(0);
    is_deeply [$chain->names, -e "$dir/$name" || ()], [], 'and is dropped once';
}
is_deeply [grep { (lstat)[2] & 0177 } map {"$dir/$_"} $private->files_below('known')], [],
    'what is kept for increments is for nobody to read';
is_deeply [grep {/\.new\z/} $private->files_below('known')], [], 'and nothing half done stays';

done_testing;
