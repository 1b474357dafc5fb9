# All sites of imitated systems, with their owners, PHP and what they share.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Imitated qw(imitated problem_texts);
use Linux::Php;
use Linux::Sites;
use Linux::System;
use Linux::Users;

my $PASSWD = <<'END';
root:x:0:0:root:/root:/bin/bash
www-data:x:33:33:www-data:/var/www:/usr/sbin/nologin
nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin
ann:x:4101:4101::/home/ann:/bin/bash
bob:x:4102:4100::/home/bob:/bin/sh
cid:x:4103:4103::/home/cid
+nis::::::
broken line
ann2:x:4101:4101::/home/ann2:/bin/bash
END
my $GROUP = "root:x:0:\nwww-data:x:33:\nclients:x:4100:ann\nann:x:4101:\n";

sub sites_in {
    my ($tree, $problems) = imitated('etc/passwd' => $PASSWD, 'etc/group' => $GROUP, @_);
    my %sites = map { $_->{name} => $_ } Linux::Sites::all($tree, $problems);
    return (\%sites, problem_texts($problems), $tree);
}

test 'The facts of accounts are found' => sub {
    my ($tree) = imitated('etc/passwd' => $PASSWD, 'etc/group' => $GROUP);
    my $users = Linux::Users->new($tree);
    is_deeply [map { $_->{name} } $users->all], [qw(root www-data ann ann2 bob cid nobody)],
        'accounts are sorted';
    is_deeply $users->by_name('bob'),
        { name => 'bob', uid => 4102, gid => 4100, group => 'clients', home => '/home/bob',
            shell => '/bin/sh' },
        'an account has its facts';
    is $users->name_of(4101), 'ann', 'a number that two accounts have stands for the first of them';
    is $users->name_of(4999), 4999, 'a number without an account stands for itself';
    is_deeply [map { $users->is_system($_) } map { $users->by_name($_) } qw(root www-data nobody ann)], [1,
        1, 1, 0],
        'accounts of services are distinguished from those of persons';
    my ($old) = imitated('etc/passwd' => "joe:x:501:501::/home/joe:/bin/bash\n",
        'etc/login.defs' => "UID_MIN\t500\n");
    $users = Linux::Users->new($old);
    is $users->is_system($users->by_name('joe')), 0,
        'accounts of persons begin at the number that the system has set';
};

test 'Every site has an owner and its PHP' => sub {
    my ($sites, $problems) = sites_in(
        'etc/nginx/nginx.conf' => <<'END',
http {
    upstream php-fpm { server unix:/run/php-fpm/www.sock; }
    server { server_name ann.test; root /home/ann/www; location ~ \.php { fastcgi_pass unix:/var/run/php/ann.sock; } }
    server { server_name pool.test; root /srv/pool; location ~ \.php { fastcgi_pass 127.0.0.1:9002; } }
    server { server_name gone.test; root /home/bob/sites/gone; }
    server { server_name web.test; root /srv/web; }
    server { server_name none.test; location / { proxy_pass http://127.0.0.1:1; } }
    server { server_name number.test; root /srv/number; location ~ \.php { fastcgi_pass 127.0.0.1:7000; } }
    server { server_name link.test; root /srv/link; auth_basic_user_file /etc/nginx/gone.passwd; }
    server { server_name both.test www.both.test; location / { proxy_pass http://127.0.0.1:8080; } }
    server { server_name _; root /var/www/html; }
}
END
        'etc/apache2/apache2.conf' => <<'END',
Include ports.conf
LoadModule php_module /usr/lib/apache2/modules/libphp8.2.so
<VirtualHost *:8080>
    ServerName both.test
    ServerAlias more.both.test
    DocumentRoot /srv/both
    php_value upload_max_filesize 9M
</VirtualHost>
<VirtualHost *:8081>
    DocumentRoot /srv/other
</VirtualHost>
<VirtualHost *:8080>
    DocumentRoot /var/www/html
</VirtualHost>
<VirtualHost *:8080>
    ServerName suexec.test
    DocumentRoot /srv/web/in
    AssignUserId cid cid
</VirtualHost>
END
        'etc/apache2/ports.conf' => "Listen 8080\n",
        'etc/php/8.2/fpm/pool.d/ann.conf' => <<'END',
; a comment
[ann]
user = ann
listen = /run/php/$pool.sock
php_admin_value[open_basedir] = "/home/ann:/tmp"
php_value[memory_limit] = 64M ; as sold
php_flag[display_errors] = on
[bob]
user = bob
listen = 9002
END
        'home/ann/www/' => [4101, 33], 'srv/pool/' => [33, 33], 'srv/web/in/' => [0, 0], 'srv/web/' => [33,
            33],
        'srv/number/' => [4999, 4998], 'srv/both/' => [4103, 4100], 'var/www/html/' => undef,
            'srv/other/' => undef,
        'srv/link' => \'/home/ann/www/../www', 'home/bob/' => [4102, 4100],
        'home/ann/www/.user.ini' => "memory_limit = 256M\nopen_basedir = /\n",
        'srv/both/.htaccess' => "php_value post_max_size 10M\n<Files x>\n</Files>\n",
    );
    my %owner = map { $_ => $sites->{$_}{owner} } keys %$sites;
    is_deeply \%owner, { 'ann.test' => 'ann', 'pool.test' => 'bob', 'gone.test' => 'bob',
        'web.test' => 'www-data',
        'none.test' => 'root', 'number.test' => 4999, 'link.test' => 'ann', 'both.test' => 'cid',
            'default' => 'root',
        'default-8081' => 'root', 'suexec.test' => 'cid' }, 'every site has an owner' or diag explain \%owner;
    is $sites->{'ann.test'}{group}, 'www-data', 'the group is that of the document root';
    is $sites->{'pool.test'}{owner_because}, 'account that runs PHP',
        'the reason why an account owns a site is given';
    is_deeply $sites->{'ann.test'}{php}, { version => '8.2', handler => 'fpm', pool => 'ann',
        pool_user => 'ann',
        pool_file => '/etc/php/8.2/fpm/pool.d/ann.conf', listen => 'unix:/var/run/php/ann.sock',
        pool_files => ['/etc/php/8.2/fpm/pool.d/ann.conf'], env => {}, extensions => [],
        settings => { open_basedir => '/home/ann:/tmp', memory_limit => '256M', display_errors => 'on' } },
        'PHP has its pool and settings' or diag explain $sites->{'ann.test'}{php};
    is $sites->{'number.test'}{php}{handler}, 'fastcgi',
        'another program runs PHP at an address without a pool';
    is_deeply $sites->{'both.test'}{php}{settings}, { upload_max_filesize => '9M', post_max_size => '10M' },
        'the module reads the settings of the directory';
    is $sites->{'both.test'}{php}{version}, '8.2', 'the version of the module is known';
    is_deeply $sites->{'both.test'}{servers}, [qw(nginx apache)], 'a site behind another server is one site';
    is_deeply $sites->{'both.test'}{names}, [qw(both.test www.both.test more.both.test)],
        'a site behind another server has the names of both';
    is $sites->{'both.test'}{root}, '/srv/both',
        'a site behind another server has the root of the one that has it';
    is_deeply $sites->{default}{servers}, [qw(nginx apache)],
        'sites without a name with the same directory are one site';
    is $sites->{'web.test'}{php}, undef, 'a site may be without PHP';
    is_deeply $sites->{'ann.test'}{shares_root_with}, ['link.test'], 'a shared root is seen through links';
    is_deeply $sites->{'pool.test'}{shares_root_with}, [],
        'a site with a root of its own shares it with no other';
    ok !exists $sites->{'ann.test'}{php_addresses},
        'a site does not keep the addresses by which its PHP was found';
    is_deeply $problems, [
        'warning gone.test: Document root /home/bob/sites/gone does not exist',
        'error link.test: The file /etc/nginx/gone.passwd cannot be found: No such file or directory',
    ], 'a missing root and a missing file are named' or diag explain $problems;
};

test 'The layout of the Red Hat family is known' => sub {
    my ($sites, $problems, $tree) = sites_in(
        'etc/os-release' => qq(NAME="Rocky Linux"\nVERSION_ID="8.9"\nID="rocky"\nID_LIKE="rhel centos fedora"\n),
        'etc/nginx/nginx.conf' => "http {\n include /etc/nginx/conf.d/*.conf;\n server {\n listen 80;\n server_name _;\n"
            . " root /usr/share/nginx/html;\n include /etc/nginx/default.d/*.conf;\n }\n}\n",
        'etc/nginx/conf.d/php-fpm.conf' => "upstream php-fpm { server unix:/run/php-fpm/www.sock; }\n",
        'etc/nginx/default.d/php.conf' => "location ~ \\.(php|phar)\$ { fastcgi_pass php-fpm; }\n",
        'etc/nginx/conf.d/n.conf' => "server { server_name n.test; root /var/www/n; include default.d/*.conf; }\n",
        'etc/php-fpm.d/www.conf' => "[www]\nuser = apache\nlisten = /run/php-fpm/www.sock\n",
        'etc/opt/remi/php81/php-fpm.d/h.conf' => "[h]\nuser = bob\nlisten = /var/opt/remi/php81/h.sock\n",
        'etc/httpd/conf/httpd.conf' => "ServerRoot /etc/httpd\nListen 8080\nDocumentRoot /var/www/html\n"
            . "IncludeOptional conf.d/*.conf\n",
        'etc/httpd/conf.d/php.conf' => "<FilesMatch \\.(php|phar)\$>\n"
            . "SetHandler \"proxy:unix:/run/php-fpm/www.sock|fcgi://localhost\"\n</FilesMatch>\n",
        'etc/httpd/conf.d/h.conf' => "<VirtualHost *:8080>\nServerName h.test\nDocumentRoot /var/www/h\n<FilesMatch x>\n"
            . "SetHandler \"proxy:unix:/var/opt/remi/php81/h.sock|fcgi://localhost\"\n</FilesMatch>\n</VirtualHost>\n"
            . "<VirtualHost *:8080>\nServerName i.test\nDocumentRoot /var/www/i\n</VirtualHost>\n",
        (map { ("var/www/$_/" => [48, 48]) } qw(n h i html)), 'usr/share/nginx/html/' => undef,
    );
    is_deeply [sort keys %$sites], [qw(default h.test i.test n.test)],
        'the sites of both servers are found';
    is_deeply [map { my $php = $sites->{$_}{php}; $php ? $php->{pool} : undef } qw(default h.test i.test n.test)],
        [qw(www h www www)], 'each site has its pool';
    is $sites->{'h.test'}{php}{version}, '8.1', 'the version of a further PHP is found';
    is $sites->{'h.test'}{owner}, 'bob',
        'the account of a pool owns a site whose directory is of the web server';
    is_deeply $problems, [], 'no problem is named' or diag explain $problems;
    is_deeply(Linux::System::distribution($tree),
        { id => 'rocky', name => 'Rocky Linux', version => '8.9', family => 'redhat' },
            'the distribution is known');
    is_deeply [Linux::Php::versions($tree)], ['8.1'], 'further versions of PHP are found';
};

test 'Pools are found at all kinds of addresses' => sub {
    my ($sites, $problems) = sites_in(
        'etc/nginx/nginx.conf' => <<'END',
http {
    server { server_name a.test; root /srv/x; location ~ \.php { fastcgi_pass unix:/run/php-fpm/a.sock; } }
    server { server_name b.test; root /srv/x; location ~ \.php { fastcgi_pass $php; } set $php unix:/run/php/b.sock; }
    server { server_name c.test; root /srv/x; location ~ \.php { fastcgi_pass localhost:9005; } }
    server { server_name d.test; root /srv/x; location ~ \.php { fastcgi_pass $http_x; } }
}
END
        'etc/php-fpm.conf' => "include=/etc/pools/*\n[a]\nuser=ann\nlisten=/run/php-fpm/a.sock\n",
        'etc/pools/b' => "[b]\nprefix=/run/php\nlisten=\$pool.sock\nuser=bob\ninclude=/etc/php-fpm.conf\n",
        'etc/php/8.1/fpm/pool.d/c.conf' => "[c]\nlisten = [::]:9005\nuser = cid\n", 'srv/x/' => undef,
    );
    is_deeply [map { $_->{php}{pool} } @$sites{qw(a.test b.test c.test d.test)}], [qw(a b c), undef],
        'pools are found in the main file, in what it includes and at all kinds of addresses';
    is $sites->{'b.test'}{owner}, 'bob', 'the account of a pool owns its site';
    is_deeply $problems, [], 'no problem is named';
};

test 'The sites behind a block with all their names stay sites' => sub {
    my ($sites, $problems) = sites_in(
        'etc/nginx/nginx.conf' => <<'END',
http {
    server { listen 80; server_name shop.test www.shop.test wiki.test blog.test other.test; return 301 https://$host$request_uri; }
    server { listen 443 ssl; server_name shop.test www.shop.test wiki.test blog.test other.test;
        location / { proxy_pass http://127.0.0.1:8080; } }
    server { listen 444 ssl; server_name wiki.test; location / { proxy_pass http://127.0.0.1:8080; } }
}
END
        'etc/apache2/apache2.conf' => <<'END',
Listen 8080
<VirtualHost *:8080>
    ServerName shop.test
    ServerAlias www.shop.test
    DocumentRoot /srv/shop
    Redirect 301 /old /new
</VirtualHost>
<VirtualHost *:8080>
    ServerName wiki.test
    DocumentRoot /srv/wiki
    Redirect 302 /a /b
</VirtualHost>
<VirtualHost *:8080>
    ServerName blog.test
    DocumentRoot /srv/blog
</VirtualHost>
END
        map { ("srv/$_/" => undef) } qw(shop wiki blog),
    );
    is_deeply { map { $_ => $sites->{$_}{names} } keys %$sites }, { 'shop.test' => ['shop.test', 'www.shop.test'],
        'wiki.test' => ['wiki.test'], 'blog.test' => ['blog.test'], 'other.test' => ['other.test'] },
        'each site behind the block has its own names' or diag explain [values %$sites];
    is_deeply [map { $sites->{$_}{root} } qw(shop.test wiki.test blog.test other.test)],
        ['/srv/shop', '/srv/wiki', '/srv/blog', undef],
        'each site behind the block has its own document root';
    is_deeply $sites->{'wiki.test'}{servers}, [qw(nginx apache)], 'a site behind the block has both servers';
    is_deeply [map {"$_->{server} $_->{listen} $_->{from} $_->{to}"} @{ $sites->{'wiki.test'}{redirects} }],
        ['nginx *:80 / https://$host$request_uri', 'apache *:8080 /a /b'],
        'a site behind the block has the redirects of both servers'
        or diag explain $sites->{'wiki.test'}{redirects};
    is_deeply [map {"$_->{directive}{name} $_->{directive}{line}"} @{ $sites->{'wiki.test'}{blocks} }],
        ['server 3', 'server 5', 'server 2', 'virtualhost 8'],
        'a site behind the block has all blocks that serve it';
    is_deeply [map {"$_->{directive}{name} $_->{directive}{line}"} @{ $sites->{'blog.test'}{blocks} }],
        ['server 3', 'server 2', 'virtualhost 13'], 'a site behind the block has no blocks of other sites';
    is_deeply $problems, [], 'no problem is named';
};

test 'Settings of PHP come from pools, files and requests' => sub {
    my ($sites, $problems) = sites_in(
        'etc/nginx/nginx.conf' => <<'END',
http {
    server { server_name a.test; root /srv/x; location ~ \.php { fastcgi_pass 127.0.0.1:9001;
        fastcgi_param PHP_VALUE "by_admin=2
by_request=1"; fastcgi_param PHP_ADMIN_VALUE "of_request=1"; } }
    server { server_name b.test; root /srv/x; location ~ \.php { fastcgi_pass 127.0.0.1:9002; } }
}
END
        'etc/php/8.2/fpm/pool.d/all.conf' => <<'END',
[a]
listen = 9001
include = /etc/php/8.2/fpm/of-all.inc
php_admin_value[by_admin] = 1
env[PLACE] = "north; west" ; a comment
[b]
include = "/etc/php/8.2/fpm/of-*.inc"
listen = 9002
END
        'etc/php/8.2/fpm/php.ini' => "; extension=shmop\nextension = gd.so\nmemory_limit=1\n",
        'etc/php/8.2/fpm/conf.d/10-opcache.ini' => "zend_extension=/usr/lib/php/opcache.so\n",
        'etc/php/8.2/fpm/conf.d/20-curl.ini' => qq(extension="curl" ; x\n),
        'etc/php/8.2/cli/conf.d/20-xdebug.ini' => "zend_extension=xdebug\n",
        'etc/php/8.2/fpm/of-all.inc' => "user = ann\nphp_value[from_file] = 1\nenv[TMPDIR] = /tmp\n",
        'srv/x/.user.ini' => "of_request=3\nby_request=2\nby_admin=3\n",
    );
    my @php = map { $sites->{$_}{php} } qw(a.test b.test);
    is_deeply [map { $_->{pool_user} } @php], [qw(ann ann)], 'a file that pools include is part of each of them';
    is_deeply $php[0]{settings}, { from_file => 1, by_admin => 2, by_request => 2, of_request => 1 },
        'requests change settings of the pool, and a file in the root those of no administrator'
        or diag explain $php[0]{settings};
    is_deeply $php[0]{extensions}, [qw(curl gd opcache)],
        'the extensions are those of the program that runs PHP';
    is_deeply $php[0]{env}, { PLACE => 'north; west', TMPDIR => '/tmp' }, 'the environment of a pool is known';
    is_deeply $sites->{'b.test'}{config}, [map {"/etc/$_"} qw(nginx/nginx.conf php/8.2/fpm/pool.d/all.conf
        php/8.2/fpm/of-all.inc)], 'the files that make a pool belong to its site';
    is_deeply $problems, [], 'no problem is named';
};

test 'A plain account finds what it may read, and the rest is named' => sub {
    my ($tree, $problems) = imitated('etc/passwd' => $PASSWD, 'etc/nginx/nginx.conf' => <<'END',
http {
    include sites/*;
    include closed/*;
    server { listen 443 ssl; server_name a.test; root /home/ann/www; ssl_certificate a.pem; ssl_certificate_key a.key; }
}
END
        'etc/apache2/apache2.conf' => 'ServerName x', 'etc/nginx/sites/b' => 'server {}',
            'etc/nginx/a.pem' => 'x',
        'etc/nginx/a.key' => 'x', 'home/ann/www/' => [4101, 4101], 'etc/nginx/closed/c' => 'server {}',
        'etc/php/8.2/fpm/pool.d/a.conf' => 'x');
    my %modes = ('etc/apache2' => 0700, 'etc/nginx/sites/b' => 0600, 'etc/nginx/a.key' => 0600,
        'home/ann' => 0700,
        'etc/nginx/closed' => 0700, 'etc/php/8.2/fpm/pool.d' => 0700, '' => 0755);
    chmod $modes{$_}, $tree->path("/$_") for keys %modes;
    my @sites;
    {
        local $> = 65534;
        @sites = Linux::Sites::all($tree, $problems);
    }
    is_deeply [map {"$_->{name} $_->{owner} @{ $_->{roots} }"} @sites], ['a.test ann /home/ann/www'],
        'a plain account finds a site whose files it may not read, with its root';
    is_deeply [sort @{ problem_texts($problems) }], [
        'error /etc/apache2/apache2.conf: Cannot be read: Permission denied',
        'error /etc/nginx/closed: Cannot be read: Permission denied',
        'error /etc/nginx/sites/b: Cannot be read: Permission denied (included by /etc/nginx/nginx.conf)',
        'error /etc/php/8.2/fpm/pool.d: Cannot be read: Permission denied',
        'error a.test: Document root /home/ann/www cannot be read: Permission denied',
        'error a.test: The file /etc/nginx/a.key may not be read',
    ], 'each path that a plain account may not read is an error' or diag explain problem_texts($problems);
};

test 'Thousands of sites are found in a short time' => sub {
    my $many = join '', map {
        "server { listen 80; server_name n$_.test www.n$_.test; return 301 https://n$_.test; }\n"
            . "server { listen 443 ssl; server_name n$_.test; root /srv/n/$_; include snippet.conf; }\n"
    } 1 .. 1000;
    my $hosts = join '', map {
        "<VirtualHost *:80>\nServerName a$_.test\nDocumentRoot /srv/a/$_\n<IfModule mod_x.c>\nAlias /x /srv/x\n</IfModule>\n"
            . "</VirtualHost>\n"
    } 1 .. 1000;
    my ($tree, $problems) = imitated('etc/passwd' => $PASSWD, 'etc/nginx/nginx.conf' => "http {\n$many}\n",
        'etc/nginx/snippet.conf' => "location ~ \\.php { fastcgi_pass unix:/run/php/x.sock; }\n",
        'etc/apache2/apache2.conf' => $hosts, map { ("srv/n/$_/" => undef, "srv/a/$_/" => undef) } 1 .. 1000);
    my $before = (times)[0];
    my $breaths = 0;
    local $Agent::Process::while_waiting = sub { $breaths++ };
    my @sites = Linux::Sites::all($tree, $problems);
    cmp_ok((times)[0] - $before, '<', 3, 'two thousand sites take less than three seconds of the processor');
    is scalar @sites, 2000, 'all sites are found';
    cmp_ok $breaths, '>=', 1, 'the caller is called while sites are found';
    is $problems->count, 0, 'no problem is named';
};

test 'What only .htaccess says is named' => sub {
    my ($tree, $problems) = imitated(
        'etc/passwd' => "ann:x:4711:4711::/home/ann:/bin/sh\n",
        'etc/apache2/apache2.conf' => join('', map {"<VirtualHost *:80>\nServerName $_.test\n"
            . "DocumentRoot /home/ann/$_\n</VirtualHost>\n"} qw(a plain)),
        'home/ann/a/' => [4711, 4711], 'home/ann/plain/' => [4711, 4711], 'home/ann/a/in/.htpasswd' => '',
        'home/ann/plain/.htaccess' => "php_value memory_limit 1M\nOptions -Indexes\n",
        'home/ann/a/.htaccess' => "RewriteEngine on\nRewriteRule ^x\$ /y [R]\n  require valid-user\nAuthType Basic\n"
            . "AuthUserFile /etc/shadow\nAuthGroupFile \"/home/ann/a/in/.htpasswd\"\n", 'etc/shadow' => 'secret',
    );
    my ($site) = Linux::Sites::all($tree, $problems);
    is_deeply problem_texts($problems), [
        'info a.test: /home/ann/a/.htaccess has rules of its own (authtype, require, rewriterule), which are in the'
            . ' archive with it and not listed here; files of this name in the directories below are not looked into',
        "error a.test: /home/ann/a/.htaccess names the file /etc/shadow, which is not in the site's archive: copy it"
            . ' by hand',
    ], 'rules and files that only .htaccess names are named' or diag explain problem_texts($problems);
    is_deeply $site->{files}, [], '.htaccess makes no other file a part of the site';
};

run_tests;
