# Runs other programs by their argument list, never through a shell, with
# LC_ALL=C. Secrets belong into standard input or a file, not into arguments or
# the environment. No program runs on after the call that ran it has returned.
package Agent::Process;

use strict;
use warnings;
use Errno qw(EINTR EAGAIN);
use Exporter 'import';
use Fcntl qw(F_GETFL F_SETFL O_NONBLOCK);
use IO::Select;
use POSIX ();
use Time::HiRes ();

our @EXPORT_OK = qw(run stream start finish which lower_priority breathe);

# Called at least every second while a program without a `tick` of its own runs,
# and from breathe().
our $while_waiting;

my $PIECE         = 65536;
my $KEPT_ERRORS   = 16384;
my $TICK_SECONDS  = 0.5;
my $GRACE_SECONDS = 2;
my $NOT_STARTED   = 127;

# The login shell of a plain account often leaves these out.
my @MORE_PLACES = qw(/usr/local/sbin /usr/sbin /sbin /usr/local/bin /usr/bin /bin);

# Path of a program; undef where it is not installed.
sub which {
    my ($program) = @_;
    return -x $program && -f _ ? $program : undef if $program =~ m{/};
    for my $dir (split(/:/, defined $ENV{PATH} ? $ENV{PATH} : ''), @MORE_PLACES) {
        return "$dir/$program" if $dir =~ m{^/} && -f "$dir/$program" && -x _;
    }
    return undef;
}

# To be called often by long work that runs no programs.
my $last_breath = 0;
sub breathe {
    my $now = Time::HiRes::time();
    return if !$while_waiting || $now - $last_breath < $TICK_SECONDS;
    $last_breath = $now;
    $while_waiting->();
    return;
}

# Lets everything else on the host go first, for processor and disks.
sub lower_priority {
    eval { setpriority 0, 0, 15 };
    run(['ionice', '-c', '2', '-n', '7', '-p', $$], limit => 5) if which('ionice');
    return;
}

# Waits for a program: { status, out, err, why }. status is its exit code, 128 +
# signal, or 127 where it cannot be started. Options: stdin => text, env => { NAME
# => value or undef }, limit => seconds, most => bytes of output. A program that
# goes beyond one of these is killed, `why` says which ("limit" or "most").
sub run {
    my ($argv, %options) = @_;
    my $most = delete $options{most};
    my $out = '';
    my $result = stream($argv, %options, out => sub {
        $out .= $_[0];
        return !defined $most || length $out <= $most;
    });
    $result->{why} = 'most' if $result->{stopped};
    $out = substr $out, 0, $most if $result->{stopped};
    return { %$result, out => $out };
}

# Runs a program, or a list of them each of which reads what the one before it
# writes, and hands over pieces of the last one's output: out => sub { ($bytes) },
# which ends the programs by returning false. Other options: errors => sub {
# ($bytes) } for what any of them writes as errors, tick => sub {} called at least
# every second, stdin => text or a file handle, env and limit as in run().
# Gives { status, statuses, err, why, stopped }: status is the first that is not 0,
# err the last 16 KiB that any of them wrote as errors. When a callback dies the
# programs are ended and it dies on.
sub stream {
    my ($argv, %options) = @_;
    my @stages = ref $argv->[0] ? @$argv : ($argv);
    my @children;
    my $result = { err => '' };
    my $done = eval {
        start_stages(\@children, \@stages, \%options);
        copy_streams(\@children, $result, \%options);
        1;
    };
    my $error = $@;
    end_all(@children) if !$done || $result->{why} || $result->{stopped};
    $result->{statuses} = [map { finish($_) } @children];
    die $error if !$done;
    ($result->{status}) = ((grep { $_ } @{ $result->{statuses} }), 0);
    return $result;
}

sub start_stages {
    my ($children, $stages, $options) = @_;
    my $input = $options->{stdin};
    for my $argv (@$stages) {
        push @$children, start($argv, stdin => $input, env => $options->{env}, group => 1);
        $input = $children->[-1]{out};
        # Only the next program may hold this end: it must see the end of file,
        # and the one before it a broken pipe.
        close delete $children->[-2]{out} if @$children > 1;
    }
    return;
}

# Starts a program and returns { pid, in, out, err } with the near ends of its
# pipes. stdin => text is not written here; 'pipe' gives `in`, a handle is passed
# on, undef reads nothing. stdout => handle or stderr => handle replace a pipe.
# group => 1 puts it into a process group of its own. Close with finish().
sub start {
    my ($argv, %options) = @_;
    my $child = {};
    my $stdin = $options{stdin};
    my ($from, $to, $errors) = (undef, $options{stdout}, $options{stderr});
    if    (ref $stdin)     { $from = $stdin }
    elsif (defined $stdin) { pipe $from, $child->{in} or die "Cannot make a pipe: $!\n" }
    else                   { open $from, '<', '/dev/null' or die "Cannot open /dev/null: $!\n" }
    if (!$to)     { pipe $child->{out}, $to     or die "Cannot make a pipe: $!\n" }
    if (!$errors) { pipe $child->{err}, $errors or die "Cannot make a pipe: $!\n" }
    $child->{group} = $options{group};
    my $program = which($argv->[0]);
    my $pid = fork;
    die "Cannot start a process: $!\n" if !defined $pid;
    become($program, $argv, \%options, $from, $to, $errors) if !$pid;
    # Also here: the child may be killed before it has come that far.
    setpgrp $pid, $pid if $options{group};
    binmode $_ for grep { $_ } @$child{qw(in out err)};
    $child->{pid} = $pid;
    $child->{text} = $stdin if defined $stdin && !ref $stdin && $stdin ne 'pipe';
    return $child;
}

# The child's side of the fork; never returns and never runs the parent's handlers.
sub become {
    my ($program, $argv, $options, $from, $to, $errors) = @_;
    $SIG{$_} = 'DEFAULT' for qw(INT TERM HUP PIPE ALRM CHLD QUIT);
    $SIG{__DIE__} = 'DEFAULT';
    setpgrp 0, 0 if $options->{group};
    POSIX::dup2(fileno $from, 0);
    POSIX::dup2(fileno $to, 1);
    POSIX::dup2(fileno $errors, 2);
    my %changes = (LC_ALL => 'C', %{ $options->{env} || {} });
    for my $name (keys %changes) {
        if (defined $changes{$name}) { $ENV{$name} = $changes{$name} }
        else                         { delete $ENV{$name} }
    }
    delete $ENV{LANGUAGE};
    if (defined $program) {
        no warnings 'exec';
        exec { $program } @$argv;
    }
    my $text = "$argv->[0]: " . (defined $program ? $! : 'not found') . "\n";
    POSIX::write(2, $text, length $text);
    POSIX::_exit($NOT_STARTED);
}

# Waits for a child of start(): its exit code, or 128 + the signal that ended it.
sub finish {
    my ($child) = @_;
    delete @$child{qw(in out err)};
    reap($child, 0);
    return $child->{status};
}

# Takes the status of a child that has ended, with flags for waitpid; true if it has.
sub reap {
    my ($child, $flags) = @_;
    return 1 if defined $child->{status};
    my $got;
    do { $got = waitpid $child->{pid}, $flags } while $got < 0 && $! == EINTR;
    return 0 if $got == 0;
    $child->{status} = $got < 0 ? 255 : $? & 127 ? 128 + ($? & 127) : $? >> 8;
    return 1;
}

sub all_ended { return !grep { !reap($_, POSIX::WNOHANG()) } @_ }

# Asks the programs to end and, a little later, ends them.
sub end_all {
    my @children = @_;
    for my $signal (qw(TERM KILL)) {
        kill $signal, $_->{group} ? -$_->{pid} : $_->{pid} for grep { !defined $_->{status} } @children;
        next if $signal eq 'KILL';
        my $deadline = Time::HiRes::time() + $GRACE_SECONDS;
        while (Time::HiRes::time() < $deadline) {
            return if all_ended(@children);
            Time::HiRes::sleep(0.01);
        }
    }
    return;
}

# Moves bytes until all outputs are closed and the programs have ended, a limit is
# reached or `out` says stop.
sub copy_streams {
    my ($children, $result, $options) = @_;
    my ($first, $last) = @$children[0, -1];
    my $reading = IO::Select->new($last->{out}, map { $_->{err} } @$children);
    my $writing = IO::Select->new;
    local $SIG{PIPE} = 'IGNORE';
    if ($first->{in}) {
        fcntl $first->{in}, F_SETFL, O_NONBLOCK | fcntl $first->{in}, F_GETFL, 0;
        $writing->add($first->{in});
    }
    my $tick      = $options->{tick} || $while_waiting;
    my $started   = Time::HiRes::time();
    my $next_tick = $started;
    while ($reading->count || !all_ended(@$children)) {
        my $now = Time::HiRes::time();
        if (defined $options->{limit} && $now - $started >= $options->{limit}) {
            $result->{why} = 'limit';
            return;
        }
        if ($tick && $now >= $next_tick) {
            $tick->();
            $next_tick = $now + $TICK_SECONDS;
        }
        # A program that has closed its outputs gives no event when it ends.
        my $wait = $reading->count ? 0.1 : 0.001;
        my ($readable, $writable) = IO::Select::select($reading, $writing, undef, $wait);
        feed($first, $writing) if @{ $writable || [] };
        for my $handle (@{ $readable || [] }) {
            my $bytes = take($handle, $reading);
            if ($handle != $last->{out}) {
                $options->{errors}->($bytes) if $options->{errors} && length $bytes;
                $result->{err} .= $bytes;
                $result->{err} = substr $result->{err}, -$KEPT_ERRORS if length $result->{err} > $KEPT_ERRORS;
            }
            elsif (length $bytes && $options->{out} && !$options->{out}->($bytes)) {
                $result->{stopped} = 1;
                return;
            }
        }
    }
    return;
}

# Reads what a pipe has; forgets the pipe at its end.
sub take {
    my ($handle, $reading) = @_;
    my $got = sysread $handle, my ($bytes), $PIECE;
    return '' if !defined $got && ($! == EINTR || $! == EAGAIN);
    $reading->remove($handle) if !$got;
    return $got ? $bytes : '';
}

# Writes what fits of the text for standard input, and closes it after the last.
sub feed {
    my ($child, $writing) = @_;
    my $wrote = syswrite $child->{in}, $child->{text}, $PIECE;
    return if !defined $wrote && ($! == EINTR || $! == EAGAIN);
    substr($child->{text}, 0, $wrote) = '' if defined $wrote;
    return if defined $wrote && length $child->{text};
    $writing->remove($child->{in});
    close delete $child->{in};
    return;
}

1;
