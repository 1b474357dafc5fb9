# Servers on loopback that a test starts and ends.
package LocalServer;

use strict;
use warnings;
use Exporter 'import';
use IO::Socket::INET;
use Test::More;
use Time::HiRes ();
use Agent::Process qw(start finish);

our @EXPORT_OK = qw(free_port with_server);

# A port of the loopback at which nothing listened a moment ago.
sub free_port {
    my $socket = IO::Socket::INET->new(LocalAddr => '127.0.0.1', Listen => 1) or die "No port: $!\n";
    return $socket->sockport;
}

# Runs a program that listens at a port until the block ends, which gets its process id. An assertion
# of its own expects that it starts.
sub with_server {
    my ($port, $argv, $block) = @_;
    my $server = start($argv);
    my $deadline = Time::HiRes::time() + 20;
    my $up;
    while (!$up && Time::HiRes::time() < $deadline) {
        $up = IO::Socket::INET->new(PeerAddr => '127.0.0.1', PeerPort => $port) or Time::HiRes::sleep(0.02);
    }
    $block->($server->{pid}) if $up;
    kill 'TERM', $server->{pid};
    my $said = $up ? '' : readline $server->{err};
    finish($server);
    ok $up, "$argv->[0] listens at port $port" or diag $said;
    return;
}

1;
