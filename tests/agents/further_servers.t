# The files of the name server, of the keys that sign mail, and of FTP servers.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Imitated qw(imitated problem_texts);
use Linux::DkimKeys;
use Linux::FtpAccounts;
use Linux::Zones;
use Test::More;
use Independent;

test 'The zones of the name server are found with their files' => sub {
    my ($tree, $problems) = imitated(
        'etc/bind/named.conf' => "include \"/etc/bind/named.conf.options\"; // a comment with \"quotes\"\n"
            . "include \"/etc/bind/named.conf.local\";\n# zone \"no.test\" { type master; };\n",
        'etc/bind/named.conf.options' => "options {\n  directory \"/var/cache/bind\"; /* { */\n"
            . "  listen-on { 127.0.0.1; };\n  key-directory \"/etc/bind/keys\";\n};\n",
        'etc/bind/named.conf.local' =>
            "zone \"A.test\" IN { type master; file \"/etc/bind/db.a\"; allow-transfer { none; }; };\n"
            . "zone \"b.test.\" { type primary; file \"db.b\"; };\n"
                . "zone \"c.test\" { type slave; masters { 192.0.2.1; }; file \"db.c\"; };\n"
            . "zone \".\" { type hint; file \"/x\"; };\n"
                . "zone \"127.in-addr.arpa\" { type master; file \"/x\"; };\n"
            . "view \"inner\" { match-clients { any; }; zone \"gone.test\" { type master; file \"gone\"; };"
                . " };\n",
        (map { ($_ => 'x') } 'etc/bind/db.a', 'etc/bind/db.a.signed',
            'etc/bind/keys/Ka.test.+013+00001.private',
            'etc/bind/keys/Kother.test.+013+00001.private', 'var/cache/bind/db.b', 'var/cache/bind/db.b.jnl'),
    );
    is_deeply [Linux::Zones::all($tree, $problems)], [
        { name => 'a.test', type => 'primary', file => '/etc/bind/db.a',
            files => ['/etc/bind/db.a', '/etc/bind/db.a.signed',
                '/etc/bind/keys/Ka.test.+013+00001.private'] },
        { name => 'b.test', type => 'primary', file => '/var/cache/bind/db.b',
            files => ['/var/cache/bind/db.b', '/var/cache/bind/db.b.jnl'] },
        { name => 'c.test', type => 'secondary', file => '/var/cache/bind/db.c', files => [] },
        { name => 'gone.test', type => 'primary', file => '/var/cache/bind/gone', files => [] },
    ], 'each zone has its type, its file and the files beside it';
    is_deeply problem_texts($problems),
        ['error gone.test: Is a zone of the name server whose file is not there:'
        . ' /var/cache/bind/gone; copy the zone by hand'], 'a zone whose file is missing is an error';
    is_deeply [Linux::Zones::all(imitated())], [], 'a host without a name server has no zones';
};

test 'Keys that sign mail are found' => sub {
    my ($tree, $problems) = imitated(
        'etc/opendkim.conf' => "Syslog yes\nKeyTable refile:/etc/opendkim/keys\nDomain single.test\n"
            . "Selector 2024\n"
            . "KeyFile /etc/dkimkeys/single.private\n",
        'etc/opendkim/keys' => "# x y:z:/no\nmail._domainkey.a.test a.test:mail:/etc/opendkim/a.private\n"
            . "b b.test:mail:/etc/opendkim/absent\n",
        'etc/rspamd/local.d/dkim_signing.conf' =>
            "path = \"/var/keys/\$selector/\$domain.key\";\n# path = \"/no\";\n"
            . "domain {\n  own.test { selector = \"s1\"; path = \"/etc/own.key\"; }\n}\n",
        'etc/amavis/conf.d/50-user' =>
            "dkim_key('e.test', 'sel', '/etc/e.pem');\n# dkim_key('no.test', 's', '/no');\n",
        (map { ($_ => 'x') } 'etc/dkimkeys/single.private', 'etc/opendkim/a.private',
            'var/keys/s2/d.test.key', 'etc/own.key',
            'var/lib/rspamd/dkim/usual.test.mail.key', 'etc/e.pem'),
    );
    is_deeply [map { join ' ', @$_{qw(program domain selector file)} } Linux::DkimKeys::all($tree,
        $problems)], [
        'opendkim single.test 2024 /etc/dkimkeys/single.private',
            'opendkim a.test mail /etc/opendkim/a.private',
        'rspamd own.test s1 /etc/own.key', 'rspamd usual.test mail /var/lib/rspamd/dkim/usual.test.mail.key',
        'rspamd d.test s2 /var/keys/s2/d.test.key', 'amavis e.test sel /etc/e.pem',
    ], 'the keys of opendkim, rspamd and amavis are found';
    is_deeply problem_texts($problems),
        ['error b.test: The key /etc/opendkim/absent by which opendkim signs its mail is not'
        . ' there: make a new one on the new host, with its record in the zone'],
        'a key that is missing is an error';
};

test 'What another account writes leads to files of its own only' => sub {
    my ($tree, $problems) = imitated('etc/opendkim.conf' => "KeyTable /etc/opendkim/keys\n",
        'etc/opendkim/own.key' => 'x',
        'etc/opendkim/keys' => "x a.test:s:/etc/opendkim/own.key\ny b.test:s:/etc/shadow\n",
        'etc/shadow' => 'x');
    chown 120, 120, map { $tree->path($_) } '/etc/opendkim/keys', '/etc/opendkim/own.key' or die $!;
    is_deeply [map { $_->{file} } Linux::DkimKeys::all($tree, $problems)], ['/etc/opendkim/own.key'],
        'a key file of the account itself is found, and no other';
    like problem_texts($problems)->[0], qr{\Aerror b.test: The key /etc/shadow .* is not of who names it},
        'a key file of another account is named';
};

test 'Virtual users of FTP servers are found' => sub {
    my $HASH = '$6$x$y';
    my ($tree, $problems) = imitated(
        'etc/pure-ftpd/pureftpd.passwd' => "shop:$HASH:1001:1001::/home/alice/shop/./::::::\n",
        'etc/pure-ftpd/auth/30mysql' => 'x',
        'etc/proftpd/proftpd.conf' => "Include /etc/proftpd/conf.d/\n# AuthUserFile /no\n",
        'etc/proftpd/conf.d/users.conf' => "<Global>\n  AuthUserFile /etc/proftpd/ftpd.passwd\n</Global>\n",
        'etc/proftpd/ftpd.passwd' => "web1:$HASH:1002:1002::/srv/web1:/bin/false\n",
        'etc/vsftpd.conf' => "guest_enable=YES\n",
    );
    is_deeply [Linux::FtpAccounts::all($tree, $problems)], [
        { server => 'pure-ftpd', name => 'shop', uid => 1001, gid => 1001, home => '/home/alice/shop/./',
            file => '/etc/pure-ftpd/pureftpd.passwd' },
        { server => 'proftpd', name => 'web1', uid => 1002, gid => 1002, home => '/srv/web1',
            file => '/etc/proftpd/ftpd.passwd' },
    ], 'virtual users of FTP servers are found, without passwords';
    is_deeply [map {/\A(\w+ \S+:)/} @{ problem_texts($problems) }],
        ['warning /etc/pure-ftpd/auth/30mysql:', 'warning /etc/vsftpd.conf:'],
        'settings of FTP servers that are not read are named';
};

run_tests;
