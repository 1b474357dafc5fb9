# All databases of the host, whatever their servers, and to whom they belong. Who
# only says that a database is his does not get it for certain: the settings of his
# site must open it.
package Linux::Databases;

use strict;
use warnings;
use Agent::Process qw(breathe);
use List::Util qw(first);
use Linux::Applications;
use Linux::MySql;
use Linux::PostgreSql;

my $ELSEWHERE = 'It may be in a container, or the server of another account, or the settings may be old:'
    . ' if the site uses it, dump it where it runs';

my %RANK = (certain => 3, likely => 2, guess => 1);

# tree => Linux::Tree, problems => Agent::Problems, limit => seconds for one question
# to a server, restrict_key => see Linux::PostgreSql.
sub new {
    my ($class, %options) = @_;
    my $self = bless {%options, checked => {}}, $class;
    delete $options{limit} if !defined $options{limit};
    $self->{found} = [map { $_->found(%options) } qw(Linux::MySql Linux::PostgreSql)];
    return $self;
}

# The servers: { kind, label (the `server` of their databases), product, version,
# address, running }. One that is down is also an error among the problems.
sub servers { return map { $_->description } @{ $_[0]{found} } }

# The databases: { kind, server, name, bytes (undef: not known), users => [{ name,
# host, role }] }, after assign() also { client, sure, because, site }. kind, server
# and name together are unique.
sub all {
    my ($self) = @_;
    $self->{databases} ||= [map { $_->databases } @{ $self->{found} }];
    return @{ $self->{databases} };
}

# Hands over the SQL of a database in pieces; undef when it is whole, else why not.
# See the kinds of servers. Options: tick => sub {}.
sub dump {
    my ($self, $database, $sink, %options) = @_;
    return $self->server_of($database)->dump($database, $sink, %options);
}

# What making a database anew needs besides its dump. See the kinds of servers.
sub details {
    my ($self, $database) = @_;
    return $self->server_of($database)->details($database);
}

sub server_of {
    my ($self, $database) = @_;
    return first { $_->{label} eq $database->{server} } @{ $self->{found} };
}

# Finds the client (its name) of each database, how sure that is (certain, likely or
# guess), because of what, and the site, where one is known. Those of nobody become
# warnings.
sub assign {
    my ($self, $clients, $sites) = @_;
    my %claims;
    $self->claim_by_settings(\%claims, $sites);
    $self->claim_by_users(\%claims, $clients);
    $self->claim_by_names(\%claims, $clients, $sites);
    my %sites_of;
    push @{ $sites_of{ $_->{owner} } }, $_->{name} for grep { defined $_->{owner} } @$sites;
    for my $database ($self->all) {
        $self->decide($database, $claims{$database} || []);
        my @sites = defined $database->{client} ? @{ $sites_of{ $database->{client} } || [] } : ();
        $database->{site} = $sites[0] if !defined $database->{site} && @sites == 1;
    }
    return;
}

sub decide {
    my ($self, $database, $claims) = @_;
    my ($best, @others) = sort { $RANK{ $b->{sure} } <=> $RANK{ $a->{sure} } } @$claims;
    if (!$best) {
        $self->{problems}->add(severity => 'warning', object => $self->object_of($database),
            text => 'Belongs to no client: no settings of a site name it, and neither does its own name');
        return;
    }
    @$database{qw(client sure because)} = @$best{qw(client sure because)};
    my $placed = first { defined $_->{site} && name_of($_) eq name_of($best) } $best, @others;
    $database->{site} = $placed->{site} if $placed;
    my $rival = first { $_->{sure} eq $best->{sure} && name_of($_) ne name_of($best) } @others;
    return if !$rival;
    $database->{sure} = 'likely' if $best->{sure} eq 'certain';
    $database->{because} .= '; but also: ' . $rival->{because};
    $self->{problems}->add(severity => 'warning', object => $self->object_of($database), text =>
        'Given to ' . name_of($best) . ", but may be of " . name_of($rival) . ": $database->{because}");
    return;
}

sub name_of { return defined $_[0]{client} ? $_[0]{client} : '' }

sub object_of {
    my ($self, $database) = @_;
    return $self->server_of($database)->{product} . " database $database->{name}";
}

sub claim {
    my ($claims, $database, $sure, $client, $site, $because) = @_;
    push @{ $claims->{$database} },
        { client => $client, site => $site, sure => $sure, because => $because };
    return;
}

# What the settings of applications name.
sub claim_by_settings {
    my ($self, $claims, $sites) = @_;
    my $applications = Linux::Applications->new(tree => $self->{tree}, problems => $self->{problems});
    for my $site (@$sites) {
        breathe();
        for my $setting ($applications->settings($site)) {
            for my $database ($self->named_by($setting)) {
                my ($sure, $why) = $self->proof($setting, $database);
                if (defined $sure) {
                    $self->name_account_of_server($setting, $database);
                    claim($claims, $database, $sure, $site->{owner}, $site->{name},
                        "$setting->{file} ($setting->{application}) of $site->{name} names it, $why");
                }
                else {
                    $self->tell('warning', $setting, "but $why, so that this does not count. If the site uses"
                        . ' the database, take it along by its client or by a dump of everything');
                }
            }
        }
    }
    return;
}

# The new host has no such account.
sub name_account_of_server {
    my ($self, $setting, $database) = @_;
    my $user = $setting->{user};
    return if !defined $user || grep { $_->{name} eq $user } @{ $database->{users} };
    return if !$self->server_of($database)->opens_all($user);
    return $self->tell('error', $setting, "and opens it as $user, which has rights on the whole server and is"
        . ' not in the dump. Give the site an account of its own on the new host, with all rights in this'
        . ' database');
}

sub named_by {
    my ($self, $setting) = @_;
    if (!$self->is_here($setting->{host})) {
        return $self->miss($setting, "which is on another host, $setting->{host}. Move it with that"
            . " host's own tools, or let the new host reach it there");
    }
    my @named = grep { $_->{kind} eq $setting->{kind} && $_->{name} eq $setting->{name} } $self->all;
    if (@named > 1 && defined $setting->{port}) {
        @named = grep { $self->server_of($_)->{port} == $setting->{port} } @named;
    }
    return @named if @named;
    my @servers = grep { $_->{kind} eq $setting->{kind} } $self->servers;
    return $self->miss($setting, "for which no server was found on this host. $ELSEWHERE") if !@servers;
    # One that is down has been named.
    return if !grep { $_->{running} } @servers;
    return $self->miss($setting, "which none of the host's own servers has. $ELSEWHERE");
}

# A site will be without this database.
sub miss {
    my ($self, $setting, $text) = @_;
    return $self->tell('error', $setting, $text);
}

sub tell {
    my ($self, $severity, $setting, $text) = @_;
    $self->{problems}->add(severity => $severity, object => $setting->{site},
        text => "$setting->{file} names the database $setting->{name}, $text");
    return;
}

sub is_here {
    my ($self, $host) = @_;
    return 1 if $host =~ m{\A(?:|localhost|127(?:\.[0-9]+){3}|\[?::1\]?|/.*)\z};
    my ($own) = $self->{tree}->read_lines('/etc/hostname');
    return defined $own && lc $host eq lc $own;
}

# How sure settings make that a database is theirs, and why. What anybody could write
# into his settings counts only where nothing better can be known.
sub proof {
    my ($self, $setting, $database) = @_;
    my ($user, $password) = map { defined $_ ? $_ : '' } @$setting{qw(user password)};
    my $right = $self->password_matches($database, $user, $password);
    my $may = (first { $_->{name} eq $user } @{ $database->{users} })
        || $self->server_of($database)->opens_all($user);
    return undef, "the password there is not that of the user $user" if defined $right && !$right;
    return 'certain', 'and the user and the password there open it' if $may && $right;
    return 'likely', "and the user $user has grants for it" if $may;
    return 'guess', 'while nobody has grants for it' if !@{ $database->{users} };
    return undef, "the user $user has no grants for it";
}

sub password_matches {
    my ($self, $database, $user, $password) = @_;
    my $key = join "\0", $database->{server}, $user, $password;
    if (!exists $self->{checked}{$key}) {
        $self->{checked}{$key} = $self->server_of($database)->password_matches($user, $password);
    }
    return $self->{checked}{$key};
}

# Databases whose user has a client's name, or opens another database of his. The
# first counts for more than what a client wrote himself.
sub claim_by_users {
    my ($self, $claims, $clients) = @_;
    my %client = map { $_->{name} => 1 } @$clients;
    my %client_of;
    for my $database ($self->all) {
        my @own = grep { $_->{sure} eq 'certain' && defined $_->{client} } @{ $claims->{$database} || [] };
        for my $user (@{ $database->{users} }) {
            $client_of{ $database->{server} }{ $user->{name} }{ $_->{client} } = $database->{name} for @own;
        }
    }
    for my $database ($self->all) {
        my %seen;
        for my $user (grep { !$seen{$_}++ } map { $_->{name} } @{ $database->{users} }) {
            unshift @{ $claims->{$database} }, { sure => 'likely', client => $user,
                because => "its user $user is called as the client" } if $client{$user};
            my $others = $client_of{ $database->{server} }{$user} || {};
            my ($other) = keys %$others;
            claim($claims, $database, 'likely', $other, undef,
                "its user $user is one of $others->{$other}, which is the client's")
                if keys %$others == 1 && $others->{$other} ne $database->{name};
        }
    }
    return;
}

# Databases called as a client or a site, or with this before an underscore.
sub claim_by_names {
    my ($self, $claims, $clients, $sites) = @_;
    my @known = map { [$_->{name}, $_->{name}, undef, "the client $_->{name}"] } @$clients;
    for my $site (@$sites) {
        my $label = $site->{name};
        $label =~ s/\Awww\.//;
        (my $first = $label) =~ s/\..*//;
        push @known, map { [$_, $site->{owner}, $site->{name}, "the site $site->{name}"] } $label, $first;
    }
    my %known;
    push @{ $known{ plain($_->[0]) } }, $_ for @known;
    for my $database ($self->all) {
        my @parts = split /_/, plain($database->{name}), -1;
        pop @parts while @parts && !$known{ join '_', @parts };
        for (@parts ? @{ $known{ join '_', @parts } } : ()) {
            my (undef, $client, $site, $what) = @$_;
            claim($claims, $database, 'guess', $client, $site, "its name is like that of $what");
        }
    }
    return;
}

sub plain {
    my ($name) = @_;
    $name = lc $name;
    $name =~ s/[^a-z0-9]+/_/g;
    return $name;
}

1;
