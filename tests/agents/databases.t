# Who owns the databases of a host: first by the settings of sites that open them, then by
# their accounts and names.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Problems;
use File::Path ();
use Imitated qw(imitated problem_texts);
use Linux::Databases;
use Linux::Tree;
use PrivateServer;
use Test::More;
use Independent;

# What the packages have left on this machine is not part of the test.
unlink '/etc/postgresql', '/etc/mysql';

my $servers = once(sub {
    my $mysql = PrivateServer->new('mariadb', '/mnt/mysql-server');
    my $postgresql = PrivateServer->new('postgresql', '/mnt/postgresql-server');
    my %mysql = (
        # database => [users with grants]
        alice_shop => ['shop_user'], second => ['shop_user'], stale => ['stale_user'],
            foreign => ['other_user'],
        loose => [], named => ['bob'], bob_things => [], solo_test => [], both => ['both_user'],
        lost => ['nobody_known'],
        by_admin => ['local'], victim => ['carol'], 'big-shop.test' => [], unread => ['socket_user'],
    );
    my @sql = map {"CREATE DATABASE `$_`;"} sort keys %mysql;
    my %seen;
    for my $database (sort keys %mysql) {
        for my $user (@{ $mysql{$database} }) {
            push @sql, "CREATE USER $user\@localhost IDENTIFIED BY 'right';" if !$seen{$user}++;
            push @sql, "GRANT ALL ON `$database`.* TO $user\@localhost;";
        }
    }
    push @sql, 'ALTER USER socket_user@localhost IDENTIFIED VIA unix_socket;',
        "CREATE USER ungranted IDENTIFIED BY 'right';",
        "CREATE USER almighty\@localhost IDENTIFIED BY 'right';", 'GRANT ALL ON *.* TO almighty@localhost;';
    $mysql->sql(join "\n", @sql);
    $postgresql->sql(<<'END');
CREATE ROLE forum_user LOGIN PASSWORD 'right';
CREATE DATABASE alice_shop;
CREATE DATABASE forum OWNER forum_user;
END
    return { mysql => $mysql, postgresql => $postgresql };
});

my @sites;
sub site {
    my ($name, $owner, %settings) = @_;
    my $root = "/mnt/sites/$name";
    push @sites, { name => $name, names => [$name], owner => $owner, root => $root, roots => [$root] };
    for my $directory (keys %settings) {
        File::Path::mkpath("$root/$directory");
        my ($database, $user, $password, $host) = @{ $settings{$directory} };
        open my $file, '>', "$root/$directory/wp-config.php" or die $!;
        print {$file} "<?php define('DB_NAME', '$database'); define('DB_USER', '$user');",
            " define('DB_PASSWORD', '$password'); define('DB_HOST', '", $host || 'localhost', "');";
        close $file or die $!;
    }
    return;
}

sub lay_out_sites {
    site('shop.test', 'alice', '.' => [qw(alice_shop shop_user right)], old => [qw(stale stale_user wrong)],
        far => [qw(far u p db.example:3306)], gone => [qw(gone u p)], stolen => [qw(foreign shop_user right)],
        free => [qw(loose ungranted right)], admin => [qw(by_admin almighty right)],
        victim => [qw(unread socket_user guessed)]);
    site('blog.test', 'alice');
    site('forum.test', 'dave');
    File::Path::mkpath('/mnt/sites/forum.test');
    open my $file, '>', '/mnt/sites/forum.test/.env' or die $!;
    print {$file} "DB_CONNECTION=pgsql\nDB_DATABASE=forum\nDB_USERNAME=forum_user\nDB_PASSWORD=right\n";
    close $file or die $!;
    site('solo.test', 'bob');
    site('big-shop.test', 'carol', x => [qw(both both_user right)]);
    site('eve.test', 'eve', '.' => [qw(victim carol guessed)], x => [qw(both both_user right)]);
    return;
}

my $assignment = once(sub {
    $servers->();
    lay_out_sites();
    my $problems = Agent::Problems->new;
    my $databases = Linux::Databases->new(tree => Linux::Tree->new, problems => $problems, limit => 20);
    my @clients = map { { name => $_ } } qw(alice bob carol dave eve);
    $databases->assign(\@clients, \@sites);
    my %assigned = map { ("$_->{kind} $_->{name}" => $_) } $databases->all;
    return { databases => $databases, problems => $problems, of => \%assigned };
});

sub owner_of {
    my ($name) = @_;
    return join ' ', map { defined $_ ? $_ : '-' } @{ $assignment->()->{of}{$name} }{qw(client sure site)};
}

my $elsewhere = 'It may be in a container, or the server of another account, or the settings may be old: if'
    . ' the site uses'
    . ' it, dump it where it runs';

test 'All servers are listed' => sub {
    is_deeply [map {"$_->{kind} $_->{running}"} $assignment->()->{databases}->servers],
        ['mysql 1', 'postgresql 1'],
        'both servers are listed and run';
};

test 'The owner of a database is found by settings, accounts or names' => sub {
    my %assigned = %{ $assignment->()->{of} };
    my %expected = (
        'mysql alice_shop' => 'alice certain shop.test',     # the settings open it
        'mysql second'     => 'alice likely -',              # the same user
        'mysql stale'      => '- - -',                       # settings with a wrong password
        'mysql foreign'    => '- - -',                       # settings whose user may not use it
        'mysql loose'      => 'alice guess shop.test',       # settings, without grants
        'mysql unread'     => 'alice likely shop.test',      # settings whose password cannot be checked
        'mysql named'      => 'bob likely solo.test',        # the user is called as the client
        'mysql bob_things' => 'bob guess solo.test',         # the name is like that of the client
        'mysql solo_test'  => 'bob guess solo.test',         # the name is like that of the site
        'mysql both'       => 'carol likely big-shop.test',  # two clients open it
        'mysql by_admin'   => 'alice certain shop.test',     # settings with an account of the whole server
        'mysql lost'       => '- - -',                       # nothing indicates it
        'mysql victim'     => 'carol likely big-shop.test',  # others' settings with a guessed password
        'mysql big-shop.test'   => 'carol guess big-shop.test',
        'postgresql forum'      => 'dave certain forum.test',
        'postgresql alice_shop' => 'alice guess -',          # of the same name on another server
    );
    is owner_of($_), $expected{$_}, "$_ belongs to: $expected{$_}" for sort keys %expected;
    is_deeply [sort keys %assigned], [sort keys %expected], 'no other databases are found';
    is $assigned{'mysql alice_shop'}{because},
        '/mnt/sites/shop.test/wp-config.php (WordPress) of shop.test names it,'
        . ' and the user and the password there open it', 'the assignment gives the reason';
};

test 'What is doubtful about a database is named' => sub {
    my $does_not_count = 'so that this does not count. If the site uses the database, take it along by its'
        . ' client or by a dump'
        . ' of everything';
    is_deeply [map {"$_->{severity} $_->{object}: $_->{text}"} $assignment->()->{problems}->all], [
        'warning MariaDB: These accounts have rights on the whole server only and are in no dump:'
            . ' `almighty`@`localhost`. Make'
            . ' those on the new host that something logs in as',
        'error shop.test: /mnt/sites/shop.test/admin/wp-config.php names the database by_admin, and opens it'
            . ' as almighty, which'
            . ' has rights on the whole server and is not in the dump. Give the site an account of its own'
                . ' on the new host, with'
            . ' all rights in this database',
        'error shop.test: /mnt/sites/shop.test/far/wp-config.php names the database far, which is on another'
            . ' host, db.example.'
            . " Move it with that host's own tools, or let the new host reach it there",
        "error shop.test: /mnt/sites/shop.test/gone/wp-config.php names the database gone, which none of the"
            . " host's own servers"
            . " has. $elsewhere",
        'warning shop.test: /mnt/sites/shop.test/old/wp-config.php names the database stale, but the'
            . ' password there is not'
            . " that of the user stale_user, $does_not_count",
        'warning shop.test: /mnt/sites/shop.test/stolen/wp-config.php names the database foreign, but the'
            . ' user shop_user has'
            . " no grants for it, $does_not_count",
        'warning eve.test: /mnt/sites/eve.test/wp-config.php names the database victim, but the password'
            . ' there is not that'
            . " of the user carol, $does_not_count",
        'warning MariaDB database both: Given to carol, but may be of eve:'
            . ' /mnt/sites/big-shop.test/x/wp-config.php'
            . ' (WordPress) of big-shop.test names it, and the user and the password there open it; but also:'
            . ' /mnt/sites/eve.test/x/wp-config.php (WordPress) of eve.test names it, and the user and the'
                . ' password there'
            . ' open it',
        (map {"warning MariaDB database $_: Belongs to no client: no settings of a site name it, and neither does its own"
            . ' name'} qw(foreign lost stale)),
    ], 'each doubtful database, account and file of settings is named';
};

test 'A database is dumped by its own server' => sub {
    for my $name ('mysql alice_shop', 'postgresql forum') {
        my $sql = '';
        is $assignment->()->{databases}->dump($assignment->()->{of}{$name}, sub { $sql .= $_[0] }), undef,
            "$name: the dump succeeds";
        like $sql, $name =~ /^mysql/ ? qr/^-- MariaDB dump/m : qr/^-- PostgreSQL database dump/m,
            "$name: the program of its own server has made the dump";
    }
};

test 'A database without a server is named' => sub {
    my ($tree, $told) = imitated('srv/a/wp-config.php' =>
        "<?php define('DB_NAME', 'inner'); define('DB_HOST', '127.0.0.1:3307');");
    Linux::Databases->new(tree => $tree, problems => $told)->assign([],
        [{ name => 'a.test', names => ['a.test'], owner => 'alice', root => '/srv/a',
            roots => ['/srv/a'] }]);
    is_deeply problem_texts($told),
        ['error a.test: /srv/a/wp-config.php names the database inner, for which no server was'
        . " found on this host. $elsewhere"],
        'settings that name a database without a server are an error';
};

run_tests;
