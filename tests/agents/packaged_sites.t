# Sites that packages of the distribution have brought: what an administrator and their users have made
# of them is packed, and what installing the packages brings is not.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Digest::MD5 qw(md5_hex);
use Dumped;
use Imitated qw(imitated output_of write_file);
use Linux::Applications;
use Linux::Packages;
use Linux::SiteParts;
use Linux::Sites;
use Linux::Users;
use Test::More;
use Independent;

my $ARCHIVES = '/var/cache/sondrel-tests';
my $WEB = 33;

sub host {
    my ($name, $root, @more) = @_;
    return join "\n", '<VirtualHost *:80>', "ServerName $name", "DocumentRoot $root", @more,
        '</VirtualHost>', '';
}

my ($tree, $problems) = imitated(
    'etc/passwd' => "root:x:0:0:root:/root:/bin/sh\nwww-data:x:$WEB:${WEB}::/var/www:/bin/false\n",
    'etc/apache2/apache2.conf' => "ServerRoot /etc/apache2\nListen 80\nIncludeOptional conf-enabled/*.conf\n"
        . "IncludeOptional sites-enabled/*.conf\n",
    'etc/apache2/conf-enabled/roundcube.conf' => "Alias /roundcube /var/lib/roundcube/public_html\n"
        . "Alias /icons /usr/share/apache2/icons\nAlias /common /srv/common\n",
    'srv/common/page.html' => 'x', 'usr/share/apache2/icons/a.gif' => 'x',
    'etc/apache2/sites-enabled/blog.conf' => host('blog.test', '/usr/share/wordpress',
        'Alias /wp-content /var/lib/wordpress/wp-content'),
    'etc/apache2/sites-enabled/wiki.conf' => host('wiki.test', '/var/lib/mediawiki'),
    'etc/apache2/sites-enabled/pages.conf' => host('pages.test', '/usr/share/dokuwiki'),
    'etc/apache2/sites-enabled/mail.conf' => host('mail.test', '/var/lib/roundcube/public_html'),
    'etc/apache2/sites-enabled/plain.conf' => host('plain.test', '/srv/plain'),
    'srv/plain/index.html' => 'x',
    'var/lib/dpkg/status' => '',
);
(my $root = $tree->root) =~ s{/\z}{};

sub put {
    my ($path, @text_and_how) = @_;
    return write_file("$root$path", @text_and_how);
}

# Unpacks a package and notes it in the records, as dpkg does; documents, translations and the like, which
# are the most of it, are left out as by an administrator who has no room for them.
sub install {
    my ($name) = @_;
    my ($archive) = glob "$ARCHIVES/${name}_*.deb"
        or die "No $name in $ARCHIVES: run scripts/install-packages\n";
    my $unpack = 'dpkg-deb --fsys-tarfile "$1" | tar -xv -C "$2" --exclude="*/i18n/*"'
        . ' --exclude="*/languages/*"'
        . ' --exclude="./usr/share/doc/*" --exclude="*/lang/*" --exclude="*/localization/*"'
        . ' --exclude="*/resources/*" --exclude="*/vendor/*" --exclude="*/modules/*"'
            . ' --exclude="*/skinStyles/*"';
    my @paths = map {m{\A\./(.+?)/?\z} ? "/$1" : ()} split /\n/,
        output_of('sh', '-c', $unpack, 'sh', $archive, $root);
    my $control = "$root/control-of-$name";
    output_of('dpkg-deb', '-e', $archive, $control);
    put("/var/lib/dpkg/info/$name.list", join "\n", '/.', @paths, '');
    put("/var/lib/dpkg/info/$name.md5sums", output_of('cat', "$control/md5sums"));
    my @settings = -e "$control/conffiles" ? grep {m{\A/}} split /\n/,
        output_of('cat', "$control/conffiles") : ();
    my $fields = output_of('dpkg-deb', '-f', $archive);
    put('/var/lib/dpkg/status', "${fields}Status: install ok installed\n"
        . (@settings ? "Conffiles:\n" . join '', map { ' ' . $_ . ' ' . md5_hex(bytes_of($_))
            . "\n" } @settings : '')
        . "\n", '>>');
    output_of('rm', '-r', $control);
    return;
}

sub bytes_of { return output_of('cat', "$root$_[0]") }

my $lay_out = once(sub {
    put('/var/lib/dpkg/info/apache2.list', join "\n", '/.', '/etc', '/etc/apache2',
        '/etc/apache2/conf-available', '');
    put('/var/lib/dpkg/status',
        "Package: apache2\nStatus: install ok installed\nVersion: 2\nArchitecture: all\n\n");
    install($_) for qw(wordpress mediawiki dokuwiki roundcube-core);

    # What their scripts, an administrator and users do afterwards.
    put('/etc/wordpress/config-blog.test.php',
        "<?php define('DB_NAME', 'blog'); define('DB_USER', 'writer'); define('DB_PASSWORD', 'x'); ?>\n");
    put('/usr/share/wordpress/wp-login.php', "// changed\n", '>>');
    put('/usr/share/wordpress/robots.txt', 'new');
    put('/var/lib/wordpress/wp-content/uploads/2026/photo.jpg', 'photo');
    put('/var/lib/wordpress/wp-content/plugins/mine/mine.php', '<?php');
    put('/etc/mediawiki/LocalSettings.php', "<?php \$wgDBtype = 'mysql'; \$wgDBserver = 'localhost';\n"
        . "\$wgDBname = 'wiki'; \$wgDBuser = 'editor'; \$wgDBpassword = 'x';\n");
    put('/var/lib/mediawiki/images/a/map.png', 'map');
    put('/var/lib/mediawiki/extensions/Mine/extension.json', '{}');
    put('/etc/dokuwiki/local.php', '<?php');
    put('/var/lib/dokuwiki/data/pages/start.txt', 'first page');
    put('/var/lib/dokuwiki/data/pages/team/plan.txt', 'plan');
    put('/var/lib/dokuwiki/data/pages/wiki/welcome.txt', "changed\n", '>>');
    put('/var/lib/dokuwiki/acl/users.auth.php', 'admin:hash');
    put('/etc/roundcube/config.inc.php', "<?php include('/etc/roundcube/debian-db-roundcube.php');\n");
    put('/etc/roundcube/debian-db.php', "<?php \$dbname='roundcube';\n");
    put('/etc/dbconfig-common/roundcube.conf',
        "# of dbconfig\ndbc_dbtype='mysql'\ndbc_dbuser='cube'\ndbc_dbpass='x'\n"
        . "dbc_dbserver='localhost'\ndbc_dbport='3306'\ndbc_dbname='roundcube'\n");
    put('/etc/dbconfig-common/other.conf', "dbc_dbname='other'\n");
    put('/var/lib/ucf/registry', "roundcube-core \t /etc/dbconfig-common/roundcube.conf\n"
        . "other \t /etc/dbconfig-common/other.conf\n");
    put('/var/lib/roundcube/plugins/mine/mine.php', '<?php');
    put('/var/lib/unrelated/state', 'of another package');
    return 1;
});

my $everything = once(sub {
    $lay_out->();
    return Dumped->new($tree, '', '--dump-all');
});

# Of the dump of everything: see Dumped.
sub members_below { return $everything->()->members_below(@_) }

sub package_of {
    my ($site, $attribute) = @_;
    return $everything->()->found(qq(string(//domain[\@name="$site"]/site/package/\@$attribute)));
}

my %EXPECTED = (
    'blog.test' => ['wordpress', {
        '/usr' => [qw(share/wordpress/robots.txt share/wordpress/wp-login.php)],
        '/var' => [qw(lib/wordpress/wp-content/plugins/mine/mine.php
            lib/wordpress/wp-content/uploads/2026/photo.jpg)],
        '/etc/wordpress' => [qw(config-blog.test.php htaccess)],
    }],
    'wiki.test' => ['mediawiki', {
        '/usr' => [], '/var' => [qw(lib/mediawiki/extensions/Mine/extension.json
            lib/mediawiki/images/a/map.png)],
        '/etc/mediawiki' => ['LocalSettings.php'],
    }],
    'pages.test' => ['dokuwiki', {
        '/usr' => [], '/var' => [map {"lib/dokuwiki/$_"} qw(acl/users.auth.php data/pages/start.txt
            data/pages/team/plan.txt data/pages/wiki/welcome.txt)],
        '/etc/default' => ['dokuwiki'],
    }],
    'mail.test' => ['roundcube-core', {
        '/usr' => [], '/var' => ['lib/roundcube/plugins/mine/mine.php'], '/etc/cron.d' => ['roundcube-core'],
        '/etc/dbconfig-common' => ['roundcube.conf'],
    }],
);

test 'A site of a package has what installing the package does not bring' => sub {
    my $dump = $everything->();
    is $dump->errors, '', 'the description is valid';
    for my $site (sort keys %EXPECTED) {
        my ($name, $files) = @{ $EXPECTED{$site} };
        is package_of($site, 'name'), $name, "$site: its package is named";
        my $version = output_of('dpkg-deb', '-f', glob("$ARCHIVES/${name}_*.deb"), 'Version');
        chomp $version;
        is package_of($site, 'version'), $version, "$site: the version of its package is named";
        is_deeply members_below($site, $_), $files->{$_}, "$site: of $_ it has what installing does not bring"
            for sort keys %$files;
        # There is no server of databases here.
        is_deeply [grep { /\Aerror/ && !/names the database/ } @{ $dump->problems_of($site) }], [],
            "$site: no error is named";
    }
};

test 'A site of a package is described and has what scripts and the administrator made' => sub {
    my $dump = $everything->();
    is package_of('blog.test', 'changed'), 1, 'changed files are counted';
    is_deeply [grep {/\A(?:config\.inc|debian-db\.php)/} @{ members_below('mail.test', '/etc/roundcube') }],
        [qw(config.inc.php debian-db.php)], 'settings that scripts have made are packed';
    is scalar(grep {/\Alocal\.php\z/} @{ members_below('pages.test', '/etc/dokuwiki') }), 1,
        'a file that the administrator made is packed';
    is_deeply $dump->texts_of('//domain[@name="wiki.test"]/site/package/directory'),
        [qw(/etc/mediawiki /usr/share/mediawiki /var/lib/mediawiki)],
        'the directories of the application are named';
    is_deeply $dump->values_of('//domain[@name="plain.test"]/site/package/@name'), [],
        'a site of files has no package';
    is_deeply [grep { @{ members_below($_, '/srv/common') } } sort(keys %EXPECTED), 'plain.test'], ['blog.test'],
        'what all sites of a server show is packed with one of them';
};

test 'An alias for all sites leads to its package' => sub {
    $lay_out->();
    my @both = ("$root/etc/apache2/sites-enabled/pages.conf", "$root/etc/apache2/conf-enabled/dokuwiki.conf");
    rename $both[0], $both[1] or die $!;
    put('/etc/apache2/conf-enabled/dokuwiki.conf', "Alias /dokuwiki /usr/share/dokuwiki\n");
    my $dump = Dumped->new($tree, 'plain.test', '--dump-domains=-');
    unlink $both[1] or die $!;
    put('/etc/apache2/sites-enabled/pages.conf', host('pages.test', '/usr/share/dokuwiki'));
    is_deeply $dump->values_of('//site/package/@name'), ['dokuwiki'],
        'the package behind an alias for all sites is named';
    is_deeply [grep {/pages/} @{ $dump->members_below('plain.test', '/var/lib/dokuwiki/data') }],
        [qw(pages/start.txt pages/team/plan.txt pages/wiki/welcome.txt)],
        'the content behind an alias for all sites comes with a single domain';
};

test 'The databases of packaged applications are found by their settings' => sub {
    $lay_out->();
    my $users = Linux::Users->new($tree);
    my @sites = @{ Linux::Sites::look($tree, $problems)->{sites} };
    Linux::SiteParts->new(tree => $tree, problems => $problems, users => $users, sites => \@sites);
    my $applications = Linux::Applications->new(tree => $tree, problems => $problems);
    my %settings = map { my $site = $_; ($site->{name} =>
        [map {"$_->{name} $_->{user} $_->{file}"} $applications->settings($site)]) }
        @sites;
    is_deeply $settings{'blog.test'}, ['blog writer /etc/wordpress/config-blog.test.php'],
        'settings for the name of the host are found';
    is_deeply $settings{'wiki.test'}, ['wiki editor /var/lib/mediawiki/LocalSettings.php'],
        'settings behind a link of root are found';
    is_deeply $settings{'mail.test'}, ['roundcube cube /etc/dbconfig-common/roundcube.conf'],
        'settings that the package manager has made are found';
};

END {
    local $?;
    # Much faster than perl's own way.
    output_of('rm', '-r', "$root/usr") if -e "$root/usr";
}

run_tests;
