# All sites of the host: those of the web servers, one record for each site even
# if one server hands it on to another, with owner, PHP and shared folders.
package Linux::Sites;

use strict;
use warnings;
use Agent::Process qw(breathe);
use Linux::Apache;
use Linux::FolderRules;
use Linux::Nginx;
use Linux::Php;
use Linux::Site qw(add_once below);
use Linux::Users;

# What only the steps here need.
my @INNER = qw(php_addresses php_settings php_module php_user php_wrapper content file line);

# The sites, sorted by name:
# { name, names => [...], server, servers => [...], root, roots => [...], owner,
#   owner_because, group, listen => [{ address, port, tls }], tls => { certificate,
#   key, chain } or undef, php => { see Linux::Php } or undef, redirects => [{ from,
#   to, code }], access => [{ path, rule }], logs, config, files, proxies,
#   shares_root_with => [names] }
# `root` is the document root as it is configured; `roots` are all folders that
# there are, `files` those that the site needs besides, as password files.
sub all {
    my ($tree, $problems) = @_;
    my $users = Linux::Users->new($tree);
    my $php   = Linux::Php->new($tree, $problems);
    my @sites = merge(Linux::Nginx::sites($tree, $problems), Linux::Apache::sites($tree, $problems));
    my $homes = homes($users);
    for my $site (@sites) {
        breathe();
        $site->{servers} ||= [$site->{server}];
        $site->{php} = $php->of_site($site);
        set_owner($tree, $users, $homes, $site);
        check_files($tree, $problems, $site);
        Linux::FolderRules::note($tree, $problems, $site) if grep { $_ eq 'apache' } @{ $site->{servers} };
        delete @$site{@INNER};
    }
    mark_shared($tree, @sites);
    return sort { $a->{name} cmp $b->{name} } @sites;
}

# One record for what several servers serve under the same name.
sub merge {
    my @sites = @_;
    my (@merged, %by_name, %taken);
    for my $site (@sites) {
        my ($same) = grep { $_->{server} ne $site->{server} } map { @{ $by_name{$_} || [] } } keys_of($site);
        if ($same) {
            Linux::Site::absorb($same, $site);
            add_once($same->{servers} ||= [$same->{server}], $site->{server});
            next;
        }
        my ($name, $number) = ($site->{name}, 2);
        $site->{name} = $name = "$site->{name}-$site->{server}" if $taken{$name};
        $site->{name} = "$name-" . $number++ while $taken{ $site->{name} };
        $taken{ $site->{name} } = 1;
        push @merged, $site;
        push @{ $by_name{$_} }, $site for keys_of($site);
    }
    return @merged;
}

# Sites without a name of their own are the same only if they serve the same.
sub keys_of {
    my ($site) = @_;
    return @{ $site->{names} } if $site->{name} !~ /\Adefault(?:-\d+)?\z/;
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
