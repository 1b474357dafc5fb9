# The nginx servers of the host: those that run, those that are installed, and those that only files
# describe. Each is asked for its main file and its files; nothing on it changes.
package Linux::NginxInstances;

use strict;
use warnings;
use Agent::Process qw(run);
use Linux::ConfigReader;
use Linux::HostProgram qw(program);
use Linux::WebServers;

# Where the main file is, where the server does not say it.
my @MAIN_FILES = qw(
    /etc/nginx/nginx.conf /usr/local/nginx/conf/nginx.conf /opt/nginx/conf/nginx.conf
    /usr/local/openresty/nginx/conf/nginx.conf
);

# Where relative paths of documents and logs start, and the documents of a server without a root are.
my @PREFIXES = qw(/usr/share/nginx /usr/local/nginx /opt/nginx);

# Programs outside of the usual places.
my @PROGRAMS = qw(
    nginx openresty /usr/local/nginx/sbin/nginx /opt/nginx/sbin/nginx /usr/local/openresty/nginx/sbin/nginx
);

my $LIMIT = 10;
my $MOST_BYTES = 64 * 1024 * 1024;

# Version of the installed server; undef without one.
sub version {
    my ($program) = grep {defined} map { program($_) } @PROGRAMS or return undef;
    return run([$program, '-v'], limit => $LIMIT)->{err} =~ m{/([\d.]+)} ? $1 : undef;
}

# The servers that run, those that are installed, and those that only files describe, each once:
# { main, prefix } and, of one that runs, { program, arguments }.
sub all {
    my ($tree, $servers) = @_;
    my @found = Linux::WebServers::instances($tree, $servers, 'nginx', \@PROGRAMS, \&instance_of);
    my %known = map { $_->{main} => 1 } @found;
    my ($share) = grep { $tree->is_dir($_) } @PREFIXES;
    for my $main (grep { !$known{$_} } Linux::ConfigReader::present($tree, @MAIN_FILES)) {
        my ($prefix) = $main =~ m{\A(.*)/conf/} ? $1 : defined $share ? $share : $PREFIXES[0];
        push @found, { main => $main, prefix => $prefix };
    }
    return @found;
}

# What a program says of itself, changed by the arguments that it runs with.
sub instance_of {
    my ($one) = @_;
    my $said = run([$one->{program}, '-V'], limit => $LIMIT, most => $MOST_BYTES)->{err};
    my ($prefix) = $said =~ /--prefix=(\S+)/;
    my ($main) = $said =~ /--conf-path=(\S+)/;
    my @arguments = @{ $one->{arguments} || [] };
    my %given;
    while (defined(my $argument = shift @arguments)) {
        next if $argument !~ /\A-([cp])(.*)\z/s;
        $given{$1} = length $2 ? $2 : shift @arguments;
    }
    $prefix = defined $given{p} ? $given{p} : defined $prefix ? $prefix : '/usr/local/nginx';
    $prefix =~ s{(?<=.)/+\z}{};
    $main = defined $given{c} ? $given{c} : defined $main ? $main : 'conf/nginx.conf';
    return { %$one, main => $main =~ m{\A/} ? $main : "$prefix/$main", prefix => $prefix };
}

# What an instance of all() says of its files: { texts => { path => text }, files => [paths] }. It is
# asked only while it runs: to answer, it opens its logs, which are there then. A refusal is a problem.
sub asked {
    my ($instance, $problems) = @_;
    return { files => [] } if !$instance->{arguments};
    my @argv = ($instance->{program}, '-T', '-p', "$instance->{prefix}/", '-c', $instance->{main});
    my $asked = run(\@argv, limit => $LIMIT, most => $MOST_BYTES);
    if ($asked->{status} || $asked->{why}) {
        return { files => [] } if $asked->{err} =~ /invalid option/;
        my ($why) = $asked->{err} =~ /\[emerg\] (?:\d+#\d+: )?(.*)/;
        Linux::WebServers::note_refusal($problems, 'nginx', $instance->{main}, $why);
        return { files => [] };
    }
    my (%texts, @files);
    my (undef, @parts) = split /^# configuration file (\/.*):\n/m, $asked->{out};
    while (my ($file, $text) = splice @parts, 0, 2) {
        push @files, $file if !exists $texts{$file};
        $texts{$file} = $text if !exists $texts{$file};
    }
    return { texts => \%texts, files => \@files };
}

1;
