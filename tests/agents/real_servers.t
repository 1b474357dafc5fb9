# What is found in a configuration is what the real server makes of it: every name
# is asked for a file that names the directory that it came from.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use IO::Socket::INET;
use Agent::Problems;
use Agent::Process qw(run which);
use Imitated qw(problem_texts write_file);
use LocalServer qw(free_port with_server);
use Linux::Apache;
use Linux::Nginx;
use Linux::Php;
use Linux::Tree;

# A directory for a server with marked document roots below it.
sub directory_with {
    my @roots = @_;
    my $dir = tempdir(CLEANUP => 1);
    chmod 0755, $dir;
    for my $root (map {"$dir/$_"} @roots) {
        mkpath($root);
        write_file("$root/marker", $root);
    }
    return $dir;
}

# The body that a server gives to a host for /marker, or its redirect.
sub ask {
    my ($port, $host) = @_;
    my $socket = IO::Socket::INET->new(PeerAddr => '127.0.0.1', PeerPort => $port, Timeout => 10) or return;
    print $socket "GET /marker HTTP/1.0\r\nHost: $host\r\n\r\n";
    my $answer = do { local $/; <$socket> };
    return $1 if $answer =~ /^Location: (\S+)\r$/m;
    return $answer =~ m{\AHTTP/1.. 200 .*?\r\n\r\n(.*)}s ? $1 : substr $answer, 0, 12;
}

# Compares what sites() says with what the server does, for every plain name.
sub agrees {
    my ($port, $sites, $others) = @_;
    my %expected = %$others;
    for my $site (@$sites) {
        my @names = grep { !/[*~]/ } @{ $site->{names} };
        $expected{$_} = $site->{root} for grep { !exists $expected{$_} } @names;
    }
    is_deeply { map { $_ => ask($port, $_) } keys %expected }, \%expected,
        'each name has the directory that the server serves for it'
        or diag explain [map { [$_->{name}, $_->{names}, $_->{root}] } @$sites];
    return;
}

sub quoted {
    my ($text) = @_;
    $text =~ s/(["\\])/\\$1/g;
    return qq("$text");
}

# A configuration made of nothing but the directives that were read.
sub written_for_nginx {
    my @directives = grep { $_->{name} ne 'included file' } @_;
    return join '', map {
        my $line = join ' ', ($_->{name} =~ /\A\w+\z/ ? $_->{name} : quoted($_->{name})), map { quoted($_) } @{ $_->{args} };
        $_->{block} ? "$line {\n" . written_for_nginx(@{ $_->{block} }) . "}\n" : "$line;\n"
    } @directives;
}

sub written_for_apache {
    my @directives = grep { $_->{name} ne 'included file' } @_;
    return join '', map {
        my ($name, $raw) = @$_{qw(name raw)};
        $_->{block} ? "<$name $raw>\n" . written_for_apache(@{ $_->{block} }) . "</$name>\n" : "$name $raw\n"
    } @directives;
}

test 'The sites of nginx are those that it serves' => sub {
    my $port = free_port();
    my $dir = directory_with(qw(a b-inner c/h1.test c/h2.test set/x/y mapped wild regex mass/m1.test mass/m2.test
        quoted/in default location alias));
    my @logs = map {"$_ off;"} 'access_log';
    write_file("$dir/nginx.conf", <<"END");
daemon off; pid $dir/pid; error_log $dir/error.log;
user root;
events {}
http {
    @logs
    client_body_temp_path $dir/t; proxy_temp_path $dir/t; fastcgi_temp_path $dir/t; uwsgi_temp_path $dir/t;
    scgi_temp_path $dir/t;
    server_names_hash_bucket_size 128;
    root $dir/default;
    map \$host \$mapped { hostnames; default none; m.test mapped; *.map.test wild; ~^r\\d\\.test\$ regex; }
    include sites/*.conf; # comes first
    server { listen 127.0.0.1:$port default_server; }
}
END
    mkpath("$dir/sites");
    write_file("$dir/sites/a.conf", <<"END");
server{listen 127.0.0.1:$port;server_name a.test www.a.test;root $dir/a;}
server { listen 127.0.0.1:$port; server_name "b.test"; set \$inner b-inner;
    include sites/snippet; }
server {
    listen 127.0.0.1:$port; # a comment; with } marks {
    server_name h1.test
        h2.test;
    root "$dir/c/\${host}";
}
server { listen 127.0.0.1:$port; server_name set.test; set \$one x; set \$both \$one/y; root $dir/set/\$both; }
server { listen 127.0.0.1:$port; server_name m.test; root $dir/\$mapped; }
server { listen 127.0.0.1:$port; server_name x.map.test; root $dir/\$mapped; }
server { listen 127.0.0.1:$port; server_name r7.test; root $dir/\$mapped; }
server { listen 127.0.0.1:$port; server_name *.test; root $dir/mass/\$host; }
server { listen 127.0.0.1:$port; server_name inherits.test; }
server { listen 127.0.0.1:$port; server_name old.test; return 301 http://a.test\$request_uri; }
server { listen 127.0.0.1:$port; server_name l.test; root $dir; location / { root $dir/location; } }
server { listen 127.0.0.1:$port; server_name s.test; location ^~ / { alias $dir/alias/; } }
server { listen 127.0.0.1:$port; server_name e.test; location ~ ^/mark[e]r\$ { return 200 'a "b" \\\\ \\d it\\'s'; }
    if (\$http_x ~ "^a b{2}\$") { return 403; } location /x { root $dir/a; } }
server { listen 127.0.0.1:$port; server_name q.test; location ~ "^/(?!x{2,3}).*" { root '$dir/quoted/in'; } root $dir; }
END
    write_file("$dir/sites/snippet", "root $dir/\$inner;\n");
    my $problems = Agent::Problems->new;
    my $found = Linux::Nginx::look(Linux::Tree->new, $problems, instances => [{ main => "$dir/nginx.conf", prefix => $dir }]);
    my @sites = @{ $found->{sites} };
    is_deeply [sort map { $_->{name} } @sites], [sort "default-$port",
        map {"$_.test"} qw(a b h1 set m x.map r7 inherits q l s e m1 m2)],
        'all sites of nginx are found' or diag explain [map { $_->{name} } @sites];
    is_deeply problem_texts($problems), [], 'no problem is named';
    write_file("$dir/again.conf", written_for_nginx(@{ $found->{configurations}[0]{directives} }));
    for my $main ('nginx.conf', 'again.conf') {
        with_server($port, ['nginx', '-p', $dir, '-c', "$dir/$main"], sub {
            agrees($port, \@sites, { 'h2.test' => "$dir/c/h2.test", 'old.test' => 'http://a.test/marker',
                'q.test' => "$dir/quoted/in", 'M1.TEST' => "$dir/mass/m1.test", 'e.test' => 'a "b" \\ \\d it\'s' });
        });
    }
};

test 'The sites of Apache are those that it serves' => sub {
    my $port = free_port();
    my $dir = directory_with('with blank',
        qw(a b main v/v1.test v/v2.test w/x/x.w.test conditional macro/one));
    my $modules = '/usr/lib/apache2/modules';
    my $loaded = join '', map {"LoadModule ${_}_module $modules/mod_$_.so\n"}
        qw(mpm_event authz_core vhost_alias macro alias rewrite);
    write_file("$dir/apache2.conf", <<"END");
ServerRoot "$dir"
ServerName main.test
Listen 127.0.0.1:$port
PidFile $dir/pid
ErrorLog $dir/error.log
Define TOP $dir
$loaded
User nobody
Group nogroup
DocumentRoot \${TOP}/main
Include hosts
IncludeOptional none/*.conf
END
    mkpath("$dir/hosts/deep");
    write_file("$dir/hosts/a.conf", <<"END");
<virtualhost 127.0.0.1:$port>
  SERVERNAME a.test
  ServerAlias www.a.test \\
     other.a.test
  DocumentRoot "\${TOP}/a"
</virtualhost>
<VirtualHost 127.0.0.1:$port>
  ServerName b.test:80
  DocumentRoot b/
  <IfModule mod_absent.c>
    DocumentRoot \${TOP}/main
  </IfModule>
</VirtualHost>
<VirtualHost 127.0.0.1:$port>
  ServerName blank.test
  DocumentRoot '$dir/with blank'
</VirtualHost>
<VirtualHost 127.0.0.1:$port>
  ServerName nothing.test
</VirtualHost>
<VirtualHost 127.0.0.1:$port>
  ServerName old.test
  Redirect permanent / http://a.test/
</VirtualHost>
<VirtualHost 127.0.0.1:$port>
  ServerName x.test
  RewriteEngine On
  RewriteCond "%{HTTP_HOST}" "^x\\.test\$"
  RewriteRule ^/m(a)r\\Ser\$ "http://a.test/x\\\\y'z" [R,NE]
</VirtualHost>
<VirtualHost 127.0.0.1:$port>
  ServerName x.w.test
  VirtualDocumentRoot \${TOP}/w/%1/%0
</VirtualHost>
<IfModule !mod_absent.c>
<IfModule vhost_alias_module>
<IfDefine TOP>
<VirtualHost 127.0.0.1:$port>
  ServerName conditional.test
  <IfVersion >= 2.4>
    DocumentRoot \${TOP}/a
  </IfVersion>
  DocumentRoot \${TOP}/conditional
</VirtualHost>
</IfDefine>
</IfModule>
</IfModule>
END
    write_file("$dir/hosts/deep/m.conf", <<"END");
<Macro Site \$name \$names \$dir>
  <VirtualHost 127.0.0.1:$port>
    ServerName \$name
    ServerAlias \$names
    DocumentRoot \${TOP}/\$dir/one
  </VirtualHost>
</Macro>
Use Site macro.test www.macro.test macro
<VirtualHost 127.0.0.1:$port>
  ServerName v.invalid
  ServerAlias *.test
  VirtualDocumentRoot \${TOP}/v/%0
</VirtualHost>
END
    my $problems = Agent::Problems->new;
    my $found = Linux::Apache::look(Linux::Tree->new, $problems, instances => [{ main => "$dir/apache2.conf" }]);
    my @sites = @{ $found->{sites} };
    is_deeply [sort map { $_->{name} } @sites],
        [sort 'v.invalid', map {"$_.test"} qw(a b blank nothing x.w conditional macro v1 v2)],
        'all sites of Apache are found' or diag explain [map { $_->{name} } @sites];
    is_deeply [grep { !/depends on the request/ } @{ problem_texts($problems) }], [], 'no problem is named';
    my $apache = which('apache2');
    write_file("$dir/again.conf", written_for_apache(@{ $found->{configurations}[0]{directives} }));
    for my $main ('apache2.conf', 'again.conf') {
        with_server($port, [$apache, '-X', '-f', "$dir/$main"], sub {
            agrees($port, [grep { $_->{name} ne 'v.invalid' } @sites], { 'old.test' => 'http://a.test/marker',
                'x.test' => q(http://a.test/x\\y'z) });
        });
    }
};

# The settings that PHP itself sees, asked from a script in the document root.
sub php_settings {
    my ($port, $host, $dir, @names) = @_;
    write_file("$dir/$host/ask.php", '<?php foreach (explode(",", $_GET["n"]) as $n) { echo $n, "=", ini_get($n), "\n"; }');
    my $socket = IO::Socket::INET->new(PeerAddr => '127.0.0.1', PeerPort => $port, Timeout => 10) or return;
    print $socket 'GET /ask.php?n=', join(',', @names), " HTTP/1.0\r\nHost: $host\r\n\r\n";
    my $answer = do { local $/; <$socket> };
    $answer =~ s/\A.*?\r\n\r\n//s;
    return { map { /\A(.*?)=(.*)\z/ ? ($1 => $2) : () } split /\n/, $answer };
}

# Compares the settings that the agent has found for a site with those of PHP.
sub settings_agree {
    my ($port, $dir, @sites) = @_;
    for my $site (grep { $_->{php} } @sites) {
        my $settings = { %{ $site->{php}{settings} } };
        s/\Aoff\z/0/ for values %$settings;
        is_deeply php_settings($port, $site->{name}, $dir, keys %$settings), $settings,
            "PHP of $site->{name} has the settings that are found" or diag explain $site->{php};
    }
    return;
}

test 'Apache runs PHP with the settings that a site has' => sub {
    my $port = free_port();
    my $dir = directory_with(qw(a.test b.test home/ann/public_html));
    my ($php) = glob '/etc/apache2/mods-available/php*.load';
    (my $of_php = $php) =~ s/\.load\z/.conf/;
    my $modules = '/usr/lib/apache2/modules';
    write_file("$dir/apache2.conf", join '', <<"END", <<'END', <<"END");
ServerRoot $dir
ServerName main.test
Listen 127.0.0.1:$port
PidFile $dir/pid
ErrorLog $dir/error.log
User nobody
Group nogroup
LoadModule mpm_prefork_module $modules/mod_mpm_prefork.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule mime_module $modules/mod_mime.so
LoadModule userdir_module $modules/mod_userdir.so
TypesConfig /dev/null
Include $php
Include $of_php
Define TOP $dir
Define PORT $port
END
php_admin_value memory_limit 131M
php_value default_charset latin1
<Directory ${TOP}>
    AllowOverride All
    php_value user_agent of-directory
</Directory>
<Directory ${TOP}/b.test/in>
    php_value user_agent of-part
</Directory>
<Directory ${TOP}/home/*/public_html>
    php_admin_flag engine Off
</Directory>
<DirectoryMatch "/a\.test">
    php_value auto_detect_line_endings 0
    php_value arg_separator.output of-expression
</DirectoryMatch>
<VirtualHost 127.0.0.1:${PORT}>
    ServerName a.test
    DocumentRoot ${TOP}/a.test
    php_value memory_limit 1M
    php_value user_agent of-host
    php_value default_charset koi8-r
    <FilesMatch "\.php$">
        php_value sendmail_from of-scripts
    </FilesMatch>
    <Files "other.php">
        php_value mail.log of-others
    </Files>
</VirtualHost>
END
<VirtualHost 127.0.0.1:$port>
    ServerName b.test
    DocumentRoot $dir/b.test
</VirtualHost>
END
    write_file("$dir/b.test/.htaccess", "php_value user_agent of-directory\nphp_value memory_limit 2M\n");
    my $problems = Agent::Problems->new;
    my $found = Linux::Apache::look(Linux::Tree->new, $problems, instances => [{ main => "$dir/apache2.conf" }]);
    my @sites = @{ $found->{sites} };
    my $reader = Linux::Php->new(Linux::Tree->new, $problems);
    $_->{php} = $reader->of_site($_) for @sites;
    is_deeply [map { "$_->{name} $_->{php}{handler}" } @sites], ['a.test module', 'b.test module'],
        'PHP of both sites is a module of the server';
    with_server($port, [which('apache2'), '-X', '-f', "$dir/apache2.conf"], sub {
        settings_agree($port, $dir, @sites);
    });
    is_deeply problem_texts($problems), [], 'no problem is named' or diag explain problem_texts($problems);
};

test 'PHP-FPM runs with the settings that a site has' => sub {
    my ($port, $php_port) = (free_port(), free_port());
    my $dir = directory_with(qw(c.test));
    my ($program) = glob '/usr/sbin/php-fpm?.?';
    write_file("$dir/fpm.conf", <<"END");
[global]
error_log = $dir/fpm.log
daemonize = no
[c]
listen = 127.0.0.1:$php_port
user = nobody
pm = static
pm.max_children = 1
php_admin_value[memory_limit] = 131M
php_value[user_agent] = of-pool
php_value[default_charset] = latin1
php_admin_flag[html_errors] = off
END
    write_file("$dir/c.test/.user.ini", "user_agent = of-directory\nmemory_limit = 2M\nsendmail_from = of-directory\n"
        . "error_prepend_string = of-directory\nerror_append_string = of-directory\n");
    write_file("$dir/nginx.conf", <<"END");
daemon off; pid $dir/pid; error_log $dir/error.log; user root;
events {}
http {
    access_log off;
    client_body_temp_path $dir/t; proxy_temp_path $dir/t; fastcgi_temp_path $dir/t; uwsgi_temp_path $dir/t;
    scgi_temp_path $dir/t;
    server { listen 127.0.0.1:$port; server_name c.test; root $dir/c.test;
        location ~ \.php\$ {
            fastcgi_pass 127.0.0.1:$php_port;
            fastcgi_param SCRIPT_FILENAME \$document_root\$fastcgi_script_name;
            fastcgi_param DOCUMENT_ROOT \$document_root;
            fastcgi_param QUERY_STRING \$query_string;
            fastcgi_param REQUEST_METHOD \$request_method;
            fastcgi_param PHP_VALUE "default_charset=koi8-r
memory_limit=3M
error_prepend_string=of-request";
            fastcgi_param PHP_ADMIN_VALUE "sendmail_from=of-request";
        }
    }
}
END
    my $problems = Agent::Problems->new;
    my $found = Linux::Nginx::look(Linux::Tree->new, $problems, instances => [{ main => "$dir/nginx.conf", prefix => $dir }]);
    my ($site) = @{ $found->{sites} };
    my $reader = Linux::Php->new(Linux::Tree->new, $problems);
    $reader->read_pool_file("$dir/fpm.conf", '8.2');
    $reader->index_pools;
    $site->{php} = $reader->of_site($site);
    is $site->{php}{pool}, 'c', 'the pool of the site is found';
    with_server($php_port, [$program, '-y', "$dir/fpm.conf"], sub {
        with_server($port, ['nginx', '-p', $dir, '-c', "$dir/nginx.conf"], sub {
            settings_agree($port, $dir, $site);
        });
    });
};

run_tests;
