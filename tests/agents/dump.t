# A dump of a whole host: its archives, its description and the list of its content.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Process qw(run);
use DumpedHost;
use File::Path ();
use Linux::ContentList;

# Most of the tests look at a dump of everything; those that dump come after them.
dumped('', '--dump-all');

test 'A dump of everything describes all that there is' => sub {
    valid('dump', $private->read('dump.xml'), 'a dump of everything is valid');
    valid('dumping-status', $private->read('dumping-status.xml'), 'so is its status');
    is_deeply files(), \@EVERYTHING, 'everything has an archive';
    is found('string(/dumping-status/@stage)', "$dir/dumping-status.xml"), 'finished', 'the status says it is done';
    is found('string(/dumping-status/@done)', "$dir/dumping-status.xml"), scalar @EVERYTHING, 'with all of them';
    is_deeply values_of('//client/@name'), [qw(alice bob root)], 'all owners of sites are clients';
    is found('string(//domain[@name="whole.test"]/site/php/@listen)'), 'unix:/var/run/php/whole.sock',
        'a site with PHP says at which address its web server reaches PHP';
    is_deeply values_of('/dump/reseller[@name="big"]/client/@name'), ['bob'], 'one of them in its reseller';
    is_deeply values_of('//client[@name="alice"]/domain/@name'), [qw(a.test b.test)], 'with their domains';
    is_deeply values_of('//domain[@name="a.test"]/mailbox/@address'), ['info@a.test'], 'which have their mailboxes';
    is_deeply values_of('//client[@name="bob"]/mailbox/@address'), ['bob'], "an account's own mail is the client's";
    is_deeply values_of('/dump/unassigned/domain/mailbox/@address'), ['x@only-mail.test'],
        'mail of a domain without an owner is not lost';
    is found('count(//site[block/directive[@name="server"]/directive[@name="root"]])'), found('count(//site)'),
        'sites have the blocks that they are made of';
    is found('string(/dump/web-configuration[@name="nginx"]/@file)'), '/etc/nginx/nginx.conf', 'and the host has the rest';
    is found('string(//admin-info/@mail)'), 'admin@a.test', 'the administrator is named';
    is found('string(//client[@name="alice"]/cron)'), 'run this', 'jobs are listed';
    is found('string(//client[@name="bob"]/cron/@when)'), '@daily', "so are those of the system's tables";
};

test 'Each archive has what belongs to its object' => sub {
    is_deeply members('content/sites/a.test.tar.gz'),
        [qw(./etc/nginx/sites-enabled/a ./etc/opendkim/a.key ./home/alice/app/public/index.php ./var/bind/db.a)],
        'a site has its root, its configuration, its zone and the key that signs its mail';
    is_deeply values_of('//domain[@name="a.test"]/zone/@file'), ['/var/bind/db.a'], 'which are described';
    is found('string(//domain[@name="a.test"]/mail-key/@selector)'), 'mail', 'as a new host needs them';
    is_deeply values_of('//server/zone/@name'), [qw(a.test only-mail.test)], 'the host has them all';
    is found('string(//server/ftp-account/@uid)'), $BOB, 'and the accounts of its FTP servers';
    is_deeply [grep { !{ map { $_ => 1 } @{ members('content/server/settings.tar.gz') } }->{$_} }
        qw(./var/bind/db.a ./etc/opendkim/keys ./etc/pure-ftpd/pureftpd.passwd)], [], "which are in the archive of its settings";
    my @of_servers = map {"./$_"} qw(opt/remi/php81/root/etc/php.ini srv/elsewhere/web.conf
        usr/local/apache2/conf/httpd.conf usr/local/openresty/nginx/conf/nginx.conf);
    is_deeply [grep { my $file = $_; grep { $_ eq $file } @of_servers } @{ members('content/server/settings.tar.gz') }],
        \@of_servers, 'the files of web servers and PHP are in the settings wherever they are';
    is_deeply members('content/sites/b.test.tar.gz'), ['./etc/nginx/sites-enabled/b'],
        'a root that sites share is packed once';
    is_deeply values_of('//domain[@name="b.test"]/content/@file'),
        [qw(content/sites/a.test.tar.gz content/sites/b.test.tar.gz)], 'and both have it';
    is_deeply members('content/sites/c.test.tar.gz'),
        [qw(./etc/nginx/sites-available/c ./etc/nginx/sites-enabled/c ./srv/current ./srv/releases/5/web/index.html)],
        'links in the path are packed with what they lead to';
    is_deeply members('content/clients/alice.tar.gz'),
        [qw(./etc/systemd/system/shop.service ./etc/systemd/system/shop.timer ./home/alice/app/config.php
            ./var/spool/cron/crontabs/alice)],
        'a client has jobs, units, and files of the home that are in no site';
    is_deeply members('content/clients/bob.tar.gz'), [qw(./etc/cron.d/app ./home/bob/notes)], 'or in no mailbox';
    is_deeply [grep {/cron/} @{ members('content/server/settings.tar.gz') }],
        [qw(./etc/cron.d/app ./etc/cron.d/packaged ./etc/cron.daily/tidy ./etc/crontab),
            map {"./var/spool/cron/crontabs/$_"} qw(carol www-data)],
        "what cron runs for the system and for accounts without a site is with the host's settings";
    is_deeply members('content/mailboxes/bob.tar.gz'), ['./home/bob/Maildir/new/1'], 'mailboxes are packed';
};

test 'A certificate comes with what renews it' => sub {
    is_deeply [grep {/letsencrypt/} @{ members('content/sites/whole.test.tar.gz') }], [
        (map {"./etc/letsencrypt/archive/tls.test/${_}1.pem"} qw(cert chain fullchain privkey)),
        (map {"./etc/letsencrypt/live/tls.test/$_.pem"} qw(cert chain fullchain privkey)),
        './etc/letsencrypt/renewal/tls.test.conf',
    ], 'a certificate comes with what renews it';
    is found('string(//domain[@name="whole.test"]//renewal/directory[@path="/etc/letsencrypt/archive"]/@mode)'), '0755',
        'and the modes of the directories above';
};

test 'Units of systemd are with what they belong to' => sub {
    my @of_others = qw(./etc/backup.env ./etc/systemd/system/backup.service ./home/dave/.config/systemd/user/sync.service);
    my %setting = map { $_ => 1 } @{ members('content/server/settings.tar.gz') };
    is_deeply [grep { !$setting{$_} } @of_others], [], 'so are units of the system and of accounts without a site';
    is_deeply values_of('/dump/server/unit/@name'), [qw(backup.service sync.service)], 'which are described there';
    is_deeply values_of('//client[@name="alice"]/unit/@name'), [qw(shop.service shop.timer)], 'those of a client with it';
    is found('string(//unit[@name="shop.timer"]/when)'), 'OnCalendar=daily', 'timers say when';
    unlike $private->read('dump.xml'), qr/cron\.service/, "and a package's unit that is enabled is nothing to copy";
    unlike $private->read('dump.xml'), qr/--key/, 'arguments of programs are not in the document';
};

test 'The accounts that must be there before anything is unpacked are described' => sub {
    is_deeply values_of('/dump/accounts/account/@name'), [qw(alice bob root vmail)],
        'the owners of what is packed are described, and no others';
    is found('string(/dump/accounts/account[@name="vmail"]/@uid)'), $VMAIL, 'with their numbers';
    is_deeply values_of('//client[@name="alice"]/group/@name'), [qw(adm team)], 'clients have their further groups';
    is_deeply values_of('/dump/accounts/group/@name'), [qw(adm alice bob root team)],
        'groups of files, of accounts and of persons are described';
    is problem_of('accounts', 'Passwords of alice, root are in no archive'), 'info', 'accounts whose passwords are not moved are named';
    is found('string(/dump/accounts/group[@name="team"]/@gid)'), 32000, 'with their numbers';
    is found('string(/dump/accounts/group[@name="team"]/member[2])'), 'bob', 'and members';
};

test 'What is missing from a dump is named' => sub {
    is problem_of('missing.test', 'does not exist'), 'warning', 'a missing root is a problem';
    is problem_of('whole.test', '/ is a directory of the system'), 'error', 'the system is not packed as a site';
    is problem_of('carol', 'cron jobs but no site'), 'warning', 'jobs of an account without a site are named';
    is problem_of('www-data', 'cron jobs but no site'), 'warning', 'so are those of a service';
    is problem_of('dave', 'units of systemd but no site: sync.service'), 'warning', 'units of an account without a site too';
    is problem_of("www-data", "units of systemd"), "", "those of a service are the host's";
    is problem_of('daemon', 'cron jobs but no site'), '', 'but not those of packages';
    is problem_of('/etc/sondrel/resellers', 'nobody-here'), 'warning', 'an unknown user of a reseller is a problem';
};

test 'More problems than a document should have are in a list' => sub {
    symlink "/absent/$_", $tree->path('/srv/releases/5/web') . "/link$_" or die $! for 1 .. 120;
    dumped('c.test', '--dump-domains=-');
    is found('count(//problem[contains(., "is a symbolic link to /absent")])'), 50, 'the first problems are in the document';
    my $more = 'content/problems/sites-c.test.tar.txt.gz';
    is found('string(//domain/content[@kind="problems"]/@file)'), $more, 'which names a list of the others';
    my $lines = run(['gzip', '-dc', "$dir/$more"])->{out};
    my @others = $lines =~ m{^info: /srv/releases/5/web/link\d+ is a symbolic link to /absent/\d+}mg;
    is @others, 70, 'which has them all';
    valid('dump', $private->read('dump.xml'), 'the document is valid');
    unlink $tree->path('/srv/releases/5/web') . "/link$_" or die $! for 1 .. 120;
    is problem_of('missing.test', 'does not exist'), '', 'a dump of some domains has no problems of others';
};

test 'Links that lead out of what was asked for are named' => sub {
    my ($public, $home) = map { $tree->path($_) } '/home/alice/app/public', '/home/bob';
    symlink '../..', "$public/up" or die $!;
    symlink '/home/alice/app/public', "$home/a" or die $!;
    dumped('a.test', '--dump-domains=-');
    is problem_of('a.test', 'up is a symbolic link to ../.., which is above it'), 'warning', 'one to above it lacks nothing itself';
    dumped('bob', '--dump-clients=-');
    is problem_of('bob', 'which is of a site that is not in this dump'), 'error', 'one into a site that was not asked for does';
    dumped("a.test\nbob", '--dump-domains=-', '--dump-clients=-');
    is problem_of('bob', 'which is of a site and in its archive'), 'info', 'but not where that site is dumped too';
    unlink "$public/up", "$home/a" or die $!;
};

test 'The list has all content with its sums' => sub {
    dumped('', '--dump-all');
    my $list = Linux::ContentList::text_of($private);
    valid('content-list', $list, 'the content list is valid');
    open my $out, '>', "$dir/../list-$$.xml" or die $!;
    print $out $list;
    close $out;
    my $listed = "$dir/../list-$$.xml";
    is found('count(//file)', $listed), @EVERYTHING + 1, 'it has everything and the dump';
    is found('string(//file[last()])', $listed), 'dump.xml', 'which comes last';
    is found('string(/*/@size)', $listed), found('sum(//file/@size)', $listed), 'it sums up';
    for my $name (@EVERYTHING, 'dump.xml') {
        my ($sum) = run(['md5sum', "$dir/$name"])->{out} =~ /\A(\w+)/;
        my @both = map { found(qq(string(//file[.="$name"]/\@$_)), $listed) } qw(md5sum size);
        is_deeply \@both, [$sum, -s "$dir/$name"], "$name is as it is listed";
    }
    unlink $listed;
    unlink "$dir/content/sites/a.test.tar.gz", "$dir/dump.xml" or die $!;
    $list = Linux::ContentList::text_of($private);
    unlike $list, qr{sites/a\.test\.tar|dump\.xml}, 'what was fetched and removed is not listed';
    like $list, qr/b\.test\.tar/, 'the rest is';
};

test 'A file system of the kernel in a home is left out' => sub {
    my $jail = $tree->path('/home/bob') . '/jail of bob/proc';
    File::Path::mkpath($jail);
    is run(['mount', '-t', 'proc', 'proc', $jail])->{status}, 0, 'a home has a file system of the kernel in it';
    dumped('bob', '--dump-clients=-');
    is_deeply members('content/clients/bob.tar.gz'), [qw(./etc/cron.d/app ./home/bob/notes)], 'which is left out';
    is problem_of('bob', 'jail of bob/proc is a file system of the kernel'), 'info', 'and named';
    is run(['umount', $jail])->{status}, 0, 'it is gone';
    rmdir $jail or die $!;
    rmdir $tree->path('/home/bob/jail of bob') or die $!;
};

test 'A home of another account is left out' => sub {
    chown 0, 0, $tree->path('/home/bob') or die $!;
    dumped('bob', '--dump-clients=-');
    is_deeply members('content/clients/bob.tar.gz'), ['./etc/cron.d/app'], 'a home that another account owns is not packed';
    is problem_of('bob', 'The home /home/bob belongs to root'), 'error', 'and named';
    chown $BOB, $BOB, $tree->path('/home/bob') or die $!;
};

run_tests;
