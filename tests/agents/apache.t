# Sites of Apache on an imitated Debian host.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use DebianApache qw(sites_of);

test 'A virtual host is described with all that it has' => sub {
    my ($sites, $problems) = sites_of(<<'END', map { ("srv/$_/" => undef) } qw(a/private media));
<VirtualHost *:80>
    ServerName A.test:80
    Redirect permanent / https://a.test/
</VirtualHost>
<VirtualHost *:443 [::1]:8443>
    ServerName a.test
    ServerAlias www.a.test \
                *.a.test
    DocumentRoot "/srv/a/"
    SSLEngine on
    SSLCertificateFile /etc/ssl/a.pem
    SSLCertificateKeyFile /etc/ssl/a.key
    SSLCertificateChainFile ssl/chain.pem
    CustomLog ${APACHE_LOG_DIR}/a.log combined
    CustomLog "|/usr/bin/logger -t a" combined
    Alias /media "/srv/media"
    Alias /doc /usr/share/doc
    ScriptAlias /cgi-bin/ /usr/lib/cgi-bin/
    <Directory "/srv/a/in">
        AuthType Basic
        AuthName "Only us"
        AuthUserFile /etc/apache2/a.htpasswd
        Require valid-user
    </Directory>
    <IfModule mod_ssl.c>
        Redirect 301 /old /new
    </IfModule>
    <IfModule !mod_ssl.c>
        Redirect 301 /never /new
    </IfModule>
    <IfModule mod_absent.c>
        Redirect 301 /absent /new
    </IfModule>
    <IfVersion < 2.4>
        Redirect 301 /ancient /new
    </IfVersion>
    RewriteEngine On
    RewriteCond %{HTTP_HOST} ^www\.
    RewriteRule ^/(.*)$ https://a.test/$1 [L,R=301]
    RewriteRule ^/inner$ /elsewhere [L]
    <FilesMatch \.php$>
        SetHandler "proxy:unix:/run/php/a.sock|fcgi://localhost"
    </FilesMatch>
    php_admin_value open_basedir "/srv/a:/tmp"
    SuexecUserGroup ann ann
</VirtualHost>
END
    is_deeply [keys %$sites], ['a.test'], 'virtual hosts of the same name are one site';
    my $site = $sites->{'a.test'};
    is_deeply $site->{names}, ['a.test', 'www.a.test', '*.a.test'],
        'the site has the names of all its hosts, also those on continued lines';
    is $site->{root}, '/srv/a', 'the document root is found';
    is_deeply $site->{roots}, ['/srv/a', '/srv/media'],
        'directories of aliases are further roots, unless they are of packages';
    is_deeply $site->{listen}, [
        { address => '*', port => 443, tls => 1 }, { address => '[::1]', port => 8443, tls => 1 },
        { address => '*', port => 80, tls => 0 },
    ], 'the addresses and ports of all hosts are listed';
    is_deeply $site->{tls}, { certificate => '/etc/ssl/a.pem', key => '/etc/ssl/a.key',
        chain => '/etc/apache2/ssl/chain.pem' },
        'certificate, key and chain are found';
    is_deeply $site->{logs}, ['/var/log/apache2/a.log'],
        'the log is found by the variables of the start script';
    is_deeply [map {"$_->{code} $_->{from} $_->{to}"} @{ $site->{redirects} }],
        ['301 /old /new', '301 ^/(.*)$ https://a.test/$1', '301 / https://a.test/'],
        'the redirects whose conditions apply are listed';
    is_deeply $site->{access}, [
        { path => '/srv/a/in', rule => 'authtype Basic' }, { path => '/srv/a/in',
            rule => 'authname Only us' },
        { path => '/srv/a/in', rule => 'require valid-user' },
        { path => '/srv/a/private', rule => 'require ip 10.0.0.0/8' },
    ], 'access rules are listed, also those outside of the host' or diag explain $site->{access};
    is_deeply $site->{files}, [qw(/etc/apache2/a.htpasswd /etc/ssl/a.pem /etc/ssl/a.key /etc/apache2/ssl/chain.pem
        /etc/apache2/groups)],
        'the files that its settings name belong to the site';
    is_deeply $site->{php_addresses}, ['unix:/run/php/a.sock'],
        'the address of the program that runs PHP is found';
    is_deeply $site->{module_settings}, { open_basedir => '/srv/a:/tmp' }, 'the settings of PHP are found';
    is $site->{php_user}, 'ann', 'the account that runs scripts is found';
    is_deeply $site->{config}, ['/etc/apache2/sites-enabled/sites.conf'],
        'the file of its configuration belongs to the site';
    is_deeply $problems, [], 'no problem is named' or diag explain $problems;
};

test 'Macros and definitions are worked out' => sub {
    my ($sites, $problems) = sites_of(<<'END', map { ("srv/$_/" => undef) } qw(m1 m2 d));
Define BASE /srv
<Macro Site $name $n>
<VirtualHost *:80>
    ServerName $name
    DocumentRoot ${BASE}/$n
</VirtualHost>
</Macro>
Use Site m1.test m1
use site m2.test m2
Use Missing x
UnDefine BASE
<IfDefine !NOT_DEFINED>
<VirtualHost *:80>
    ServerName d.test
    DocumentRoot /srv/d
    ProxyPass /app http://127.0.0.1:3000/
    ProxyPass /static !
    ProxyPassMatch ^/(.*\.php)$ fcgi://127.0.0.1:9000/srv/d/$1
</VirtualHost>
</IfDefine>
<IfDefine NOT_DEFINED>
<VirtualHost *:80>
    ServerName never.test
</VirtualHost>
</IfDefine>
END
    is_deeply [sort keys %$sites], [qw(d.test m1.test m2.test)],
        'virtual hosts of macros and of definitions that are set are sites';
    is $sites->{'m2.test'}{root}, '/srv/m2', 'values of a macro and of a definition are filled in';
    is_deeply $sites->{'d.test'}{proxies}, ['http://127.0.0.1:3000/'], 'the server behind ProxyPass is found';
    is_deeply $sites->{'d.test'}{php_addresses}, ['127.0.0.1:9000'],
        'the server of PHP behind ProxyPassMatch is found';
    is_deeply $problems, ['error /etc/apache2/sites-enabled/sites.conf: Line 10: uses the macro Missing, which is not defined'],
        'the use of an unknown macro is an error' or diag explain $problems;
};

test 'What is forwarded leads to the servers behind it' => sub {
    my ($sites, $problems) = sites_of(<<'END');
<Proxy balancer://app>
    BalancerMember unix:/run/app1.sock|http://localhost/ loadfactor=2
    BalancerMember http://127.0.0.1:3001 route=b
    ProxySet lbmethod=byrequests
</Proxy>
<VirtualHost *:80>
    ServerName balanced.test
    <Proxy "balancer://php/">
        BalancerMember fcgi://127.0.0.1:9001
    </Proxy>
    BalancerMember balancer://more http://127.0.0.1:3002
    ProxyPass /app balancer://APP/x
    <Location /more>
        ProxyPass balancer://more/
    </Location>
    <FilesMatch \.php$>
        SetHandler "proxy:balancer://php"
    </FilesMatch>
    ProxyPass /none balancer://none/
</VirtualHost>
<VirtualHost *:80>
    ServerName rewritten.test
    RewriteEngine On
    RewriteRule ^/ws$ ws://127.0.0.1:3003%{REQUEST_URI} [P,L]
    RewriteRule ^/(.*)$ http://127.0.0.1:3004/$1 [NC,proxy]
    RewriteRule ^/b/ balancer://app%{REQUEST_URI} [P]
</VirtualHost>
<VirtualHost *:80>
    ServerName handled.test
    <Location />
        SetHandler proxy:unix:/run/app2.sock|http://localhost
    </Location>
</VirtualHost>
END
    is_deeply $sites->{'balanced.test'}{proxies}, ['unix:/run/app1.sock|http://localhost/', 'http://127.0.0.1:3001',
        'http://127.0.0.1:3002', 'balancer://none/'],
        'a balancer stands for its members, one without members for itself'
        or diag explain $sites->{'balanced.test'}{proxies};
    is_deeply $sites->{'balanced.test'}{php_addresses}, ['127.0.0.1:9001'],
        'a balancer for PHP stands for its members';
    is_deeply $sites->{'rewritten.test'}{proxies}, ['ws://127.0.0.1:3003/', 'http://127.0.0.1:3004/',
        'unix:/run/app1.sock|http://localhost/', 'http://127.0.0.1:3001'],
        'the servers behind rewrite rules that forward are found'
        or diag explain $sites->{'rewritten.test'};
    is_deeply $sites->{'rewritten.test'}{redirects}, [],
        'rewrite rules that forward are not listed as redirects';
    is_deeply $sites->{'handled.test'}{proxies}, ['unix:/run/app2.sock|http://localhost'],
        'the server behind a handler is found';
    is_deeply $problems, [], 'no problem is named' or diag explain $problems;
};

test 'VirtualDocumentRoot makes a site of each directory' => sub {
    my @directories = ('one', 'v/a.test/www', 'v/b.test/www', 'v/plain/www', 't/a/a.test');
    my ($sites, $problems) = sites_of(<<'END', map { ("srv/$_/" => undef) } @directories);
<VirtualHost *:80>
    ServerName one.test
    VirtualDocumentRoot /srv/v/%0/www
</VirtualHost>
<VirtualHost *:81>
    ServerName a.test
    VirtualDocumentRoot /srv/t/%1.1/%-2+.%-1
</VirtualHost>
END
    is_deeply [sort keys %$sites], [qw(a.test b.test one.test)],
        'each directory that is named like a host is a site';
    is_deeply $sites->{'a.test'}{roots}, ['/srv/v/a.test/www', '/srv/t/a/a.test'],
        'parts of its names lead to the directories of a site';
    is_deeply [map {/depends/ ? 1 : $_} @$problems], [1], 'a directory that only requests decide is a problem'
        or diag explain $problems;
};

test 'A mistake in the configuration is named and loses no site' => sub {
    my ($sites, $problems) = sites_of("<VirtualHost *:80>\nServerName ok.test\nDocumentRoot /srv/ok\n</VirtualHost>\n",
        'srv/ok/' => undef, 'srv/b/' => undef, 'srv/c/' => undef,
        'etc/apache2/sites-enabled/b.conf' => "<VirtualHost *:80>\n<Directory /x>\nServerName b.test\nDocumentRoot /srv/b\n"
            . "</VirtualHost>\n</Directory>\n)nonsense\n",
        'etc/apache2/sites-enabled/c.conf' => "<VirtualHost *:80\nServerName c.test\nDocumentRoot /srv/c\n"
            . "<VirtualHost *:80>\nServerName e.test\nDocumentRoot /srv/e\n</VirtualHost>\n<Odd>\n</Odd>\n",
        'etc/apache2/sites-enabled/f.conf' => \'/nowhere',
            'etc/apache2/sites-enabled/g.conf' => "Include gone.conf\n");
    is_deeply [sort keys %$sites], [qw(b.test c.test e.test ok.test)],
        'all sites are found in spite of mistakes';
    is_deeply $problems, [
        'error /etc/apache2/sites-enabled/b.conf: Line 2: the section <directory> is not closed',
        'error /etc/apache2/sites-enabled/b.conf: Line 6: </directory> closes nothing',
        'error /etc/apache2/sites-enabled/b.conf: Line 7: cannot be understood: )nonsense',
        'error /etc/apache2/sites-enabled/c.conf: Line 1: the section has no ">"',
        'warning /etc/apache2/sites-enabled/c.conf: Line 8: the section <odd> is not known',
        'error /etc/apache2/sites-enabled/c.conf: Line 1: the section <virtualhost> is not closed',
        'error /etc/apache2/sites-enabled/f.conf: Cannot be read: No such file or directory (included by /etc/apache2/apache2.conf)',
        'error /etc/apache2/gone.conf: Cannot be read: No such file or directory (included by /etc/apache2/sites-enabled/g.conf)',
        'warning e.test: Document root /srv/e does not exist',
    ], 'each mistake is named with its place' or diag explain $problems;
};

test 'A directory that all sites serve comes with each of them' => sub {
    my $hosts = join '', "Alias /all /srv/all\nAlias /in /srv/a/in\nAlias /empty /srv/empty\nAlias /gone /srv/gone\n",
        "<VirtualHost *>\nServerName a.test\nDocumentRoot /srv/a\n</VirtualHost>\n";
    my ($sites, $problems) = sites_of($hosts, 'srv/all/page' => 'x', 'srv/a/in/page' => 'x', 'srv/empty/' => undef,
        'usr/share/apache2/icons/page' => 'x');
    is_deeply $sites->{'a.test'}{roots}, ['/srv/a'],
        'a directory that all sites serve is not a root of a site';
    is_deeply $sites->{'a.test'}{common}, ['/srv/all'],
        'a directory with content that all sites serve comes with a site';
    is_deeply $problems, [], 'no problem is named' or diag explain $problems;
};

test 'Sections for modules and versions apply as in the server' => sub {
    my @cases = ('IfModule mod_version.c', 'IfModule log_config_module', 'IfModule !mod_ssl.c', 'IfVersion >= 2.4.6',
        'IfVersion < 2.4.6');
    my $hosts = join '', map {"<$cases[$_]>\n<VirtualHost *:80>\nServerName $_.test\nDocumentRoot /srv/a\n</VirtualHost>\n</"
        . (split ' ', $cases[$_])[0] . ">\n"} 0 .. $#cases;
    my ($sites, $problems) = sites_of($hosts, 'srv/a/' => undef);
    is_deeply [sort keys %$sites], [qw(0.test 1.test 3.test)],
        'sections for loaded and built-in modules and for this release apply, others do not';
    is_deeply $problems, [], 'no problem is named';
};

test 'What an expression leads to is named' => sub {
    my ($sites, $problems) = sites_of(<<'END', map { ("srv/$_/" => undef) } qw(a/in u/ann m/x));
<VirtualHost *:80>
    ServerName a.test
    DocumentRoot /srv/a
    AliasMatch "^/m/(.*)$" "/srv/m/$1"
    <LocationMatch "^/n/">
        ScriptAliasMatch ^/n/(.*) /srv/n/$1
    </LocationMatch>
    UserDir disabled root
    UserDir /srv/u https://elsewhere.test/
</VirtualHost>
END
    is_deeply $sites->{'a.test'}{roots}, ['/srv/a'], 'a directory that an expression leads to is not a root';
    is_deeply $problems, [
        (map {"error a.test: AliasMatch: $_; directories that an expression leads to are taken only where they lie"
            . ' in a document root: copy others by hand'} '^/m/(.*)$ leads to /srv/m/$1', '^/n/(.*) leads to /srv/n/$1'),
        'error /etc/apache2/apache2.conf: 1 directories of users served as /~user are no sites and are left out; copy'
            . ' them by hand: /srv/u/ann',
    ], 'directories behind expressions and those of users are named' or diag explain $problems;
};

test 'Hosts of one name may differ in root and certificates' => sub {
    my ($sites, $problems) = sites_of(<<'END', 'srv/robots' => 'x', map { ("srv/$_/" => undef) } qw(a b));
<VirtualHost *:80>
    ServerName a.test
    DocumentRoot /srv/a
</VirtualHost>
<VirtualHost *:443>
    ServerName a.test
    DocumentRoot /srv/b
    Alias /robots.txt /srv/robots
    Alias /icons /usr/share/apache2/icons
    SSLEngine on
    SSLCertificateFile ssl/rsa.pem
    SSLCertificateFile ssl/ec.pem
    SSLCertificateKeyFile ssl/rsa.key
    SSLCertificateKeyFile ssl/ec.key
    SSLCACertificateFile ssl/ca.pem
</VirtualHost>
<VirtualHost *:80>
    ServerName moved.test
    DocumentRoot /srv/unused
    Redirect permanent / https://moved.test/
</VirtualHost>
<VirtualHost *:443>
    ServerName moved.test
    DocumentRoot /srv/a
    SSLEngine on
</VirtualHost>
SSLCertificateFile ssl/all.pem
END
    my $site = $sites->{'a.test'};
    is_deeply $site->{roots}, ['/srv/a', '/srv/b'], 'a site has the document roots of all its hosts';
    is_deeply $sites->{'moved.test'}{roots}, ['/srv/a'],
        'the document root of a host that only redirects is left out';
    is_deeply $site->{tls}, { certificate => '/etc/apache2/ssl/rsa.pem', key => '/etc/apache2/ssl/rsa.key' },
        'the first of several certificates is that of the site';
    is_deeply [sort @{ $site->{files} }], [sort '/srv/robots', map {"/etc/apache2/$_"} 'groups',
        map {"ssl/$_"} qw(rsa.pem rsa.key ec.pem ec.key ca.pem)],
        'the site needs all certificates and keys, and single files of aliases';
    is_deeply $sites->{'moved.test'}{tls}, { map { $_ => '/etc/apache2/ssl/all.pem' } qw(certificate key) },
        'a host without a certificate has that of the whole server';
    is_deeply $problems, [], 'no problem is named';
};

test 'Settings of PHP are those of the sections that cover the document root' => sub {
    my ($sites) = sites_of(<<'END', map { ("srv/$_/" => undef) } qw(a/in b c));
php_value memory_limit 1M
php_admin_value open_basedir /srv
<Directory /home/*/public_html>
    php_admin_flag engine Off
</Directory>
<Directory /srv/a/in>
    php_value of_part 1
</Directory>
<Directory /srv/*/>
    php_value of_pattern 1
    <FilesMatch "\.ph(?:ar|p|tml)$">
        php_value of_scripts 1
    </FilesMatch>
    <Files secret.php>
        php_value of_file 1
    </Files>
</Directory>
<DirectoryMatch ^/srv/[ab]/>
    php_value of_expression 1
</DirectoryMatch>
<Location /admin>
    php_value of_location 1
</Location>
<Location />
    php_value of_all 1
</Location>
<VirtualHost *:80>
    ServerName a.test
    DocumentRoot /srv/a
    php_value open_basedir /
    php_value memory_limit 2M
    <Directory /srv>
        php_value memory_limit 3M
    </Directory>
    <If "%{HTTP_HOST} == 'x'">
        php_value of_request 1
    </If>
</VirtualHost>
<VirtualHost *:80>
    ServerName c.test
    DocumentRoot /srv/c
</VirtualHost>
END
    my %of_all = (open_basedir => '/srv', of_pattern => 1, of_scripts => 1, of_all => 1);
    is_deeply $sites->{'a.test'}{module_settings}, { %of_all, memory_limit => '3M', of_expression => 1 },
        'a site has the settings of the sections that apply to all of its directory, the last one wins'
        or diag explain $sites->{'a.test'}{module_settings};
    is_deeply $sites->{'c.test'}{module_settings}, { %of_all, memory_limit => '1M' },
        'a site has no settings of sections for other directories';
};

run_tests;
