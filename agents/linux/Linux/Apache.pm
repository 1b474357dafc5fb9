# The sites that an Apache configuration serves: its virtual hosts, and the main
# server where these leave it something to serve.
package Linux::Apache;

use strict;
use warnings;
use base qw(Linux::ApacheDirectives Linux::ApacheVirtualRoots);
use Agent::Process qw(breathe);
use Linux::ApacheConfig;
use Linux::ApacheInstances;
use Linux::ApachePhp qw(set_php);
use Linux::ApacheSections;
use Linux::Definitions;
use Linux::Site qw(new_block source_of add_once join_blocks below is_packaged);

my $MOST_NAMED = 20;

# The sites of the host, and what its configurations say besides: { sites, configurations }.
# servers => Linux::WebServers, which knows those that run; instances => [as
# Linux::ApacheInstances::all() gives them], where others must not be looked for.
sub look {
    my ($tree, $problems, %options) = @_;
    my (@sites, @configurations);
    for my $instance (@{ $options{instances} || [Linux::ApacheInstances::all($tree, $options{servers})] }) {
        my $self = bless { tree => $tree, problems => $problems, needed => [], %$instance }, __PACKAGE__;
        push @sites, $self->sites_of_one(@configurations ? 'apache-' . (@configurations + 1) : 'apache');
        push @configurations, $self->{configuration};
    }
    return { sites => \@sites, configurations => \@configurations };
}

# The sites of one server with a main file.
sub sites_of_one {
    my ($self, $name) = @_;
    my ($tree, $problems, $main) = @$self{qw(tree problems main)};
    my $config = $self->{config} = Linux::ApacheConfig->new(tree => $tree, problems => $problems);
    $config->begin($main, $self->{base}, @{ $self->{defines} || [] });
    my $told = Linux::ApacheInstances::asked($self, $problems, $config->environment);
    my @directives = $config->load($main, @{ $told->{modules} });
    $config->note_missed('Apache', @{ $told->{files} });
    my @hosts = virtual_hosts(@directives);
    $self->{configuration} = { name => $name, server => 'apache', file => $main, prefix => $config->{base},
        directives => \@directives, of_sites => { map { $_ => 1 } @hosts },
        modules => [modules($told->{modules}, @directives)], files => [$config->files] };
    $self->{definitions} = $self->definitions(grep { $_->{name} ne 'virtualhost' } @directives);
    $self->{global} = [grep { $_->{name} ne 'virtualhost' } @directives];
    $self->{base_block} = $self->main_block($main);
    my @blocks = map { $self->host_blocks($_) } @hosts;
    if ($self->main_serves(@hosts)) {
        my $block = $self->{block} = $self->{base_block};
        $block->{roots} = $self->{directories_of_all};
        my @uses = $self->{sections}->around($block->{root}, @{ $block->{roots} });
        $block->{blocks} = [source_of($block, $self->{configuration}, undef, @uses)];
        push @blocks, $block;
    }
    $self->note_user_directories(@hosts);
    my @sites = join_blocks($tree, $problems, @blocks);
    $self->add_directories_of_all(@sites);
    return @sites;
}

# { name, file } of the modules that are loaded, or built in, which have no file.
sub modules {
    my ($static, @directives) = @_;
    my @loads = map { $_->{args} } grep { $_->{name} eq 'loadmodule' && @{ $_->{args} } == 2 } @directives;
    return ((map { { name => $_ } } @$static), map { { name => $_->[0], file => $_->[1] } } @loads);
}

sub sites { return @{ look(@_)->{sites} } }

# Takes what the main server defines for all virtual hosts, by name or for directories.
sub definitions {
    my ($self, @directives) = @_;
    my $definitions = $self->{configuration}{definitions}
        = Linux::Definitions->new(prefix => $self->{configuration}{name},
            names_of => \&defined_names);
    my @others = $definitions->take(@directives);
    $self->{configuration}{uses} = [$definitions->used_by(grep { !$_->{block} } @others)];
    my $sections = $self->{sections} = Linux::ApacheSections->new;
    for my $section (grep { $_->{block} && @{ $_->{args} } } @others) {
        next if $section->{name} !~ /\Adirectory(?:match)?\z/;
        $sections->add($definitions->add($section), $self->directory($section->{args}[0]));
    }
    return $definitions;
}

# The names under which virtual hosts use what a directive of the main server defines.
sub defined_names {
    my ($directive) = @_;
    my ($name, $args, $block) = @$directive{qw(name args block)};
    my ($first, $second) = @$args;
    return if !defined $first;
    return $second if @$args == 2 && $name =~ ($block ? qr/\Aauth[nz]provideralias\z/ : qr/\Alogformat\z/);
    return $first =~ m{\Abalancer://([^/]+)} ? $1 : () if $block && $name eq 'proxy';
    return if $block || $name !~ /\A(?:rewritemap|wsgidaemonprocess|extfilterdefine|filterdeclare)\z/;
    return $first;
}

# What the block of a site is made of, with what it uses from outside.
sub add_source {
    my ($self, $directive, @inner) = @_;
    my ($block, $definitions) = @$self{qw(block definitions)};
    my @uses = $definitions->with_inner(
        $definitions->used_by(@inner), $self->{sections}->around($block->{root}, @{ $block->{roots} }),
    );
    $block->{blocks} = [source_of($block, $self->{configuration}, $directive, @uses)];
    $_->{listen} = [map { $self->with_ports($_) } @{ $_->{listen} }] for @{ $block->{blocks} };
    # The main file is the host's own; what a site uses of it is in the description.
    add_once($block->{config}, $directive->{file}, files_of(@inner),
        grep { $_ ne $self->{configuration}{file} } files_of(map { $_->{directive} } @uses));
    return;
}

# An alias outside of the virtual hosts is in all of them: its directory is of each site.
sub add_directories_of_all {
    my ($self, @sites) = @_;
    my $tree = $self->{tree};
    my @roots = grep {defined} map { $tree->real($_) } map { @{ $_->{roots} } } @sites;
    for my $directory (grep { $tree->list($_) } @{ $self->{directories_of_all} }) {
        my $real = $tree->real($directory);
        next if grep { below($real, $_) } @roots;
        add_once($_->{ is_packaged($directory) ? 'packaged' : 'common' }, $directory) for @sites;
    }
    return;
}

# Also those inside another one, whose end is missing.
sub virtual_hosts {
    my @directives = @_;
    return map { ($_->{name} eq 'virtualhost' ? $_ : (), virtual_hosts(@{ $_->{block} })) }
        grep { $_->{block} } @directives;
}

sub main_block {
    my ($self, $main) = @_;
    my $block = new_block('apache', $main, 1);
    my @plain = grep { !$_->{block} } @{ $self->{global} };
    $self->{block} = $block;
    $self->add_names(@plain);
    for my $directive (grep { $_->{name} eq 'loadmodule' && @{ $_->{args} } == 2 } @plain) {
        my ($module, $file) = @{ $directive->{args} };
        $block->{php_module} = $file =~ /libphp(\d+\.\d+)/ ? $1 : 1 if $module =~ /\Aphp\d*_module\z/;
    }
    $self->collect($self->{global}, '/');
    $block->{root} = $self->document_root(@plain);
    $self->{directories_of_all} = $block->{roots};
    $block->{roots} = [];
    $block->{content} = defined $block->{root};
    set_php($block, @{ $block->{php_rules} });
    $block->{config} = [$main];
    push @{ $block->{listen} }, map { listen_of($_->{args}[0], 0) }
        grep { $_->{name} eq 'listen' && @{ $_->{args} } } @plain;
    return $block;
}

# True if an address is left on which no virtual host takes every request.
sub main_serves {
    my ($self, @hosts) = @_;
    my $block = $self->{base_block};
    return 0 if !$block->{content} || !$self->{tree}->exists($block->{root});
    my @taken = map { listen_of($_, 0) } map { @{ $_->{args} } } @hosts;
    for my $listen (@{ $block->{listen} }) {
        return 1 if !grep { takes($_, $listen) } @taken;
    }
    return !@taken;
}

# True if a virtual host of an address gets all that comes to another address.
sub takes {
    my ($host, $listen) = @_;
    return 0 if defined $host->{port} && defined $listen->{port} && $host->{port} != $listen->{port};
    return $host->{address} eq '*' || $host->{address} eq $listen->{address};
}

sub listen_of {
    my ($where, $tls) = @_;
    my ($address, $port) = $where =~ /\A(\d+)\z/ ? ('*', $1)
        : $where =~ /\A(\[.*\]|[^:]+)(?::(\d+|\*))?\z/ ? ($1, $2) : ($where, undef);
    $address = '*' if $address eq '_default_';
    $port = undef if defined $port && $port eq '*';
    return { address => $address, port => $port, tls => $tls };
}

# The record of a virtual host, and of those that its directories make.
sub host_blocks {
    my ($self, $host) = @_;
    breathe();
    my $base = $self->{base_block};
    my $block = new_block('apache', @$host{qw(file line)});
    my @directives = @{ $host->{block} };
    my @plain = grep { !$_->{block} } @directives;
    $self->{block} = $block;
    $self->add_names(@plain);
    $self->collect(\@directives, '/');
    my %last = map { $_->{name} => $_->{args}[0] } grep { @{ $_->{args} } } @plain;
    my $tls = defined $last{sslengine} && lc $last{sslengine} ne 'off' ? 1 : 0;
    push @{ $block->{listen} }, map { listen_of($_, $tls) } @{ $host->{args} };
    $self->add_tls(certificates(@plain) || certificates(@{ $self->{global} })) if $tls;
    $block->{php_addresses} = $base->{php_addresses} if !@{ $block->{php_addresses} };
    $block->{php_module} = $base->{php_module} if $base->{php_module};
    my $own = $self->document_root(@plain);
    my $pattern = $last{virtualdocumentroot};
    my @own_hosts = defined $pattern ? $self->add_directories($pattern) : ();
    my $forwards = @{ $block->{redirects} } || @{ $block->{proxies} } || @{ $block->{programs} };
    $own = $base->{root} if !defined $own && !$forwards && !@{ $block->{roots} };
    $block->{root} = $own if defined $own;
    $block->{content} = (defined $block->{root} || @{ $block->{roots} } || @{ $block->{proxies} }
            || @{ $block->{programs} }) && !$self->leads_away ? 1 : 0;
    # A host of the same name may have another one.
    add_once($block->{roots}, $block->{root}) if $block->{content};
    $self->add_global_access;
    $self->add_source($host, @directives);
    set_php($_, @{ $base->{php_rules} }, @{ $block->{php_rules} }) for $block, @own_hosts;
    $_->{blocks} = [{ %{ $block->{blocks}[0] }, names => [@{ $_->{names} }] }] for @own_hosts;
    return @own_hosts if Linux::Site::is_spent($block, @own_hosts);
    return ($block, @own_hosts);
}

# A virtual host without a port is for all that the server listens at.
sub with_ports {
    my ($self, $listen) = @_;
    return $listen if defined $listen->{port};
    my %ports = map { $_->{port} => 1 } grep { defined $_->{port} } @{ $self->{base_block}{listen} };
    return map { +{ %$listen, port => $_ } } sort { $a <=> $b } keys %ports;
}

sub files_of {
    my @inner = map { @{ $_->{block} } } grep { $_->{block} && $_->{name} ne 'virtualhost' } @_;
    return ((map { $_->{file} } @_), @inner ? files_of(@inner) : ());
}

# True if every request is sent to another host or to https.
sub leads_away {
    my ($self) = @_;
    my $everything = qr{\A\^?/?\??(?:\(\.\*\)|\.\*)?\$?\z};
    return grep { $_->{from} =~ $everything && !$_->{conditions} && $_->{to} =~ m{\Ahttps?://} }
        @{ $self->{block}{redirects} };
}

sub add_names {
    my ($self, @directives) = @_;
    for my $kind (qw(servername serveralias)) {
        for my $word (map { @{ $_->{args} } } grep { $_->{name} eq $kind } @directives) {
            (my $name = lc $word) =~ s{\A\w+://}{};
            $name =~ s/:\d+\z//;
            $name =~ s/\.\z//;
            add_once($self->{block}{names}, $name) if length $name && $name ne '*';
        }
    }
    return;
}

sub document_root {
    my ($self, @directives) = @_;
    my @roots = map { $_->{args}[0] } grep { $_->{name} eq 'documentroot' && @{ $_->{args} } } @directives;
    return @roots ? $self->directory($roots[-1]) : undef;
}

# The files that directives name, { certificate, key, chain => [...] }; undef without a
# certificate. There may be several, of different kinds.
sub certificates {
    my %files;
    for my $directive (grep { @{ $_->{args} } } @_) {
        push @{ $files{ $1 || 'certificate' } }, $directive->{args}[0]
            if $directive->{name} =~ /\Asslcertificate(key|chain)?file\z/;
    }
    return $files{certificate} ? \%files : undef;
}

# The first certificate is the site's; all their files are needed.
sub add_tls {
    my ($self, $found) = @_;
    return if !$found;
    my %files = (key => $found->{certificate}, %$found);
    $_ = [map { $self->{config}->absolute($_) } @$_] for values %files;
    $self->{block}{tls} = { map { $_ => $files{$_}[0] } keys %files };
    add_once($self->{block}{files}, map { @{ $files{$_} || [] } } qw(certificate key chain));
    return;
}

# Rules for the site's own directories may stand outside of the virtual host.
sub add_global_access {
    my ($self) = @_;
    my $block = $self->{block};
    my $root = $block->{root};
    return if !defined $root || defined $self->{base_block}{root} && $root eq $self->{base_block}{root};
    $self->{outside} ||= { rules => by_directory(@{ $self->{base_block}{access} }),
        needed => by_directory(@{ $self->{needed} }) };
    my ($rules, $needed) = @{ $self->{outside} }{qw(rules needed)};
    push @{ $block->{access} }, @{ $rules->{$root} || [] };
    add_once($block->{files}, map { $_->{file} } @{ $needed->{$root} || [] });
    return;
}

# { directory => [those of some records whose path is the directory or lies in it] }
sub by_directory {
    my %found;
    for my $record (@_) {
        for (my $path = $record->{path}; $path =~ m{\A/.}; $path =~ s{/[^/]*\z}{}) {
            push @{ $found{$path} }, $record;
        }
    }
    return \%found;
}

sub note_user_directories {
    my ($self, @hosts) = @_;
    my @rules = grep { $_->{name} eq 'userdir' } flat(@{ $self->{global} }, @hosts);
    my %seen;
    for my $word (grep { !$seen{$_}++ } map { user_directories($_) } @rules) {
        my $pattern = $word =~ m{\A/} ? $word =~ /\*/ ? $word : "$word/*" : "/home/*/$word";
        my @found = grep { $self->{tree}->is_dir($_) } $self->{tree}->glob($pattern) or next;
        my $number = @found;
        splice @found, $MOST_NAMED, @found, '...' if @found > $MOST_NAMED;
        $self->{problems}->add(severity => 'error', object => $self->{base_block}{file},
            text => "$number directories of users served as /~user are no sites and are left out; copy them"
                . " by hand: @found");
    }
    return;
}

# The words of a rule that name directories; it may also name users and other hosts.
sub user_directories {
    my ($rule) = @_;
    my @words = @{ $rule->{args} };
    return if @words && $words[0] =~ /\A(?:disabled|enabled)\z/i;
    return grep { !m{\A\w+://} } @words;
}

sub flat { return map { ($_, $_->{block} ? flat(@{ $_->{block} }) : ()) } @_ }

1;
