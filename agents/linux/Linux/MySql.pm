# The MySQL or MariaDB server of this host, asked and dumped by its own client
# programs. It logs in as these do by themselves or by an option file of the host;
# a password is never an argument, and nothing on the server changes.
package Linux::MySql;

use strict;
use warnings;
use base 'Linux::DatabaseServer';
use Agent::Process qw(run which);
use Errno qw(EACCES);
use Linux::DatabaseServer qw(one_line escaped trusted_sockets);
use List::Util qw(first);

my $VIEWS_AT_ONCE = 50;

my @SERVER_PROGRAMS = map { my $dir = $_; map {"$dir/$_"} qw(mariadbd mysqld) }
    qw(/usr/sbin /usr/libexec /usr/local/sbin);
my @SETTINGS = qw(/etc/my.cnf /etc/my.cnf.d/*.cnf /etc/mysql/my.cnf /etc/mysql/*/*.cnf);
my @SOCKETS  = qw(/run/mysqld/mysqld.sock /var/run/mysqld/mysqld.sock /var/lib/mysql/mysql.sock
    /run/mysql/mysql.sock /tmp/mysql.sock);
my $ACCOUNT = 'mysql';
my $SECTION_OF_SERVER = qr/\A(?:mysqld|mariadbd?|server|galera)(?:_safe|[.-].*)?\z/;
my @LOGINS = qw(/etc/sondrel/mysql.cnf /root/.my.cnf /etc/mysql/debian.cnf);
my $SYSTEM = qr/\A(?:information_schema|performance_schema|mysql|sys|ndbinfo)\z/i;

# Engines whose tables a single transaction reads as they were at its start.
my $TRANSACTIONAL = join ', ', map {"'$_'"} qw(InnoDB XtraDB TokuDB RocksDB ndbcluster);

# After these the rest of a dump is missing, not only one table's rows.
my $CONNECTION_ERROR = qr/\b(?:1040|1045|1053|1130|1317|1698|1927|2002|2003|2006|2013|2055|4031)\b/;

# Where the server tells rights: what they are on, the table, and its columns for the
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

# Accounts that every server has for itself.
my $OF_SERVER = qr/\A(?:|root|mysql|(?:mysql|mariadb)\.[a-z]+|debian-sys-maint)\z/;

# What an application's SQL means depends on these.
my @SETTINGS_OF_MEANING = qw(character_set_server collation_server default_storage_engine event_scheduler
    explicit_defaults_for_timestamp lower_case_table_names sql_mode system_time_zone time_zone);

# Where the hashes of the passwords are: MariaDB, MySQL from 5.7, 5.5 and before.
my @ACCOUNT_COLUMNS = (
    q{plugin, HEX(IF(authentication_string = '', Password, authentication_string)), is_role = 'Y'},
    q{plugin, HEX(authentication_string), 0},
    q{plugin, HEX(IF(IFNULL(authentication_string, '') = '', Password, authentication_string)), 0},
    q{'', HEX(Password), 0},
);

# The servers of this kind that the host has: at most one, which may be down.
# Options: tree, problems, limit => seconds for one question.
sub found {
    my ($class, %options) = @_;
    my $self = bless { limit => 60, %options }, $class;
    $self->{settings} = [map { $self->settings_of($_) } map { $self->{tree}->glob($_) } @SETTINGS];
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

# What a list of servers tells about this one.
sub description {
    my ($self) = @_;
    my $running = defined $self->{version} ? 1 : 0;
    my %known = map { $_ => $self->{$_} } qw(label product version address);
    return { kind => 'mysql', running => $running, %known };
}

sub product {
    my ($self) = @_;
    return $self->{version} =~ /mariadb/i ? 'MariaDB' : 'MySQL' if defined $self->{version};
    return (first { $self->{tree}->exists($_) && m{/mariadbd\z} } @SERVER_PROGRAMS) ? 'MariaDB' : 'MySQL';
}

sub installed {
    my ($self) = @_;
    my $tree = $self->{tree};
    return if !grep { $tree->exists($_) } @SERVER_PROGRAMS;
    for my $folder ('/var/lib/mysql', $self->set('datadir')) {
        return 1 if $tree->is_dir("$folder/mysql") || $! == EACCES;
    }
    return 0;
}

# The settings in an option file: [section, name, value].
sub settings_of {
    my ($self, $file) = @_;
    my ($section, @settings) = ('');
    for ($self->{tree}->read_lines($file)) {
        if    (/^\s*\[([^\]]*)\]/) { $section = $1 }
        elsif (/^\s*([\w-]+)\s*=\s*["']?(.*?)["']?\s*(?:\s#.*)?\z/) {
            push @settings, [$section, $1, $2];
        }
    }
    return @settings;
}

# What root's settings give a server for a name.
sub set {
    my ($self, $name) = @_;
    return map { $_->[2] } grep { $_->[0] =~ $SECTION_OF_SERVER && $_->[1] eq $name && length $_->[2] }
        @{ $self->{settings} };
}

# Where the server may listen: as it or its clients have it, and the usual places.
sub sockets {
    my ($self) = @_;
    my @settings = ((map { $self->settings_of($_) } @LOGINS), @{ $self->{settings} });
    return ((grep {m{\A/}} map { $_->[1] eq 'socket' ? $_->[2] : () } @settings), @SOCKETS);
}

# Finds out how to log in. Returns undef, or why it did not succeed.
sub connect {
    my ($self, @sockets) = @_;
    return 'its client program is not installed' if !$self->{client};
    my @errors;
    for my $login ($self->logins(@sockets)) {
        $self->{login} = $login;
        my ($rows, $error) = $self->ask('SELECT VERSION(), @@socket;');
        if (!defined $error && @$rows) {
            @$self{qw(version address)} = @{ $rows->[0] };
            return;
        }
        $error = 'it does not say what it is' if !defined $error;
        push @errors, $error if !grep { $_ eq $error } @errors;
        last if $error =~ /\Ano answer/;
    }
    return @errors ? join '; ', @errors : 'no server of the host listens at any of its sockets';
}

# The arguments to log in with, in the order to try: by each option file and to
# each socket, whatever socket or host the file names. Below another root than "/" the
# settings of this host do not count.
sub logins {
    my ($self, @sockets) = @_;
    my $tree  = $self->{tree};
    my $here  = $tree->root eq '/';
    my @files = grep { $tree->is_file($_) && -r $tree->path($_) } @LOGINS;
    my $own   = @files && $files[0] eq $LOGINS[0] ? shift @files : undef;
    my $option = $here ? '--defaults-extra-file=' : '--defaults-file=';
    my @by = map { defined $_ ? [$option . $tree->path($_)] : [$here ? () : '--no-defaults'] }
        (defined $own ? $own : ()), undef, @files;
    my @to = map { ['--protocol=socket', '--host=localhost', '--socket=' . $tree->path($_->{path})] }
        @sockets;
    return map { my $by = $_; map { [@$by, @$_] } @to } @by;
}

# Passwords, other servers, option files and plugins of the one who calls us do not count.
sub environment {
    return { map { $_ => undef } grep {/\A(?:LIB)?(?:MYSQL|MARIADB)_/} keys %ENV };
}

# The arguments that keep a server from getting more than an answer to a challenge: it can
# ask for the password as it is, which is what some plugins of the client programs give,
# and for any file that root may read. Each program knows its own of them.
sub guards {
    my ($self, $program) = @_;
    my $knows = $self->{knows}{$program} ||= run([$program, '--no-defaults', '--help'], limit => 20)->{out};
    return (
        ($knows =~ /^\s+--plugin-dir=/m ? '--plugin-dir=/dev/null' : ()),
        ($knows =~ /^\s+--enable-cleartext-plugin\s+Enable/m ? '--skip-enable-cleartext-plugin' : ()),
        ($knows =~ /^\s+--local-infile\b/m ? '--local-infile=0' : ()),
    );
}

# Runs SQL: (rows, undef), or (undef, what went wrong).
sub ask {
    my ($self, $sql) = @_;
    my ($out, $error) = $self->question([$self->{client}, @{ $self->{login} },
        $self->guards($self->{client}), '--batch', '--skip-column-names', '--no-auto-rehash',
        '--default-character-set=utf8'], $sql);
    # Some clients repeat the statement before they say what is wrong with it.
    $error =~ s/\A-{5}.*-{5} (?=ERROR [0-9])//s if defined $error;
    return undef, $error if defined $error;
    return [map { [map { unescaped($_) } split /\t/, $_, -1] } split /\n/, $out], undef;
}

my %ESCAPED = (n => "\n", t => "\t", 0 => "\0");

sub unescaped {
    my ($field) = @_;
    $field =~ s/\\(.)/defined $ESCAPED{$1} ? $ESCAPED{$1} : $1/gse;
    return $field;
}

sub identifier {
    my ($name) = @_;
    $name =~ s/`/``/g;
    return "`$name`";
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

# Name and host of an account as information_schema has it; nothing for what is none.
sub grantee { return $_[0] =~ /\A'(.*)'\@'([^']*)'\z/s }

sub sizes {
    my ($self) = @_;
    my ($rows, $error) = $self->ask('SELECT table_schema, IFNULL(SUM(data_length + index_length), 0)'
        . ' FROM information_schema.tables GROUP BY table_schema;');
    return { map {@$_} @$rows } if !defined $error;
    $self->problem('warning', undef, "The sizes of the databases are not known: $error");
    return;
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
    $add->(@$_{qw(name host)}) for grep { is_about($_, $database) } @{ $self->grants };
    # A role's members have what it has, and so have theirs.
    my $before = -1;
    while ($before != keys %users) {
        $before = keys %users;
        $users{"$_->[2]\0$_->[3]"} && $add->(@$_[0, 1]) for @{ $self->memberships };
    }
    return map { $users{$_} } sort keys %users;
}

sub is_about {
    my ($grant, $database) = @_;
    return $grant->{pattern} ? $database =~ $grant->{pattern} : $database eq $grant->{database};
}

# What a name of a database in a grant stands for, where it may hold wildcards.
sub pattern {
    my ($text) = @_;
    my $out = '';
    while ($text =~ /\G(?:\\(.)|(%)|(_)|(.))/gs) {
        $out .= defined $2 ? '.*' : defined $3 ? '.' : quotemeta(defined $1 ? $1 : $4);
    }
    return qr/\A$out\z/s;
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

# Hands over the SQL that makes the database anew, piece by piece: its accounts, the
# database, what was granted. undef when it is whole; else why it is not. What is
# left out of an otherwise good dump becomes a problem. Options: tick => sub {}.
sub dump {
    my ($self, $database, $sink, %options) = @_;
    return 'the program that dumps is not installed' if !$self->{dump};
    my ($broken, $error) = $self->broken_views($database);
    return $error if defined $error;
    $self->name_unsteady_tables($database);
    $self->name_missing_definers($database);
    my ($before, $after) = $self->account_statements($database);
    $sink->($before);
    $error = $self->dump_tables($database, $broken, $sink, %options);
    return $error if defined $error;
    $sink->($self->definitions($database, @$broken) . $after);
    return;
}

# Views that cannot be read any more end a dump, and so does making them anew.
sub broken_views {
    my ($self, $database) = @_;
    my ($rows, $error) = $self->ask('SELECT table_name FROM information_schema.views WHERE table_schema = '
        . escaped($database->{name}) . ' ORDER BY 1;');
    return undef, $error if defined $error;
    my @views = map { $_->[0] } @$rows;
    my @broken;
    while (my @some = splice @views, 0, $VIEWS_AT_ONCE) {
        $error = $self->fields_error($database, @some);
        next if !defined $error;
        for my $view (@some) {
            $error = $self->fields_error($database, $view);
            next if !defined $error;
            return undef, $error if $error =~ $CONNECTION_ERROR;
            push @broken, $view;
            $self->problem('warning', $database, "The view $view cannot be read and stays out: $error");
        }
    }
    return \@broken, undef;
}

sub fields_error {
    my ($self, $database, @views) = @_;
    my $in = identifier($database->{name});
    my @questions = map { 'SHOW FIELDS FROM ' . identifier($_) . " FROM $in;\n" } @views;
    my (undef, $error) = $self->ask(join '', @questions);
    return $error;
}

sub name_unsteady_tables {
    my ($self, $database) = @_;
    my ($rows) = $self->ask('SELECT table_name FROM information_schema.tables WHERE table_schema = '
        . escaped($database->{name})
        . " AND table_type = 'BASE TABLE' AND engine NOT IN ($TRANSACTIONAL) ORDER BY 1;");
    return if !$rows || !@$rows;
    $self->problem('warning', $database, 'What changes in these tables while they are dumped may be half in'
        . ' the dump, since their engine has no transactions: ' . join ', ', map { $_->[0] } @$rows);
    return;
}

# What runs as an account that is not there fails when it is used, not when it is made.
sub name_missing_definers {
    my ($self, $database) = @_;
    my %missing = map { ("$_->{name}\@$_->{host}" => 1) }
        grep { !$_->{known} && $_->{name} !~ /\A(?:root|mariadb\.sys|mysql\.sys)\z/ }
        $self->definers($database);
    return if !%missing;
    $self->problem('warning', $database, 'Views, routines, triggers or events of it run as accounts that are'
        . ' not in the dump, and fail until the new host has them: ' . join ', ', sort keys %missing);
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
        grants => [map { grant($_) } grep { is_about($_, $database->{name}) } @{ $self->grants }],
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

sub dump_tables {
    my ($self, $database, $broken, $sink, %options) = @_;
    my $command = $self->dump_command($database, $broken);
    my $result = $self->stream_dump($command, qr/^-- Dump completed/m, $sink, %options);
    my @errors = grep { /\S/ && !/\A(?:\S+: )?(?:-- )?\[?warning\b/i } split /\n/, $result->{err};
    return one_line($result->{err}) if !$result->{complete} || grep { $_ =~ $CONNECTION_ERROR } @errors;
    return "the program that dumps ended with status $result->{status}" if $result->{status} && !@errors;
    $self->problem('error', $database, "Not in the dump: $_") for map { one_line($_) } @errors;
    return;
}

# What these programs know differs much between their versions.
sub dump_command {
    my ($self, $database, $broken) = @_;
    my @guards = $self->guards($self->{dump});
    my $knows = $self->{knows}{ $self->{dump} };
    my @known = grep { /^--(?:skip-)?([\w-]+)/ && $knows =~ /--(?:skip-)?\Q$1\E\b/ } qw(
        --no-tablespaces --dump-history --events --skip-dump-date --set-gtid-purged=OFF
        --column-statistics=0);
    my $utf8 = $self->{version} =~ /\A5\.(?:[01]\.|5\.[012]\b)/ ? 'utf8' : 'utf8mb4';
    return [$self->{dump}, @{ $self->{login} }, @guards, '--single-transaction', '--quick', '--force',
        '--routines', '--triggers', '--hex-blob', '--max-allowed-packet=1G',
        "--default-character-set=$utf8", @known,
        (map {"--ignore-table=$database->{name}.$_"} @$broken), '--databases', '--', $database->{name}];
}

# How the views were made that cannot be read, for a person to mend.
sub definitions {
    my ($self, $database, @views) = @_;
    my $out = '';
    for my $view (@views) {
        my $name = identifier($database->{name}) . '.' . identifier($view);
        my ($rows) = $self->ask("SHOW CREATE VIEW $name;");
        $out .= comment("This view could not be read:\n$rows->[0][1]") if $rows && @$rows;
    }
    return $out;
}

sub comment {
    my ($text) = @_;
    return join '', map {"-- $_\n"} split /[\r\n]+/, $text;
}

# A name in backticks, a text, a role by its name or name and host, and a list of these,
# as parts of longer expressions.
my $QUOTED = qr/`(?:[^`]|``)*`/;
my $TEXT = qr/'(?:[^'\\]|\\.|'')*'/s;
my $ROLE = qr/(?:$QUOTED|[^`'\s,\@]+)(?:\@(?:$QUOTED|$TEXT))?/;
my $ROLES = qr/$ROLE(?:, *$ROLE)*/;

# The statements for the accounts, which come first, and for what they may do, which
# need the tables to be there.
sub account_statements {
    my ($self, $database) = @_;
    my (@accounts, @grants, @defaults_of);
    for my $user (@{ $database->{users} }) {
        my ($statement, @defaults) = $self->account_statement($user);
        my ($given, $error) = $self->given($user, $database);
        if (!defined $statement || defined $error) {
            my $why = defined $error ? $error : 'the server does not show its password';
            $self->problem('error', $database, 'The account ' . account($user) . ' and its grants are not in'
                . " the dump: $why. Dump as root, or make the account on the new host");
            next;
        }
        push @accounts, $statement;
        push @grants, @$given;
        @defaults = roles_of($database, @defaults);
        push @defaults_of, 'SET DEFAULT ROLE ' . join(', ', @defaults) . ' TO ' . account($user) if @defaults;
    }
    my $before = comment("Accounts of the database $database->{name}") . join '', map {"$_;\n"} @accounts;
    my $after = "\n" . comment('What the accounts may do') . join '', map {"$_;\n"} @grants, @defaults_of;
    return "$before\n", $after;
}

sub account {
    my ($user) = @_;
    return identifier($user->{name}) if $user->{role};
    return identifier($user->{name}) . '@' . identifier($user->{host});
}

# The statement that makes an account, undef where it cannot be known; and the roles that
# are on from its login. MySQL has these in the statement, which fails where they are not
# there yet and not given: they come after all accounts and grants instead.
sub account_statement {
    my ($self, $user) = @_;
    my $account = account($user);
    return "CREATE ROLE IF NOT EXISTS $account" if $user->{role};
    # The hashes of MySQL 8 are bytes that no text holds; others take this for a comment.
    my ($rows) = $self->ask('/*!80017 SET SESSION print_identified_with_as_hex = 1 */;'
        . " SHOW CREATE USER $account;");
    if ($rows && @$rows) {
        my $statement = $rows->[-1][0];
        $statement =~ s/\ACREATE USER (?!IF NOT EXISTS)/CREATE USER IF NOT EXISTS /;
        $statement =~ s/ IDENTIFIED BY PASSWORD ('[^']*')/ IDENTIFIED WITH mysql_native_password AS $1/;
        my @roles = $statement =~ s/\A((?:$QUOTED|$TEXT|[^`'])*?) DEFAULT ROLE ($ROLES)/$1/ ? roles($2) : ();
        return ($statement, @roles);
    }
    my $known = ($self->accounts->{ $user->{name} } || {})->{ $user->{host} };
    return if !$known;
    my $plugin = length $known->{plugin} ? $known->{plugin} : 'mysql_native_password';
    return "CREATE USER IF NOT EXISTS $account IDENTIFIED WITH $plugin AS " . escaped($known->{hash});
}

# The roles in a list of them, each as it is written there.
sub roles {
    my ($list) = @_;
    return $list =~ /\G(?:, *)?($ROLE)/g;
}

# Those of the written roles that are in the dump of a database.
sub roles_of {
    my ($database, @roles) = @_;
    my %known = map { ("$_->{name}\0$_->{host}" => 1) } @{ $database->{users} };
    return grep {
        my ($name, $host) = /\A($QUOTED|[^`\@]+)(?:\@(.+))?\z/s;
        $known{ name($name) . "\0" . (defined $host ? name($host) : '') }
    } @roles;
}

# The grants of an account that are about the database, or about a role of it.
sub given {
    my ($self, $user, $database) = @_;
    my ($rows, $error) = $self->ask('SHOW GRANTS FOR ' . account($user) . ';');
    return undef, $error if defined $error;
    my @given;
    for my $statement (map { $_->[0] } @$rows) {
        if ($statement =~ /\AGRANT (?:[^`]|$QUOTED)*? ON (?:[A-Z ]+ )?($QUOTED)\.(\*?)/s) {
            my ($scope, $all) = (name($1), $2);
            push @given, $statement
                if $all ? $database->{name} =~ pattern($scope) : $database->{name} eq $scope;
        }
        elsif ($statement =~ /\A(GRANT|SET DEFAULT ROLE) ($ROLES)( (?:TO|FOR) .*)\z/s) {
            my ($what, $to, @roles) = ($1, $3, roles_of($database, roles($2)));
            push @given, "$what " . join(', ', @roles) . $to if @roles;
        }
        elsif ($statement =~ /\AGRANT (?!USAGE ON)(?:(.*) ON \*\.\*|(PROXY ON .*) TO )/s) {
            $self->problem('warning', $database, 'The account ' . account($user) . ' loses its server-wide'
                . ' rights. Give it those anew that it needs: ' . (defined $1 ? $1 : $2));
        }
    }
    return \@given, undef;
}

sub name {
    my ($quoted) = @_;
    $quoted =~ s/``/`/g if $quoted =~ s/\A`(.*)`\z/$1/s;
    $quoted =~ s/''/'/g if $quoted =~ s/\A'(.*)'\z/$1/s;
    return $quoted;
}

1;
