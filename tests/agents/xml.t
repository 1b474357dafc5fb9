# The XML that the agent writes, and the problems in it.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Process qw(run);
use Agent::Problems;
use Agent::Xml qw(element text document);

test 'Elements and attributes are written' => sub {
    is element('a'), '<a/>', 'an element without content is closed at once';
    is element('a', [b => 1, c => undef, d => '']), '<a b="1" d=""/>', 'undefined attributes are left out';
    is element('a', [b => qq(<&>"'\t\n)]), q(<a b="&lt;&amp;&gt;&quot;'&#9;&#10;"/>),
        'attributes are escaped';
    is element('a', undef, text("x <&> \r\n")), "<a>x &lt;&amp;&gt; &#13;\n</a>", 'text is escaped';
    is element('a', [], element('b'), element('c')), "<a>\n<b/>\n<c/>\n</a>",
        'elements stand on their own lines';
    is element('a', [], text(''), undef), '<a/>',
        'an element with an empty text and without elements has no content';
};

test 'Text is written as UTF-8 that XML allows' => sub {
    is text("ab\0c\x01\x0b"), 'ab?c??', 'characters that XML does not allow become question marks';
    is text("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"), "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80",
        'text in UTF-8 stays as it is';
    is text("\xe4 \xc3 \xc0\x80 \xed\xa0\x80 \xef\xbf\xbf \xf4\x90\x80\x80"), '? ? ?? ??? ??? ????',
        'bytes that are not UTF-8 become question marks';
    is text("\x{20ac}"), "\xe2\x82\xac", 'characters are written as UTF-8';
    is length text("\xc3\xa4" x 100_000), 200_000, 'long text stays whole';
};

test 'A document with every byte is well-formed' => sub {
    my $every = join '', map { chr } 0 .. 255;
    my $names = document(element('a', [b => $every], text($every), element('c')));
    my $parsed = run(['xmllint', '--noout', '-'], stdin => $names);
    is $parsed->{status}, 0, 'a document with every byte is well-formed' or diag $parsed->{err};
    my $value = "tab\there, line\nend\rand \xc3\xa4 <&>";
    my $same = run(['xmllint', '--xpath', 'string(/a/@b)', '-'],
        stdin => document(element('a', [b => $value])));
    is $same->{out}, "$value\n", 'a reader gets the same value';
};

test 'Problems are kept once and written as elements' => sub {
    my $problems = Agent::Problems->new;
    $problems->add(severity => 'error', object => 'a "b"', text => 'cannot < read') for 1 .. 2;
    $problems->add(severity => 'info', text => 'x');
    is $problems->count, 2, 'the same problem is kept once';
    is $problems->count('error'), 1, 'problems are counted by severity';
    is_deeply [$problems->elements],
        ['<problem severity="error" object="a &quot;b&quot;">cannot &lt; read</problem>',
        '<problem severity="info" object="">x</problem>'], 'problems are written as elements';
    is error_of(sub { $problems->add(severity => 'fatal', text => 'x') }),
        "Unknown severity of a problem: fatal\n", 'an unknown severity is refused';
};

run_tests;
