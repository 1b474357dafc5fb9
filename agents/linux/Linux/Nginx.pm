# The sites that an nginx configuration serves. Variables are followed where the
# configuration alone decides them; where not, that is a problem of the site.
package Linux::Nginx;

use strict;
use warnings;
use base 'Linux::NginxDirectives';
use Agent::Process qw(breathe);
use Linux::Definitions;
use Linux::NginxConfig;
use Linux::NginxInstances;
use Linux::NginxValues qw(variable_name);
use Linux::Site qw(new_block source_of add_once join_blocks);

# The blocks that may stand by themselves, and in "http".
my %MAIN_BLOCK = map { $_ => 1 } qw(events http stream mail rtmp);
my %HTTP_BLOCK = map { $_ => 1 } qw(server upstream map geo geoip2 types split_clients charset_map match);

# The sites of the host, and what its configurations say besides: { sites, configurations }.
# servers => Linux::WebServers, which knows those that run; instances => [as
# Linux::NginxInstances::all() gives them], where others must not be looked for.
sub look {
    my ($tree, $problems, %options) = @_;
    my (@sites, @configurations);
    for my $instance (@{ $options{instances} || [Linux::NginxInstances::all($tree, $options{servers})] }) {
        my $self = bless { tree => $tree, problems => $problems, %$instance }, __PACKAGE__;
        push @sites, $self->sites_of_one(@configurations ? 'nginx-' . (@configurations + 1) : 'nginx');
        push @configurations, $self->{configuration};
    }
    return { sites => \@sites, configurations => \@configurations };
}

# The sites of one server with a main file.
sub sites_of_one {
    my ($self, $name) = @_;
    my ($tree, $problems) = @$self{qw(tree problems)};
    my $told = Linux::NginxInstances::asked($self, $problems);
    my $config = $self->{config} = Linux::NginxConfig->new(tree => $tree, problems => $problems,
        texts => $told->{texts});
    my @directives = $config->load($self->{main});
    $config->note_missed('nginx', @{ $told->{files} });
    $self->name_unknown(\%MAIN_BLOCK, @directives);
    $self->name_other_servers(@directives);
    $self->{configuration} = { name => $name, server => 'nginx', file => $self->{main},
        prefix => $self->{prefix}, modules => [modules(@directives)], files => [$config->files],
        directives => \@directives, of_sites => {}, uses => [],
        definitions => Linux::Definitions->new(prefix => $name, names_of => \&defined_names) };
    return join_blocks($tree, $problems, map { $self->http_blocks($_->{block}) } named('http', @directives));
}

sub modules {
    my @loads = grep { $_->{name} eq 'load_module' && @{ $_->{args} } } @_;
    return map { +{ name => m{([^/]+?)(?:\.so)?\z}, file => $_ } } map { $_->{args}[0] } @loads;
}

sub sites { return @{ look(@_)->{sites} } }

# The names under which blocks of sites use what a directive of "http" defines.
sub defined_names {
    my ($directive) = @_;
    my ($name, $args, $block) = @$directive{qw(name args block)};
    return grep { /\A\$/ } @$args[-1 .. -1] if $block && $name =~ /\A(?:map|geo|split_clients)\z/ && @$args;
    return grep { /\A\$/ } map { $_->{name} } @$block if $block && $name eq 'geoip2';
    return @$args[0 .. 0] if @$args && ($block ? $name =~ /\A(?:upstream|match)\z/
        : $name =~ /\A(?:log_format|lua_shared_dict|(?:js|perl)_set)\z/);
    return map { /\A(?:keys_)?zone=([^:]+)/ ? $1 : () } @$args if $name =~ /_(?:zone|cache_path)\z/;
    return;
}

sub named {
    my ($name, @directives) = @_;
    return grep { $_->{name} eq $name && $_->{block} } @directives;
}

# A block whose name is written wrong may be one of a site.
sub name_unknown {
    my ($self, $known, @directives) = @_;
    for my $block (grep { $_->{block} && !$known->{ $_->{name} } } @directives) {
        my ($name, $file, $line) = @$block{qw(name file line)};
        next if $name =~ /_by_lua_block\z/;
        $self->{config}->problem('error', $file, $line,
            qq(the block "$name" is not known and is left out: correct its name and dump again));
    }
    return;
}

# What hands on connections or mail is no site, and may be what the host is for.
sub name_other_servers {
    my ($self, @directives) = @_;
    for my $block (map { named($_, @directives) } qw(stream mail rtmp)) {
        my @servers = servers_in(@{ $block->{block} }) or next;
        my @listens = map { $_->{args}[0] } grep { $_->{name} eq 'listen' && @{ $_->{args} } }
            map { @{ $_->{block} } } @servers;
        my $where = join ', ', @listens;
        $self->{config}->problem('warning', @$block{qw(file line)},
            qq{the servers of the block "$block->{name}" (listen $where) belong to no site. They are}
                . ' described under web-configuration, and their files are in the archive of the settings:'
                . ' set them up on the new host by hand, with what stands behind them');
    }
    return;
}

# The servers, also those that a block has swallowed whose end is missing.
sub servers_in {
    return map { $_->{name} eq 'server' ? $_ : servers_in(@{ $_->{block} }) } grep { $_->{block} } @_;
}

sub http_blocks {
    my ($self, $http) = @_;
    $self->name_unknown(\%HTTP_BLOCK, @$http);
    $self->{maps} = {};
    $self->{upstreams} = {};
    for my $map (named('map', @$http)) {
        $self->{maps}{ variable_name($map->{args}[1]) } = $map if @{ $map->{args} } == 2;
    }
    for my $upstream (named('upstream', @$http)) {
        next if !@{ $upstream->{args} };
        my @servers = grep { $_->{name} eq 'server' && !$_->{block} } @{ $upstream->{block} };
        $self->{upstreams}{ $upstream->{args}[0] } = [grep {defined} map { $_->{args}[0] } @servers];
    }
    my %inherited = simple_values($http);
    my @servers = servers_in(@$http);
    my $configuration = $self->{configuration};
    $configuration->{of_sites}{$_} = 1 for @servers;
    my $definitions = $configuration->{definitions};
    my @others = $definitions->take(grep { !$configuration->{of_sites}{$_} } @$http);
    push @{ $configuration->{uses} }, $definitions->used_by(grep { !$_->{block} } @others);
    my @plain = grep { !$_->{block} } @$http;
    $self->{rules} = [$self->for_all_servers(@plain)];
    return map { $self->server_blocks($_, \%inherited) } @servers;
}

# What a block inside takes over unless it sets it itself: { name => [directives] }. There
# may be several certificates, of different kinds.
sub simple_values {
    my ($directives) = @_;
    my %inherits = map { $_ => 1 } qw(root ssl_certificate ssl_certificate_key);
    my %values;
    push @{ $values{ $_->{name} } }, $_ for grep { $inherits{ $_->{name} } && @{ $_->{args} } } @$directives;
    return %values;
}

# The directory that the location of everything has of its own, if any: it, and not that of
# the server, is the document root then.
sub main_directory {
    my @directives = @_;
    for my $location (named('location', @directives)) {
        next if join(' ', @{ $location->{args} }) !~ m{\A(?:\^~ )?/\z};
        my ($found) = grep { $_->{name} =~ /\A(?:root|alias)\z/ && @{ $_->{args} } } @{ $location->{block} };
        return $found if $found;
    }
    return undef;
}

# The record of a server, and of those that an unclosed block has swallowed.
sub server_blocks {
    my ($self, $server, $inherited) = @_;
    breathe();
    my @directives = @{ $server->{block} };
    my %own = simple_values(\@directives);
    my %scope = (%$inherited, %own);
    my $block = new_block('nginx', @$server{qw(file line)});
    $self->{block} = $block;
    $self->{values} = Linux::NginxValues->new(names => $block->{names}, maps => $self->{maps});
    $self->add_names(map { @{ $_->{args} } } grep { $_->{name} eq 'server_name' } @directives);
    add_listens($block, @directives);
    my $returns = grep { $_->{name} eq 'return' } @directives;
    $self->collect_sets(\@directives);
    $self->collect_outer(@directives);
    $self->collect(\@directives, '/');
    $self->add_tls(\%scope);
    my @own_hosts = $returns ? ()
        : $self->add_roots(scalar main_directory(@directives), $own{root}, $scope{root});
    $block->{content} = !$returns && (defined $block->{root} || @{ $block->{roots} } || @{ $block->{proxies} }
            || @{ $block->{php_addresses} }) ? 1 : 0;
    my @uses = $self->{configuration}{definitions}->used_by(@directives);
    $block->{blocks} = [source_of($block, $self->{configuration}, $server, @uses)];
    $_->{blocks} = [{ %{ $block->{blocks}[0] }, names => [@{ $_->{names} }] }] for @own_hosts;
    # The main file is the host's own; what a site uses of it is in the description.
    add_once($block->{config}, $server->{file}, files_of(@directives),
        grep { $_ ne $self->{configuration}{file} } files_of(map { $_->{directive} } @uses));
    my @own = Linux::Site::is_spent($block, @own_hosts) ? @own_hosts : ($block, @own_hosts);
    my @swallowed = servers_in(@directives);
    $self->{configuration}{of_sites}{$_} = 1 for @swallowed;
    return (@own, map { $self->server_blocks($_, $inherited) } @swallowed);
}

sub files_of {
    return map { ($_->{file}, $_->{block} && $_->{name} ne 'server' ? files_of(@{ $_->{block} }) : ()) } @_;
}

sub add_names {
    my ($self, @names) = @_;
    my $block = $self->{block};
    for my $name (@names) {
        if ($name =~ /\A~/) {
            $self->{values}->add_pattern(substr $name, 1);
            add_once($block->{names}, $name);
            next;
        }
        next if $name eq '_' || $name eq '' || $name eq '*' || $name eq '""' || $name eq '$hostname';
        $name = lc $name;
        $name =~ s/\.\z//;
        add_once($block->{names}, $name =~ /\A\.(.+)/ ? ($1, "*.$1") : $name);
    }
    return;
}

sub add_listens {
    my ($block, @directives) = @_;
    my @listens = map { $_->{args} } grep { $_->{name} eq 'listen' && @{ $_->{args} } } @directives;
    my ($ssl) = map { $_->{args}[0] } grep { $_->{name} eq 'ssl' && @{ $_->{args} } } @directives;
    for my $args (@listens ? @listens : ['80']) {
        my ($where, @flags) = @$args;
        my $tls = (grep { $_ eq 'ssl' || $_ eq 'quic' } @flags) || (defined $ssl && $ssl eq 'on') ? 1 : 0;
        my ($address, $port) = $where =~ /\Aunix:/ ? ($where, undef)
            : $where =~ /\A(\d+)\z/ ? ('*', $1)
            : $where =~ /\A(\[.*\]|[^:]+)(?::(\d+))?\z/ ? ($1, defined $2 ? $2 : 80) : ($where, undef);
        push @{ $block->{listen} }, { address => $address, port => $port, tls => $tls };
    }
    return;
}

# Values that "set" gives to variables anywhere in the server.
sub collect_sets {
    my ($self, $directives) = @_;
    for my $directive (@$directives) {
        my ($name, $args) = @$directive{qw(name args)};
        $self->{values}->add_set(@$args) if $name eq 'set' && @$args == 2;
        $self->collect_sets($directive->{block}) if $directive->{block} && $name ne 'server';
    }
    return;
}

# Sets the document root from the directory of the main location, or from the root that counts
# in the server, of which `own` are the server's own. With one directory for each host, gives
# a record for each.
sub add_roots {
    my ($self, $main, $own, $root) = @_;
    my $block = $self->{block};
    my @directives = $main ? ($main, @{ $own || [] }) : @{ $root || [] };
    if (!@directives) {
        $block->{root} = "$self->{prefix}/html" if !grep {@$_} @$block{qw(roots proxies redirects)};
        return;
    }
    my @directories = map { $self->directories($_->{args}[0], $_) } @directives;
    my @hosts = grep { defined $_->{host} } @directories;
    @directories = grep { !defined $_->{host} } @directories;
    $block->{root} = $directories[0]{path} if @directories;
    add_once($block->{roots}, map { $_->{path} } @directories);
    return map { $self->host_block($_) } @hosts;
}

# A copy of the server's record for one of the hosts that a directory shows.
sub host_block {
    my ($self, $directory) = @_;
    my $block = $self->{block};
    my $copy = Linux::Site::copy_of($block);
    return { %$copy, names => [$directory->{host}], root => $directory->{path}, content => 1,
        roots => [grep { $_ ne $directory->{path} } @{ $copy->{roots} }] };
}

1;
