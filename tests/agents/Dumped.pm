# A dump of a system that a test has laid out, and what is in it.
package Dumped;

use strict;
use warnings;
use Agent::Options;
use Agent::Private;
use Agent::Process qw(run);
use File::Temp qw(tempdir);
use FindBin;
use Linux::Dump;

my $SCHEMA = "$FindBin::Bin/../../docs/formats/dump.xsd";

# Dumps with these arguments of the agent and these lines on its standard input.
sub new {
    my ($class, $tree, $input, @arguments) = @_;
    my $dir = tempdir(CLEANUP => 1);
    open my $lines, '<', \$input or die $!;
    my $options = Agent::Options::parse(['--migration-mode', @arguments], $lines);
    Linux::Dump::run(tree => $tree, private => Agent::Private->new($dir), options => $options);
    # A dump lowers its priority; the test does not.
    setpriority 0, 0, 0;
    return bless { dir => $dir }, $class;
}

# What xmllint prints for an expression; empty if it finds nothing.
sub found {
    my ($self, $xpath) = @_;
    my $result = run(['xmllint', '--xpath', $xpath, "$self->{dir}/dump.xml"]);
    return '' if $result->{status} == 10;
    die $result->{err} if $result->{status};
    chomp $result->{out};
    return $result->{out};
}

# Values of attributes, sorted.
sub values_of {
    my ($self, $xpath) = @_;
    return [sort map {/"(.*)"/} split /\n/, $self->found($xpath)];
}

# Texts of elements, sorted.
sub texts_of {
    my ($self, $xpath) = @_;
    return [sort map {/>(.*)</} split /\n/, $self->found($xpath)];
}

# The errors of the document; empty if it is valid.
sub errors {
    my ($self) = @_;
    my $result = run(['xmllint', '--noout', '--schema', $SCHEMA, "$self->{dir}/dump.xml"]);
    return $result->{status} ? $result->{err} : '';
}

# The files in the archive of a site, sorted.
sub members {
    my ($self, $site) = @_;
    my $result = run(['tar', '-tf', $self->archive($site)]);
    die $result->{err} if $result->{status};
    # What was made a moment before the dump is packed again.
    my %members = map { $_ => 1 } grep { !m{/\z} } split /\n/, $result->{out};
    return [sort keys %members];
}

# Those of them that lie below a directory, without its path.
sub members_below {
    my ($self, $site, $directory) = @_;
    return [map { m{\A\.\Q$directory\E/(.*)} ? $1 : () } @{ $self->members($site) }];
}

sub archive { return "$_[0]{dir}/content/sites/$_[1].tar.gz" }

# The bytes of a member.
sub content {
    my ($self, $site, $member) = @_;
    return run(['tar', '-xOf', $self->archive($site), $member])->{out};
}

# "severity: text" of all problems of an object.
sub problems_of {
    my ($self, $object) = @_;
    my $xpath = qq(//problem[\@object="$object"]);
    return [map { $self->found("string(($xpath)[$_]/\@severity)") . ': ' . $self->found("string(($xpath)[$_])") }
        1 .. $self->found("count($xpath)")];
}

sub document { return run(['cat', "$_[0]{dir}/dump.xml"])->{out} }

1;
