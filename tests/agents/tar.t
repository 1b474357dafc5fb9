# An archive has all that the tree has, and the scan says what it will have.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Process qw(run);
use Imitated qw(output_of rest);
use IO::Socket::UNIX;
use Independent;
use PackedTree;
use SourceTree qw(listing);
use Test::More;

my @NAMES = ("a\nb", 'a\\nb', 'a\\101', '-rf', '*', "\xff\xfe", "\xc3\xa4", ' sp ace ', q('"), "tab\t",
    '$(id)', 'x' x 255, '[a]', '{b,c}', '~', '#', ';&|');

# A tree with the directory /site, in which there is one of each kind.
sub one_of_each {
    my $tree = PackedTree->new;
    my $site = $tree->top . '/site';
    mkdir $_ or die "$_: $!" for $site, map {"$site/$_"} qw(empty closed deep);
    $tree->fill("site/$_", "content of $_") for @NAMES;
    $tree->fill('site/hard', 'linked');
    link "$site/hard", "$site/deep/hard too" or die $!;
    add_links($site);
    output_of('mkfifo', "$site/fifo");
    output_of('truncate', '-s', '30M', $tree->fill('site/sparse', 'begin'));
    open my $sparse, '>>', "$site/sparse" or die $!;
    print $sparse 'end';
    close $sparse or die $!;
    chown 1234, 4321, "$site/*", "$site/empty" or die $!;
    chmod 04711, $tree->fill('site/setuid', 'x') or die $!;
    chmod 0000, "$site/closed" or die $!;
    output_of('setfacl', '-m', 'u:33:r,g:44:rw', "$site/hard");
    output_of('setfacl', '-m', 'd:u:33:rwx', "$site/deep");
    $tree->set_attribute('site/hard', 'noted');
    output_of('touch', '-d', '2001-02-03 04:05:06.123456789', "$site/~");
    output_of('touch', '-h', '-d', '1999-01-01', "$site/soft");
    output_of('touch', '-d', '2002-01-01', "$site/deep");
    rest();
    return $tree;
}

sub add_links {
    my ($site) = @_;
    my %links = (soft => 'hard', dangling => 'nowhere', 'deep/away' => '../away/x',
        'deep/out' => '../../away', absolute => '/etc/passwd');
    for my $name (sort keys %links) { symlink $links{$name}, "$site/$name" or die $! }
    return;
}

sub md5_of {
    my ($path) = @_;
    return output_of('md5sum', $path) =~ /\A(\w+)/ && $1;
}

# For the tests that change nothing in it.
my $shared_tree = once(\&one_of_each);

test 'A copy has all that the tree has' => sub {
    my $tree = $shared_tree->();
    my $result = $tree->packed($tree->tar_of(['/site', '/site/deep']), 0);
    is run(['grep', '-ac', 'SCHILY.xattr.trusted.note=noted', $tree->archive])->{out}, "1\n",
        'attributes of files are in the archive';
    is_deeply [sort @{ $tree->notes }], [
        'link|/site/absolute|/etc/passwd', 'link|/site/deep/out|../../away',
    ], 'links that lead out of the archive are named';
    my $copy = $tree->unpacked;
    is_deeply listing("$copy/site"), listing($tree->top . '/site'),
        'the copy has names, owners, modes, times, links, ACLs, attributes and content';
    cmp_ok 512 * (stat "$copy/site/sparse")[12], '<', 1_000_000, 'a sparse file stays sparse';
    cmp_ok $result->{size}, '<', $result->{bytes} + 10_000, 'the scan says how large an archive may become';
    is $result->{size}, -s $tree->archive, 'the size of the archive is right';
    is $result->{unpacked}, $result->{size},
        'the unpacked size of an archive without compression is its size';
    is $result->{md5}, md5_of($tree->archive), 'the sum of the archive is right';
};

test 'A compressed archive has the same in it' => sub {
    my $tree = $shared_tree->();
    my $plain = $tree->packed($tree->tar_of(['/site']), 0);
    my $compressed = $tree->packed($tree->tar_of(['/site']), 1);
    is $compressed->{md5}, md5_of($tree->archive), 'the sum of a compressed archive is right';
    is $compressed->{unpacked}, $plain->{size},
        'the unpacked size of a compressed archive is that of the one without compression';
    is_deeply listing($tree->unpacked . '/site'), listing($tree->top . '/site'),
        'the copy has all that the tree has';
};

test 'The same sources make the same archive' => sub {
    my $tree = $shared_tree->();
    my ($one, $other) = map { $tree->packed($tree->tar_of(['/site/deep']), 1)->{md5} } 1, 2;
    is $one, $other, 'the sums of two archives of the same sources are the same';
};

test 'The fingerprint changes with all that is packed' => sub {
    my $tree = PackedTree->new;
    my ($top, $file) = ($tree->top, $tree->fill('site/file', 'content'));
    $tree->fill('site/deep/file', 'x');
    output_of('setfacl', '-m', 'u:33:r', $tree->fill('site/acl', 'x'));
    my $fingerprint = sub { $tree->tar_of(['/site'], @_)->scan->{fingerprint} };
    rest();
    my $before = $fingerprint->();
    is $fingerprint->(), $before, 'the fingerprint of an unchanged tree is the same';
    for my $change (
        ['content', sub { $tree->fill('site/file', 'other') }], ['mode', sub { chmod 0600, $file }],
        ['owner', sub { chown 5, 5, $file }], ['time', sub { utime 1, 1, $file }],
        ['new file', sub { $tree->fill('site/new', '') }],
        ['name', sub { rename "$top/site/new", "$top/site/newer" }],
        ['removal', sub { unlink "$top/site/newer" }],
        ['ACL', sub { output_of('setfacl', '-b', "$top/site/acl") }],
    ) {
        $change->[1]->();
        rest();
        my $now = $fingerprint->();
        isnt $now, $before, "$change->[0]: the fingerprint changes";
        $before = $now;
    }
    isnt $fingerprint->(exclude => ["$top/site/deep"]), $before,
        'the fingerprint changes when something is left out';
};

test 'What is excluded is left out, and nothing else' => sub {
    my $tree = PackedTree->new;
    my $top = $tree->top;
    my @names = ('deep', 'deep*', '[d]eep', 'deepest', '[de]');
    $tree->fill("site/$_/inside", 'x') for @names;
    $tree->packed($tree->tar_of(['/site'], exclude => ["$top/site/deep", "$top/absent"]), 0);
    ok !-e $tree->unpacked . '/site/deep', 'an excluded directory is not in the archive';
    $tree->packed($tree->tar_of(['/site'], exclude => [map {"$top/site/$_"} 'deep*', '[d]eep', '[de]']), 0);
    my $copy = $tree->unpacked;
    is_deeply [grep { -e "$copy/site/$_" } @names], [qw(deep deepest)],
        'a name with the characters of a pattern excludes no other';
};

test 'A socket is named' => sub {
    my $tree = PackedTree->new;
    $tree->fill('site/file', 'x');
    my $socket = IO::Socket::UNIX->new(Local => $tree->top . '/site/socket', Listen => 1) or die $!;
    rest();
    $tree->packed($tree->tar_of(['/site/socket', '/site/file']), 0);
    is_deeply $tree->notes, ['info|/site/socket|is a socket, which cannot be packed'],
        'a socket is named as one that cannot be packed';
};

run_tests;
