# What of the inventory a dump is asked for. A name that does not exist becomes a
# problem of the dump; the rest is dumped.
package Linux::Selection;

use strict;
use warnings;
use Agent::Problems qw(problem);
use Linux::Idn;

my %WHERE_NAMES_ARE = (
    domains => 'ask for it by a name that the web server has for it, or that its mailboxes have',
    clients => 'ask for it by the account that owns its sites',
    resellers => 'ask for one that /etc/sondrel/resellers names with accounts that own sites',
);

# inventory => Linux::Inventory, options => what Agent::Options gave, problems.
sub new {
    my ($class, %options) = @_;
    my $self = bless {%options, clients => [], unassigned => {} }, $class;
    my $wanted = $self->{options};
    my @all = $self->{inventory}->clients;
    my %whole = map { $_->{name} => 1 } $wanted->{all} ? @all : $self->clients_asked_for(@all);
    my @domains = $wanted->{all} ? () : $self->domains_asked_for;
    for my $client (@all) {
        my @own = grep { defined $_->{client} && $_->{client} eq $client->{name} } @domains;
        if    ($whole{ $client->{name} }) { push @{ $self->{clients} }, $self->whole($client) }
        elsif (@own)                      { push @{ $self->{clients} }, $self->part($client, @own) }
    }
    my %is_client = map { $_->{name} => 1 } @all;
    my @alone = grep { !defined $_->{client} || !$is_client{ $_->{client} } } @domains;
    my $unassigned = $self->{inventory}->unassigned;
    $self->{unassigned} = $wanted->{all} ? $unassigned : { domains => \@alone };
    $self->name_what_only_settings_have if !$wanted->{server};
    return $self;
}

# [{ client, whole, domains, databases, mailboxes }]: databases and mailboxes that are
# in none of the domains; whole is 1 where everything of the client was asked for. Where not, also
# jobs and units, those of the client that may concern the domains.
sub clients { return @{ $_[0]{clients} } }

# { domains, databases, mailboxes } of no client.
sub unassigned {
    my ($self) = @_;
    return map { $_ => $self->{unassigned}{$_} || [] } qw(domains databases mailboxes);
}

# The names of the domains that are not in it.
sub left_out {
    my ($self) = @_;
    return if $self->{options}{all};
    my @domains = map { @{ $_->{domains} || [] } } $self->clients, $self->{unassigned};
    my %selected = map { $_->{name} => 1 } @domains;
    return grep { !$selected{$_} } map { $_->{name} } $self->{inventory}->domains;
}

# What belongs to the selection and is in no archive but that of the host's settings.
sub name_what_only_settings_have {
    my ($self) = @_;
    my $has_sites = ($self->{options}{only} || '') ne 'mail';
    for my $domain (map { @{ $_->{domains} } } $self->clients, $self->{unassigned}) {
        # The archive of a site has these.
        next if $domain->{site} && $has_sites;
        my @left = ((map {"zone $_->{name}"} @{ $domain->{zones} }),
            map {"key $_->{selector} for signing mail"} @{ $domain->{mail_keys} });
        $self->only_with_settings($domain->{name}, @left);
    }
    for my $client (map { $_->{client} } $self->clients) {
        my @own = grep { defined $_->{uid} && defined $client->{uid} && $_->{uid} == $client->{uid} }
            $self->{inventory}->further->ftp_accounts;
        $self->only_with_settings($client->{name}, map {"FTP account $_->{name}"} @own);
    }
    return;
}

sub only_with_settings {
    my ($self, $object, @left) = @_;
    return if !@left;
    return $self->problem('error', $object,
        'Not in the dump, but only in the archive of the settings: ' . join(', ', @left)
            . '; dump with --server too');
}

sub whole {
    my ($self, $client) = @_;
    return {
        client => $client, whole => 1, domains => $client->{domains},
        map { my $kind = $_; $kind => [grep { !$_->{in} } @{ $client->{$kind} }] } qw(databases mailboxes),
    };
}

sub part {
    my ($self, $client, @domains) = @_;
    my @left = grep { !$_->{in} } @{ $client->{databases} };
    $self->problem('error', $client->{name}, 'Databases that belong to none of its sites are in a dump of '
        . 'the whole client only: ' . join(', ', sort map { $_->{name} } @left)
        . '; dump the client too if the selected domains use them') if @left;
    return { client => $client, whole => 0, domains => \@domains, databases => [], mailboxes => [],
        $self->{inventory}->jobs_for($client, @domains) };
}

sub clients_asked_for {
    my ($self, @all) = @_;
    my %by_name = map { $_->{name} => [$_] } @all;
    my %of_reseller;
    push @{ $of_reseller{ $_->{reseller} } }, $_ for grep { defined $_->{reseller} } @all;
    return ($self->named('clients', \%by_name), $self->named('resellers', \%of_reseller));
}

# Domains may be asked for by any of their names, international ones in both spellings.
sub domains_asked_for {
    my ($self) = @_;
    my %by_name;
    my @domains = $self->{inventory}->domains;
    for my $domain (@domains) {
        $by_name{$_} ||= [$domain] for map { Linux::Idn::forms($_) } @{ $domain->{names} };
    }
    for my $domain (@domains) {
        $by_name{$_} = [$domain] for Linux::Idn::forms($domain->{name});
    }
    my %seen;
    return grep { !$seen{$_}++ } $self->named('domains', \%by_name, \&Linux::Idn::forms);
}

# What the options name, by its names. forms => sub { ($name) } gives the names under which it
# may be known, the likeliest first.
sub named {
    my ($self, $kind, $by_name, $forms) = @_;
    my @found;
    for my $name (@{ $self->{options}{$kind} || [] }) {
        my ($objects) = grep {defined} map { $by_name->{$_} } $forms ? $forms->($name) : $name;
        push @found, @{ $objects || [] };
        next if $objects;
        $self->problem('error', $name, 'Was asked for, but there is no such ' . substr($kind, 0, -1)
            . ': ' . $WHERE_NAMES_ARE{$kind});
    }
    return @found;
}

1;
