# The application server behind a site that hands requests on: from the address in the web server's
# configuration to the process that listens there, its unit, its account and the directory that it
# runs in. Where nothing listens, from the files that name the address.
#
# Any account may listen at a free port. So what a process says of itself counts only for files of its own
# account; what root's units and files say counts as it stands.
package Linux::AppServers;

use strict;
use warnings;
use Fcntl qw(S_IROTH);
use Linux::HostProgram qw(answer_of);
use Linux::Listeners;
use Linux::Site qw(add_once below is_of_system);
use Linux::Starters qw(words_with_paths);

# Servers whose sites and pools are found by their configuration.
my $KNOWN_SERVER = qr/\A(?:nginx|apache2|httpd|php-fpm[\d.]*)(?:\z|:)/;

# What only runs the code of others, and is no application by itself.
my $RUNS_OTHERS = qr/\A(?:supervisord?|uwsgi(?:-emperor|-app@.*)?|crond?|pm2.*|docker|containerd)\.service\z/;

# Where no application is, whatever runs there.
my $NO_PLACE = qr{\A/(?:usr/(?!local/)|(?:etc|boot|s?bin|lib\w*|dev|proc|run|sys|tmp)/
    |var/(?:cache|log|spool|tmp|run)/)}x;

my %PORT = (ajp => 8009, fcgi => 9000, (map { $_ => 80 } qw(http h2c grpc ws)), map { $_
    => 443 } qw(https grpcs wss));

my $RUNTIME = qr{/(python|node|nodejs|ruby|perl|php)[\d.]*\z};

# tree, problems, users => Linux::Users, roots => Linux::AppRoots, packages => Linux::Packages.
sub new {
    my ($class, %options) = @_;
    my $starters = Linux::Starters->new(map { $_ => $options{$_} } qw(tree users));
    return bless { %options, known => {}, starters => $starters }, $class;
}

# The application servers of a site: [{ address, unit, file, files, account, directory, kind, program,
# version, runtime, package, found }]. `files` must be packed with the site, `runtime` a directory
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
    my $unit = defined $process->{unit} ? $self->{starters}->unit($process) : undef;
    $self->add_unit($service, $unit) if $unit;
    my @named = $unit && !$self->runs_others($process) ? ()
        : ($self->{starters}->naming($address), $self->starters_in($process->{directory}));
    $self->add_starter($service, $_) for @named;
    $self->add_settings($service, $process);
    $self->add_directory($service, $process, $unit, @named);
    $self->add_runtime($service, $process);
    my $trusted = $unit && $unit->{of_root} && !$self->runs_others($process) || grep { $_->{of_root} } @named;
    return $self->judged($word, $service, $process, $trusted);
}

# What starts services in a directory, if that may be of an application.
sub starters_in {
    my ($self, $directory) = @_;
    return defined $directory && $self->is_place($directory) ? $self->{starters}->in($directory) : ();
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
    my @trusted = map { $self->{starters}->expanded($_, $process->{uid}) }
        @{ $settings->{WorkingDirectory} || [] };
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

# Whether a path may be of an application, and not of the system.
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
    my @starters = $self->{starters}->naming($address);
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

1;
