#!/usr/bin/perl
# The agent for plain Linux web hosts. It reads the host and writes only into the
# directory that it lies in.
#
#   --get-status          reports that it is in place, what it can do and what it lacks
#   --migration-mode ...  makes a dump: dump.xml, and the archives below content/;
#                         dumping-status.xml says how far it is
#   --get-content-list    lists the files of the dump that are still here
#
# docs/linux-agent.md has the options of a dump. Exit status: 0 done (problems of
# single objects are in dump.xml), 1 failed, 2 wrong use.
use strict;
use warnings;

# Before anything else: what finds the directory of the agent may be missing too.
BEGIN {
    my ($directory) = $0 =~ m{\A(.*)/}s;
    unshift @INC, defined $directory ? $directory : '.';
    require Agent::Perl;
    Agent::Perl::demand(@Agent::Perl::FOR_LOOKING, @Agent::Perl::FOR_DUMPS);
}

use FindBin;
use Agent::Options;
use Agent::Private;
use Agent::Status;
use Linux::ContentList;
use Linux::DeploymentStatus;
use Linux::Dump;
use Linux::Tree;

umask 077;
for my $signal (qw(INT TERM HUP)) {
    $SIG{$signal} = sub { die $Agent::Status::ended = "Ended by SIG$signal\n" };
}

my %action = (
    'status' => sub { print Linux::DeploymentStatus::text_of($FindBin::RealBin) },
    'content-list' => sub { print Linux::ContentList::text_of(Agent::Private->new($FindBin::RealBin)) },
    'dump' => sub {
        my ($options) = @_;
        Linux::Dump::run(
            options => $options, tree => Linux::Tree->new, private => Agent::Private->new($FindBin::RealBin),
        );
    },
);

sub fail {
    my ($status, $text) = @_;
    $text =~ s/\n*\z/\n/;
    print STDERR $text;
    exit $status;
}

binmode $_ for *STDIN, *STDOUT;
my $options = eval { Agent::Options::parse(\@ARGV, \*STDIN) } or fail(2, $@);
eval { $action{ $options->{action} }->($options); 1 } or fail(1, $@);
# Output that was not delivered is not done.
close STDOUT or fail(1, "Cannot write the output: $!");
