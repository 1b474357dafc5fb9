# `use OwnNetwork` in a test runs its file in a network of its own, where no other test's servers are seen.
# Further addresses of that network can be given besides those of the loopback. `perl -c` runs nothing.
package OwnNetwork;

use strict;
use warnings;

my $IS_IN_IT = 'AGENT_TEST_HAS_OWN_NETWORK';

sub import {
    my ($class, @addresses) = @_;
    return if $^C || $ENV{$IS_IN_IT};
    local $ENV{$IS_IN_IT} = 1;
    my @steps = ('ip link set lo up', (map {"ip address add $_/32 dev lo"} @addresses), 'exec "$@"');
    exec 'unshare', '--net', 'sh', '-c', join(' && ', @steps), 'sh', $^X, (map {"-I$_"} @INC), $0
        or die "unshare: $!\n";
}

1;
