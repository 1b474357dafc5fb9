# What servers besides those of the web, databases and mailboxes have, and which of it belongs to
# a domain or a client: zones, keys that sign mail, FTP accounts.
package Linux::FurtherServers;

use strict;
use warnings;
use Linux::DkimKeys;
use Linux::FtpAccounts;
use Linux::Zones;

# The object, with all that tree has; what is not read is a problem.
sub new {
    my ($class, $tree, $problems) = @_;
    return bless {
        zones => [Linux::Zones::all($tree, $problems)], keys => [Linux::DkimKeys::all($tree, $problems)],
        accounts => [Linux::FtpAccounts::all($tree, $problems)],
    }, $class;
}

# See Linux::Zones, Linux::DkimKeys and Linux::FtpAccounts.
sub zones { return @{ $_[0]{zones} } }

sub keys_of_mail { return @{ $_[0]{keys} } }

sub ftp_accounts { return @{ $_[0]{accounts} } }

# All files of them.
sub files {
    my ($self) = @_;
    my @of_zones = map { @{ $_->{files} } } $self->zones;
    return (@of_zones, map { $_->{file} } $self->keys_of_mail, $self->ftp_accounts);
}

# Gives each domain ({ names }) the zones that its names are in, and its keys.
sub assign {
    my ($self, @domains) = @_;
    my (%zone, %keys);
    $zone{ $_->{name} } ||= $_ for $self->zones;
    push @{ $keys{ $_->{domain} } }, $_ for $self->keys_of_mail;
    for my $domain (@domains) {
        my %seen;
        my @names = map {lc} @{ $domain->{names} };
        my @zones = grep {defined} map { $zone{$_} } map { with_parents($_) } @names;
        $domain->{zones} = [grep { !$seen{ $_->{name} }++ } @zones];
        $domain->{mail_keys} = [map { @{ $keys{$_} || [] } } grep { !$seen{"$_ key"}++ } @names];
    }
    return;
}

sub with_parents {
    my ($name) = @_;
    my @names = ($name);
    push @names, $name while $name =~ s/\A[^.]+\.(?=.)//;
    return @names;
}

1;
