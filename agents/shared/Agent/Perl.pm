# Which of perl's own modules are needed. Distributions have packages of their own for
# some of them, so that a small host may lack these although perl is there.
package Agent::Perl;

use strict;
use warnings;

# Without these not even a look at the host is possible.
our @FOR_LOOKING = qw(
    Cwd Errno Exporter Fcntl IO::Select List::Util POSIX Socket Time::HiRes base
);

# What a dump needs besides.
our @FOR_DUMPS = qw(
    Digest::MD5 Digest::SHA FindBin IO::Handle MIME::Base64 Time::Local
);

# Those of some modules that are not there.
sub missing {
    return grep { !eval "require $_; 1" } @_;
}

# What to do about modules that are missing.
sub advice {
    return "perl lacks @_, which belongs to it but may be in packages of its own: install the package "
        . "perl-core (Red Hat's family), or perl (Debian's)";
}

# Ends the program with a message where one of some modules is missing.
sub demand {
    my @missing = missing(@_) or return;
    print STDERR advice(@missing), "\n";
    exit 1;
}

1;
