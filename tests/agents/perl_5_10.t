# What is sent to a source host runs there with nothing but perl 5.10.0: every file
# compiles, uses no module that came later or is not perl's own, and no newer language.
use strict;
use warnings;
use File::Find ();
use FindBin;
use Module::CoreList;
use PPI;
use Perl::MinimumVersion;
use Test::More;
use Independent;

my $agents = "$FindBin::RealBin/../../agents";

# What neither perl -c nor Perl::MinimumVersion finds, in code without its strings.
my @newer_code = (
    ['postfix dereference', qr/->\s*(?:[\@%&*]|\$\#?)\s*[*\[{]/],
    ['key and value slice', qr/(?<![\w\)\]\}\$\@&%]\s)(?<![\w\)\]\}\$\@&%])%\$?\w+\s*[\[{]/],
    ['function of hashes for an array', qr/\b(?:keys|values|each)\b\s*\(?\s*\@/],
    ['indented here-document', qr/<<~/],
    ['delete local', qr/\bdelete\s+local\b/],
    ['list assigned to a state variable', qr/\bstate\s*[\@%(]/],
    ['package with a block or a version', qr/\bpackage\s+[\w:]+(?:\s+v?\d|\s*\{)/],
    ['class or try syntax', qr/\b(?:try|defer|class|method|field)\s*\{/],
    ['__SUB__ or fc', qr/\b(?:__SUB__|fc)\b/],
);

# Functions that perl's own modules learned after 5.10.0.
my %newer_functions = (
    'File::Path' => qr/\b(?:make_path|remove_tree)\b/,
    'File::Temp' => qr/\bnewdir\b/,
    'List::Util' => qr/\b(?:any|all|none|notall|sum0|product|pairs|pairmap|pairgrep|pairkeys|pairvalues|uniq\w*)\b/,
    'POSIX' => qr/\b(?:lround|round|trunc|fmin|fmax|strtof|copysign|nan|remainder)\b/,
    'Socket' => qr/\b(?:getaddrinfo|getnameinfo|inet_pton|inet_ntop)\b/,
    'Time::HiRes' => qr/\butime\b/,
    'Scalar::Util' => qr/\b(?:isdual|isvstring)\b/,
);

# A file handle has methods by itself only since 5.14.
my $handle_method = qr/->\s*(?:autoflush|binmode|blocking|close|eof|fileno|flush|getline|opened|print|printf|sync)\b/;

sub files {
    my @found;
    File::Find::find({ no_chdir => 1, wanted => sub {
        push @found, $File::Find::name if -f && /\.(?:pm|pl|in)\z/;
    } }, $agents);
    return sort @found;
}

sub significant {
    my ($document) = @_;
    return join '', map { $_->content } grep {
        !$_->isa('PPI::Token::Comment') && !$_->isa('PPI::Token::Pod') && !$_->isa('PPI::Token::Quote')
            && !$_->isa('PPI::Token::QuoteLike') && !$_->isa('PPI::Token::Regexp')
            && !$_->isa('PPI::Token::End') && !$_->isa('PPI::Token::Data')
    } $document->tokens;
}

sub pieces {
    my ($document, @classes) = @_;
    return map { @{ $document->find("PPI::$_") || [] } } @classes;
}

# perl's own modules that the file uses: name => true.
sub used_modules {
    my ($document) = @_;
    my %used = map { $_->module => 1 } grep { $_->module ne '' } pieces($document, 'Statement::Include');
    delete $used{$_} for grep { /^(?:Agent|Linux)::/ } keys %used;
    return %used;
}

# The same of a file, which is parsed only if no test has parsed it before: that takes most of the time.
my %used_by;

sub modules_used_by {
    my ($file, $document) = @_;
    $used_by{$file} ||= { used_modules($document || PPI::Document->new($file)) };
    return %{ $used_by{$file} };
}

sub newer_modules {
    my ($document) = @_;
    my %used = used_modules($document);
    return map { "module $_" } sort grep {
        my $release = Module::CoreList->first_release($_);
        !defined $release || $release > 5.010 || Module::CoreList->removed_from($_)
    } keys %used;
}

sub newer_functions {
    my ($document, $code) = @_;
    my %used = used_modules($document);
    my $imports = join ' ', map { $_->content } pieces($document, 'Statement::Include');
    my @found = map { "function of $_" } grep {
        my ($module, $newer) = ($_, $newer_functions{$_});
        $used{$module} && ($imports =~ $newer || $code =~ /\b${module}::$newer/)
    } sort keys %newer_functions;
    push @found, 'method of a file handle without IO::Handle'
        if $code =~ $handle_method && !grep { /^IO::|^FileHandle\z/ } keys %used;
    return @found;
}

sub newer_regexps {
    my ($document) = @_;
    my @found;
    for my $regexp (pieces($document, 'Token::Regexp', 'Token::QuoteLike::Regexp')) {
        my $modifiers = join '', keys %{ { $regexp->get_modifiers } };
        push @found, "modifier $1 of " . $regexp->content if $modifiers =~ /([radlun])/;
        push @found, 'escape in ' . $regexp->content
            if $regexp->content =~ /(?<!\\)(?:\\\\)*\\(?:o\{|N(?:\{|(?![\w{]))|[bB]\{|F)/;
    }
    return @found;
}

sub newer_strings {
    my ($document) = @_;
    return map { 'escape in ' . $_->content } grep {
        $_->content =~ /(?<!\\)(?:\\\\)*\\(?:o\{|N\{|F)/
    } pieces($document, 'Token::Quote::Double', 'Token::Quote::Interpolate');
}

sub newer_features {
    my ($document) = @_;
    my @found;
    for my $use (pieces($document, 'Statement::Include')) {
        push @found, $use->content if $use->module eq 'feature'
            && $use->content !~ /['"( ](?:say|state|switch)\b/
            || $use->module eq 'experimental' || ($use->version
                && $use->version !~ /^v?5\.0?(?:0[0-9]|10|8|6)/);
    }
    return @found;
}

sub signatures {
    my ($document) = @_;
    return map { 'signature ' . $_->content } grep { $_->content =~ /\w/ } pieces($document,
        'Token::Prototype');
}

sub all_newer {
    my ($document) = @_;
    my $code = significant($document);
    my $minimum = Perl::MinimumVersion->new($document);
    my @found = map { $_->[0] } grep { $code =~ $_->[1] } @newer_code;
    push @found, 'syntax of perl ' . $minimum->minimum_version->normal
        if $minimum->minimum_version > version->new('5.010');
    return @found, newer_modules($document), newer_functions($document, $code), newer_regexps($document),
        newer_strings($document), newer_features($document), signatures($document);
}

# The check itself: each of these is newer than 5.10.
my @newer = (
    'use strict; my @x = $r->@*;', 'my %h; my %s = %h{qw(a b)};', 'my @a; for my $i (keys @a) { }',
    'print <<~END;' . "\n  x\n  END\n", 'my $x = "a"; my $y = $x =~ s/a/b/r;', 'package Some { }',
    'sub f { ... }', 'use JSON::PP;', 'use HTTP::Tiny;', 'use DBI;', 'use File::Path qw(make_path);',
    'use List::Util qw(any);', 'use List::Util (); List::Util::all(1);', '$out->autoflush(1);',
    'use v5.12;', 'use 5.014;', "use feature 'fc';",
    'sub f ($x, $y) { }', 'my $x = /\bx\b/a;', 'my $x = "\N{LATIN SMALL LETTER A}";',
    'my %h; delete local $h{a};',
);
my @old_enough = (
    'use strict; use 5.010; use feature qw(say state); my $x = shift // 1; say $x;',
    'use IO::Handle; STDOUT->autoflush(1);',
    'my $n = 7 %$x; my @k = keys %{ $x->{y} }; my @s = @{$x}{qw(a b)};',
    'sub f ($$) { } my $x = $h->{a}[1]; $x =~ s/(\w+)\n/$1/gmsx;',
    'my ($x) = grep { defined } @$y; keys %$x;',
    'use List::Util qw(first sum); my @all = $x->all;',
);
for my $text (@newer) {
    test "Newer than perl 5.10 is: $text" => sub {
        my @found = all_newer(PPI::Document->new(\$text));
        ok(scalar(@found), "finds what is new in: $text");
    };
}
for my $text (@old_enough) {
    test "Not newer than perl 5.10 is: $text" => sub {
        is_deeply([all_newer(PPI::Document->new(\$text))], [], "finds nothing new in: $text");
    };
}

for my $file (files()) {
    (my $name = $file) =~ s{^\Q$agents\E/}{};
    test "$name needs nothing but perl 5.10 with its own modules" => sub {
        my $document = PPI::Document->new($file);
        ok($document, "$name can be parsed") or return;
        modules_used_by($file, $document);
        my $output = `"$^X" -I"$agents/shared" -I"$agents/linux" -wc "$file" 2>&1`;
        is($output, "$file syntax OK\n", "$name compiles without a warning");
        is_deeply([all_newer($document)], [], "$name needs nothing newer than perl 5.10");
        for my $strictness (qw(strict warnings)) {
            ok(scalar(grep { $_->module eq $strictness } pieces($document, 'Statement::Include')),
                "$name uses $strictness");
        }
        is(scalar(grep { length > 110 } split /\n/, $document->content), 0,
            "$name has no line of more than 110 characters");
    };
}

test 'The list of needed modules is complete' => sub {
    # The agent reports a missing module only if the list of needed modules has it.
    my %used = map { modules_used_by($_) } files();
    require "$agents/shared/Agent/Perl.pm";
    is_deeply([sort grep { !/^(?:strict|warnings)\z/ } keys %used],
        [sort @Agent::Perl::FOR_LOOKING, @Agent::Perl::FOR_DUMPS], 'the list of needed modules is complete');
};

run_tests;
