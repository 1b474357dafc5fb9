# What a site consists of besides its document roots: the application that these are a part of, the
# application servers behind it, and the packages that have brought it.
package Linux::SiteParts;

use strict;
use warnings;
use Agent::Process qw(breathe);
use Linux::AppRoots;
use Linux::AppServers;
use Linux::PackageContent;
use Linux::Packages;
use Linux::Site qw(add_once below is_of_system is_packaged);

# The configuration files of web servers: their packages are no applications.
my @OF_SERVERS = qw(/etc/nginx/nginx.conf /etc/apache2/apache2.conf /etc/httpd/conf/httpd.conf);

# Libraries that the packages of applications need, and bring by themselves.
my $LIBRARY = qr{\A/usr/share/(?:javascript|fonts|php|icons|doc|pear)/};

# What is there on any system, though no package has it.
my $BY_SYSTEM = qr{\A/(?:dev|proc|run|sys|var/run|etc/(?:alternatives|ssl/certs))(?:/|\z)};

# How many entries of a document root are looked at for its package.
my $MOST_ENTRIES = 200;

# Settings of databases that scripts of packages have made.
my $DATABASE_SETTINGS = qr{\A/etc/dbconfig-common/[^/]+\.conf\z};

# tree, problems, users => Linux::Users, sites => [all sites]. Adds to each site: applications =>
# [{ kind, directory, because }], services (see Linux::AppServers), packages => [{ see Linux::Packages;
# because }], beside (see Linux::AppRoots) and settings_files => [files with settings of databases].
# Sets the owner of a site that has no document root to tell it.
sub new {
    my ($class, %options) = @_;
    my $self = bless {%options}, $class;
    $self->{packages} = Linux::Packages->new($self->{tree});
    $self->{roots} = Linux::AppRoots->new(map { $_ => $self->{$_} } qw(tree problems users sites));
    $self->{servers} = Linux::AppServers->new(map { $_
        => $self->{$_} } qw(tree problems users roots packages));
    $self->find_packages;
    for my $site (@{ $self->{sites} }) {
        breathe();
        $self->complete($site);
    }
    return $self;
}

# Finds the packages of all sites by one look through the records: by what is in their roots, and by
# what links there lead to.
sub find_packages {
    my ($self) = @_;
    my %of_site;
    for my $site (@{ $self->{sites} }) {
        @$site{qw(packages settings_files beside)} = ([], [], []);
        breathe();
        for my $root (@{ $site->{roots} }, @{ $site->{common} || [] }, $self->served_directories($site)) {
            my $entries = $self->entries_of($root) or next;
            push @{ $of_site{ $site->{name} } }, { root => $root, entries => $entries };
        }
    }
    my $owners = $self->{packages}->owning(@OF_SERVERS, map { @{ $_->{entries} } } map {@$_} values %of_site);
    my %of_servers = map { ($self->{packages}->facts($_) || {})->{source} || $_ => 1 }
        map { @{ $owners->{$_} || [] } } @OF_SERVERS;
    for my $site (@{ $self->{sites} }) {
        $self->add_packages($site, $_, $owners, \%of_servers) for @{ $of_site{ $site->{name} } || [] };
    }
    return;
}

# Directories of packages that the site shows under a part of its addresses, as by an alias, if they
# are more than icons and scripts.
sub served_directories {
    my ($self, $site) = @_;
    my $tree = $self->{tree};
    return grep {
        my $directory = $_;
        grep {/\Aindex\.\w+\z/} $tree->list($directory);
    } @{ $site->{packaged} || [] };
}

# The paths that tell whose a root is; undef for the roots of persons.
sub entries_of {
    my ($self, $root) = @_;
    my $tree = $self->{tree};
    my $real = $tree->real($root);
    return undef if !defined $real || is_of_system($real);
    my $account = $self->{users}->by_uid(($tree->stat($real))[4]);
    return undef if !$account || !$self->{users}->is_system($account);
    my @names = $tree->list($real);
    @names = @names[0 .. $MOST_ENTRIES - 1] if @names > $MOST_ENTRIES;
    my @paths = map {"$real/$_"} @names;
    my @targets = grep { defined && $_ !~ $LIBRARY } map { $tree->real($_) }
        grep { $tree->is_link($_) } @paths;
    return [@paths, @targets];
}

sub add_packages {
    my ($self, $site, $found, $owners, $of_servers) = @_;
    my $real = $self->{tree}->real($found->{root});
    for my $path (@{ $found->{entries} }) {
        for my $id (@{ $owners->{$path} || [] }) {
            my $facts = $self->{packages}->facts($id) or next;
            next if $of_servers->{ $facts->{source} };
            $site->{of_packages}{$real} = 1 if below($path, $real);
            next if grep { $_->{id} eq $id } @{ $site->{packages} };
            $self->add_package($site, $facts, below($path, $real)
                ? "it has files in $found->{root}" : "a link in $found->{root} leads to $path");
        }
    }
    return;
}

sub add_package {
    my ($self, $site, $facts, $because) = @_;
    push @{ $site->{packages} }, { %$facts, because => $because };
    my @settings = $self->{packages}->made_in_etc($self->{packages}->family($facts->{id}));
    add_once($site->{settings_files}, grep { $_ =~ $DATABASE_SETTINGS
        && $self->{tree}->is_file($_) } @settings);
    return;
}

sub complete {
    my ($self, $site) = @_;
    $site->{services} = [$self->{servers}->of_site($site)];
    my @applications = $self->of_programs($site);
    for my $service (@{ $site->{services} }) {
        if (defined $service->{directory}) {
            push @applications, { kind => $service->{kind}, directory => $service->{directory},
                because => "the application server at $service->{address} runs in it" };
        }
        elsif (defined $service->{package} && (my $facts = $self->{packages}->facts($service->{package}))) {
            $self->add_package($site, $facts, "it brings the application server at $service->{address}");
        }
    }
    $self->set_owner($site, @applications);
    my @own = grep { !is_packaged($_) && !$site->{of_packages}{ $self->{tree}->real($_) || '' } }
        @{ $site->{roots} };
    push @applications, $self->{roots}->of_site({ %$site, roots => \@own, beside => $site->{beside} });
    my %seen;
    $site->{applications} = [grep { !$seen{ $_->{directory} }++ } @applications];
    return;
}

# The applications whose programs the web server runs by itself, as by WSGIScriptAlias.
sub of_programs {
    my ($self, $site) = @_;
    my @found;
    for my $path (@{ $site->{programs} || [] }) {
        my ($directory, $kind) = $self->{servers}->application_at($path);
        push @found, { kind => $kind, directory => $directory, because => "the web server runs $path" }
            if defined $directory;
        $self->{problems}->add(severity => 'error', object => $site->{name}, 
            text => "The web server runs $path,"
                . ' which leads to no application that could be packed: copy it by hand')
            if !defined $directory && !is_packaged($path);
    }
    return @found;
}

# A site that only hands on belongs to the account of what is behind it, if root has arranged that.
sub set_owner {
    my ($self, $site, @applications) = @_;
    return if ($site->{owner_because} || '') ne 'nothing else is known';
    for my $application (@applications) {
        my ($service) = grep { ($_->{directory} || '') eq $application->{directory} } @{ $site->{services} };
        next if $service && !$service->{trusted};
        my @stat = $self->{tree}->stat($application->{directory});
        my @accounts = (@stat ? $self->{users}->by_uid($stat[4]) : undef,
            $service && defined $service->{account} ? $self->{users}->by_name($service->{account}) : undef);
        my ($account) = grep { $_ && !$self->{users}->is_system($_) } @accounts;
        next if !$account;
        @$site{qw(owner owner_because group)} = ($account->{name}, "application in $application->{directory}",
            $account->{group});
        return;
    }
    return;
}

# What to pack of a site, worked out once: sets site->{packed}, paths without those of its
# configuration, site->{ways}, { directory of an application => [document roots in it] }, and to each
# of its packages `changed` and `directories`.
sub describe {
    my ($self, $site) = @_;
    return if $site->{packed};
    $site->{ways} = {};
    my $tree = $self->{tree};
    my @directories = map { $_->{directory} } @{ $site->{applications} };
    my @paths;
    for my $root (@{ $site->{roots} }) {
        my $real = $tree->real($root);
        next if defined $real && $site->{of_packages}{$real};
        my ($above) = defined $real ? grep { below($real, $_) } @directories : ();
        push @paths, defined $above ? () : $root;
        # The links on the way to a root are packed with its application.
        push @{ $site->{ways}{$above} }, $root if defined $above;
    }
    # These are of all sites of the server, and packed with the first.
    push @paths, grep { !$site->{of_packages}{ $tree->real($_) || '' } } @{ $site->{common} || [] };
    add_once(\@paths, @directories, map { $_->{runtime} } @{ $site->{services} });
    for my $package (@{ $site->{packages} }) {
        my $content = $self->{content}{ $package->{id} }
            ||= Linux::PackageContent::of_package($tree, $self->{packages}, $package->{id});
        @$package{qw(changed directories)} = @$content{qw(changed directories)};
        add_once(\@paths, @{ $content->{paths} });
    }
    add_once(\@paths, map { @{ $_->{files} } } @{ $site->{services} });
    $site->{packed} = \@paths;
    return;
}

# Those of some paths that installing the system and its packages brings: { path => 1 }.
sub brought_by_packages {
    my ($self, @paths) = @_;
    my @unknown = grep { !exists $self->{brought}{$_} } @paths;
    my $owners = $self->{packages}->owning(grep { $_ !~ $BY_SYSTEM } @unknown);
    $self->{brought}{$_} = $_ =~ $BY_SYSTEM || $owners->{$_} ? 1 : 0 for @unknown;
    return { map { $self->{brought}{$_} ? ($_ => 1) : () } @paths };
}

# Whether a path may be of an application, and not of the system.
sub is_place {
    my ($self, $path) = @_;
    return $self->{servers}->is_place($path);
}

# The directories that are the site's, without links on the way.
sub directories_of {
    my ($self, $site) = @_;
    return (map { $_->{directory} } @{ $site->{applications} }),
        grep {defined} map { $self->{tree}->real($_) } @{ $site->{roots} };
}

1;
