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
    my ($sockets, $foreign) = trusted_sockets({ %options, product => 'MySQL or MariaDB', dump => 'mysqldump',
        accounts => [$ACCOUNT, $self->set('user')] }, $self->sockets);
    return if !$installed && !@$sockets;
    $self->{client} = which('mariadb') || which('mysql');
    $self->{dump}   = which('mariadb-dump') || which('mysqldump');
    my $error = $self->connect(@$sockets);
    $self->{product} = $self->{label} = $self->product;
    return $self if !defined $error;
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
    return @databases;
}

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
    for my $grant (@{ $self->grants }) {
        my ($name, $host, $scope) = @$grant;
        $add->($name, $host) if ref $scope ? $database =~ $scope : $database eq $scope;
    }
    # A role's members have what it has, and so have theirs.
    my $before = -1;
    while ($before != keys %users) {
        $before = keys %users;
        $users{"$_->[2]\0$_->[3]"} && $add->(@$_[0, 1]) for @{ $self->memberships };
    }
    return map { $users{$_} } sort keys %users;
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

# Every grant for a part of the server: [name, host, database or a pattern of names].
sub grants {
    my ($self) = @_;
    return $self->{grants} if $self->{grants};
    my @grants;
    for my $table (qw(schema_privileges table_privileges column_privileges)) {
        my ($rows, $error)
            = $self->ask("SELECT DISTINCT grantee, table_schema FROM information_schema.$table;");
        $self->problem('warning', undef, "The grants cannot be read: $error") if defined $error;
        for (@{ $rows || [] }) {
            my ($grantee, $scope) = @$_;
            next if $grantee !~ /\A'(.*)'\@'([^']*)'\z/s;
            push @grants, [$1, $2, $table eq 'schema_privileges' ? pattern($scope) : $scope];
        }
    }
    # Grants for single routines are nowhere else; only administrators may read this.
    my ($routines) = $self->ask('SELECT DISTINCT User, Host, Db FROM mysql.procs_priv;');
    push @grants, @{ $routines || [] };
    return $self->{grants} = \@grants;
}

# Who was given which role: [name, host, role's name, role's host].
sub memberships {
    my ($self) = @_;
    return $self->{memberships} if $self->{memberships};
    # Who makes a role is its member: root is no account of a database for that.
    my ($rows) = $self->ask("SELECT User, Host, Role, '' FROM mysql.roles_mapping WHERE User <> 'root';");
    ($rows) = $self->ask('SELECT TO_USER, TO_HOST, FROM_USER, FROM_HOST FROM mysql.role_edges;') if !$rows;
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
    my $name = escaped($database->{name});
    my %column = (views => 'table', routines => 'routine', triggers => 'trigger', events => 'event');
    my ($rows) = $self->ask(join(' UNION ', map { "SELECT definer FROM information_schema.$_"
            . " WHERE $column{$_}_schema = $name" } sort keys %column) . ' ORDER BY 1;');
    my %known = map { ("$_->{name}\@$_->{host}" => 1) } @{ $database->{users} };
    my @missing = grep { length && !$known{$_} && !/\A(?:root|mariadb\.sys|mysql\.sys)\@/ }
        map { $_->[0] } @{ $rows || [] };
    return if !@missing;
    $self->problem('warning', $database, 'Views, routines, triggers or events of it run as accounts that are'
        . ' not in the dump, and fail until the new host has them: ' . join ', ', @missing);
    return;
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
        '--routines', '--triggers', '--hex-blob', '--max-allowed-packet=1G', "--default-character-set=$utf8", @known,
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

# The statements for the accounts, which come first, and for what they may do, which
# need the tables to be there.
sub account_statements {
    my ($self, $database) = @_;
    my (@accounts, @grants);
    for my $user (@{ $database->{users} }) {
        my $statement = $self->account_statement($user);
        my ($given, $error) = $self->given($user, $database);
        if (!defined $statement || defined $error) {
            my $why = defined $error ? ": $error" : ', since the server does not show its password';
            $self->problem('warning', $database,
                'The account ' . account($user) . " and its grants are not in the dump$why");
            next;
        }
        push @accounts, $statement;
        push @grants, @$given;
    }
    my $before = comment("Accounts of the database $database->{name}") . join '', map {"$_;\n"} @accounts;
    my $after = "\n" . comment('What the accounts may do') . join '', map {"$_;\n"} @grants;
    return "$before\n", $after;
}

sub account {
    my ($user) = @_;
    return identifier($user->{name}) if $user->{role};
    return identifier($user->{name}) . '@' . identifier($user->{host});
}

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
        return $statement;
    }
    my $known = ($self->accounts->{ $user->{name} } || {})->{ $user->{host} };
    return if !$known;
    my $plugin = length $known->{plugin} ? $known->{plugin} : 'mysql_native_password';
    return "CREATE USER IF NOT EXISTS $account IDENTIFIED WITH $plugin AS " . escaped($known->{hash});
}

# A name in backticks, as a part of a longer expression.
my $QUOTED = qr/`(?:[^`]|``)*`/;

# The grants of an account that are about the database, or about a role of it.
sub given {
    my ($self, $user, $database) = @_;
    my ($rows, $error) = $self->ask('SHOW GRANTS FOR ' . account($user) . ';');
    return undef, $error if defined $error;
    my %roles = map { $_->{name} => 1 } @{ $database->{users} };
    my @given;
    for my $statement (map { $_->[0] } @$rows) {
        if ($statement =~ /\AGRANT (?:[^`]|$QUOTED)*? ON (?:[A-Z ]+ )?($QUOTED)\.(\*?)/s) {
            my ($scope, $all) = (name($1), $2);
            push @given, $statement
                if $all ? $database->{name} =~ pattern($scope) : $database->{name} eq $scope;
        }
        elsif ($statement =~ /\A(?:GRANT|SET DEFAULT ROLE) ($QUOTED|[^`\s]+)/ && $roles{ name($1) }) {
            push @given, $statement;
        }
        elsif ($statement =~ /\AGRANT (?!USAGE ON)(.*) ON \*\.\*/s) {
            $self->problem('info', $database,
                'The account ' . account($user) . " loses its server-wide rights: $1");
        }
    }
    return \@given, undef;
}

sub name {
    my ($quoted) = @_;
    $quoted =~ s/``/`/g if $quoted =~ s/\A`(.*)`\z/$1/s;
    return $quoted;
}

1;
