# What the main server of Apache serves, on imitated systems.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Imitated qw(imitated problem_texts);
use Linux::Apache;

test 'The main server serves the ports that are left' => sub {
    my ($tree, $problems) = imitated(
        'etc/httpd/conf/httpd.conf' => <<'END',
ServerRoot "/etc/httpd"
Listen 80
Include conf.modules.d/*.conf
ServerName main.test
DocumentRoot "/var/www/html"
<IfModule alias_module>
    ScriptAlias /cgi-bin/ "/var/www/cgi-bin/"
</IfModule>
IncludeOptional conf.d/*.conf
END
        'etc/httpd/modules' => \'../../usr/lib64/httpd/modules',
        'etc/httpd/conf.modules.d/00-base.conf' => "LoadModule alias_module modules/mod_alias.so\n",
        'etc/httpd/conf.modules.d/10-php.conf' => "<IfModule prefork.c>\nLoadModule php7_module modules/libphp7.so\n</IfModule>\n",
        'etc/httpd/conf.d/ssl.conf' => "Listen 443 https\n<VirtualHost _default_:443>\nSSLEngine on\n"
            . "SSLCertificateFile /etc/pki/tls/certs/localhost.crt\n</VirtualHost>\n",
        'etc/httpd/conf.d/userdir.conf' => "<IfModule !absent.c>\nUserDir public_html\n</IfModule>\n",
        'etc/httpd/conf.d/vhosts' => \'/srv/vhosts',
            'etc/httpd/conf.d/all.conf' => "Include conf.d/vhosts/\n",
        'srv/vhosts/deep/v.conf' => "<VirtualHost *:8080>\nServerName v.test\nDocumentRoot /srv/v\n</VirtualHost>\n",
        'srv/v/' => undef, 'var/www/html/' => undef, 'var/www/cgi-bin/' => undef,
            'home/ann/public_html/' => undef,
    );
    my %sites = map { $_->{name} => $_ } Linux::Apache::sites($tree, $problems);
    is_deeply [sort keys %sites], [qw(default main.test v.test)],
        'the main server, a host without a name and one with a name are sites';
    is $sites{'main.test'}{root}, '/var/www/html', 'the main server has its own document root';
    is_deeply $sites{'main.test'}{roots}, ['/var/www/html', '/var/www/cgi-bin'],
        'the directory of its script alias is a further root of the main server';
    is $sites{default}{root}, '/var/www/html',
        'a host without a document root takes over that of the main server';
    is $sites{'v.test'}{root}, '/srv/v', 'an included directory is read with the directories below it';
    is $sites{'v.test'}{php_module}, 1, 'PHP as a module of the server is found';
    is_deeply problem_texts($problems), ['error /etc/httpd/conf/httpd.conf: 1 directories of users served as /~user'
        . ' are no sites and are left out; copy them by hand: /home/ann/public_html'],
        'directories of users are named'
        or diag explain problem_texts($problems);
};

test 'Relative paths start at ServerRoot' => sub {
    my ($tree, $problems) = imitated(
        'etc/apache2/apache2.conf' => "ServerRoot \"/opt/web\"\nListen 80\nDocumentRoot docs\nInclude hosts.conf\n",
        'opt/web/hosts.conf' => "<VirtualHost _default_:80>\nServerName r.test\nDocumentRoot r\n</VirtualHost>\n",
        'opt/web/docs/' => undef, 'opt/web/r/' => undef,
    );
    my @sites = Linux::Apache::sites($tree, $problems);
    is_deeply [map {"$_->{name} $_->{root} $_->{listen}[0]{address}"} @sites], ['r.test /opt/web/r *'],
        'relative paths start at ServerRoot, and _default_ takes what comes to any address' or diag explain \@sites;
    is_deeply problem_texts($problems), [], 'no problem is named';
};

test 'A system without Apache has no sites' => sub {
    my ($tree, $problems) = imitated('etc/passwd' => '');
    is_deeply [Linux::Apache::sites($tree, $problems)], [], 'a system without Apache has no sites';
    is $problems->count, 0, 'a system without Apache has no problems';
};

run_tests;
