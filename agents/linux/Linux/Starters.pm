# The files that start services: units of systemd, and settings of supervisor, uWSGI, pm2 and the like.
package Linux::Starters;

use strict;
use warnings;
use Exporter 'import';
use Fcntl qw(S_IWGRP S_IWOTH);
use Linux::Units;

our @EXPORT_OK = qw(words_with_paths);

my @UNITS = qw(/etc/systemd/system /run/systemd/system /usr/local/lib/systemd/system /lib/systemd/system
    /usr/lib/systemd/system);
my $IN_HOME = '.config/systemd/user';

# Files of root's that start application servers. A pattern of a package's units comes last: what is
# the host's own says more.
my @STARTERS = qw(/etc/systemd/system/*.service /etc/systemd/system/*.socket /etc/systemd/system/*.d/*.conf
    /etc/supervisor/conf.d/*.conf /etc/supervisor/*.conf /etc/supervisord.d/*.ini /etc/supervisord.conf
    /etc/uwsgi/apps-enabled/* /etc/uwsgi/vassals/* /etc/uwsgi-emperor/vassals/* /etc/uwsgi.d/*.ini
    /etc/gunicorn.d/* /etc/init.d/* /etc/default/* /usr/local/lib/systemd/system/*.service
    /lib/systemd/system/*.service /lib/systemd/system/*.socket);
my @STARTERS_IN_HOMES = ("$IN_HOME/*.service", '.pm2/dump.pm2', 'ecosystem.config.js');

# What they set, in the files of units, supervisor, uWSGI and pm2.
my %SETS_DIRECTORY = map { $_ => 1 } qw(WorkingDirectory directory chdir chdir2 pythonpath pm_cwd cwd);
my %STARTS_PROGRAM = map { $_ => 1 } qw(ExecStart command wsgi-file pm_exec_path home virtualenv script);

my $MOST_BYTES = 256 * 1024;

# tree, users => Linux::Users.
sub new {
    my ($class, %options) = @_;
    return bless {%options}, $class;
}

# The files of the unit that a process runs in, and what they say: { name, files, needs, of_root,
# settings => { key => [values] }, file }; undef where there is no such file.
sub unit {
    my ($self, $process) = @_;
    my $name = $process->{unit};
    my @directories = @UNITS;
    if (defined $process->{session_of}) {
        my $account = $self->{users}->by_uid($process->{session_of});
        @directories = (($account ? "$account->{home}/$IN_HOME" : ()), '/etc/systemd/user');
    }
    return $self->unit_in($name, @directories);
}

sub unit_in {
    my ($self, $name, @directories) = @_;
    my $tree = $self->{tree};
    (my $template = $name) =~ s/\@[^.]*\./\@./;
    my ($file) = grep { $tree->is_file($_) } map { my $name = $_; map {"$_/$name"} @directories } $name,
        $template;
    return undef if !defined $file;
    my @files = ($file, map { $tree->glob("$_/$name.d/*.conf"),
        $tree->glob("$_/$template.d/*.conf") } @directories);
    my %seen;
    @files = grep { !$seen{$_}++ && $tree->is_file($_) } @files;
    (my $socket = $file) =~ s/\.service\z/.socket/;
    push @files, $socket if $socket ne $file && $tree->is_file($socket);
    my %settings;
    for my $part (@files) {
        my $text = $tree->read_file($part, $MOST_BYTES);
        my $service = defined $text ? Linux::Units::settings($text)->{Service} || {} : {};
        # One more value takes the place of the last, but for lists.
        push @{ $settings{$_} }, @{ $service->{$_} } for keys %$service;
    }
    my ($instance) = $name =~ /\@(.*)\.\w+\z/;
    for (map {@$_} values %settings) { s/%[iI]/defined $instance ? $instance : ''/ge }
    return { name => $name, file => $file, files => \@files, settings => \%settings,
        of_root => $self->is_of_root(@files) };
}

# True for files that nobody but root may change.
sub is_of_root {
    my ($self, @files) = @_;
    return !grep {
        my @stat = $self->{tree}->stat($_);
        !@stat || $stat[4] || $stat[2] & (S_IWGRP | S_IWOTH);
    } @files;
}

# Those that name an address: [{ file, unit, of_root, uid, user, directories, needs }].
sub naming {
    my ($self, $address) = @_;
    my $pattern = defined $address->{socket} ? qr/(?<![\w\/.-])\Q$address->{socket}\E(?![\w\/.-])/
        : qr/(?:[:=\s"']|\A)$address->{port}(?![\w.])/;
    my $port_only = !defined $address->{socket};
    my @found;
    for my $starter ($self->all) {
        my @lines = grep { $_ =~ $pattern } @{ $starter->{lines} };
        # A number alone may be anything: it must stand where an address does.
        @lines = grep { /listen|bind|port|http|socket|address|host|server|:$address->{port}/i } @lines
            if $port_only;
        push @found, $starter if @lines;
    }
    my @of_host = grep { $_->{file} !~ m{\A/(?:usr/)?lib/} } @found;
    return @of_host ? @of_host : @found;
}

# Those that start services in a directory, as naming() gives them.
sub in {
    my ($self, $directory) = @_;
    return grep {
        grep { my $real = $self->{tree}->real($_); defined $real
            && $real eq $directory } @{ $_->{directories} }
    } $self->all;
}

# All of them, read once for all sites.
sub all {
    my ($self) = @_;
    my $tree = $self->{tree};
    $self->{all} ||= [map { $self->starter($_) } map { $tree->glob($_) } @STARTERS,
        map { my $home = $_->{home}; map {"$home/$_"} @STARTERS_IN_HOMES }
            grep { $_->{home} =~ m{\A/.} && !$self->{users}->is_system($_) } $self->{users}->all];
    return @{ $self->{all} };
}

sub starter {
    my ($self, $file) = @_;
    my $tree = $self->{tree};
    my $text = $tree->is_file($file) ? $tree->read_file($file, $MOST_BYTES) : undef;
    return if !defined $text;
    my ($name) = $file =~ m{([^/]+)\z};
    my @lines = grep { !/\A\s*[#;]/ } split /\r?\n/, $text;
    my @needs = map {m{\A\s*EnvironmentFile\s*=\s*-?(/[^%*?\[]*?)\s*\z} ? $1 : ()} @lines;
    @needs = grep { $tree->is_file($_) } @needs;
    my $of_root = $self->is_of_root($file);
    push @lines, map { $tree->read_lines($_, $MOST_BYTES) } @needs if $of_root;
    my @stat = $tree->stat($file);
    my ($user) = map {/\A\s*(?:User|user|uid)\s*=\s*"?([\w.-]+)/ ? $1 : ()} @lines;
    $user = $self->{users}->name_of($stat[4]) if !defined $user;
    my @directories = map {directories_in($_)} @lines;
    if ($name =~ /\A(.+)\.socket\z/) {
        my $unit = $self->unit_in("$1.service", @UNITS);
        return { %{ $self->starter($unit->{file}) || {} }, lines => \@lines } if $unit
            && $unit->{file} ne $file;
    }
    return { file => $file, of_root => $of_root, uid => $stat[4], user => $user, needs => \@needs,
        unit => $name =~ /\.service\z/ ? $name : undef, lines => \@lines,
        directories => [map { $self->expanded($_, $stat[4]) } @directories] };
}

# Directories that a line sets or whose programs it starts.
sub directories_in {
    my ($line) = @_;
    my ($key, $value) = $line =~ m{\A\s*["']?([\w-]+)["']?\s*[=:]\s*["']?(.*?)["']?,?\s*\z} or return;
    return $value if $SETS_DIRECTORY{$key} && $value =~ m{\A[~%/]};
    return $STARTS_PROGRAM{$key} ? words_with_paths($value) : ();
}

# A path as the settings of an account have it, with its home in place.
sub expanded {
    my ($self, $path, $uid) = @_;
    my $account = $self->{users}->by_uid($uid);
    $path =~ s/\A-//;
    $path =~ s/\A(?:~|%h)(?=\/|\z)/$account ? $account->{home} : ''/e;
    return $path;
}

# The absolute paths that stand in arguments, also after "=".
sub words_with_paths {
    return map {m{\A[-\@:+!|]*(?:[\w.-]+=)?["']?(/[^"']+)} ? $1 : ()} map { split ' ' } @_;
}

1;
