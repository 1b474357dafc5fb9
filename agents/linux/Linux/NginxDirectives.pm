# What the directives of nginx's servers say of their sites: methods of Linux::Nginx. The object has
# { tree, prefix, config => Linux::NginxConfig, upstreams => { group => [addresses] }, rules => [what
# "http" gives each server] }, `values`, the Linux::NginxValues of the server, and `block`, the record
# that is filled.
package Linux::NginxDirectives;

use strict;
use warnings;
use Linux::NginxValues qw($OPEN);
use Linux::Site qw(add_once is_host_name);

# Directives that name a file that a site cannot be served without.
my %NEEDED_FILE = map { $_ => 1 } qw(
    auth_basic_user_file ssl_client_certificate ssl_trusted_certificate ssl_crl ssl_dhparam ssl_password_file
);

# Rules of access. A block takes over those around it unless it has some of the same kind.
my %ACCESS_RULE = ((map { $_ => $_ } qw(auth_basic satisfy auth_request internal)),
    map { $_ => 'address' } qw(allow deny));

# Those directives of "http" that hold for each server that has none of their kind.
sub for_all_servers {
    my ($self, @directives) = @_;
    return grep { $ACCESS_RULE{ $_->{name} } || $NEEDED_FILE{ $_->{name} } } @directives;
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
            add_once($block->{roots}, map { $_->{path} } $self->directories($args->[0], $directive));
        }
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
    my @known = grep { !/$OPEN/o } map { $_->{text} } $self->{values}->of($word);
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
    my @paths = grep { !/$OPEN/o } map { $_->{text} } $self->{values}->of($word);
    return map { $self->{config}->absolute($_) } @paths;
}

sub prefixed {
    my ($self, $path) = @_;
    return $self->{tree}->tidy($path =~ m{^/} ? $path : "$self->{prefix}/$path");
}

# The directories that a word means: { path, host }, host where the directory is named by
# a host that the server's names do not list.
sub directories {
    my ($self, $word, $directive) = @_;
    my $block = $self->{block};
    my @found;
    for my $value ($self->{values}->of($word)) {
        my $path = $self->prefixed($value->{text});
        if ($path !~ /$OPEN/o) {
            push @found, { path => $path };
            next;
        }
        my @matches = defined $value->{because} ? () : $self->existing($path);
        push @found, @matches;
        next if @matches && $word =~ /\$/;
        my $object = @{ $block->{names} } ? $block->{names}[0] : $directive->{file};
        my $text = "The directory $word ($directive->{file} line $directive->{line}) depends on the request"
            . ' and was not found: copy by hand what is served from it';
        $self->{problems}->add(severity => 'error', object => $object, text => $text);
    }
    return @found;
}

# Directories that fit a path in which the name of the host is open.
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

# Whether the name of a directory is a host that reaches this server by an open name;
# undef if the server's names exclude it.
sub serves {
    my ($self, $host) = @_;
    my $is_host = is_host_name($host) && $host =~ /\./ ? 1 : 0;
    return $is_host if !@{ $self->{block}{names} } || $self->{values}->has_patterns;
    my @ends = map { /\A\*(\..+)/ ? $1 : () } @{ $self->{block}{names} };
    return $is_host && (grep { $host =~ /.\Q$_\E\z/i } @ends) ? 1 : undef;
}

1;
