# dump_databases.pl DIRECTORY
#
# Dumps all databases of the servers of this world as the agent does: the SQL to DIRECTORY/KIND-NAME.sql, and the elements
# `database` of the description, one after the other, to standard output.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Problems;
use Linux::Databases;
use Linux::DumpDocument;
use Linux::Tree;

{
    package Servers;
    sub database_servers { return $_[0]{servers} }
}

my ($directory) = @ARGV;
my $servers = Linux::Databases->new(tree => Linux::Tree->new, problems => Agent::Problems->new, limit => 60,
    restrict_key => 'akeyoftheagent');
my $document = bless { inventory => bless { servers => $servers }, 'Servers' }, 'Linux::DumpDocument';
for my $database ($servers->all) {
    open my $file, '>:raw', "$directory/$database->{kind}-$database->{name}.sql" or die "$directory: $!\n";
    my $error = $servers->dump($database, sub { print {$file} $_[0] });
    die "$database->{name}: $error\n" if defined $error;
    close $file or die "$directory: $!\n";
    print $document->database($database), "\n";
}
