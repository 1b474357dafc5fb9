# What is read of a page of HTML: its title, and links that may be followed without doing anything on
# the site.
package Linux::Pages;

use strict;
use warnings;
use Agent::Xml;

my $MOST_TITLE = 200;
my $MOST_TAG   = 2000;
my $MOST_PATH  = 1000;

# Words in a link that say that it does something, and names of arguments that say what to do.
my $ACTS = qr/(?<![a-z])(?:
    \w*(?:log-?_?(?:out|off)|sign-?_?(?:out|off)|delete|remove|destroy)\w* | del | drop | purge | trash |
    clear\w* | reset\w* | flush | empty | cancel\w* | confirm\w* | (?:de)?activate\w* | (?:un)?subscribe\w* |
    (?:dis)?approve\w* | (?:un)?publish | (?:un)?install\w* | up(?:date|grade) | (?:dis|en)able\w* |
    add | add-?_?to\w* | buy | cart | checkout | order | pay | vote | rate | like | send | submit | save |
    edit | move | rename | ban | block | cron\w* | wp-cron | run | exec\w* | restart | start | stop | undo |
    revert | rollback | backup\w* | export | import | download\w* | xmlrpc
)(?![a-z])/xi;
my $ORDERS = qr/(?:\A|[&;])(?:
    action | act | do | cmd | command | op | operation | task | _method | token | _?wpnonce | nonce | sid
)=/xi;

# The title of a page as it is written, bytes that fit into a document; undef where it has none.
sub title {
    my ($answer) = @_;
    return undef if !is_html($answer);
    my ($title) = $answer->{body} =~ m{<title(?:\s[^<>]{0,$MOST_TAG})?>(.*?)</title\s*>}is;
    return undef if !defined $title;
    $title =~ s/[\x00-\x20]+/ /g;
    $title = substr $title, 0, 65536;
    $title =~ s/\A | \z//g;
    $title = Agent::Xml::clean($title);
    utf8::decode($title);
    $title = substr $title, 0, $MOST_TITLE;
    utf8::encode($title);
    return $title;
}

sub is_html { return ($_[0]{type} || '') =~ m{\A(?:text/html|application/xhtml\+xml)\b}i ? 1 : 0 }

# The first paths, at most so many, that the page at "/" of a site links to on the same site by the same way:
# no other host or port, nothing that looks as if it did something. request: { name, port, tls }.
sub links {
    my ($answer, $request, $most) = @_;
    return if $answer->{status} != 200 || !is_html($answer) || $answer->{body} =~ /<base\s/i;
    my (@paths, %seen);
    # A tag that has "<" in it is none; so no part of a hostile page is looked at twice.
    while (@paths < $most && $answer->{body} =~ m{<a\s([^<>]{1,$MOST_TAG})>}gi) {
        my $path = path_of($1, $request);
        push @paths, $path if defined $path && $path ne '/' && !$seen{$path}++;
    }
    return @paths;
}

sub path_of {
    my ($attributes, $request) = @_;
    return undef if $attributes =~ /\bdata-(?:method|confirm)\b|\bnofollow\b|\bdownload\b/i;
    my @found = $attributes =~ /(?:\A|\s)href\s*=\s*(?:"([^"]*)"|'([^']*)'|([^\s"'>]+))/i or return undef;
    my ($link) = grep {defined} @found;
    return undef if $link =~ /[\x00-\x1f\x7f\\]/;
    $link =~ s/\A +| +\z//g;
    $link =~ s/&(?:amp|#38|#x26);/&/gi;
    $link =~ s/#.*//s;
    my $path = path_here($link, $request);
    return undef if !defined $path || length $path > $MOST_PATH || acts($path);
    $path =~ s/([^\x21-\x7e])/sprintf '%%%02X', ord $1/ge;
    return $path;
}

# The path of a link that stays at the name, the port and the way of a request for "/".
sub path_here {
    my ($link, $request) = @_;
    my $scheme = $request->{tls} ? 'https' : 'http';
    if ($link =~ m{\A(?:([a-z][a-z0-9+.-]*):)?//([^/?]*)(.*)\z}is) {
        my ($way, $where, $rest) = ($1, lc $2, $3);
        return undef if defined $way && lc $way ne $scheme;
        my ($host, $port) = $where =~ /\A([a-z0-9._-]+)(?::([0-9]+))?\z/ or return undef;
        $port = $request->{tls} ? 443 : 80 if !defined $port;
        return undef if $host ne lc $request->{name} || $port != $request->{port};
        $link = $rest;
    }
    elsif ($link =~ /\A[a-z][a-z0-9+.-]*:/i) { return undef }
    my ($path, $query) = $link =~ /\A([^?]*)(\?.*)?\z/s;
    my @parts;
    my @given = split m{/}, $path, -1;
    for my $part (@given) {
        if ($part eq '..') { pop @parts }
        elsif ($part ne '.' && $part ne '') { push @parts, $part }
    }
    my $is_directory = @given && $given[-1] =~ /\A\.{0,2}\z/ && @parts;
    return '/' . join('/', @parts) . ($is_directory ? '/' : '') . (defined $query ? $query : '');
}

# True for a link that looks as if it did something, also where letters of it are written as numbers.
sub acts {
    my ($path) = @_;
    my ($before) = ('');
    for (1 .. 4) {
        my (undef, $query) = split /\?/, $path, 2;
        return 1 if $path =~ $ACTS || defined $query && $query =~ $ORDERS;
        last if $path eq $before;
        $before = $path;
        $path =~ s/%([0-9A-Fa-f]{2})/chr hex $1/ge;
    }
    # Nothing honest is written as numbers of numbers.
    return $path ne $before ? 1 : 0;
}

1;
