# Asks a web server of this host for one page, as a browser without a memory does. No name is looked up, and
# nothing is sent but GET.
package Linux::Http;

use strict;
use warnings;
use Agent::Process qw(breathe stream which);
use Errno qw(EAGAIN EINPROGRESS EINTR);
use Fcntl qw(F_GETFL F_SETFL O_NONBLOCK);
use IO::Select;
use Linux::HttpAnswer;
use Socket qw(AF_INET AF_INET6 SOCK_STREAM SOL_SOCKET SO_ERROR inet_aton pack_sockaddr_in);
use Time::HiRes ();

my $PIECE = 65536;
my $TURN_SECONDS = 0.2;

# True if what TLS needs is there.
sub speaks_tls { return which('openssl') || which('curl') ? 1 : 0 }

# What the server answers, as Linux::HttpAnswer::result gives it: ({ ... }), or (undef, why). Of the
# request: address => an address of this host, family => 4 or 6, port, tls => true, name => for Host
# and SNI, path => with its query, of printable characters of ASCII; limit => seconds for all of it.
sub get {
    my (%request) = @_;
    my $answer = Linux::HttpAnswer->new;
    my ($ended, $why) = $request{tls} ? by_program($answer, \%request) : by_socket($answer, \%request);
    my ($result, $reason) = $answer->result($ended);
    return $result ? $result : (undef, defined $why ? $why : $reason);
}

# A port that a browser would not name is not in Host.
sub text_of {
    my ($request) = @_;
    my $usual = $request->{tls} ? 443 : 80;
    my $host = $request->{port} == $usual ? $request->{name} : "$request->{name}:$request->{port}";
    return join "\r\n", "GET $request->{path} HTTP/1.1", "Host: $host",
        (map {"$_->[0]: $_->[1]"} headers()), '', '';
}

sub headers {
    return (['User-Agent', 'Mozilla/5.0 (compatible; sondrel)'], ['Accept', 'text/html,*/*;q=0.8'],
        ['Accept-Encoding', 'identity'], ['Connection', 'close']);
}

# These give (whether the server has closed the connection, why it could not be asked).
sub by_socket {
    my ($answer, $request) = @_;
    my $deadline = Time::HiRes::time() + $request->{limit};
    my ($socket, $why) = connected($request, $deadline);
    return (0, $why) if !$socket;
    local $SIG{PIPE} = 'IGNORE';
    my $text = text_of($request);
    while (length $text) {
        my $wrote = syswrite $socket, $text;
        if (defined $wrote) { substr($text, 0, $wrote) = '' }
        elsif ($! != EAGAIN && $! != EINTR) { return (1, "closes the connection: $!") }
        elsif (!waited($socket, 1, $deadline)) { return (0, 'takes no request in time') }
    }
    while (waited($socket, 0, $deadline)) {
        my $got = sysread $socket, my ($bytes), $PIECE;
        next if !defined $got && ($! == EAGAIN || $! == EINTR);
        return (1, undef) if !$got;
        return (0, undef) if $answer->take($bytes);
    }
    return (0, 'does not answer in time');
}

sub connected {
    my ($request, $deadline) = @_;
    my $is_6 = $request->{family} == 6;
    socket my $socket, $is_6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0 or return (undef, "cannot be asked: $!");
    binmode $socket;
    fcntl $socket, F_SETFL, O_NONBLOCK | fcntl $socket, F_GETFL, 0;
    my $peer = $is_6 ? pack_in6(@$request{qw(port address)})
        : pack_sockaddr_in($request->{port}, inet_aton($request->{address}));
    if (!connect $socket, $peer) {
        return (undef, "cannot be reached: $!") if $! != EINPROGRESS;
        return (undef, 'takes no connection in time') if !waited($socket, 1, $deadline);
        local $! = unpack 'i', getsockopt $socket, SOL_SOCKET, SO_ERROR;
        return (undef, "cannot be reached: $!") if $!;
    }
    return $socket;
}

# The Socket of perl 5.10 cannot write such an address. It is what the kernel of Linux takes.
sub pack_in6 {
    my ($port, $address) = @_;
    return pack 'S n N a16 L', AF_INET6, $port, 0, pack('H32', hex_of_6($address)), 0;
}

# An address of IPv6 as 32 digits; undef if it is none.
sub hex_of_6 {
    my ($text) = @_;
    return undef if $text !~ /\A[0-9a-f:]+\z/i || $text =~ /:::|::.*::/;
    my ($before, $after) = map { [split /:/] } split /::/, $text, 2;
    my $missing = 8 - @$before - @{ $after || [] };
    return undef if $text =~ /::/ ? $missing < 1 : $missing;
    my @parts = (@$before, (0) x $missing, @{ $after || [] });
    return undef if grep { !/\A[0-9a-f]{1,4}\z/i } @parts;
    return lc join '', map { sprintf '%04s', $_ } @parts;
}

sub waited {
    my ($socket, $to_write, $deadline) = @_;
    my $select = IO::Select->new($socket);
    while ((my $left = $deadline - Time::HiRes::time()) > 0) {
        breathe();
        my $turn = $left < $TURN_SECONDS ? $left : $TURN_SECONDS;
        return 1 if $to_write ? $select->can_write($turn) : $select->can_read($turn);
    }
    return 0;
}

# Certificates are not judged: what counts is what the server sends.
sub by_program {
    my ($answer, $request) = @_;
    my $enough;
    my $result = stream(which('openssl') ? by_openssl($request) : by_curl($request),
        limit => $request->{limit}, out => sub { return !($enough = $answer->take($_[0])) });
    return (0, undef) if $enough;
    return (0, 'does not answer in time') if $result->{why};
    return (!$result->{status}, $result->{status} ? 'makes no connection by TLS, or breaks it off' : undef);
}

# A browser names no address by SNI.
sub by_openssl {
    my ($request) = @_;
    my @name = $request->{name} =~ /\A[0-9.]+\z/ ? () : ('-servername', $request->{name});
    return (['openssl', 's_client', '-quiet', '-connect', place_of($request), @name],
        stdin => text_of($request));
}

sub by_curl {
    my ($request) = @_;
    my $where = "$request->{name}:$request->{port}";
    my @header = map { ('-H', "$_->[0]: $_->[1]") } headers();
    return (['curl', '-q', '-s', '-i', '-k', '-g', '--raw', '--http1.1', '--noproxy', '*', '--path-as-is',
        '--connect-to', "$where:" . place_of($request), @header, "https://$where$request->{path}"]);
}

sub place_of {
    my ($request) = @_;
    my $address = $request->{family} == 6 ? "[$request->{address}]" : $request->{address};
    return "$address:$request->{port}";
}

1;
