# What belongs to a certificate: where the programs that renew certificates keep it, and their accounts.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Imitated qw(imitated);
use Linux::Lineage;
use Test::More;
use Independent;

my ($tree) = imitated(
    (map { ("etc/letsencrypt/live/$_->[0]/$_->[1].pem" => \"../../archive/$_->[0]/$_->[1]2.pem",
        "etc/letsencrypt/archive/$_->[0]/$_->[1]2.pem" => 'x') } map { my $name = $_; map { [$name, $_] }
        qw(cert chain fullchain privkey) } qw(a.test other.test)),
    'etc/letsencrypt/renewal/a.test.conf' =>
        "version = 2.1.0\naccount = 0123abc\nserver = x\n[renewalparams]\n",
    'etc/letsencrypt/accounts/acme.example/directory/0123abc/private_key.json' => 'x',
    'etc/letsencrypt/accounts/acme.example/directory/fff/private_key.json' => 'x',
    'etc/nginx/ssl/a.pem' => \'/etc/letsencrypt/live/a.test/fullchain.pem',
    'root/.acme.sh/b.test_ecc/b.test.conf' => "Le_Domain='b.test'\nLe_RealKeyPath='/etc/nginx/ssl/b.key'\n",
    'root/.acme.sh/c.test/c.test.conf' => "Le_RealKeyPath='/etc/nginx/ssl/c.key'\n",
    'root/.acme.sh/account.conf' => 'x', 'root/.acme.sh/ca/x' => 'x', 'etc/nginx/ssl/b.key' => 'x',
    'var/lib/lego/certificates/d.test.crt' => 'x', 'var/lib/lego/certificates/d.test.json' => 'x',
    'var/lib/lego/certificates/e.test.json' => 'x', 'var/lib/lego/accounts/x' => 'x',
    'var/lib/dehydrated/certs/f.test/fullchain.pem' => 'x', 'var/lib/dehydrated/accounts/x' => 'x',
    'etc/ssl/certs/plain.pem' => 'x',
);
chmod 0700, $tree->path("/etc/letsencrypt/$_") or die $! for qw(live archive);

sub paths_of {
    return [map {@{ $_->{paths} }} Linux::Lineage->new($tree)->of(@_)];
}

my @OF_A = ((map {"/etc/letsencrypt/$_"} qw(live/a.test archive/a.test renewal/a.test.conf)),
    '/etc/letsencrypt/accounts/acme.example/directory/0123abc');

test 'What certbot keeps of a certificate is found' => sub {
    is_deeply paths_of(map {"/etc/letsencrypt/live/a.test/$_.pem"} qw(fullchain privkey)), \@OF_A,
        'the directories, the settings and the account of a certificate are found, and none of others';
    is_deeply paths_of('/etc/nginx/ssl/a.pem'), \@OF_A,
        'the same paths are found by a link to the certificate';
    is_deeply [Linux::Lineage->new($tree)->of('/etc/letsencrypt/live/a.test/cert.pem')]->[0]{directories}, [
        { path => '/etc/letsencrypt/live', mode => '0700', uid => 0, gid => 0 },
        { path => '/etc/letsencrypt/archive', mode => '0700', uid => 0, gid => 0 },
        { path => '/etc/letsencrypt/accounts', mode => '0755', uid => 0, gid => 0 },
    ], 'the owners and modes of the directories above are known';
    is_deeply paths_of('/etc/letsencrypt/live/other.test/cert.pem'), [],
        'a certificate that is not renewed has no lineage';
};

test 'What acme.sh keeps of a certificate is found' => sub {
    is_deeply paths_of('/etc/nginx/ssl/b.key'),
        ['/root/.acme.sh/b.test_ecc', '/root/.acme.sh/account.conf', '/root/.acme.sh/ca'],
        'the directory of acme.sh is found by the place to which it has copied a key';
    is_deeply paths_of('/root/.acme.sh/c.test/c.test.conf')->[0], '/root/.acme.sh/c.test',
        'the directory of acme.sh is found by a file in it';
};

test 'What lego keeps of a certificate is found' => sub {
    is_deeply paths_of('/var/lib/lego/certificates/d.test.crt'),
        [(map {"/var/lib/lego/certificates/d.test.$_"} qw(crt json)), '/var/lib/lego/accounts'],
        'the files of a certificate and the accounts of lego are found';
};

test 'What dehydrated keeps of a certificate is found' => sub {
    is_deeply paths_of('/var/lib/dehydrated/certs/f.test/fullchain.pem'),
        ['/var/lib/dehydrated/certs/f.test', '/var/lib/dehydrated/accounts'],
        'the directory of a certificate and the accounts of dehydrated are found';
};

test 'Other files belong to no such program' => sub {
    is_deeply paths_of('/etc/ssl/certs/plain.pem', undef, '/absent', 'relative'), [],
        'other files have no lineage';
};

run_tests;
