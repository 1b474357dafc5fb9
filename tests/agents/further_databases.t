# Database servers that run beside those that are asked are named, in a network of its own, where no other
# test's servers are seen.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use OwnNetwork;
use Agent::Problems;
use Imitated qw(problem_texts);
use Linux::DatabaseProcesses;
use Linux::Databases;
use Linux::Tree;
use PrivateServer;
use Test::More;
use Independent;

sub noted {
    my ($tree, $problems) = (Linux::Tree->new, Agent::Problems->new);
    my $databases = Linux::Databases->new(tree => $tree, problems => Agent::Problems->new, limit => 20);
    Linux::DatabaseProcesses::note_others($tree, $problems, $databases->servers);
    return problem_texts($problems);
}

test 'Servers that are asked are not named and further ones are' => sub {
    my $first = PrivateServer->new('mariadb', '/mnt/first');
    my $usual = PrivateServer->new('postgresql', '/mnt/usual');
    is_deeply noted(), [], 'servers that are asked are not named' or diag explain noted();

    my $second = PrivateServer->new('mariadb', '/mnt/second', '/mnt/second-socket');
    my $other = PrivateServer->new('postgresql', '/mnt/other', '/mnt/other-sockets');
    my $texts = join "\n", @{ noted() };
    like $texts, qr{^error MySQL or MariaDB: A further server, of the account mysql, listens at /mnt/second-socket/mysqld.sock and was not asked: its databases are not in the dump. Dump those that are needed by hand, with mysqldump$}m,
        'a second instance is an error';
    like $texts, qr{^error PostgreSQL: A further server, of the account postgres, listens at /mnt/other-sockets/\.s\.PGSQL\.\d+ and was not asked}m,
        'a server in an unusual directory is an error';
    is scalar(split /\n/, $texts), 2, 'nothing else is named' or diag $texts;
};

test 'Nothing is named without servers' => sub {
    is_deeply noted(), [], 'nothing is named without servers';
};

run_tests;
