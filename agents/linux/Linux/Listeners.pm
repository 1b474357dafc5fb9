# Which processes listen at which sockets, from the kernel's own tables, and what can be told of a
# process without its arguments or its environment, which may hold secrets: these are only looked
# through for paths.
package Linux::Listeners;

use strict;
use warnings;
use Agent::Process qw(breathe);

my $LISTENS      = '0A';
my $ACCEPTS      = 0x10000;
my $MOST_WORDS   = 200;
my $IN_CONTAINER = qr{docker|libpod|podman|containerd|kubepods|lxc|machine\.slice|nspawn}i;

# Variables that name directories of what a process runs.
my $OF_PATHS = qr/\A(?:VIRTUAL_ENV|GEM_HOME|BUNDLE_GEMFILE|PYTHONPATH|NODE_PATH|PWD|RAILS_ROOT)=(.*)\z/s;

# tree => Linux::Tree. Looks at once, and at no file of the tree but those below /proc.
sub new {
    my ($class, $tree) = @_;
    (my $root = $tree->root) =~ s{/\z}{};
    my $self = bless { tree => $tree, proc => "$root/proc", tcp => [], unix => {} }, $class;
    $self->read_tcp($_) for qw(/proc/net/tcp /proc/net/tcp6);
    $self->read_unix;
    return $self;
}

sub read_tcp {
    my ($self, $file) = @_;
    for my $line ($self->{tree}->read_lines($file)) {
        my (undef, $local, undef, $state, undef, undef, undef, $uid, undef, $inode) = split ' ', $line;
        next if !defined $inode || $state ne $LISTENS || $local !~ /\A([0-9A-F]+):([0-9A-F]+)\z/;
        push @{ $self->{tcp} }, { address => address($1), port => hex $2, inode => $inode, uid => $uid };
    }
    return;
}

# The kernel writes each four bytes the other way round. An address of IPv4 in one of IPv6 is that.
sub address {
    my ($hex) = @_;
    my @bytes = map { reverse /../g } $hex =~ /.{8}/g;
    return join '.', map {hex} @bytes[-4 .. -1] if @bytes == 4 || join('', @bytes) =~ /\A0{20}F{4}/;
    return '::' if join('', @bytes) =~ /\A0+\z/;
    return '::1' if join('', @bytes) =~ /\A0{31}1\z/;
    return lc join ':', map { join '', @bytes[2 * $_, 2 * $_ + 1] } 0 .. 7;
}

sub read_unix {
    my ($self) = @_;
    for my $line ($self->{tree}->read_lines('/proc/net/unix')) {
        my ($flags, $inode, $path) = (split ' ', $line, 8)[3, 6, 7];
        next if !defined $path || $flags !~ /\A[0-9A-F]+\z/i || !(hex($flags) & $ACCEPTS);
        my $real = $self->{tree}->real($path);
        $self->{unix}{ defined $real ? $real : $path } = $inode;
    }
    return;
}

# What listens at a port, as { address, inode, uid }: uid is the number of the account that has made
# the socket.
sub at_port {
    my ($self, $port) = @_;
    return grep { $_->{port} == $port } @{ $self->{tcp} };
}

# Whether a host's name or address is this host.
sub is_here {
    my ($self, $host) = @_;
    return 1 if $host =~ /\A(?:localhost|127(?:\.[0-9]+){3}|0\.0\.0\.0|\[?::1?\]?|\*|)\z/i;
    $host =~ s/\A\[(.*)\]\z/$1/;
    return 1 if grep { $_->{address} eq $host } @{ $self->{tcp} };
    my ($own) = $self->{tree}->read_lines('/etc/hostname');
    return defined $own && lc $own eq lc $host;
}

# The processes that listen at { socket } or { host, port }: see process(). The first is the one that
# has started the others.
sub at {
    my ($self, $address) = @_;
    my @inodes;
    if (defined $address->{socket}) {
        my $real = $self->{tree}->real($address->{socket});
        @inodes = grep {defined} $self->{unix}{ defined $real ? $real : $address->{socket} };
    }
    else { @inodes = map { $_->{inode} } grep { answers($_, $address) } @{ $self->{tcp} } }
    my %seen;
    my @pids = sort { $a <=> $b } grep { !$seen{$_}++ } map { @{ $self->holders->{$_} || [] } } @inodes;
    # The first of all processes holds what it opens for services that are started on request.
    @pids = grep { $_ != 1 } @pids if @pids > 1;
    my @processes = grep {defined} map { $self->process($_) } @pids;
    my %pid = map { $_->{pid} => 1 } @processes;
    return sort { ($pid{ $a->{parent} } ? 1 : 0) <=> ($pid{ $b->{parent} } ? 1 : 0)
        || $a->{pid} <=> $b->{pid} }
        @processes;
}

sub answers {
    my ($listener, $address) = @_;
    return 0 if $listener->{port} != $address->{port};
    my ($host, $at) = ($address->{host}, $listener->{address});
    $host =~ s/\A\[(.*)\]\z/$1/;
    return 1 if $at eq $host || $at eq '0.0.0.0' || $at eq '::';
    return 1 if $host =~ /\A(?:localhost|0\.0\.0\.0|\*|)\z/i && $at =~ /\A(?:127\.|::1\z)/;
    # A name of the host itself.
    return $host !~ /\A[0-9.:a-f]+\z/i;
}

# Where a process listens, as a reader knows it: paths of sockets, and "port N".
sub places_of {
    my ($self, $pid) = @_;
    my $is_its = sub {
        my ($inode) = @_;
        return grep { $_ == $pid } @{ $self->holders->{$inode} || [] };
    };
    my %ports = map { $_->{port} => 1 } grep { $is_its->($_->{inode}) } @{ $self->{tcp} };
    return ((sort grep { $is_its->($self->{unix}{$_}) } keys %{ $self->{unix} }),
        map {"port $_"} sort { $a <=> $b } keys %ports);
}

# { inode => [pids] } of the sockets that are listened at.
sub holders {
    my ($self) = @_;
    return $self->{holders} if $self->{holders};
    my %wanted = map { $_ => 1 } values %{ $self->{unix} }, map { $_->{inode} } @{ $self->{tcp} };
    my %holders;
    opendir my $processes, $self->{proc} or return $self->{holders} = {};
    for my $pid (grep {/\A[0-9]+\z/} readdir $processes) {
        breathe();
        opendir my $open, "$self->{proc}/$pid/fd" or next;
        my %of_process;
        for my $number (readdir $open) {
            my $target = readlink "$self->{proc}/$pid/fd/$number";
            next if !defined $target || $target !~ /\Asocket:\[([0-9]+)\]\z/ || !$wanted{$1};
            push @{ $holders{$1} }, $pid if !$of_process{$1}++;
        }
    }
    return $self->{holders} = \%holders;
}

# { pid, parent, name, uid, program, directory, words, paths, unit, session_of, container } of a process;
# undef if it has ended. `words` are its arguments: keep them nowhere. `paths` are directories that
# variables of its environment name, `session_of` the number of the account whose own manager of
# units has started it.
sub process {
    my ($self, $pid) = @_;
    my %status = map { /\A(\w+):\s*(.*)\z/ ? ($1 => $2) : () } $self->lines($pid, 'status');
    return undef if !defined $status{Uid};
    my ($program, $directory) = map { readlink "$self->{proc}/$pid/$_" } qw(exe cwd);
    $program =~ s/ \(deleted\)\z// if defined $program;
    my ($group) = map { /\A(?:0::|[0-9]+:name=systemd:)(.*)\z/ ? $1 : () } $self->lines($pid, 'cgroup');
    $group = '' if !defined $group;
    my ($session) = $group =~ m{/user\@([0-9]+)\.service/};
    my (@units) = $group =~ m{/([^/]+\.service)(?=/|\z)}g;
    @units = grep { !/\Auser\@/ } @units;
    return {
        pid => $pid, parent => $status{PPid}, name => $status{Name}, uid => (split ' ', $status{Uid})[1],
        program => $program, directory => $directory, words => [$self->strings($pid, 'cmdline')],
        paths => [grep {m{\A/}} map { $_ =~ $OF_PATHS ? split /:/, $1 : () } $self->strings($pid, 'environ')],
        unit => $units[-1], session_of => $session, container => $group =~ $IN_CONTAINER ? 1 : 0,
    };
}

sub lines {
    my ($self, $pid, $name) = @_;
    return $self->{tree}->read_lines("/proc/$pid/$name");
}

sub strings {
    my ($self, $pid, $name) = @_;
    my $text = $self->{tree}->read_file("/proc/$pid/$name");
    my @strings = defined $text ? split /\0/, $text : ();
    return @strings > $MOST_WORDS ? @strings[0 .. $MOST_WORDS - 1] : @strings;
}

1;
