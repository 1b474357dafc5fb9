# The web servers that run: what they were started with counts, their own answers are used,
# and those that the agent cannot read are named. All of it in a network of its own, where
# no other test's servers are seen.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use OwnNetwork;
use Test::More;
use Independent;
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use IO::Socket::INET;
use Agent::Problems;
use Agent::Process qw(run which);
use Imitated qw(imitated problem_texts write_file);
use LocalServer qw(with_server);
use Linux::Apache;
use Linux::Nginx;
use Linux::Php;
use Linux::Tree;
use Linux::WebServers;

# What is found of a server, and the problems of it.
sub looked {
    my ($look) = @_;
    my ($tree, $problems) = (Linux::Tree->new, Agent::Problems->new);
    my $found = $look->($tree, $problems, servers => Linux::WebServers->new(tree => $tree,
        problems => $problems));
    return ($found, problem_texts($problems));
}

sub unread {
    my ($tree, $problems) = (Linux::Tree->new, Agent::Problems->new);
    Linux::WebServers->new(tree => $tree, problems => $problems)->note_unread;
    return join "\n", @{ problem_texts($problems) };
}

# A new directory with the settings of an nginx and its site.
sub laid_out {
    my $dir = tempdir(CLEANUP => 1);
    chmod 0755, $dir;
    mkpath(["$dir/docs", "$dir/more", "$dir/run"]);
    write_file("$dir/docs/marker", 'x');

    write_file("$dir/nginx.conf", <<"END");
pid $dir/pid; error_log $dir/error.log; user root;
events { worker_connections 16; }
http {
    access_log off; client_body_temp_path t; proxy_temp_path t; fastcgi_temp_path t; uwsgi_temp_path t; scgi_temp_path t;
    include more/*.conf;
}
END
    write_file("$dir/more/a.conf", "server { listen 127.0.0.1:8080; server_name a.test; root docs; }\n");
    return $dir;
}

test 'An nginx that runs is read with what it was started with' => sub {
    my $dir = laid_out();
    with_server(8080, ['nginx', '-p', "$dir/", '-c', "$dir/nginx.conf", '-g', 'daemon off;'], sub {
        my ($found, $problems) = looked(\&Linux::Nginx::look);
        my ($site) = grep { $_->{name} eq 'a.test' } @{ $found->{sites} };
        is $site && $site->{root}, "$dir/docs",
            'a server that runs is read with the files and paths it was started with';
        is $found->{configurations}[0]{file}, "$dir/nginx.conf",
            'the configuration that the server was started with is the first one';
        is_deeply [grep {/\Q$dir\E/} @$problems], [], 'no problem is named' or diag explain $problems;
        is unread(), '', 'a server that is read is not named';

        no warnings qw(redefine once);
        local *Linux::NginxConfig::matching = sub { return };
        (undef, $problems) = looked(\&Linux::Nginx::look);
        is_deeply [grep {m{/more/a.conf}} @$problems],
            ["error $dir/more/a.conf: nginx says that it reads this file, to"
            . ' which no inclusion has led the agent: look whether sites in it are missing, and move them by hand'],
            'a file that only the server knows is named' or diag explain $problems;
    });
};

test 'The files of nginx are read where it does not answer' => sub {
    my $dir = laid_out();
    with_server(8080, ['nginx', '-p', "$dir/", '-c', "$dir/nginx.conf", '-g', 'daemon off;'], sub {
        write_file("$dir/more/b.conf", "server { server_name b.test; root docs; wrong; }\n");
        my ($found, $problems) = looked(\&Linux::Nginx::look);
        is_deeply [map { $_->{name} } grep { $_->{name} =~ /test/ } @{ $found->{sites} }],
            [qw(a.test b.test)],
            'files are read where the server does not answer';
        like join("\n", @$problems),
            qr{^warning \Q$dir\E/nginx.conf: nginx runs, but would not start with its files.*: unknown directive "wrong" in },
            'the reason why nginx would not start is named';
    });
    unlink "$dir/more/b.conf";
};

my $modules = '/usr/lib/apache2/modules';

sub apache_in {
    my ($dir) = @_;
    write_file("$dir/web.conf", <<"END");
ServerName main.test
Listen 127.0.0.1:8081
PidFile $dir/run/pid
ErrorLog $dir/error.log
LoadModule mpm_event_module $modules/mod_mpm_event.so
LoadModule authz_core_module $modules/mod_authz_core.so
<IfModule mod_unixd.c>
<IfDefine ASKED>
Include more/*.vhost
</IfDefine>
</IfModule>
END
    write_file("$dir/more/a.vhost",
        "<VirtualHost *:8081>\nServerName a.test\nDocumentRoot docs\n</VirtualHost>\n");
    return ('/usr/sbin/apache2', '-X', '-d', $dir, '-f', 'web.conf', '-D', 'ASKED');
}

test 'An Apache that runs is read with what it was started with' => sub {
    my $dir = laid_out();
    my @apache = apache_in($dir);
    with_server(8081, \@apache, sub {
        my ($found, $problems) = looked(\&Linux::Apache::look);
        my ($site) = grep { $_->{name} eq 'a.test' } @{ $found->{sites} };
        is $site && $site->{root}, "$dir/docs",
            'Apache is read with what it was started with, definitions too';
        my %module = map { $_->{name} => $_->{file} } @{ $found->{configurations}[0]{modules} };
        is_deeply [@module{qw(unixd_module mpm_event_module)}], [undef, "$modules/mod_mpm_event.so"],
            'the modules of Apache are listed, with those that are built in' or diag explain \%module;
        ok exists $module{unixd_module}, 'a module that is built in is listed';
        is_deeply [grep {/\Q$dir\E/} @$problems], [], 'no problem is named' or diag explain $problems;

        no warnings qw(redefine once);
        local *Linux::ApacheConfig::matching = sub { return };
        (undef, $problems) = looked(\&Linux::Apache::look);
        like join("\n", @$problems),
            qr{^error \Q$dir\E/more/a.vhost: Apache says that it reads this file}m,
            'a file that only the server knows is named';
    });
};

test 'The files of Apache are read where it does not answer' => sub {
    my $dir = laid_out();
    my @apache = apache_in($dir);
    with_server(8081, \@apache, sub {
        write_file("$dir/more/b.vhost", "Wrong\n");
        my ($found, $problems) = looked(\&Linux::Apache::look);
        ok((grep { $_->{name} eq 'a.test' } @{ $found->{sites} }),
            'files are read where Apache does not answer');
        like join("\n", @$problems),
            qr{^warning \Q$dir\E/web.conf: Apache runs, but would not start with its files.*b\.vhost.*'Wrong'},
            'the reason why Apache would not start is named' or diag explain $problems;
    });
    unlink "$dir/more/b.vhost";
};

sub pool_in {
    my ($dir) = @_;
    my $fpm = "$dir/fpm.conf";
    write_file($fpm, "[global]\nerror_log = $dir/fpm.log\ndaemonize = no\ninclude = $dir/pool?.conf\n");
    write_file("$dir/pool1.conf",
        "[one]\nlisten = 127.0.0.1:9000\nuser = nobody\npm = static\npm.max_children = 1\n"
        . "env[PLACE] = 'north; west'\ninclude = $dir/of-all\n");
    write_file("$dir/of-all", "php_admin_value[memory_limit] = 3M\n");
    my ($program) = glob '/usr/sbin/php-fpm?.?';
    my ($version) = $program =~ /([\d.]+)\z/;
    my @fpm = ($program, '-y', $fpm);
    my $of_site = sub {
        my ($tree, $problems) = (Linux::Tree->new, Agent::Problems->new);
        my $servers = Linux::WebServers->new(tree => $tree, problems => $problems);
        my $php = Linux::Php->new($tree, $problems, $servers);
        return ($php->of_site({ php_addresses => ['localhost:9000'], php_settings => {},
            php_admin => {} }),
            [grep {/\Q$dir\E/} @{ problem_texts($problems) }]);
    };
    return ($fpm, \@fpm, $of_site, $version);
}

test 'A pool is found by what its process manager was started with' => sub {
    my $dir = laid_out();
    my (undef, $fpm, $of_site, $version) = pool_in($dir);
    with_server(9000, $fpm, sub {
        my ($php, $problems) = $of_site->();
        is_deeply [@$php{qw(pool pool_user version pool_file)}],
            ['one', 'nobody', $version, "$dir/pool1.conf"],
            'a pool is found by the file that its process manager was started with' or diag explain $php;
        is_deeply $php->{settings}, { memory_limit => '3M' }, 'a pool has its settings';
        is_deeply $php->{env}, { PLACE => 'north; west' }, 'a pool has its environment';
        ok((grep { $_ eq 'opcache' } @{ $php->{extensions} })
            && (grep { $_ eq 'cgi-fcgi' } @{ $php->{extensions} }),
            'extensions are those that the program names') or diag explain $php->{extensions};
        is_deeply $problems, [], 'no problem is named' or diag explain $problems;

        no warnings qw(redefine once);
        local *Linux::Php::read_pool_file = sub { return };
        ($php) = $of_site->();
        is_deeply [@$php{qw(pool pool_user settings env)}],
            ['one', 'nobody', { memory_limit => '3M' }, { PLACE => 'north; west' }],
            'a pool that is in no file is found by the process manager' or diag explain $php;
    });
};

test 'The files of pools are read where the process manager does not answer' => sub {
    my $dir = laid_out();
    my ($fpm_file, $fpm, $of_site) = pool_in($dir);
    with_server(9000, $fpm, sub {
        write_file("$dir/of-all", "wrong = 1\n");
        my ($php, $problems) = $of_site->();
        is $php->{pool}, 'one', 'files are read where the process manager does not answer';
        like "@$problems", qr{\Awarning \Q$fpm_file\E: PHP-FPM runs, but would not start with its files.*'wrong'},
            'the reason why PHP-FPM would not start is named';
    });
};

# Another program with the name of the server: the agent looks at which program runs and listens.
my @LISTENS = ('-MIO::Socket::INET', '-e', 'my $s = IO::Socket::INET->new(LocalAddr => "127.0.0.1",'
    . ' LocalPort => shift, ReuseAddr => 1, Listen => 5) or die; 1 while $s->accept');

sub lighttpd_in {
    my ($dir) = @_;
    run(['cp', $^X, "$dir/lighttpd"]);
    return "$dir/lighttpd";
}

test 'A web server that is not read is an error' => sub {
    my $lighttpd = lighttpd_in(laid_out());
    with_server(80, [$lighttpd, @LISTENS, 80], sub {
        is unread(), "error lighttpd: Runs (process $_[0]) and listens on port 80, but is not read by the agent: its sites are"
            . ' in no archive. Move its configuration and its files by hand',
            'a web server at port 80 that is not read is an error';
    });
    with_server(8080, [$lighttpd, @LISTENS, 8080], sub {
        like unread(), qr{\Aerror lighttpd: Runs \(process $_[0]\), but is not read},
            'a web server at another port that is not read is an error';
    });
    with_server(443, [$^X, @LISTENS, 443], sub {
        like unread(), qr/\Aerror perl[\d.]*: Runs \(process $_[0]\) and listens on port 443, but is no web server that the agent reads/,
            'any program at port 443 that is not read is an error';
    });
};

test 'A program of an account does not count as the web server' => sub {
    my $dir = laid_out();
    my $own = "$dir/own";
    mkpath($own);
    run(['cp', which('nginx'), "$own/nginx"]);
    run(['chown', '-R', 'nobody', $own]);
    my @nginx = ("$own/nginx", '-p', "$dir/", '-c', "$dir/nginx.conf", '-g', 'daemon off;');
    with_server(8080, \@nginx, sub {
        my ($found) = looked(\&Linux::Nginx::look);
        ok !(grep { $_->{name} eq 'a.test' } @{ $found->{sites} }),
            "an account's own program is not used";
        like unread(), qr{\Aerror nginx: Runs \(process $_[0]\), but is a program of an account other than root: its sites},
            "an account's own program is an error";
    });
};

test 'A web server that another account has started is not used' => sub {
    my $dir = laid_out();
    my $own = "$dir/of-nobody";
    mkpath("$own/docs");
    write_file("$own/nginx.conf",
        "error_log stderr; pid $own/pid; events {}\nhttp { access_log off; client_body_temp_path t;\n"
        . "proxy_temp_path t; fastcgi_temp_path t; uwsgi_temp_path t; scgi_temp_path t;\n"
        . "server { listen 127.0.0.1:8080; server_name n.test; root docs; } }\n");
    run(['chown', '-R', '65534:65534', $own]);
    my @nobody = qw(setpriv --reuid=65534 --regid=65534 --clear-groups);
    my @nginx = (@nobody, which('nginx'), '-p', "$own/", '-c', "$own/nginx.conf", '-g', 'daemon off;');
    with_server(8080, \@nginx, sub {
        my ($found) = looked(\&Linux::Nginx::look);
        ok !(grep { $_->{name} eq 'n.test' } @{ $found->{sites} }),
            'a server that another account has started is not used';
        like unread(), qr{\Aerror nginx: Runs \(process $_[0]\), but was started by an account other than root: its sites},
            'a web server that another account has started is an error';
    });
};

test 'A web server that is only installed is named' => sub {
    my ($tree, $problems) = imitated('usr/sbin/lighttpd' => '', 'etc/lighttpd/lighttpd.conf' => '',
        'etc/caddy/x' => '',
        'usr/bin/caddy/' => undef);
    Linux::WebServers->new(tree => $tree, problems => $problems)->note_unread;
    is_deeply problem_texts($problems),
        ['error lighttpd: Is installed (/usr/sbin/lighttpd) with a configuration in'
        . ' /etc/lighttpd, but is not read by the agent: if it serves sites, its sites are in no'
            . ' archive. Move its'
        . ' configuration and its files by hand'],
        'a web server that is installed with a configuration is an error';
};

run_tests;
