# The elements of dump.xml about the host itself: its system and its servers, and its administrator.
package Linux::ServerElements;

use strict;
use warnings;
use Agent::Xml qw(element text);
use Exporter 'import';
use Linux::ApacheInstances;
use Linux::DumpElements qw(contents each_as unit words yes_or_no zones_and_keys);
use Linux::NginxInstances;
use Linux::Php;
use Linux::ServerPackages;

our @EXPORT_OK = qw(admin_info server);

# The host: tree, inventory, server => { facts, content }, has_mail => whether its mail servers are
# described.
sub server {
    my (%given) = @_;
    my ($tree, $inventory, $facts) = (@given{qw(tree inventory)}, $given{server}{facts});
    my $distribution = $facts->{distribution} || {};
    my $memory = $facts->{memory} || {};
    my $further = $inventory->further;
    my @web = map { element('web-server', [name => $_->[0], version => $_->[1]]) } grep { defined $_->[1] }
        ['nginx', Linux::NginxInstances::version()], ['apache', Linux::ApacheInstances::version()];
    my @databases = map {
        element('database-server', [kind => $_->{kind}, product => $_->{product}, version => $_->{version},
            address => $_->{address}, running => yes_or_no($_->{running})])
    } $inventory->servers;
    return element('server', [
        (map { $_ => $facts->{$_} } qw(hostname kernel architecture)),
        distribution => $distribution->{id}, release => $distribution->{version},
        family => $distribution->{family}, memory => $memory->{total},
    ],
        @web, (map { php_version($tree, $_) } Linux::Php::versions($tree)), @databases,
        each_as('file-system', [qw(mount type bytes free)], @{ $facts->{filesystems} || [] }),
        (map { unit($_) } $inventory->units_of_others),
        ($given{has_mail} ? mail_servers($inventory->mail) : ()),
        server_packages($tree, $inventory->configurations),
        zones_and_keys([$further->zones], [$further->keys_of_mail]),
        each_as('ftp-account', [qw(server name uid gid home file)], $further->ftp_accounts),
        contents($given{server}));
}

# An installed version of PHP, with the ways to run it that there are.
sub php_version {
    my ($tree, $version) = @_;
    my %extensions = map { $_ => [Linux::Php::extensions($tree, $version, $_)] } @Linux::Php::WAYS;
    return element('php', [version => $version], map {
        element('way', [handler => $_, extensions => words(@{ $extensions{$_} })])
    } grep { @{ $extensions{$_} } } @Linux::Php::WAYS);
}

# What web servers, databases and the like are from.
sub server_packages {
    my ($tree, @configurations) = @_;
    my @modules = grep { defined && m{\A/} } map { $_->{file} }
        map { @{ $_->{modules} || [] } } @configurations;
    return each_as('package', [qw(name version architecture manager use)],
        Linux::ServerPackages::all($tree, @modules));
}

sub mail_servers {
    my ($mail) = @_;
    return (
        (map { element('mail-server', [name => $_->{name}], settings(@{ $_->{settings} }),
            each_as('needs', [], @{ $_->{files} })) } @{ $mail->{servers} }),
        (map { element('mail-map', [kind => $_->{kind}, type => $_->{type}, file => $_->{file}],
            map { map_entry($_) } @{ $_->{entries} }) } @{ $mail->{maps} }),
    );
}

sub settings { return map { element('setting', [name => $_->{name}], text($_->{value})) } @_ }

sub map_entry {
    my ($entry) = @_;
    my @to = defined $entry->{to} && length $entry->{to} ? text($entry->{to}) : ();
    return element('entry', [from => $entry->{from}, line => $entry->{line}], @to);
}

# Whom the host's own mail goes to.
sub admin_info {
    my ($tree, $users) = @_;
    my @aliases = $tree->read_lines('/etc/aliases');
    my ($alias) = map { /\A\s*"?root"?\s*:\s*(.*?)\s*\z/ ? $1 : () } @aliases;
    my $root = $users->by_uid(0);
    return element('admin-info', [account => $root ? $root->{name} : undef, mail => $alias]);
}

1;
