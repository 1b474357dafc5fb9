# The dump of a database of MySQL or MariaDB: methods of Linux::MySql. Nothing on the server changes.
package Linux::MySqlDump;

use strict;
use warnings;
use Linux::DatabaseServer qw(one_line escaped);
use Linux::MySqlText qw($QUOTED $TEXT $ROLES account comment identifier name pattern roles);

my $VIEWS_AT_ONCE = 50;

# Engines whose tables a single transaction reads as they were at its start.
my $TRANSACTIONAL = join ', ', map {"'$_'"} qw(InnoDB XtraDB TokuDB RocksDB ndbcluster);

# After these the rest of a dump is missing, not only one table's rows.
my $CONNECTION_ERROR = qr/\b(?:1040|1045|1053|1130|1317|1698|1927|2002|2003|2006|2013|2055|4031)\b/;

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

1;
