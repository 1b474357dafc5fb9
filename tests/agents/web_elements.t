# The blocks of web servers in the document of a dump: exact, with all that they use.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Process qw(run);
use Agent::Xml qw(element document);
use Imitated qw(imitated problem_texts);
use Linux::Sites;
use Linux::WebElements;

my $document;

# The elements of the configurations and sites of a tree, kept for found().
sub described {
    my ($tree, $problems) = imitated('etc/passwd' => "root:x:0:0::/root:/bin/sh\n", @_);
    my $web = Linux::Sites::look($tree, $problems);
    $document = document(element('web', [],
        (map { Linux::WebElements::configuration($_) } @{ $web->{configurations} }),
        (map { element('site', [name => $_->{name}], Linux::WebElements::blocks($_)) } @{ $web->{sites} })));
    return ($web, problem_texts($problems));
}

sub found {
    my ($xpath) = @_;
    my $asked = run(['xmllint', '--xpath', $xpath, '-'], stdin => $document);
    chomp $asked->{out};
    return $asked->{status} ? "none: $asked->{err}" : $asked->{out};
}

# The definitions that an element uses, each with its first argument.
sub uses_of {
    my ($element) = @_;
    my @ids = split ' ', found("string($element/\@uses)");
    return join ' ', map { found(qq{string(//directive[\@id="$_"]/\@name)}) . '=' . found(
        qq{string(//directive[\@id="$_"]/arg[1])}) } @ids;
}

test 'The configuration of nginx is in the document as it is in force' => sub {
    my ($web, $problems) = described(
        'etc/nginx/nginx.conf' => <<'END',
user www-data;
events { }
http {
    log_format main '$remote_addr "$request"';
    log_format of_a 'a $mapped';
    access_log /var/log/nginx/access.log main;
    gzip on;
    include conf.d/*.conf;
    include sites/*;
}
END
        'etc/nginx/conf.d/maps.conf' => <<'END',
map $source $mapped { default 0; "~^a b" 1; }
map $http_x $source { default ""; }
map $http_y $unused { default 1; }
split_clients $remote_addr $variant { 50% one; * two; }
END
        'etc/nginx/conf.d/zones.conf' => <<'END',
limit_req_zone $binary_remote_addr zone=logins:10m rate=1r/s;
limit_conn_zone $http_y zone=others:10m;
proxy_cache_path /var/cache/a levels=1:2 keys_zone=of_cache:10m;
upstream app { server 127.0.0.1:3000; keepalive 4; }
upstream other { server 127.0.0.1:3001; }
END
        'etc/nginx/sites/a' => join("\xE9", split /LATIN/, <<'END'),
server {
    server_name a.test;
    root /srv/a;
    access_log /var/log/nginx/a.log of_a;
    location ~ "^/(?<x>\d{2})\.html$" { add_header X "a \"b\" \\ $variant"; return 200 'it"s\ a\t'; }
    location /login { limit_req zone=logins burst=5; proxy_cache of_cache; proxy_pass http://app/x; }
    if ($http_cookie ~* "a b") { return 403; }
    content_by_lua_block {
        ngx.say("}") -- }
        local x = [[ } ]] --[=[ } ]=]
    }
    add_header Latin "50% cafLATIN";
    location /empty { }
}
END
        'etc/nginx/sites/b' => "server { server_name b.test; root /srv/b; include snippet; }\n",
        'etc/nginx/snippet' => "index index.html;\n", 'srv/a/' => undef, 'srv/b/' => undef,
    );
    is_deeply $problems, [], 'no problem is named' or diag explain $problems;
    is uses_of('//site[@name="a.test"]/block'),
        'log_format=of_a map=$source map=$http_x split_clients=$remote_addr'
        . ' limit_req_zone=$binary_remote_addr proxy_cache_path=/var/cache/a upstream=app',
        'a server block comes with what it uses of "http", also through others';
    is uses_of('//site[@name="b.test"]/block'), '',
        'a server block that uses nothing of "http" comes with nothing of it';
    is uses_of('//web-configuration'), 'log_format=main',
        'the configuration of all sites names the definition that it uses';
    my ($a) = grep { $_->{name} eq 'a.test' } @{ $web->{sites} };
    is_deeply $a->{config}, [map {"/etc/nginx/$_"} qw(sites/a conf.d/maps.conf conf.d/zones.conf)],
        'the files of definitions go with the site, but not the main file of the host';

    my $in_a = '//site[@name="a.test"]//directive';
    is found(qq{string($in_a\[\@name="location"][1]/arg[2])}), '^/(?<x>\d{2})\.html$',
        'an expression is kept as it is';
    is found(qq{string(($in_a\[\@name="add_header"])[1]/arg[2])}), 'a "b" \ $variant', 'quotes are taken away';
    is found(qq{string($in_a\[\@name="return"]/arg[2])}), "it\"s\\ a\t",
        'backslashes are taken away where the server does it';
    is found(qq{string(($in_a\[\@name="add_header"])[2]/arg[2][\@encoded="percent"])}), '50%25 caf%E9',
        'bytes that XML does not allow are written as numbers';
    is found(qq{string($in_a\[\@name="content_by_lua_block"]/text)}),
        qq(\n        ngx.say("}") -- }\n        local x = [[ } ]] --[=[ } ]=]\n    ),
            'a block in another language is kept as it is';
    is found(qq{string($in_a\[\@name="if"]/arg[3])}), 'a b', 'conditions have their arguments';
    is found(qq{string($in_a\[\@name="if"]/directive/\@name)}), 'return', 'conditions have their directives';
    is found(qq{string($in_a\[\@name="location" and arg="/empty"]/\@block)}), 'yes',
        'an empty block is described as a block';
    is found(qq{string($in_a\[\@name="server"]/\@file)}), '/etc/nginx/sites/a', 'a block has its file';
    is found(qq{string($in_a\[\@name="location" and arg="/login"]/\@line)}), 6, 'a block has its line';
    is found('string(//site[@name="b.test"]//directive[@name="index"]/@file)'), '/etc/nginx/snippet',
        'a directive that is included has the file that it is from';
    is found('count(//directive[@name="include" or @name="included file"])'), 0, 'no inclusion is left';
    is found('count(//web-configuration//directive[@name="server" and @block])'), 0,
        'the rest of the configuration is without the blocks of sites';
    is found('string(//web-configuration//directive[@name="gzip"]/arg)'), 'on',
        'the rest of the configuration has its own directives';
};

my $modules = join '', map {"LoadModule ${_}_module /usr/lib/apache2/modules/mod_$_.so\n"} qw(macro ssl);
test 'The configuration of Apache is in the document as it is in force' => sub {
    my ($web, $problems) = described(
        'etc/apache2/apache2.conf' => $modules . <<'END',
Listen 80
LogFormat "%h \"%r\"" short
LogFormat "%v" unused
Define BASE /srv
<Directory />
    Require all denied
</Directory>
<Directory ${BASE}/a>
    Require all granted
    AllowOverride All
</Directory>
<Directory ${BASE}/ab>
    Require all granted
</Directory>
<Directory /home/*/public_html>
    Require all granted
</Directory>
<Directory /srv/*/*>
    Options None
</Directory>
<DirectoryMatch "/\.git">
    Require all denied
</DirectoryMatch>
<Proxy balancer://pool>
    BalancerMember http://127.0.0.1:3000
</Proxy>
Include more.conf
Include sites/
END
        'etc/apache2/more.conf' => "RewriteMap upper int:toupper\nExtFilterDefine gone cmd=x\n",
        'etc/apache2/sites/a' => <<'END',
<Macro Site $name $root>
<VirtualHost *:80>
    ServerName $name
    DocumentRoot "${BASE}/$root"
    CustomLog ${BASE}/logs/$root.log short
    <IfModule ssl_module>
        Header set X "a \"b\" c\d"
    </IfModule>
    <If "%{HTTP_HOST} == 'x' && -z reqenv('Y')">
        RewriteRule ^/a\ b$ ${upper:$1} [R,L]
    </If>
    ProxyPass /app balancer://pool/app
    <Location "/empty">
    </Location>
</VirtualHost>
</Macro>
Use Site a.test a
END
        'srv/a/' => undef);
    is_deeply $problems, [], 'no problem is named' or diag explain $problems;
    is uses_of('//site[@name="a.test"]/block'),
        'logformat=%h "%r" proxy=balancer://pool rewritemap=upper directory=/ directory=/srv/a'
        . ' directory=/srv/*/* directorymatch=/\.git', 'a virtual host comes with what it uses, and the sections for its directories'
        or diag uses_of('//site[@name="a.test"]/block');
    my ($a) = grep { $_->{name} eq 'a.test' } @{ $web->{sites} };
    is_deeply $a->{config}, [map {"/etc/apache2/$_"} qw(sites/a more.conf)],
        'the files of what a site uses go with the site';
    my $in_a = '//site[@name="a.test"]//directive';
    is found(qq{string($in_a\[\@name="servername"]/arg)}), 'a.test', 'macros are filled in';
    is found(qq{string($in_a\[\@name="documentroot"]/raw)}), '"/srv/a"',
        'definitions are filled in, and quotes are kept';
    is found(qq{string($in_a\[\@name="header"]/raw)}), 'set X "a \"b\" c\d"',
        'a line is kept as it was written';
    is found(qq{string($in_a\[\@name="header"]/arg[3])}), 'a "b" c\d',
        'the arguments of a line are those of the server';
    is found(qq{string($in_a\[\@name="if"]/raw)}), q{"%{HTTP_HOST} == 'x' && -z reqenv('Y')"},
        'a condition that a request decides is kept as it is';
    is found(qq{string($in_a\[\@name="rewriterule"]/arg[1])}), '^/a\ b$', 'an expression keeps its blanks';
    is found(qq{count($in_a\[\@name="ifmodule" or \@name="use"])}), 0,
        'sections and macros that the start decides are worked out';
    is found(qq{string($in_a\[\@name="location"]/\@block)}), 'yes',
        'an empty section is described as a section';
    is found('count(//web-configuration//directive[@name="virtualhost" or @name="macro"])'), 0,
        'the rest of the configuration is without virtual hosts';
    is found('string(//web-configuration/directive[@name="listen"]/arg)'), 80,
        'the rest of the configuration has its own directives';
};

run_tests;
