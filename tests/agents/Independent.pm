# Tests of a file that do not depend on each other.
package Independent;

use strict;
use warnings;
use Exporter 'import';
use Test::More ();

our @EXPORT = qw(error_of once run_tests test);

my @tests;

# Adds a test with a sentence for its name, which `run_tests` runs as a subtest. A test that dies
# fails, and the others run.
sub test {
    my ($sentence, $code) = @_;
    push @tests, [$sentence, $code];
    return;
}

# A function for what is costly and shared by tests: the first call makes it by the code, and each call
# returns it. If the code dies, the next call tries again.
sub once {
    my ($make) = @_;
    my @made;
    return sub {
        @made = $make->() if !@made;
        return wantarray ? @made : $made[0];
    };
}

# The error that the code dies with; empty if it does not die.
sub error_of {
    my ($code) = @_;
    return eval { $code->(); 1 } ? '' : $@;
}

# Runs the tests that were added and ends the file. AGENT_TESTS in the environment is a pattern for the
# sentences of those to run; AGENT_TESTS_REVERSED=1 runs the last one first.
sub run_tests {
    my $pattern = defined $ENV{AGENT_TESTS} ? $ENV{AGENT_TESTS} : '';
    my @chosen = grep { $_->[0] =~ /$pattern/ } @tests;
    @chosen = reverse @chosen if $ENV{AGENT_TESTS_REVERSED};
    run_one(@$_) for @chosen;
    return Test::More::done_testing();
}

sub run_one {
    my ($sentence, $code) = @_;
    return Test::More::subtest($sentence, sub {
        return if eval { $code->(); 1 };
        Test::More::fail("runs to its end, but died: $@");
    });
}

1;
