# Sites of nginx on imitated systems.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Imitated qw(imitated problem_texts);
use Linux::Nginx;

my $DEBIAN = <<'END';
user www-data;
include /etc/nginx/modules-enabled/*.conf;
events { worker_connections 768; }
http {
    log_format main '$remote_addr "$request" {x}' # a comment { with a brace
                    '"$http_user_agent"';
    types { text/html html htm; root x; }
    access_log /var/log/nginx/access.log;
    include conf.d/*.conf;
    include /etc/nginx/sites-enabled/*;
}
END

# The sites of a tree with Debian's main file and one file of servers.
sub sites_of {
    my ($servers, %more) = @_;
    my ($tree, $problems) = imitated('etc/nginx/nginx.conf' => $DEBIAN,
        'etc/nginx/sites-enabled/sites' => $servers, %more);
    my %sites = map { $_->{name} => $_ } Linux::Nginx::sites($tree, $problems);
    return (\%sites, problem_texts($problems));
}

test 'A server block is described with all that it has' => sub {
    my ($sites, $problems) = sites_of(<<'END', 'srv/a/sub/' => undef, 'srv/media/' => undef);
server {
    listen 80;
    listen [::]:80;
    server_name A.test www.a.test.;
    return 301 https://a.test$request_uri;
}
server {
    listen 443 ssl http2;
    listen unix:/run/a.sock;
    listen 127.0.0.1:8443 ssl;
    server_name a.test;
    root /srv/a/./;
    ssl_certificate     ssl/a.pem;
    ssl_certificate_key /etc/nginx/ssl/a.key;
    error_log /var/log/nginx/a.error;
    location /static/ { alias /srv/a/sub/; }
    location /media { root /srv/media; auth_basic "Only { us }; ok"; auth_basic_user_file htpasswd; }
    location ~ /\.ht { deny all; }
    location ~ \.php$ { fastcgi_pass unix:/run/php/a.sock; fastcgi_param PHP_VALUE "memory_limit=64M
upload_max_filesize = 8M"; }
    location = /50x.html { root /usr/share/nginx/html; }
    location /.well-known/acme-challenge/ { root /srv/acme; }
    rewrite ^/old$ /new permanent;
    if ($http_user_agent ~ bad) { return 302 /bad; }
}
END
    is_deeply [keys %$sites], ['a.test'], 'blocks with the same name are one site';
    my $site = $sites->{'a.test'};
    is_deeply $site->{names}, ['a.test', 'www.a.test'], 'names are in lower case and without the last point';
    is $site->{root}, '/srv/a', 'the document root has no superfluous parts';
    is_deeply $site->{roots}, ['/srv/a', '/srv/media'],
        'directories inside the root, of packages and for certificate challenges are no further roots';
    is_deeply $site->{listen}, [
        { address => '*', port => 443, tls => 1 }, { address => 'unix:/run/a.sock', port => undef, tls => 0 },
        { address => '127.0.0.1', port => 8443, tls => 1 }, { address => '*', port => 80, tls => 0 },
        { address => '[::]', port => 80, tls => 0 },
    ], 'all addresses are listed';
    is_deeply $site->{tls}, { certificate => '/etc/nginx/ssl/a.pem', key => '/etc/nginx/ssl/a.key' },
        'certificate and key are found from the configuration directory';
    my @of_second = (server => 'nginx', names => 'a.test', listen => '*:443 unix:/run/a.sock 127.0.0.1:8443');
    is_deeply $site->{redirects}, [
        { from => '^/old$', to => '/new', code => 301, @of_second },
        { from => '/ if ($http_user_agent ~ bad)', to => '/bad', code => 302, @of_second },
        { from => '/', to => 'https://a.test$request_uri', code => 301, server => 'nginx', names => 'a.test www.a.test',
            listen => '*:80 [::]:80' },
    ], 'redirects are listed, with the names and addresses that they are for' or diag explain $site->{redirects};
    is_deeply $site->{access}, [
        { path => '/media', rule => 'auth_basic Only { us }; ok' }, { path => '~ /\.ht', rule => 'deny all' },
    ], 'access rules are listed with their locations';
    is_deeply $site->{files}, [map {"/etc/nginx/$_"} 'htpasswd', 'ssl/a.pem', 'ssl/a.key'],
        'the files that its settings name belong to the site';
    is_deeply $site->{php_addresses}, ['unix:/run/php/a.sock'], 'the address of PHP is found';
    is_deeply $site->{php_settings}, { memory_limit => '64M', upload_max_filesize => '8M' },
        'the settings that are sent to PHP are found';
    is_deeply $site->{logs}, ['/var/log/nginx/a.error'], 'the log of the site is found, and not that of all';
    is_deeply $site->{config}, ['/etc/nginx/sites-enabled/sites'],
        'the file of its configuration belongs to the site';
    is_deeply $problems, [], 'no problem is named' or diag explain $problems;
};

test 'Blocks of a site are joined by their names' => sub {
    my ($sites, $problems) = sites_of(<<'END', map { ("srv/$_/" => undef) } qw(a b c d x y));
server { server_name a.test b.test c.test; return 301 https://$host$request_uri; }
server { server_name a.test; root /srv/a; }
server { server_name b.test; root /srv/b; }
server { server_name c.test; listen 8080; root /srv/c; }
server { server_name c.test; listen 8081; root /srv/d; }
server { server_name www.b.test old.test; return 301 http://b.test/; }
server { server_name x.test; root /srv/x; }
server { server_name x2.test x.test; listen 81; root /srv/y; }
server { server_name away.test; return 301 https://elsewhere.test/; }
server { listen 80 default_server; return 444; }
END
    is_deeply [sort keys %$sites], [qw(a.test away.test b.test c.test x.test x2.test)],
        'one redirect for many sites does not make them one';
    is_deeply $sites->{'b.test'}{names}, ['b.test', 'www.b.test', 'old.test'],
        'names that are redirected to a site are its names';
    is_deeply $sites->{'c.test'}{roots}, ['/srv/c', '/srv/d'], 'a site may have several roots';
    is $sites->{'away.test'}{root}, undef, 'a site that is only a redirect has no root';
    is_deeply $problems, ['info /etc/nginx/sites-enabled/sites: Line 10: has neither a name nor content and is left out'],
        'a server that refuses requests is named for information' or diag explain $problems;
};

test 'Variables are followed where the configuration decides them' => sub {
    my ($sites, $problems) = sites_of(<<'END',
map $host $directory { hostnames; default none; m.test mm; *.map.test wild; ~^r(.)\.test$ regex; }
map $http_host $other { default /srv/other; }
upstream php { server unix:/run/php-fpm/www.sock; server 127.0.0.1:9001 backup; }
upstream app { server 127.0.0.1:3000; }
server { server_name s.test; set $base /srv/sites; set $sub s; root ${base}/$sub/htdocs; location ~ \.php { fastcgi_pass php; } }
server { server_name h1.test h2.test; root /srv/hosts/$host; }
server { server_name m.test; root /srv/$directory; }
server { server_name x.map.test; root /srv/$directory; }
server { server_name r1.test; root /srv/$directory; }
server { server_name n.test; root /srv/names/$server_name; }
server { server_name p.test; location / { proxy_pass http://app/x; } }
server { server_name *.mass.test mass.test; root /srv/mass/$host/www; }
server { server_name ~^(?<who>.+)\.users\.test$; root /srv/users/$who; }
server { server_name u.test; root /srv/$arg_x/y; }
server { server_name o.test; root $other; }
END
        (map { ("srv/$_/" => undef) } qw(sites/s/htdocs hosts/h1.test hosts/h2.test mm wild regex names/n.test other
            mass/mass.test/www mass/one.mass.test/www mass/two.mass.test/www mass/else.test/www mass/plain
            users/ann users/bob)));
    is $sites->{'s.test'}{root}, '/srv/sites/s/htdocs', 'variables that are set are followed';
    is_deeply $sites->{'s.test'}{php_addresses}, ['unix:/run/php-fpm/www.sock', '127.0.0.1:9001'],
        'a group of servers stands for its members';
    is_deeply $sites->{'h1.test'}{roots}, ['/srv/hosts/h1.test', '/srv/hosts/h2.test'],
        'each name of a block has its own directory';
    is $sites->{'m.test'}{root}, '/srv/mm', 'a map gives a directory to a name';
    is $sites->{'x.map.test'}{root}, '/srv/wild', 'a map gives a directory to a name with a wildcard';
    is $sites->{'r1.test'}{root}, '/srv/regex',
        'a map gives a directory to a name that an expression matches';
    is $sites->{'o.test'}{root}, '/srv/other', 'a map gives its default directory to all other names';
    is $sites->{'n.test'}{root}, '/srv/names/n.test', 'the variable for the first name is followed';
    is_deeply $sites->{'p.test'}{proxies}, ['http://127.0.0.1:3000'],
        'the server behind a site is found';
    is $sites->{'p.test'}{root}, undef, 'a site that another server serves has no root';
    is_deeply $sites->{'mass.test'}{roots}, ['/srv/mass/mass.test/www'], 'the plain name has its own directory';
    is $sites->{'two.mass.test'}{root}, '/srv/mass/two.mass.test/www', 'a directory for a host makes a site';
    is_deeply [map { "$_->{directive}{name} $_->{directive}{line}" } @{ $sites->{'two.mass.test'}{blocks} }], ['server 12'],
        'a site of a directory for a host has the block that serves it';
    ok !$sites->{'else.test'}, 'a directory whose name the block does not serve is no site';
    is_deeply $sites->{'~^(?<who>.+)\.users\.test$'}{roots}, ['/srv/users/ann', '/srv/users/bob'],
        'directories that an expression selects are all taken';
    is_deeply $sites->{'u.test'}{roots}, [], 'a directory that only a request decides is not taken';
    is_deeply $problems, ['error u.test: The directory /srv/$arg_x/y (/etc/nginx/sites-enabled/sites line 14)'
        . ' depends on the request and was not found: copy by hand what is served from it'],
        'a directory that only a request decides is an error' or diag explain $problems;
};

test 'A server without a name or a root has those of nginx' => sub {
    my @directories = ('usr/share/nginx/html/' => undef, 'var/www/html/' => undef, 'srv/o/' => undef);
    my ($sites, $problems) = sites_of(<<'END', @directories);
server { listen 80 default_server; server_name _; root /var/www/html; }
server { listen 443 ssl default_server; root /var/www/html; }
server { listen 8080; }
server { server_name .wild.test; root /srv/o; }
server { server_name *.only.test; root /srv/o; }
server { server_name "~^a{1,2}\.test$"; root /srv/missing; }
END
    is_deeply [sort keys %$sites], [sort 'default', 'default-8080', 'wild.test', '*.only.test',
        '~^a{1,2}\.test$'],
        'each site without a plain name gets one';
    is $sites->{'default-8080'}{root}, '/usr/share/nginx/html',
        'nginx serves its own directory where none is given';
    is_deeply $sites->{'wild.test'}{names}, ['wild.test', '*.wild.test'],
        'a name with a point in front stands for itself and all names below';
    is_deeply $sites->{'~^a{1,2}\.test$'}{roots}, [], 'a missing root is not taken';
    is_deeply $problems, ['warning ~^a{1,2}\.test$: Document root /srv/missing does not exist'],
        'a missing root is a warning';
};

test 'A mistake in the configuration is named and loses no site' => sub {
    my ($sites, $problems) = sites_of("server { server_name ok.test; root /srv/ok; }\n", 'srv/ok/' => undef,
        'srv/b/' => undef, 'srv/c/' => undef, 'srv/d/' => undef, 'srv/e/' => undef,
        'etc/nginx/conf.d/b.conf' => "server {\n  root /srv/b\n  server_name b.test;\n}\n}\n",
        'etc/nginx/conf.d/c.conf' => "server {\n  server_name c.test;\n  root /srv/c;\n\nserver {\n server_name d.test;\n"
            . "  root /srv/d;\n}\n",
        'etc/nginx/conf.d/e.conf' => qq(server { server_name e.test;\n root /srv/e;\n index "x;\n include gone.conf;\n}\n),
        'etc/nginx/conf.d/f.conf' => \'/etc/nginx/nowhere.conf',
        'etc/nginx/conf.d/l.conf' => "init_by_lua_block {\n -- }\n local s = '}' {\n }\n}\ninclude conf.d/l.conf;\n");
    is_deeply [sort keys %$sites], [map {"$_.test"} qw(b c d e ok)],
        'all sites are found in spite of mistakes';
    is_deeply [map { $sites->{"$_.test"}{root} } qw(b c d e)], [map {"/srv/$_"} qw(b c d e)],
        'all sites have their roots in spite of mistakes';
    is_deeply $problems, [
        'error /etc/nginx/conf.d/b.conf: Line 2: "root" is not ended by ";" before line 3',
        'error /etc/nginx/conf.d/b.conf: Line 5: unexpected "}"',
        'error /etc/nginx/conf.d/c.conf: Line 1: "server" opens a block that is not closed',
        'error /etc/nginx/conf.d/e.conf: Line 3: the text after " is not ended',
        'error /etc/nginx/gone.conf: Cannot be read: No such file or directory (included by /etc/nginx/conf.d/e.conf)',
        'error /etc/nginx/conf.d/f.conf: Cannot be read: No such file or directory (included by /etc/nginx/nginx.conf)',
        'warning /etc/nginx/conf.d/l.conf: Line 6: includes /etc/nginx/conf.d/l.conf, which includes itself',
    ], 'each mistake is named with its place' or diag explain $problems;
};

test 'Directories of the system are no roots' => sub {
    my ($sites, $problems) = sites_of("server { server_name all.test; root /; }\nserver { server_name up.test;\n"
        . "root /srv/link; location /x { root /srv/x; }\n}\n", 'srv/link' => \'..', 'srv/x/' => undef);
    is_deeply [map { $sites->{$_}{roots} } qw(all.test up.test)], [[], ['/srv/x']],
        'a directory of the system is not a root of a site';
    is_deeply $problems, ['error all.test: Document root / is a directory of the system and is left out',
        'error up.test: Document root /srv/link is a directory of the system and is left out'],
            'a document root that is a directory of the system is an error';
};

test 'The directory of the main location is the document root' => sub {
    my ($sites, $problems) = sites_of(<<'END', map { ("$_/" => undef) } qw(srv/a srv/b srv/c usr/share/nginx/html));
server { server_name a.test; location / { root /srv/a; index index.html; } location = /50x.html { root /usr/share/nginx/html; } }
server { server_name b.test; location ^~ / { alias /srv/b/; } }
server { server_name both.test; root /srv/a; location /x { root /srv/c; } location / { root /srv/b; } }
server { server_name packaged.test; location / { root /usr/share/nginx/html; } }
server { server_name part.test; location /part { root /srv/c; } }
END
    my %found = map { $_ => [$sites->{$_}{root}, @{ $sites->{$_}{roots} }] } keys %$sites;
    is_deeply \%found, {
        'a.test' => [('/srv/a') x 2], 'b.test' => [('/srv/b') x 2], 'both.test' => [qw(/srv/b /srv/b /srv/c /srv/a)],
        'packaged.test' => [('/usr/share/nginx/html') x 2], 'part.test' => [undef, '/srv/c'],
    }, 'the directory of the location "/" is the document root' or diag explain \%found;
    is_deeply $problems, [], 'no problem is named';
};

test 'Blocks that are not closed or not known are named' => sub {
    my ($sites, $problems) = sites_of("upstream x {\n server 127.0.0.1:1;\nserver { server_name a.test; root /srv/a; }\n",
        'etc/nginx/conf.d/mark.conf' => "\xef\xbb\xbfserver { server_name b.test; root /srv/a; }\n",
        'etc/nginx/conf.d/wrong.conf' => "serverr { server_name c.test; root /srv/a; }\ngeo \$x { default 1; }\n",
        'srv/a/' => undef);
    is_deeply [sort keys %$sites], [qw(a.test b.test)],
        'sites in a block that is not closed and after a byte order mark are found';
    is_deeply $problems, [
        'error /etc/nginx/conf.d/mark.conf: Line 1: begins with a byte order mark',
        'error /etc/nginx/sites-enabled/sites: Line 1: "upstream" opens a block that is not closed',
        'error /etc/nginx/conf.d/wrong.conf: Line 1: the block "serverr" is not known and is left out: correct its name'
            . ' and dump again',
    ], 'each mistake and each block that is left out is named' or diag explain $problems;
};

test 'Rules of access are taken over from "http"' => sub {
    my ($sites) = sites_of(<<'END', 'srv/a/' => undef);
auth_basic "Closed"; auth_basic_user_file all; allow 10.0.0.0/8; deny all;
server { server_name a.test; root /srv/a; }
server { server_name b.test; root /srv/a; auth_basic off; deny 10.0.0.1; }
END
    is_deeply [map { $_->{rule} } @{ $sites->{'a.test'}{access} }], ['auth_basic Closed', 'allow 10.0.0.0/8', 'deny all'],
        'a server without access rules has those of "http"';
    is_deeply [map { $_->{rule} } @{ $sites->{'b.test'}{access} }], ['auth_basic off', 'deny 10.0.0.1'],
        'a server with access rules has only its own';
    is_deeply $sites->{'a.test'}{files}, ['/etc/nginx/all'],
        'the file of passwords of "http" belongs to a server that has its rules';
};

test 'A site may have several certificates' => sub {
    my ($sites) = sites_of(<<'END', 'srv/a/' => undef, 'srv/robots' => 'x', 'etc/nginx/ca.pem' => 'x');
ssl_certificate of-all.pem; ssl_certificate_key of-all.key;
server {
    listen 443 ssl; server_name a.test; root /srv/a;
    ssl_certificate rsa.pem; ssl_certificate_key rsa.key;
    ssl_certificate ec.pem; ssl_certificate_key ec.key;
    ssl_trusted_certificate ca.pem; ssl_dhparam dh.pem; ssl_password_file passwords;
    location = /robots.txt { alias /srv/robots; }
}
server { listen 443 ssl; server_name b.test; root /srv/a; }
END
    my $site = $sites->{'a.test'};
    is_deeply $site->{tls}, { certificate => '/etc/nginx/rsa.pem', key => '/etc/nginx/rsa.key' },
        'the first of several certificates is that of the site';
    is_deeply [sort @{ $site->{files} }], [sort '/srv/robots', map {"/etc/nginx/$_"} qw(rsa.pem rsa.key ec.pem ec.key
        ca.pem dh.pem passwords)], 'the site needs all certificates, what goes with them, and single files';
    is_deeply $site->{roots}, ['/srv/a'], 'single files are no roots';
    is $sites->{'b.test'}{tls}{key}, '/etc/nginx/of-all.key',
        'a server without a certificate has that of "http"';
};

test 'A block with the names of several sites is part of each' => sub {
    my ($sites, $problems) = sites_of(<<'END', map { ("srv/$_/" => undef) } qw(a b));
server { listen 80; server_name a.test b.test c.test; proxy_pass x; location / { proxy_pass http://127.0.0.1:1; } }
server { listen 443; server_name b.test; root /srv/b; return 301 https://x.test; location / { root /srv/b; } }
server { listen 444; server_name b.test; root /srv/b; }
server { listen 443; server_name c.test; location / { proxy_pass http://127.0.0.1:2; } }
server { listen 443; server_name www.a.test a.test; location / { proxy_pass http://127.0.0.1:3; } }
END
    is_deeply { map { $_ => $sites->{$_}{names} } keys %$sites },
        { 'a.test' => ['a.test'], 'b.test' => ['b.test'], 'c.test' => ['c.test'], 'www.a.test' => ['www.a.test'] },
        'names of one block are sites of their own if other blocks serve other files for them'
        or diag explain [map { $_->{names} } values %$sites];
    is_deeply [map { $_->{directive}{line} } @{ $sites->{'c.test'}{blocks} }], [4, 1],
        'the block that serves several of them is part of each';
    is_deeply [map { $_->{port} } @{ $sites->{'b.test'}{listen} }], [444, 80, 443],
        'a site has the addresses of all its blocks';
    is_deeply $sites->{'a.test'}{redirects}, [], 'a site has no redirects of blocks for other names';
};

test 'A system without nginx has no sites' => sub {
    my ($tree, $problems) = imitated('etc/passwd' => '');
    is_deeply [Linux::Nginx::sites($tree, $problems)], [], 'a system without nginx has no sites';
    is $problems->count, 0, 'a system without nginx has no problems';
    ($tree, $problems) = imitated('etc/nginx/nginx.conf/' => undef);
    is_deeply [Linux::Nginx::sites($tree, $problems)], [], 'a main file that cannot be read has no sites';
    is $problems->count('error'), 1, 'a main file that cannot be read is an error';
};

test 'Servers that forward connections are named and are no sites' => sub {
    my ($tree, $problems) = imitated('etc/nginx/nginx.conf' => <<'END', 'srv/a/' => undef);
http { server { server_name a.test; root /srv/a; } }
stream {
    upstream db { server 10.0.0.5:5432; }
    server { listen 5432; proxy_pass db; }
    server { listen 127.0.0.1:6000 udp; proxy_pass unix:/run/x; }
}
mail { server { listen 143; protocol imap; } }
events { }
END
    is_deeply [map { $_->{name} } Linux::Nginx::sites($tree, $problems)], ['a.test'],
        'a server that forwards connections is no site';
    is_deeply problem_texts($problems), [map {
        "warning /etc/nginx/nginx.conf: Line $_->[0]: the servers of the block \"$_->[1]\" (listen $_->[2]) belong to no site. They"
            . ' are described under web-configuration, and their files are in the archive of the settings: set them up on the'
            . ' new host by hand, with what stands behind them'
    } [2, 'stream', '5432, 127.0.0.1:6000'], [7, 'mail', '143']],
        'each block of servers that forward connections is named' or diag explain problem_texts($problems);
};

run_tests;
