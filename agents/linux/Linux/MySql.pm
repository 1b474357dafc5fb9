# The MySQL or MariaDB server of this host, asked and dumped by its own client
# programs. It logs in as these do by themselves or by an option file of the host;
# a password is never an argument, and nothing on the server changes.
package Linux::MySql;

use strict;
use warnings;
use base qw(Linux::MySqlClient Linux::MySqlRights Linux::MySqlDump);
use Agent::Process qw(which);
use Linux::DatabaseServer qw(escaped trusted_sockets);
use Linux::MySqlText qw(account);

my $ACCOUNT = 'mysql';
my $SYSTEM = qr/\A(?:information_schema|performance_schema|mysql|sys|ndbinfo)\z/i;

# Accounts that every server has for itself.
my $OF_SERVER = qr/\A(?:|root|mysql|(?:mysql|mariadb)\.[a-z]+|debian-sys-maint)\z/;

# What an application's SQL means depends on these.
my @SETTINGS_OF_MEANING = qw(character_set_server collation_server default_storage_engine event_scheduler
    explicit_defaults_for_timestamp lower_case_table_names sql_mode system_time_zone time_zone);

# The servers of this kind that the host has: at most one, which may be down.
# Options: tree, problems, limit => seconds for one question.
sub found {
    my ($class, %options) = @_;
    my $self = bless { limit => 60, %options }, $class;
    $self->read_settings;
    my $installed = $self->installed;
    my ($sockets, $foreign, $left) = trusted_sockets({ %options, product => 'MySQL or MariaDB',
        dump => 'mysqldump', accounts => [$ACCOUNT, $self->set('user')] }, $self->sockets);
    return if !$installed && !@$sockets && !@$left;
    $self->{client} = which('mariadb') || which('mysql');
    $self->{dump}   = which('mariadb-dump') || which('mysqldump');
    my $error = $self->connect(@$sockets);
    $self->{product} = $self->{label} = $self->product;
    return $self if !defined $error;
    $error = join '; ', map {"$_->{path}: $_->{why}"} @$left if !@$sockets && @$left;
    $error .= ', except one that is not the host\'s: ' . join ', ', @$foreign if !@$sockets && @$foreign;
    $self->problem('error', undef, "The server cannot be asked: $error");
    return $self;
}

# This server, as a list of servers describes it.
sub description {
    my ($self) = @_;
    my $running = defined $self->{version} ? 1 : 0;
    my %known = map { $_ => $self->{$_} } qw(label product version address);
    return { kind => 'mysql', running => $running, %known };
}

# Every database but those of the server itself.
sub databases {
    my ($self) = @_;
    return if !defined $self->{version};
    my ($names, $error) = $self->ask('SELECT schema_name FROM information_schema.schemata;');
    if (defined $error) {
        $self->problem('error', undef, "The databases cannot be listed: $error");
        return;
    }
    my $sizes = $self->sizes;
    my @databases;
    for my $name (sort grep { $_ !~ $SYSTEM } map { $_->[0] } @$names) {
        my $database = { kind => 'mysql', server => $self->{label}, name => $name,
            bytes => $sizes ? $sizes->{$name} || 0 : undef };
        $database->{users} = [$self->users($name)];
        push @databases, $database;
    }
    $self->name_accounts_of_no_database(@databases);
    return @databases;
}

# Accounts whose rights are all on the whole server are in no dump.
sub name_accounts_of_no_database {
    my ($self, @databases) = @_;
    my %in_dumps = map { account($_) => 1 } map { @{ $_->{users} } } @databases;
    my @left = grep { !$in_dumps{$_} } map { account($_) }
        grep { $_->{name} !~ $OF_SERVER } $self->global_accounts;
    return if !@left;
    $self->problem('warning', undef, 'These accounts have rights on the whole server only and are in no'
        . ' dump: ' . join(', ', @left) . '. Make those on the new host that something logs in as');
    return;
}

sub sizes {
    my ($self) = @_;
    my ($rows, $error) = $self->ask('SELECT table_schema, IFNULL(SUM(data_length + index_length), 0)'
        . ' FROM information_schema.tables GROUP BY table_schema;');
    return { map {@$_} @$rows } if !defined $error;
    $self->problem('warning', undef, "The sizes of the databases are not known: $error");
    return;
}

# Whose rights the views, routines, triggers and events of a database run with: { name,
# host, kind, object, known => whether it is an account of the database }.
sub definers {
    my ($self, $database) = @_;
    my $name = escaped($database->{name});
    my %known = map { ("$_->{name}\@$_->{host}" => 1) } @{ $database->{users} };
    my %kind = (views => q{'view'}, routines => 'LOWER(routine_type)', triggers => q{'trigger'},
        events => q{'event'});
    my ($rows) = $self->ask(join(' UNION ALL ', map {
        (my $object = $_) =~ s/s\z//;
        my $column = $object eq 'view' ? 'table' : $object;
        "SELECT $kind{$_}, ${column}_name, definer FROM information_schema.$_ WHERE ${column}_schema = $name"
    } sort keys %kind) . ' ORDER BY 1, 2;');
    return map {
        my ($kind, $object, $definer) = @$_;
        my ($user, $host) = $definer =~ /\A(.*?)(?:\@([^\@]*))?\z/s;
        { name => $user, host => defined $host ? $host : '', kind => $kind, object => $object,
            known => $known{$definer} ? 1 : 0 }
    } grep { length $_->[2] } @{ $rows || [] };
}

# What a restore must know of a database besides its dump: { version, encoding, collation,
# users, memberships, grants, definers, settings } as the element `database` of dump.xml has
# them. No hash of a password is among it. What cannot be read is missing, and a problem.
sub details {
    my ($self, $database) = @_;
    my @users = map { $self->described($_) } @{ $database->{users} };
    my ($rows, $error) = $self->ask('SELECT default_character_set_name, default_collation_name'
        . ' FROM information_schema.schemata WHERE schema_name = ' . escaped($database->{name}) . ';');
    $error = 'it is no longer there' if !defined $error && !@$rows;
    if (defined $error) {
        $self->problem('warning', $database, "Its properties are not described: $error");
        return { users => \@users };
    }
    my %user = map { ("$_->{name}\0$_->{host}" => 1) } @{ $database->{users} };
    return {
        users => \@users, version => $self->{version}, encoding => $rows->[0][0], collation => $rows->[0][1],
        memberships => [map { membership($_) }
            grep { $user{"$_->[0]\0$_->[1]"} && $user{"$_->[2]\0$_->[3]"} } @{ $self->memberships }],
        grants => [map { grant($_) } $self->grants_on($database->{name})],
        definers => [$self->definers($database)], settings => $self->settings_of_meaning,
    };
}

sub described {
    my ($self, $user) = @_;
    my ($name, $host) = @$user{qw(name host)};
    # In MySQL 8 an account is a role as soon as it is given to another one.
    my $is_role = $user->{role}
        || grep { length $_->[3] && $_->[2] eq $name && $_->[3] eq $host } @{ $self->memberships };
    my $plugin = (($self->accounts->{$name} || {})->{$host} || {})->{plugin};
    return { name => $name, host => length $host ? $host : undef, kind => $is_role ? 'role' : 'login',
        authentication => $is_role || !defined $plugin || !length $plugin ? undef : $plugin };
}

sub membership {
    my ($member, $host, $role, $role_host, $admin, $default) = @{ $_[0] };
    my ($its_host, $role_its) = map { length $_ ? $_ : undef } $host, $role_host;
    return { role => $role, 'role-host' => $role_its, to => $member, host => $its_host,
        grantable => $admin eq 'Y' ? 1 : 0, default => $default eq 'Y' ? 1 : 0 };
}

sub grant {
    my ($grant) = @_;
    my ($host, $object, $column) = map { length $_ ? $_ : undef } @$grant{qw(host object column)};
    return { to => $grant->{name}, host => $host, on => $grant->{on}, column => $column,
        object => $grant->{on} eq 'database' ? $grant->{database} : $object,
        grantable => $grant->{grantable}, rights => $grant->{rights} };
}

# [name, value] of what the server is set to; nothing of what it does not know.
sub settings_of_meaning {
    my ($self) = @_;
    if (!$self->{meaning}) {
        my $names = join ', ', map { escaped($_) } @SETTINGS_OF_MEANING;
        my ($rows) = $self->ask("SHOW GLOBAL VARIABLES WHERE Variable_name IN ($names);");
        $self->{meaning} = $rows || [];
    }
    return $self->{meaning};
}

1;
