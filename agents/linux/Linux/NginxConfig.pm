# Reads nginx configuration into a list of directives with everything included
# already in place. A mistake in a file is named as a problem; what can be read
# before and after it is kept.
package Linux::NginxConfig;

use strict;
use warnings;
use base 'Linux::ConfigReader';

# First words of lines that show that the ";" of the line before is missing.
my %STARTS_DIRECTIVE = map { $_ => 1 } qw(
    server server_name listen root alias location include index return rewrite try_files access_log error_log
    ssl_certificate ssl_certificate_key fastcgi_pass proxy_pass allow deny auth_basic auth_basic_user_file
    add_header client_max_body_size set if upstream http events
);

# The directives of the main file: { name, args, block => [...] or undef, text, file,
# line }; `text` is what a block in another language holds, byte for byte. Relative
# includes start in the directory of the main file.
sub load {
    my ($self, $main) = @_;
    ($self->{base}) = $main =~ m{\A(.*)/};
    return $self->expand($self->parsed($main), $main);
}

# Puts included files in the place of the directives that include them.
sub expand {
    my ($self, $directives, @stack) = @_;
    my @out;
    for my $directive (@$directives) {
        if ($directive->{name} eq 'include' && !$directive->{block} && @{ $directive->{args} }) {
            push @out, $self->directives_of($directive, [$self->matching($directive->{args}[0])], @stack);
        }
        elsif ($directive->{block}) {
            push @out, { %$directive, block => [$self->expand($directive->{block}, @stack)] };
        }
        else { push @out, $directive }
    }
    return @out;
}

sub parse {
    my ($self, $file, $text) = @_;
    $self->problem('error', $file, 1, 'begins with a byte order mark') if $text =~ s/\A\xEF\xBB\xBF//;
    my @blocks = ([]);
    my @openings;
    my @words;
    my $finish = sub {
        my ($block) = @_;
        return if !@words;
        my ($name, @args) = map { $_->{text} } @words;
        my $directive = { name => $name, args => \@args, file => $file, line => $words[0]{line} };
        $directive->{block} = $block if $block;
        push @{ $blocks[-1] }, $directive;
        @words = ();
    };
    my $missing = sub {
        my ($line) = @_;
        my $text = qq("$words[0]{text}" is not ended by ";" before line $line);
        $self->problem('error', $file, $words[0]{line}, $text);
        $finish->();
    };
    for my $token ($self->tokens($file, $text)) {
        my ($kind, $line) = @$token{qw(kind line)};
        if ($kind eq 'word') {
            $missing->($line) if @words && $token->{first} && $STARTS_DIRECTIVE{ $token->{text} };
            push @words, $token;
        }
        elsif ($kind eq ';')    { $finish->() }
        elsif ($kind eq 'text') { $blocks[-2][-1]{text} = $token->{text} }
        elsif ($kind eq '{') {
            push @openings, @words ? $words[0] : $token;
            @words = ($token) if !@words;
            my $block = [];
            $finish->($block);
            push @blocks, $block;
        }
        else {
            $missing->($line) if @words;
            if (@blocks > 1) {
                pop @blocks;
                pop @openings;
            }
            else { $self->problem('error', $file, $line, 'unexpected "}"') }
        }
    }
    $missing->('of the end') if @words;
    for my $word (@openings) {
        $self->problem('error', $file, $word->{line}, qq("$word->{text}" opens a block that is not closed));
    }
    return $blocks[0];
}

# Cuts a text into { kind => 'word', ';', '{', '}' or 'text' (a block in another language),
# text, line, first }, `first` telling that nothing stands before it on its line.
sub tokens {
    my ($self, $file, $text) = @_;
    my ($line, $last, @tokens) = (1, 0);
    my $add = sub {
        my ($kind, $word) = @_;
        push @tokens, { kind => $kind, text => $word, line => $line, first => $line != $last };
        $last = $line;
    };
    while (1) {
        if ($text =~ /\G(\s+)/gc) { $line += $1 =~ tr/\n// }
        last if (pos($text) || 0) >= length $text;
        if    ($text =~ /\G#[^\n]*/gc) { next }
        elsif ($text =~ /\G([;{}])/gc) {
            $add->($1, $1);
            my $opens_foreign = $1 eq '{' && @tokens > 1 && $tokens[-2]{text} =~ /_by_lua_block\z/;
            next if !$opens_foreign;
            my $foreign = take_foreign(\$text);
            $add->('text', $foreign);
            $line += $foreign =~ tr/\n//;
        }
        elsif ($text =~ /\G"((?:[^"\\]++|\\.)*+)"/gcs || $text =~ /\G'((?:[^'\\]++|\\.)*+)'/gcs) {
            my $word = $1;
            $add->('word', plain($word));
            $line += $word =~ tr/\n//;
        }
        elsif ($text =~ /\G(["'])([^\n;{}]*)/gc) {
            $self->problem('error', $file, $line, "the text after $1 is not ended");
            $add->('word', $2);
        }
        elsif ($text =~ /\G((?:[^\s;{\\\$]++|\\.|\$\{[^}\s]*\}|\$)++)/gcs) { $add->('word', plain($1)) }
        else {
            $text =~ /\G(.)/gcs or last;
            $add->('word', $1);
        }
    }
    return @tokens;
}

my %ESCAPED = ('t' => "\t", 'r' => "\r", 'n' => "\n");

# A word as the server takes it: a backslash before anything else stays.
sub plain {
    my ($word) = @_;
    $word =~ s/\\(["'\\trn])/$ESCAPED{$1} || $1/ge;
    return $word;
}

# Moves to the end of a block in Lua; gives what is in it. Braces in its texts and
# comments count for nothing.
sub take_foreign {
    my ($text) = @_;
    my ($depth, $start) = (1, pos $$text);
    while ($$text =~ /\G(?:--\[(=*)\[.*?\]\1\]|--[^\n]*|\[(=*)\[.*?\]\2\]
            |"(?:[^"\\\n]|\\.)*"|'(?:[^'\\\n]|\\.)*'|([{}])|[^-\["'{}]+|.)/gcsx) {
        next if !defined $3;
        $depth += $3 eq '{' ? 1 : -1;
        next if $depth;
        pos($$text)--;
        last;
    }
    return substr $$text, $start, pos($$text) - $start;
}

1;
