# The files of a system below a directory that serves as its root: links do not lead out of it, and links
# that accounts put in a path are not followed.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use POSIX qw(mkfifo);
use Agent::Process qw(run);
use Errno;
use Imitated qw(write_file);
use Linux::Tree;

sub plain_system {
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
    return ($root, Linux::Tree->new(root => "$root/"));
}

test 'Links are followed inside the root' => sub {
    my ($root, $tree) = plain_system();
    is $tree->root, $root, 'the root is kept without its slash';
    is(Linux::Tree->new->root, '/', 'the root of a running system is "/"');
    is(Linux::Tree->new->path('/etc/../etc/passwd'), '/etc/passwd', 'a path of a running system is resolved');
    is $tree->real('/srv/absolute'), '/etc/conf.d', 'an absolute link is followed inside';
    is $tree->real('/srv/up'), '/etc/passwd', 'a link cannot lead out';
    is $tree->real('/srv/absolute/../passwd'), '/etc/passwd', 'two points after a link go up from its target';
    is $tree->real('/srv/chain'), '/etc/conf.d/a.conf', 'chains of links are followed';
    is $tree->real('/srv/round'), undef, 'a link to itself is missing';
    is $tree->real('/srv/dangling'), undef, 'a link to nothing is missing';
    is $tree->real('/'), '/', 'the path of the root is "/"';
    is $tree->path('/srv/up'), "$root/etc/passwd", 'the path on the running system is given';
    is $tree->path('/no/such/../file'), "$root/no/file",
        'the path of a missing file on the running system is given';
};

test 'Files and directories are read inside the root' => sub {
    my (undef, $tree) = plain_system();
    is $tree->read_file('/srv/up'), 'inside', 'a file is read through a link inside the root';
    is_deeply [$tree->read_lines('/etc/conf.d/a.conf')], [qw(one two three)], 'lines come without their ends';
    is $tree->read_file('/srv/pipe'), undef, 'a pipe is not waited for';
    is $tree->read_file('/etc'), undef, 'a directory is not read as a file';
    is $tree->read_file('/etc/passwd', 3), undef, 'a file that is too large is not read';
    is $tree->read_file('/etc/passwd', 6), 'inside', 'a file that is just small enough is read';
    is $tree->read_file("/etc/passwd\0x"), undef, 'a name with a zero byte is missing';
    is_deeply [$tree->list('/srv/absolute')], [sort '.c.conf', '.hidden.d', 'a.conf', 'b.conf', 'x[1].conf'],
        'the names of a directory are sorted';
    is $! + 0, 0, 'a directory that was read leaves no error';
    is_deeply [$tree->list('/nowhere')], [], 'a missing directory has no names';
    cmp_ok $! + 0, '!=', 0, 'a missing directory leaves an error';
};

test 'Files, directories and links are distinguished' => sub {
    my (undef, $tree) = plain_system();
    ok $tree->exists('/srv/up'), 'what a link leads to exists';
    ok !$tree->exists('/srv/dangling'), 'a link to nothing does not exist';
    ok $tree->is_link('/srv/dangling'), 'a link is known as one';
    is $tree->link_target('/srv/up'), '../../../../../../etc/passwd',
        'the target of a link is given as it is written';
    ok $tree->is_dir('/srv/absolute') && !$tree->is_file('/srv/absolute'),
        'directories are distinguished from files';
    ok $tree->is_file('/srv/chain') && !$tree->is_dir('/srv/chain'),
        'files are distinguished from directories';
};

test 'Patterns find names and reach through links' => sub {
    my (undef, $tree) = plain_system();
    is_deeply [$tree->glob('/etc/conf.d/*.conf')], [map {"/etc/conf.d/$_.conf"} 'a', 'b', 'x[1]'],
        'patterns leave hidden names out';
    is_deeply [$tree->glob('/srv/*/[!b-z].conf')], ['/srv/absolute/a.conf'], 'patterns reach through links';
    is_deeply [$tree->glob('/etc/conf.d/x\[1\].conf')], ['/etc/conf.d/x[1].conf'],
        'a character after a backslash stands for itself';
    is_deeply [$tree->glob('/etc/conf.d/.*.conf')], ['/etc/conf.d/.c.conf'], 'hidden names can be asked for';
    is_deeply [$tree->glob('/etc/?asswd'), $tree->glob('/etc/none')], ['/etc/passwd'],
        'what is missing is not found';

    is_deeply [$tree->glob('/etc/conf.d/[b-a].conf')], [],
        'a class without characters finds nothing, without an error';
};

# --- links of those who own sites ---

my ($ALICE, $BOB) = (4711, 4712);

# Lays out directories and files of an account below a root: { path => content, undef for a directory, \target
# for a link }.
sub lay_out {
    my ($root, $owner, %paths) = @_;
    for my $path (sort keys %paths) {
        my $place = "$root$path";
        if (!defined $paths{$path}) { mkpath($place) }
        elsif (ref $paths{$path}) { symlink ${ $paths{$path} }, $place or die "$place: $!" }
        else {
            open my $file, '>', $place or die "$place: $!";
            print $file $paths{$path};
            close $file;
        }
        run(['chown', '-h', "$owner:$owner", $place])->{status} == 0 or die "chown: $place";
    }
    return;
}

sub system_of_accounts {
    my ($root, $tree) = plain_system();
    lay_out($root, 0, '/root' => undef, '/root/key' => 'secret', '/home' => undef);
    lay_out($root, $BOB, '/home/bob' => undef, '/home/bob/config.php' => 'secret');
    lay_out($root, $ALICE, '/home/alice' => undef, '/home/alice/app' => undef,
        '/home/alice/app/page' => 'own',
        '/home/alice/app/link' => \'page', '/home/alice/current' => \'app',
        '/home/alice/stolen' => \'/root/key',
        '/home/alice/directory' => \'/root', '/home/alice/config' => \'../bob/config.php',
        '/home/alice/all' => \'/',
        '/home/alice/long' => \'current/../../alice/../bob/config.php',
        '/home/alice/again' => \'directory/key',
        '/home/alice/ghost' => \'/root/absent', '/home/alice/uploads' => \'app/of php');
    lay_out($root, 33, '/home/alice/app/of php' => undef, '/home/alice/app/of php/picture' => 'picture');
    lay_out($root, 0, '/home/alice/app/shared' => \'/root');
    symlink '/root', "$root/srv/of-root" or die $!;
    return ($root, $tree);
}

test 'Links of an account lead to what is its own only' => sub {
    my ($root, $tree) = system_of_accounts();
    is $tree->read_file("/home/alice/$_->[0]"), $_->[1],
        "$_->[0] is followed: root has made it, or it leads to a file of its owner"
        for ['current/link', 'own'], ['uploads/picture', 'picture'], ['app/shared/key', 'secret'];
    for my $path (qw(stolen directory/key config all/root/key long again)) {
        ok !defined $tree->read_file("/home/alice/$path") && $!{EACCES}, "$path is not followed";
        ok !$tree->exists("/home/alice/$path"), "$path does not exist for the agent";
    }
    is_deeply [$tree->list('/home/alice/directory')], [],
        'no directory is listed through a link that is not followed';
    is_deeply [$tree->trail('/home/alice/directory/key')], ['/home/alice/directory'],
        'a trail ends at a link that is not followed';
    is_deeply [$tree->trail('/home/alice/current/link')],
        ['/home/alice/current', '/home/alice/app/link', '/home/alice/app/page'],
        'a trail has all links that may be followed';
    is_deeply [map {"$_->{path} $_->{owner} $_->{target}"} $tree->refused], [map {"/home/alice/$_"}
        "all $ALICE /", "config $ALICE ../bob/config.php", "directory $ALICE /root",
        "long $ALICE current/../../alice/../bob/config.php", "stolen $ALICE /root/key"],
        'all links that were not followed are listed'
        or diag explain [$tree->refused];
    link "$root/srv/of-root", "$root/home/alice/second" or die $!;
    ok !defined $tree->read_file('/home/alice/second/key'),
        'a second name of a link of root in a directory of an account is not followed';
};

test 'Each file of a directory that fits a pattern is read as it is by itself' => sub {
    my ($root, $tree) = plain_system();
    # More than are open at the same time.
    my %text = map { sprintf('%03d.list', $_) => "text $_\n" } 1 .. 150;
    mkdir "$root/srv/lists" or die $!;
    write_file("$root/srv/lists/$_", $text{$_}) for keys %text;
    write_file("$root/srv/lists/other", "text\n");
    write_file("$root/srv/lists/large.list", 'x' x 101);
    mkfifo("$root/srv/lists/pipe.list", 0600);
    symlink '001.list', "$root/srv/lists/link.list" or die $!;
    symlink 'absent', "$root/srv/lists/absent.list" or die $!;
    my %read;
    $tree->read_each($_, qr/\.list\z/, 100, sub { $read{ $_[0] } = ${ $_[1] } })
        for '/srv/lists', '/srv/absent';
    is_deeply \%read, { %text, 'link.list' => "text 1\n" },
        'files and what links lead to are read, but no file that is too large, and no pipe';
};

# --- what is put in a path at the last moment ---

sub put_while {
    my ($tree, $path, $change) = @_;
    no warnings 'redefine';
    my $real = \&Linux::Tree::real;
    local *Linux::Tree::real = sub { my $found = $real->(@_); $change->(); return $found };
    return $tree->read_file($path);
}

test 'A link in the place of a file is not followed' => sub {
    my ($root, $tree) = system_of_accounts();
    ok !defined put_while($tree, '/home/alice/app/page', sub {
        rename "$root/home/alice/app/page", "$root/home/alice/app/kept" or die $!;
        symlink '/root/key', "$root/home/alice/app/page" or die $!;
    }), 'a link in the place of a file is not followed';
};

test 'A link in the place of a directory is not followed' => sub {
    my ($root, $tree) = system_of_accounts();
    lay_out($root, $ALICE, '/home/alice/app/key' => 'own');
    ok !defined put_while($tree, '/home/alice/app/key', sub {
        rename "$root/home/alice/app", "$root/home/alice/away" or die $!;
        symlink "$root/root", "$root/home/alice/app" or die $!;
    }), 'a link in the place of a directory is not followed';
    unlink "$root/home/alice/app" or die $!;
};

test 'A pipe or a device is never opened' => sub {
    my ($root, $tree) = system_of_accounts();
    mkfifo("$root/home/alice/pipe", 0600);
    run(['mknod', "$root/home/alice/device", 'c', 1, 5])->{status} == 0 or die 'mknod';
    ok !defined $tree->read_file("/home/alice/$_") && $!{EINVAL}, "a $_ is never opened" for qw(pipe device);
};

run_tests;
