# The sites that an Apache configuration serves: its virtual hosts, and the main
# server where these leave it something to serve.
package Linux::Apache;

use strict;
use warnings;
use Agent::Process qw(run breathe);
use Errno qw(EACCES);
use Linux::ApacheConfig;
use Linux::ConfigReader;
use Linux::Definitions;
use Linux::HostProgram qw(program);
use Linux::Site qw(
    new_block source_of add_once is_host_name target_host join_blocks below is_packaged
);
use Linux::Tree;
use Linux::WebServers;

# Where the main file is, where the server does not say it.
my @MAIN_FILES = qw(
    /etc/apache2/apache2.conf /etc/httpd/conf/httpd.conf /usr/local/apache2/conf/httpd.conf
    /etc/apache2/httpd.conf
);

my @PROGRAMS = qw(apache2 httpd /usr/local/apache2/bin/httpd);

my $LIMIT = 10;
my $MOST_BYTES = 16 * 1024 * 1024;

my $MOST_NAMED = 20;

my %CODE_OF = (permanent => 301, temp => 302, seeother => 303, gone => 410);

# Directives whose meaning is the same wherever they stand in a virtual host.
my %COLLECT = (
    alias => \&add_alias, scriptalias => \&add_alias, aliasmatch => \&note_alias_match,
    scriptaliasmatch => \&note_alias_match, customlog => \&add_log, errorlog => \&add_log,
    transferlog => \&add_log, redirect => \&add_redirect, redirectmatch => \&add_redirect,
    redirectpermanent => sub { add_redirect($_[0], $_[1], 'permanent', @_[2 .. $#_]) },
    redirecttemp => sub { add_redirect($_[0], $_[1], 'temp', @_[2 .. $#_]) },
    rewriterule => \&add_rewrite, authuserfile => \&add_file, authgroupfile => \&add_file,
    sslcacertificatefile => \&add_file, sslcarevocationfile => \&add_file,
    proxypass => \&add_proxy, proxypassmatch => \&add_proxy, sethandler => \&add_handler,
    addhandler => \&add_handler, fcgidwrapper => \&add_wrapper,
    wsgiscriptalias => \&add_script, wsgiscriptaliasmatch => \&add_script, wsgidaemonprocess => \&add_daemon,
    passengerapproot => \&add_program,
    suexecusergroup => \&add_user, assignuserid => \&add_user,
);

my %ACCESS = map { $_ => 1 } qw(
    require requireall requireany allow deny order satisfy authtype authname allowoverride sslverifyclient
    sslrequiressl
);

# Version of the installed server; undef without one.
sub version {
    my ($program) = grep {defined} map { program($_) } @PROGRAMS or return undef;
    return run([$program, '-v'], limit => $LIMIT)->{out} =~ m{Apache/([\w.]+)} ? $1 : undef;
}

# The sites of the host, and what its configurations say besides: { sites, configurations }.
# servers => Linux::WebServers, which knows those that run; instances => [as instances() gives
# them], where others are not to be looked for.
sub look {
    my ($tree, $problems, %options) = @_;
    my (@sites, @configurations);
    for my $instance (@{ $options{instances} || [instances($tree, $options{servers})] }) {
        my $self = bless { tree => $tree, problems => $problems, needed => [], %$instance }, __PACKAGE__;
        push @sites, $self->sites_of_one(@configurations ? 'apache-' . (@configurations + 1) : 'apache');
        push @configurations, $self->{configuration};
    }
    return { sites => \@sites, configurations => \@configurations };
}

# The servers that run, those that are installed, and those that files tell of, each once:
# { main }, where the server says it { base, defines => [names] }, and, of one that runs,
# { program, arguments }.
sub instances {
    my ($tree, $servers) = @_;
    my (@found, %known);
    my @running = $servers ? $servers->running('apache') : ();
    my @programs = $tree->root eq '/' ? grep {defined} map { program($_) } @PROGRAMS : ();
    for my $one (@running, map { { program => $_ } } @programs) {
        my $instance = instance_of($one) or next;
        my $is_there = $one->{arguments} || $tree->lstat($instance->{main});
        push @found, $instance if $is_there && !$known{ $instance->{main} }++;
    }
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

# The sites of one server with a main file.
sub sites_of_one {
    my ($self, $name) = @_;
    my ($tree, $problems, $main) = @$self{qw(tree problems main)};
    my $config = $self->{config} = Linux::ApacheConfig->new(tree => $tree, problems => $problems);
    $config->begin($main, $self->{base}, @{ $self->{defines} || [] });
    my $told = $self->told;
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
        $block->{roots} = $self->{folders_of_all};
        my @uses = $self->sections_for($block->{root}, @{ $block->{roots} });
        $block->{blocks} = [source_of($block, $self->{configuration}, undef, @uses)];
        push @blocks, $block;
    }
    $self->note_user_folders(@hosts);
    my @sites = join_blocks($tree, $problems, @blocks);
    $self->add_folders_of_all(@sites);
    return @sites;
}

# What a server says of its files and of the modules built into it: { files => [paths],
# modules => [names] }. It is asked only while it runs: modules may open their logs to answer.
sub told {
    my ($self) = @_;
    my %told = (files => [], modules => []);
    return \%told if !$self->{arguments};
    my @argv = ($self->{program}, '-d', $self->{base}, '-f', $self->{main},
        map { ('-D', $_) } @{ $self->{defines} }, qw(DUMP_INCLUDES DUMP_MODULES));
    my $asked = run([@argv, '-t'], limit => $LIMIT, most => $MOST_BYTES, env => $self->{config}->environment);
    if ($asked->{status} || $asked->{why}) {
        my ($why) = $asked->{err} =~ /^(?:AH\d+: )?((?:[\w.\/]+: )?Syntax error.*(?:\n.*)?)/m;
        Linux::WebServers::note_refusal($self->{problems}, 'Apache', $self->{main}, $why);
        return \%told;
    }
    $told{files} = [$asked->{out} =~ /^ +\((?:\*|\d+)\) (\/.*)$/mg];
    $told{modules} = [$asked->{out} =~ /^ (\w+) \(static\)$/mg];
    return \%told;
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
    $self->{sections} = { above => {}, below => {}, open => [] };
    for my $section (grep { $_->{block} && @{ $_->{args} } } @others) {
        next if $section->{name} !~ /\Adirectory(?:match)?\z/;
        $self->add_section($definitions->add($section), $section);
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

# Keeps a section so that those for a directory are found without looking at all of them.
sub add_section {
    my ($self, $definition, $section) = @_;
    my $sections = $self->{sections};
    my $path = $section->{args}[0];
    if ($section->{name} eq 'directorymatch' || $path =~ /\A~|[*?\[]/) {
        push @{ $sections->{open} }, $definition;
        return;
    }
    $path = $self->folder($path);
    push @{ $sections->{above}{$path} }, $definition;
    while ($path =~ s{/[^/]+\z}{}) {
        push @{ $sections->{below}{ length $path ? $path : '/' } }, $definition;
    }
    return;
}

# The sections that may count for some directories: those of them, above and below them, also
# by patterns.
sub sections_for {
    my ($self, @folders) = @_;
    my $sections = $self->{sections};
    @folders = grep {defined} @folders;
    my @found = grep { my $section = $_->{directive}; grep { may_touch($section, $_) } @folders }
        @{ $sections->{open} };
    for my $folder (@folders) {
        push @found, @{ $sections->{below}{$folder} || [] };
        for (my $path = $folder; length $path; $path =~ s{/[^/]*\z}{}) {
            push @found, @{ $sections->{above}{$path} || [] };
        }
        push @found, @{ $sections->{above}{'/'} || [] };
    }
    my %seen;
    return grep { !$seen{ $_->{number} }++ } @found;
}

# Whether a section with a pattern may hold for a directory, what is above it or what is in
# it; with an expression it may always.
sub may_touch {
    my ($section, $folder) = @_;
    my $pattern = $section->{args}[0];
    return 1 if $section->{name} eq 'directorymatch' || $pattern =~ /\A~/;
    my @patterns = grep {length} split m{/}, $pattern;
    my @parts    = grep {length} split m{/}, $folder;
    my $last = @patterns < @parts ? $#patterns : $#parts;
    return !grep { $parts[$_] !~ Linux::Tree::pattern($patterns[$_]) } 0 .. $last;
}

# What the block of a site is made of, with what it uses from outside.
sub add_source {
    my ($self, $directive, @inner) = @_;
    my ($block, $definitions) = @$self{qw(block definitions)};
    my @uses = $definitions->with_inner(
        $definitions->used_by(@inner), $self->sections_for($block->{root}, @{ $block->{roots} }),
    );
    $block->{blocks} = [source_of($block, $self->{configuration}, $directive, @uses)];
    $_->{listen} = [map { $self->with_ports($_) } @{ $_->{listen} }] for @{ $block->{blocks} };
    # The main file is the host's own; what a site uses of it is in the description.
    add_once($block->{config}, $directive->{file}, files_of(@inner),
        grep { $_ ne $self->{configuration}{file} } files_of(map { $_->{directive} } @uses));
    return;
}

# An alias outside of the virtual hosts is in all of them: its directory is of each site.
sub add_folders_of_all {
    my ($self, @sites) = @_;
    my $tree = $self->{tree};
    my @roots = grep {defined} map { $tree->real($_) } map { @{ $_->{roots} } } @sites;
    for my $folder (grep { $tree->list($_) } @{ $self->{folders_of_all} }) {
        my $real = $tree->real($folder);
        next if grep { below($real, $_) } @roots;
        add_once($_->{ is_packaged($folder) ? 'packaged' : 'common' }, $folder) for @sites;
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
    $self->{folders_of_all} = $block->{roots};
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

# The record of a virtual host, and of those that its folders make.
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
    my @own_hosts = defined $last{virtualdocumentroot} ? $self->add_folders($last{virtualdocumentroot}) : ();
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
    return @roots ? $self->folder($roots[-1]) : undef;
}

sub folder {
    my ($self, $path) = @_;
    return $self->{tree}->tidy($self->{config}->absolute($path));
}

# Takes from a virtual host and the sections in it what belongs to a site.
sub collect {
    my ($self, $directives, $path, @sections) = @_;
    my $conditions = 0;
    for my $directive (@$directives) {
        my ($name, $args) = @$directive{qw(name args)};
        if ($directive->{block}) {
            next if $name eq 'virtualhost' || $name eq 'proxy';
            $self->collect($directive->{block}, section_path($directive, $path), @sections, $directive);
            next;
        }
        if ($name =~ /\Aphp_(admin_)?(?:value|flag)\z/ && @$args > 1) {
            push @{ $self->{block}{php_rules} },
                { admin => $1 ? 1 : 0, name => $args->[0], value => $args->[1], sections => [@sections] };
        }
        $conditions = 1 if $name eq 'rewritecond';
        if (my $add = $COLLECT{$name}) {
            my $redirects = $self->{block}{redirects};
            my $before = @$redirects;
            $add->($self, $path, @$args) if @$args;
            my $conditional = $conditions && $name eq 'rewriterule' && @$redirects > $before;
            $redirects->[-1]{conditions} = 1 if $conditional;
        }
        elsif ($ACCESS{$name}) {
            push @{ $self->{block}{access} }, { path => $path, rule => join ' ', $name, @$args };
        }
        $conditions = 0 if $name eq 'rewriterule';
    }
    return;
}

sub section_path {
    my ($directive, $path) = @_;
    my @args = @{ $directive->{args} };
    return join ' ', @args if $directive->{name} =~ /\A(?:directory|location)(?:match)?\z/;
    return join ' ', ($path eq '/' ? () : $path), $directive->{name}, @args;
}

sub add_alias {
    my ($self, $path, $from, $to) = @_;
    # Inside of a section that names the place the target stands alone.
    $to = $from if !defined $to;
    $self->add_root_folder($from, $to);
    return;
}

sub note_alias_match {
    my ($self, $path, $pattern, $to) = @_;
    my $block = $self->{block};
    my $object = @{ $block->{names} } ? $block->{names}[0] : $block->{file};
    my $where = defined $to ? "$pattern leads to $to" : "$path leads to $pattern";
    $self->{problems}->add(severity => 'error', object => $object, text => "AliasMatch: $where; folders"
        . ' that an expression leads to are taken only where they lie in a document root: copy others by'
        . ' hand');
    return;
}

sub add_root_folder {
    my ($self, $from, $to) = @_;
    return if $from =~ m{\A/\.well-known/acme-challenge};
    my $folder = $self->folder($to);
    # One that this account may not look at is there all the same.
    add_once($self->{block}{roots}, $folder) if $self->{tree}->exists($folder) || $! == EACCES;
    return;
}

sub add_log {
    my ($self, $path, $where) = @_;
    add_once($self->{block}{logs}, $self->folder($where)) if $where =~ m{/} && $where !~ /\A\||\$|\%/;
    return;
}

sub add_file {
    my ($self, $path, $file) = @_;
    $file = $self->{config}->absolute($file);
    push @{ $self->{needed} }, { path => $path, file => $file } if !$self->{base_block};
    add_once($self->{block}{files}, $file);
    return;
}

sub add_redirect {
    my ($self, $path, @args) = @_;
    my $word = lc $args[0];
    my $code = $CODE_OF{$word} || ($word =~ /\A\d+\z/ ? $word : undef);
    shift @args if defined $code;
    $code = 302 if !defined $code;
    my ($from, $to) = @args > 1 ? @args : ($path, @args);
    return if !defined $to || $code !~ /\A3/;
    push @{ $self->{block}{redirects} }, { from => $from, to => $to, code => $code };
    return;
}

sub add_rewrite {
    my ($self, $path, $from, $to, $flags) = @_;
    return if !defined $to;
    $flags = defined $flags ? $flags : '';
    return $self->add_proxy($path, $to) if $flags =~ /[\[,]\s*(?:P|proxy)\s*[\],]/i;
    my ($redirects, $code) = $flags =~ /[\[,]\s*(R|redirect)(?:=(\w+))?\s*[\],]/i;
    return if !$redirects && $to !~ m{\Ahttps?://};
    $code = defined $code ? $CODE_OF{ lc $code } || $code : 302;
    return if $code !~ /\A3/;
    push @{ $self->{block}{redirects} }, { from => $from, to => $to, code => $code };
    return;
}

sub add_proxy {
    my ($self, $path, @args) = @_;
    my $to = $args[0] =~ m{\A(?:unix:|\w+://)} ? $args[0] : $args[1];
    return if !defined $to || $to eq '!';
    # What a request adds behind the port says nothing about the server.
    $to =~ s{\A(\w+://[^/\$%]+)(?:/[^\$%]*)?[\$%].*}{$1/}s;
    for my $server ($self->servers_of($to)) {
        if (defined(my $address = php_address($server))) {
            add_once($self->{block}{php_addresses}, $address);
        }
        else { add_once($self->{block}{proxies}, $server) }
    }
    return;
}

# The members of a group of servers; what is none, or has none, stands for itself.
sub servers_of {
    my ($self, $to) = @_;
    my ($group) = $to =~ m{\Abalancer://([^/]+)}i or return $to;
    my $members = $self->{members} ||= members_in(undef, @{ $self->{configuration}{directives} });
    return @{ $members->{ lc $group } || [$to] };
}

# { name of a group => [addresses] } of all that some directives have, those in a section for a group too.
sub members_in {
    my ($group, @directives) = @_;
    my %members;
    for my $directive (@directives) {
        my ($name, $args, $block) = @$directive{qw(name args block)};
        my ($first, $second) = @$args;
        my ($named) = defined $first ? $first =~ m{\Abalancer://([^/]+)}i : ();
        if ($block) {
            my $inside = members_in($name eq 'proxy' ? $named : $group, @$block);
            push @{ $members{$_} }, @{ $inside->{$_} } for keys %$inside;
        }
        elsif ($name eq 'balancermember') {
            my ($of, $address) = defined $named ? ($named, $second) : ($group, $first);
            push @{ $members{ lc $of } }, $address if defined $of && defined $address;
        }
    }
    return \%members;
}

# "unix:/socket|fcgi://any" or "fcgi://host:port/..." as the address of a pool.
sub php_address {
    my ($to) = @_;
    return $1 if $to =~ m{\A(unix:[^|]+)\|fcgi:};
    return $1 if $to =~ m{\Afcgi://([^/]+)};
    return;
}

sub add_handler {
    my ($self, $path, $handler) = @_;
    return $self->add_proxy($path, $1) if $handler =~ /\Aproxy:(.*)/s;
    $self->{block}{php_module} ||= 1 if $handler =~ m{\A(?:application/x-httpd-php|php\d*-script)};
    return;
}

sub add_wrapper {
    my ($self, $path, $file) = @_;
    $self->{block}{php_wrapper} = $file;
    add_once($self->{block}{files}, $file);
    return;
}

# Programs that a module of the server runs: "WSGIScriptAlias /address file [option=value...]".
sub add_script {
    my ($self, $path, $from, $to) = @_;
    $self->add_program($path, $to) if defined $to;
    return;
}

# Directories of a program: "WSGIDaemonProcess name [option=value...]".
sub add_daemon {
    my ($self, $path, $name, @options) = @_;
    for my $option (@options) {
        my ($key, $value) = $option =~ /\A([\w-]+)=(.*)\z/ or next;
        $self->{block}{php_user} = $value if $key eq 'user';
        $self->add_program($path, $_) for $key =~ /\A(?:home|python-home)\z/ ? $value
            : $key eq 'python-path' ? split /:/, $value : ();
    }
    return;
}

sub add_program {
    my ($self, $path, $program) = @_;
    add_once($self->{block}{programs}, $self->folder($program));
    return;
}

sub add_user {
    my ($self, $path, $user) = @_;
    $self->{block}{php_user} = $user;
    return;
}

# The settings of PHP that rules make for the document root of a record; those of sections
# count more, and those of the administrator most.
sub set_php {
    my ($block, @rules) = @_;
    my @fit = grep { all_cover($block->{root}, @{ $_->{sections} }) } @rules;
    my ($settings, $admin) = @$block{qw(module_settings module_admin)} = ({}, {});
    for my $rule ((grep { !@{ $_->{sections} } } @fit), (grep { @{ $_->{sections} } } @fit)) {
        my $name = $rule->{name};
        next if $admin->{$name} && !$rule->{admin};
        $settings->{$name} = $rule->{value};
        $admin->{$name} = 1 if $rule->{admin};
    }
    return;
}

sub all_cover {
    my ($root, @sections) = @_;
    return !grep { !covers($_, $root) } @sections;
}

# True if a section holds for all scripts of a document root.
sub covers {
    my ($section, $root) = @_;
    my ($name, @args) = ($section->{name}, @{ $section->{args} });
    my $is_expression = $name =~ s/match\z// || (@args && $args[0] eq '~' && shift @args) ? 1 : 0;
    my $word = $args[0];
    return 0 if $name =~ /\A(?:if|elseif|else|limit|limitexcept)\z/ || !defined $word;
    return is_like('/index.php', $is_expression ? $word : "$word*", $is_expression) if $name eq 'location';
    return is_like('index.php', $word, $is_expression) if $name eq 'files';
    return 1 if $name ne 'directory';
    return 0 if !defined $root;
    return is_like("$root/", $word, 1) if $is_expression;
    $word =~ s{(?<=.)/\z}{};
    return 1 if $word eq '/';
    for (my $path = $root; length $path; $path =~ s{/[^/]*\z}{}) {
        return 1 if is_like($path, $word, 0);
    }
    return 0;
}

# Whether a text fits a pattern of the shell, part by part of its path, or holds what an
# expression means; one that perl does not know fits nothing.
sub is_like {
    my ($text, $pattern, $is_expression) = @_;
    if ($is_expression) {
        no warnings 'regexp';
        return eval { $text =~ /$pattern/ } ? 1 : 0;
    }
    my @texts = split m{/}, $text, -1;
    my @patterns = split m{/}, $pattern, -1;
    return @texts == @patterns && !grep { $texts[$_] !~ Linux::Tree::pattern($patterns[$_]) } 0 .. $#texts;
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

# Rules for the site's own folders may stand outside of the virtual host.
sub add_global_access {
    my ($self) = @_;
    my $block = $self->{block};
    my $root = $block->{root};
    return if !defined $root || defined $self->{base_block}{root} && $root eq $self->{base_block}{root};
    $self->{outside} ||= { rules => by_folder(@{ $self->{base_block}{access} }),
        needed => by_folder(@{ $self->{needed} }) };
    my ($rules, $needed) = @{ $self->{outside} }{qw(rules needed)};
    push @{ $block->{access} }, @{ $rules->{$root} || [] };
    add_once($block->{files}, map { $_->{file} } @{ $needed->{$root} || [] });
    return;
}

# { folder => [those of some records whose path is the folder or lies in it] }
sub by_folder {
    my %found;
    for my $record (@_) {
        for (my $path = $record->{path}; $path =~ m{\A/.}; $path =~ s{/[^/]*\z}{}) {
            push @{ $found{$path} }, $record;
        }
    }
    return \%found;
}

# One folder for each host: what they are for the names that are known, and a
# record for each host that a folder shows.
sub add_folders {
    my ($self, $pattern) = @_;
    my $block = $self->{block};
    my @exact = grep { is_host_name($_) } @{ $block->{names} };
    my @known = grep { $self->{tree}->is_dir($_) } map { $self->folder(host_folder($pattern, $_)) } @exact;
    $block->{root} = $known[0];
    add_once($block->{roots}, @known);
    my %taken = map { $_ => 1 } @known;
    my ($before, $after) = $pattern =~ /\A([^%]*)%0([^%]*)\z/;
    if (!defined $before) {
        my $object = defined $exact[0] ? $exact[0] : $block->{file};
        my $text = "The folder $pattern ($block->{file}) depends on the request;"
            . ' only those of its names are taken: copy others by hand';
        $self->{problems}->add(severity => 'error', object => $object, text => $text);
        return;
    }
    (my $glob = $self->folder("$before\x01$after")) =~ s/([*?\[\\])/\\$1/g;
    $glob =~ s/\x01/*/;
    my $matches = join '([^/]+)', map { quotemeta } split /\x01/, $self->folder("$before\x01$after"), -1;
    my @hosts;
    for my $folder (grep { !$taken{$_} && $self->{tree}->is_dir($_) } $self->{tree}->glob($glob)) {
        my ($host) = $folder =~ /\A$matches\z/ or next;
        push @hosts, $self->host_block(lc $host, $folder) if is_host_name($host) && $host =~ /\./;
    }
    return @hosts;
}

sub host_block {
    my ($self, $host, $root) = @_;
    my $block = $self->{block};
    my $copy = Linux::Site::copy_of($block);
    return { %$copy, names => [$host], root => $root, content => 1, roots => [] };
}

# Fills a folder pattern with a host: %0 all of it, %N its part N, %-N counted from
# the end, with "+" that part and all on that side of it; %N.M letter M of a part.
sub host_folder {
    my ($pattern, $host) = @_;
    my @parts = split /\./, $host;
    $pattern =~ s{%(?:(-?\d+)(\+?)(?:\.(-?\d+)(\+?))?|(%))}
        {defined $5 ? '%' : piece(piece_of_list(\@parts, '.', $1, $2), $3, $4)}ge;
    return $pattern;
}

sub piece {
    my ($text, $number, $open) = @_;
    return $text if !defined $number;
    return piece_of_list([split //, $text], '', $number, $open);
}

sub piece_of_list {
    my ($list, $glue, $number, $open) = @_;
    return join $glue, @$list if $number == 0;
    my $at = $number > 0 ? $number - 1 : @$list + $number;
    # The server, too, writes "_" for a part that the host does not have.
    return '_' if $at < 0 || $at > $#$list;
    my @taken = !$open ? $at : $number > 0 ? ($at .. $#$list) : (0 .. $at);
    return join $glue, @$list[@taken];
}

sub note_user_folders {
    my ($self, @hosts) = @_;
    my @rules = grep { $_->{name} eq 'userdir' } flat(@{ $self->{global} }, @hosts);
    my %seen;
    for my $word (grep { !$seen{$_}++ } map { user_folders($_) } @rules) {
        my $pattern = $word =~ m{\A/} ? $word =~ /\*/ ? $word : "$word/*" : "/home/*/$word";
        my @found = grep { $self->{tree}->is_dir($_) } $self->{tree}->glob($pattern) or next;
        my $number = @found;
        splice @found, $MOST_NAMED, @found, '...' if @found > $MOST_NAMED;
        $self->{problems}->add(severity => 'error', object => $self->{base_block}{file},
            text => "$number folders of users served as /~user are no sites and are left out; copy them by"
                . " hand: @found");
    }
    return;
}

# The words of a rule that name folders; it may also name users and other hosts.
sub user_folders {
    my ($rule) = @_;
    my @words = @{ $rule->{args} };
    return if @words && $words[0] =~ /\A(?:disabled|enabled)\z/i;
    return grep { !m{\A\w+://} } @words;
}

sub flat { return map { ($_, $_->{block} ? flat(@{ $_->{block} }) : ()) } @_ }

1;
