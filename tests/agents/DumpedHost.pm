# A host of two clients with everything that a dump can have, for the tests of dumps; dumped into one
# directory.
package DumpedHost;

use strict;
use warnings;
use Exporter 'import';
use File::Temp qw(tempdir);
use FindBin;
use Test::More;
use Time::HiRes ();
use Agent::Options;
use Agent::Private;
use Agent::Process qw(run);
use Imitated qw(imitated rest);
use Linux::Dump;

our @EXPORT = qw($BOB $VMAIL $dir $private $tree @EVERYTHING
    dumped files found inodes members problem_of valid values_of);

our ($ALICE, $BOB, $VMAIL) = (31001, 31002, 5000);
my $FORMATS = "$FindBin::Bin/../../docs/formats";

sub server_block {
    my ($name, $root) = @_;
    return "server { listen 80; server_name $name; root $root; }\n";
}

our ($tree) = imitated(
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

our $dir = tempdir(CLEANUP => 1);
our $private = Agent::Private->new($dir);

# Dumps with the options and the lists; gives the document's path.
sub dumped {
    my ($input, @arguments) = @_;
    open my $handle, '<', \$input or die $!;
    my $options = Agent::Options::parse(['--migration-mode', @arguments], $handle);
    Linux::Dump::run(tree => $tree, private => $private, options => $options);
    return "$dir/dump.xml";
}

# What xmllint prints for an expression about the document, or another file; empty if it finds nothing.
sub found {
    my ($xpath, $file) = @_;
    my $result = run(['xmllint', '--xpath', $xpath, $file || "$dir/dump.xml"]);
    return '' if $result->{status} == 10;
    die $result->{err} if $result->{status};
    chomp $result->{out};
    return $result->{out};
}

# Tests that a text is valid by a schema.
sub valid {
    my ($schema, $text, $what) = @_;
    my $result = run(['xmllint', '--noout', '--schema', "$FORMATS/$schema.xsd", '-'], stdin => $text);
    is $result->{status}, 0, $what or diag $result->{err};
    return;
}

# Values of attributes, sorted.
sub values_of {
    my ($xpath) = @_;
    return [sort map {/"(.*)"/} split /\n/, found($xpath)];
}

# The files in an archive, sorted.
sub members {
    my ($file) = @_;
    my $result = run(['tar', '-tf', "$dir/$file"]);
    die $result->{err} if $result->{status};
    return [sort grep { !m{/\z} } split /\n/, $result->{out}];
}

# The files of the content.
sub files { return [$private->files_below('content')] }

# The content of a dump of everything.
our @EVERYTHING = qw(content/clients/alice.tar.gz content/clients/bob.tar.gz content/clients/root.tar.gz
    content/mailboxes/bob.tar.gz content/mailboxes/info=40a.test.tar.gz content/mailboxes/x=40only-mail.test.tar.gz
    content/server/settings.tar.gz content/sites/a.test.tar.gz content/sites/b.test.tar.gz
    content/sites/c.test.tar.gz content/sites/missing.test.tar.gz  content/sites/whole.test.tar.gz);

# The severity of a problem of an object with a text in it; nothing without one.
sub problem_of { return found(qq(string(//problem[\@object="$_[0]" and contains(., "$_[1]")]/\@severity))) }

# What shows whether an archive was rebuilt: { name => text }.
sub inodes { return { map { $_ => join q( ), (Time::HiRes::stat("$dir/$_"))[1, 9] } @{ files() } } }

# A file that was just written counts as changing.
rest();

1;
