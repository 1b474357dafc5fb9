# What the agent finds of the database servers that run, and its dumps of them.
package FoundDatabases;

use strict;
use warnings;
use Agent::Problems;
use Exporter 'import';
use Linux::Tree;
use PrivateServer qw(dumped);

our @EXPORT_OK = qw(dumps_of found_servers with_databases);

# What a module of the agent finds, Linux::MySql or Linux::PostgreSql: ($problems, @servers). The options are
# those of its found(); the tree is that of this system if none is given.
sub found_servers {
    my ($module, %options) = @_;
    my $problems = Agent::Problems->new;
    my @servers = $module->found(tree => Linux::Tree->new, problems => $problems, limit => 20, %options);
    return ($problems, @servers);
}

# The first server of what found_servers() gives, with its databases: ($server, { name => database },
# $problems).
sub with_databases {
    my ($problems, $server) = @_;
    return ($server, { map { $_->{name} => $_ } $server->databases }, $problems);
}

# Dumps of all databases of what with_databases() gives, or of those that are named: { sql => { name =>
# dump }, problems => those of finding and dumping them }. Expects of each that it succeeds.
sub dumps_of {
    my ($server, $databases, $problems, @names) = @_;
    @names = sort keys %$databases if !@names;
    return { sql => { map { $_ => dumped($server, $databases->{$_}) } @names }, problems => $problems };
}

1;
