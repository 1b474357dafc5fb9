# The Apache servers of the host: those that run, those that are installed, and those that only
# files describe. Each is asked for its main file, its files and its modules; nothing on it changes.
package Linux::ApacheInstances;

use strict;
use warnings;
use Agent::Process qw(run);
use Linux::ConfigReader;
use Linux::HostProgram qw(program);
use Linux::WebServers;

# Where the main file is, where the server does not say it.
my @MAIN_FILES = qw(
    /etc/apache2/apache2.conf /etc/httpd/conf/httpd.conf /usr/local/apache2/conf/httpd.conf
    /etc/apache2/httpd.conf
);

my @PROGRAMS = qw(apache2 httpd /usr/local/apache2/bin/httpd);

my $LIMIT = 10;
my $MOST_BYTES = 16 * 1024 * 1024;

# Version of the installed server; undef without one.
sub version {
    my ($program) = grep {defined} map { program($_) } @PROGRAMS or return undef;
    return run([$program, '-v'], limit => $LIMIT)->{out} =~ m{Apache/([\w.]+)} ? $1 : undef;
}

# The servers that run, those that are installed, and those that only files describe, each once:
# { main }, where the server says it { base, defines => [names] }, and, of one that runs,
# { program, arguments }.
sub all {
    my ($tree, $servers) = @_;
    my @found = Linux::WebServers::instances($tree, $servers, 'apache', \@PROGRAMS, \&instance_of);
    my %known = map { $_->{main} => 1 } @found;
    push @found, map { { main => $_ } }
        grep { !$known{$_} } Linux::ConfigReader::present($tree, @MAIN_FILES);
    return @found;
}

# What a program says of itself, changed by the arguments that it runs with.
sub instance_of {
    my ($one) = @_;
    my $said = run([$one->{program}, '-V'], limit => $LIMIT, most => $MOST_BYTES)->{out};
    my ($base) = $said =~ /-D HTTPD_ROOT="(.*)"/;
    my ($main) = $said =~ /-D SERVER_CONFIG_FILE="(.*)"/;
    my (%given, @defines);
    my @arguments = @{ $one->{arguments} || [] };
    while (defined(my $argument = shift @arguments)) {
        next if $argument !~ /\A-([Ddf])(.*)\z/s;
        my $value = length $2 ? $2 : shift @arguments;
        if ($1 eq 'D') { push @defines, $value }
        else           { $given{$1} = $value }
    }
    $base = $given{d} if defined $given{d};
    $main = $given{f} if defined $given{f};
    return if !defined $base || !defined $main;
    $main = "$base/$main" if $main !~ m{\A/};
    return { %$one, main => $main, base => $base, defines => [grep {defined} @defines] };
}

# The files that an instance of all() has read and the modules built into it: { files => [paths],
# modules => [names] }. $environment is that of its start. It is asked only while it runs: modules
# may open their logs to answer. A refusal is a problem.
sub asked {
    my ($instance, $problems, $environment) = @_;
    my %told = (files => [], modules => []);
    return \%told if !$instance->{arguments};
    my @argv = ($instance->{program}, '-d', $instance->{base}, '-f', $instance->{main},
        map { ('-D', $_) } @{ $instance->{defines} }, qw(DUMP_INCLUDES DUMP_MODULES));
    my $asked = run([@argv, '-t'], limit => $LIMIT, most => $MOST_BYTES, env => $environment);
    if ($asked->{status} || $asked->{why}) {
        my ($why) = $asked->{err} =~ /^(?:AH\d+: )?((?:[\w.\/]+: )?Syntax error.*(?:\n.*)?)/m;
        Linux::WebServers::note_refusal($problems, 'Apache', $instance->{main}, $why);
        return \%told;
    }
    $told{files} = [$asked->{out} =~ /^ +\((?:\*|\d+)\) (\/.*)$/mg];
    $told{modules} = [$asked->{out} =~ /^ (\w+) \(static\)$/mg];
    return \%told;
}

1;
