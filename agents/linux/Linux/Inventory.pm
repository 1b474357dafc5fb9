# All that there is on the host, and what belongs to whom: sites, databases,
# mailboxes and cron jobs, by the accounts that own sites.
package Linux::Inventory;

use strict;
use warnings;
use Linux::Cron;
use Linux::DatabaseProcesses;
use Linux::Databases;
use Linux::FurtherServers;
use Linux::Lineage;
use Linux::Mail;
use Linux::MailOwners;
use Linux::Resellers;
use Linux::SiteParts;
use Linux::Sites;
use Linux::Units;
use Linux::Users;

# tree => Linux::Tree, problems => Agent::Problems, limit => seconds for a question
# to a database server, restrict_key => see Linux::Databases, tick => sub {} called between the steps.
sub new {
    my ($class, %options) = @_;
    my ($tree, $problems) = @options{qw(tree problems)};
    my $tick = $options{tick} || sub { };
    my $self = bless { tree => $tree, problems => $problems }, $class;
    $self->{users} = Linux::Users->new($tree);
    @$self{qw(sites configurations)} = @{ Linux::Sites::look($tree, $problems) }{qw(sites configurations)};
    $tick->();
    $self->{parts} = Linux::SiteParts->new(map { $_ => $self->{$_} } qw(tree problems users sites));
    $tick->();
    $self->{lineage} = Linux::Lineage->new($tree);
    $_->{lineages} = [$self->{lineage}->of(values %{ $_->{tls} || {} })] for $self->sites;
    $self->{cron} = Linux::Cron::all($tree, $problems);
    $self->{units} = [Linux::Units::all($tree, $problems, $self->{users})];
    $self->{clients} = [$self->owners_of_sites];
    $tick->();
    $self->{mail} = Linux::Mail::all($tree, $problems, $self->{users});
    $self->{mailboxes} = $self->{mail}{mailboxes};
    Linux::MailOwners::assign($self->{mailboxes}, $self->{clients}, $self->{sites});
    $tick->();
    $self->{database_servers} = Linux::Databases->new(map { $_ => $options{$_} }
        grep { defined $options{$_} } qw(tree problems limit restrict_key));
    Linux::DatabaseProcesses::note_others($tree, $problems, $self->servers);
    $self->{databases} = [$self->{database_servers}->all];
    $tick->();
    $self->{database_servers}->assign($self->{clients}, $self->{sites});
    $self->{further} = Linux::FurtherServers->new($tree, $problems);
    $self->share_out;
    $self->{further}->assign($self->domains);
    $self->name_those_left_over;
    $self->name_refused_links;
    return $self;
}

sub users { return $_[0]{users} }

# [{ name, uid, gid, home, shell, system, reseller, sites, databases, mailboxes, cron, units,
# domains }]; system is 1 for accounts such as root.
sub clients { return @{ $_[0]{clients} } }

sub sites { return @{ $_[0]{sites} } }

# What the configurations of web servers say besides their sites, see Linux::Sites.
sub configurations { return @{ $_[0]{configurations} } }

# The object that knows what sites consist of.
sub parts { return $_[0]{parts} }

sub databases { return @{ $_[0]{databases} } }

sub mailboxes { return @{ $_[0]{mailboxes} } }

# The Linux::FurtherServers.
sub further { return $_[0]{further} }

# What Linux::Mail has found: mailboxes, maps and servers.
sub mail { return $_[0]{mail} }

# The files that the mail servers of a new host need: maps, certificates with what renews them,
# files of users.
sub mail_files {
    my ($self) = @_;
    my $mail = $self->{mail};
    my @files = map { @{ $_->{files} } } @{ $mail->{servers} };
    return ((map { ($_->{file}, @{ $_->{needs} || [] }) } @{ $mail->{maps} }), @files,
        map { @{ $_->{paths} } } $self->{lineage}->of(@files));
}

# Every site, and every domain that has mailboxes only: { name, names, site or undef,
# client (name) or undef, databases, mailboxes }.
sub domains { return @{ $_[0]{domains} } }

# The database servers.
sub servers { return $_[0]{database_servers}->servers }

# The object that dumps databases.
sub database_servers { return $_[0]{database_servers} }

# (jobs => [...], units => [...]) of a client that may concern some of its domains: for an account of a
# person all but those that name files of its other domains only, for others those that name files of
# these domains.
sub jobs_for {
    my ($self, $client, @domains) = @_;
    my %wanted = map { $_ => 1 } @domains;
    my @others = grep { !$wanted{$_} } @{ $client->{domains} };
    my ($own, $of_others) = map { names_one_of($self->directories_of(@$_)) } \@domains, \@others;
    my $concerns = sub {
        my $text = join ' ', grep {defined} @_;
        return $text =~ $own || !$client->{system} && $text !~ $of_others;
    };
    return (
        jobs => [grep { $concerns->($_->{command}) } @{ ($client->{cron} || {})->{jobs} || [] }],
        units => [grep { $concerns->(@$_{qw(program directory)}) } @{ $client->{units} || [] }],
    );
}

sub directories_of {
    my ($self, @domains) = @_;
    return map { $_->{site} ? (@{ $_->{site}{roots} }, $self->parts->directories_of($_->{site}))
        : () } @domains;
}

sub names_one_of {
    my $directories = join '|', map {quotemeta} @_;
    return length $directories ? qr{(?:$directories)(?![\w.-])} : qr/(?!)/;
}

# The units that belong to no client: those of the system, and of accounts without sites.
sub units_of_others {
    my ($self) = @_;
    my %client = map { $_->{name} => 1 } $self->clients;
    return grep { !$client{ $_->{user} } } @{ $self->{units} };
}

# The cron tables, and the files of units, of accounts that are no clients; the files that mail
# servers and further servers need.
sub files_of_others {
    my ($self) = @_;
    my %client = map { $_->{name} => 1 } $self->clients;
    my @others = grep { !$client{$_} } sort keys %{ $self->{cron} };
    my @units = map { ($_->{file}, @{ $_->{needs} }) } $self->units_of_others;
    return grep({defined} map { $self->{cron}{$_}{crontab} } @others), @units,
        $self->mail_files, $self->further->files;
}

# { domains, databases, mailboxes } that belong to no client. What is in the domains
# is not named again.
sub unassigned { return $_[0]{unassigned} }

sub owners_of_sites {
    my ($self) = @_;
    my $resellers = Linux::Resellers::map_of(@$self{qw(tree problems)});
    my %client;
    for my $site (grep { defined $_->{owner} } $self->sites) {
        my $name = $site->{owner};
        my $account = $self->{users}->by_name($name);
        my $client = $client{$name} ||= {
            name => $name, ($account ? %$account : $name =~ /\A\d+\z/ ? (uid => $name) : ()),
            system => $account && !$self->{users}->is_system($account) ? 0 : 1,
            reseller => $resellers->{$name}, cron => $self->{cron}{$name},
            units => [grep { $_->{user} eq $name } @{ $self->{units} }],
            sites => [], databases => [], mailboxes => [], domains => [],
        };
        push @{ $client->{sites} }, $site;
    }
    $self->report_unknown_users($resellers);
    return map { $client{$_} } sort keys %client;
}

sub report_unknown_users {
    my ($self, $resellers) = @_;
    for my $user (grep { !$self->{users}->by_name($_) } sort keys %$resellers) {
        $self->{problems}->add(severity => 'warning', object => $Linux::Resellers::FILE,
            text => "$resellers->{$user} has a user $user, which is no account: remove it there");
    }
    return;
}

# Gives every database and mailbox to its domain and to its client. What `in` is of
# one that has no domain is undef.
sub share_out {
    my ($self) = @_;
    my %client = map { $_->{name} => $_ } $self->clients;
    my (%domain, @domains);
    for my $site ($self->sites) {
        push @domains, $domain{ $site->{name} } = new_domain($site->{name}, $site, $site->{owner});
    }
    for my $mailbox (grep { defined $_->{domain} && !defined $_->{site} } $self->mailboxes) {
        my $domain = $domain{ $mailbox->{domain} };
        if (!$domain) {
            push @domains, $domain = $domain{ $mailbox->{domain} }
                = new_domain($mailbox->{domain}, undef, $mailbox->{client});
        }
        $mailbox->{site} = $domain->{name};
        $domain->{client} = $mailbox->{client} if !defined $domain->{client};
    }
    my %unassigned = (domains => [], databases => [], mailboxes => []);
    for my $kind (qw(databases mailboxes)) {
        for my $object ($self->$kind) {
            my $owner = defined $object->{client} ? $client{ $object->{client} } : undef;
            $object->{in} = defined $object->{site} ? $domain{ $object->{site} } : undef;
            push @{ $_->{$kind} }, $object for grep {defined} $owner, $object->{in};
            push @{ $unassigned{$kind} }, $object if !$owner && !$object->{in};
        }
    }
    for my $domain (@domains) {
        my $client = defined $domain->{client} ? $client{ $domain->{client} } : undef;
        push @{ ($client || \%unassigned)->{domains} }, $domain;
    }
    @$self{qw(domains unassigned)} = (\@domains, \%unassigned);
    return;
}

sub new_domain {
    my ($name, $site, $client) = @_;
    return {
        name => $name, names => $site ? $site->{names} : [$name], site => $site, client => $client,
        databases => [], mailboxes => [],
    };
}

sub name_units_left_over {
    my ($self) = @_;
    my %of_person;
    for my $unit ($self->units_of_others) {
        my $account = $self->{users}->by_name($unit->{user});
        next if $account && $self->{users}->is_system($account);
        push @{ $of_person{ $unit->{user} } }, $unit->{name};
    }
    for my $name (sort keys %of_person) {
        $self->{problems}->add(severity => 'warning', object => $name,
            text => 'Has units of systemd but no site: ' . join(', ', @{ $of_person{$name} })
                . " are only in the archive of the host's own settings, and what they run is in no archive;"
                . ' copy it by hand if the new host shall run them');
    }
    return;
}

# Links that were not followed so far.
sub name_refused_links {
    my ($self) = @_;
    for my $link ($self->{tree}->refused) {
        my $owner = $self->{users}->name_of($link->{owner});
        $self->{problems}->add(severity => 'error', object => $link->{path}, text => "Is a symbolic link of"
            . " $owner to $link->{target}, which does not belong to $owner, and is not followed: copy by hand"
            . ' what it leads to if it is needed');
    }
    return;
}

# What no object of the dump has is reported.
sub name_those_left_over {
    my ($self) = @_;
    my %client = map { $_->{name} => 1 } $self->clients;
    for my $name (grep { !$client{$_} } sort keys %{ $self->{cron} }) {
        my $account = $self->{users}->by_name($name);
        my $is_system = $account && $self->{users}->is_system($account);
        # What packages have put into the system's own tables comes with them again.
        next if $is_system && !defined $self->{cron}{$name}{crontab};
        $self->{problems}->add(severity => 'warning', object => $name,
            text => "Has cron jobs but no site: the jobs are only in the archive of the host's own settings;"
                . ' set them up by it if they are needed');
    }
    $self->name_units_left_over;
    for my $site (grep { !defined $_->{owner} } $self->sites) {
        $self->{problems}->add(severity => 'warning', object => $site->{name},
            text => 'Nobody is found to own this site; a dump of everything or of its domain has it');
    }
    return;
}

1;
