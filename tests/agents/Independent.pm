# Tests of a file that do not depend on each other.
package Independent;

use strict;
use warnings;
use Exporter 'import';
use Test::More ();

our @EXPORT = qw(test);

# Runs the code as a subtest with a sentence for its name. What dies in it fails this subtest, and the
# others run.
sub test {
    my ($sentence, $code) = @_;
    return Test::More::subtest($sentence, sub {
        return if eval { $code->(); 1 };
        Test::More::fail("runs to its end, but died: $@");
    });
}

1;
