# The document with which the agent says that it is in place: the name of its
# status file, what it can do here and what stands in its way.
package Linux::DeploymentStatus;

use strict;
use warnings;
use Agent::Private;
use Agent::Problems;
use Agent::Process qw(run which);
use Agent::Status;
use Agent::Xml qw(element text document);

our $VERSION = 1;

# Programs that a dump cannot do without, and those that one kind of content needs.
my @NEEDED = qw(tar gzip find stat);
my %FOR = (
    mysql      => [['mysqldump', 'mariadb-dump'], '/var/lib/mysql'],
    postgresql => [['pg_dump'], '/var/lib/postgresql', '/var/lib/pgsql'],
);

sub text_of {
    my ($dir) = @_;
    my $problems = Agent::Problems->new;
    my $private = eval { Agent::Private->new($dir) };
    problem($problems, 'error', $dir, $@) if !$private;
    eval { $private->replace('written', ''); $private->remove('written'); 1 }
        or problem($problems, 'error', $dir, $@) if $private;
    my @missing = grep { !is_there($_) } @NEEDED;
    problem($problems, 'error', $_, 'Is not installed; there can be no dump without it') for @missing;
    problem($problems, 'warning', 'rights', 'The agent does not run as root: what this account may not read '
        . 'will be missing from dumps') if $>;
    return document(element('agentstatus', [],
        element('statusfile', [], text($Agent::Status::FILE)),
        element('agent', [name => 'linux', version => $VERSION, perl => sprintf '%vd', $^V]),
        element('capabilities', [], capabilities($problems, $private && !@missing)),
        element('problems', [], $problems->elements)));
}

sub problem {
    my ($problems, $severity, $object, $text) = @_;
    chomp $text;
    return $problems->add(severity => $severity, object => $object, text => $text);
}

sub is_there { return defined which($_[0]) ? 1 : 0 }

sub capabilities {
    my ($problems, $can_dump) = @_;
    my $tar = run(['tar', '--help'], limit => 30)->{out};
    my %can = (dump => $can_dump, compress => is_there('gzip'), 'lower-priority' => is_there('ionice'),
        'certificate-facts' => is_there('openssl'), 'transport-rsync' => 0);
    $can{"tar-$_"} = $tar =~ /\s--$_\b/ for qw(acls xattrs sparse);
    for my $kind (keys %FOR) {
        my ($programs, @data) = @{ $FOR{$kind} };
        $can{$kind} = grep { is_there($_) } @$programs;
        problem($problems, 'warning', $kind, "There is data, but no $programs->[0] to dump it")
            if !$can{$kind} && grep { -e } @data;
    }
    return map { element('capability', [name => $_, available => $can{$_} ? 'yes' : 'no']) } sort keys %can;
}

1;
