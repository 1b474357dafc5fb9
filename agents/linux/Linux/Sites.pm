# All sites of the host: those of the web servers, one record for each site even
# if one server hands it on to another, with owner, PHP and shared directories.
package Linux::Sites;

use strict;
use warnings;
use Agent::Process qw(breathe);
use Linux::Apache;
use Linux::DirectoryRules;
use Linux::Nginx;
use Linux::Php;
use Linux::Site qw(add_once);
use Linux::Users;
use Linux::WebServers;

# What only the steps here need.
my @INNER = qw(php_addresses php_settings php_admin php_module module_settings module_admin php_rules php_user
    php_wrapper content file line front);

# The name of a site that has none of its own.
my $DEFAULT_NAME = qr/\Adefault(?:-\d+)?\z/;

# The sites, sorted by name:
# { name, names => [...], server, servers => [...], root, roots => [...], owner,
#   owner_because, group, listen => [{ address, port, tls }], tls => { certificate,
#   key, chain } or undef, php => { see Linux::Php } or undef, redirects => [{ from,
#   to, code, server, names, listen }], access => [{ path, rule }], logs, config, files,
#   proxies, shares_root_with => [names],
#   blocks => [{ configuration, directive, uses => [definitions of it], names }] }
# `root` is the document root as it is configured; `roots` are all directories that
# there are, `files` those that the site needs besides, as password files.
sub all { return @{ look(@_)->{sites} } }

# { sites, configurations => [what the configuration of a web server says besides: { name,
# server, file, files => [all that were read], prefix, modules, directives, definitions, uses,
# of_sites }] }
sub look {
    my ($tree, $problems) = @_;
    my $servers = Linux::WebServers->new(tree => $tree, problems => $problems);
    my @found = map { $_->($tree, $problems, servers => $servers) }
        \&Linux::Nginx::look, \&Linux::Apache::look;
    $servers->note_unread;
    my $users = Linux::Users->new($tree);
    my $php   = Linux::Php->new($tree, $problems, $servers);
    my @sites = merge(map { @{ $_->{sites} } } @found);
    my $homes = homes($users);
    for my $site (@sites) {
        breathe();
        $site->{servers} ||= [$site->{server}];
        $site->{php} = $php->of_site($site);
        add_once($site->{config}, @{ $site->{php}{pool_files} || [] }) if $site->{php};
        set_owner($tree, $users, $homes, $site);
        check_files($tree, $problems, $site);
        Linux::DirectoryRules::note($tree, $problems, $site) if grep { $_ eq 'apache' } @{ $site->{servers} };
        delete @$site{@INNER};
    }
    mark_shared($tree, @sites);
    @sites = sort { $a->{name} cmp $b->{name} } @sites;
    return { sites => \@sites, configurations => [map { @{ $_->{configurations} } } @found] };
}

# One record for what several servers serve under the same name. One that hands several
# sites of the server behind it on, by their names, is part of each of these.
sub merge {
    my @sites = @_;
    my $first = @sites ? $sites[0]{server} : '';
    my @front = grep { $_->{server} eq $first } @sites;
    my @behind = grep { $_->{server} ne $first } @sites;
    my (%by_name, @merged, %done);
    for my $site (@behind) { push @{ $by_name{$_} }, $site for keys_of($site) }
    for my $site (@front) {
        my %seen;
        my @others = grep { !$seen{$_}++ } map { @{ $by_name{$_} || [] } } keys_of($site);
        push @merged, grep { !$done{$_}++ } joined($site, @others);
        $done{$_} = 1 for @others;
    }
    return named_once(@merged, grep { !$done{$_} } @behind);
}

# The records of a site and of those behind it that have a name of it.
sub joined {
    my ($site, @others) = @_;
    my ($different) = grep { !Linux::Site::serves_same($_, $others[0]) } @others;
    return with_behind($site, @others) if !$different;
    my (%taken, @joined);
    for my $other (@others) {
        my %of_other = map { $_ => 1 } @{ $other->{names} };
        my @names = grep { $of_other{$_} } @{ $site->{names} };
        $taken{$_} = 1 for @names;
        push @joined, put_before($other, $site, @names);
    }
    my @left = grep { !$taken{$_} } @{ $site->{names} };
    return @joined if !@left || $site->{name} =~ $DEFAULT_NAME;
    Linux::Site::keep_names($site, @left);
    my ($plain) = grep { Linux::Site::is_host_name($_) } @left;
    $site->{name} = defined $plain ? $plain : $left[0] if $taken{ $site->{name} };
    return ($site, @joined);
}

# Makes a site that hands on, as far as it does so for some names, the front of the site
# behind it; gives the record of both.
sub put_before {
    my ($behind, $site, @names) = @_;
    my $front = Linux::Site::copy_of($site);
    Linux::Site::keep_names($front, @names);
    if ($behind->{front}) {
        Linux::Site::absorb($behind->{front}, $front);
        return $behind->{front};
    }
    $front->{$_} = $behind->{$_} for 'name', defined $behind->{root} ? 'root' : ();
    return with_behind($front, $behind);
}

sub with_behind {
    my ($site, @others) = @_;
    return $site if !@others;
    # One that is behind several is what these are: one site with all their names.
    my ($known) = grep { $_->{front} } @others;
    if ($known) {
        Linux::Site::absorb($known->{front}, $site);
        $site = $known->{front};
    }
    for my $other (grep { !$_->{front} } @others) {
        Linux::Site::absorb($site, $other);
        add_once($site->{servers} ||= [$site->{server}], $other->{server});
        $other->{front} = $site;
    }
    return $site;
}

# Sites with names that no other has.
sub named_once {
    my @sites = @_;
    my %taken;
    for my $site (@sites) {
        my ($name, $number) = ($site->{name}, 2);
        $site->{name} = $name = "$site->{name}-$site->{server}" if $taken{$name};
        $site->{name} = "$name-" . $number++ while $taken{ $site->{name} };
        $taken{ $site->{name} } = 1;
    }
    return @sites;
}

# Sites without a name of their own are the same only if they serve the same.
sub keys_of {
    my ($site) = @_;
    return @{ $site->{names} } if $site->{name} !~ $DEFAULT_NAME;
    return "\0" . (defined $site->{root} ? $site->{root} : $site->{name});
}

# { home => account } of the accounts of persons.
sub homes {
    my ($users) = @_;
    return { map { $_->{home} => $_ } grep { !$users->is_system($_) && $_->{home} =~ m{\A/.} } $users->all };
}

# The owner is who the content belongs to. Where that is the system or a service,
# the account that runs the site or whose home it is in says more.
sub set_owner {
    my ($tree, $users, $homes, $site) = @_;
    my @stat = map { [$tree->stat($_)] } grep {defined} $site->{root}, @{ $site->{roots} };
    my ($there) = grep { @$_ } @stat;
    my ($uid, $gid) = $there ? @$there[4, 5] : ();
    my $php = $site->{php} || {};
    my $runs_as = defined $php->{pool_user} ? $php->{pool_user} : $site->{php_user};
    my @choices = (
        [defined $uid ? $users->by_uid($uid) : undef, 'document root'],
        [defined $runs_as ? $users->by_name($runs_as) : undef, 'account that runs PHP'],
        [scalar account_above($homes, $site->{root}), 'home that holds the document root'],
    );
    my ($choice) = grep { $_->[0] && !$users->is_system($_->[0]) } @choices;
    my ($name, $because) = $choice ? ($choice->[0]{name}, $choice->[1])
        : defined $uid ? ($users->name_of($uid), 'document root') : ('root', 'nothing else is known');
    @$site{qw(owner owner_because)} = ($name, $because);
    my $account = $users->by_name($site->{owner});
    $site->{group} = defined $gid ? $users->group_of($gid) : $account ? $account->{group} : undef;
    return;
}

sub account_above {
    my ($homes, $path) = @_;
    while (defined $path && $path =~ s{/[^/]+\z}{} && length $path) {
        return $homes->{$path} if $homes->{$path};
    }
    return;
}

# Names the files of a site that cannot be taken along.
sub check_files {
    my ($tree, $problems, $site) = @_;
    for my $file (@{ $site->{files} }) {
        my $there = $tree->exists($file);
        next if $there && -r $tree->path($file);
        $problems->add(severity => 'error', object => $site->{name},
            text => "The file $file " . ($there ? 'may not be read' : "cannot be found: $!"));
    }
    return;
}

sub mark_shared {
    my ($tree, @sites) = @_;
    my %by_root;
    for my $site (@sites) {
        $site->{shares_root_with} = [];
        my $real = defined $site->{root} ? $tree->real($site->{root}) : undef;
        push @{ $by_root{$real} }, $site if defined $real;
    }
    for my $together (grep { @$_ > 1 } values %by_root) {
        for my $site (@$together) {
            $site->{shares_root_with} = [sort map { $_->{name} } grep { $_ != $site } @$together];
        }
    }
    return;
}

1;
