use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Kept;
use Agent::Options;
use Agent::Private;
use Agent::Problems;
use Agent::Process qw(run);
use File::Path ();
use File::Temp qw(tempdir);
use Imitated qw(imitated rest);
use Linux::ContentList;
use Linux::Dump;
use Test::More;
use Time::HiRes ();

my ($ALICE, $BOB, $VMAIL) = (31001, 31002, 5000);
my $FORMATS = "$FindBin::Bin/../../docs/formats";

sub server_block {
    my ($name, $root) = @_;
    return "server { listen 80; server_name $name; root $root; }\n";
}

my ($tree) = imitated(
    'etc/passwd' => "root:x:0:0:root:/root:/bin/sh\nwww-data:x:33:33::/var/www:/bin/false\n"
        . "vmail:x:${VMAIL}:${VMAIL}::/var/vmail:/bin/false\ndaemon:x:1:1::/:/bin/false\nalice:x:${ALICE}:${ALICE}::/home/alice:/bin/sh\n"
        . "bob:x:${BOB}:${BOB}::/home/bob:/bin/sh\ndave:x:31004:31004::/home/dave:/bin/sh\n",
    'etc/group' => "root:x:0:\nadm:x:4:alice\ntape:x:26:\nalice:x:$ALICE:\nbob:x:$BOB:\nteam:x:32000:alice,bob\nmail:x:8:\n",
    'etc/systemd/system/shop.service' => "[Service]\nUser=alice\nExecStart=/home/alice/run --key=secret\n",
    'etc/systemd/system/multi-user.target.wants/cron.service' => \'/lib/systemd/system/cron.service',
    'etc/systemd/system/shop.timer' => "[Timer]\nOnCalendar=daily\n",
    'etc/systemd/system/backup.service' => "[Service]\nUser=www-data\nExecStart=/usr/local/bin/backup\nEnvironmentFile=/etc/backup.env\n",
    'etc/backup.env' => 'WHERE=x',
    'home/dave/.config/systemd/user/sync.service' => "[Service]\nExecStart=/home/dave/sync\n",
    'etc/aliases' => "root: admin\@a.test\n",
    'etc/shadow' => "root:\$6\$x:1::::::\nalice:\$y\$j9T\$hash-of-alice:1::::::\nbob:!:1::::::\nvmail:*:1::::::\n"
        . "dave:\$6\$hash-of-dave:1::::::\n",
    'etc/sondrel/resellers' => "big: bob nobody-here\n",
    'etc/nginx/nginx.conf' => "http { include /etc/nginx/sites-enabled/*; }\n",
    'etc/nginx/sites-enabled/a' => server_block('a.test www.a.test', '/home/alice/app/public'),
    'etc/nginx/sites-enabled/b' => server_block('b.test xn--bcher-kva.test müller.test', '/home/alice/app/public'),
    'etc/nginx/sites-enabled/c' => \'../sites-available/c',
    'etc/nginx/sites-available/c' => server_block('c.test', '/srv/current/web'),
    (map { ("etc/letsencrypt/live/tls.test/$_.pem" => \"../../archive/tls.test/${_}1.pem",
        "etc/letsencrypt/archive/tls.test/${_}1.pem" => $_) } qw(cert chain fullchain privkey)),
    'etc/letsencrypt/renewal/tls.test.conf' => "archive_dir = x\n",
    'etc/bind/named.conf' => 'options { directory "/var/bind"; }; zone "a.test" { type master; file "db.a"; };'
        . ' zone "only-mail.test" { type master; file "db.m"; };',
    'var/bind/db.a' => 'x', 'var/bind/db.m' => 'x',
    'etc/opendkim.conf' => "KeyTable /etc/opendkim/keys\n",
    'etc/opendkim/keys' => "a a.test:mail:/etc/opendkim/a.key\n", 'etc/opendkim/a.key' => 'x',
    'etc/pure-ftpd/pureftpd.passwd' => "shop:x:${BOB}:${BOB}::/home/bob::\n",
    'etc/nginx/sites-enabled/missing' => server_block('missing.test', '/srv/absent'),
    'etc/nginx/sites-enabled/whole' => "server { listen 443 ssl; server_name whole.test; root /;\n"
        . "ssl_certificate /etc/letsencrypt/live/tls.test/fullchain.pem;\n"
        . "ssl_certificate_key /etc/letsencrypt/live/tls.test/privkey.pem;\n"
        . "location ~ php { fastcgi_pass unix:/var/run/php/whole.sock; } }\n",
    'usr/local/openresty/nginx/conf/nginx.conf' => "http { include /srv/elsewhere/web.conf; }\n",
    'srv/elsewhere/web.conf' => "gzip on;\n", 'opt/remi/php81/root/etc/php.ini' => '',
    'usr/local/apache2/conf/httpd.conf' => '',
    'home/alice/' => [$ALICE, $ALICE], 'home/alice/app/public/' => [$ALICE, $ALICE],
    'home/alice/app/config.php' => 'code above the root', 'home/alice/app/public/index.php' => 'index',
    'home/bob/' => [$BOB, $BOB], 'home/bob/Maildir/cur/' => undef, 'home/bob/Maildir/new/' => undef,
    'home/bob/Maildir/new/1' => 'a letter', 'home/bob/notes' => 'x',
    'srv/releases/5/web/' => [$BOB, $BOB], 'srv/releases/5/web/index.html' => 'c',
    'srv/current' => \'releases/5',
    'var/mail/vhosts/a.test/info/' => [$VMAIL, $VMAIL],
    'var/mail/vhosts/a.test/info/new/' => undef, 'var/mail/vhosts/a.test/info/cur/' => undef,
    'home/dave/' => [31004, 31004],
    'var/vmail/only-mail.test/x/new/' => undef, 'var/vmail/only-mail.test/x/cur/' => undef,
    'var/spool/cron/crontabs/alice' => "# mine\nMAILTO=x\n5 * * * * run this\n",
    'var/spool/cron/crontabs/www-data' => "\@daily tidy\n",
    'var/spool/cron/crontabs/carol' => "\@daily back up\n",
    'etc/cron.d/app' => "\@daily bob /home/bob/job\n",
    'etc/cron.daily/tidy' => "#!/bin/sh\n",
    'etc/cron.d/packaged' => "\@daily daemon job of a package\n",
    'etc/crontab' => "1 2 * * * root system job\n",
);

my $dir = tempdir(CLEANUP => 1);
my $private = Agent::Private->new($dir);

# Dumps with the options and the lists; gives the document's path.
sub dumped {
    my ($input, @arguments) = @_;
    open my $handle, '<', \$input or die $!;
    my $options = Agent::Options::parse(['--migration-mode', @arguments], $handle);
    Linux::Dump::run(tree => $tree, private => $private, options => $options);
    return "$dir/dump.xml";
}

sub found {
    my ($xpath, $file) = @_;
    my $result = run(['xmllint', '--xpath', $xpath, $file || "$dir/dump.xml"]);
    return '' if $result->{status} == 10;
    die $result->{err} if $result->{status};
    chomp $result->{out};
    return $result->{out};
}

sub valid {
    my ($schema, $text, $what) = @_;
    my $result = run(['xmllint', '--noout', '--schema', "$FORMATS/$schema.xsd", '-'], stdin => $text);
    is $result->{status}, 0, $what or diag $result->{err};
    return;
}

sub values_of {
    my ($xpath) = @_;
    return [sort map {/"(.*)"/} split /\n/, found($xpath)];
}

sub members {
    my ($file) = @_;
    my $result = run(['tar', '-tf', "$dir/$file"]);
    die $result->{err} if $result->{status};
    return [sort grep { !m{/\z} } split /\n/, $result->{out}];
}

sub files { return [$private->files_below('content')] }

my @EVERYTHING = qw(content/clients/alice.tar.gz content/clients/bob.tar.gz content/clients/root.tar.gz
    content/mailboxes/bob.tar.gz content/mailboxes/info=40a.test.tar.gz content/mailboxes/x=40only-mail.test.tar.gz
    content/server/settings.tar.gz content/sites/a.test.tar.gz content/sites/b.test.tar.gz
    content/sites/c.test.tar.gz content/sites/missing.test.tar.gz  content/sites/whole.test.tar.gz);

# What was laid out in this very moment counts as changing.
rest();
dumped('', '--dump-all');
valid('dump', $private->read('dump.xml'), 'a dump of everything is valid');
valid('dumping-status', $private->read('dumping-status.xml'), 'so is its status');
is_deeply files(), \@EVERYTHING, 'everything has an archive';
is found('string(/dumping-status/@stage)', "$dir/dumping-status.xml"), 'finished', 'the status says it is done';
is found('string(/dumping-status/@done)', "$dir/dumping-status.xml"), scalar @EVERYTHING, 'with all of them';
is_deeply values_of('//client/@name'), [qw(alice bob root)], 'all owners of sites are clients';
is found('string(//domain[@name="whole.test"]/site/php/@listen)'), 'unix:/var/run/php/whole.sock',
    'a site with PHP tells where its web server reaches it';
is_deeply values_of('/dump/reseller[@name="big"]/client/@name'), ['bob'], 'one of them in its reseller';
is_deeply values_of('//client[@name="alice"]/domain/@name'), [qw(a.test b.test)], 'with their domains';
is_deeply values_of('//domain[@name="a.test"]/mailbox/@address'), ['info@a.test'], 'which have their mailboxes';
is_deeply values_of('//client[@name="bob"]/mailbox/@address'), ['bob'], "an account's own mail is the client's";
is_deeply values_of('/dump/unassigned/domain/mailbox/@address'), ['x@only-mail.test'],
    "mail of nobody's domain is not lost";
is found('count(//site[block/directive[@name="server"]/directive[@name="root"]])'), found('count(//site)'),
    'sites have the blocks that they are made of';
is found('string(/dump/web-configuration[@name="nginx"]/@file)'), '/etc/nginx/nginx.conf', 'and the host has the rest';
is found('string(//admin-info/@mail)'), 'admin@a.test', 'the administrator is told';
is found('string(//client[@name="alice"]/cron)'), 'run this', 'jobs are told';
is found('string(//client[@name="bob"]/cron/@when)'), '@daily', "so are those of the system's tables";

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
    'links on the way are packed with what they lead to';
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

is_deeply [grep {/letsencrypt/} @{ members('content/sites/whole.test.tar.gz') }], [
    (map {"./etc/letsencrypt/archive/tls.test/${_}1.pem"} qw(cert chain fullchain privkey)),
    (map {"./etc/letsencrypt/live/tls.test/$_.pem"} qw(cert chain fullchain privkey)),
    './etc/letsencrypt/renewal/tls.test.conf',
], 'a certificate comes with what renews it';
is found('string(//domain[@name="whole.test"]//renewal/directory[@path="/etc/letsencrypt/archive"]/@mode)'), '0755',
    'and the modes of the directories above';

my @of_others = qw(./etc/backup.env ./etc/systemd/system/backup.service ./home/dave/.config/systemd/user/sync.service);
my %setting = map { $_ => 1 } @{ members('content/server/settings.tar.gz') };
is_deeply [grep { !$setting{$_} } @of_others], [], 'so are units of the system and of accounts without a site';
is_deeply values_of('/dump/server/unit/@name'), [qw(backup.service sync.service)], 'which are described there';
is_deeply values_of('//client[@name="alice"]/unit/@name'), [qw(shop.service shop.timer)], 'those of a client with it';
is found('string(//unit[@name="shop.timer"]/when)'), 'OnCalendar=daily', 'timers say when';
unlike $private->read('dump.xml'), qr/cron\.service/, "and a package's unit that is enabled is nothing to copy";
unlike $private->read('dump.xml'), qr/--key/, 'arguments of programs are not in the document';

# --- the accounts that must be there before anything is unpacked ---

is_deeply values_of('/dump/accounts/account/@name'), [qw(alice bob root vmail)],
    'the owners of what is packed are described, and no others';
is found('string(/dump/accounts/account[@name="vmail"]/@uid)'), $VMAIL, 'with their numbers';
is_deeply values_of('//client[@name="alice"]/group/@name'), [qw(adm team)], 'clients have their further groups';
is_deeply values_of('/dump/accounts/group/@name'), [qw(adm alice bob root team)],
    'groups of files, of accounts and of persons are described';
is problem_of('accounts', 'Passwords of alice, root are in no archive'), 'info', 'whose passwords are not moved is told';
is found('string(/dump/accounts/group[@name="team"]/@gid)'), 32000, 'with their numbers';
is found('string(/dump/accounts/group[@name="team"]/member[2])'), 'bob', 'and members';

sub problem_of { return found(qq(string(//problem[\@object="$_[0]" and contains(., "$_[1]")]/\@severity))) }

is problem_of('missing.test', 'does not exist'), 'warning', 'a missing root is a problem';
is problem_of('whole.test', '/ is a folder of the system'), 'error', 'the system is not packed as a site';
is problem_of('carol', 'cron jobs but no site'), 'warning', 'jobs of an account without a site are named';
is problem_of('www-data', 'cron jobs but no site'), 'warning', 'so are those of a service';
is problem_of('dave', 'units of systemd but no site: sync.service'), 'warning', 'units of an account without a site too';
is problem_of("www-data", "units of systemd"), "", "those of a service are the host's";
is problem_of('daemon', 'cron jobs but no site'), '', 'but not those of packages';
is problem_of('/etc/sondrel/resellers', 'nobody-here'), 'warning', 'an unknown user of a reseller is a problem';

# --- more problems than a document should have ---

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

# --- where links lead when not everything was asked for ---

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
dumped('', '--dump-all');

# --- the list ---

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

# --- a second dump ---

sub inodes { return { map { $_ => join q( ), (Time::HiRes::stat("$dir/$_"))[1, 9] } @{ files() } } }

rest();
dumped('', '--dump-all');
my $first = inodes();
open my $page, '>>', $tree->path('/home/alice/app/public/index.php') or die $!;
print $page 'changed';
close $page;
rest();
unlink "$dir/content/sites/c.test.tar.gz" or die $!;
dumped('', '--dump-all');
my $second = inodes();
my @made = grep { ($first->{$_} || '') ne $second->{$_} } sort keys %$second;
is_deeply \@made, [qw(content/sites/a.test.tar.gz content/sites/c.test.tar.gz)],
    'a second dump makes what has changed or is gone';
is run(['tar', '-xOf', "$dir/content/sites/a.test.tar.gz", './home/alice/app/public/index.php'])->{out},
    'indexchanged', 'as it is now';
open my $archive, '>>', "$dir/content/sites/b.test.tar.gz" or die $!;
print $archive 'x';
close $archive;
ok !eval { Linux::ContentList::text_of($private); 1 }, 'an archive that was touched is not listed as good';
dumped('', '--dump-all');
is run(['gzip', '-t', "$dir/content/sites/b.test.tar.gz"])->{status}, 0, 'and made again';

# --- what is no file of anybody ---

my $jail = $tree->path('/home/bob') . '/jail of bob/proc';
File::Path::mkpath($jail);
is run(['mount', '-t', 'proc', 'proc', $jail])->{status}, 0, 'a home has a file system of the kernel in it';
dumped('bob', '--dump-clients=-');
is_deeply members('content/clients/bob.tar.gz'), [qw(./etc/cron.d/app ./home/bob/notes)], 'which is left out';
is problem_of('bob', 'jail of bob/proc is a file system of the kernel'), 'info', 'and named';
is run(['umount', $jail])->{status}, 0, 'it is gone';
rmdir $jail or die $!;
rmdir $tree->path('/home/bob/jail of bob') or die $!;

chown 0, 0, $tree->path('/home/bob') or die $!;
dumped('bob', '--dump-clients=-');
is_deeply members('content/clients/bob.tar.gz'), ['./etc/cron.d/app'], "a home that is somebody else's is not packed";
is problem_of('bob', 'The home /home/bob belongs to root'), 'error', 'and named';
chown $BOB, $BOB, $tree->path('/home/bob') or die $!;

# --- what was asked for ---

my %SELECTED = (
    'a domain' => ["a.test", ['--dump-domains=-'], [qw(sites/a.test mailboxes/info=40a.test)]],
    'a domain by another name' => ['WWW.a.test', ['--dump-domains=-'], [qw(sites/a.test mailboxes/info=40a.test)]],
    'an international domain' => ['BÜCHER.test', ['--dump-domains=-'], ['sites/b.test']],
    'one that is configured so' => ['xn--mller-kva.test', ['--dump-domains=-'], ['sites/b.test']],
    'only mail of a domain' => ['a.test', ['--dump-domains=-', '--only-mail'], ['mailboxes/info=40a.test']],
    'only hosting of a domain' => ['a.test', ['--dump-domains=-', '--only-hosting'], ['sites/a.test']],
    'a domain without site' => ['only-mail.test', ['--dump-domains=-'], ['mailboxes/x=40only-mail.test']],
    'a client' => ['bob', ['--dump-clients=-'], [qw(sites/c.test clients/bob mailboxes/bob)]],
    'only mail of a client' => ['bob', ['--dump-clients=-', '--only-mail'], ['mailboxes/bob']],
    'only hosting of a client' => ['bob', ['--dump-clients=-', '--only-hosting'], [qw(sites/c.test clients/bob)]],
    'a reseller' => ['big', ['--dump-resellers=-'], [qw(sites/c.test clients/bob mailboxes/bob)]],
    'a domain and a reseller' => ["b.test\nbig", ['--dump-domains=-', '--dump-resellers=-'],
        [qw(sites/b.test sites/c.test clients/bob mailboxes/bob)]],
    'the server' => ['', ['--server'], ['server/settings']],
    'the server and a domain' => ['b.test', ['--server', '--dump-domains=-', '--only-mail'], ['server/settings']],
    'nothing' => ['', [], []],
    'no content' => ['bob', ['--dump-clients=-', '--no-content'], []],
    'an unknown name' => ['absent,b.test', ['--dump-domains=-'], ['sites/b.test']],
);
for my $what (sort keys %SELECTED) {
    my ($input, $arguments, $expected) = @{ $SELECTED{$what} };
    dumped($input, @$arguments);
    is_deeply files(), [sort map {"content/$_.tar.gz"} @$expected], "$what: exactly its archives are there";
    my %named = map { $_ => 1 } @{ values_of('//content/@file') };
    is_deeply [sort keys %named], files(), "$what: and in the document";
    valid('dump', $private->read('dump.xml'), "$what: which is valid");
    like Linux::ContentList::text_of($private), qr/dump\.xml/, "$what: the list is right";
}
dumped('only-mail.test', '--dump-domains=-');
is problem_of('only-mail.test', 'zone only-mail.test; dump with --server too'), 'error', 'what no archive has is named';
dumped('bob', '--dump-clients=-');
is problem_of('bob', 'FTP account shop; dump with --server too'), 'error', 'also that of a client';
dumped('bob', '--dump-clients=-', '--server');
is problem_of('bob', 'FTP account'), '', 'but not where the archive of the settings has it';
dumped('absent,b.test', '--dump-domains=-');
is problem_of('absent', 'no such domain'), 'error', 'an unknown name is a problem';
is_deeply members('content/sites/b.test.tar.gz'),
    [qw(./etc/nginx/sites-enabled/b ./etc/systemd/system/shop.service ./etc/systemd/system/shop.timer
        ./home/alice/app/public/index.php ./var/spool/cron/crontabs/alice)],
    'a site whose root was shared has it when it is dumped alone';
dumped('bob', '--dump-clients=-', '--only-mail');
is found('count(//site)'), 0, 'only mail tells nothing of sites';
dumped('bob', '--dump-clients=-', '--only-hosting');
is found('count(//mailbox)'), 0, 'only hosting tells nothing of mailboxes';
is found('count(/dump/server | /dump/admin-info)'), 0, 'the host is told of only when asked for';
dumped('bob', '--dump-clients=-', '--no-compress');
is_deeply files(), [map {"content/$_.tar"} qw(clients/bob mailboxes/bob sites/c.test)], 'without compression';
is members('content/sites/c.test.tar')->[-1], './srv/releases/5/web/index.html', 'they are plain archives';
dumped("host\nlogin\nsecret word\n0\nbob", '--content-transport=rsync', '--dump-clients=-');
is found('string(/dumping-status/transport/@used)', "$dir/dumping-status.xml"), 'archives',
    'the status says that content is archives';
is run(['grep', '-r', 'secret word', $dir])->{status}, 1, 'the password is nowhere';

# --- when it does not work ---

{
    my $problems = Agent::Problems->new;
    my $content = Linux::Content->new(problems => $problems);
    ok eval { $content->attempt({ kind => 'site', label => 'a.test' }, sub { die "Ended by chance\n" }); 1 },
        'a failure is a problem of its object whatever its text';
    is $problems->count('error'), 1, 'which is named';
}

{
    my ($before, $stage, $pid);
    no warnings 'redefine';
    my $look = \&Linux::Inventory::new;
    local *Linux::Inventory::new = sub {
        ($stage, $pid) = map { found("string(/dumping-status/\@$_)", "$dir/dumping-status.xml") } qw(stage pid);
        $before = -e "$dir/dump.xml";
        return $look->(@_);
    };
    unlink "$dir/dumping-status.xml" or die $!;
    dumped('', '--dump-all', '--no-content');
    is_deeply [$stage, $pid, $before], ['inventory', $$, undef],
        'before anything is looked at the status is there, and the dump before is not';
}

{
    my $lock = Linux::Dump::take_lock($private);
    ok !eval { dumped('', '--dump-all'); 1 }, 'a second dump at the same time is refused';
    ok !eval { Linux::ContentList::text_of($private); 1 }, 'so is the list of an unfinished one';
}
Agent::Kept->new($private)->begin;
ok !eval { Linux::ContentList::text_of($private); 1 }, 'there is no list of a dump that was not completed';
like $@, qr/no complete dump/, 'and it says so';

my $child = fork;
die $! if !defined $child;
if (!$child) {
    $SIG{TERM} = sub { die $Agent::Status::ended = "Ended by SIGTERM\n" };
    no warnings 'redefine';
    my $pack = \&Agent::Tar::pack;
    my $count = 0;
    *Agent::Tar::pack = sub { kill TERM => $$ if ++$count == 3; eval { $pack->(@_); 1 } or die $@ };
    eval { dumped('', '--dump-all'); };
    require POSIX;
    POSIX::_exit($@ =~ /\AEnded by SIGTERM/ ? 7 : 1);
}
waitpid $child, 0;
is $? >> 8, 7, 'a dump that is told to end does so';
is found('string(/dumping-status/@stage)', "$dir/dumping-status.xml"), 'failed', 'and says that it has failed';
is_deeply [grep {/\.new\z/} @{ files() }], [], 'without leaving half an archive';
ok !-e "$dir/dump.xml", 'or a dump';
my $kept = inodes();
rest();
dumped('', '--dump-all');
my $after = inodes();
is_deeply [grep { $after->{$_} ne $kept->{$_} } keys %$kept], [], 'the next one goes on from there';
is_deeply files(), \@EVERYTHING, 'to the end';

my @modes = map { sprintf '%o', (lstat)[2] & 07777 } map {"$dir/$_"} @{ files() }, 'dump.xml', 'dumping-status.xml',
    'state', 'lock', 'key';
is_deeply [grep { $_ ne '600' } @modes], [], 'no file is open to others';

done_testing;
