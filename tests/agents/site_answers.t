# What the agent asks the web servers of its host for, and what it keeps of their answers: real servers, and
# some that do not answer as they should. All of it in a network of its own.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use OwnNetwork qw(192.0.2.1);
use Digest::MD5 qw(md5_hex);
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use IO::Socket::INET;
use Agent::Problems;
use Agent::Process qw(run);
use Imitated qw(problem_texts write_file);
use LocalServer qw(with_server);
use POSIX ();
use Test::More;
use Independent;
use Time::HiRes ();
use Linux::Apache;
use Linux::HttpAnswer;
use Linux::Nginx;
use Linux::Pages;
use Linux::SiteAnswers;
use Linux::Tree;
use Linux::WebServers;

my $ok = "HTTP/1.1 200 OK\r\n";
my $MOST = $Linux::HttpAnswer::MOST_BODY;
my $html = "${ok}Content-Type: text/html\r\n";

my $HOME = '<html><head><title>Garden</title></head><a href="/b.html">b</a>'
    . '<a href="http://a.test:8080/logout">o</a>' . "\n";
my $SIZE = length $HOME;

my $directory_of_servers = once(sub {
    my $dir = tempdir(CLEANUP => 1);
    chmod 0755, $dir;
    mkpath(["$dir/docs", "$dir/run"]);
    write_file("$dir/docs/index.html", $HOME);
    write_file("$dir/docs/b.html", '<title>Prices</title>');
    run([qw(openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=a.test -keyout), "$dir/key", '-out',
        "$dir/cert"])->{status} and die;
    write_file("$dir/nginx.conf", <<"END");
pid $dir/pid; error_log $dir/error.log; user root;
events { worker_connections 16; }
http {
    log_format asked '\$scheme \$ssl_server_name \$http_host \$request_method \$request_uri \$http_cookie'; access_log $dir/asked asked;
    types { text/html html; }
    client_body_temp_path $dir/t; proxy_temp_path $dir/t; fastcgi_temp_path $dir/t; uwsgi_temp_path $dir/t; scgi_temp_path $dir/t;
    server { listen 8080; server_name a.test *.a.test ~^x\\d+\\.test\$; root $dir/docs; }
    server { listen [::]:8080; listen 192.0.2.1:8443 ssl; server_name b.test; root $dir/docs; ssl_certificate cert; ssl_certificate_key key; }
    server { listen 8080; server_name old.test; return 301 http://a.test:8080\$request_uri; }
}
END
    return $dir;
});

sub sites_of {
    my ($look) = @_;
    my ($tree, $problems) = (Linux::Tree->new, Agent::Problems->new);
    my $servers = Linux::WebServers->new(tree => $tree, problems => $problems);
    return grep { $_->{name} =~ /\.test\z/ } @{ $look->($tree, $problems, servers => $servers)->{sites} };
}

# The problems; the sites get their answers.
sub asked {
    my (@sites) = @_;
    my $problems = Agent::Problems->new;
    Linux::SiteAnswers::ask(tree => Linux::Tree->new, problems => $problems, sites => \@sites);
    return problem_texts($problems);
}

sub answers_of {
    my ($site) = @_;
    return [map {
        my $answer = $_;
        join ' ', map { defined $answer->{$_} ? $answer->{$_} : '-' } qw(name address port tls path status
            location title size whole)
    } @{ $site->{answers} }];
}

# The different requests in a log, once there are as many: nginx logs one when it has answered it.
sub requests_in {
    my ($log, $count) = @_;
    my $deadline = Time::HiRes::time() + 20;
    while (1) {
        my $requests = run(['sort', '-u', $log])->{out};
        return $requests if ($requests =~ tr/\n//) >= $count || Time::HiRes::time() > $deadline;
        Time::HiRes::sleep(0.02);
    }
}

# Runs nginx as long as the block does, which gets the sites of it by their names.
sub with_nginx {
    my ($block) = @_;
    my $dir = $directory_of_servers->();
    # The log has the requests of this test only.
    write_file("$dir/asked", '');
    my @nginx = ('nginx', '-p', "$dir/", '-c', "$dir/nginx.conf", '-g', 'daemon off;');
    with_server(8080, \@nginx, sub { $block->({ map { $_->{name} => $_ } sites_of(\&Linux::Nginx::look) }) });
    return;
}

test 'Sites are asked by their names as a browser asks' => sub {
    my $dir = $directory_of_servers->();
    with_nginx(sub {
        my %site = %{ $_[0] };
        $site{'gone.test'} = site(8090, 'gone.test');
        my $problems = asked(@site{qw(a.test b.test gone.test)});
        is_deeply answers_of($site{'a.test'}), ["a.test 127.0.0.1 8080 0 / 200 - Garden $SIZE 1",
            'old.test 127.0.0.1 8080 0 / 301 http://a.test:8080/ '
            . '301 Moved Permanently 169 1', 'a.test 127.0.0.1 8080 0 /b.html 200 - Prices 21 1'],
                'a site has answers for its front page, a redirect and a page behind a link'
            or diag explain $site{'a.test'}{answers};
        is $site{'a.test'}{answers}[0]{sum}, md5_hex($HOME), 'an answer has the sum of its body';
        is_deeply answers_of($site{'b.test'}), ["b.test ::1 8080 0 / 200 - Garden $SIZE 1",
            "b.test 192.0.2.1 8443 1 / 200 - Garden $SIZE 1",
            'b.test 192.0.2.1 8443 1 /b.html 200 - Prices 21 1'],
                'a site has answers by IPv6, at an address of the host and by TLS'
                or diag explain $site{'b.test'}{answers};
        is_deeply $site{'gone.test'}{answers}, [], 'a site has no answers where nothing listens';
        is_deeply $problems, ["info gone.test: Was not asked for its pages, since no server of root's"
            . " listens at its addresses: what it answers"
            . ' cannot be compared with the new host. Dump again while it runs if you want that'],
                'a site that was not asked is named';
        is requests_in("$dir/asked", 6), <<'END', 'each request has what a browser sends';
http - a.test:8080 GET / -
http - a.test:8080 GET /b.html -
http - b.test:8080 GET / -
http - old.test:8080 GET / -
https b.test b.test:8443 GET / -
https b.test b.test:8443 GET /b.html -
END
    });
};
test 'Sites with TLS are asked by curl where there is no openssl' => sub {
    with_nginx(sub {
        my $site = $_[0]{'b.test'};
        asked($site);
        my $before = $site->{answers};
        no warnings 'redefine';
        local *Linux::Http::which = sub { return $_[0] eq 'curl' ? '/usr/bin/curl' : undef };
        is_deeply asked($site), [], 'no problem is named where curl asks in the place of openssl';
        is_deeply $site->{answers}, $before, 'curl gets the same answers as openssl';
        local *Linux::Http::which = sub { return undef };
        asked($site);
        is_deeply [map { $_->{tls} } @{ $site->{answers} }], [0, 0],
            'only addresses without TLS are asked where there is neither';
    });
};

test 'The settings of the agent say whether sites are asked' => sub {
    with_nginx(sub {
        my %site = %{ $_[0] };
        mkpath('/etc/sondrel');
        for my $case (["ask-sites no # for now\n", 0, ''], ["# all\n\nask-sites yes\n", 1, ''],
            ["ask-sites maybe\n", 0, 'Line 1 is not understood'],
            ["ask-site no\n", 0, 'Line 1 is not understood']) {
            my ($text, $expected, $problem) = @$case;
            my $lines = join ', ', split /\n+/, $text;
            write_file('/etc/sondrel/agent.conf', $text);
            delete $site{'a.test'}{answers};
            my $problems = asked($site{'a.test'});
            is @{ $site{'a.test'}{answers} || [] } ? 1 : 0, $expected,
                "whether the site is asked follows from the setting: $lines";
            like join('', @$problems),
                length $problem ? qr{\Awarning /etc/sondrel/agent.conf: \Q$problem\E} : qr/\A\z/,
                "a setting is a problem where it is not understood: $lines";
        }
        write_file('/etc/sondrel/agent.conf', "ask-sites yes\n");
        chown +(getpwnam 'nobody')[2], -1, '/etc/sondrel/agent.conf';
        delete $site{'a.test'}{answers};
        like join('', @{ asked($site{'a.test'}) }),
            qr/\Awarning .*others than root may change it; what the file may forbid is not done/,
            'a file of settings that another account may change is named';
        is $site{'a.test'}{answers}, undef, 'nothing is asked where the file of settings does not count';
        unlink '/etc/sondrel/agent.conf';
    });
};

sub with_apache {
    my ($block) = @_;
    my $dir = $directory_of_servers->();
    my $modules = '/usr/lib/apache2/modules';
    write_file("$dir/web.conf", <<"END");
ServerName main.test
Listen 192.0.2.1:8081
PidFile $dir/run/pid
ErrorLog $dir/error.log
LoadModule mpm_event_module $modules/mod_mpm_event.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule dir_module $modules/mod_dir.so
LoadModule mime_module $modules/mod_mime.so
TypesConfig /etc/mime.types
<VirtualHost *>
ServerName c.test
DocumentRoot $dir/docs
</VirtualHost>
END
    my $front = IO::Socket::INET->new(LocalAddr => '127.0.0.1', LocalPort => 8081, Listen => 5)
        or die "listen: $!";
    with_server(8081, ['/usr/sbin/apache2', '-X', '-d', $dir, '-f', 'web.conf'], sub {
        my $deadline = Time::HiRes::time() + 20;
        Time::HiRes::sleep(0.02) until IO::Socket::INET->new(PeerAddr => '192.0.2.1', PeerPort => 8081)
            || Time::HiRes::time() > $deadline;
        close $front;
        $block->();
    });
    return;
}

test 'Apache is asked where only the server says at which port' => sub {
    with_apache(sub {
        my ($site) = sites_of(\&Linux::Apache::look);
        is_deeply asked($site), [], 'no problem is named';
        is_deeply answers_of($site), ["c.test 192.0.2.1 8081 0 / 200 - Garden $SIZE 1",
            'c.test 192.0.2.1 8081 0 /b.html 200 - Prices 21 1'],
            'the site is asked at the port that only the server names' or diag explain $site->{answers};
    });
};

# --- servers that do not mean well ---

# Runs a server of an account on a port as long as the block does; `talk` gets each connection.
sub with_talker {
    my ($port, $account, $talk, $block, $address) = @_;
    my $socket;
    my ($uid) = (getpwnam $account)[2];
    pipe my $ready, my $tell or die "pipe: $!\n";
    my $pid = fork;
    die "fork: $!\n" if !defined $pid;
    if (!$pid) {
        $> = $uid;
        $socket = IO::Socket::INET->new(LocalAddr => $address || '127.0.0.1', LocalPort => $port,
            Listen => 50, ReuseAddr => 1);
        syswrite $tell, $socket ? 'x' : "$!";
        local $SIG{PIPE} = 'IGNORE';
        while (my $connection = $socket->accept) {
            $talk->($connection);
            close $connection;
        }
        POSIX::_exit(0);
    }
    sysread $ready, my ($word), 100;
    is $word, 'x', "a server that runs as $account listens";
    $block->();
    kill 'KILL', $pid;
    waitpid $pid, 0;
    return;
}

sub site {
    my ($port, $name, @more) = @_;
    return { name => $name, names => [$name], blocks => [{ names => [$name], listen => [{ address => '*',
        port => $port, tls => 0, @more }] }] };
}

sub flood {
    my ($connection, $head, $piece) = @_;
    syswrite $connection, $head or return;
    1 while syswrite $connection, $piece;
    return;
}

# Until the other side closes the connection.
sub listen_only {
    my ($connection) = @_;
    my $heard;
    1 while sysread $connection, $heard, 9999;
    return;
}

# Seconds for one request, in the tests of servers that do not answer.
my $REQUEST = 2;

for my $case (
    ['endless body', sub { flood($_[0], "$html\r\n", 'x' x 65536) }, qr/\A200 0 $MOST\z/, ''],
    ['endless header', sub { flood($_[0], $ok, "X: y\r\n" x 1000) }, qr/\Anone\z/, 'sends too long a header'],
    ['endless chunks', sub { flood($_[0], "${html}Transfer-Encoding: chunked\r\n\r\n",
        "1\r\nx\r\n" x 5000) }, qr/\A200 0 \d+\z/, ''],
    ['silence', \&listen_only, qr/\Anone\z/, 'does not answer in time'],
    ['a byte at a time', sub { my $c = shift; syswrite $c, $html; while (syswrite $c,
        'x') { Time::HiRes::sleep(0.1) } }, qr/\Anone\z/, 'does not answer in time'],
    ['nothing', sub { }, qr/\Anone\z/, '(?:says nothing|closes the connection)'],
    ['binary with NUL', sub { my $c = shift; sysread $c, my ($x), 9999; syswrite $c,
        "$html\r\n<title>a\0b\xff</title>\0" }, qr/\A200 1 \d+\z/, ''],
) {
    my ($what, $talk, $expected, $problem) = @$case;
    test "What a server sends is bounded: $what" => sub {
        local $Linux::SiteAnswers::LIMIT{request} = $REQUEST;
        my $site = site(8082, 'a.test');
        with_talker(8082, 'root', $talk, sub {
            my $begun = Time::HiRes::time();
            my $problems = asked($site);
            cmp_ok Time::HiRes::time() - $begun, '<', 10, "$what: the site is asked within a limit of time";
            my ($answer) = @{ $site->{answers} };
            like $answer ? join ' ', @$answer{qw(status whole size)} : 'none', $expected,
                "$what: what is kept of the answer is bounded";
            my $named = qr/\Awarning a.test: Asked for its pages, a.test at 127.0.0.1, port 8082, $problem.*: what it/;
            like join('', @$problems), length $problem ? $named : qr/\A\z/,
                "$what: the problem names what is wrong";
        });
    };
}

test 'A server of an ordinary account is not asked' => sub {
    with_talker(8082, 'nobody', sub { syswrite $_[0], "$html\r\n" }, sub {
        my $site = site(8082, 'a.test');
        like join('', @{ asked($site) }),
            qr/\Ainfo a.test: Was not asked for its pages, since no server of root's/,
            'a site whose server runs as an ordinary account is named as one that was not asked';
        is_deeply $site->{answers}, [], 'a site whose server runs as an ordinary account has no answers';
    });
};

test 'Other hosts and impossible names are not asked, nor is anything without time' => sub {
    with_talker(8082, 'root', sub { syswrite $_[0], "$html\r\n" }, sub {
        my $site = site(8082, 'a.test', address => '192.0.2.77');
        like join('', @{ asked($site) }), qr/\Ainfo a.test: Was not asked/,
            'a site at an address of another host is named as one that was not asked';
        $site = site(8082, "a.test\r\nX: y");
        is_deeply asked($site), [], 'a name that cannot be one of a host is no problem';
        is_deeply $site->{answers}, [], 'a name that cannot be one of a host has no answers';
        local $Linux::SiteAnswers::LIMIT{all} = 0;
        is_deeply asked(map { site(8082, "$_.test") } 1 .. 5),
            ['info web servers: After 0 seconds 5 sites were not asked, or not for all of their pages,'
            . ' so that their answers cannot be compared with the new host: 1.test, 2.test, 3.test and 2'
                . ' more'],
                'sites that there was no time for are named';
    }, '0.0.0.0');
};

test 'A site with many names that do not answer takes the time of one site' => sub {
    local $Linux::SiteAnswers::LIMIT{request} = $REQUEST;
    with_talker(8082, 'root', \&listen_only, sub {
        local $Linux::SiteAnswers::LIMIT{site} = 3;
        my $site = site(8082, 'a.test');
        $site->{names} = $site->{blocks}[0]{names} = [map {"$_.test"} 1 .. 100];
        my $begun = Time::HiRes::time();
        like join('', @{ asked($site) }), qr/does not answer in time.* and 97 more/,
            'names of a site that do not answer are named together';
        cmp_ok Time::HiRes::time() - $begun, '<', 10, 'all names of a site take no longer than one site may';
    });
};

run_tests;
