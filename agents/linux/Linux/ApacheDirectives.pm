# What the directives of Apache's virtual hosts say of their sites: methods of Linux::Apache. The
# object has { tree, problems, config => Linux::ApacheConfig, configuration, base_block => the record
# of the main server once it is whole, needed => [files that its directories need] } and `block`, the
# record that is filled.
package Linux::ApacheDirectives;

use strict;
use warnings;
use Errno qw(EACCES);
use Linux::Site qw(add_once);

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

sub directory {
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
    $self->add_root_directory($from, $to);
    return;
}

sub note_alias_match {
    my ($self, $path, $pattern, $to) = @_;
    my $block = $self->{block};
    my $object = @{ $block->{names} } ? $block->{names}[0] : $block->{file};
    my $where = defined $to ? "$pattern leads to $to" : "$path leads to $pattern";
    $self->{problems}->add(severity => 'error', object => $object, text => "AliasMatch: $where; directories"
        . ' that an expression leads to are taken only where they lie in a document root: copy others by'
        . ' hand');
    return;
}

sub add_root_directory {
    my ($self, $from, $to) = @_;
    return if $from =~ m{\A/\.well-known/acme-challenge};
    my $directory = $self->directory($to);
    # One that this account may not look at is there all the same.
    add_once($self->{block}{roots}, $directory) if $self->{tree}->exists($directory) || $! == EACCES;
    return;
}

sub add_log {
    my ($self, $path, $where) = @_;
    add_once($self->{block}{logs}, $self->directory($where)) if $where =~ m{/} && $where !~ /\A\||\$|\%/;
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
    add_once($self->{block}{programs}, $self->directory($program));
    return;
}

sub add_user {
    my ($self, $path, $user) = @_;
    $self->{block}{php_user} = $user;
    return;
}

1;
