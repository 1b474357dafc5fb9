# The dump of a database of PostgreSQL: methods of Linux::PostgreSql, which asks by ask() and knows the
# roles; restrict_key and lock_milliseconds are its options. Nothing on the server changes.
package Linux::PostgreSqlDump;

use strict;
use warnings;
use Agent::Process qw(run);
use Linux::DatabaseServer qw(one_line);
use Linux::PostgreSqlText qw(hex_of identifier is_of_server literal text_of);

my $ENCODING = "SET client_encoding = 'UTF8';\n";

# Hands over the SQL that makes the database anew, piece by piece: its roles, the
# database with what was granted. undef when it is whole; else why it is not. Two
# dumps of the same content are equal when found() was given a restrict_key, a
# secret of letters and digits. Options: tick => sub {}.
sub dump {
    my ($self, $database, $sink, %options) = @_;
    return 'it takes no connections' if $database->{closed};
    my $program = $self->choose_program('pg_dump');
    return 'the program that dumps is not installed' if !$program;
    $sink->($self->role_statements($database));
    $self->name_tablespaces($database);
    # In the encoding of the database: not all of them hold what UTF-8 has a place for.
    my $result = $self->stream_dump($self->dump_command($program, $database),
        qr/^-- PostgreSQL database dump complete$/m, $sink, %options, env => { PGCLIENTENCODING => undef });
    return one_line($result->{err}) if $result->{status} || !$result->{complete};
    $self->problem('warning', $database, one_line($result->{err})) if $result->{err} =~ /\S/;
    my ($version) = run([$program, '--version'], limit => 20)->{out} =~ /([0-9]+)/;
    $sink->($self->database_statements($database))
        if is_of_server($database) || defined $version && $version < 11;
    return;
}

sub dump_command {
    my ($self, $program, $database) = @_;
    my @more;
    if (defined $self->{restrict_key} && run([$program, '--help'], limit => 20)->{out} =~ /--restrict-key/) {
        push @more, "--restrict-key=$self->{restrict_key}";
    }
    push @more, '--create' if !is_of_server($database);
    return $self->command($program, '--no-tablespaces',
        "--lock-wait-timeout=$self->{lock_milliseconds}", @more,
        $self->connection_to($database->{name}));
}

# The directories of tablespaces are the host's: on another one there is but the default.
sub name_tablespaces {
    my ($self, $database) = @_;
    my ($rows, $error) = $self->ask('SELECT ' . hex_of('spcname') . " FROM pg_tablespace WHERE oid IN
        (SELECT reltablespace FROM pg_class UNION
        SELECT dattablespace FROM pg_database WHERE oid = $database->{id})
        AND spcname NOT IN ('pg_default', 'pg_global') ORDER BY spcname", $database->{name});
    return if defined $error || !@$rows;
    $self->problem('info', $database, 'What lies in these tablespaces comes into the default one: '
        . join ', ', map { text_of($_->[0]) } @$rows);
    return;
}

sub role_statements {
    my ($self, $database) = @_;
    my %chosen = map { $_->{id} => $self->roles->{ $_->{id} } } @{ $database->{users} };
    my $out = $ENCODING;
    for my $user (@{ $database->{users} }) {
        my $role = $chosen{ $user->{id} };
        $out .= $self->role_statement($role);
        $self->problem('error', $database, "The password of the role $role->{name} is not in the dump, since"
            . ' only administrators may read it. Dump as root, or set it on the new host')
            if !defined $role->{password};
        next if !length $role->{rights};
        $self->problem('warning', $database,
            "The role $role->{name} loses its server-wide rights. Give it those anew that it needs:"
                . " $role->{rights}");
    }
    for (grep { $chosen{ $_->[0] } && $chosen{ $_->[1] } } @{ $self->memberships }) {
        my ($role, $member, $admin) = @$_;
        $out .= 'GRANT ' . identifier($chosen{$role}{name}) . ' TO ' . identifier($chosen{$member}{name})
            . ($admin eq 't' ? ' WITH ADMIN OPTION' : '') . ";\n";
    }
    return $out;
}

# Makes a role unless there is one of its name.
sub role_statement {
    my ($self, $role) = @_;
    my $name = identifier($role->{name});
    my %text = map { $_ => defined $role->{$_} && length $role->{$_} ? literal($role->{$_}) : undef }
        qw(until password);
    my $create = join ' ', "CREATE ROLE $name", $role->{login} ? 'LOGIN' : (),
        $role->{inherit} ? () : 'NOINHERIT', "CONNECTION LIMIT $role->{connections}",
        $text{until} ? "VALID UNTIL $text{until}" : (),
        $text{password} ? "PASSWORD $text{password}" : ();
    my @settings = map { " ALTER ROLE $name SET " . setting(@$_) } $self->settings($role->{id}, 0);
    my $same = 'SELECT 1 FROM pg_catalog.pg_roles WHERE rolname = ' . literal($role->{name});
    my $body = "BEGIN IF NOT EXISTS ($same) THEN $create;@settings END IF; END";
    my $tag = 'role';
    $tag .= 'x' while index($body, "\$$tag\$") >= 0;
    return "DO \$$tag\$$body\$$tag\$;\n";
}

# Lists are kept as the names between commas that they are given by.
sub setting {
    my ($name, $value) = @_;
    my @values = ($value);
    if ($name =~ /\A(?:search_path|temp_tablespaces|\w+_preload_libraries)\z/) {
        @values = ();
        while ($value =~ /\G\s*(?:"((?:[^"]|"")*)"|([^",]+?))\s*(?:,|\z)/gc) {
            my $one = defined $1 ? $1 : $2;
            $one =~ s/""/"/g if defined $1;
            push @values, $one;
        }
    }
    my $variable = join '.', map { identifier($_) } split /\./, $name;
    return "$variable TO " . join(', ', map { literal($_) } @values) . ';';
}

# What programs leave to others that are older than version 11, or that do not make the
# database: its settings and the rights on itself.
sub database_statements {
    my ($self, $database) = @_;
    my ($id, $name) = ($database->{id}, identifier($database->{name}));
    my $roles = $self->roles;
    my $out = $ENCODING;
    $out .= "ALTER DATABASE $name SET " . setting(@$_) . "\n" for $self->settings(0, $id);
    for my $user (@{ $database->{users} }) {
        my $role = identifier($user->{name});
        $out .= "ALTER ROLE $role IN DATABASE $name SET " . setting(@$_) . "\n"
            for $self->settings($user->{id}, $id);
    }
    my ($rights) = $self->ask("SELECT (x).grantee, (x).privilege_type, (x).is_grantable FROM
        (SELECT aclexplode(datacl) AS x FROM pg_database WHERE oid = $id) AS rights ORDER BY 1, 2");
    return $out if !$rights || !@$rights;
    $out .= "REVOKE ALL ON DATABASE $name FROM PUBLIC;\n";
    # The names of rights go into SQL as they are.
    for (grep { (!$_->[0] || $roles->{ $_->[0] }) && $_->[1] =~ /\A[A-Z ]+\z/ } @$rights) {
        my ($grantee, $right, $on) = @$_;
        my $to = $grantee ? identifier($roles->{$grantee}{name}) : 'PUBLIC';
        $out .= "GRANT $right ON DATABASE $name TO $to" . ($on eq 't' ? ' WITH GRANT OPTION' : '') . ";\n";
    }
    return $out;
}

1;
