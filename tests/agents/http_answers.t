# How an answer of a web server is read, and which titles and links its pages have.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Digest::MD5 qw(md5_hex);
use Test::More;
use Independent;
use Time::HiRes ();
use Linux::HttpAnswer;
use Linux::Pages;

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

test 'An answer is read in pieces of any size' => sub {
    for my $case (
        ['a body with a length', "${ok}Content-Length: 5\r\n\r\nhello, and more", told(1, 'hello')],
        ['a body that ends with the connection', "HTTP/1.0 200\r\n\r\nhello", told(1, 'hello')],
        ['a body in chunks',
            "${ok}Transfer-Encoding: chunked\r\n\r\n3;x=y\r\nhel\r\n002\r\nlo\r\n0\r\nTrailer: x\r\n\r\n",
            told(1, 'hello')],
        ['an interim answer before the final one',
            "HTTP/1.1 103 Early\r\nLink: x\r\n\r\n${ok}Content-Length: 1\r\n\r\nx",
            told(1, 'x')],
        ['lines that end without a carriage return', "HTTP/1.1 200 OK\nContent-Length: 1\n\nx", told(1, 'x')],
        ['an answer without a body', "HTTP/1.1 204 No\r\n\r\n", '204 1 0 ' . md5_hex('')],
        ['a body that is cut off', "${ok}Content-Length: 9\r\n\r\nhello", told(0, 'hello')],
        ['chunks that are cut off', "${ok}Transfer-Encoding: chunked\r\n\r\n9\r\nhello", told(0, 'hello')],
        ['a chunk whose size is no number',
            "${ok}Transfer-Encoding: chunked\r\n\r\n3\r\nhel\r\nzz\r\nlo",
            told(0, 'hel')],
        ['a chunk that is longer than it says', "${ok}Transfer-Encoding: chunked\r\n\r\n3\r\nhello",
            told(0, 'hel')],
        ['a chunk larger than any answer', "${ok}Transfer-Encoding: chunked\r\n\r\nfffffffffff\r\nhello",
            told(0, 'hello')],
        ['bytes of all kinds', "${ok}\0: x\r\nX\0Y: z\r\nContent-Length: 3\r\n\r\n\0\xff\n",
            told(1, "\0\xff\n")],
        ['another protocol', "220 mail.a.test ESMTP\r\n", 'sends no HTTP'],
        ['binary data', "\x15\x03\x01\x00\x02\x02F", 'sends no HTTP'],
        ['a header without an end', $ok . "X: y\r\n" x 20, 'sends no whole header'],
        ['too long a header', $ok . 'X: y' x 20_000, 'sends too long a header'],
    ) {
        my ($what, $bytes, $expected) = @$case;
        is read_as($_, $bytes), $expected, "$what is read in pieces of $_ bytes" for 1, 65536;
    }
    is read_as(65536, "$ok\r\n" . 'x' x (2 * $MOST)), told(0, 'x' x $MOST),
        'the beginning of a long body without a length is kept';
    is read_as(65536, "${ok}Content-Length: " . 2 * $MOST . "\r\n\r\n" . 'x' x (2 * $MOST)),
        told(0, 'x' x $MOST), 'the beginning of a long body with a length is kept';
    is read_as(65536, "$ok\r\n" . 'x' x $MOST), told(1, 'x' x $MOST),
        'a body of just the greatest length is whole';
    is read_as(65536, "$ok\r\nhel", 0), told(0, 'hel'), 'a body whose end has not come is not whole';
    {
        my $answer = Linux::HttpAnswer->new;
        my ($sent, $enough) = (0, 0);
        $enough = $answer->take("HTTP/1.1 100 Go on\r\nX: " . 'y' x 1000 . "\r\n\r\n") while !$enough
            && $sent++ < 20_000;
        cmp_ok $sent, '<', 20_000, 'interim answers without an end are given up';
    }
};

# --- titles and links ---

sub page { return { status => 200, type => 'text/html; charset=utf-8', body => $_[0] } }

test 'The title of a page is known' => sub {
    is Linux::Pages::title(page($_->[0])), $_->[1],
        'the title is that of the page: ' . substr $_->[0], 0, 30 for
        ["<html><TITLE id=x>\n A  &amp;\tB\n</title >", 'A &amp; B'], ['<title></title>', ''], ['no', undef],
        ["<title>M\xc3\xbcller \xff</title>", "M\xc3\xbcller ?"], ['<title>' . "\xc3\xbc" x 300 . '</title>',
            "\xc3\xbc" x 200];
    is Linux::Pages::title({ type => 'image/png', body => '<title>x</title>' }), undef,
        'an image has no title';
};

sub links {
    return [Linux::Pages::links(page($_[0]), { name => 'a.test', port => $_[1] || 80, tls => $_[2] }, 5)];
}

test 'Links of the site are followed and none that may act' => sub {
    is_deeply links(join '', map {qq(<p><a class="x" href="$_">x</a>)} 'b.html#part', '/c?page=2&amp;x=1',
        './d/../e/',
        'http://A.test/f', '//a.test:80/g', '/h'), [qw(/b.html /c?page=2&x=1 /e/ /f /g)],
            'links of the site are followed, five at most';
    is_deeply links(qq(<a href='/one'><a href=/two><A HREF="/m\xc3\xbcll r"><area href=/no>)),
        [qw(/one /two /m%C3%BCll%20r)], 'links are found in all spellings';
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
        'no link of a page with a base for its links is followed';
    is_deeply links('<a href="https://a.test:8443/x"><a href="/y"><a href="https://a.test/z">', 8443, 1),
        ['/x',
        '/y'], 'only links to the same port are followed';
    {
        my $begun = Time::HiRes::time();
        is_deeply links('<a ' x 350_000), [], 'a page of unfinished links has no links';
        Linux::Pages::title(page('<title>' x 150_000));
        cmp_ok Time::HiRes::time() - $begun, '<', 10, 'unfinished links and titles are read in a short time';
    }
};

run_tests;
