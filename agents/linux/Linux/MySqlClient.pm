# How a server of MySQL or MariaDB is found, logged in to and asked: methods of Linux::MySql, which
# has { tree, problems, limit, client => the client program, if there is one } and gets { login =>
# [arguments], version, address } by connect(). A password is never an argument.
package Linux::MySqlClient;

use strict;
use warnings;
use base 'Linux::DatabaseServer';
use Agent::Process qw(run);
use Errno qw(EACCES);
use Linux::MySqlText qw(unescaped);
use List::Util qw(first);

my @SERVER_PROGRAMS = map { my $dir = $_; map {"$dir/$_"} qw(mariadbd mysqld) }
    qw(/usr/sbin /usr/libexec /usr/local/sbin);
my @SETTINGS = qw(/etc/my.cnf /etc/my.cnf.d/*.cnf /etc/mysql/my.cnf /etc/mysql/*/*.cnf);
my @SOCKETS  = qw(/run/mysqld/mysqld.sock /var/run/mysqld/mysqld.sock /var/lib/mysql/mysql.sock
    /run/mysql/mysql.sock /tmp/mysql.sock);
my $SECTION_OF_SERVER = qr/\A(?:mysqld|mariadbd?|server|galera)(?:_safe|[.-].*)?\z/;
my @LOGINS = qw(/etc/sondrel/mysql.cnf /root/.my.cnf /etc/mysql/debian.cnf);

sub product {
    my ($self) = @_;
    return $self->{version} =~ /mariadb/i ? 'MariaDB' : 'MySQL' if defined $self->{version};
    return (first { $self->{tree}->exists($_) && m{/mariadbd\z} } @SERVER_PROGRAMS) ? 'MariaDB' : 'MySQL';
}

sub installed {
    my ($self) = @_;
    my $tree = $self->{tree};
    return if !grep { $tree->exists($_) } @SERVER_PROGRAMS;
    for my $directory ('/var/lib/mysql', $self->set('datadir')) {
        return 1 if $tree->is_dir("$directory/mysql") || $! == EACCES;
    }
    return 0;
}

# Reads the host's option files, which set() and sockets() look in.
sub read_settings {
    my ($self) = @_;
    $self->{settings} = [map { $self->settings_of($_) } map { $self->{tree}->glob($_) } @SETTINGS];
    return;
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

1;
