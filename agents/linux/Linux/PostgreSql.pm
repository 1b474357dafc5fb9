# The PostgreSQL servers of this host, one object for each; asked and dumped by their
# own client programs as the account that runs the server, or as ourselves without
# root. Nothing on a server changes.
package Linux::PostgreSql;

use strict;
use warnings;
use base 'Linux::DatabaseServer';
use Agent::Process qw(run which);
use Errno qw(EACCES);
use Linux::DatabaseServer qw(one_line escaped trusted_sockets);
use List::Util qw(first);
use Time::HiRes ();

my $ACCOUNT = 'postgres';
my @SOCKET_FOLDERS = qw(/run/postgresql /var/run/postgresql /tmp);
my @PROGRAM_FOLDERS = qw(/usr/lib/postgresql/*/bin /usr/pgsql-*/bin);

# The folders with the settings of a server: those of Debian and of Red Hat.
my @CLUSTERS = qw(/etc/postgresql/*/* /var/lib/pgsql/data /var/lib/pgsql/*/data);
my $DEFAULT_PORT = 5432;

# More rounds than servers make by themselves: who sets the hash of the own password may
# write as many as it takes to keep us counting.
my $MOST_ROUNDS = 100_000;

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

# Between fields and rows; all texts that others choose are asked for in hexadecimal.
my ($FIELD, $ROW) = ("\x1f", "\x1e");

# Becomes the account given by its ids before it runs the program. Its folder may be
# one that this account cannot enter.
my $AS_ACCOUNT = 'my ($uid, $gid) = splice @ARGV, 0, 2; chdir "/"; $( = $gid; $) = "$gid $gid"; '
    . '($<, $>) = ($uid, $uid); exit 126 if $< != $uid || $> != $uid; exec { $ARGV[0] } @ARGV; exit 127';

# All servers that the host has, running or not. Options: tree, problems, limit =>
# seconds for one question and for the first one to all servers together, restrict_key =>
# what makes dumps equal, lock_milliseconds => how long a dump waits for a locked table.
sub found {
    my ($class, %options) = @_;
    my ($tree, %by_port) = ($options{tree});
    my ($sockets, $foreign, $left) = trusted_sockets({ %options, product => 'PostgreSQL',
        accounts => [$ACCOUNT], dump => 'pg_dump' }, sockets($tree));
    for my $socket (@$sockets) {
        my ($folder, $port) = folder_and_port($socket->{path});
        $by_port{$port} ||= { folder => $folder, owner => $socket->{owner} };
    }
    $by_port{ $_->{port} }{automatic} ||= $_->{automatic} for clusters($tree);
    for my $socket (@$left) {
        my (undef, $port) = folder_and_port($socket->{path});
        $by_port{$port}{left} = "$socket->{path}: $socket->{why}" if !$by_port{$port}{folder};
    }
    for my $path (@$foreign) {
        my ($folder, $port) = folder_and_port($path);
        $by_port{$port}{foreign} = $path if $by_port{$port} && !$by_port{$port}{folder};
    }
    my @servers = map { bless { limit => 60, lock_milliseconds => 60_000, product => 'PostgreSQL',
        label => "PostgreSQL (port $_)", port => $_, %options, %{ $by_port{$_} } }, $class }
        sort { $a <=> $b } keys %by_port;
    connect_all(@servers);
    return @servers;
}

# All that may be sockets of servers.
sub sockets {
    my ($tree) = @_;
    return map {
        my $folder = $_;
        map {"$folder/$_"} grep {/\A\.s\.PGSQL\.[0-9]{1,5}\z/} $tree->list($folder)
    } @SOCKET_FOLDERS;
}

sub folder_and_port { return $_[0] =~ m{\A(.*)/[^/]*\.([0-9]+)\z} }

# Those that do not answer take together no longer than one that does not.
sub connect_all {
    my (@servers) = @_;
    my $until = @servers ? Time::HiRes::time() + $servers[0]{limit} : 0;
    while (my $server = shift @servers) {
        my $left = $until - Time::HiRes::time();
        local $server->{limit} = $left > 0 ? $left / (1 + @servers) : 0.1;
        $server->connect;
    }
    return;
}

# The servers that are set up: { port, automatic => whether they start with the host }.
sub clusters {
    my ($tree) = @_;
    my @found;
    for my $folder (map { $tree->glob($_) } @CLUSTERS) {
        my @lines = $tree->read_lines("$folder/postgresql.conf");
        next if !@lines && !$tree->exists("$folder/postgresql.conf") && $! != EACCES;
        my ($port) = map { /^\s*port\s*=?\s*'?([0-9]+)/ ? $1 : () } reverse @lines;
        my $start = first { /^\w/ } $tree->read_lines("$folder/start.conf");
        push @found, { port => $port || $DEFAULT_PORT,
            automatic => !defined $start || $start =~ /^auto/ ? 1 : 0 };
    }
    return @found;
}

sub connect {
    my ($self) = @_;
    my $error = 'it is not running';
    $error .= " ($self->{left})" if defined $self->{left};
    $error .= ", and the server at $self->{foreign} is not the host's" if defined $self->{foreign};
    if ($self->{folder}) {
        my $rows;
        ($rows, $error) = $self->choose_program('psql') ? $self->ask('SHOW server_version')
            : (undef, 'its client program is not installed');
        ($self->{version}) = $rows->[0][0] =~ /\A(\S+)/ if $rows && @$rows;
    }
    return if !defined $error;
    # One that somebody stopped on purpose is no fault.
    my $severity = $self->{folder} || $self->{left} || $self->{automatic} ? 'error' : 'info';
    $self->problem($severity, undef, "The server cannot be asked: $error");
    return;
}

# What a list of servers tells about this one.
sub description {
    my ($self) = @_;
    my $address = $self->{folder} ? "$self->{folder}/.s.PGSQL.$self->{port}" : undef;
    return { kind => 'postgresql', label => $self->{label}, product => 'PostgreSQL',
        version => $self->{version}, address => $address, running => defined $self->{version} ? 1 : 0 };
}

# The program of the server's own major version, or the newest: older ones refuse.
sub choose_program {
    my ($self, $name) = @_;
    my @programs = grep { -x && -f _ } map { $self->{tree}->path($_) . "/$name" }
        map { $self->{tree}->glob($_) } @PROGRAM_FOLDERS;
    my ($major) = defined $self->{version} ? $self->{version} =~ /\A([0-9]{2}|[0-9]\.[0-9]+)/ : ();
    my ($same) = defined $major ? grep { m{[/-]\Q$major\E/bin/} } @programs : ();
    my ($newest) = sort { number($b) <=> number($a) } @programs;
    return $same || $newest || which($name);
}

sub number { return $_[0] =~ m{([0-9.]+)/bin/} ? $1 : 0 }

# The command that runs a program of the server's clients: as the server's own
# account when we may, which it knows without a password.
sub command {
    my ($self, $program, @arguments) = @_;
    my ($uid, $gid) = @{ $self->{owner} };
    my @to = ('--host', $self->{tree}->path($self->{folder}), '--port', $self->{port}, '--no-password');
    return [$program, @to, @arguments] if $> || !$uid;
    my $name = getpwuid $uid;
    push @to, '--username', $name if defined $name;
    return [$^X, '-e', $AS_ACCOUNT, $uid, $gid, $program, @to, @arguments];
}

# What names a database to the clients. They go away when another account has put a
# server there meanwhile.
sub connection_to {
    my ($self, $name) = @_;
    my $account = $self->clients_know_peers ? getpwuid $self->{owner}[0] : undef;
    return 'dbname=' . escaped($name) . (defined $account ? ' requirepeer=' . escaped($account) : '');
}

# The clients look whose the server is since version 9.1.
sub clients_know_peers {
    my ($self) = @_;
    if (!defined $self->{knows_peers}) {
        my $version = run([$self->choose_program('psql'), '--version'], limit => 20)->{out};
        $self->{knows_peers} = $version =~ /\b([0-9]+)\.([0-9]+)/ && ($1 > 9 || $1 == 9 && $2 > 0) ? 1 : 0;
    }
    return $self->{knows_peers};
}

# Objects that somebody made in a database must not stand in for the system's own.
sub environment {
    my %clean = map { $_ => undef } grep { /\APG/ } keys %ENV;
    return { %clean, PGCLIENTENCODING => 'UTF8', PGOPTIONS => '-c search_path=pg_catalog',
        PGCONNECT_TIMEOUT => 10 };
}

# Runs one query: (rows, undef), or (undef, what went wrong).
sub ask {
    my ($self, $sql, $database) = @_;
    my $name = defined $database ? $database : 'postgres';
    my ($out, $error) = $self->question($self->command($self->choose_program('psql'), '--no-psqlrc',
        '--quiet', '--no-align', '--tuples-only', '--field-separator', $FIELD, '--record-separator', $ROW,
        '--set', 'ON_ERROR_STOP=1', '--dbname', $self->connection_to($name), '--file', '-'), "$sql;");
    return undef, $error if defined $error;
    $out =~ s/\n\z//;
    return [map { [split /$FIELD/, $_, -1] } split /$ROW/, $out], undef;
}

sub hex_of { return "encode(textsend(($_[0])::text), 'hex')" }

sub text_of { return pack 'H*', $_[0] }

# Every database but the server's own: its templates, and the other one unless somebody uses it.
sub databases {
    my ($self) = @_;
    return if !defined $self->{version};
    my ($rows, $error) = $self->ask('SELECT oid, ' . hex_of('datname') . ", datallowconn,
        CASE WHEN has_database_privilege(oid, 'CONNECT') THEN pg_database_size(oid) END
        FROM pg_database WHERE datname NOT IN ('template0', 'template1') ORDER BY datname");
    if (defined $error) {
        $self->problem('error', undef, "The databases cannot be listed: $error");
        return;
    }
    my @databases;
    for (@$rows) {
        my ($id, $name, $allowed, $bytes) = @$_;
        $name = text_of($name);
        next if is_of_server({ name => $name }) && !$self->in_use($name);
        push @databases, { kind => 'postgresql', server => $self->{label}, name => $name, id => $id,
            bytes => length $bytes ? $bytes : undef, users => [$self->users($id)],
            closed => $allowed eq 'f' };
    }
    return @databases;
}

sub in_use {
    my ($self, $name) = @_;
    my ($rows) = $self->ask("SELECT 1 FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace
        WHERE c.oid >= 16384 AND n.nspname <> 'information_schema' AND n.nspname !~ '^pg_' LIMIT 1", $name);
    return $rows && @$rows;
}

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

# Whether a password is that of the role: 1, 0, or undef where this cannot be told.
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

# A database that every server has is not made anew, only filled.
sub is_of_server { return $_[0]{name} eq 'postgres' }

# The folders of tablespaces are the host's: on another one there is but the default.
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

sub identifier {
    my ($name) = @_;
    $name =~ s/"/""/g;
    return qq("$name");
}

sub literal {
    my ($text) = @_;
    my $escaped = $text =~ s/\\/\\\\/g ? 'E' : '';
    $text =~ s/'/''/g;
    return "$escaped'$text'";
}

my $ENCODING = "SET client_encoding = 'UTF8';\n";

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
