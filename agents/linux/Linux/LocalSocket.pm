# Who stands behind a socket of this host. Any account may listen at a socket in /tmp and
# speak as a database server does; what it says would go into the dump, and what it asks
# for could be the password of the host's administrator. So a server counts only when
#
# - the process that listens is root's or a service account's (the kernel names it),
# - its socket belongs to one of them, too, and
# - nobody else can put another one in its place: every directory on the way belongs to
#   one of them, and others may not write into it, or only as into /tmp, where they can
#   remove nothing but their own (the sticky bit).
package Linux::LocalSocket;

use strict;
use warnings;
use Errno qw(EAGAIN);
use Exporter 'import';
use Fcntl qw(F_SETFL O_NONBLOCK S_ISSOCK S_ISVTX S_IWGRP S_IWOTH);
use Socket qw(PF_UNIX SOCK_STREAM SOL_SOCKET SO_SNDTIMEO pack_sockaddr_un);

our @EXPORT_OK = qw(look_at_socket);

# As Linux numbers it on nearly all machines, for a perl that does not name it. Where it
# is another one nothing is answered, and no server counts.
my $PEER_CREDENTIALS = eval { Socket::SO_PEERCRED() } || 17;

# How long a server may take no further connection.
my $SECONDS = 2;

# Looks at the socket of an absolute path without links and sends nothing to it.
# @accounts: the service accounts, each as [uid, gid]; root and who asks always count.
# Gives { state => ... } with
#   'trusted'  and owner => [uid, gid] of the socket
#   'foreign'  and uid => who is behind it, or could be; directory => the one that others
#              may write into, where that is the only reason
#   'none'     where nothing listens, and why => text; left_over => 1 where a server of an
#              account that counts has left the socket
sub look_at_socket {
    my ($path, @accounts) = @_;
    my @stat = lstat $path;
    return { state => 'none', why => "$!" } if !@stat;
    return { state => 'none', why => 'it is no socket' } if !S_ISSOCK($stat[2]);
    my %known = map { $_ => 1 } 0, $>, map { $_->[0] } @accounts;
    my %groups = map { $_ => 1 } 0, map { $_->[1] } @accounts;
    # Nobody waits for the server of an account that does not count.
    my ($listener, $why, $busy) = listener($path, $known{ $stat[4] } ? $SECONDS : 0);
    return { state => 'none', why => $why, $known{ $stat[4] } ? (left_over => 1) : () }
        if !defined $listener && ($known{ $stat[4] } || !$busy);
    for my $uid (grep {defined} $listener, $stat[4]) {
        return { state => 'foreign', uid => $uid } if !$known{$uid};
    }
    my $open = open_directory($path, \%known, \%groups);
    return { state => 'foreign', %$open } if $open;
    return { state => 'trusted', owner => [@stat[4, 5]] };
}

# The number of the account that listens; (undef, why, whether the listener is busy)
# where that is not known. The seconds are how long to wait for one that is busy.
sub listener {
    my ($path, $seconds) = @_;
    my $address = eval { pack_sockaddr_un($path) };
    return undef, 'its path is too long' if !defined $address;
    socket my $socket, PF_UNIX, SOCK_STREAM, 0 or return undef, "$!";
    my $set = $seconds ? setsockopt $socket, SOL_SOCKET, SO_SNDTIMEO, pack('l!l!', $seconds, 0)
        : fcntl $socket, F_SETFL, O_NONBLOCK;
    return undef, "$!" if !$set;
    connect $socket, $address or return undef, ($! == EAGAIN ? ('it takes no connections', 1) : "$!");
    my $credentials = getsockopt $socket, SOL_SOCKET, $PEER_CREDENTIALS;
    return undef, 'it is not known whose it is' if !defined $credentials || length $credentials < 12;
    my (undef, $uid) = unpack 'l L L', $credentials;
    return $uid;
}

# The first directory above a path in which other accounts could replace what leads to
# it; undef if there is none. What lies in it belongs to one that is known, as checked before.
sub open_directory {
    my ($path, $known, $groups) = @_;
    while ($path =~ s{/[^/]*\z}{}) {
        my $directory = length $path ? $path : '/';
        my (undef, undef, $mode, undef, $uid, $gid) = lstat $directory
            or return { uid => 0, directory => $directory };
        return { uid => $uid } if !$known->{$uid};
        next if $mode & S_ISVTX;
        return { uid => $uid, directory => $directory }
            if $mode & S_IWOTH || ($mode & S_IWGRP && !$groups->{$gid});
    }
    return;
}

1;
