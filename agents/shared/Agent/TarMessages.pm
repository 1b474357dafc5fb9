# What the programs find and tar say about the files that they read, line by line.
package Agent::TarMessages;

use strict;
use warnings;
use Exporter 'import';

our @EXPORT_OK = qw(find_message line_reader tar_message unquoted);

# What tar says about a file: severity and text, or what has become of the file.
my @SAYINGS = (
    [qr/file changed as we read it|File shrank by .*/ => 'changed'],
    [qr/File removed before we read it/ => 'gone'],
    [qr/(?:Warning: )?Cannot (?:f?stat|open)[^:]*: No such file or directory/ => 'gone'],
    [qr/socket ignored/ => 'info', 'is a socket, which cannot be packed'],
    [qr/(?:Warning: )?Cannot (?:open|read|stat|savedir)[^:]*: (.*)/ => 'error', 'cannot be read: '],
    [qr/(?:Warning: )?Read error at byte .*: (.*)/ => 'error', 'cannot be read: '],
);

my %ESCAPED = (a => "\a", b => "\b", f => "\f", n => "\n", r => "\r", t => "\t", v => "\x0b", '\\' => '\\');

# A line of find's: (path, why it cannot be read), the path as find was given it, without the first
# dot; nothing where it is about no file.
sub find_message { return $_[0] =~ /\Afind: ['`]\.(.*)': (.*)\z/s }

# A line of tar's about a file: (path, what, text), the path as tar writes it, without the first dot;
# what is "changed", "gone" or a severity, which has a text. Nothing where it is about no file.
sub tar_message {
    my ($line) = @_;
    for my $saying (@SAYINGS) {
        my ($pattern, $what, $text) = @$saying;
        my ($path, $why) = $line =~ /\Atar: \.(.*): $pattern\z/ or next;
        return ($path, $what, defined $text ? $text . (defined $why ? $why : '') : undef);
    }
    return;
}

# A name as tar writes it in what it says.
sub unquoted {
    my ($name) = @_;
    $name =~ s/\\(?:([0-7]{3})|([abfnrtv\\]))/defined $1 ? chr oct $1 : $ESCAPED{$2}/ge;
    return $name;
}

# Calls back with each whole line of what it is given in pieces.
sub line_reader {
    my ($callback) = @_;
    my $rest = '';
    return sub {
        $rest .= $_[0];
        while ($rest =~ s/\A([^\n]*)\n//) { $callback->($1) if length $1 }
        return;
    };
}

1;
