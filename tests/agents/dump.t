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
    valid('dump', $private->read('dump.xml'), 'the description is valid');
    valid('dumping-status', $private->read('dumping-status.xml'), 'the status is valid');
    is_deeply files(), \@EVERYTHING, 'each object has its archive';
    is found('string(/dumping-status/@stage)', "$dir/dumping-status.xml"), 'finished',
        'the status says that the dump is finished';
    is found('string(/dumping-status/@done)', "$dir/dumping-status.xml"), scalar @EVERYTHING,
        'the status counts all archives as done';
    is_deeply values_of('//client/@name'), [qw(alice bob root)], 'all owners of sites are clients';
    is found('string(//domain[@name="whole.test"]/site/php/@listen)'), 'unix:/var/run/php/whole.sock',
        'a site with PHP says at which address its web server reaches PHP';
    is_deeply values_of('/dump/reseller[@name="big"]/client/@name'), ['bob'],
        'a client of a reseller is described in it';
    is_deeply values_of('//client[@name="alice"]/domain/@name'), [qw(a.test b.test)],
        'the domains of a client are described in it';
    is_deeply values_of('//domain[@name="a.test"]/mailbox/@address'), ['info@a.test'],
        'the mailbox of a domain is described in it';
    is_deeply values_of('//client[@name="bob"]/mailbox/@address'), ['bob'],
        'the mailbox of an account is described in its client';
    is_deeply values_of('/dump/unassigned/domain/mailbox/@address'), ['x@only-mail.test'],
        'a mailbox of a domain without an owner is described as unassigned';
    is found('count(//site[block/directive[@name="server"]/directive[@name="root"]])'), found('count(//site)'),
        'each site has its server block';
    is found('string(/dump/web-configuration[@name="nginx"]/@file)'), '/etc/nginx/nginx.conf',
        'the rest of the configuration is described with its file';
    is found('string(//admin-info/@mail)'), 'admin@a.test',
        'the mail address of the administrator is described';
    is found('string(//client[@name="alice"]/cron)'), 'run this',
        "a job of an account's own table is described in its client";
    is found('string(//client[@name="bob"]/cron/@when)'), '@daily',
        'a job of a system table is described in the client of its account';
};

test 'Each archive has what belongs to its object' => sub {
    is_deeply members('content/sites/a.test.tar.gz'),
        [qw(./etc/nginx/sites-enabled/a ./etc/opendkim/a.key ./home/alice/app/public/index.php ./var/bind/db.a)],
        'the archive of a site has its root, its configuration, its zone and the key that signs its mail';
    is_deeply values_of('//domain[@name="a.test"]/zone/@file'), ['/var/bind/db.a'],
        'the zone of a site is described with its file';
    is found('string(//domain[@name="a.test"]/mail-key/@selector)'), 'mail',
        'the key that signs mail is described with its selector';
    is_deeply values_of('//server/zone/@name'), [qw(a.test only-mail.test)],
        'all zones are described with the server';
    is found('string(//server/ftp-account/@uid)'), $BOB,
        'an account of an FTP server is described with the server';
    is_deeply [grep { !{ map { $_ => 1 } @{ members('content/server/settings.tar.gz') } }->{$_} }
        qw(./var/bind/db.a ./etc/opendkim/keys ./etc/pure-ftpd/pureftpd.passwd)], [],
            'files of zones, keys and FTP accounts are in the archive of the settings';
    my @of_servers = map {"./$_"} qw(opt/remi/php81/root/etc/php.ini srv/elsewhere/web.conf
        usr/local/apache2/conf/httpd.conf usr/local/openresty/nginx/conf/nginx.conf);
    is_deeply [grep { my $file = $_; grep { $_ eq $file } @of_servers } @{ members('content/server/settings.tar.gz') }],
        \@of_servers, 'files of web servers and PHP are in the archive of the settings wherever they lie';
    is_deeply members('content/sites/b.test.tar.gz'), ['./etc/nginx/sites-enabled/b'],
        'a root that sites share is not packed again with the second site';
    is_deeply values_of('//domain[@name="b.test"]/content/@file'),
        [qw(content/sites/a.test.tar.gz content/sites/b.test.tar.gz)],
        'the second site that shares a root names both archives';
    is_deeply members('content/sites/c.test.tar.gz'),
        [qw(./etc/nginx/sites-available/c ./etc/nginx/sites-enabled/c ./srv/current ./srv/releases/5/web/index.html)],
        'links in the path are packed with what they lead to';
    is_deeply members('content/clients/alice.tar.gz'),
        [qw(./etc/systemd/system/shop.service ./etc/systemd/system/shop.timer ./home/alice/app/config.php
            ./var/spool/cron/crontabs/alice)],
        'the archive of a client has its jobs, its units and the files of its home that are in no site';
    is_deeply members('content/clients/bob.tar.gz'), [qw(./etc/cron.d/app ./home/bob/notes)],
        'the archive of a client has no files of its mailbox';
    is_deeply [grep {/cron/} @{ members('content/server/settings.tar.gz') }],
        [qw(./etc/cron.d/app ./etc/cron.d/packaged ./etc/cron.daily/tidy ./etc/crontab),
            map {"./var/spool/cron/crontabs/$_"} qw(carol www-data)],
        'jobs of the system and of accounts without a site are in the archive of the settings';
    is_deeply members('content/mailboxes/bob.tar.gz'), ['./home/bob/Maildir/new/1'],
        'the archive of a mailbox has its mail';
};

test 'A certificate comes with what renews it' => sub {
    is_deeply [grep {/letsencrypt/} @{ members('content/sites/whole.test.tar.gz') }], [
        (map {"./etc/letsencrypt/archive/tls.test/${_}1.pem"} qw(cert chain fullchain privkey)),
        (map {"./etc/letsencrypt/live/tls.test/$_.pem"} qw(cert chain fullchain privkey)),
        './etc/letsencrypt/renewal/tls.test.conf',
    ], 'the certificate, the links to it and the settings of its renewal are packed';
    is found('string(//domain[@name="whole.test"]//renewal/directory[@path="/etc/letsencrypt/archive"]/@mode)'), '0755',
        'the mode of a directory above the certificate is described';
};

test 'Units of systemd are with what they belong to' => sub {
    my @of_others = qw(./etc/backup.env ./etc/systemd/system/backup.service ./home/dave/.config/systemd/user/sync.service);
    my %setting = map { $_ => 1 } @{ members('content/server/settings.tar.gz') };
    is_deeply [grep { !$setting{$_} } @of_others], [],
        'units of the system and of accounts without a site are in the archive of the settings';
    is_deeply values_of('/dump/server/unit/@name'), [qw(backup.service sync.service)],
        'units of the system and of accounts without a site are described with the server';
    is_deeply values_of('//client[@name="alice"]/unit/@name'), [qw(shop.service shop.timer)],
        'units of a client are described with the client';
    is found('string(//unit[@name="shop.timer"]/when)'), 'OnCalendar=daily',
        'the time of a timer is described';
    unlike $private->read('dump.xml'), qr/cron\.service/,
        'a unit of a package is not described although it is enabled';
    unlike $private->read('dump.xml'), qr/--key/, 'arguments of programs are not in the document';
};

test 'The accounts that must be there before anything is unpacked are described' => sub {
    is_deeply values_of('/dump/accounts/account/@name'), [qw(alice bob root vmail)],
        'the owners of what is packed are described, and no others';
    is found('string(/dump/accounts/account[@name="vmail"]/@uid)'), $VMAIL,
        'the number of an account is described';
    is_deeply values_of('//client[@name="alice"]/group/@name'), [qw(adm team)],
        'the further groups of a client are described';
    is_deeply values_of('/dump/accounts/group/@name'), [qw(adm alice bob root team)],
        'groups of files, of accounts and of persons are described';
    is problem_of('accounts', 'Passwords of alice, root are in no archive'), 'info',
        'accounts whose passwords are in no archive are named';
    is found('string(/dump/accounts/group[@name="team"]/@gid)'), 32000, 'the number of a group is described';
    is found('string(/dump/accounts/group[@name="team"]/member[2])'), 'bob',
        'the members of a group are described';
};

test 'What is missing from a dump is named' => sub {
    is problem_of('missing.test', 'does not exist'), 'warning', 'a missing document root is a warning';
    is problem_of('whole.test', '/ is a directory of the system'), 'error',
        'a document root that is the whole system is an error';
    is problem_of('carol', 'cron jobs but no site'), 'warning',
        'jobs of an account without a site are a warning';
    is problem_of('www-data', 'cron jobs but no site'), 'warning', 'jobs of a service account are a warning';
    is problem_of('dave', 'units of systemd but no site: sync.service'), 'warning',
        'units of an account without a site are a warning';
    is problem_of("www-data", "units of systemd"), "", 'units of a service account are not named as missing';
    is problem_of('daemon', 'cron jobs but no site'), '',
        'jobs that packages have brought are not named as missing';
    is problem_of('/etc/sondrel/resellers', 'nobody-here'), 'warning',
        'an unknown user of a reseller is a warning';
};

test 'More problems than a document should have are in a list' => sub {
    symlink "/absent/$_", $tree->path('/srv/releases/5/web') . "/link$_" or die $! for 1 .. 120;
    dumped('c.test', '--dump-domains=-');
    is found('count(//problem[contains(., "is a symbolic link to /absent")])'), 50,
        'the document has the first 50 problems';
    my $more = 'content/problems/sites-c.test.tar.txt.gz';
    is found('string(//domain/content[@kind="problems"]/@file)'), $more,
        'the document names the list of the other problems';
    my $lines = run(['gzip', '-dc', "$dir/$more"])->{out};
    my @others = $lines =~ m{^info: /srv/releases/5/web/link\d+ is a symbolic link to /absent/\d+}mg;
    is @others, 70, 'the list has all other problems';
    valid('dump', $private->read('dump.xml'), 'the document is valid');
    unlink $tree->path('/srv/releases/5/web') . "/link$_" or die $! for 1 .. 120;
    is problem_of('missing.test', 'does not exist'), '', 'a dump of some domains has no problems of others';
};

test 'Links that lead out of what was asked for are named' => sub {
    my ($public, $home) = map { $tree->path($_) } '/home/alice/app/public', '/home/bob';
    symlink '../..', "$public/up" or die $!;
    symlink '/home/alice/app/public', "$home/a" or die $!;
    dumped('a.test', '--dump-domains=-');
    is problem_of('a.test', 'up is a symbolic link to ../.., which is above it'), 'warning',
        'a link to a directory above the site is a warning';
    dumped('bob', '--dump-clients=-');
    is problem_of('bob', 'which is of a site that is not in this dump'), 'error',
        'a link into a site that is not in the dump is an error';
    dumped("a.test\nbob", '--dump-domains=-', '--dump-clients=-');
    is problem_of('bob', 'which is of a site and in its archive'), 'info',
        'a link into a site that is in the dump is for information only';
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
    is found('count(//file)', $listed), @EVERYTHING + 1, 'the list has each archive and the description';
    is found('string(//file[last()])', $listed), 'dump.xml', 'the description is the last file of the list';
    is found('string(/*/@size)', $listed), found('sum(//file/@size)', $listed),
        'the size in the list is the sum of all sizes';
    for my $name (@EVERYTHING, 'dump.xml') {
        my ($sum) = run(['md5sum', "$dir/$name"])->{out} =~ /\A(\w+)/;
        my @both = map { found(qq(string(//file[.="$name"]/\@$_)), $listed) } qw(md5sum size);
        is_deeply \@both, [$sum, -s "$dir/$name"], "$name has the sum and the size that are listed";
    }
    unlink $listed;
    unlink "$dir/content/sites/a.test.tar.gz", "$dir/dump.xml" or die $!;
    $list = Linux::ContentList::text_of($private);
    unlike $list, qr{sites/a\.test\.tar|dump\.xml}, 'files that were fetched and removed are not listed';
    like $list, qr/b\.test\.tar/, 'an archive that is still there is listed';
};

test 'A file system of the kernel in a home is left out' => sub {
    my $jail = $tree->path('/home/bob') . '/jail of bob/proc';
    File::Path::mkpath($jail);
    is run(['mount', '-t', 'proc', 'proc', $jail])->{status}, 0,
        'a file system of the kernel is mounted in a home';
    dumped('bob', '--dump-clients=-');
    is_deeply members('content/clients/bob.tar.gz'), [qw(./etc/cron.d/app ./home/bob/notes)],
        'the archive of the client has nothing of the file system';
    is problem_of('bob', 'jail of bob/proc is a file system of the kernel'), 'info',
        'the file system that is left out is named';
    is run(['umount', $jail])->{status}, 0, 'the file system is unmounted';
    rmdir $jail or die $!;
    rmdir $tree->path('/home/bob/jail of bob') or die $!;
};

test 'A home of another account is left out' => sub {
    chown 0, 0, $tree->path('/home/bob') or die $!;
    dumped('bob', '--dump-clients=-');
    is_deeply members('content/clients/bob.tar.gz'), ['./etc/cron.d/app'], 'a home that another account owns is not packed';
    is problem_of('bob', 'The home /home/bob belongs to root'), 'error',
        'the owner of a home that is not packed is named';
    chown $BOB, $BOB, $tree->path('/home/bob') or die $!;
};

run_tests;
