# International names as others write them: expected values are from RFC 3492 and from Python's codec.
use strict;
use warnings;
use FindBin;
use lib map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Linux::Idn;
use Test::More;
use Independent;

test 'A name of ASCII is changed to lower case only' => sub {
    is_deeply [Linux::Idn::forms('Plain.Example')], ['plain.example'],
        'a plain name is only written in lower case';
    is_deeply [Linux::Idn::forms('XN--BCHER-KVA.example')], ['xn--bcher-kva.example'],
        'a name that is converted already is only written in lower case';
};

test 'A name in UTF-8 is converted' => sub {
    for my $pair (
        ['bücher.example' => 'xn--bcher-kva.example'], ['BÜCHER.Example' => 'xn--bcher-kva.example'],
        ["bu\xcc\x88cher.example" => 'xn--bcher-kva.example'],
        ['münchen.bücher.test' => 'xn--mnchen-3ya.xn--bcher-kva.test'],
        ['ü' => 'xn--tda'], ['*.bücher.example' => '*.xn--bcher-kva.example'],
        ['例え.テスト' => 'xn--r8jz45g.xn--zckzah'], ['例え。テスト' => 'xn--r8jz45g.xn--zckzah'],
        ['почемужеонинеговорятпорусски' => 'xn--b1abfaaepdrnnbgefbadotcwatmq2g4l'],
        ['3年b組金八先生' => 'xn--3b-ww4c5e180e575a65lsy2b'], ['😀.example' => 'xn--e28h.example'],
        ["www.b\xef\xbd\x95cher.example" => 'www.bucher.example'],
    ) {
        my ($name, $expected) = @$pair;
        is_deeply [Linux::Idn::forms($name)], [$expected], "$name is $expected";
    }
};

test 'Other forms of a name are given where the rules differ' => sub {
    is_deeply [Linux::Idn::forms('straße.example')], ['xn--strae-oqa.example', 'strasse.example'],
        'a name with a letter that the older rules replace has a form by these too';
    is_deeply [Linux::Idn::forms("b\xfccher.example")], ["b\xfccher.example"],
        'a name that is no UTF-8 stays as it is';
    is_deeply [grep { utf8::is_utf8($_) } map { Linux::Idn::forms($_) } 'bücher.example', 'plain.example'], [],
        'the forms are strings of bytes';
};

run_tests;
