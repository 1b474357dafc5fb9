# A process of any account that listens at a socket, as an attacker's database server
# does; ended with the object. It keeps what it is sent.
package FakeServer;

use strict;
use warnings;
use IO::Socket::UNIX;
use POSIX ();
use Socket qw(SOMAXCONN);

# account => its name; path => where it listens; socket_of => whose the socket is, if not
# the account's; queue => how many connections wait before others are refused; talk =>
# sub { ($connection, $said) }, called for each connection in a process of its own, with
# the open file for what it is sent. Without it no connection is accepted.
sub new {
    my ($class, %given) = @_;
    my ($uid, $gid) = (getpwnam $given{account})[2, 3];
    pipe my $ready, my $tell or die "pipe: $!\n";
    open my $said, '+>', undef or die "A file for what is said: $!\n";
    my $pid = fork;
    die "fork: $!\n" if !defined $pid;
    if (!$pid) {
        close $ready;
        unlink $given{path};
        become($uid, $gid);
        my $listener = IO::Socket::UNIX->new(Local => $given{path}, Listen => defined $given{queue} ? $given{queue} : 64)
            or do { print {$tell} "$given{path}: $!\n"; POSIX::_exit(1) };
        chmod 0777, $given{path};
        print {$tell} "ready\n";
        close $tell;
        serve($listener, $said, $given{talk});
        POSIX::_exit(0);
    }
    close $tell;
    my $word = readline $ready;
    die "The fake server does not start: ", defined $word ? $word : '', "\n" if !defined $word || $word ne "ready\n";
    return bless { pid => $pid, said => $said, path => $given{path} }, $class;
}

sub become {
    my ($uid, $gid) = @_;
    $( = $gid;
    $) = "$gid $gid";
    ($<, $>) = ($uid, $uid);
    die "Cannot become $uid\n" if $> != $uid;
    return;
}

sub serve {
    my ($listener, $said, $talk) = @_;
    # The agent closes a connection at once that only tests the socket.
    local $SIG{PIPE} = 'IGNORE';
    while (1) {
        if (!$talk) {
            POSIX::pause();
            next;
        }
        my $connection = $listener->accept or next;
        $talk->($connection, $said);
        close $connection;
    }
    return;
}

# All that it was sent so far.
sub said {
    my ($self) = @_;
    seek $self->{said}, 0, 0;
    local $/ = undef;
    my $text = readline $self->{said};
    return defined $text ? $text : '';
}

sub stop {
    my ($self) = @_;
    my $pid = delete $self->{pid} or return;
    kill KILL => $pid;
    waitpid $pid, 0;
    return;
}

sub DESTROY {
    my ($self) = @_;
    local $?;
    $self->stop;
    return;
}

1;
