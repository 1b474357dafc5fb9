# The roles of a server of PostgreSQL and which databases they are of: methods of Linux::PostgreSql,
# which asks by ask() and keeps each answer.
package Linux::PostgreSqlRoles;

use strict;
use warnings;
use Linux::PostgreSqlText qw(hex_of text_of);
use List::Util qw(first);

# More rounds than servers make by themselves: who sets the hash of the own password may
# write as many as it takes to keep us counting.
my $MOST_ROUNDS = 100_000;

# The roles that own or may do something in the database, and their members.
sub users {
    my ($self, $database) = @_;
    my $roles = $self->roles;
    my %chosen = map { $_ => 1 } grep { $roles->{$_} } @{ $self->involved->{$database} || [] };
    my $before = -1;
    while ($before != keys %chosen) {
        $before = keys %chosen;
        $chosen{ $_->[1] } = 1 for grep { $chosen{ $_->[0] } && $roles->{ $_->[1] } } @{ $self->memberships };
    }
    my @users = sort { $a->{name} cmp $b->{name} } map { $roles->{$_} } keys %chosen;
    return map { { name => $_->{name}, id => $_->{id}, role => $_->{login} ? 0 : 1 } } @users;
}

# The roles by their id, without those that every server has.
sub roles {
    my ($self) = @_;
    return $self->{roles} if $self->{roles};
    my $columns = 'rolcanlogin, rolinherit, rolconnlimit, ' . hex_of("coalesce(rolvaliduntil::text, '')")
        . q{, array_to_string(ARRAY[CASE WHEN rolsuper THEN 'SUPERUSER' END, CASE WHEN rolcreatedb THEN}
        . q{ 'CREATEDB' END, CASE WHEN rolcreaterole THEN 'CREATEROLE' END], ', ')};
    my $select = 'SELECT oid, ' . hex_of('rolname') . ", $columns";
    my ($rows, $error) = $self->ask("$select, " . hex_of("coalesce(rolpassword, '')") . ' FROM pg_authid');
    ($rows, $error) = $self->ask("$select FROM pg_roles") if defined $error;
    $self->problem('error', undef, "The roles cannot be read, and are in no dump: $error") if defined $error;
    my %roles;
    for (@{ $rows || [] }) {
        my ($id, $name, $login, $inherit, $connections, $until, $rights, $password) = @$_;
        $name = text_of($name);
        next if $name =~ /\Apg_/;
        if ($id == 10) {
            $self->{administrator} = $name;
            next;
        }
        # Goes into SQL as it is.
        $connections = -1 if $connections !~ /\A-?[0-9]+\z/;
        $roles{$id} = { id => $id, name => $name, login => $login eq 't', inherit => $inherit eq 't',
            connections => $connections, until => text_of($until), rights => $rights,
            password => defined $password ? text_of($password) : undef };
    }
    $self->add_rights(\%roles);
    return $self->{roles} = \%roles;
}

# Rights on the whole server that old servers do not know.
sub add_rights {
    my ($self, $roles) = @_;
    my ($rows) = $self->ask("SELECT oid, 'REPLICATION' FROM pg_roles WHERE rolreplication
        UNION ALL SELECT oid, 'BYPASSRLS' FROM pg_roles WHERE rolbypassrls
        UNION ALL SELECT m.member, r.rolname::text FROM pg_auth_members m JOIN pg_roles r ON r.oid = m.roleid
            WHERE r.rolname ~ '^pg_' ORDER BY 1, 2");
    for (grep { $roles->{ $_->[0] } } @{ $rows || [] }) {
        my $role = $roles->{ $_->[0] };
        $role->{rights} = join ', ', grep {length} $role->{rights}, $_->[1];
    }
    return;
}

# The ids of the roles that each database depends on.
sub involved {
    my ($self) = @_;
    return $self->{involved} if $self->{involved};
    my ($rows) = $self->ask("SELECT DISTINCT d.oid, s.refobjid FROM pg_shdepend s JOIN pg_database d
        ON s.dbid = d.oid OR (s.dbid = 0 AND s.classid = 'pg_database'::regclass AND s.objid = d.oid)
        WHERE s.refclassid = 'pg_authid'::regclass UNION SELECT oid, datdba FROM pg_database");
    my %involved;
    push @{ $involved{ $_->[0] } }, $_->[1] for @{ $rows || [] };
    return $self->{involved} = \%involved;
}

# Who is in which role: [role, member, whether the member may give it on].
sub memberships {
    my ($self) = @_;
    return $self->{memberships} if $self->{memberships};
    my ($rows) = $self->ask('SELECT roleid, member, admin_option FROM pg_auth_members ORDER BY 1, 2');
    return $self->{memberships} = $rows || [];
}

# Settings kept for a role or a database, as [name, value]; 0 stands for all of them.
sub settings {
    my ($self, $role, $database) = @_;
    my ($rows) = $self->ask('SELECT ' . hex_of('unnest(setconfig)')
        . " FROM pg_db_role_setting WHERE setrole = $role AND setdatabase = $database");
    return map { [text_of($_->[0]) =~ /\A([^=]+)=(.*)\z/s] } @{ $rows || [] };
}

# Whether a role of this name may read and write every database.
sub opens_all {
    my ($self, $name) = @_;
    my ($role) = grep { $_->{name} eq $name && $_->{rights} =~ /\bSUPERUSER\b/ } values %{ $self->roles };
    return $role || (defined $self->{administrator} && $self->{administrator} eq $name);
}

# Whether a password is that of the role: 1, 0, or undef where this is not known.
sub password_matches {
    my ($self, $name, $password) = @_;
    my $role = first { $_->{name} eq $name } values %{ $self->roles };
    my $hash = $role ? $role->{password} : undef;
    return if !defined $hash || !eval { require Digest::MD5; require Digest::SHA; require MIME::Base64 };
    return $hash eq 'md5' . Digest::MD5::md5_hex($password . $name) ? 1 : 0 if $hash =~ /\Amd5[0-9a-f]{32}\z/;
    # Other characters may have been prepared in ways that are not known here.
    return if $password =~ /[^\x20-\x7e]/;
    return if $hash !~ /\ASCRAM-SHA-256\$([0-9]{1,9}):([^\$]+)\$([^:]+):/ || $1 > $MOST_ROUNDS;
    my ($rounds, $salt, $stored) = ($1, map { MIME::Base64::decode_base64($_) } $2, $3);
    my $round = my $salted = Digest::SHA::hmac_sha256($salt . pack('N', 1), $password);
    for (2 .. $rounds) {
        $round = Digest::SHA::hmac_sha256($round, $password);
        $salted ^= $round;
    }
    return Digest::SHA::sha256(Digest::SHA::hmac_sha256('Client Key', $salted)) eq $stored ? 1 : 0;
}

1;
