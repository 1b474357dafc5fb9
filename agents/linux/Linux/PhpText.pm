# Reads the constants, variables and arrays that a PHP text sets to plain values. The
# text is never run: what is computed is left out, whatever branch it stands in counts.
# Whatever the text, reading takes time in proportion to its length, and little memory.
package Linux::PhpText;

use strict;
use warnings;

# Arrays in arrays; what lies deeper is left out.
my $MOST_DEPTH = 40;

my %ESCAPED = (n => "\n", t => "\t", r => "\r", v => "\x0b", e => "\e", f => "\f");

# { key => value }, where $a['b']['c'], $a->b->c and nested arrays give "a.b.c", and
# what a file returns has keys of its own.
sub settings {
    my ($text) = @_;
    $text =~ s/\A.*?<\?(?:php\b|=)?//s;
    my $self = bless { text => $text, tokens => [], depth => 0, values => {} }, __PACKAGE__;
    while (defined(my $token = $self->next_token)) {
        my ($type, $content) = @$token;
        if    ($type eq 'variable')                          { $self->assignment($content) }
        elsif ($type eq 'word' && lc $content eq 'define')   { $self->definition }
        elsif ($type eq 'word' && lc $content eq 'const')    { $self->constant }
        elsif ($type eq 'word' && lc $content eq 'return')   { $self->value('') }
    }
    return $self->{values};
}

# The next token of the text, or nothing at its end: [type, content]: variable, word,
# number, string (content undef where it depends on more than its text) or mark.
sub read_token {
    my ($self) = @_;
    for ($self->{text}) {
        1 while /\G(?:\s+|#(?!\[)[^\n]*|\/\/[^\n]*|\/\*.*?(?:\*\/|\z))/gcs;
        if    (/\G'/gc)                     { return [string => single_quoted(up_to_quote(q{'}))] }
        elsif (/\G"/gc)                     { return [string => double_quoted(up_to_quote('"'))] }
        elsif (/\G<<<[ \t]*(['"]?)(\w+)\1\r?\n/gc) {
            # Without its end it takes all the rest.
            pos = length if !/^[ \t]*\Q$2\E\b/gcm;
            return [string => undef];
        }
        elsif (/\G\$(\w+)/gc)               { return [variable => $1] }
        elsif (/\G([\w\\]*[A-Za-z_]\w*)/gc)  { return [word => $1] }
        elsif (/\G([0-9]+)(?![\w.])/gc)     { return [number => $1] }
        elsif (/\G(=>|->|::|[=!<>]=+|.)/gcs) { return [mark => $1] }
    }
    return;
}

# Takes the rest of a string in $_ with its end; one pattern for all of it would fail
# for a long one.
sub up_to_quote {
    my ($quote) = @_;
    my $text = '';
    while (/\G([^\\$quote]+|\\.)/gcs) { $text .= $1 }
    return /\G$quote/gc ? $text : undef;
}

sub single_quoted {
    my ($text) = @_;
    $text =~ s/\\([\\'])/$1/g if defined $text;
    return $text;
}

sub double_quoted {
    my ($text) = @_;
    return undef if !defined $text || $text =~ /(?<!\\)(?:\\\\)*(?:\$[\w{]|\{\$)/;
    $text =~ s/\\(?:([ntrvef])|([\\\$"])|x([0-9A-Fa-f]{1,2})|([0-7]{1,3}))/
        defined $1 ? $ESCAPED{$1} : defined $2 ? $2 : chr(defined $3 ? hex $3 : oct($4) & 255)/gex;
    return $text;
}

sub next_token {
    my ($self) = @_;
    my $token = $self->ahead(0);
    shift @{ $self->{tokens} };
    return $token;
}

# The token that comes after so many others; looks only.
sub ahead {
    my ($self, $others) = @_;
    my $tokens = $self->{tokens};
    while (@$tokens <= $others) {
        push @$tokens, $self->read_token || return undef;
    }
    return $tokens->[$others];
}

# Whether the next token is one of these marks; looks only.
sub comes {
    my ($self, @marks) = @_;
    my $token = $self->ahead(0);
    return $token && $token->[0] eq 'mark' && grep { $_ eq $token->[1] } @marks;
}

# Takes the next token if it is the mark.
sub take {
    my ($self, $mark) = @_;
    return if !$self->comes($mark);
    $self->next_token;
    return 1;
}

# Takes the next token if it is a string.
sub take_string {
    my ($self) = @_;
    my $token = $self->ahead(0);
    return if !$token || $token->[0] ne 'string';
    return $self->next_token->[1];
}

sub definition {
    my ($self) = @_;
    return if !$self->take('(');
    my $name = $self->take_string;
    $self->value($name) if defined $name && $self->take(',');
    return;
}

sub constant {
    my ($self) = @_;
    my $name = $self->ahead(0);
    return if !$name || $name->[0] ne 'word';
    $self->next_token;
    $self->value($name->[1]) if $self->take('=');
    return;
}

sub assignment {
    my ($self, $key) = @_;
    while (1) {
        if ($self->take('[')) {
            my $part = $self->take_string;
            return if !defined $part || !$self->take(']');
            $key .= ".$part";
        }
        elsif ($self->take('->')) {
            my $part = $self->next_token;
            return if !$part || $part->[0] ne 'word';
            $key .= ".$part->[1]";
        }
        else { last }
    }
    $self->value($key) if $self->take('=');
    return;
}

# A value for a key: a plain one, which is kept, or an array, whose entries are.
sub value {
    my ($self, $key) = @_;
    my $token = $self->ahead(0) or return;
    my ($type, $content) = @$token;
    if ($type eq 'mark' && $content eq '[') {
        $self->next_token;
        return $self->entries($key, ']');
    }
    if ($type eq 'word' && lc $content eq 'array') {
        $self->next_token;
        return $self->take('(') ? $self->entries($key, ')') : ();
    }
    return if $type ne 'string' && $type ne 'number';
    $self->next_token;
    $self->{values}{$key} = $content if defined $content && $self->comes(';', ',', ']', ')');
    return;
}

sub entries {
    my ($self, $above, $end) = @_;
    my $number = 0;
    $self->{depth}++;
    while ($self->ahead(0) && !$self->take($end)) {
        my ($token, $after) = map { $self->ahead($_) } 0, 1;
        my $key = $number++;
        if ($after && $after->[0] eq 'mark' && $after->[1] eq '=>') {
            $key = $token->[1];
            $self->next_token for 1, 2;
        }
        $self->value(length $above ? "$above.$key" : $key) if defined $key && $self->{depth} < $MOST_DEPTH;
        $self->skip_entry($end);
    }
    $self->{depth}--;
    return;
}

# Goes on after the next comma of this array, or before its end.
sub skip_entry {
    my ($self, $end) = @_;
    my $depth = 0;
    while ($self->ahead(0)) {
        return if !$depth && $self->comes($end);
        my ($type, $content) = @{ $self->next_token };
        next if $type ne 'mark';
        return if !$depth && $content eq ',';
        $depth++ if $content =~ /\A[\[({]\z/;
        $depth-- if $content =~ /\A[\])}]\z/;
    }
    return;
}

1;
