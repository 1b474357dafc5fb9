# Which PHP runs a site, as whom and with which settings of its own, taken from
# the pools, the web server's configuration and the files in the document root.
package Linux::Php;

use strict;
use warnings;
use Agent::Process qw(run);
use Linux::ConfigReader;
use Linux::HostProgram qw(answer_of program);
use Linux::WebServers;

# Directories of pool files, the file above them that may have pools too, and what tells the
# version in their paths.
my @POOLS = (
    ['/etc/php/*/fpm/pool.d', '/etc/php/*/fpm/php-fpm.conf', qr{/php/([\d.]+)/}],
    ['/etc/php5/fpm/pool.d', '/etc/php5/fpm/php-fpm.conf', qr{/php(5)/}],
    ['/etc/php-fpm.d', '/etc/php-fpm.conf', undef],
    ['/etc/opt/remi/php*/php-fpm.d', '/etc/opt/remi/php*/php-fpm.conf', qr{/php(\d+)/}],
    ['/opt/remi/php*/root/etc/php-fpm.d', '/opt/remi/php*/root/etc/php-fpm.conf', qr{/php(\d+)/}],
    ['/etc/opt/rh/rh-php*/php-fpm.d', '/etc/opt/rh/rh-php*/php-fpm.conf', qr{/rh-php(\d+)/}],
    ['/usr/local/etc/php-fpm.d', '/usr/local/etc/php-fpm.conf', undef],
);

my $MOST_DEPTH = 10;

my $LIMIT = 10;
my $MOST_BYTES = 1_000_000;

# Each way to run PHP: the files that name what it loads, and programs that can be asked; "%s"
# is the version, "%d" the version without its point. A module of Apache cannot be asked.
my %LOADED = (
    fpm => [
        ['/etc/php/%s/fpm', '/usr/sbin/php-fpm%s'],
        ['/etc/opt/remi/php%d', '/opt/remi/php%d/root/usr/sbin/php-fpm'],
        ['/etc/opt/rh/rh-php%d', '/opt/rh/rh-php%d/root/usr/sbin/php-fpm'],
        ['/etc', '/usr/sbin/php-fpm'], ['/usr/local/etc/php', '/usr/local/sbin/php-fpm'],
    ],
    module => [['/etc/php/%s/apache2'], ['/etc/opt/remi/php%d'], ['/etc/opt/rh/rh-php%d'], ['/etc']],
    cgi => [
        ['/etc/php/%s/cgi', '/usr/bin/php-cgi%s'],
        ['/etc/opt/remi/php%d', '/opt/remi/php%d/root/usr/bin/php-cgi'], ['/etc', '/usr/bin/php-cgi'],
    ],
    cli => [
        ['/etc/php/%s/cli', '/usr/bin/php%s'],
        ['/etc/opt/remi/php%d', '/opt/remi/php%d/root/usr/bin/php'], ['/etc', '/usr/bin/php'],
    ],
);

# Ways to run PHP, as in the handler of a site.
our @WAYS = sort keys %LOADED;

# Settings of extensions below a directory of those above.
my @INI = qw(php.ini php.d/*.ini conf.d/*.ini);

# Installations without a pool show by their configuration directories.
my @VERSION_DIRECTORIES = (
    ['/etc/php/*', qr{/(\d+\.\d+)\z}],
    ['/etc/opt/remi/php*', qr{/php(\d+)\z}],
    ['/opt/rh/rh-php*', qr{/rh-php(\d+)\z}],
);

# tree, problems and, where running process managers count, Linux::WebServers.
sub new {
    my ($class, $tree, $problems, $servers) = @_;
    my $self = bless { tree => $tree, problems => $problems, pools => [], by_listen => {} }, $class;
    my @running = $servers ? $servers->process_managers : ();
    $self->read_pools;
    for my $manager (@running) {
        $self->read_pool_file($manager->{main}, version_of($manager->{main}, $manager->{program}));
        $self->believe($manager);
    }
    $self->index_pools;
    return $self;
}

# What the path of a file says of the version, or else the program that reads it.
sub version_of {
    my ($file, $program) = @_;
    my ($version) = grep {defined} map { $_->[2] && $file =~ $_->[2] ? dotted($1) : () } @POOLS;
    return $version if defined $version;
    my $said = run([$program, '-v'], limit => $LIMIT, most => $MOST_BYTES)->{out};
    return $said =~ /^PHP (\d+\.\d+)/m ? $1 : undef;
}

# Takes over what a running process manager says of its pools: pools that no file has shown, and
# at which address and as which account the others run. Its own words are of the same form as
# its files, without quotes.
sub believe {
    my ($self, $manager) = @_;
    my @argv = ($manager->{program}, '-y', $manager->{main}, '-tt');
    my $asked = run(\@argv, limit => $LIMIT, most => $MOST_BYTES);
    if ($asked->{status} || $asked->{why}) {
        my ($why) = $asked->{err} =~ /(?:ERROR|ALERT): (.*)/;
        Linux::WebServers::note_refusal($self->{problems}, 'PHP-FPM', $manager->{main}, $why);
        return;
    }
    my $version = version_of(@$manager{qw(main program)});
    my @of_version = grep { defined $_->{version} && defined $version && $_->{version} eq $version }
        @{ $self->{pools} };
    my %known = map { ($_->{name} => $_) } @of_version;
    my $pool;
    for my $line ($asked->{err} =~ /NOTICE: (.*)/g) {
        if ($line =~ /\A\[(.+)\]\z/) {
            $pool = $1 eq 'global' ? undef : $known{$1} || $self->new_pool($1, $manager->{main}, $version);
        }
        elsif ($pool && $line =~ /\A\s+(\S+) = (.*)\z/ && $2 ne 'undefined') {
            my ($key, $value) = ($1, $2);
            my $counts = !$known{ $pool->{name} } || $key =~ /\A(?:user|group|listen)\z/;
            put_in_pool($pool, $key, $value) if $counts;
        }
    }
    return;
}

sub new_pool {
    my ($self, $name, $file, $version) = @_;
    my $pool = { name => $name, file => $file, files => [$file], version => $version,
        settings => {}, admin => {}, env => {} };
    push @{ $self->{pools} }, $pool if $name ne 'global';
    return $pool;
}

# Versions of all PHP installations that can be seen, sorted.
sub versions {
    my ($tree) = @_;
    my %found;
    for my $place (@VERSION_DIRECTORIES) {
        my ($pattern, $version) = @$place;
        $_ =~ $version and $found{ dotted($1) } = 1 for $tree->glob($pattern);
    }
    my $default = default_version($tree);
    $found{$default} = 1 if defined $default;
    return sort { by_version($a, $b) } keys %found;
}

# The names of the extensions that a version of PHP has where it is run in a way (fpm, module,
# cgi, cli), sorted; none where nothing names them. The program is asked; without one its
# files are read, which do not name what is built in.
my %extensions;
sub extensions {
    my ($tree, $version, $way) = @_;
    return if !defined $version;
    my $known = $extensions{ join "\0", $tree->root, $version, $way } ||= [loaded($tree, $version, $way)];
    return @$known;
}

sub loaded {
    my ($tree, $version, $way) = @_;
    (my $number = $version) =~ s{\.}{}g;
    my $default = default_version($tree);
    for my $place (@{ $LOADED{$way} || [] }) {
        # A place without a version is that of the distribution's own.
        next if $place->[0] !~ /%/ && (!defined $default || $default ne $version);
        my ($directory, $program) = @$place;
        for (grep {defined} $directory, $program) {
            s/%s/$version/;
            s/%d/$number/;
        }
        my @names = told_by($tree, $program);
        @names = named_in($tree, $directory) if !@names;
        return @names if @names;
    }
    return;
}

sub told_by {
    my ($tree, $program) = @_;
    my $told = defined $program ? answer_of($tree, [$program, '-m'], limit => $LIMIT) : undef;
    return if !defined $told;
    return sorted_once(map { s/\AZend //; $_ } grep { /\A\w/ } split /\n/, $told);
}

sub named_in {
    my ($tree, $directory) = @_;
    my @lines = map { $tree->read_lines($_) } map { $tree->glob("$directory/$_") } @INI;
    my @loads = map { /\A\s*(?:zend_)?extension\s*=\s*["']?([^\s"';]+)/ ? $1 : () } @lines;
    return sorted_once(map { m{([^/]+?)(?:\.so)?\z} ? $1 : () } @loads);
}

sub sorted_once {
    my %names = map { lc $_ => 1 } @_;
    return sort keys %names;
}

sub by_version {
    my ($left, $right) = @_;
    my @left  = split /\./, $left;
    my @right = split /\./, $right;
    return $left[0] <=> $right[0] || ($left[1] || 0) <=> ($right[1] || 0);
}

# "82" and "8.2" as "8.2".
sub dotted {
    my ($version) = @_;
    return $version =~ /\A(\d)(\d+)\z/ ? "$1.$2" : $version;
}

# The version of the distribution's own package; only a live system can tell.
my %default_version;
sub default_version {
    my ($tree) = @_;
    return undef if $tree->root ne '/';
    return $default_version{known} if exists $default_version{known};
    my ($program) = grep {defined} map { program($_) } qw(php-fpm php);
    my $text = $program ? run([$program, '-v'], limit => 5, most => 10_000)->{out} : '';
    return $default_version{known} = $text =~ /\APHP (\d+\.\d+)/m ? $1 : undef;
}

sub read_pools {
    my ($self) = @_;
    my $tree = $self->{tree};
    for my $place (@POOLS) {
        my ($directory, $main, $version) = @$place;
        Linux::ConfigReader::note_unreadable($tree, $self->{problems}, "$directory/*.conf");
        for my $file (map { $tree->glob($_) } "$directory/*.conf", $main) {
            my $of_file = $version && $file =~ $version ? dotted($1) : default_version($tree);
            $self->read_pool_file($file, $of_file);
        }
    }
    return;
}

# Reads a file and those that it includes. A file without a heading of its own goes on
# with the pool that includes it, $pool; gives the pool that its end belongs to.
sub read_pool_file {
    my ($self, $file, $version, $pool, @stack) = @_;
    return $pool if $self->{has_pools}{$file} || @stack > $MOST_DEPTH || grep { $_ eq $file } @stack;
    my $text = $self->{tree}->read_file($file);
    if (!defined $text) {
        $self->{problems}->add(severity => 'error', object => $file, text => "Cannot be read: $!");
        return $pool;
    }
    push @{ $pool->{files} }, $file if $pool;
    for my $line (split /\r?\n/, $text) {
        if ($line =~ /\A\s*\[([^\]]+)\]/) {
            $self->{has_pools}{$file} = 1;
            $pool = $self->new_pool($1, $file, $version);
        }
        elsif ($line =~ /\A\s*include\s*=\s*["']?([^\s"']+)/) {
            my $pattern = $1;
            # Others start where PHP is installed.
            $pattern = "$1/$pattern" if $pattern !~ m{\A/} && $file =~ m{\A(.*?)/etc/};
            for my $inner ($self->{tree}->glob($pattern)) {
                $pool = $self->read_pool_file($inner, $version, $pool, @stack, $file);
            }
        }
        elsif ($pool && $line =~ /\A\s*([\w.\[\]-]+)\s*=\s*(.*?)\s*\z/) { set_in_pool($pool, $1, $2) }
    }
    return $pool;
}

# Makes the pools known by the addresses that they listen at.
sub index_pools {
    my ($self) = @_;
    for my $one (grep { defined $_->{listen} } @{ $self->{pools} }) {
        my $listen = $one->{listen};
        $listen = "$one->{prefix}/$listen" if defined $one->{prefix} && $listen !~ m{\A/|:|\A\d+\z};
        $self->{by_listen}{ address($listen) } ||= $one;
    }
    return;
}

sub set_in_pool {
    my ($pool, $key, $value) = @_;
    return put_in_pool($pool, $key, value_of($value, qr/;.*/s));
}

sub put_in_pool {
    my ($pool, $key, $value) = @_;
    $value =~ s/\$pool\b/$pool->{name}/g;
    if ($key =~ /\Aphp_(admin_)?(?:value|flag)\[(.+)\]\z/) {
        $pool->{settings}{$2} = $value;
        $pool->{admin}{$2} = 1 if $1;
        }
    $pool->{env}{$1} = $value if $key =~ /\Aenv\[(.+)\]\z/;
    $pool->{$key} = $value if $key =~ /\A(?:user|group|listen|chroot|prefix)\z/;
    return;
}

# One way to write an address that servers and pools write in several.
sub address {
    my ($address) = @_;
    $address =~ s/\Aunix://;
    return "127.0.0.1:$address" if $address =~ /\A\d+\z/;
    $address =~ s{\A/var/run/}{/run/};
    $address =~ s/\A(?:localhost|\[::1?\]|\*)?:/127.0.0.1:/;
    $address =~ s/\A0\.0\.0\.0:/127.0.0.1:/;
    return $address;
}

# What runs a site; undef where nothing does: { version, handler => 'fpm',
# 'module', 'cgi' or 'fastcgi', pool, pool_user, pool_file, pool_files (all that the
# pool is made of), listen, settings, env (of the pool), extensions => [names] }.
sub of_site {
    my ($self, $site) = @_;
    my $php = $self->run_of_site($site) or return;
    return { %$php, extensions => [extensions($self->{tree}, @$php{qw(version handler)})] };
}

sub run_of_site {
    my ($self, $site) = @_;
    my ($listen, $pool) = $self->pool_of(@{ $site->{php_addresses} });
    if (defined $listen) {
        $pool ||= { settings => {}, admin => {} };
        return { version => $pool->{version}, handler => $pool->{name} ? 'fpm' : 'fastcgi',
            pool => $pool->{name}, pool_user => $pool->{user}, pool_file => $pool->{file},
            pool_files => $pool->{files}, listen => $listen, env => $pool->{env},
            settings => $self->pool_settings($site, $pool) };
    }
    return { version => undef, handler => 'cgi', pool_user => $site->{php_user},
        settings => { $self->user_settings($site) } } if defined $site->{php_wrapper};
    return if !$site->{php_module};
    my $version = $site->{php_module} =~ /\./ ? $site->{php_module} : default_version($self->{tree});
    return { version => $version, handler => 'module', pool_user => $site->{php_user},
        settings => $self->module_settings($site) };
}

# The settings with a pool. What the web server sends with a request changes all that the pool
# has set, the file in the document root what is not an administrator's.
sub pool_settings {
    my ($self, $site, $pool) = @_;
    my %of_directory = $self->user_settings($site);
    delete @of_directory{ keys %{ $pool->{admin} }, keys %{ $site->{php_admin} } };
    return { %{ $pool->{settings} }, %{ $site->{php_settings} }, %of_directory };
}

# The settings of the module, where the file in the document root changes what is not an
# administrator's.
sub module_settings {
    my ($self, $site) = @_;
    my %of_directory = $self->directory_settings($site);
    delete @of_directory{ keys %{ $site->{module_admin} } };
    return { %{ $site->{module_settings} }, %of_directory };
}

sub pool_of {
    my ($self, @addresses) = @_;
    for my $address (@addresses) {
        my $pool = $self->{by_listen}{ address($address) };
        return ($address, $pool) if $pool;
    }
    return $addresses[0];
}

sub user_settings {
    my ($self, $site) = @_;
    return $self->file_settings($site, '.user.ini', qr/\A\s*([\w.]+)\s*=\s*(.*)\z/s, qr/;.*/s);
}

sub directory_settings {
    my ($self, $site) = @_;
    return $self->file_settings($site, '.htaccess', qr/\A\s*php_(?:value|flag)\s+([\w.]+)\s+(.*)\z/is);
}

sub file_settings {
    my ($self, $site, $name, $pattern, $comment) = @_;
    return if !defined $site->{root};
    my @lines = $self->{tree}->read_lines("$site->{root}/$name", 1_000_000);
    return map { $_ =~ $pattern ? ($1 => value_of($2, $comment)) : () } @lines;
}

# A value without its quotes, or without the comment and the blanks after it.
sub value_of {
    my ($text, $comment) = @_;
    return $2 if $text =~ /\A(["'])(.*?)\1/s;
    $text =~ s/$comment// if $comment;
    return $text =~ /\A(.*\S)/s ? $1 : '';
}

1;
