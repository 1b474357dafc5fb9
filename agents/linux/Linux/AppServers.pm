# The application server behind a site that hands requests on: from the address in the web server's
# configuration to the process that listens there, its unit, its account and the directory that it
# runs in. Where nothing listens, from the files that name the address.
#
# Anybody may listen at a free port. So what a process says of itself counts only for files of its own
# account; what root's units and files say counts as it stands.
package Linux::AppServers;

use strict;
use warnings;
use Fcntl qw(S_IROTH S_IWGRP S_IWOTH);
use Linux::HostProgram qw(answer_of);
use Linux::Listeners;
use Linux::Site qw(add_once below is_of_system);
use Linux::Units;

my @UNITS = qw(/etc/systemd/system /run/systemd/system /usr/local/lib/systemd/system /lib/systemd/system
    /usr/lib/systemd/system);
my $IN_HOME = '.config/systemd/user';

# Files of root's that start application servers. A pattern of a package's units comes last: what is
# the host's own says more.
my @STARTERS = qw(/etc/systemd/system/*.service /etc/systemd/system/*.socket /etc/systemd/system/*.d/*.conf
    /etc/supervisor/conf.d/*.conf /etc/supervisor/*.conf /etc/supervisord.d/*.ini /etc/supervisord.conf
    /etc/uwsgi/apps-enabled/* /etc/uwsgi/vassals/* /etc/uwsgi-emperor/vassals/* /etc/uwsgi.d/*.ini
    /etc/gunicorn.d/* /etc/init.d/* /etc/default/* /usr/local/lib/systemd/system/*.service
    /lib/systemd/system/*.service /lib/systemd/system/*.socket);
my @STARTERS_IN_HOMES = ("$IN_HOME/*.service", '.pm2/dump.pm2', 'ecosystem.config.js');

# Servers whose sites and pools are found by their configuration.
my $KNOWN_SERVER = qr/\A(?:nginx|apache2|httpd|php-fpm[\d.]*)(?:\z|:)/;

# What only runs the code of others, and is no application by itself.
my $RUNS_OTHERS = qr/\A(?:supervisord?|uwsgi(?:-emperor|-app@.*)?|crond?|pm2.*|docker|containerd)\.service\z/;

# Where no application is, whatever runs there.
my $NO_PLACE = qr{\A/(?:usr/(?!local/)|(?:etc|boot|s?bin|lib\w*|dev|proc|run|sys|tmp)/
    |var/(?:cache|log|spool|tmp|run)/)}x;

my %PORT = (ajp => 8009, fcgi => 9000, (map { $_ => 80 } qw(http h2c grpc ws)), map { $_
    => 443 } qw(https grpcs wss));

# What they set, in the files of units, supervisor, uWSGI and pm2.
my %SETS_DIRECTORY = map { $_ => 1 } qw(WorkingDirectory directory chdir chdir2 pythonpath pm_cwd cwd);
my %STARTS_PROGRAM = map { $_ => 1 } qw(ExecStart command wsgi-file pm_exec_path home virtualenv script);

my $MOST_BYTES = 256 * 1024;
my $RUNTIME    = qr{/(python|node|nodejs|ruby|perl|php)[\d.]*\z};

# tree, problems, users => Linux::Users, roots => Linux::AppRoots, packages => Linux::Packages.
sub new {
    my ($class, %options) = @_;
    return bless {%options, known => {}}, $class;
}

# The application servers of a site: [{ address, unit, file, files, account, directory, kind, program,
# version, runtime, package, found }]. `files` are to be packed with the site, `runtime` a directory
# with the programs that run the application, `package` the id of the package that brings the unit.
# What is not found is an error of the site.
sub of_site {
    my ($self, $site) = @_;
    my @found;
    for my $word (addresses_of($site)) {
        my $known = $self->{known}{$word} ||= $self->look_at($word);
        my $service = $known->{service};
        $self->{problems}->add(severity => $known->{severity}, object => $site->{name},
            text => "Requests are handed on to $word, $known->{text}") if defined $known->{text};
        push @found, $service if $service && !grep { $_ == $service } @found;
    }
    return @found;
}

sub addresses_of {
    my ($site) = @_;
    my $php = $site->{php} || {};
    my @words = @{ $site->{proxies} || [] };
    push @words, $php->{listen} if ($php->{handler} || '') eq 'fastcgi' && defined $php->{listen};
    my %seen;
    return grep { !$seen{$_}++ } @words;
}

# { socket } or { host, port } of a word of a configuration; undef where only requests decide it.
sub parsed {
    my ($word) = @_;
    return { socket => $1 } if $word =~ m{(?:\A|://)unix:(/[^:|]+)};
    my ($scheme, $host, $port) = $word =~ m{\A(?:(\w+)://)?(\[[^\]]*\]|[^/:]*)(?::([0-9]+))?(?:/|\z)}
        or return undef;
    return undef if $host =~ /[\$\x01]/ || $word =~ /:\$/;
    $port = $PORT{ lc($scheme || 'http') } if !defined $port;
    return defined $port ? { host => $host, port => $port } : undef;
}

# { service, severity, text } of one address.
sub look_at {
    my ($self, $word) = @_;
    my $by_hand = 'copy the application and its settings by hand';
    my $address = parsed($word);
    return failure("which only requests decide: find out what answers there, and $by_hand") if !$address;
    my $listeners = $self->{listeners} ||= Linux::Listeners->new($self->{tree});
    return failure("which is another host: what answers there is not in the dump; make sure that the new host"
        . ' reaches it, or migrate it too') if !defined $address->{socket}
            && !$listeners->is_here($address->{host});
    my ($process) = $listeners->at($address);
    return $self->by_files($word, $address) if !$process || $process->{pid} == 1;
    return {} if $process->{name} =~ $KNOWN_SERVER;
    return failure('where a container answers: its image and its volumes are not in the dump; export them'
        . ' (docker save, docker compose, the directories of its volumes) and start it on the new host')
        if $process->{container} || $process->{name} =~ /\Adocker-pr/;
    return $self->by_process($word, $address, $process);
}

sub failure {
    my ($text) = @_;
    return { severity => 'error', text => $text };
}

sub by_process {
    my ($self, $word, $address, $process) = @_;
    my $account = $self->{users}->name_of($process->{uid});
    my $service = { address => $word, account => $account, found => 'process that listens there',
        program => $process->{program}, unit => $process->{unit}, files => [] };
    my $unit = defined $process->{unit} ? $self->unit($process) : undef;
    $self->add_unit($service, $unit) if $unit;
    my @named = $unit && !$self->runs_others($process) ? ()
        : ($self->files_naming($address), $self->files_of_directory($process->{directory}));
    $self->add_starter($service, $_) for @named;
    $self->add_settings($service, $process);
    $self->add_directory($service, $process, $unit, @named);
    $self->add_runtime($service, $process);
    my $trusted = $unit && $unit->{of_root} && !$self->runs_others($process) || grep { $_->{of_root} } @named;
    return $self->judged($word, $service, $process, $trusted);
}

sub runs_others { return $_[1]{unit} =~ $RUNS_OTHERS }

sub judged {
    my ($self, $word, $service, $process, $trusted) = @_;
    my ($account, $directory) = @$service{qw(account directory)};
    my $is_person = $self->is_person($process->{uid});
    $service->{trusted} = $trusted || !$is_person ? 1 : 0;
    return { service => $service, severity => 'error', text => "where a process of $account answers whose"
        . ' application was not found: copy its directory and its settings by hand' }
        if !defined $directory && !defined $service->{package};
    return { service => $service } if $service->{trusted};
    return { service => $service, severity => 'warning', text => "where a process of $account answers that"
        . " nothing of root's has started: its directory $directory is packed as it is; make sure that this"
        . ' is what shall answer there' };
}

sub is_person {
    my ($self, $uid) = @_;
    my $account = $self->{users}->by_uid($uid);
    return $uid && !($account && $self->{users}->is_system($account));
}

# The files of the unit that a process runs in, and what they say: { name, files, needs, of_root,
# settings => { key => [values] }, file }; undef where there is no such file.
sub unit {
    my ($self, $process) = @_;
    my $name = $process->{unit};
    my @directories = @UNITS;
    if (defined $process->{session_of}) {
        my $account = $self->{users}->by_uid($process->{session_of});
        @directories = (($account ? "$account->{home}/$IN_HOME" : ()), '/etc/systemd/user');
    }
    return $self->unit_in($name, @directories);
}

sub unit_in {
    my ($self, $name, @directories) = @_;
    my $tree = $self->{tree};
    (my $template = $name) =~ s/\@[^.]*\./\@./;
    my ($file) = grep { $tree->is_file($_) } map { my $name = $_; map {"$_/$name"} @directories } $name,
        $template;
    return undef if !defined $file;
    my @files = ($file, map { $tree->glob("$_/$name.d/*.conf"),
        $tree->glob("$_/$template.d/*.conf") } @directories);
    my %seen;
    @files = grep { !$seen{$_}++ && $tree->is_file($_) } @files;
    (my $socket = $file) =~ s/\.service\z/.socket/;
    push @files, $socket if $socket ne $file && $tree->is_file($socket);
    my %settings;
    for my $part (@files) {
        my $text = $tree->read_file($part, $MOST_BYTES);
        my $service = defined $text ? Linux::Units::settings($text)->{Service} || {} : {};
        # One more value takes the place of the last, but for lists.
        push @{ $settings{$_} }, @{ $service->{$_} } for keys %$service;
    }
    my ($instance) = $name =~ /\@(.*)\.\w+\z/;
    for (map {@$_} values %settings) { s/%[iI]/defined $instance ? $instance : ''/ge }
    return { name => $name, file => $file, files => \@files, settings => \%settings,
        of_root => $self->is_of_root(@files) };
}

# True for files that nobody but root may change.
sub is_of_root {
    my ($self, @files) = @_;
    return !grep {
        my @stat = $self->{tree}->stat($_);
        !@stat || $stat[4] || $stat[2] & (S_IWGRP | S_IWOTH);
    } @files;
}

sub add_unit {
    my ($self, $service, $unit) = @_;
    return if $unit->{name} =~ $RUNS_OTHERS;
    @$service{qw(unit file)} = @$unit{qw(name file)};
    my @needs = map {m{\A-?(/[^%*?\[]*)\z} ? $1 : ()} @{ $unit->{settings}{EnvironmentFile} || [] };
    add_once($service->{files}, @{ $unit->{files} },
        $unit->{of_root} ? grep { $self->{tree}->is_file($_) } @needs : ());
    return if !$unit->{of_root};
    my ($package) = @{ $self->{packages}->owning($unit->{file})->{ $unit->{file} } || [] };
    $service->{package} = $package;
    return;
}

# Files in /etc that the process was given, as one of uWSGI's: only such that everybody may read or
# that are its account's own.
sub add_settings {
    my ($self, $service, $process) = @_;
    for my $path (map {m{(?:\A|=)(/etc/[^\0]+)\z} ? $1 : ()} @{ $process->{words} }) {
        my @stat = $self->{tree}->stat($path);
        next if !@stat || !-f _ || !($stat[2] & S_IROTH) && $stat[4] != $process->{uid};
        add_once($service->{files}, $path);
    }
    return;
}

sub add_starter {
    my ($self, $service, $starter) = @_;
    $service->{file} = $starter->{file} if !defined $service->{file}
        || $service->{file} !~ m{/supervisor|/uwsgi};
    add_once($service->{files}, $starter->{file});
    return;
}

# Sets directory and kind by the first place that holds an application and may count.
sub add_directory {
    my ($self, $service, $process, $unit, @starters) = @_;
    my $settings = $unit && $unit->{of_root} ? $unit->{settings} : {};
    my @trusted = map { $self->expanded($_, $process->{uid}) } @{ $settings->{WorkingDirectory} || [] };
    push @trusted, map {words_with_paths($_)} @{ $settings->{ExecStart} || [] };
    push @trusted, map { $_->{of_root} ? @{ $_->{directories} } : () } @starters;
    my @own = (grep({defined} $process->{directory}), words_with_paths(@{ $process->{words} }),
        @{ $process->{paths} }, map { $_->{of_root} ? () : @{ $_->{directories} } } @starters);
    for my $case ([\@trusted, undef], [\@own, $process->{uid}]) {
        my ($paths, $uid) = @$case;
        for my $path (@$paths) {
            my ($directory, $kind) = $self->application_at($path, $uid);
            next if !defined $directory;
            @$service{qw(directory kind)} = ($directory, $kind);
            return;
        }
    }
    return;
}

sub expanded {
    my ($self, $path, $uid) = @_;
    my $account = $self->{users}->by_uid($uid);
    $path =~ s/\A-//;
    $path =~ s/\A(?:~|%h)(?=\/|\z)/$account ? $account->{home} : ''/e;
    return $path;
}

# The absolute paths that stand in arguments, also after "=".
sub words_with_paths {
    return map {m{\A[-\@:+!|]*(?:[\w.-]+=)?["']?(/[^"']+)} ? $1 : ()} map { split ' ' } @_;
}

# The directory of the application that a path is in, and its kind. With an account's number only
# where it is that account's own.
sub application_at {
    my ($self, $path, $uid) = @_;
    my $tree = $self->{tree};
    my $real = $tree->real($path);
    return if !defined $real;
    $real =~ s{/[^/]*\z}{} if !$tree->is_dir($real);
    # Programs of a virtual environment lie in a directory of their own.
    $real =~ s{/(?:s?bin|\.bin)\z}{};
    return if !length $real || "$real/" =~ $NO_PLACE || is_of_system($real);
    my ($directory, $kind) = $self->{roots}->nearest($real);
    ($directory, $kind) = ($real, undef) if !defined $directory && !$self->{roots}->holds_many($real);
    return if !defined $directory;
    if (defined $kind && $kind eq 'Python' && $tree->exists("$directory/pyvenv.cfg")) {
        (my $above = $directory) =~ s{/[^/]*\z}{};
        ($directory, $kind) = ($self->{roots}->nearest($above))[0, 1] if length $above
            && !$self->{roots}->holds_many($above);
        return if !defined $directory;
    }
    return defined $uid && !$self->is_of_account($directory, $uid) ? () : ($directory, $kind);
}

# What runs as a service may lie in a directory of root's, if all may read it.
sub is_of_account {
    my ($self, $directory, $uid) = @_;
    my @stat = $self->{tree}->stat($directory);
    return !$uid || $stat[4] == $uid || !$self->is_person($uid) && !$stat[4] && $stat[2] & S_IROTH;
}

# Tells if a path may be of an application, and not of the system.
sub is_place {
    my ($self, $path) = @_;
    return "$path/" !~ $NO_PLACE && !is_of_system($path) && !$self->{roots}->holds_many($path);
}

# The version of what runs the application, and where that lies if no package has brought it.
sub add_runtime {
    my ($self, $service, $process) = @_;
    my $program = $process->{program};
    return if !defined $program;
    if ($program =~ $RUNTIME) {
        my $answer = answer_of($self->{tree}, [$program, '--version'], limit => 5);
        my ($version) = (defined $answer ? $answer : '') =~ /(\d+(?:\.\d+)+)/;
        ($version) = $program =~ m{/v?(\d+(?:\.\d+)+)/} if !defined $version;
        $service->{version} = "$1" . (defined $version ? " $version" : '') if $program =~ $RUNTIME;
    }
    my @stat = $self->{tree}->stat($program);
    my ($directory) = $program =~ m{\A(/.+)/bin/[^/]+\z};
    return if !@stat || !defined $directory || "$directory/" =~ $NO_PLACE
        || $self->{roots}->holds_many($directory);
    return if $stat[4] != $process->{uid} && $stat[4];
    return if defined $service->{directory} && below($directory, $service->{directory});
    $service->{runtime} = $directory;
    return;
}

# The service that files name for an address at which nothing listens.
sub by_files {
    my ($self, $word, $address) = @_;
    my @starters = $self->files_naming($address);
    my $nothing = 'where nothing listens';
    return failure("$nothing, and no file of a unit, of supervisor, uWSGI or pm2 names it: start what shall"
        . ' answer there and dump again, or copy the application by hand') if !@starters;
    my ($first) = @starters;
    my $service = { address => $word, account => $first->{user}, found => "$first->{file} names the address",
        unit => $first->{unit}, file => $first->{file}, files => [], trusted => $first->{of_root} };
    $self->add_starter($service, $_) for @starters;
    for my $starter (@starters) {
        add_once($service->{files}, @{ $starter->{needs} }) if $starter->{of_root};
        for my $path (@{ $starter->{directories} }) {
            next if defined $service->{directory};
            my @application = $self->application_at($path, $starter->{of_root} ? undef : $starter->{uid});
            @$service{qw(directory kind)} = @application;
        }
    }
    return { service => $service, severity => 'error', text => "$nothing, and $first->{file}, which names it,"
        . ' leads to no application: copy it by hand' } if !defined $service->{directory};
    return { service => $service, severity => 'warning', text
        => "$nothing now; $service->{directory} is packed,"
        . " because $first->{file} names the address" };
}

# Files that start services and name an address: [{ file, unit, of_root, uid, user, directories, needs }].
sub files_naming {
    my ($self, $address) = @_;
    my $pattern = defined $address->{socket} ? qr/(?<![\w\/.-])\Q$address->{socket}\E(?![\w\/.-])/
        : qr/(?:[:=\s"']|\A)$address->{port}(?![\w.])/;
    my $port_only = !defined $address->{socket};
    my @found;
    for my $starter ($self->starters) {
        my @lines = grep { $_ =~ $pattern } @{ $starter->{lines} };
        # A number alone may be anything: it must stand where an address does.
        @lines = grep { /listen|bind|port|http|socket|address|host|server|:$address->{port}/i } @lines
            if $port_only;
        push @found, $starter if @lines;
    }
    my @of_host = grep { $_->{file} !~ m{\A/(?:usr/)?lib/} } @found;
    return @of_host ? @of_host : @found;
}

# Files that start services in a directory.
sub files_of_directory {
    my ($self, $directory) = @_;
    return if !defined $directory || !$self->is_place($directory);
    return grep {
        grep { my $real = $self->{tree}->real($_); defined $real
            && $real eq $directory } @{ $_->{directories} }
    } $self->starters;
}

# Read once for all sites.
sub starters {
    my ($self) = @_;
    my $tree = $self->{tree};
    $self->{starters} ||= [map { $self->starter($_) } map { $tree->glob($_) } @STARTERS,
        map { my $home = $_->{home}; map {"$home/$_"} @STARTERS_IN_HOMES }
            grep { $_->{home} =~ m{\A/.} && !$self->{users}->is_system($_) } $self->{users}->all];
    return @{ $self->{starters} };
}

sub starter {
    my ($self, $file) = @_;
    my $tree = $self->{tree};
    my $text = $tree->is_file($file) ? $tree->read_file($file, $MOST_BYTES) : undef;
    return if !defined $text;
    my ($name) = $file =~ m{([^/]+)\z};
    my @lines = grep { !/\A\s*[#;]/ } split /\r?\n/, $text;
    my @needs = map {m{\A\s*EnvironmentFile\s*=\s*-?(/[^%*?\[]*?)\s*\z} ? $1 : ()} @lines;
    @needs = grep { $tree->is_file($_) } @needs;
    my $of_root = $self->is_of_root($file);
    push @lines, map { $tree->read_lines($_, $MOST_BYTES) } @needs if $of_root;
    my @stat = $tree->stat($file);
    my ($user) = map {/\A\s*(?:User|user|uid)\s*=\s*"?([\w.-]+)/ ? $1 : ()} @lines;
    $user = $self->{users}->name_of($stat[4]) if !defined $user;
    my @directories = map {directories_in($_)} @lines;
    if ($name =~ /\A(.+)\.socket\z/) {
        my $unit = $self->unit_in("$1.service", @UNITS);
        return { %{ $self->starter($unit->{file}) || {} }, lines => \@lines } if $unit
            && $unit->{file} ne $file;
    }
    return { file => $file, of_root => $of_root, uid => $stat[4], user => $user, needs => \@needs,
        unit => $name =~ /\.service\z/ ? $name : undef, lines => \@lines,
        directories => [map { $self->expanded($_, $stat[4]) } @directories] };
}

# Directories that a line sets or whose programs it starts.
sub directories_in {
    my ($line) = @_;
    my ($key, $value) = $line =~ m{\A\s*["']?([\w-]+)["']?\s*[=:]\s*["']?(.*?)["']?,?\s*\z} or return;
    return $value if $SETS_DIRECTORY{$key} && $value =~ m{\A[~%/]};
    return $STARTS_PROGRAM{$key} ? words_with_paths($value) : ();
}

1;
