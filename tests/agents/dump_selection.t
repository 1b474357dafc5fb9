# Dumps of what was asked for, and of nothing else.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Process qw(run);
use DumpedHost;
use Linux::ContentList;

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
    test "Exactly what was asked for is dumped: $what" => sub {
        my ($input, $arguments, $expected) = @{ $SELECTED{$what} };
        dumped($input, @$arguments);
        is_deeply files(), [sort map {"content/$_.tar.gz"} @$expected], "$what: exactly its archives are there";
        my %named = map { $_ => 1 } @{ values_of('//content/@file') };
        is_deeply [sort keys %named], files(), "$what: the description names exactly these archives";
        valid('dump', $private->read('dump.xml'), "$what: the description is valid");
        like Linux::ContentList::text_of($private), qr/dump\.xml/,
            "$what: the content list has the description";
    };
}

test 'What no archive has is named unless the host is dumped too' => sub {
    dumped('only-mail.test', '--dump-domains=-');
    is problem_of('only-mail.test', 'zone only-mail.test; dump with --server too'), 'error',
        'a zone that is in no archive is an error of its domain';
    dumped('bob', '--dump-clients=-');
    is problem_of('bob', 'FTP account shop; dump with --server too'), 'error',
        'an FTP account that is in no archive is an error of its client';
    dumped('bob', '--dump-clients=-', '--server');
    is problem_of('bob', 'FTP account'), '', 'an FTP account in the archive of the settings is no problem';
};

test 'A site whose root was shared has it when it is dumped alone' => sub {
    dumped('absent,b.test', '--dump-domains=-');
    is problem_of('absent', 'no such domain'), 'error', 'an unknown name is an error';
    is_deeply members('content/sites/b.test.tar.gz'),
        [qw(./etc/nginx/sites-enabled/b ./etc/systemd/system/shop.service ./etc/systemd/system/shop.timer
            ./home/alice/app/public/index.php ./var/spool/cron/crontabs/alice)],
        'the archive has the shared root, and the units and jobs that belong to it';
};

test 'Only mail or only hosting leaves out the other' => sub {
    dumped('bob', '--dump-clients=-', '--only-mail');
    is found('count(//site)'), 0, 'a dump of only mail has no sites';
    dumped('bob', '--dump-clients=-', '--only-hosting');
    is found('count(//mailbox)'), 0, 'a dump of only hosting has no mailboxes';
    is found('count(/dump/server | /dump/admin-info)'), 0, 'the host is described only when asked for';
};

test 'Archives can be without compression' => sub {
    dumped('bob', '--dump-clients=-', '--no-compress');
    is_deeply files(), [map {"content/$_.tar"} qw(clients/bob mailboxes/bob sites/c.test)],
        'the archives have names without the ending of a compressed file';
    my $archive = 'content/sites/c.test.tar';
    is_deeply [members($archive)->[-1], run(['gzip', '-t', "$dir/$archive"])->{status}],
        ['./srv/releases/5/web/index.html', 1], 'tar reads the archive, and gzip does not';
};

test 'Content by rsync is made into archives and its password is nowhere' => sub {
    dumped("host\nlogin\nsecret word\n0\nbob", '--content-transport=rsync', '--dump-clients=-');
    is found('string(/dumping-status/transport/@used)', "$dir/dumping-status.xml"), 'archives',
        'the status says that content is archives';
    is run(['grep', '-r', 'secret word', $dir])->{status}, 1, 'no file of the dump has the password';
};

run_tests;
