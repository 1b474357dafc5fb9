# The accounts of a server of MySQL or MariaDB and what they may do: methods of Linux::MySql, which
# asks by ask() and keeps each answer.
package Linux::MySqlRights;

use strict;
use warnings;
use Linux::MySqlText qw(grantee pattern);
use List::Util qw(first);

# Where the server keeps rights: what they are on, the table, and its columns for the
# database, the object in it and the column.
my @RIGHTS = (
    [database => 'schema_privileges', q{table_schema, '', ''}],
    [table    => 'table_privileges',  q{table_schema, table_name, ''}],
    [column   => 'column_privileges', q{table_schema, table_name, column_name}],
);

# Who is in which role: member, its host, role, its host, whether it may be given on,
# whether it is on from the login. MariaDB, its first versions with roles, MySQL from 8. Who
# makes a role is its member: root is no account of a database for that.
my @MEMBERSHIPS = (
    q{SELECT m.User, m.Host, m.Role, '', m.Admin_option, IF(u.default_role = m.Role, 'Y', 'N')
        FROM mysql.roles_mapping m LEFT JOIN mysql.user u ON u.User = m.User AND u.Host = m.Host
        WHERE m.User <> 'root' ORDER BY 1, 2, 3;},
    q{SELECT User, Host, Role, '', Admin_option, 'N' FROM mysql.roles_mapping
        WHERE User <> 'root' ORDER BY 1, 2, 3;},
    q{SELECT e.TO_USER, e.TO_HOST, e.FROM_USER, e.FROM_HOST, e.WITH_ADMIN_OPTION,
        IF(d.USER IS NULL, 'N', 'Y') FROM mysql.role_edges e LEFT JOIN mysql.default_roles d
        ON d.USER = e.TO_USER AND d.HOST = e.TO_HOST AND d.DEFAULT_ROLE_USER = e.FROM_USER
        AND d.DEFAULT_ROLE_HOST = e.FROM_HOST ORDER BY 1, 2, 3, 4;},
);

# Where the hashes of the passwords are: MariaDB, MySQL from 5.7, 5.5 and before.
my @ACCOUNT_COLUMNS = (
    q{plugin, HEX(IF(authentication_string = '', Password, authentication_string)), is_role = 'Y'},
    q{plugin, HEX(authentication_string), 0},
    q{plugin, HEX(IF(IFNULL(authentication_string, '') = '', Password, authentication_string)), 0},
    q{'', HEX(Password), 0},
);

# Accounts with rights on the whole server: { name, host, role, rights => { right => 1 } }.
sub global_accounts {
    my ($self) = @_;
    if (!$self->{global_accounts}) {
        my ($rows) = $self->ask('SELECT grantee, privilege_type FROM information_schema.user_privileges'
            . " WHERE privilege_type <> 'USAGE' ORDER BY 1, 2;");
        my %accounts;
        for (@{ $rows || [] }) {
            my ($grantee, $right) = @$_;
            my ($name, $host) = grantee($grantee) or next;
            my $account = $accounts{$grantee}
                ||= { name => $name, host => $host, role => $self->is_role($name, $host), rights => {} };
            $account->{rights}{$right} = 1;
        }
        $self->{global_accounts} = [map { $accounts{$_} } sort keys %accounts];
    }
    return @{ $self->{global_accounts} };
}

# Whether an account of this name may read and write every database.
sub opens_all {
    my ($self, $name) = @_;
    return first { $_->{name} eq $name && $_->{rights}{SELECT} && $_->{rights}{INSERT} }
        $self->global_accounts;
}

# Accounts that were given something of the database: { name, host, role }.
sub users {
    my ($self, $database) = @_;
    my %users;
    my $add = sub {
        my ($name, $host) = @_;
        return if !length $name;
        $users{"$name\0$host"} = { name => $name, host => $host, role => $self->is_role($name, $host) };
    };
    $add->(@$_{qw(name host)}) for $self->grants_on($database);
    # A role's members have what it has, and so have theirs.
    my $before = -1;
    while ($before != keys %users) {
        $before = keys %users;
        $users{"$_->[2]\0$_->[3]"} && $add->(@$_[0, 1]) for @{ $self->memberships };
    }
    return map { $users{$_} } sort keys %users;
}

# Those of grants() that hold for a database or something in it.
sub grants_on {
    my ($self, $database) = @_;
    return grep { $_->{pattern} ? $database =~ $_->{pattern} : $database eq $_->{database} }
        @{ $self->grants };
}

# Every grant for a part of the server: { name, host, on => database, table, column,
# procedure or function, database => its name, pattern => of names of databases where it
# is on these, object, column, rights => [names], grantable }.
sub grants {
    my ($self) = @_;
    return $self->{grants} if $self->{grants};
    my (%grants, @order);
    for my $right ($self->rights_on_data, $self->rights_on_routines) {
        my $key = join "\0", map { $right->{$_} } qw(name host on database object column grantable);
        push @order, $key if !$grants{$key};
        my $grant = $grants{$key} ||= { %$right, rights => [] };
        push @{ $grant->{rights} }, $right->{right};
    }
    for (grep { $_->{on} eq 'database' } values %grants) {
        $_->{pattern} = pattern($_->{database});
    }
    return $self->{grants} = [map { $grants{$_} } @order];
}

# Every single right as grants() has it, with `right` for its name.
sub rights_on_data {
    my ($self) = @_;
    my @found;
    for (@RIGHTS) {
        my ($on, $table, $columns) = @$_;
        my ($rows, $error) = $self->ask("SELECT grantee, $columns, privilege_type, is_grantable"
            . " FROM information_schema.$table ORDER BY 1, 2, 3, 4, 5;");
        $self->problem('error', undef, "The grants cannot be read, and are in no dump: $error")
            if defined $error;
        for (@{ $rows || [] }) {
            my ($grantee, $database, $object, $column, $right, $grantable) = @$_;
            my ($name, $host) = grantee($grantee) or next;
            push @found, { name => $name, host => $host, on => $on, database => $database, object => $object,
                column => $column, right => $right, grantable => $grantable eq 'YES' ? 1 : 0 };
        }
    }
    return @found;
}

# Grants for single routines are nowhere else; only administrators may read this.
sub rights_on_routines {
    my ($self) = @_;
    my ($rows) = $self->ask('SELECT User, Host, Db, Routine_name, Routine_type, Proc_priv'
        . ' FROM mysql.procs_priv ORDER BY 1, 2, 3, 4, 5;');
    my @found;
    for (@{ $rows || [] }) {
        my ($name, $host, $database, $object, $type, $rights) = @$_;
        my @rights = map {uc} split /,/, $rights;
        my $grantable = (grep { $_ eq 'GRANT' } @rights) ? 1 : 0;
        push @found, map { { name => $name, host => $host, on => lc $type, database => $database,
            object => $object, column => '', right => $_, grantable => $grantable } }
            grep { $_ ne 'GRANT' } @rights;
    }
    return @found;
}

# Who was given which role, each as @MEMBERSHIPS has it.
sub memberships {
    my ($self) = @_;
    return $self->{memberships} if $self->{memberships};
    my $rows;
    for my $question (@MEMBERSHIPS) {
        ($rows) = $self->ask($question);
        last if $rows;
    }
    return $self->{memberships} = $rows || [];
}

# The accounts by name: { host => { plugin, hash, role } }; empty for who may not read them.
sub accounts {
    my ($self) = @_;
    return $self->{accounts} if $self->{accounts};
    my $rows;
    for my $columns (@ACCOUNT_COLUMNS) {
        ($rows) = $self->ask("SELECT User, Host, $columns FROM mysql.user;");
        last if $rows;
    }
    my %accounts;
    for (@{ $rows || [] }) {
        my ($name, $host, $plugin, $hash, $role) = @$_;
        $hash = $hash eq 'NULL' ? '' : pack 'H*', $hash;
        $accounts{$name}{$host} = { plugin => $plugin, hash => $hash, role => $role };
    }
    return $self->{accounts} = \%accounts;
}

sub is_role {
    my ($self, $name, $host) = @_;
    my $account = ($self->accounts->{$name} || {})->{$host};
    return $account && $account->{role} ? 1 : 0;
}

# Whether a password is that of an account of this name: 1, 0, or undef where the
# server does not say so in a way that can be checked here.
sub password_matches {
    my ($self, $name, $password) = @_;
    return if !eval { require Digest::SHA };
    my $known = 0;
    my @accounts = values %{ $self->accounts->{$name} || {} };
    for my $account (@accounts) {
        next if $account->{plugin} !~ /\A(?:mysql_native_password)?\z/;
        my $hash = length $password ? '*' . uc Digest::SHA::sha1_hex(Digest::SHA::sha1($password)) : '';
        return 1 if $account->{hash} eq $hash;
        $known++;
    }
    return @accounts && $known == @accounts ? 0 : undef;
}

1;
