# What the agent finds on a host besides its sites: its facts, distribution, resellers and certificates.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Process qw(run);
use Imitated qw(imitated problem_texts);
use Linux::Resellers;
use Linux::System;
use Linux::Tls;
use Linux::Tree;

test 'The facts of the host are found' => sub {
    my $facts = Linux::System::facts(Linux::Tree->new);
    ok $facts->{$_}, "the facts of the host have: $_" for qw(hostname kernel architecture processors perl);
    cmp_ok $facts->{memory}{total}, '>', 1 << 20, 'memory is given in bytes';
    ok((grep { $_->{mount} eq '/' && $_->{free} > 0 && $_->{bytes} >= $_->{free} } @{ $facts->{filesystems} })
        || !run(['findmnt', '-n', '/'])->{out}, 'file systems have their free space')
            or diag explain $facts->{filesystems};
    like $facts->{tools}{tar}, qr{/tar\z}, 'the path of a tool is found';
};

test 'Distributions are known, also old ones' => sub {
    my ($centos) = imitated('etc/redhat-release' => "CentOS release 6.10 (Final)\n");
    is_deeply(Linux::System::distribution($centos), { id => 'redhat', name => 'CentOS', version => '6.10',
        family => 'redhat' },
        'old members of the Red Hat family are known');
    my ($ubuntu) = imitated('usr/lib/os-release' => "ID=ubuntu\nNAME='Ubuntu'\nVERSION_ID=22.04\nID_LIKE=debian\n");
    is(Linux::System::distribution($ubuntu)->{family}, 'debian', 'Ubuntu is of the Debian family');
    my ($debian) = imitated('etc/debian_version' => "6.0.10\n");
    is(Linux::System::distribution($debian)->{version}, '6.0.10', 'old releases of Debian are known');
    my ($other) = imitated('etc/os-release' => "ID=void\n");
    is(Linux::System::distribution($other)->{family}, 'other',
        'another distribution is of the family "other"');
};

test 'The resellers of accounts are found' => sub {
    my ($tree, $problems) = imitated('etc/sondrel/resellers' => <<'END');
# who sells for whom
big: ann, bob
small: cid bob # one too many
no colon
END
    is_deeply(Linux::Resellers::map_of($tree, $problems), { ann => 'big', bob => 'big', cid => 'small' },
        'users have their resellers');
    is_deeply problem_texts($problems), ['warning /etc/sondrel/resellers: Line 3: bob already belongs to big, and stays there',
        'error /etc/sondrel/resellers: Line 4: expected "reseller: user ...", the line is left out'],
        'each mistake is named with its line';
    ($tree, $problems) = imitated('etc/passwd' => '');
    is_deeply(Linux::Resellers::map_of($tree, $problems), {}, 'there are no resellers without the file');
};

test 'The facts of a certificate are found' => sub {
    my ($tree) = imitated('etc/ssl/bad.pem' => "no certificate\n", 'etc/ssl/here' => '');
    my $made = run(['openssl', 'req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1',
        '-nodes',
        '-keyout', '/dev/null', '-out', $tree->path('/etc/ssl/a.pem'), '-days', '30', '-subj',
            '/O=A, B/CN=a.test',
        '-addext', 'subjectAltName=DNS:a.test,DNS:*.a.test,IP:10.0.0.1']);
    is $made->{status}, 0, 'a certificate is made' or diag $made->{err};
    my $certificate = Linux::Tls::facts($tree, '/etc/ssl/a.pem');
    is_deeply $certificate->{names}, ['a.test', '*.a.test', '10.0.0.1'], 'a certificate has its names';
    is $certificate->{subject}, 'CN=a.test,O=A\, B', 'the subject of a certificate is found';
    is $certificate->{until} - $certificate->{from}, 30 * 86400,
        'the time for which a certificate is valid is found';
    cmp_ok abs($certificate->{from} - time), '<', 3600,
        'the beginning of the time for which a certificate is valid is in seconds since 1970';
    is((Linux::Tls::facts($tree, '/etc/ssl/bad.pem'))[1], 'openssl cannot read it as a certificate',
        'the error of a file without a certificate gives the reason');
    is((Linux::Tls::facts($tree, '/etc/ssl/gone'))[1], 'cannot be read: No such file or directory',
        'the error of a missing file gives the reason');
};

run_tests;
