# Database servers that run on the host and were not asked: a second instance, one whose socket is in a place
# that no settings name, one that listens at a port only. No dump may pass for whole without them.
package Linux::DatabaseProcesses;

use strict;
use warnings;
use Linux::Listeners;
use Linux::Users;
use Linux::WebServers;

# Of each kind of servers: the names of its programs, what it is called, what dumps it.
my @KINDS = (
    [qr/\A(?:mysqld|mariadbd)(?:-\w+)?\z/, 'MySQL or MariaDB', 'mysqldump'],
    [qr/\A(?:postgres|postmaster)\z/, 'PostgreSQL', 'pg_dumpall'],
);

# Adds an error for each running server but those that were asked: servers => what Linux::Databases::servers
# gives. Only root sees at what other accounts' processes listen; nothing is said without that.
sub note_others {
    my ($tree, $problems, @servers) = @_;
    return if $tree->root ne '/' || $>;
    my $listeners = Linux::Listeners->new($tree);
    my %asked = map { $_->{pid} => 1 } map { $listeners->at({ socket => $_->{address} }) }
        grep { $_->{running} && defined $_->{address} } @servers;
    my $users = Linux::Users->new($tree);
    my @processes = Linux::WebServers::processes();
    for my $kind (@KINDS) {
        my ($programs, $product, $dump) = @$kind;
        my @servers_of_kind = grep { $_->{name} =~ $programs } @processes;
        my %is_one = map { $_->{pid} => 1 } @servers_of_kind;
        for my $process (grep { !$is_one{ $_->{parent} } && !$asked{ $_->{pid} } } @servers_of_kind) {
            my @places = $listeners->places_of($process->{pid});
            next if !@places;
            my $account = $users->name_of($process->{uid});
            $problems->add(severity => 'error', object => $product, text => "A further server, of the account"
                . " $account, listens at " . join(', ', @places) . ' and was not asked: its databases are not'
                . " in the dump. Dump those that are needed by hand, with $dump");
        }
    }
    return;
}

1;
