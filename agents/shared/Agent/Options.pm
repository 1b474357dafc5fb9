# The agent's command line and the lists on its standard input.
package Agent::Options;

use strict;
use warnings;

my $MOST_INPUT = 64 * 1024 * 1024;

my @KINDS = qw(domains clients resellers);
my @CONNECTION = qw(host login password port);

# Option of a dump => the setting it makes. A list's names are read later.
my %DUMP = (
    '--migration-mode'          => {},
    '--dump-all'                => { all => 1 },
    (map { ("--dump-$_=-" => { $_ => [] }) } @KINDS),
    '--only-mail'               => { only => 'mail' },
    '--only-hosting'            => { only => 'hosting' },
    '--no-compress'             => { compress => 0 },
    '--no-content'              => { content => 0 },
    # Files of applications are part of a site wherever they come from.
    '--include-app-distrib'     => {},
    '--server'                  => { server => 1 },
    '--admin-info'              => { admin_info => 1 },
    '--no-license'              => { license => 0 },
    '--content-transport=rsync' => { transport => 'rsync' },
    '--increments'              => { increments => 1 },
);

my %OTHER = ('--get-status' => 'status', '--get-content-list' => 'content-list');

# What to do: { action => 'status', 'content-list' or 'dump' } and for a dump
# all, domains, clients, resellers (lists, or undef where not asked for), only
# ('mail', 'hosting' or undef), compress, content, server, admin_info, license, transport
# and increments. Reads from the handle what the options say is there. Dies for wrong use.
sub parse {
    my ($arguments, $input) = @_;
    my @others = grep { $OTHER{$_} } @$arguments;
    die "One of " . join(', ', sort keys %OTHER) . " or --migration-mode is needed\n"
        if !@others && !grep { $_ eq '--migration-mode' } @$arguments;
    if (@others) {
        die "$others[0] goes with no other option\n" if @$arguments > 1;
        return { action => $OTHER{ $others[0] } };
    }
    my $options = dump_options(@$arguments);
    read_input($options, $input);
    return $options;
}

sub dump_options {
    my %options = (action => 'dump', all => 0, compress => 1, content => 1, license => 1);
    for my $argument (@_) {
        my $settings = $DUMP{$argument} or die "Unknown option: $argument\n";
        die "--only-mail and --only-hosting exclude each other\n"
            if $settings->{only} && $options{only} && $settings->{only} ne $options{only};
        # A list is this dump's own, to be filled.
        $options{$_} = ref $settings->{$_} ? [] : $settings->{$_} for keys %$settings;
    }
    die "--dump-all goes with no list of names\n" if $options{all} && grep { $options{$_} } @KINDS;
    # Everything means the host itself too.
    $options{$_} ||= $options{all} for qw(server admin_info);
    return \%options;
}

# The lines come in a fixed order: the connection's four, then the lists.
sub read_input {
    my ($options, $input) = @_;
    my @lists = grep { $options->{$_} } @KINDS;
    my $expected = @lists + ($options->{transport} ? @CONNECTION : 0);
    return if !$expected;
    my @lines = split /\n/, read_all($input), -1;
    pop @lines if @lines && $lines[-1] eq '';
    # sudo leaves its password to the program where it does not ask for one.
    shift @lines if @lines == $expected + 1 && defined $ENV{SUDO_UID};
    die "$expected lines are needed on standard input, there are " . @lines . "\n" if @lines != $expected;
    # The connection's lines are not kept: nothing here uses them.
    splice @lines, 0, scalar @CONNECTION if $options->{transport};
    for my $kind (@lists) {
        my %seen;
        $options->{$kind} = [grep { length && !$seen{$_}++ } split /,/, shift @lines];
    }
    return;
}

sub read_all {
    my ($input) = @_;
    my $bytes = '';
    while (my $got = read $input, $bytes, 65536, length $bytes) {
        die "The lists on standard input are too long\n" if length $bytes > $MOST_INPUT;
    }
    return $bytes;
}

1;
