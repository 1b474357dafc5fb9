# To whom mailboxes belong.
package Linux::MailOwners;

use strict;
use warnings;

# Sets client, site, sure and reason of each mailbox from the sites and the clients.
sub assign {
    my ($mailboxes, $clients, $sites) = @_;
    my %client = map { $_->{name} => 1 } @$clients;
    # Services own mailboxes of others.
    my %person = map { $_->{name} => 1 } grep { !$_->{system} } @$clients;
    my (%site_of, %below);
    for my $site (@$sites) {
        for my $name (map {lc} @{ $site->{names} }) {
            $site_of{$name} ||= $site;
            $below{$1} ||= $site if $name =~ /\A[^.]+\.(.+\..+)\z/;
        }
    }
    for my $mailbox (@$mailboxes) {
        my ($domain, $holder) = @$mailbox{qw(domain owner)};
        my $site = defined $domain ? $site_of{$domain} : undef;
        my $near = defined $domain ? $below{$domain} : undef;
        my ($owner, $sure, $reason) =
              !defined $domain   ? ($mailbox->{user}, 'certain', "it is that account's own")
            : $site              ? ($site->{owner}, 'certain', "the site $site->{name} has its domain")
            : $person{$holder}   ? ($holder, 'likely', 'the directory belongs to that account')
            : $near              ? ($near->{owner}, 'likely', "the site $near->{name} is below its domain")
            :                      ();
        next if !defined $owner || !$client{$owner};
        @$mailbox{qw(client sure reason)} = ($owner, $sure, $reason);
        $mailbox->{site} = $site->{name} if $site;
    }
    return;
}

1;
