# The units of systemd that are the host's own: files that an administrator or an account
# has put there, not those of packages. Changes of a package's unit (drop-ins) count too.
package Linux::Units;

use strict;
use warnings;

# In the order in which systemd looks: the first file of a name counts.
my @OF_HOST = qw(/etc/systemd/system /usr/local/lib/systemd/system);
my $IN_HOME = '.config/systemd/user';
my $FOR_ALL_USERS = '/etc/systemd/user';

my $NAME = qr/\A[^\/\s]+\.(?:service|socket|timer|path|mount|automount|swap|target|slice)\z/;
my $OF_PACKAGES = qr{\A(?:/usr)?/lib/systemd/|\A/run/|\A/dev/null\z};
my @WHEN = qw(OnCalendar OnBootSec OnStartupSec OnActiveSec OnUnitActiveSec OnUnitInactiveSec);

# The units, each a file: { name, file, of ("host", or the account whose home it is in), user
# (account that its programs run as), enabled (0 or 1), drop_in (0 or 1), description,
# program (path only: arguments may hold secrets), directory, needs => [files that it reads
# its environment from], when => [what a timer waits for] }.
sub all {
    my ($tree, $problems, $users) = @_;
    my @units = map { in_directory($tree, $problems, $_, 'host') } @OF_HOST, $FOR_ALL_USERS;
    my %seen;
    for my $account (grep { $_->{home} ne '/' && !$seen{ $_->{home} }++ } $users->all) {
        push @units, in_directory($tree, $problems, "$account->{home}/$IN_HOME", $account->{name});
    }
    set_users($users, @units);
    return @units;
}

sub in_directory {
    my ($tree, $problems, $directory, $of) = @_;
    return if !$tree->is_dir($directory);
    my @names = $tree->list($directory);
    $problems->add(severity => 'error', object => $directory,
        text => "Cannot be read: $!; the units in it are not in the dump") if !@names && $!;
    my %enabled = enabled_in($tree, $directory, @names);
    my @units;
    for my $name (@names) {
        my $path = "$directory/$name";
        if ($name =~ /\A(.+)\.d\z/ && $tree->is_dir($path)) {
            push @units, map { unit($tree, $problems, $1, $_, $of, drop_in => 1) }
                grep { $tree->is_file($_) } $tree->glob("$path/*.conf");
        }
        elsif ($name =~ $NAME && is_own($tree, $path)) {
            push @units, unit($tree, $problems, $name, $path, $of, enabled => $enabled{$name});
        }
    }
    return @units;
}

# A file, or a link to one that is no package's.
sub is_own {
    my ($tree, $path) = @_;
    return $tree->is_file($path) if !$tree->is_link($path);
    my $target = $tree->link_target($path);
    return 0 if !defined $target || $target =~ $OF_PACKAGES || !$tree->is_file($path);
    my $real = $tree->real($path);
    # An alias of another unit there is not one more unit.
    my ($directory) = $path =~ m{\A(.*)/};
    return $real !~ $OF_PACKAGES && index($real, "$directory/") != 0;
}

# { name => 1 } of the units that others want: links to them in NAME.wants or NAME.requires.
sub enabled_in {
    my ($tree, $directory, @names) = @_;
    return map { $_ => 1 } map { $tree->list("$directory/$_") } grep {/\.(?:wants|requires)\z/} @names;
}

sub unit {
    my ($tree, $problems, $name, $file, $of, %more) = @_;
    my $text = $tree->read_file($file);
    if (!defined $text) {
        $problems->add(severity => 'error', object => $file, text => "Cannot be read: $!");
        $text = '';
    }
    my $settings = settings($text);
    my $last = sub { my $values = $settings->{ $_[0] }{ $_[1] } || []; return $values->[-1] };
    my ($program) = map {m{\A[-\@:+!|]*(/\S+)} ? $1 : ()} @{ $settings->{Service}{ExecStart} || [] };
    return {
        name => $name, file => $file, of => $of, enabled => 0, drop_in => 0, program => $program,
        user => $last->('Service', 'User'), starts => $last->('Timer', 'Unit'),
        description => $last->('Unit', 'Description'),
        directory => $last->('Service', 'WorkingDirectory'),
        # What an account writes into a unit of its own must not decide which other files are packed.
        needs => [$tree->is_of_root($file) ? environment_files($settings) : ()],
        when => [map { my $key = $_; map {"$key=$_"} @{ $settings->{Timer}{$key} || [] } } @WHEN],
        map { $_ => $more{$_} } grep { defined $more{$_} } keys %more,
    };
}

sub environment_files {
    my ($settings) = @_;
    return map {m{\A-?(/[^%*?\[]*)\z} ? $1 : ()} @{ $settings->{Service}{EnvironmentFile} || [] };
}

# { section => { key => [values] } } of the text of a unit; an empty value takes back those
# before it.
sub settings {
    my ($text) = @_;
    my (%settings, $section);
    $text =~ s/^\s*[#;].*\n?//mg;
    $text =~ s/\\\r?\n/ /g;
    for my $line (split /\r?\n/, $text) {
        if ($line =~ /\A\s*\[(.+)\]\s*\z/) { $section = $1 }
        elsif (defined $section && $line =~ /\A\s*(\w[\w-]*)\s*=\s*(.*?)\s*\z/) {
            $settings{$section}{$1} = [] if !length $2;
            push @{ $settings{$section}{$1} }, $2 if length $2;
        }
    }
    return \%settings;
}

# Sets who the programs of each unit run as: root where nothing says otherwise. Timers,
# sockets and the like run as the service that they start.
sub set_users {
    my ($users, @units) = @_;
    my %service;
    for my $unit (grep { $_->{name} =~ /\.service\z/ } @units) {
        my $user = $unit->{user};
        $user = $users->name_of($user) if defined $user && $user =~ /\A\d+\z/;
        $unit->{user} = $unit->{of} ne 'host' ? $unit->{of} : $user;
        $service{ $unit->{of} }{ $unit->{name} } = $user if defined $user;
    }
    for my $unit (@units) {
        (my $own = $unit->{name}) =~ s/\.\w+\z/.service/;
        my $started = defined $unit->{starts} ? $unit->{starts} : $own;
        $unit->{user} = $unit->{of} if $unit->{of} ne 'host';
        $unit->{user} = $service{host}{$started} if !defined $unit->{user};
        $unit->{user} = 'root' if !defined $unit->{user};
    }
    return;
}

1;
