# An application is dumped whole, wherever its document root is in it, and nothing beside it.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Dumped;
use Imitated qw(imitated);
use Test::More;
use Independent;

my ($ALICE, $BOB, $WEB) = (31001, 31002, 33);

sub server_block {
    my ($name, $root) = @_;
    return "server { listen 80; server_name $name; root $root; }\n";
}

my %ROOT = (
    'laravel.test' => '/srv/shop/public', 'symfony.test' => '/var/www/news/public',
    'drupal.test' => '/opt/drupal/web', 'composer.test' => '/home/alice/wiki/htdocs',
    'rails.test' => '/srv/rails/current/public', 'django.test' => '/srv/django/static',
    'node.test' => '/srv/spa/dist', 'shared.test' => '/srv/shop/public/admin',
    'moved.test' => '/home/alice/public_html', 'plain.test' => '/home/bob/site/htdocs',
    'home.test' => '/home/bob/www', 'others.test' => '/srv/mixed/public',
    'mixed.test' => '/srv/mixed/bob/public',
    'wordpress.test' => '/srv/wordpress', 'foreign.test' => '/srv/foreign/public',
);

my ($tree) = imitated(
    'etc/passwd' => "root:x:0:0:root:/root:/bin/sh\nwww-data:x:$WEB:${WEB}::/var/www:/bin/false\n"
        . "alice:x:$ALICE:${ALICE}::/home/alice:/bin/sh\nbob:x:$BOB:${BOB}::/home/bob:/bin/sh\n",
    'etc/group' => "root:x:0:\nalice:x:$ALICE:\nbob:x:$BOB:\n",
    'etc/nginx/nginx.conf' => "http { include /etc/nginx/sites-enabled/*; }\n",
    (map { ("etc/nginx/sites-enabled/$_" => server_block($_, $ROOT{$_})) } keys %ROOT),
    'srv/shop/' => undef, 'srv/shop/artisan' => '#!', 'srv/shop/.env' => "DB_PASSWORD=secret\n",
    'srv/shop/app/Code.php' => '<?php',
    'srv/shop/public/' => [$WEB, $WEB], 'srv/shop/public/index.php' => '<?php',
    'srv/shop/storage/app/upload' => 'u',
    'srv/shop/storage/linked' => \'/srv/uploads', 'srv/uploads/photo' => 'p',
    'srv/shop/public/admin/' => [$WEB, $WEB],
    'srv/shop/public/admin/index.php' => '<?php',
    'srv/shop/lib' => \'/usr/share/library', 'usr/share/library/code' => 'x',
    'srv/shop/own' => \'/usr/share/own',
    'usr/share/own/code' => 'x', 'srv/shop/gone' => \'/srv/gone',
    'lib' => \'usr/lib', 'usr/lib/systemd/system/web.service' => 'x',
    'srv/shop/unit' => \'/lib/systemd/system/web.service',
    'etc/systemd/system/multi-user.target.wants/web.service' => \'/lib/systemd/system/web.service',
    'var/lib/dpkg/status' => "Package: library\nStatus: install ok installed\nVersion: 1\n"
        . "Architecture: all\n",
    'var/lib/dpkg/info/library.list' => "/.\n/usr\n/usr/share\n/usr/share/library\n/usr/share/library/code\n"
        . "/lib\n/lib/systemd\n/lib/systemd/system\n/lib/systemd/system/web.service\n",
    'var/www/news/bin/console' => '#!', 'var/www/news/config/x.yaml' => 'x',
    'var/www/news/public/index.php' => '<?php',
    'var/www/other/index.html' => 'not of it',
    'opt/drupal/composer.json' => '{}', 'opt/drupal/vendor/autoload.php' => '<?php',
    'opt/drupal/web/index.php' => '<?php',
    'home/alice/' => [$ALICE, $ALICE], 'home/alice/wiki/' => [$ALICE, $ALICE],
    'home/alice/wiki/htdocs/' => [$ALICE, $ALICE],
    'home/alice/wiki/composer.json' => '{}', 'home/alice/wiki/src/a.php' => '<?php',
    'home/alice/wiki/htdocs/index.php' => '<?php',
    'home/alice/notes' => 'private',
    'home/alice/laravel/' => [$ALICE, $ALICE], 'home/alice/laravel/artisan' => '#!',
    'home/alice/laravel/vendor/autoload.php' => '<?php', 'home/alice/laravel/.env' => 'x',
    'home/alice/public_html/' => [$ALICE, $ALICE],
    'home/alice/public_html/index.php' => "<?php require __DIR__ . '/../laravel/vendor/autoload.php';\n",
    'srv/rails/releases/7/config.ru' => 'x', 'srv/rails/releases/7/config/application.rb' => 'x',
    'srv/rails/releases/7/public/index.html' => 'x', 'srv/rails/releases/6/config.ru' => 'old',
    'srv/rails/current' => \'releases/7', 'srv/rails/shared/master.key' => 'key',
    'srv/rails/releases/7/config/master.key' => \'../../../shared/master.key',
    'srv/django/manage.py' => '#!', 'srv/django/site/settings.py' => 'x', 'srv/django/static/a.css' => 'x',
    'srv/spa/package.json' => '{}', 'srv/spa/src/a.ts' => 'x', 'srv/spa/dist/index.html' => 'x',
    'home/bob/' => [$BOB, $BOB], 'home/bob/composer.json' => '{}', 'home/bob/www/' => [$BOB, $BOB],
    'home/bob/www/index.php' => '<?php', 'home/bob/site/' => [$BOB, $BOB],
    'home/bob/site/htdocs/' => [$BOB, $BOB],
    'home/bob/site/config.inc.php' => '<?php', 'home/bob/site/htdocs/index.php' => '<?php',
    'srv/mixed/composer.json' => '{}', 'srv/mixed/public/' => [$ALICE, $ALICE],
    'srv/mixed/public/index.php' => '<?php',
    'srv/mixed/bob/public/' => [$BOB, $BOB], 'srv/mixed/bob/public/index.php' => '<?php',
    'srv/wordpress/wp-load.php' => '<?php', 'srv/wordpress/wp-content/uploads/a' => 'a',
    'srv/foreign/' => [$BOB, $BOB], 'srv/foreign/composer.json' => '{}',
    'srv/foreign/public/' => [$ALICE, $ALICE],
    'srv/foreign/public/index.php' => '<?php', 'srv/foreign/secret' => 'of bob',
    'var/spool/cron/crontabs/alice' =>
        "1 * * * * php /home/alice/laravel/artisan run\n2 * * * * /home/alice/wiki/job\n",
    'etc/cron.d/shop' => "3 * * * * www-data php /srv/shop/artisan schedule:run\n"
        . "4 * * * * www-data /usr/bin/other\n",
);

my $everything = once(sub { Dumped->new($tree, '', '--dump-all') });

test 'An application is packed whole and described by its kind' => sub {
    my $dump = $everything->();
    is $dump->errors, '', 'the description is valid';
    my %WHOLE = (
        'laravel.test' => ['/srv/shop', [qw(.env app/Code.php artisan gone lib own public/admin/index.php
            public/index.php
            storage/app/upload storage/linked unit)], 'Laravel'],
        'symfony.test' => ['/var/www/news', [qw(bin/console config/x.yaml public/index.php)], 'Symfony'],
        'drupal.test' => ['/opt/drupal', [qw(composer.json vendor/autoload.php web/index.php)], 'Composer'],
        'composer.test' => ['/home/alice/wiki', [qw(composer.json htdocs/index.php src/a.php)], 'Composer'],
        'rails.test' => ['/srv/rails/releases/7', [qw(config.ru config/application.rb config/master.key
            public/index.html)],
            'Rails'],
        'django.test' => ['/srv/django', [qw(manage.py site/settings.py static/a.css)], 'Django'],
        'node.test' => ['/srv/spa', [qw(dist/index.html package.json src/a.ts)], 'Node'],
        'moved.test' => ['/home/alice/laravel', [qw(.env artisan vendor/autoload.php)], 'Laravel'],
        'wordpress.test' => ['/srv/wordpress', [qw(wp-content/uploads/a wp-load.php)], 'WordPress'],
    );
    for my $name (sort keys %WHOLE) {
        my ($directory, $files, $kind) = @{ $WHOLE{$name} };
        is_deeply $dump->members_below($name, $directory), $files, "$name: all of $directory is packed";
        is $dump->found(qq(string(//domain[\@name="$name"]/site/application[\@directory="$directory"]/\@kind))), $kind,
            "$name: the application is described as $kind";
    }
};

test 'What links of an application lead to is packed unless it is of the system' => sub {
    my $dump = $everything->();
    is_deeply $dump->members_below('laravel.test', '/srv/uploads'), ['photo'],
        'what a link of the application leads to is packed';
    is_deeply $dump->problems_of('laravel.test'),
        ['info: /srv/shop/gone is a symbolic link to /srv/gone, which is not there',
        'warning: /srv/shop/lib is a symbolic link to /usr/share/library, which is not packed: install there'
            . ' what it belongs to',
        'error: /srv/shop/own is a symbolic link to /usr/share/own, which is not packed: copy it by hand',
        'warning: /srv/shop/unit is a symbolic link to /lib/systemd/system/web.service, which is not packed:'
            . ' install there what it belongs to'],
        'links that lead to the system or to nothing are named';
    is_deeply $dump->problems_of('server'), [], 'links that enable units are not named';
};

test 'An archive has what an application needs and no other files' => sub {
    my $dump = $everything->();
    is_deeply $dump->members_below('rails.test', '/srv/rails'),
        [qw(current releases/7/config.ru releases/7/config/application.rb
        releases/7/config/master.key releases/7/public/index.html shared/master.key)],
        'a release is packed with what it shares with others, and without the others';
    is_deeply $dump->members_below('symfony.test', '/var/www/other'), [],
        'a directory beside an application is not packed with it';
    is_deeply $dump->texts_of('//domain[@name="laravel.test"]/site/packed'), [qw(/srv/shop /srv/uploads)],
        'the description names the directories that are packed';
};

test 'An application that sites share is packed once' => sub {
    my $dump = $everything->();
    is_deeply $dump->members_below('shared.test', '/srv/shop'), [],
        'the second site that shares an application does not pack it again';
    is_deeply $dump->values_of('//domain[@name="shared.test"]/content/@file'),
        ['content/sites/laravel.test.tar.gz', 'content/sites/shared.test.tar.gz'],
        'the second site that shares an application names the archive of the first one too';
    like join(' ', @{ $dump->members('composer.test') }), qr{\A(?!.*notes)},
        'other files of a home are not packed with an application in it';
};

test 'What belongs to other accounts is not taken with an application' => sub {
    my $dump = $everything->();
    is_deeply $dump->members_below('others.test', '/srv/mixed'), ['public/index.php'],
        'a directory with sites of other accounts is not packed with one of them';
    is_deeply $dump->problems_of('others.test'),
        ['error: Its application begins above the document root, in /srv/mixed,'
        . ' which holds sites of other accounts and is not packed: copy what it needs by hand'],
        'an application that is not packed because of sites of other accounts is an error';
    is_deeply $dump->members_below('foreign.test', '/srv/foreign'), ['public/index.php'],
        'an application in a directory of another account is not packed';
    like $dump->problems_of('foreign.test')->[0], qr/\Aerror: .*\/srv\/foreign, which belongs to bob/,
        'an application in a directory of another account is an error';
    is_deeply $dump->problems_of('plain.test'), [],
        'files that the archive of the home has are not named as missing';
};

test 'Files beside a document root are an error where no archive has them' => sub {
    my $plain = Dumped->new($tree, "plain.test,home.test", '--dump-domains=-');
    is_deeply $plain->problems_of('plain.test'),
        ['error: /home/bob/site is not packed, though it holds the document root'
        . ' /home/bob/site/htdocs and config.inc.php: copy what the site needs by hand, or dump the whole'
            . ' client if it is'
        . " in the client's home"],
        'files beside a document root that no archive has are an error';
    like $plain->problems_of('home.test')->[0],
        qr{\Aerror: /home/bob is not packed, though .*application \(Composer\)},
        'an application whose directory is a home is an error';
};

test 'A domain comes with all of its application' => sub {
    my $moved = Dumped->new($tree, 'moved.test', '--dump-domains=-');
    is_deeply $moved->members_below('moved.test', '/home/alice'),
        [qw(laravel/.env laravel/artisan laravel/vendor/autoload.php
        public_html/index.php)], 'the application is packed whole, with the document root beside it';
    is_deeply $moved->texts_of('//client/cron'), ['php /home/alice/laravel/artisan run'],
        "the account's jobs for this domain are described, without those for others";
    is_deeply $moved->members_below('moved.test', '/var/spool'), ['cron/crontabs/alice'],
        "the table of the account's jobs is packed";
};

test 'Jobs of a service come with the domain whose files they name' => sub {
    my $shop = Dumped->new($tree, 'laravel.test', '--dump-domains=-');
    is_deeply $shop->texts_of('//client/cron'), ['php /srv/shop/artisan schedule:run'],
        'the job that names files of the domain is described, and no other';
};

run_tests;
