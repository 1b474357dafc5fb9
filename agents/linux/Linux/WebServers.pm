# The web servers that run on the host, found by their processes and by who listens where
# browsers come: what they were started with, and those that the agent cannot read. Only
# processes in the agent's own network count; others are of containers.
package Linux::WebServers;

use strict;
use warnings;
use Agent::Problems qw(problem);
use Agent::Process qw(breathe);
use Linux::HostProgram qw(program);

our $PROC = '/proc';

# What is read: the name of the program's file, and the server.
my %READ = (nginx => 'nginx', openresty => 'nginx', apache2 => 'apache', httpd => 'apache');

# What is not: the name of the program's file, and where its settings are.
my %UNREAD = (
    caddy => '/etc/caddy', lighttpd => '/etc/lighttpd', haproxy => '/etc/haproxy', varnishd => '/etc/varnish',
    traefik => '/etc/traefik', envoy => '/etc/envoy', lshttpd => '/usr/local/lsws/conf',
    litespeed => '/usr/local/lsws/conf', openlitespeed => '/usr/local/lsws/conf', h2o => '/etc/h2o',
    hiawatha => '/etc/hiawatha', 'cherokee-worker' => '/etc/cherokee', unitd => '/var/lib/unit',
    thttpd => '/etc/thttpd', mini_httpd => '/etc/mini_httpd', angie => '/etc/angie', hitch => '/etc/hitch',
    pound => '/etc/pound', yaws => '/etc/yaws', nghttpx => '/etc/nghttpx', sozu => '/etc/sozu',
);

# Where else than in the usual places such programs are.
my @PLACES = qw(/usr/sbin /usr/bin /usr/local/sbin /usr/local/bin /usr/local/lsws/bin /opt/caddy);

# Where browsers come, and who listens there without being a web server.
my %PORT = (80 => 1, 443 => 1);
my %OTHER = map { $_ => 1 } qw(sshd dropbear openvpn);

my $ADVICE = 'its sites are in no archive. Move its configuration and its files by hand';

# tree => Linux::Tree, problems => Agent::Problems
sub new {
    my ($class, %options) = @_;
    my $self = bless { %options, processes => [] }, $class;
    $self->{processes} = [processes()] if $self->{tree}->root eq '/';
    return $self;
}

# The processes in the agent's own network: { pid, parent, uid, name, program (path, undef
# where it may not be seen), words => [the command line], own_root (whether that is "/") }.
sub processes {
    opendir my $dir, $PROC or return;
    my @pids = sort { $a <=> $b } grep { /\A\d+\z/ } readdir $dir;
    closedir $dir;
    my $network = readlink "$PROC/self/ns/net";
    my $root = join ':', (stat '/')[0, 1];
    return map { breathe(); process($_, $network, $root) } @pids;
}

# Nothing for one of another network, or that has just ended.
sub process {
    my ($pid, $network, $root) = @_;
    my $its = readlink "$PROC/$pid/ns/net";
    return if defined $its && defined $network && $its ne $network;
    my $uid = (stat "$PROC/$pid")[4];
    my ($name, $parent) = text_of("$PROC/$pid/stat") =~ /\A\d+ \((.*)\) \S (\d+)/s or return;
    my $program = readlink "$PROC/$pid/exe";
    $program =~ s/ \(deleted\)\z// if defined $program;
    my $own_root = $root eq join ':', grep {defined} (stat "$PROC/$pid/root/")[0, 1];
    return { pid => $pid, parent => $parent, uid => $uid, program => $program, own_root => $own_root,
        name => defined $program && $program =~ m{([^/]+)\z} ? $1 : $name,
        words => [split /\0/, text_of("$PROC/$pid/cmdline")] };
}

sub text_of {
    my ($file) = @_;
    open my $handle, '<', $file or return '';
    my $text = do { local $/; <$handle> };
    return defined $text ? $text : '';
}

# The processes of a server that root has started by itself, the first of each program with
# its arguments: { pid, program, arguments => [words] }. Only programs of root count.
sub running {
    my ($self, $server) = @_;
    my %seen;
    return map { { pid => $_->{pid}, program => $_->{program}, arguments => [arguments($_)] } }
        grep { $_->{own_root} && $_->{uid} == 0 && defined program($_->{program}) && !$seen{ key_of($_) }++ }
        $self->first_of($server);
}

# The servers of a kind that run and those that are installed, each main file once: what $instance_of
# gives for { program } and, of one that runs, { arguments }. $servers is undef where none is asked.
sub instances {
    my ($tree, $servers, $kind, $programs, $instance_of) = @_;
    my %known;
    my @running = $servers ? $servers->running($kind) : ();
    my @installed = $tree->root eq '/' ? grep {defined} map { program($_) } @$programs : ();
    return grep { ($_->{arguments} || $tree->lstat($_->{main})) && !$known{ $_->{main} }++ }
        map { $instance_of->($_) } @running, map { { program => $_ } } @installed;
}

# The process managers of PHP that root has started from a program of root's, and the file
# that each was started with: { pid, program, main }.
sub process_managers {
    my ($self) = @_;
    my @found;
    for my $process (grep { $_->{name} =~ /\Aphp\d*-?fpm[\d.]*\z/ } @{ $self->{processes} }) {
        next if $process->{uid} || !$process->{own_root} || !defined program($process->{program});
        my ($main) = join(' ', @{ $process->{words} }) =~ /master process \((.*)\)/ or next;
        my $directory = readlink "$PROC/$process->{pid}/cwd";
        $main = "$directory/$main" if $main !~ m{\A/} && defined $directory;
        push @found, { pid => $process->{pid}, program => $process->{program}, main => $main };
    }
    return @found;
}

sub key_of { return join "\0", $_[0]{program}, arguments($_[0]) }

# The processes of a server, without the children of others of it.
sub first_of {
    my ($self, $server) = @_;
    my @all = grep { defined $_->{program} && ($READ{ $_->{name} } || '') eq $server }
        @{ $self->{processes} };
    my %is_one = map { $_->{pid} => 1 } @all;
    return grep { !$is_one{ $_->{parent} } } @all;
}

# A master process of nginx shows its command line as one text behind its title.
sub arguments {
    my ($process) = @_;
    my ($first, @others) = @{ $process->{words} };
    return @others if !defined $first || $first !~ /\A\w+: master process \S+\s*(.*)/s;
    return split ' ', $1;
}

# Names the web servers whose sites are not found, so that no dump passes for whole.
sub note_unread {
    my ($self) = @_;
    my $listeners = $self->listeners;
    my %is_first = map { $_->{pid} => 1 } map { $self->first_of($_) } values %READ;
    my %named;
    for my $process (@{ $self->{processes} }) {
        my $name = $process->{name};
        my $ports = $listeners->{ $process->{pid} };
        my $why = $UNREAD{$name} ? 'is not read by the agent'
            : $is_first{ $process->{pid} } ? why_not_read($process)
            : $ports && !$READ{$name} && !$OTHER{$name} ? 'is no web server that the agent reads' : undef;
        next if !defined $why || $named{ $UNREAD{$name} || $name . $process->{uid} }++;
        my $where = $ports ? " and listens on port $ports" : '';
        $self->problem('error', $name, "Runs (process $process->{pid})$where, but $why: $ADVICE");
    }
    $self->problem('error', "port $_", 'A program that the agent cannot see listens here, perhaps in a'
        . ' container: what it serves is in no archive. Move it by hand') for @{ $listeners->{unknown} };
    $self->note_installed(\%named);
    return;
}

# Names a server that runs and does not say what its files mean: they are read all the same.
sub note_refusal {
    my ($problems, $server, $main, $why) = @_;
    $why = 'it gives no answer' if !defined $why;
    $why =~ s/\s*\n\s*/ /g;
    $problems->add(severity => 'warning', object => $main, text => "$server runs, but would not start with"
        . " its files as they are, and may serve something else: $why. Correct them, reload it and dump"
        . ' again');
    return;
}

# Why the configuration of a server that the agent knows does not count; undef if it does.
sub why_not_read {
    my ($process) = @_;
    return 'has a root of its own, as in a container' if !$process->{own_root};
    return 'is a program of an account other than root' if !defined program($process->{program});
    return 'was started by an account other than root' if $process->{uid};
    return undef;
}

# Servers that are there without running may do so after the next start.
sub note_installed {
    my ($self, $named) = @_;
    my $tree = $self->{tree};
    my %running = map { $_->{name} => 1 } @{ $self->{processes} };
    for my $name (grep { !$running{$_} } sort keys %UNREAD) {
        my ($program) = grep { $tree->is_file($_) } map {"$_/$name"} @PLACES or next;
        next if !$tree->list($UNREAD{$name}) || $named->{ $UNREAD{$name} }++;
        my $enabled = $tree->root ne '/' || grep { $tree->glob($_) }
            "/etc/systemd/system/*.wants/$name.service", "/etc/rc[2-5].d/S*$name";
        $self->problem($enabled ? 'error' : 'warning', $name, "Is installed ($program) with a configuration"
            . " in $UNREAD{$name}, but is not read by the agent: if it serves sites, $ADVICE");
    }
    return;
}

# { process => "80, 443" } of those who listen where browsers come, and unknown => [ports]
# of which nobody is seen. Only root sees who it is.
sub listeners {
    my ($self) = @_;
    my %ports = $self->{tree}->root eq '/' && $> == 0 ? listening() : ();
    my (%of, %known);
    for my $process (%ports ? @{ $self->{processes} } : ()) {
        my @its = grep {defined} map { $ports{$_} } sockets_of($process->{pid});
        next if !@its;
        my %its = map { $_ => 1 } @its;
        $of{ $process->{pid} } = join ', ', sort { $a <=> $b } keys %its;
        @known{@its} = ();
    }
    my %unknown = map { $_ => 1 } grep { !exists $known{$_} } values %ports;
    return { %of, unknown => [sort { $a <=> $b } keys %unknown] };
}

# { number of a socket => port } of the sockets that take connections from browsers.
sub listening {
    my %ports;
    for my $line (map { split /\n/, text_of("$PROC/self/net/$_") } qw(tcp tcp6)) {
        my (undef, $local, undef, $state, @others) = split ' ', $line;
        next if !defined $state || $state ne '0A' || $local !~ /:([0-9A-F]+)\z/;
        my $port = hex $1;
        $ports{ $others[5] } = $port if $PORT{$port};
    }
    return %ports;
}

sub sockets_of {
    my ($pid) = @_;
    opendir my $dir, "$PROC/$pid/fd" or return;
    return map { (readlink "$PROC/$pid/fd/$_" || '') =~ /\Asocket:\[(\d+)\]\z/ ? $1 : () } readdir $dir;
}

1;
