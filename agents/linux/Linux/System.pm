# Facts about the host itself: kernel, distribution, processors, memory, file
# systems and the programs that a migration uses.
package Linux::System;

use strict;
use warnings;
use Agent::Process qw(run which);
use Linux::Tree;
use POSIX ();

my $LIMIT = 5;

my @TOOLS = qw(
    tar gzip sudo openssl nice ionice mysql mysqldump mariadb mariadb-dump psql pg_dump pg_dumpall php
    getfacl setfacl rsync crontab df
);

my %OF_KERNEL = map { $_ => 1 } qw(
    autofs binfmt_misc bpf cgroup cgroup2 configfs debugfs devpts devtmpfs efivarfs fusectl mqueue nsfs proc
    pstore rpc_pipefs securityfs selinuxfs sysfs tracefs
);

# Newer distributions describe themselves in os-release, older ones only here.
my @OLD_RELEASES = (
    ['/etc/redhat-release', 'redhat', qr/\A(.+?)(?: release)? (\d[\d.]*)/],
    ['/etc/debian_version', 'debian', qr/\A()(\S+)/],
);

my %FAMILY = (
    (map { $_ => 'debian' } qw(debian ubuntu raspbian devuan linuxmint)),
    (map { $_ => 'redhat' } qw(rhel redhat centos fedora almalinux rocky ol scientific amzn)),
);

sub facts {
    my ($tree) = @_;
    my (undef, $hostname, $kernel, undef, $architecture) = POSIX::uname();
    return {
        hostname     => hostname($tree, $hostname),
        kernel       => $kernel,
        architecture => $architecture,
        distribution => distribution($tree),
        processors   => processors($tree),
        memory       => memory($tree),
        filesystems  => [file_systems($tree)],
        perl         => sprintf('%vd', $^V),
        tools        => tools(),
        user         => user(),
    };
}

sub hostname {
    my ($tree, $otherwise) = @_;
    my ($name) = $tree->root eq '/' ? () : $tree->read_lines('/etc/hostname');
    return defined $name && length $name ? $name : $otherwise;
}

# { id, name, version, family => 'debian', 'redhat' or 'other' }
sub distribution {
    my ($tree) = @_;
    my %is = os_release($tree);
    my $family = family(@is{qw(ID ID_LIKE)});
    return { id => $is{ID}, name => $is{NAME}, version => $is{VERSION_ID}, family => $family }
        if defined $is{ID};
    for my $release (@OLD_RELEASES) {
        my ($file, $id, $pattern) = @$release;
        my ($line) = $tree->read_lines($file);
        next if !defined $line || $line !~ $pattern;
        return { id => $id, name => length $1 ? $1 : 'Debian GNU/Linux', version => $2, family => $id };
    }
    return { id => 'linux', name => 'Linux', version => undef, family => 'other' };
}

sub os_release {
    my ($tree) = @_;
    my ($file) = grep { $tree->is_file($_) } qw(/etc/os-release /usr/lib/os-release) or return;
    return map { /\A([A-Z_]+)=(["']?)(.*?)\2\s*\z/ ? ($1 => $3) : () } $tree->read_lines($file);
}

sub family {
    my ($id, $like) = @_;
    for my $name (grep {defined} $id, split ' ', defined $like ? $like : '') {
        return $FAMILY{$name} if $FAMILY{$name};
    }
    return 'other';
}

sub processors {
    my ($tree) = @_;
    return scalar grep { /\Aprocessor\s*:/ } $tree->read_lines('/proc/cpuinfo');
}

# Bytes: { total, available, swap }.
sub memory {
    my ($tree) = @_;
    my %kib = map { /\A(\w+):\s+(\d+) kB/ ? ($1 => $2) : () } $tree->read_lines('/proc/meminfo');
    my $available = defined $kib{MemAvailable} ? $kib{MemAvailable} : $kib{MemFree};
    return { total => bytes($kib{MemTotal}), available => bytes($available), swap => bytes($kib{SwapTotal}) };
}

sub bytes { return defined $_[0] ? 1024 * $_[0] : undef }

# The local file systems: { device, type, mount, bytes, free, inodes, inodes_free }.
sub file_systems {
    my ($tree) = @_;
    return if $tree->root ne '/';
    my %inodes = map { $_->{mount} => $_ } df('-PTil');
    return map {
        my $inodes = $inodes{ $_->{mount} } || {};
        +{ %$_, bytes => bytes($_->{bytes}), free => bytes($_->{free}),
            inodes => $inodes->{bytes}, inodes_free => $inodes->{free} }
    } grep { $_->{bytes} } df('-PTkl');
}

# The directories of the running system where the kernel shows things that are no files.
sub kernel_directories {
    my @mounts = map { [split / /] } Linux::Tree->new->read_lines('/proc/self/mounts');
    my @directories = map { $_->[1] } grep { $OF_KERNEL{ $_->[2] } } @mounts;
    s/\\([0-7]{3})/chr oct $1/ge for @directories;
    return @directories;
}

sub df {
    my ($options) = @_;
    my (undef, @lines) = split /\n/, run(['df', $options], limit => $LIMIT)->{out};
    return map {
        /\A(.+?)\s+(\S+)\s+(\d+)\s+\d+\s+(\d+)\s+\S+\s+(\/.*)\z/
            ? { device => $1, type => $2, bytes => $3, free => $4, mount => $5 } : ()
    } @lines;
}

# { name => path } of what is installed.
sub tools {
    my %found = map { $_ => which($_) } @TOOLS;
    delete $found{$_} for grep { !defined $found{$_} } keys %found;
    return \%found;
}

# Who runs this: { name, uid, sudo_user }.
sub user {
    my $name = getpwuid $>;
    return { name => defined $name ? $name : $>, uid => $> + 0, sudo_user => $ENV{SUDO_USER} };
}

1;
