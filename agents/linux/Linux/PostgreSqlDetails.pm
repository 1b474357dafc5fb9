# What a restore must know of a database of PostgreSQL besides its dump: methods of
# Linux::PostgreSql, which asks by ask() and knows the roles.
package Linux::PostgreSqlDetails;

use strict;
use warnings;
use Linux::PostgreSqlText qw(hex_of text_of);

# What an application's SQL means depends on these.
my @SETTINGS_OF_MEANING = qw(DateStyle IntervalStyle TimeZone bytea_output default_text_search_config
    default_transaction_isolation lc_messages lc_monetary lc_numeric lc_time standard_conforming_strings);

# Objects below this number come with every server; the schema public is the exception.
my $FIRST_OWN = 16384;

# Where rights are kept: what they are on, the object, the column, the rights, the owner,
# from where.
my $SCHEMA = q{n.nspname || '.' || };
my $KIND_OF_RELATION = q{CASE c.relkind WHEN 'S' THEN 'sequence' WHEN 'v' THEN 'view' WHEN 'm' THEN 'view'
    ELSE 'table' END};
my @RIGHTS = (
    [database => 'datname', q{''}, 'datacl', 'datdba', 'pg_database WHERE datname = current_database()'],
    [schema => 'nspname', q{''}, 'nspacl', 'nspowner',
        "pg_namespace WHERE oid >= $FIRST_OWN OR nspname = 'public'"],
    [$KIND_OF_RELATION, "${SCHEMA}c.relname", q{''}, 'c.relacl', 'c.relowner',
        "pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace WHERE c.oid >= $FIRST_OWN"],
    [column => "${SCHEMA}c.relname", 'a.attname', 'a.attacl', 'c.relowner', "pg_attribute a JOIN pg_class c
        ON c.oid = a.attrelid JOIN pg_namespace n ON n.oid = c.relnamespace WHERE c.oid >= $FIRST_OWN"],
    [routine => "${SCHEMA}p.proname || '(' || pg_get_function_identity_arguments(p.oid) || ')'", q{''},
        'p.proacl', 'p.proowner',
        "pg_proc p JOIN pg_namespace n ON n.oid = p.pronamespace WHERE p.oid >= $FIRST_OWN"],
    [type => "${SCHEMA}t.typname", q{''}, 't.typacl', 't.typowner',
        "pg_type t JOIN pg_namespace n ON n.oid = t.typnamespace WHERE t.oid >= $FIRST_OWN"],
    ['large object' => 'oid::text', q{''}, 'lomacl', 'lomowner', 'pg_largeobject_metadata WHERE true'],
    ['foreign server' => 'srvname', q{''}, 'srvacl', 'srvowner', 'pg_foreign_server WHERE true'],
);

# What a restore must know of a database besides its dump: { version, owner, encoding,
# collation, ctype, provider, locale, users, memberships, grants, definers, extensions,
# settings } as the element `database` of dump.xml has them. No hash of a password is among
# it. What cannot be read is missing, and a problem.
sub details {
    my ($self, $database) = @_;
    my @users = map { $self->described($_) } @{ $database->{users} };
    my $locale = $self->locale($database);
    my $details = { %$locale, users => \@users, version => $self->{version},
        memberships => [$self->memberships_among($database)] };
    # What is in it can only be asked in it.
    return $details if $database->{closed};
    for my $part (qw(grants definers extensions settings_of_meaning)) {
        my ($found, $error) = $self->$part($database);
        $details->{ $part eq 'settings_of_meaning' ? 'settings' : $part } = $found;
        next if !defined $error;
        $self->problem('warning', $database, "Its properties are not fully described: $error");
        last;
    }
    return $details;
}

sub described {
    my ($self, $user) = @_;
    my $role = $self->roles->{ $user->{id} } || {};
    my $hash = defined $role->{password} ? $role->{password} : '';
    my $kind = $hash =~ /\ASCRAM-SHA-256\$/ ? 'scram-sha-256' : $hash =~ /\Amd5/ ? 'md5' : undef;
    return { name => $user->{name}, kind => $user->{role} ? 'role' : 'login', authentication => $kind };
}

# Later servers know more of it: who does the sorting since 15, the rules of ICU since 17
# by another name.
sub locale {
    my ($self, $database) = @_;
    my $fields = join ', ', map { hex_of($_) } 'pg_get_userbyid(datdba)', 'pg_encoding_to_char(encoding)',
        qw(datcollate datctype);
    my $provider = q{CASE datlocprovider WHEN 'i' THEN 'icu' WHEN 'b' THEN 'builtin' ELSE 'libc' END};
    my ($rows, $error);
    for my $more (", $provider, " . hex_of("coalesce(datlocale, '')"),
            ", $provider, " . hex_of("coalesce(daticulocale, '')"), '') {
        ($rows, $error) = $self->ask("SELECT $fields$more FROM pg_database WHERE oid = $database->{id}");
        last if !defined $error;
    }
    $error = 'it is no longer there' if !defined $error && !@$rows;
    if (defined $error) {
        $self->problem('warning', $database, "Its properties are not described: $error");
        return {};
    }
    my ($owner, $encoding, $collation, $ctype, $by, $locale) = @{ $rows->[0] };
    my %locale = (owner => $owner, encoding => $encoding, collation => $collation, ctype => $ctype,
        locale => $locale);
    for (grep {defined} values %locale) { $_ = text_of($_) }
    $locale{locale} = undef if defined $locale{locale} && !length $locale{locale};
    return { %locale, provider => defined $by ? $by : 'libc' };
}

sub memberships_among {
    my ($self, $database) = @_;
    my %name = map { ($_->{id} => $_->{name}) } @{ $database->{users} };
    return map { { role => $name{ $_->[0] }, to => $name{ $_->[1] }, grantable => $_->[2] eq 't' ? 1 : 0 } }
        grep { defined $name{ $_->[0] } && defined $name{ $_->[1] } } @{ $self->memberships };
}

# The rights that others than the owners were given: ([...], undef) or ([...], error).
sub grants {
    my ($self, $database) = @_;
    my (%grants, @order);
    for (@RIGHTS) {
        my ($on, $object, $column, $rights, $owner, $from) = @$_;
        $on = "'$on'" if $on !~ /\ACASE/;
        my ($rows, $error) = $self->ask("SELECT kind, object, part, CASE (x).grantee WHEN 0 THEN '' ELSE "
            . hex_of('pg_get_userbyid((x).grantee)') . " END, (x).privilege_type, (x).is_grantable
            FROM (SELECT $on AS kind, " . hex_of($object) . ' AS object, ' . hex_of($column) . " AS part,
            $owner AS owner, aclexplode($rights) AS x FROM $from) AS given
            WHERE (x).grantee <> owner ORDER BY 2, 3, 4, 6, 5", $database->{name});
        return [map { $grants{$_} } @order], $error if defined $error;
        for (@$rows) {
            my ($kind, $object, $part, $to, $right, $grantable) = @$_;
            my $key = join "\0", $kind, $object, $part, $to, $grantable;
            push @order, $key if !$grants{$key};
            my $grant = $grants{$key} ||= { to => length $to ? text_of($to) : 'PUBLIC', on => $kind,
                object => text_of($object), column => length $part ? text_of($part) : undef,
                grantable => $grantable eq 't' ? 1 : 0, rights => [] };
            push @{ $grant->{rights} }, $right;
        }
    }
    return [map { $grants{$_} } @order], undef;
}

# Functions that run with the rights of their owner.
sub definers {
    my ($self, $database) = @_;
    my ($rows, $error) = $self->ask('SELECT ' . join(', ', map { hex_of($_) }
        "${SCHEMA}p.proname", 'pg_get_userbyid(p.proowner)') . " FROM pg_proc p
        JOIN pg_namespace n ON n.oid = p.pronamespace WHERE p.prosecdef AND p.oid >= $FIRST_OWN ORDER BY 1",
        $database->{name});
    my %known = map { $_->{name} => 1 } @{ $database->{users} };
    return [map {
        my ($object, $name) = map { text_of($_) } @$_;
        { name => $name, kind => 'routine', object => $object, known => $known{$name} ? 1 : 0 }
    } @{ $rows || [] }], $error;
}

sub extensions {
    my ($self, $database) = @_;
    my ($rows, $error) = $self->ask('SELECT ' . join(', ', map { hex_of($_) } qw(extname extversion nspname))
        . ' FROM pg_extension e JOIN pg_namespace n ON n.oid = e.extnamespace ORDER BY extname',
        $database->{name});
    return [map {
        my ($name, $version, $schema) = map { text_of($_) } @$_;
        { name => $name, version => $version, schema => $schema }
    } @{ $rows || [] }], $error;
}

# As they are for who logs in to the database without settings of his own.
sub settings_of_meaning {
    my ($self, $database) = @_;
    my $names = join ', ', map {"'$_'"} @SETTINGS_OF_MEANING;
    my ($rows, $error) = $self->ask('SELECT ' . hex_of('name') . ', ' . hex_of('setting')
        . " FROM pg_settings WHERE name IN ($names) ORDER BY name", $database->{name});
    return [map { [map { text_of($_) } @$_] } @{ $rows || [] }], $error;
}

1;
