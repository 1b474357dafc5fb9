# What the agent asks the web servers of its host for, and what it keeps of their answers: real servers, and
# some that do anything but answer. All of it in a network of its own.
use strict;
use warnings;

BEGIN {
    if (!$ENV{SITE_ANSWERS_NETWORK}) {
        local $ENV{SITE_ANSWERS_NETWORK} = 1;
        exec 'unshare', '--net', 'sh', '-c',
            'ip link set lo up && ip address add 192.0.2.1/32 dev lo && exec "$@"',
            'sh', $^X, (map {"-I$_"} @INC), $0 or die "unshare: $!\n";
    }
}
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
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
use Time::HiRes ();
use Linux::Apache;
use Linux::HttpAnswer;
use Linux::Nginx;
use Linux::Pages;
use Linux::SiteAnswers;
use Linux::Tree;
use Linux::WebServers;

# --- an answer, in pieces ---

sub read_as {
    my ($size, $bytes, $ended) = @_;
    my $answer = Linux::HttpAnswer->new;
    my $enough;
    while (length $bytes && !$enough) { $enough = $answer->take(substr $bytes, 0, $size, '') }
    my ($result, $why) = $answer->result(!$enough && (defined $ended ? $ended : 1));
    return $result ? join ' ', @$result{qw(status whole)}, length $result->{body},
        md5_hex($result->{body}) : $why;
}

my $MOST = $Linux::HttpAnswer::MOST_BODY;
my $ok = "HTTP/1.1 200 OK\r\n";
sub told { my ($whole, $body) = @_; return join ' ', 200, $whole, length $body, md5_hex($body) }
for my $case (
    ['a body of a length', "${ok}Content-Length: 5\r\n\r\nhello, and more", told(1, 'hello')],
    ['one to the end', "HTTP/1.0 200\r\n\r\nhello", told(1, 'hello')],
    ['one in chunks', "${ok}Transfer-Encoding: chunked\r\n\r\n3;x=y\r\nhel\r\n002\r\nlo\r\n0\r\nTrailer: x\r\n\r\n", told(1, 'hello')],
    ['a word before it', "HTTP/1.1 103 Early\r\nLink: x\r\n\r\n${ok}Content-Length: 1\r\n\r\nx",
        told(1, 'x')],
    ['lines that end otherwise', "HTTP/1.1 200 OK\nContent-Length: 1\n\nx", told(1, 'x')],
    ['none at all', "HTTP/1.1 204 No\r\n\r\n", '204 1 0 ' . md5_hex('')],
    ['one that is cut', "${ok}Content-Length: 9\r\n\r\nhello", told(0, 'hello')],
    ['chunks that are cut', "${ok}Transfer-Encoding: chunked\r\n\r\n9\r\nhello", told(0, 'hello')],
    ['a chunk of no size', "${ok}Transfer-Encoding: chunked\r\n\r\n3\r\nhel\r\nzz\r\nlo", told(0, 'hel')],
    ['a chunk that is longer than it says', "${ok}Transfer-Encoding: chunked\r\n\r\n3\r\nhello",
        told(0, 'hel')],
    ['a chunk larger than all', "${ok}Transfer-Encoding: chunked\r\n\r\nfffffffffff\r\nhello",
        told(0, 'hello')],
    ['bytes of all kinds', "${ok}\0: x\r\nX\0Y: z\r\nContent-Length: 3\r\n\r\n\0\xff\n", told(1, "\0\xff\n")],
    ['another protocol', "220 mail.a.test ESMTP\r\n", 'sends no HTTP'],
    ['binary', "\x15\x03\x01\x00\x02\x02F", 'sends no HTTP'],
    ['a header without an end', $ok . "X: y\r\n" x 20, 'sends no whole header'],
    ['too long a header', $ok . 'X: y' x 20_000, 'sends too long a header'],
) {
    my ($what, $bytes, $expected) = @$case;
    is read_as($_, $bytes), $expected, "$what, $_ at a time" for 1, 65536;
}
is read_as(65536, "$ok\r\n" . 'x' x (2 * $MOST)), told(0, 'x' x $MOST),
    'of a long body the beginning is kept';
is read_as(65536, "${ok}Content-Length: " . 2 * $MOST . "\r\n\r\n" . 'x' x (2 * $MOST)),
    told(0, 'x' x $MOST), 'whatever its length';
is read_as(65536, "$ok\r\n" . 'x' x $MOST), told(1, 'x' x $MOST), 'one of just that length is whole';
is read_as(65536, "$ok\r\nhel", 0), told(0, 'hel'), 'one that did not come to its end is not';
{
    my $answer = Linux::HttpAnswer->new;
    my ($sent, $enough) = (0, 0);
    $enough = $answer->take("HTTP/1.1 100 Go on\r\nX: " . 'y' x 1000 . "\r\n\r\n") while !$enough && $sent++ < 20_000;
    cmp_ok $sent, '<', 20_000, 'words before an answer have an end';
}

# --- titles and links ---

sub page { return { status => 200, type => 'text/html; charset=utf-8', body => $_[0] } }
is Linux::Pages::title(page($_->[0])), $_->[1], 'title: ' . substr $_->[0], 0, 30 for
    ["<html><TITLE id=x>\n A  &amp;\tB\n</title >", 'A &amp; B'], ['<title></title>', ''], ['no', undef],
    ["<title>M\xc3\xbcller \xff</title>", "M\xc3\xbcller ?"], ['<title>' . "\xc3\xbc" x 300 . '</title>',
        "\xc3\xbc" x 200];
is Linux::Pages::title({ type => 'image/png', body => '<title>x</title>' }), undef, 'an image has none';

sub links { return [Linux::Pages::links(page($_[0]), { name => 'a.test', port => $_[1] || 80, tls => $_[2] },
    5)] }
is_deeply links(join '', map {qq(<p><a class="x" href="$_">x</a>)} 'b.html#part', '/c?page=2&amp;x=1',
    './d/../e/',
    'http://A.test/f', '//a.test:80/g', '/h'), [qw(/b.html /c?page=2&x=1 /e/ /f /g)],
        'links of the site, five at most';
is_deeply links(qq(<a href='/one'><a href=/two><A HREF="/m\xc3\xbcll r"><area href=/no>)),
    [qw(/one /two /m%C3%BCll%20r)], 'in all spellings';
is_deeply links(qq(<a href="$_">)), [], "not followed: $_" for 'http://b.test/', '//b.test/x',
    'https://a.test/x', 'http://a.test:81/x',
    'http://u@a.test/x', 'mailto:a@a.test', 'javascript:x()', '/', '#x', '', "/a\nb", "/a\0b", '/a\\b',
        '/' . 'x' x 1500,
    '/logout', '/wp-login.php?action=logout', '/index.php?title=Special:UserLogout', '/log-out',
        '/items/5/delete', '/a?delete=5',
    '/a?x=1&do=it', '/userDelete', '/%64elete/1', '/%2564elete/1', '/cron.php', '/cart?add-to-cart=5',
        '/unsubscribe?u=1', '/a?_wpnonce=1', '/x/remove_all';
is_deeply links("<a $_>"), [], "not followed: $_" for 'href="/a" data-method="delete"',
    'rel="nofollow" href="/a"', 'name=x', 'data-href="/a"';
is_deeply links('<base href="http://b.test/"><a href="x">'), [],
    'a page that says where its links begin is left alone';
is_deeply links('<a href="https://a.test:8443/x"><a href="/y"><a href="https://a.test/z">', 8443, 1), ['/x',
    '/y'], 'a port must be the same';
{
    my $begun = Time::HiRes::time();
    is_deeply links('<a ' x 350_000), [], 'a page of half links';
    Linux::Pages::title(page('<title>' x 150_000));
    cmp_ok Time::HiRes::time() - $begun, '<', 10, 'takes no long time';
}

# --- real servers ---

my $folder = tempdir(CLEANUP => 1);
chmod 0755, $folder;
mkpath(["$folder/docs", "$folder/run"]);
my $home = '<html><head><title>Garden</title></head><a href="/b.html">b</a><a href="http://a.test:8080/logout">o</a>' . "\n";
write_file("$folder/docs/index.html", $home);
write_file("$folder/docs/b.html", '<title>Prices</title>');
run([qw(openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=a.test -keyout), "$folder/key", '-out',
    "$folder/cert"])->{status} and die;
write_file("$folder/nginx.conf", <<"END");
pid $folder/pid; error_log $folder/error.log; user root;
events { worker_connections 16; }
http {
    log_format asked '\$scheme \$ssl_server_name \$http_host \$request_method \$request_uri \$http_cookie'; access_log $folder/asked asked;
    types { text/html html; }
    client_body_temp_path $folder/t; proxy_temp_path $folder/t; fastcgi_temp_path $folder/t; uwsgi_temp_path $folder/t; scgi_temp_path $folder/t;
    server { listen 8080; server_name a.test *.a.test ~^x\\d+\\.test\$; root $folder/docs; }
    server { listen [::]:8080; listen 192.0.2.1:8443 ssl; server_name b.test; root $folder/docs; ssl_certificate cert; ssl_certificate_key key; }
    server { listen 8080; server_name old.test; return 301 http://a.test:8080\$request_uri; }
}
END

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
        join ' ', map { defined $answer->{$_} ? $answer->{$_} : '-' } qw(name address port tls path status location title size whole)
    } @{ $site->{answers} }];
}

my $size = length $home;
my @nginx = ('nginx', '-p', "$folder/", '-c', "$folder/nginx.conf", '-g', 'daemon off;');
with_server(8080, \@nginx, sub {
    my %site = map { $_->{name} => $_ } sites_of(\&Linux::Nginx::look);
    $site{'gone.test'} = site(8090, 'gone.test');
    my $problems = asked(@site{qw(a.test b.test gone.test)});
    is_deeply answers_of($site{'a.test'}), ["a.test 127.0.0.1 8080 0 / 200 - Garden $size 1",
        'old.test 127.0.0.1 8080 0 / 301 http://a.test:8080/ '
        . '301 Moved Permanently 169 1', 'a.test 127.0.0.1 8080 0 /b.html 200 - Prices 21 1'],
            'names, a redirect and a page of a site'
        or diag explain $site{'a.test'}{answers};
    is $site{'a.test'}{answers}[0]{sum}, md5_hex($home), 'with their sums';
    is_deeply answers_of($site{'b.test'}), ["b.test ::1 8080 0 / 200 - Garden $size 1",
        "b.test 192.0.2.1 8443 1 / 200 - Garden $size 1",
        'b.test 192.0.2.1 8443 1 /b.html 200 - Prices 21 1'],
            'by IPv6, at an address of the host and by TLS' or diag explain $site{'b.test'}{answers};
    is_deeply $site{'gone.test'}{answers}, [], 'where nothing listens nothing is asked';
    is_deeply $problems, ["info gone.test: Was not asked for its pages, since no server of root's listens at its addresses: what it answers"
        . ' cannot be compared with the new host. Dump again while it runs if you want that'],
            'which is told';
    is run(['sort', '-u', "$folder/asked"])->{out}, <<'END', 'what was sent is what a browser sends';
http - a.test:8080 GET / -
http - a.test:8080 GET /b.html -
http - b.test:8080 GET / -
http - old.test:8080 GET / -
https b.test b.test:8443 GET / -
https b.test b.test:8443 GET /b.html -
END

    {
        no warnings 'redefine';
        local *Linux::Http::which = sub { return $_[0] eq 'curl' ? '/usr/bin/curl' : undef };
        my $before = $site{'b.test'}{answers};
        is_deeply asked($site{'b.test'}), [], 'by curl where there is no openssl';
        is_deeply $site{'b.test'}{answers}, $before, 'the same';
        local *Linux::Http::which = sub { return undef };
        asked($site{'b.test'});
        is_deeply [map { $_->{tls} } @{ $site{'b.test'}{answers} }], [0, 0],
            'and without TLS where there is neither';
    }

    mkpath('/etc/sondrel');
    for my $case (["ask-sites no # for now\n", 0, ''], ["# all\n\nask-sites yes\n", 1, ''],
        ["ask-sites maybe\n", 0, 'Line 1 is not understood'],
        ["ask-site no\n", 0, 'Line 1 is not understood']) {
        my ($text, $expected, $problem) = @$case;
        write_file('/etc/sondrel/agent.conf', $text);
        delete $site{'a.test'}{answers};
        my $problems = asked($site{'a.test'});
        is @{ $site{'a.test'}{answers} || [] } ? 1 : 0, $expected, "$text is followed";
        like join('', @$problems),
            length $problem ? qr{\Awarning /etc/sondrel/agent.conf: \Q$problem\E} : qr/\A\z/,
            'with the right word about it';
    }
    write_file('/etc/sondrel/agent.conf', "ask-sites yes\n");
    chown +(getpwnam 'nobody')[2], -1, '/etc/sondrel/agent.conf';
    delete $site{'a.test'}{answers};
    like join('', @{ asked($site{'a.test'}) }),
        qr/\Awarning .*others than root may change it; what the file may forbid is not done/,
        'a file of another account does not count';
    is $site{'a.test'}{answers}, undef, 'and nothing is asked';
    unlink '/etc/sondrel/agent.conf';
});

my $modules = '/usr/lib/apache2/modules';
write_file("$folder/web.conf", <<"END");
ServerName main.test
Listen 192.0.2.1:8081
PidFile $folder/run/pid
ErrorLog $folder/error.log
LoadModule mpm_event_module $modules/mod_mpm_event.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule dir_module $modules/mod_dir.so
LoadModule mime_module $modules/mod_mime.so
TypesConfig /etc/mime.types
<VirtualHost *>
ServerName c.test
DocumentRoot $folder/docs
</VirtualHost>
END
{
    my $front = IO::Socket::INET->new(LocalAddr => '127.0.0.1', LocalPort => 8081,
        Listen => 5) or die "listen: $!";
    with_server(8081, ['/usr/sbin/apache2', '-X', '-d', $folder, '-f', 'web.conf'], sub {
        my $deadline = Time::HiRes::time() + 20;
        Time::HiRes::sleep(0.02) until IO::Socket::INET->new(PeerAddr => '192.0.2.1',
            PeerPort => 8081) || Time::HiRes::time() > $deadline;
        close $front;
        my ($site) = sites_of(\&Linux::Apache::look);
        is_deeply asked($site), [], 'Apache answers';
        is_deeply answers_of($site), ["c.test 192.0.2.1 8081 0 / 200 - Garden $size 1",
            'c.test 192.0.2.1 8081 0 /b.html 200 - Prices 21 1'],
            'also where only the server says at which port' or diag explain $site->{answers};
    });
}

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
    is $word, 'x', "a server of $account listens";
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

# Until the other side goes away.
sub listen_only {
    my ($connection) = @_;
    my $heard;
    1 while sysread $connection, $heard, 9999;
    return;
}

local $Linux::SiteAnswers::LIMIT{request} = 2;
my $html = "${ok}Content-Type: text/html\r\n";
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
    my $site = site(8082, 'a.test');
    with_talker(8082, 'root', $talk, sub {
        my $begun = Time::HiRes::time();
        my $problems = asked($site);
        cmp_ok Time::HiRes::time() - $begun, '<', 10, "$what: asked within a limit";
        my ($answer) = @{ $site->{answers} };
        like $answer ? join ' ', @$answer{qw(status whole size)} : 'none', $expected,
            'what is kept of it is bounded';
        like join('', @$problems),
            length $problem ? qr/\Awarning a.test: Asked for its pages, a.test at 127.0.0.1, port 8082, $problem.*: what it/
            : qr/\A\z/, 'and what is wrong is told';
    });
}

with_talker(8082, 'nobody', sub { syswrite $_[0], "$html\r\n" }, sub {
    my $site = site(8082, 'a.test');
    like join('', @{ asked($site) }),
        qr/\Ainfo a.test: Was not asked for its pages, since no server of root's/,
        'a server of an ordinary account is not asked';
    is_deeply $site->{answers}, [], 'and has no say';
});
with_talker(8082, 'root', sub { syswrite $_[0], "$html\r\n" }, sub {
    my $site = site(8082, 'a.test', address => '192.0.2.77');
    like join('', @{ asked($site) }), qr/\Ainfo a.test: Was not asked/, 'no address of another host is asked';
    $site = site(8082, "a.test\r\nX: y");
    is_deeply asked($site), [], 'a name that is none is not asked for';
    is_deeply $site->{answers}, [], 'and is sent to nobody';
    local $Linux::SiteAnswers::LIMIT{all} = 0;
    is_deeply asked(map { site(8082, "$_.test") } 1 .. 5),
        ['info web servers: After 0 seconds 5 sites were not asked, or not for all of their pages,'
        . ' so that their answers cannot be compared with the new host: 1.test, 2.test, 3.test and 2 more'],
            'what there was no time for is told';
}, '0.0.0.0');
with_talker(8082, 'root', \&listen_only, sub {
    local $Linux::SiteAnswers::LIMIT{site} = 3;
    my $site = site(8082, 'a.test');
    $site->{names} = $site->{blocks}[0]{names} = [map {"$_.test"} 1 .. 100];
    my $begun = Time::HiRes::time();
    like join('', @{ asked($site) }), qr/does not answer in time.* and 97 more/,
        'a site with many names that do not answer';
    cmp_ok Time::HiRes::time() - $begun, '<', 10, 'takes the time of one site';
});

done_testing;
