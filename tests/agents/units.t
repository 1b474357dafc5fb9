# The units of systemd that an administrator or an account has made.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Imitated qw(imitated problem_texts);
use Linux::Units;
use Linux::Users;
use Test::More;
use Independent;

my $ACCOUNTS = "root:x:0:0::/root:/bin/sh\nalice:x:1001:1001::/home/alice:/bin/sh\n"
    . "bob:x:1002:1002::/home/bob:/bin/sh\n";

# { file below its directory => unit }, and the problems.
sub found {
    my ($tree, $problems) = imitated('etc/passwd' => $ACCOUNTS, @_);
    my @units = Linux::Units::all($tree, $problems, Linux::Users->new($tree));
    return ({ map { $_->{file} => $_ } @units }, problem_texts($problems));
}

test 'A host may have no units of its own' => sub {
    is_deeply [found()], [{}, []], 'a host without units of its own has none, and no problems';
};

sub host_with_units {
    return found(
        'lib/systemd/system/nginx.service' => "[Service]\nExecStart=/usr/sbin/nginx\n",
        'etc/systemd/system/multi-user.target.wants/nginx.service' => \'/lib/systemd/system/nginx.service',
        'etc/systemd/system/sshd.service' => \'/usr/lib/systemd/system/ssh.service',
        'etc/systemd/system/masked.service' => \'/dev/null',
        'etc/systemd/system/notes.txt' => 'x',
        'etc/systemd/system/shop.service' =>
            "[Unit]\nDescription=The shop\n# User=nobody\n[Service]\nUser=alice\n"
            . "EnvironmentFile=-/etc/default/shop\nEnvironmentFile=/etc/shop.env\n"
                . "WorkingDirectory=/srv/shop\n"
            . "ExecStart=/srv/shop/bin/run \\\n  --token=secret\n",
        'etc/systemd/system/multi-user.target.wants/shop.service' => \'/etc/systemd/system/shop.service',
        'etc/systemd/system/alias.service' => \'shop.service',
        'etc/systemd/system/tidy.timer' =>
            "[Timer]\nOnCalendar=weekly\nOnCalendar=\nOnCalendar=daily\nOnBootSec=5min\nUnit=shop.service\n",
        'etc/systemd/system/own.service' => "[Service]\nUser=1002\nExecStart=-/bin/true\n",
        'etc/systemd/system/own.timer' => "[Timer]\nOnCalendar=hourly\n",
        'etc/systemd/system/plain.service' => "[Service]\nExecStart=/bin/true\n",
        'etc/systemd/system/nginx.service.d/limits.conf' => "[Service]\nLimitNOFILE=9999\n",
        'etc/systemd/system/linked.service' => \'/srv/app/linked.service',
        'srv/app/linked.service' => "[Service]\nUser=bob\n",
        'usr/local/lib/systemd/system/local.service' => "[Service]\nUser=bob\n",
        'home/bob/.config/systemd/user/mine.service' => "[Service]\nUser=ignored\nExecStart=/home/bob/mine\n",
        'home/bob/.config/systemd/user/default.target.wants/mine.service' => \'../mine.service',
    );
}

test 'Units of an administrator or of an account are found and none of packages' => sub {
    my ($units, $problems) = host_with_units();
    is_deeply $problems, [], 'no problem is named';
    is_deeply [sort keys %$units], [
        (map {"/etc/systemd/system/$_"} qw(linked.service nginx.service.d/limits.conf own.service own.timer
            plain.service
            shop.service tidy.timer)),
        '/home/bob/.config/systemd/user/mine.service', '/usr/local/lib/systemd/system/local.service',
    ], 'what an administrator or an account has put there is found, and nothing of packages';
};

test 'A service is described without the arguments of its program' => sub {
    my ($units) = host_with_units();
    my $shop = $units->{'/etc/systemd/system/shop.service'};
    is_deeply $shop, {
        name => 'shop.service', file => '/etc/systemd/system/shop.service', of => 'host', user => 'alice',
            enabled => 1,
        drop_in => 0, description => 'The shop', program => '/srv/shop/bin/run', starts => undef,
        directory => '/srv/shop',
        needs => ['/etc/default/shop', '/etc/shop.env'], when => [],
    }, 'a service is described, without the arguments of its program';
};

test 'Each unit runs as an account and timers as what they start' => sub {
    my ($units) = host_with_units();
    my %user = map { $_->{name} => $_->{user} } values %$units;
    is_deeply \%user, {
        'shop.service' => 'alice', 'tidy.timer' => 'alice', 'own.service' => 'bob', 'own.timer' => 'bob',
        'plain.service' => 'root', 'nginx.service' => 'root', 'linked.service' => 'bob',
        'local.service' => 'bob',
        'mine.service' => 'bob',
    }, 'each unit has its account, and a timer that of what it starts';
};

test 'The times of timers and the changes of units are found' => sub {
    my ($units) = host_with_units();
    is_deeply $units->{'/etc/systemd/system/tidy.timer'}{when}, ['OnCalendar=daily', 'OnBootSec=5min'],
        'a timer has its times, without those that an empty value takes back';
    is_deeply [sort map { $_->{name} } grep { $_->{enabled} } values %$units],
        [qw(mine.service shop.service)],
        'units that a target wants are enabled';
    is $units->{'/etc/systemd/system/nginx.service.d/limits.conf'}{drop_in}, 1,
        'a file that changes a unit of a package is a drop-in';
};

test 'Only files that root alone can write name further files to be packed' => sub {
    my $text = "[Service]\nEnvironmentFile=/etc/shadow\n";
    my ($tree, $problems) = imitated('etc/passwd' => $ACCOUNTS,
        map { ("etc/systemd/system/$_.service" => $text) }
        qw(of-alice of-root open));
    chown 1001, 1001, $tree->path('/etc/systemd/system/of-alice.service') or die $!;
    chmod 0666, $tree->path('/etc/systemd/system/open.service') or die $!;
    my %needs = map { $_->{name} => $_->{needs} } Linux::Units::all($tree, $problems,
        Linux::Users->new($tree));
    is_deeply \%needs, { 'of-alice.service' => [], 'of-root.service' => ['/etc/shadow'],
        'open.service' => [] },
        'only a unit that root alone can write needs the file that it names';
};

test 'A unit that cannot be read is an error' => sub {
    my ($tree, $problems) = imitated('etc/passwd' => $ACCOUNTS, 'etc/systemd/system/a.service' => 'x');
    chmod 0711, $tree->root or die $!;
    chmod 0600, $tree->path('/etc/systemd/system/a.service') or die $!;
    my $users = Linux::Users->new($tree);
    local ($), $>) = ('65534 65534', 65534);
    Linux::Units::all($tree, $problems, $users);
    is_deeply problem_texts($problems),
        ['error /etc/systemd/system/a.service: Cannot be read: Permission denied'],
        'a unit that cannot be read is an error';
};

run_tests;
