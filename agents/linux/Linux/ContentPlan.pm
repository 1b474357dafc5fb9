# Which archives a dump has for what was selected, and what is in each. What no archive has and a site
# may need is a problem.
package Linux::ContentPlan;

use strict;
use warnings;
use Agent::Private;
use Agent::Problems qw(problem);
use Linux::Site qw(below is_of_system);

# What a new host may want to look up: servers' settings and the accounts.
my @SETTINGS = qw(/etc/nginx /etc/apache2 /etc/httpd /etc/php /etc/php.ini /etc/php.d /etc/php-fpm.conf
    /etc/php-fpm.d /etc/opt/remi /etc/opt/rh /etc/sysconfig/httpd /usr/local/nginx/conf /opt/nginx/conf
    /usr/local/openresty/nginx/conf /usr/local/apache2/conf /usr/local/etc/php /usr/local/etc/php-fpm.conf
    /usr/local/etc/php-fpm.d /etc/mysql /etc/my.cnf /etc/my.cnf.d /etc/postgresql /etc/postfix
    /etc/dovecot /etc/exim4 /etc/exim /etc/aliases /etc/mailname /etc/crontab /etc/anacrontab /etc/cron.d
    /etc/cron.hourly /etc/cron.daily /etc/cron.weekly /etc/cron.monthly /etc/logrotate.d
    /etc/hosts /etc/hostname /etc/passwd /etc/group /etc/os-release /etc/sondrel
    /etc/letsencrypt /etc/dehydrated /root/.acme.sh
    /etc/courier /etc/cyrus.conf /etc/imapd.conf /etc/mail /etc/sasldb2 /etc/bind /etc/named.conf /etc/named
    /etc/powerdns /etc/pdns /etc/nsd /etc/knot /etc/opendkim /etc/opendkim.conf /etc/dkimkeys /etc/rspamd
    /var/lib/rspamd/dkim /etc/amavis /etc/proftpd /etc/proftpd.conf /etc/pure-ftpd /etc/vsftpd.conf
    /etc/vsftpd);

# tree, problems, inventory, options; top => the directory of the content, from that of the agent;
# packed => {}, which gets { real path => domain } of what is in the archives of sites.
sub new {
    my ($class, %options) = @_;
    return bless { %options, used => {} }, $class;
}

# The archives for a Linux::Selection, in the order to make them: { kind, name, label, object, paths or
# database, ... }. `server` is the object that stands for the host itself.
sub all {
    my ($self, $selection, $server) = @_;
    my @plan;
    push @plan, $self->settings_of($server) if $self->{options}{server};
    for my $part ($selection->clients) {
        push @plan, $self->client($part->{client}) if $part->{whole};
        push @plan, $self->objects(%$part);
    }
    push @plan, $self->objects($selection->unassigned);
    my $only = $self->{options}{only};
    return @plan if !defined $only;
    return grep { $_->{kind} eq 'settings' || ($_->{kind} eq 'mailbox') == ($only eq 'mail') } @plan;
}

sub objects {
    my ($self, %part) = @_;
    my @plan;
    for my $domain (@{ $part{domains} }) {
        push @plan, $self->site($domain, \%part) if $domain->{site} && ($self->{options}{only}
            || '') ne 'mail';
        push @plan, $self->objects(databases => $domain->{databases}, mailboxes => $domain->{mailboxes});
    }
    push @plan, map { $self->database($_) } @{ $part{databases} || [] };
    push @plan, map { $self->mailbox($_) } @{ $part{mailboxes} || [] };
    return @plan;
}

# A name below the content directory that no other archive of this dump has.
sub name_for {
    my ($self, $directory, $text, $ending) = @_;
    my $base = "$self->{top}/$directory/" . Agent::Private::safe_name($text);
    my $name = $base;
    my $number = 2;
    # Nothing else makes this sign before a digit and a dash.
    $name = $base . '=-' . $number++ while $self->{used}{"$name$ending"}++;
    return $name . $ending . ($self->{options}{compress} ? '.gz' : '');
}

sub item {
    my ($self, $kind, $label, $object, $name, %more) = @_;
    return { kind => $kind, label => $label, object => $object, name => $name, %more };
}

sub settings_of {
    my ($self, $server) = @_;
    my $name = $self->name_for('server', 'settings', '.tar');
    my @paths = grep { $self->{tree}->exists($_) } @SETTINGS, $self->files_of_servers,
        $self->{inventory}->files_of_others;
    return $self->item('settings', 'server', $server, $name, paths => \@paths);
}

# Files of web servers in other places than the usual ones, and of PHP where these have versions.
sub files_of_servers {
    my ($self) = @_;
    my @files = map { @{ $_->{files} } } $self->{inventory}->configurations;
    @files = grep { my $file = $_; !grep { below($file, $_) } @SETTINGS } @files;
    return (@files, $self->{tree}->glob('/opt/remi/php*/root/etc'));
}

sub client {
    my ($self, $client) = @_;
    my $cron = $client->{cron} || { files => [] };
    my @pools = map { $_->{php} ? $_->{php}{pool_file} : undef } @{ $client->{sites} };
    my @units = map { ($_->{file}, @{ $_->{needs} }) } @{ $client->{units} || [] };
    my @paths = grep {defined} $cron->{crontab}, @{ $cron->{files} }, @pools,
        grep { $self->{tree}->exists($_) } @units;
    my $home = $self->home_of($client);
    push @paths, $home if defined $home;
    return if !@paths;
    my $name = $self->name_for('clients', $client->{name}, '.tar');
    return $self->item('client', $client->{name}, $client, $name,
        paths => \@paths, left_out => ['sites', 'mailboxes']);
}

# The home of a person's account, which may hold what its sites need besides their
# document roots.
sub home_of {
    my ($self, $client) = @_;
    return if $client->{system} || !defined $client->{home};
    my $real = $self->{tree}->real($client->{home});
    return if !defined $real || is_of_system($real) || !$self->{tree}->is_dir($real);
    my $owner = ($self->{tree}->stat($real))[4];
    return $client->{home} if $owner == $client->{uid};
    $self->problem('error', $client->{name}, "The home $client->{home} belongs to "
        . $self->{inventory}->users->name_of($owner)
        . ', so that only the sites in it are packed: copy by hand what else is needed');
    return;
}

sub site {
    my ($self, $domain, $part) = @_;
    my $site = $domain->{site};
    $self->{inventory}->parts->describe($site);
    my (@paths, @with);
    for my $path (@{ $site->{packed} }) {
        my $real = $self->{tree}->real($path);
        $real = $path if !defined $real;
        if (is_of_system($real)) {
            $self->problem('error', $domain->{name}, "$path is a directory of the system and is not packed");
            next;
        }
        my $other = $self->{packed}{$real} ||= $domain;
        if ($other == $domain) { push @paths, $path, @{ $site->{ways}{$path} || [] } }
        else                   { push @with, $other }
    }
    push @paths, @{ $site->{config} }, @{ $site->{files} || [] }, values %{ $site->{tls} || {} };
    push @paths, map { @{ $_->{paths} } } @{ $site->{lineages} || [] };
    push @paths, map { @{ $_->{files} } } @{ $domain->{zones} };
    push @paths, map { $_->{file} } @{ $domain->{mail_keys} };
    push @paths, $site->{php}{pool_file} if $site->{php};
    push @paths, $self->files_of_jobs($part);
    my $home = $part && $part->{whole} ? $self->home_of($part->{client}) : undef;
    $self->name_beside($domain, $home);
    my %seen;
    return $self->item('site', $domain->{name}, $domain, $self->name_for('sites', $domain->{name}, '.tar'),
        paths => [grep { defined && m{\A/} } @paths], with => [grep { !$seen{$_}++ } @with], home => $home,
        site => $site, left_out => ['mailboxes']);
}

# Files with jobs and units of an account of which only some domains are packed, once for all of them.
sub files_of_jobs {
    my ($self, $part) = @_;
    return if !$part || $part->{whole} || $part->{has_jobs}++;
    my @files = ((map { $_->{file} } @{ $part->{jobs} || [] }),
        map { ($_->{file}, @{ $_->{needs} }) } @{ $part->{units} || [] });
    my %seen;
    return grep { !$seen{$_}++ && $self->{tree}->exists($_) } @files;
}

# Names what an application may need and no archive has.
sub name_beside {
    my ($self, $domain, $home) = @_;
    my $real = defined $home ? $self->{tree}->real($home) : undef;
    for my $beside (@{ $domain->{site}{beside} || [] }) {
        next if defined $real && below($beside->{directory}, $real);
        $self->problem('error', $domain->{name}, "$beside->{directory} is not packed, though $beside->{text}:"
            . ' copy what the site needs by hand, or dump the whole client if it is in the client\'s home');
    }
    return;
}

sub database {
    my ($self, $database) = @_;
    my ($kind, $server, $name) = @$database{qw(kind server name)};
    my %servers = map { $_->{server} => 1 } grep { $_->{kind} eq $kind } $self->{inventory}->databases;
    my $directory = 'databases' . (keys %servers > 1 ? '/' . Agent::Private::safe_name($server) : '');
    return $self->item('database', "$kind $name", $database,
        $self->name_for($directory, "$kind-$name", '.sql'),
        database => $database);
}

sub mailbox {
    my ($self, $mailbox) = @_;
    return $self->item('mailbox', $mailbox->{address}, $mailbox,
        $self->name_for('mailboxes', $mailbox->{address}, '.tar'),
        paths => [$mailbox->{path}, @{ $mailbox->{besides} }], left_out => ['sites']);
}

1;
