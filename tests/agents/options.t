# The arguments of the agent and the lists on its standard input.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Options;

delete $ENV{SUDO_UID};

my $LINES = 'lines are needed on standard input';

sub parse {
    my ($input, @arguments) = @_;
    open my $handle, '<', \$input or die $!;
    return Agent::Options::parse(\@arguments, $handle);
}

# Expects that the arguments are refused with an error that begins so.
sub refused {
    my ($why, $expected, $input, @arguments) = @_;
    my $error = error_of(sub { parse($input, @arguments) });
    like $error, qr/\A\Q$expected\E/, "refused: $why";
    unlike $error, qr/secret/, "$why: the input is not in the error";
    return;
}

test 'The status and the content list are asked for' => sub {
    is_deeply parse('', '--get-status'), { action => 'status' }, '--get-status asks for the status';
    is_deeply parse('', '--get-content-list'), { action => 'content-list' },
        '--get-content-list asks for the content list';
};

my %NOTHING = (action => 'dump', all => 0, compress => 1, content => 1, license => 1, server => 0,
    admin_info => 0);

test 'A dump has the settings of its options' => sub {
    is_deeply parse('', '--migration-mode', '--include-app-distrib'), \%NOTHING,
        'a dump without further options has the usual settings';
    is_deeply parse('left over', '--migration-mode', '--dump-all'),
        { %NOTHING, all => 1, server => 1, admin_info => 1 },
        'a dump of everything has the host itself, and reads no list';
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
    my $no_action = 'One of --get-content-list, --get-status or --migration-mode is needed';
    refused('nothing to do', $no_action, '');
    refused('unknown option', 'Unknown option: --verbose', '', '--migration-mode', '--verbose');
    refused('no mode', $no_action, 'a', '--dump-domains=-');
    refused('a list that is not on the input', 'Unknown option: --dump-domains=a', '', '--migration-mode',
        '--dump-domains=a');
    refused('status and more', '--get-status goes with no other option', '', '--get-status', '--dump-all');
    refused('everything and a list', '--dump-all goes with no list of names', 'a', '--migration-mode',
        '--dump-all', '--dump-clients=-');
    refused('only mail and only hosting', '--only-mail and --only-hosting exclude each other', '',
        '--migration-mode', '--only-mail', '--only-hosting');
    refused('a missing list', "2 $LINES, there are 1", 'secret', '--migration-mode', '--dump-domains=-',
        '--dump-clients=-');
    refused('no list', "1 $LINES, there are 0", '', '--migration-mode', '--dump-domains=-');
    refused('a line too many', "1 $LINES, there are 2", "secret\na", '--migration-mode', '--dump-domains=-');
    refused('a short connection', "4 $LINES, there are 2", "secret\na", '--migration-mode', '--dump-all',
        '--content-transport=rsync');
};

test 'A password that sudo did not read is not taken for a name' => sub {
    local $ENV{SUDO_UID} = 1000;
    is_deeply parse("secret\na.test", '--migration-mode', '--dump-domains=-')->{domains}, ['a.test'],
        'a line in front of the list is not taken for its names';
    is_deeply parse("a.test\n", '--migration-mode', '--dump-domains=-')->{domains}, ['a.test'],
        'a list without a line in front of it is read';
    refused('two lines too many', "1 $LINES, there are 3", "secret\nsecret\na", '--migration-mode',
        '--dump-domains=-');
};

run_tests;
