# The document dump.xml: what was selected with its properties, the content that
# there is for it, and all problems.
package Linux::DumpDocument;

use strict;
use warnings;
use Agent::Xml qw(element text document);
use Linux::DumpElements
    qw(contents cron_job each_as time_text unit with_yes_or_no words yes_or_no zones_and_keys);
use Linux::ServerElements qw(admin_info server);
use Linux::Tls;
use Linux::WebElements;

my $VERSION = 2;
# Of a document with increments, which earlier programs must not take for one without.
my $VERSION_WITH_INCREMENTS = '2.1';

# Lists of a site and the element for each of their entries: its text, or the
# attributes it has.
my @OF_SITE = (
    [listen => 'listen', qw(address port tls)],
    [redirects => 'redirect', qw(from to code server names listen)],
    [access => 'access', qw(path rule)],
    [roots => 'root'], [config => 'config'], [files => 'needs'], [logs => 'log'], [proxies => 'proxy'],
    [shares_root_with => 'shares-root-with'], [applications => 'application', qw(kind directory because)],
);

# tree, options, selection, inventory, problems, server => { facts, content }.
sub text_of {
    my (%given) = @_;
    my $self = bless { %given, certificates => {} }, __PACKAGE__;
    my ($options, $selection) = @given{qw(options selection)};
    my %unassigned = $selection->unassigned;
    my @unassigned = $self->objects(%unassigned);
    my @children = (
        ($options->{server} ? server(%given, has_mail => $self->has_mail) : ()),
        ($options->{admin_info} ? admin_info($given{tree}, $given{inventory}->users) : ()),
        $self->accounts,
        $self->web_configurations,
        $self->clients($selection->clients),
        (@unassigned ? element('unassigned', [], @unassigned) : ()),
    );
    # What only the description finds out is a problem too.
    push @children, element('problems', [], $given{problems}->elements);
    return document(element('dump', [
        version => $self->version, agent => 'linux', host => $given{server}{facts}{hostname},
        created => time_text(time), scope => $options->{all} ? 'all' : 'selected', only => $options->{only},
        content => yes_or_no($options->{content}),
    ], @children));
}

sub version {
    my ($self) = @_;
    return $self->{content} && $self->{content}->has_increments ? $VERSION_WITH_INCREMENTS : $VERSION;
}

sub has_hosting { return ($_[0]{options}{only} || '') ne 'mail' }

sub has_mail { return ($_[0]{options}{only} || '') ne 'hosting' }

# A reseller's clients are in its element.
sub clients {
    my ($self, @parts) = @_;
    my (%of, @elements);
    for my $part (@parts) {
        my $reseller = $part->{client}{reseller};
        if (defined $reseller) { push @{ $of{$reseller} }, $self->client($part) }
        else                   { push @elements, $self->client($part) }
    }
    return ((map { element('reseller', [name => $_], @{ $of{$_} }) } sort keys %of), @elements);
}

sub client {
    my ($self, $part) = @_;
    my $client = $part->{client};
    my ($jobs, $units) = !$self->has_hosting ? ([], [])
        : $part->{whole} ? (($client->{cron} || {})->{jobs}, $client->{units}) : @$part{qw(jobs units)};
    return element('client', [
        (map { $_ => $client->{$_} } qw(name uid gid group home shell)),
        system => yes_or_no($client->{system}), whole => yes_or_no($part->{whole}),
    ],
        ($part->{whole} ? contents($client) : ()),
        each_as('group', [qw(name gid)], $self->{inventory}->users->memberships($client->{name})),
        (map { cron_job($_) } @{ $jobs || [] }),
        (map { unit($_) } @{ $units || [] }),
        $self->objects(%$part));
}

# The accounts and groups that files of the dump, clients and mailboxes belong to, and all groups
# of persons: a new host needs them before it unpacks.
sub accounts {
    my ($self) = @_;
    my $users = $self->{inventory}->users;
    my (%uid, %gid);
    my @described = map { [@$_{qw(uid gid)}] } $self->selected_clients, $self->selected_mailboxes;
    for my $pair ($self->{content} ? $self->{content}->owners : (), @described) {
        $uid{ $pair->[0] } = 1 if defined $pair->[0];
        $gid{ $pair->[1] } = 1 if defined $pair->[1];
    }
    my %named;
    my @accounts = map {
        my $account = $users->by_uid($_) || { uid => $_ };
        $gid{ $account->{gid} } = 1 if defined $account->{gid};
        $named{ $account->{name} } = 1 if defined $account->{name};
        element('account', [(map { $_ => $account->{$_} } qw(name uid gid group home shell)),
            system => yes_or_no($users->is_system($account))])
    } sort { $a <=> $b } keys %uid;
    $self->note_passwords(grep { $users->has_password($_) } sort keys %named);
    return element('accounts', [], @accounts, groups($users, \%gid, \%named));
}

# Their hashes would open these accounts on every host that the archives come to.
sub note_passwords {
    my ($self, @names) = @_;
    return if !@names;
    $self->{problems}->add(severity => 'info', object => 'accounts', text => 'Passwords of '
        . join(', ', @names) . ' are in no archive: who logs in with one (by SSH, FTP or for mail) needs a'
        . ' new one on the new host (passwd), or the old hash by hand (usermod -p)');
    return;
}

# The groups with these numbers, those that these accounts have, and those of persons.
sub groups {
    my ($users, $gid, $named) = @_;
    my @groups = grep {
        delete $gid->{ $_->{gid} } || $users->is_of_persons($_) || grep { $named->{$_} } @{ $_->{members} }
    } $users->groups;
    return (
        (map {
            my ($name, $gid, $members) = @$_{qw(name gid members)};
            element('group', [name => $name, gid => $gid], each_as('member', [], @$members))
        } @groups),
        (map { element('group', [gid => $_]) } sort { $a <=> $b } keys %$gid),
    );
}

sub selected_clients { return map { $_->{client} } $_[0]{selection}->clients }

sub selected_mailboxes {
    my ($self) = @_;
    return if !$self->has_mail;
    my %unassigned = $self->{selection}->unassigned;
    return map { my $part = $_; map { @{ $_->{mailboxes} || [] } } $part, @{ $part->{domains} || [] } }
        $self->{selection}->clients, \%unassigned;
}

sub objects {
    my ($self, %part) = @_;
    return (
        (map { $self->domain($_) } @{ $part{domains} || [] }),
        ($self->has_hosting ? map { $self->database($_) } @{ $part{databases} || [] } : ()),
        ($self->has_mail ? map { mailbox($_) } @{ $part{mailboxes} || [] } : ()),
    );
}

sub domain {
    my ($self, $domain) = @_;
    my @hosting = $domain->{site} && $self->has_hosting ? $self->site($domain->{site}) : ();
    return element('domain', [name => $domain->{name}],
        each_as('name', [], @{ $domain->{names} }), @hosting, contents($domain),
        ($self->has_mail ? $self->aliases($domain) : ()),
        zones_and_keys(@$domain{qw(zones mail_keys)}),
        $self->objects(databases => $domain->{databases}, mailboxes => $domain->{mailboxes}));
}

sub site {
    my ($self, $site) = @_;
    my @properties = map {
        my ($list, $name, @attributes) = @$_;
        each_as($name, \@attributes, @{ $site->{$list} || [] });
    } @OF_SITE;
    $self->{inventory}->parts->describe($site);
    return element('site', [
        server => join(' ', @{ $site->{servers} || [$site->{server}] }), root => $site->{root},
        owner => $site->{owner}, group => $site->{group}, because => $site->{owner_because},
    ], php($site->{php}), $self->tls($site), @properties, services($site), packages($site),
        each_as('packed', [], @{ $site->{packed} }), Linux::WebElements::blocks($site), answers($site));
}

# What the web servers have answered while the host was dumped.
sub answers {
    my ($site) = @_;
    return map {
        my $answer = $_;
        my %told = (%$answer, map { $_ => yes_or_no($answer->{$_}) } qw(tls whole));
        element('answer', [map { $_ => $told{$_} }
            qw(name address port tls path status location title size sum whole)])
    } @{ $site->{answers} };
}

sub services {
    my ($site) = @_;
    return map {
        my $service = $_;
        element('service', [map { $_ => $service->{$_} }
            qw(address unit file account directory program version runtime found)],
            each_as('needs', [], @{ $service->{files} }))
    } @{ $site->{services} };
}

sub packages {
    my ($site) = @_;
    return map {
        my $package = $_;
        element('package', [map { $_ => $package->{$_} }
            qw(name version architecture manager because changed)],
            each_as('directory', [], @{ $package->{directories} }))
    } @{ $site->{packages} };
}

# Blocks of sites refer to these, whatever is selected.
sub web_configurations {
    my ($self) = @_;
    return if !$self->has_hosting;
    return map { Linux::WebElements::configuration($_) } $self->{inventory}->configurations;
}

sub php {
    my ($php) = @_;
    return if !$php;
    my ($settings, $env) = map { $_ || {} } @$php{qw(settings env)};
    return element('php', [
        (map { $_ => $php->{$_} } qw(version handler pool listen)),
        user => $php->{pool_user}, file => $php->{pool_file},
        extensions => words(@{ $php->{extensions} || [] }),
    ], (map { element('setting', [name => $_], text($settings->{$_})) } sort keys %$settings),
        (map { element('env', [name => $_], text($env->{$_})) } sort keys %$env));
}

sub tls {
    my ($self, $site) = @_;
    my $tls = $site->{tls} or return;
    my $facts = defined $tls->{certificate} ? $self->certificate($site->{name}, $tls->{certificate}) : {};
    return element('tls', [
        certificate => $tls->{certificate}, key => $tls->{key}, chain => $tls->{chain},
        subject => $facts->{subject}, issuer => $facts->{issuer},
        map { $_ => defined $facts->{$_} ? time_text($facts->{$_}) : undef } qw(from until)
    ], each_as('name', [], @{ $facts->{names} || [] }), map { lineage($_) } @{ $site->{lineages} || [] });
}

# What renews a certificate.
sub lineage {
    my ($lineage) = @_;
    return element('renewal', [program => $lineage->{program}, name => $lineage->{name}],
        each_as('path', [], @{ $lineage->{paths} }),
        each_as('directory', [qw(path mode uid gid)], @{ $lineage->{directories} }));
}

# Many sites may have the same one.
sub certificate {
    my ($self, $site, $path) = @_;
    return $self->{certificates}{$path} if $self->{certificates}{$path};
    my ($facts, $why) = Linux::Tls::facts($self->{tree}, $path);
    $self->{problems}->add(
        severity => 'warning', object => $site, text => "The certificate $path $why",
    ) if !$facts;
    return $self->{certificates}{$path} = $facts || {};
}

sub assigned {
    my ($object, $reason) = @_;
    return (sure => $object->{sure}, because => $reason);
}

# With what making it anew needs besides its dump.
sub database {
    my ($self, $database) = @_;
    my $details = $self->{inventory}->database_servers->details($database);
    return element('database', [
        (map { $_ => $database->{$_} } qw(kind server name bytes)),
        (map { $_ => $details->{$_} } qw(version owner encoding collation ctype provider locale)),
        assigned($database, $database->{because}),
    ],
        each_as('user', [qw(name host kind authentication)], @{ $details->{users} || [] }),
        each_as('membership', [qw(role role-host to host grantable default)],
            map { with_yes_or_no($_, qw(grantable default)) } @{ $details->{memberships} || [] }),
        (map { grant($_) } @{ $details->{grants} || [] }),
        each_as('definer', [qw(name host kind object in-dump)],
            map { with_yes_or_no({ %$_, 'in-dump' => $_->{known} }, 'in-dump') }
                @{ $details->{definers} || [] }),
        each_as('extension', [qw(name version schema)], @{ $details->{extensions} || [] }),
        (map { element('setting', [name => $_->[0]], text($_->[1])) } @{ $details->{settings} || [] }),
        contents($database));
}

sub grant {
    my ($grant) = @_;
    return element('grant', [map { $_ => with_yes_or_no($grant, 'grantable')->{$_} }
        qw(to host on object column grantable)], each_as('right', [], @{ $grant->{rights} }));
}

sub mailbox {
    my ($mailbox) = @_;
    return element('mailbox', [
        (map { $_ => $mailbox->{$_} } qw(address path format owner uid gid home quota)),
        found => $mailbox->{because}, assigned($mailbox, $mailbox->{reason}),
    ], each_as('needs', [], @{ $mailbox->{besides} }), contents($mailbox));
}

# The addresses of a domain that lead elsewhere.
sub aliases {
    my ($self, $domain) = @_;
    if (!$self->{aliases}) {
        for my $map (grep { $_->{kind} eq 'virtual-alias' } @{ $self->{inventory}->mail->{maps} }) {
            for my $entry (grep { $_->{from} =~ /@/ } @{ $map->{entries} }) {
                my ($of) = $entry->{from} =~ /@([^@]*)\z/;
                push @{ $self->{aliases}{ lc $of } }, { %$entry, file => $map->{file} };
            }
        }
        $self->{aliases} ||= {};
    }
    return map {
        element('alias', [from => $_->{from}, file => $_->{file}, line => $_->{line}],
            text(defined $_->{to} ? $_->{to} : ''))
    } map { @{ $self->{aliases}{$_} || [] } } map {lc} @{ $domain->{names} };
}

1;
