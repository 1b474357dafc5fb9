# Files that the owners of sites write are read in a short time, whatever is in them.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Time::HiRes ();
use Imitated qw(imitated problem_texts);
use Linux::Applications;
use Linux::Sites;

# The most bytes that a file of settings may have.
my $LONG = 262_000;
# Seconds of the processor, however busy the machine is. Patterns that backtrack would take minutes.
my $MOST_SECONDS = 20;

my %TEXTS = (
    'here-documents without an end' => "<?php\n" . "<<<A\n" x ($LONG / 5),
    'a here-document of empty lines' => "<?php\n<<<A\n" . "\n" x $LONG,
    'arrays in arrays' => '<?php $a=[' . '1=>[' x ($LONG / 4),
    'old arrays in arrays' => '<?php $a=' . 'array(' x ($LONG / 6),
    'brackets' => '<?php $a=' . '[' x $LONG,
    'backslashes' => '<?php $a="' . '\\' x $LONG . '"',
    'escaped quotes' => '<?php $a = "' . '\\"' x ($LONG / 2),
    'a quoted value of escapes' => 'DB_NAME="' . 'a\\"' x ($LONG / 3),
    'comments that do not end' => '<!--' x ($LONG / 4),
    'elements that do not end' => '<dbname>' x ($LONG / 8),
    'blanks in an element' => '<dbname>' . ' ' x $LONG . '<',
    'one line of blanks' => 'DB_NAME=' . ' ' x ($LONG - 20) . 'x',
    'lines of blanks' => join('', map { 'DB_NAME=b' . ' ' x 10_000 . "x\n" } 1 .. $LONG / 10_020),
    'marks' => '=' x $LONG,
    'colons' => 'DATABASE_URL=mysql://' . ':' x ($LONG - 40),
    'keys without end' => '<?php $a' . '["x"]' x ($LONG / 5) . '=1;',
);

# Calls in a process of its own, which must not take longer and must print nothing.
sub in_time {
    my ($code, $what) = @_;
    my $pid = fork;
    die "Cannot start a process: $!\n" if !defined $pid;
    if (!$pid) {
        Time::HiRes::setitimer(Time::HiRes::ITIMER_VIRTUAL(), $MOST_SECONDS);
        $SIG{__WARN__} = sub { require POSIX; POSIX::_exit(3) };
        $code->();
        require POSIX;
        POSIX::_exit(0);
    }
    waitpid $pid, 0;
    return is $?, 0, $what;
}

for my $what (sort keys %TEXTS) {
    test "Settings with $what are read in time" => sub {
        cmp_ok length $TEXTS{$what}, '<=', 256 * 1024,
            "$what: the text is not longer than a file that is read";
        my @names = qw(wp-config.php .env config/config.ini.php app/etc/local.xml app/config/parameters.yml);
        my ($tree, $problems) = imitated('srv/a/' => undef, map { ("srv/a/$_" => $TEXTS{$what}) } @names);
        for my $name (@names) {
            my $applications = Linux::Applications->new(tree => $tree, problems => $problems);
            in_time(sub { $applications->values_of({ name => 'a.test' }, '/srv/a', "/srv/a/$name") },
                "$what: $name is read in time");
        }
    };
}

test 'Files of long blanks are read in time' => sub {
    my $site = "server { server_name a.test; root /srv/a; location ~ php { fastcgi_pass unix:/x; } }";
    my $host = "<VirtualHost *:80>\nServerName a.test\nDocumentRoot /srv/a\nAddHandler php-script .php\n"
        . "</VirtualHost>\n";
    my %BLANKS = ('.user.ini' => "memory_limit=a" . ' ' x 900_000 . 'x', '.htaccess' => 'php_value a b'
        . ' ' x 900_000 . 'x');
    for my $case (['etc/nginx/nginx.conf', "http { $site }", '.user.ini'],
        ['etc/apache2/apache2.conf', $host, '.htaccess']) {
        my ($path, $text, $name) = @$case;
        my ($tree, $problems) = imitated($path => $text, "srv/a/$name" => $BLANKS{$name} . "\n" . 'a='
            . ';"' x 10_000);
        in_time(sub { Linux::Sites::all($tree, $problems) }, "$name of blanks is read in time");
    }
};

test 'The first ones of too many files of settings are read' => sub {
    my $config = "<?php define('DB_NAME', 'own');\n" . '#' x 250_000;
    my ($tree, $problems) = imitated(map { ("srv/a/$_/wp-config.php" => $config) } 1 .. 9);
    my $applications = Linux::Applications->new(tree => $tree, problems => $problems);
    my @found = $applications->settings({ name => 'a.test', owner => 'ann', root => '/srv/a',
        roots => ['/srv/a'] });
    cmp_ok scalar(@found), '<', 9, 'not all of too many files are read';
    is_deeply [sort map {"$_->{name} $_->{file}"} @found],
        [map {"own /srv/a/$_/wp-config.php"} 1 .. @found],
        'the files that are read are the first ones';
    is scalar(grep {/not known: File too large/} @{ problem_texts($problems) }), 9 - @found,
        'each file that is not read is named';
};

test "Settings at a second name of another account's file are not used" => sub {
    my ($tree, $problems) = imitated('srv/a/' => [4711, 4711], 'srv/b/' => [4712, 4712]);
    for my $name (qw(a b)) {
        open my $file, '>', $tree->path("/srv/$name") . '/wp-config.php' or die $!;
        print $file "<?php define('DB_NAME', 'of_$name');";
        close $file;
    }
    my @config = map { $tree->path("/srv/$_") . '/wp-config.php' } qw(a b);
    chown 4712, 4712, $config[1] or die $!;
    unlink $config[0] or die $!;
    link $config[1], $config[0] or die $!;
    my $applications = Linux::Applications->new(tree => $tree, problems => $problems);
    my %found = map { my $name = $_; ($name => [map { $_->{name} } $applications->settings(
        { name => $name, owner => $name, root => "/srv/$name", roots => ["/srv/$name"] })]) } qw(a b);
    is_deeply \%found, { a => [], b => ['of_b'] },
        "only the owner's own name of the file leads to its settings";
};

run_tests;
