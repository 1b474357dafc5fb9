# The sites that an nginx configuration serves. Variables are followed where the
# configuration alone decides them; where not, that is a problem of the site.
package Linux::Nginx;

use strict;
use warnings;
use Agent::Process qw(run breathe);
use Linux::ConfigReader;
use Linux::Definitions;
use Linux::HostProgram qw(program);
use Linux::NginxConfig;
use Linux::Site qw(new_block source_of add_once is_host_name join_blocks);
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

# Directives that name a file that a site cannot be served without.
my %NEEDED_FILE = map { $_ => 1 } qw(
    auth_basic_user_file ssl_client_certificate ssl_trusted_certificate ssl_crl ssl_dhparam ssl_password_file
);

# Rules of access. A block takes over those around it unless it has some of the same kind.
my %ACCESS_RULE = ((map { $_ => $_ } qw(auth_basic satisfy auth_request internal)),
    map { $_ => 'address' } qw(allow deny));

# The blocks that may stand by themselves, and in "http".
my %MAIN_BLOCK = map { $_ => 1 } qw(events http stream mail rtmp);
my %HTTP_BLOCK = map { $_ => 1 } qw(server upstream map geo geoip2 types split_clients charset_map match);

my $MOST_VALUES = 1000;
my $HOST_VARIABLE = qr/\A(?:host|http_host|server_name|ssl_server_name)\z/;

# Stands for what only a request decides; no path holds it.
my $OPEN = "\x01";

# Version of the installed server; undef without one.
sub version {
    my ($program) = grep {defined} map { program($_) } @PROGRAMS or return undef;
    return run([$program, '-v'], limit => $LIMIT)->{err} =~ m{/([\d.]+)} ? $1 : undef;
}

# The sites of the host, and what its configurations say besides: { sites, configurations }.
# servers => Linux::WebServers, which knows those that run; instances => [as instances() gives
# them], where others are not to be looked for.
sub look {
    my ($tree, $problems, %options) = @_;
    my (@sites, @configurations);
    for my $instance (@{ $options{instances} || [instances($tree, $options{servers})] }) {
        my $self = bless { tree => $tree, problems => $problems, %$instance }, __PACKAGE__;
        push @sites, $self->sites_of_one(@configurations ? 'nginx-' . (@configurations + 1) : 'nginx');
        push @configurations, $self->{configuration};
    }
    return { sites => \@sites, configurations => \@configurations };
}

# The servers that run, those that are installed, and those that files tell of, each once:
# { main, prefix } and, of one that runs, { program, arguments }.
sub instances {
    my ($tree, $servers) = @_;
    my (@found, %known);
    my @running = $servers ? $servers->running('nginx') : ();
    my @programs = $tree->root eq '/' ? grep {defined} map { program($_) } @PROGRAMS : ();
    for my $one (@running, map { { program => $_ } } @programs) {
        my $instance = instance_of($one);
        my $is_there = $one->{arguments} || $tree->lstat($instance->{main});
        push @found, $instance if $is_there && !$known{ $instance->{main} }++;
    }
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

# The sites of one server with a main file.
sub sites_of_one {
    my ($self, $name) = @_;
    my ($tree, $problems) = @$self{qw(tree problems)};
    my $told = $self->told;
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

# What a server says of its files: { texts => { path => text }, files => [paths] }. It is asked
# only while it runs: to answer, it opens its logs, which are there then.
sub told {
    my ($self) = @_;
    return { files => [] } if !$self->{arguments};
    my @argv = ($self->{program}, '-T', '-p', "$self->{prefix}/", '-c', $self->{main});
    my $asked = run(\@argv, limit => $LIMIT, most => $MOST_BYTES);
    if ($asked->{status} || $asked->{why}) {
        return { files => [] } if $asked->{err} =~ /invalid option/;
        my ($why) = $asked->{err} =~ /\[emerg\] (?:\d+#\d+: )?(.*)/;
        Linux::WebServers::note_refusal($self->{problems}, 'nginx', $self->{main}, $why);
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
    $self->{rules} = [grep { $ACCESS_RULE{ $_->{name} } || $NEEDED_FILE{ $_->{name} } } @plain];
    return map { $self->server_blocks($_, \%inherited) } @servers;
}

sub variable_name {
    my ($word) = @_;
    $word =~ s/\A\$\{?(\w+)\}?\z/$1/;
    return $word;
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

# The folder that the location of everything has of its own, if any: it, and not that of
# the server, is the document root then.
sub main_folder {
    my @directives = @_;
    for my $location (named('location', @directives)) {
        next if join(' ', @{ $location->{args} }) !~ m{\A(?:\^~ )?/\z};
        my ($folder) = grep { $_->{name} =~ /\A(?:root|alias)\z/ && @{ $_->{args} } } @{ $location->{block} };
        return $folder if $folder;
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
    $self->{sets}  = {};
    $self->{patterns} = [];
    $self->add_names(map { @{ $_->{args} } } grep { $_->{name} eq 'server_name' } @directives);
    add_listens($block, @directives);
    my $returns = grep { $_->{name} eq 'return' } @directives;
    $self->collect_sets(\@directives);
    $self->collect_outer(@directives);
    $self->collect(\@directives, '/');
    $self->add_tls(\%scope);
    my @own_hosts = $returns ? ()
        : $self->add_roots(scalar main_folder(@directives), $own{root}, $scope{root});
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
            push @{ $self->{patterns} }, substr $name, 1;
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
        push @{ $self->{sets}{ variable_name($args->[0]) } }, $args->[1] if $name eq 'set' && @$args == 2;
        $self->collect_sets($directive->{block}) if $directive->{block} && $name ne 'server';
    }
    return;
}

# Takes what a server with these directives has from outside.
sub collect_outer {
    my ($self, @directives) = @_;
    my $kind = sub { $ACCESS_RULE{ $_[0]{name} } || $_[0]{name} };
    my %own = map { $kind->($_) => 1 } @directives;
    $self->collect([grep { !$own{ $kind->($_) } } @{ $self->{rules} }], '/');
    return;
}

# Takes from a server and the blocks in it what belongs to the record of a site.
sub collect {
    my ($self, $directives, $path) = @_;
    my $block = $self->{block};
    for my $directive (@$directives) {
        my ($name, $args) = @$directive{qw(name args)};
        if ($directive->{block}) {
            $self->collect_inner($directive, $path) if $name ne 'server';
            next;
        }
        next if !@$args;
        if ($ACCESS_RULE{$name}) {
            push @{ $block->{access} }, { path => $path, rule => join ' ', $name, @$args };
        }
        elsif ($NEEDED_FILE{$name}) { add_once($block->{files}, $self->files($args->[0])) }
        elsif ($name =~ /\A(?:access|error)_log\z/) {
            add_once($block->{logs}, $self->prefixed($args->[0])) if $args->[0] =~ m{\A[^\$]*/[^\$]*\z};
        }
        elsif ($name eq 'return')  { $self->add_return($path, @$args) }
        elsif ($name eq 'rewrite') { $self->add_rewrite($path, @$args) }
        elsif ($name eq 'fastcgi_pass') { add_once($block->{php_addresses}, $self->addresses($args->[0])) }
        elsif ($name =~ /\A(?:proxy|uwsgi|scgi|grpc)_pass\z/) {
            add_once($block->{proxies}, $self->addresses($args->[0]));
        }
        elsif ($name eq 'fastcgi_param' && @$args > 1) { $self->add_php(@$args) }
        elsif ($name =~ /\A(?:root|alias)\z/ && $path ne '/' && $path !~ m{/\.well-known/acme-challenge}) {
            add_once($block->{roots}, map { $_->{path} } $self->folders($args->[0], $directive));
        }
    }
    return;
}

# Settings that go with each request to PHP.
sub add_php {
    my ($self, $parameter, $values) = @_;
    my ($admin) = $parameter =~ /\APHP_(ADMIN_)?VALUE\z/ or return;
    my ($settings, $of_admin) = @{ $self->{block} }{qw(php_settings php_admin)};
    for my $line (split /\n/, $values) {
        my ($name, $value) = $line =~ /\A\s*([\w.]+)\s*=\s*(.*?)\s*\z/ or next;
        next if $of_admin->{$name} && !$admin;
        $settings->{$name} = $value;
        $of_admin->{$name} = 1 if $admin;
    }
    return;
}

sub collect_inner {
    my ($self, $directive, $path) = @_;
    my @args = @{ $directive->{args} };
    return if $directive->{name} =~ /\A(?:types|map|geo|split_clients|upstream)\z/;
    my $inner = $path;
    $inner = join ' ', @args if $directive->{name} eq 'location';
    $inner = join ' ', $path, 'if', @args if $directive->{name} eq 'if';
    $self->collect($directive->{block}, $inner);
    return;
}

sub add_return {
    my ($self, $path, $code, $to) = @_;
    ($code, $to) = (302, $code) if !defined $to && $code =~ m{\A(?:https?://|\$scheme)};
    return if !defined $to || $code !~ /\A30[12378]\z/;
    push @{ $self->{block}{redirects} }, { from => $path, to => $to, code => $code };
    return;
}

sub add_rewrite {
    my ($self, $path, $from, $to, $flag) = @_;
    return if !defined $to;
    my $code = ($flag || '') eq 'permanent' ? 301
        : ($flag || '') eq 'redirect' || $to =~ m{\A(?:https?://|\$scheme)} ? 302 : undef;
    return if !defined $code;
    $from = "$path $from" if $path ne '/';
    push @{ $self->{block}{redirects} }, { from => $from, to => $to, code => $code };
    return;
}

# The servers behind an address or the name of a group of them.
sub addresses {
    my ($self, $word) = @_;
    my @known = grep { !/$OPEN/o } map { $_->{text} } $self->values_of($word);
    return map { $self->servers_at($_) } @known ? @known : $word;
}

sub servers_at {
    my ($self, $address) = @_;
    my ($scheme, $name) = $address =~ m{\A(\w+://)?([^/]*)}g;
    my $group = $self->{upstreams}{ defined $name ? $name : '' };
    return $group ? map { (defined $scheme ? $scheme : '') . $_ } @$group : $address;
}

sub add_tls {
    my ($self, $scope) = @_;
    my $block = $self->{block};
    my $certificate = $scope->{ssl_certificate};
    return if !$certificate || !grep { $_->{tls} } @{ $block->{listen} };
    my $key = $scope->{ssl_certificate_key} || $certificate;
    my @certificates = map { $self->files($_->{args}[0]) } @$certificate;
    my @keys = map { $self->files($_->{args}[0]) } @$key;
    $block->{tls} = { certificate => $certificates[0], key => $keys[0] } if @certificates;
    add_once($block->{files}, @certificates, @keys);
    return;
}

# Existing or plainly named files that a word of the configuration means.
sub files {
    my ($self, $word) = @_;
    return if $word =~ /\A(?:data|engine):/;
    my @paths = grep { !/$OPEN/o } map { $_->{text} } $self->values_of($word);
    return map { $self->{config}->absolute($_) } @paths;
}

sub prefixed {
    my ($self, $path) = @_;
    return $self->{tree}->tidy($path =~ m{^/} ? $path : "$self->{prefix}/$path");
}

# Sets the document root from the folder of the main location, or from the root that counts
# in the server, of which `own` are the server's own. With one folder for each host, gives
# a record for each.
sub add_roots {
    my ($self, $main, $own, $root) = @_;
    my $block = $self->{block};
    my @directives = $main ? ($main, @{ $own || [] }) : @{ $root || [] };
    if (!@directives) {
        $block->{root} = "$self->{prefix}/html" if !grep {@$_} @$block{qw(roots proxies redirects)};
        return;
    }
    my @folders = map { $self->folders($_->{args}[0], $_) } @directives;
    my @hosts = grep { defined $_->{host} } @folders;
    @folders = grep { !defined $_->{host} } @folders;
    $block->{root} = $folders[0]{path} if @folders;
    add_once($block->{roots}, map { $_->{path} } @folders);
    return map { $self->host_block($_) } @hosts;
}

# A copy of the server's record for one of the hosts that a folder shows.
sub host_block {
    my ($self, $folder) = @_;
    my $block = $self->{block};
    my $copy = Linux::Site::copy_of($block);
    return { %$copy, names => [$folder->{host}], root => $folder->{path}, content => 1,
        roots => [grep { $_ ne $folder->{path} } @{ $copy->{roots} }] };
}

# The folders that a word means: { path, host }, host where the folder is named by
# a host that the server's names do not list.
sub folders {
    my ($self, $word, $directive) = @_;
    my $block = $self->{block};
    my @found;
    for my $value ($self->values_of($word)) {
        my $path = $self->prefixed($value->{text});
        if ($path !~ /$OPEN/o) {
            push @found, { path => $path };
            next;
        }
        my @matches = defined $value->{because} ? () : $self->existing($path);
        push @found, @matches;
        next if @matches && $word =~ /\$/;
        my $object = @{ $block->{names} } ? $block->{names}[0] : $directive->{file};
        my $text = "The folder $word ($directive->{file} line $directive->{line}) depends on the request"
            . ' and was not found: copy by hand what is served from it';
        $self->{problems}->add(severity => 'error', object => $object, text => $text);
    }
    return @found;
}

# Folders that fit a path in which the name of the host is open.
sub existing {
    my ($self, $path) = @_;
    (my $pattern = $path) =~ s/([*?\[\\])/\\$1/g;
    $pattern =~ s/$OPEN/*/go;
    my $matches = join '([^/]+)', map { quotemeta } split /$OPEN/o, $path, -1;
    return map {
        my ($host) = /\A$matches\z/;
        my $serves = $self->serves($host);
        defined $serves ? { path => $_, host => $serves ? lc $host : undef } : ();
    } grep { /\A$matches\z/ && $self->{tree}->is_dir($_) } $self->{tree}->glob($pattern);
}

# Tells if the name of a folder is a host that reaches this server by an open name;
# undef if the server's names exclude it.
sub serves {
    my ($self, $host) = @_;
    my $is_host = is_host_name($host) && $host =~ /\./ ? 1 : 0;
    return $is_host if !@{ $self->{block}{names} } || @{ $self->{patterns} };
    my @ends = map { /\A\*(\..+)/ ? $1 : () } @{ $self->{block}{names} };
    return $is_host && (grep { $host =~ /.\Q$_\E\z/i } @ends) ? 1 : undef;
}

# What a word with variables can be, at most $MOST_VALUES of { text, because };
# what requests decide is $OPEN in it, with the variable as `because` where it is not the host.
sub values_of {
    my ($self, $word) = @_;
    return { text => $word } if $word !~ /\$/;
    my (@out, %seen);
    my @exact = grep { is_host_name($_) } @{ $self->{block}{names} };
    my $only_exact = @exact && @exact == @{ $self->{block}{names} };
    for my $host (@exact, $only_exact ? () : undef) {
        push @out, grep { !$seen{ $_->{text} }++ } $self->expand($word, $host, 0);
        last if @out >= $MOST_VALUES;
    }
    return @out;
}

sub expand {
    my ($self, $word, $host, $depth) = @_;
    my @out = { text => '' };
    for my $piece (grep {length} split /(\$\{?\w+\}?)/, $word) {
        my $is_variable = $piece =~ /\A\$/;
        my @values = $is_variable ? $self->variable(variable_name($piece), $host, $depth)
            : { text => $piece };
        my @longer;
        for my $start (@out) {
            push @longer, map { join_texts($start, $_) } @values;
        }
        @out = @longer > $MOST_VALUES ? @longer[0 .. $MOST_VALUES - 1] : @longer;
    }
    return @out;
}

sub join_texts {
    my ($start, $end) = @_;
    my $because = defined $start->{because} ? $start->{because} : $end->{because};
    return { text => "$start->{text}$end->{text}", because => $because };
}

sub variable {
    my ($self, $name, $host, $depth) = @_;
    my $unknown = { text => $OPEN, because => $name };
    return $unknown if $depth > 10;
    return $self->server_name if $name eq 'server_name';
    return { text => defined $host ? $host : $OPEN } if $name =~ $HOST_VARIABLE;
    return map { $self->expand($_, $host, $depth + 1) } @{ $self->{sets}{$name} } if $self->{sets}{$name};
    return $self->map_values($self->{maps}{$name}, $host, $depth + 1) if $self->{maps}{$name};
    return { text => $OPEN } if grep { /\(\?P?[<']\Q$name\E[>']/ } @{ $self->{patterns} };
    return { text => $OPEN } if $name =~ /\A[1-9]\z/ && @{ $self->{patterns} };
    return $unknown;
}

# Only the first name ever stands in this variable.
sub server_name {
    my ($self) = @_;
    my $name = $self->{block}{names}[0];
    return { text => defined $name && is_host_name($name) ? $name : $OPEN };
}

# The values of a variable that a map gives to a host, or all that it can give.
sub map_values {
    my ($self, $map, $host, $depth) = @_;
    my @rules = grep { @{ $_->{args} } == 1 } @{ $map->{block} };
    my $of_host = defined $host && variable_name($map->{args}[0]) =~ $HOST_VARIABLE;
    if ($of_host) {
        my ($rule) = ((grep { lc $_->{name} eq $host } @rules), (grep { in_map($_->{name}, $host) } @rules),
            (grep { $_->{name} eq 'default' } @rules));
        @rules = $rule || ();
    }
    return map { $self->expand($_->{args}[0], $host, $depth) } grep { length $_->{args}[0] } @rules;
}

sub in_map {
    my ($key, $host) = @_;
    return $host =~ /.\Q$1\E\z/i if $key =~ /\A\*(\..+)/;
    return $host eq lc $1 || $host =~ /\.\Q$1\E\z/i if $key =~ /\A\.(.+)/;
    return if $key !~ /\A~(\*?)(.+)/s;
    my ($any_case, $expression) = ($1, $2);
    # An expression that perl does not know matches nothing.
    no warnings 'regexp';
    my $pattern = eval { $any_case ? qr/$expression/i : qr/$expression/ } or return;
    return $host =~ $pattern;
}

1;
