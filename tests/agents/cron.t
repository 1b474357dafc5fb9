# The jobs of the accounts of a host, from the tables of cron and those of the system.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Imitated qw(imitated problem_texts);
use Linux::Cron;
use Test::More;
use Independent;

for my $spool ('var/spool/cron/crontabs', 'var/spool/cron') {
    test "Tables in $spool and those of the system are read" => sub {
        my ($tree, $problems) = imitated(
            "$spool/alice" => "# comment\nPATH=/bin\n\"MAILTO\" = x\n\n*/5 * * * *  one two\n"
                . "\@reboot   three\nnonsense\n",
            'etc/crontab' => "17 * * * * root cd / && run-parts\n",
            'etc/cron.d/app' => "SHELL=/bin/sh\n0 1 * * 1-5 alice four %five\n\@daily bob six\n",
            'etc/cron.d/app.bak' => "0 1 * * * alice not read by cron\n",
        );
        is_deeply Linux::Cron::all($tree, $problems), {
            alice => {
                crontab => "/$spool/alice", files => ['/etc/cron.d/app'], jobs => [
                    { when => '*/5 * * * *', command => 'one two', file => "/$spool/alice" },
                    { when => '@reboot', command => 'three', file => "/$spool/alice" },
                    { when => '0 1 * * 1-5', command => 'four %five', file => '/etc/cron.d/app' },
                ],
            },
            bob => { crontab => undef, files => ['/etc/cron.d/app'],
                jobs => [{ when => '@daily', command => 'six', file => '/etc/cron.d/app' }] },
            root => { crontab => undef, files => ['/etc/crontab'],
                jobs => [{ when => '17 * * * *', command => 'cd / && run-parts', file => '/etc/crontab' }] },
        }, 'each account has its jobs';
        is_deeply problem_texts($problems), [], 'no problem is named';
    };
}

test 'Cron of the Red Hat family reads other names too' => sub {
    my ($red_hat, $none) = imitated('etc/os-release' => "ID=rocky\n",
        map { ("etc/cron.d/$_" => "\@daily bob $_\n") }
        '#old', qw(shop.example 0hourly .hidden copy~ a.rpmsave a.rpmnew a.rpmorig));
    is_deeply [map { $_->{command} } @{ Linux::Cron::all($red_hat, $none)->{bob}{jobs} }],
        [qw(0hourly shop.example)],
        'names with a point are read, hidden files and copies are not';
};

test 'Jobs that at runs once are named' => sub {
    my ($at, $named) = imitated(map { ("var/spool/cron/atjobs/$_" => 'x') } qw(a0000101b2c3d4 .SEQ
        =0000101b2c3d5 notes));
    Linux::Cron::all($at, $named);
    is_deeply problem_texts($named),
        ['error /var/spool/cron/atjobs: 2 jobs of "at" are not in the dump: give them to the new'
        . ' host by hand'], 'the jobs of "at" are counted and named';
};

test 'Tables that a plain user cannot read are a problem' => sub {
    my ($tree, $problems) = imitated('var/spool/cron/crontabs/alice' => 'x', 'etc/cron.d/' => undef);
    chmod 0711, $tree->root or die $!;
    chmod 0700, $tree->path('/var/spool/cron/crontabs') or die $!;
    {
        local ($), $>) = ('65534 65534', 65534);
        is_deeply Linux::Cron::all($tree, $problems), {},
            'a plain user finds no jobs in tables that it cannot read';
    }
    is_deeply problem_texts($problems), ['error /var/spool/cron/crontabs: Cannot be read: Permission denied;'
        . ' the jobs in it are not in the dump, copy them by hand'],
        'tables that cannot be read are an error';
};

run_tests;
