# The arguments of the agent and the lists on its standard input.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Options;

delete $ENV{SUDO_UID};

sub parse {
    my ($input, @arguments) = @_;
    open my $handle, '<', \$input or die $!;
    return Agent::Options::parse(\@arguments, $handle);
}

sub refused {
    my ($why, $input, @arguments) = @_;
    ok !eval { parse($input, @arguments); 1 }, "refused: $why" or return;
    unlike $@, qr/secret/, "$why: the input is not in the error";
}

test 'The status and the content list are asked for' => sub {
    is_deeply parse('', '--get-status'), { action => 'status' }, 'the status is asked for';
    is_deeply parse('', '--get-content-list'), { action => 'content-list' }, 'the content list is asked for';
};

my %NOTHING = (action => 'dump', all => 0, compress => 1, content => 1, license => 1, server => 0,
    admin_info => 0);

test 'A dump has the settings of its options' => sub {
    is_deeply parse('', '--migration-mode', '--include-app-distrib'), \%NOTHING,
        'a dump without further options has the usual settings';
    is_deeply parse('left over', '--migration-mode', '--dump-all'),
        { %NOTHING, all => 1, server => 1, admin_info => 1 },
        'a dump of everything takes the host itself along, and reads nothing';
    is_deeply parse("a.test,b.test\nc", '--migration-mode', '--dump-domains=-', '--dump-resellers=-',
        '--only-mail',
        '--no-compress', '--server', '--admin-info', '--no-license', '--no-content'),
        { %NOTHING, domains => [qw(a.test b.test)], resellers => ['c'], only => 'mail', compress => 0,
            server => 1,
            admin_info => 1, license => 0, content => 0 }, 'every option has its setting';
};

test 'The lists have an order of their own and names are taken once' => sub {
    is_deeply parse("d\nc\nr", '--migration-mode', '--dump-resellers=-', '--dump-clients=-',
        '--dump-domains=-'),
        { %NOTHING, domains => ['d'], clients => ['c'], resellers => ['r'] },
        'the lists are read in their own order, not in that of the options';
    is_deeply parse("a,,b,a, b\n", '--migration-mode', '--dump-clients=-')->{clients}, ['a', 'b', ' b'],
        'names are taken once and as they are';
};

test 'The lines of a connection are not kept' => sub {
    is_deeply parse("host\nlogin\nsecret\n0\na.test", '--content-transport=rsync', '--migration-mode',
        '--dump-domains=-'),
        { %NOTHING, domains => ['a.test'], transport => 'rsync' }, 'the lines of a connection are not kept';
    is_deeply parse("host\nlogin\nsecret\n0\n", '--content-transport=rsync', '--migration-mode',
        '--dump-all')->{all}, 1,
        'a dump of everything can have a connection';
};

test 'Arguments that do not fit together are refused' => sub {
    refused('nothing to do', '');
    refused('unknown option', '', '--migration-mode', '--verbose');
    refused('no mode', 'a', '--dump-domains=-');
    refused('a list that is not on the input', '', '--migration-mode', '--dump-domains=a');
    refused('status and more', '', '--get-status', '--dump-all');
    refused('everything and a list', 'a', '--migration-mode', '--dump-all', '--dump-clients=-');
    refused('only mail and only hosting', '', '--migration-mode', '--only-mail', '--only-hosting');
    refused('a missing list', 'secret', '--migration-mode', '--dump-domains=-', '--dump-clients=-');
    refused('no list', '', '--migration-mode', '--dump-domains=-');
    refused('a line too many', "secret\na", '--migration-mode', '--dump-domains=-');
    refused('a short connection', "secret\na", '--migration-mode', '--dump-all', '--content-transport=rsync');
};

test 'A password that sudo did not read is not taken for a name' => sub {
    local $ENV{SUDO_UID} = 1000;
    is_deeply parse("secret\na.test", '--migration-mode', '--dump-domains=-')->{domains}, ['a.test'],
        'a line in front of the list is not taken for its names';
    is_deeply parse("a.test\n", '--migration-mode', '--dump-domains=-')->{domains}, ['a.test'],
        'a list without a line in front of it is read';
    refused('two lines too many', "secret\nsecret\na", '--migration-mode', '--dump-domains=-');
};

run_tests;
