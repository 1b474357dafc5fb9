use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use POSIX qw(mkfifo);
use Linux::Tree;

my $root = tempdir(CLEANUP => 1);
mkpath(["$root/etc/conf.d", "$root/srv/www", "$root/etc/conf.d/.hidden.d"]);
my %files = ('etc/conf.d/a.conf' => "one\r\ntwo\nthree", 'etc/conf.d/b.conf' => '',
    'etc/conf.d/.c.conf' => 'c',
    'etc/conf.d/x[1].conf' => 'odd', 'etc/passwd' => 'inside');
for my $name (keys %files) {
    open my $file, '>', "$root/$name" or die $!;
    print $file $files{$name};
    close $file;
}
symlink '/etc/conf.d', "$root/srv/absolute";
symlink '../../../../../../etc/passwd', "$root/srv/up";
symlink 'absolute/a.conf', "$root/srv/chain";
symlink 'round', "$root/srv/round";
symlink 'gone', "$root/srv/dangling";
mkfifo("$root/srv/pipe", 0600);

my $tree = Linux::Tree->new(root => "$root/");
is $tree->root, $root, 'the root is kept without its slash';
is(Linux::Tree->new->root, '/', 'the root is "/" in life');
is(Linux::Tree->new->path('/etc/../etc/passwd'), '/etc/passwd', 'paths of a live system are its own');
is $tree->real('/srv/absolute'), '/etc/conf.d', 'an absolute link is followed inside';
is $tree->real('/srv/up'), '/etc/passwd', 'a link cannot lead out';
is $tree->real('/srv/absolute/../passwd'), '/etc/passwd', 'two points after a link go up from its target';
is $tree->real('/srv/chain'), '/etc/conf.d/a.conf', 'chains of links are followed';
is $tree->real('/srv/round'), undef, 'a link to itself is missing';
is $tree->real('/srv/dangling'), undef, 'a link to nothing is missing';
is $tree->real('/'), '/', 'the root is itself';
is $tree->path('/srv/up'), "$root/etc/passwd", 'the path on the running system is given';
is $tree->path('/no/such/../file'), "$root/no/file", 'also for what is missing';
is $tree->read_file('/srv/up'), 'inside', 'files are read inside';
is_deeply [$tree->read_lines('/etc/conf.d/a.conf')], [qw(one two three)], 'lines come without their ends';
is $tree->read_file('/srv/pipe'), undef, 'a pipe is not waited for';
is $tree->read_file('/etc'), undef, 'a folder is no file';
is $tree->read_file('/etc/passwd', 3), undef, 'a file that is too large is not read';
is $tree->read_file('/etc/passwd', 6), 'inside', 'one that is just small enough is';
is_deeply [$tree->list('/srv/absolute')], [sort '.c.conf', '.hidden.d', 'a.conf', 'b.conf', 'x[1].conf'],
    'names are sorted';
is $! + 0, 0, 'a folder that was read leaves no error';
is_deeply [$tree->list('/nowhere')], [], 'a missing folder has no names';
cmp_ok $! + 0, '!=', 0, 'but an error';
ok $tree->exists('/srv/up'), 'what a link leads to exists';
ok !$tree->exists('/srv/dangling'), 'what is not there does not';
ok $tree->is_link('/srv/dangling'), 'a link is seen';
is $tree->link_target('/srv/up'), '../../../../../../etc/passwd', 'its text is given';
ok $tree->is_dir('/srv/absolute') && !$tree->is_file('/srv/absolute'), 'folders are told from files';
ok $tree->is_file('/srv/chain') && !$tree->is_dir('/srv/chain'), 'and files from folders';
is_deeply [$tree->glob('/etc/conf.d/*.conf')], [map {"/etc/conf.d/$_.conf"} 'a', 'b', 'x[1]'],
    'patterns leave hidden names out';
is_deeply [$tree->glob('/srv/*/[!b-z].conf')], ['/srv/absolute/a.conf'], 'patterns reach through links';
is_deeply [$tree->glob('/etc/conf.d/x\[1\].conf')], ['/etc/conf.d/x[1].conf'],
    'a backslash takes the meaning away';
is_deeply [$tree->glob('/etc/conf.d/.*.conf')], ['/etc/conf.d/.c.conf'], 'hidden names can be asked for';
is_deeply [$tree->glob('/etc/?asswd'), $tree->glob('/etc/none')], ['/etc/passwd'],
    'what is missing is not found';

is_deeply [$tree->glob('/etc/conf.d/[b-a].conf')], [], 'a class that is none is no mistake of ours';
is $tree->read_file("/etc/passwd\0x"), undef, 'a name that cannot be is missing';

done_testing;
