# Programs that the agent runs: their input, output, errors, status, time limits and chains.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Time::HiRes ();
use Agent::Process qw(run stream start finish which);

sub perl_code { return [$^X, '-e', @_] }

test 'A program gives its status, output and errors' => sub {
    is_deeply run(perl_code('print "out"; print STDERR "err"; exit 3')),
        { status => 3, statuses => [3], out => 'out', err => 'err' }, 'run gives status, output and errors';
    is run(['printf', '%s|', '$HOME', '`id`', '*'])->{out}, '$HOME|`id`|*|', 'no shell reads the arguments';
    is run(perl_code('print $ENV{LC_ALL}'))->{out}, 'C', 'programs run in the locale C';
    {
        local $ENV{GONE} = 'x';
        is run(perl_code('print exists $ENV{GONE} ? 1 : 0, $ENV{NEW}'), env => { GONE => undef,
            NEW => 'n' })->{out},
            '0n', 'the environment can be changed for a program';
        is $ENV{GONE}, 'x', 'the environment of the caller stays as it was';
    }
    my $missing = run(['no-such-program', 'x']);
    is $missing->{status}, 127, 'a missing program is status 127';
    is $missing->{err}, "no-such-program: not found\n", 'a missing program is named';
    is run(perl_code('kill 9, $$'))->{status}, 128 + 9, 'the status shows a signal';
};

test 'Long input and output flow both ways' => sub {
    my $text = join '', map {"line $_\n"} 1 .. 100_000;
    is run(perl_code('print while <STDIN>'), stdin => $text)->{out}, $text,
        'long input and output flow both ways';
    is run(perl_code('print STDERR "x" x 500_000; print "done"'))->{out}, 'done',
        'a program that writes many errors is not blocked';
    like run(perl_code('print STDERR "x" x 500_000, "end"'))->{err}, qr/\Ax{16381}end\z/,
        'the last 16384 bytes of the errors are kept';
    is run(perl_code('close STDIN; print "early"'), stdin => $text)->{out}, 'early',
        'a program that does not read its input gives its output';
    is run(perl_code('print "nothing" if !defined <STDIN>'))->{out}, 'nothing',
        'input is empty where none is given';
};

test 'A program that takes too long or writes too much is ended' => sub {
    my $began = Time::HiRes::time();
    my $slow = run(perl_code('$| = 1; print "begun"; sleep 60'), limit => 0.5);
    is $slow->{why}, 'limit', 'a program over its time is ended';
    is $slow->{out}, 'begun', 'the output of a program before its end is kept';
    cmp_ok Time::HiRes::time() - $began, '<', 5, 'a program ends soon after its limit of time';
    is run(perl_code('close STDOUT; close STDERR; sleep 60'), limit => 0.5)->{why}, 'limit',
        'the limit holds for a program that has closed its outputs';
    is run(perl_code('$SIG{TERM} = "IGNORE"; $| = 1; print "x"; sleep 60'), limit => 0.5)->{status}, 128 + 9,
        'a program that ignores the request is killed';
    my $endless = run(['yes'], most => 1000);
    is $endless->{why}, 'most', 'a program that writes too much is ended';
    is length $endless->{out}, 1000, 'no more output is kept than was asked for';
};

test 'Programs are chained' => sub {
    my ($got, $ticks) = ('', 0);
    my $piped = stream([perl_code('print "b\na\n"'), ['sort'], perl_code('print uc while <STDIN>')],
        out => sub { $got .= $_[0]; 1 }, tick => sub { $ticks++ });
    is $got, "A\nB\n", 'each program of a chain reads what the one before it writes';
    is_deeply $piped->{statuses}, [0, 0, 0], 'each program of a chain has its status';
    cmp_ok $ticks, '>=', 1, 'the caller is called while a chain runs';
    is stream([perl_code('print "x"; exit 4'), ['cat']], out => sub {1})->{status}, 4,
        'a failure at the beginning of a chain is seen';
    my $broken = stream([['yes'], perl_code('exit 5')], limit => 20);
    is_deeply [$broken->{statuses}, $broken->{why}], [[128 + 13, 5], undef],
        'a chain ends when its last program does';
};

test 'A callback that dies ends the program' => sub {
    my $pid_file_child;
    my $died = !eval {
        stream(perl_code('$| = 1; print $$; sleep 60'), out => sub { $pid_file_child = $_[0]; die "stop\n" });
        1;
    };
    ok $died, 'the caller learns that the callback has died';
    is $@, "stop\n", 'the caller gets the error of the callback';
    ok !kill(0, $pid_file_child), 'the program is gone';
};

test 'A callback comes at least every second' => sub {
    my $count = 0;
    stream(perl_code('$| = 1; for (1..20) { select undef, undef, undef, 0.1; print "." }'),
        out => sub {1}, tick => sub { $count++ });
    cmp_ok $count, '>=', 3, 'the callback comes at least three times in two seconds';
};

test 'The errors of all programs of a chain are read' => sub {
    my $heard = '';
    stream([perl_code('print STDERR "a" x 40_000'), perl_code('print STDERR "b" x 40_000')],
        errors => sub { $heard .= $_[0] });
    is_deeply [map { eval "\$heard =~ tr/$_//" } qw(a b)], [40_000, 40_000],
        'the caller gets all errors of all programs';
};

test 'The caller is called while it waits for a program' => sub {
    my $waited = 0;
    local $Agent::Process::while_waiting = sub { $waited++ };
    run(perl_code('sleep 1'));
    cmp_ok $waited, '>=', 2, 'the caller is called at least twice while a program runs for a second';
};

test 'A started program has pipes and a status' => sub {
    my $child = start(perl_code('print while <STDIN>; exit 6'), stdin => 'pipe');
    syswrite $child->{in}, 'hello';
    close delete $child->{in};
    is readline $child->{out}, 'hello', 'a started program has pipes';
    is finish($child), 6, 'a started program has a status';
    is finish($child), 6, 'the status can be asked for again';
};

test 'A handle serves as input' => sub {
    open my $input, '<', $0 or die $!;
    is run(['cat'], stdin => $input)->{out}, do { local @ARGV = $0; local $/; <> },
        'a handle serves as input';
};

test 'Programs are found by their names' => sub {
    like which('cat'), qr{^/.*/cat$}, 'programs are found';
    is which('no-such-program'), undef, 'a missing program is not found';
    is which('/etc/passwd'), undef, 'a file that cannot be executed is no program';
    {
        local $ENV{PATH} = '/nowhere';
        ok which('chroot'), 'programs for the administrator are found without PATH';
    }
};

test 'The priority is lowered for the processor and for disks' => sub {
    is Agent::Process::lower_priority(), undef, 'lowering the priority succeeds';
    is getpriority(0, 0), 15, 'the priority for the processor is lowered';
    is run(['ionice', '-p', $$])->{out}, "best-effort: prio 7\n", 'the priority for disks is lowered';
};

run_tests;
