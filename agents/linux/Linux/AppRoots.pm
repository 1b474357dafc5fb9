# The directory of the application that a document root is a part of. Frameworks show only a
# subdirectory to the web; the code, the settings and the uploads lie beside or above it.
package Linux::AppRoots;

use strict;
use warnings;
use Linux::Site qw(below is_of_system);

# What an application has in its directory: its kind and the files that are all there. The first
# that fits names it.
my @LAYOUTS = (
    ['Laravel', 'artisan'], ['Symfony', 'bin/console'], ['Symfony', 'symfony.lock'], ['Symfony',
        'app/console'],
    ['CakePHP', 'bin/cake'], ['Yii', 'yii'], ['CodeIgniter', 'spark'], ['Drupal', 'core/lib/Drupal.php'],
    ['Drupal', 'web/core/lib/Drupal.php'], ['Django', 'manage.py'], ['Rails', 'config.ru',
        'config/application.rb'],
    ['Ruby', 'config.ru'], ['Ruby', 'Gemfile'], ['Composer', 'composer.json'], ['Node', 'package.json'],
    ['Java', 'WEB-INF/web.xml'], ['Python', 'pyproject.toml'], ['Python', 'requirements.txt'],
    ['Python', 'wsgi.py'], ['Python', 'asgi.py'], ['Python', 'pyvenv.cfg'], ['WordPress', 'wp-load.php'],
    ['MediaWiki', 'includes/WebStart.php'], ['PHP', 'vendor/autoload.php'], ['PHP', 'wp-config.php'],
    ['Procfile', 'Procfile'], ['application', '.env'],
);

# Document roots that the rest of an application lies beside.
my $PUBLIC = qr/\A(?:public|public_html|web|webroot|www|wwwroot|pub|html|htdocs|httpdocs|docroot|dist|build|
    static)\z/x;

# Directories that hold sites and applications, and are none.
my $HOLDS_MANY = qr{\A/(?:srv(?:/www|/http|/sites)?|var/www|opt|home/[^/]+|usr/local/(?:www|share|lib)|data|
    web|www)\z}x;

# How far above a root its application may begin.
my $MOST_ABOVE = 3;

my $MOST_BYTES = 65536;
my @ENTRIES    = qw(index.php app.php app_dev.php web.php index.cgi);

# Settings and code that are beside a root for no other reason.
my $CODE = qr/\A(?:\.env.*|.*\.(?:php|inc|ini|ya?ml|json|py|rb|pl|js|xml|db|sqlite3?))\z/i;

# tree => Linux::Tree, users => Linux::Users, sites => [all sites], problems => Agent::Problems.
sub new {
    my ($class, %options) = @_;
    my $self = bless {%options}, $class;
    $self->{homes} = { map { $_->{home} => $_ } grep { $_->{home} =~ m{\A/.} } $self->{users}->all };
    return $self;
}

# The applications that a site is part of: [{ kind, directory, because }], directories without links
# on the way. Adds to the site's `beside` what an application may need and is in none of them:
# { directory, text }.
sub of_site {
    my ($self, $site) = @_;
    my (@found, %seen);
    for my $root (@{ $site->{roots} }) {
        my $real = $self->{tree}->real($root);
        next if !defined $real || !$self->{tree}->is_dir($real);
        push @found, grep { !$seen{ $_->{directory} }++ } $self->of_root($site, $real);
    }
    return @found;
}

# What kind of application a directory holds; undef where it shows none.
sub kind_of {
    my ($self, $directory) = @_;
    for my $layout (@LAYOUTS) {
        my ($kind, @files) = @$layout;
        return $kind if @files == grep { $self->{tree}->exists("$directory/$_") } @files;
    }
    return undef;
}

# Whether a directory holds many things, and is no application by itself.
sub holds_many {
    my ($self, $directory) = @_;
    return is_of_system($directory) || $directory =~ $HOLDS_MANY || exists $self->{homes}{$directory};
}

# The nearest directory with the marks of an application, from one on upwards: (directory, kind).
sub nearest {
    my ($self, $directory) = @_;
    for (0 .. $MOST_ABOVE) {
        return if !length $directory || $self->holds_many($directory);
        my $kind = $self->kind_of($directory);
        return ($directory, $kind) if defined $kind;
        $directory =~ s{/[^/]*\z}{};
    }
    return;
}

sub of_root {
    my ($self, $site, $root) = @_;
    my ($above, $name) = $root =~ m{\A(.*)/([^/]+)\z} or return;
    my $kind = $self->kind_of($root);
    my $is_whole = defined $kind && $name !~ $PUBLIC;
    my @found = defined $kind ? { kind => $kind, directory => $root, because => 'document root' } : ();
    return @found if $is_whole;
    my ($directory, $kind_above) = $self->nearest($above);
    if (defined $directory && $self->may_take($site, $root, $directory)) {
        return { kind => $kind_above, directory => $directory, because
            => "it holds the document root $root" };
    }
    my @included = $self->included($site, $root);
    $self->note_beside($site, $root, $above, $name) if !@included && !defined $directory;
    return (@found, @included);
}

# Whether what is above a root may be packed with it: it must be of the same account or of root, and
# hold no site of others. Where it may not, that is an error.
sub may_take {
    my ($self, $site, $root, $directory) = @_;
    my ($owner, $of_root) = map { ($self->{tree}->stat($_))[4] } $directory, $root;
    my $account = $self->{users}->by_name($site->{owner});
    my %own = map { $_ => 1 } 0, $of_root, $account ? $account->{uid} : ();
    my $why = !$own{$owner} ? 'belongs to ' . $self->{users}->name_of($owner)
        : $self->holds_site_of_others($site, $directory) ? 'holds sites of other accounts' : undef;
    return 1 if !defined $why;
    $self->{problems}->add(severity => 'error', object => $site->{name}, text
        => "Its application begins above"
        . " the document root, in $directory, which $why and is not packed: copy what it needs by hand");
    return 0;
}

# Sites of services, as of the web server's account, are no one else's.
sub holds_site_of_others {
    my ($self, $site, $directory) = @_;
    $self->{of_persons} ||= [map { my $owner = $_->{owner}; map { [$owner, $_] } $self->real_roots($_) }
        grep { $self->is_person($_->{owner}) } @{ $self->{sites} }];
    return grep { $_->[0] ne $site->{owner} && below($_->[1], $directory) } @{ $self->{of_persons} };
}

sub real_roots { return grep {defined} map { $_[0]{tree}->real($_) } @{ $_[1]{roots} } }

sub is_person {
    my ($self, $name) = @_;
    my $account = $self->{users}->by_name($name);
    return $account && !$self->{users}->is_system($account);
}

# The applications that the programs in a root begin, where these name them by a path.
sub included {
    my ($self, $site, $root) = @_;
    my (@found, %seen);
    for my $target ($self->targets($root)) {
        (my $above = $target) =~ s{/[^/]*\z}{};
        my ($directory, $kind) = $self->nearest($above);
        if (!defined $directory) {
            $self->beside($site, $above, "$root has programs that read $target")
                if !$self->is_packaged($above);
        }
        elsif (!$seen{$directory}++ && !below($root, $directory) && $self->may_take($site, $root,
            $directory)) {
            push @found, { kind => $kind, directory => $directory, because => "$root reads $target" };
        }
    }
    return @found;
}

sub is_packaged { return Linux::Site::is_packaged($_[1]) || $_[1] =~ m{\A/etc(?:/|\z)} }

# Files outside of a root that its first programs include, by their real paths.
sub targets {
    my ($self, $root) = @_;
    my $tree = $self->{tree};
    my %targets;
    for my $file (grep { $tree->is_file($_) } map {"$root/$_"} @ENTRIES) {
        my $text = $tree->read_file($file, $MOST_BYTES);
        for my $path (defined $text ? included_paths($root, $text) : ()) {
            my $real = $tree->real($path);
            $targets{$real} = 1 if defined $real && $tree->is_file($real) && !below($real, $root);
        }
    }
    return sort keys %targets;
}

# Paths that PHP's text composes of the directory of its file.
sub included_paths {
    my ($root, $text) = @_;
    my @paths;
    while ($text =~ /((?:dirname\(\s*)*(?:__DIR__|__FILE__)[\s),0-9]*)\.\s*(["'])(\/[^"'\$]+)\2/g) {
        my ($whole, $path) = ($1, $3);
        my $ups = () = $whole =~ /dirname\(/g;
        $ups-- if $whole =~ /__FILE__/;
        $ups += $1 - 1 if $whole =~ /__DIR__\s*,\s*([0-9]+)/;
        push @paths, "$root/" . '../' x ($ups > 0 ? $ups : 0) . $path;
    }
    return @paths;
}

# Names what lies beside a public directory and looks like code or settings.
sub note_beside {
    my ($self, $site, $root, $above, $name) = @_;
    return if $name !~ $PUBLIC;
    my $tree = $self->{tree};
    if ($self->holds_many($above)) {
        my $kind = exists $self->{homes}{$above} ? $self->kind_of($above) : undef;
        $self->beside($site, $above, "it holds the document root $root and looks like an application ($kind)")
            if defined $kind;
        return;
    }
    my @code = grep { /$CODE/ && $tree->is_file("$above/$_") } $tree->list($above);
    splice @code, 5, @code, '...' if @code > 5;
    $self->beside($site, $above, "it holds the document root $root and @code") if @code;
    return;
}

sub beside {
    my ($self, $site, $directory, $text) = @_;
    push @{ $site->{beside} }, { directory => $directory, text => $text };
    return;
}

1;
