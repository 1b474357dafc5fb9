# Writes XML documents in UTF-8. What it gives back is always well-formed:
# bytes that UTF-8 or XML cannot hold become "?". The caller makes every child
# with element() or text(); other strings would go into the document as they are.
package Agent::Xml;

use strict;
use warnings;
use Exporter 'import';

our @EXPORT_OK = qw(element exact_element text document);

my $TAIL = '[\x80-\xBF]';

# One character that XML 1.0 allows, as the bytes of its shortest UTF-8 form.
my $CHARACTER = qr/[\x09\x0A\x0D\x20-\x7F]
    | [\xC2-\xDF]$TAIL
    | \xE0[\xA0-\xBF]$TAIL | [\xE1-\xEC\xEE]$TAIL{2} | \xED[\x80-\x9F]$TAIL
    | \xEF[\x80-\xBE]$TAIL | \xEF\xBF[\x80-\xBD]
    | \xF0[\x90-\xBF]$TAIL{2} | [\xF1-\xF3]$TAIL{3} | \xF4[\x80-\x8F]$TAIL{2}/x;

my %ENTITY = ('&' => '&amp;', '<' => '&lt;', '>' => '&gt;', '"' => '&quot;');

# The bytes of a string, without those that a document cannot hold.
sub clean {
    my ($string) = @_;
    $string = '' if !defined $string;
    utf8::encode($string) if utf8::is_utf8($string);
    return $string if $string !~ /[^\x20-\x7E]/;
    # No plain "+": perl warns where a group repeats more often than it can count.
    $string =~ s/($CHARACTER{1,30000})|(.)/defined $1 ? $1 : '?'/gse;
    return $string;
}

# Writes as numbers the characters that a reader would change or take as markup.
sub escape {
    my ($string, $characters) = @_;
    $string = clean($string);
    $string =~ s/([$characters])/$ENTITY{$1} || sprintf('&#%d;', ord $1)/ge;
    return $string;
}

sub text { return escape($_[0], '&<>\r') }

sub attributes {
    my @pairs = @_;
    my $out = '';
    while (my ($name, $value) = splice @pairs, 0, 2) {
        $out .= qq( $name=") . escape($value, '&<>"\t\n\r') . '"' if defined $value;
    }
    return $out;
}

# An element; attributes with an undefined value are left out. Elements among
# elements stand on lines of their own, text keeps its exact bytes.
sub element {
    my ($name, $attributes, @children) = @_;
    my $start = '<' . $name . attributes(@{ $attributes || [] });
    @children = grep { defined && length } @children;
    return "$start/>" if !@children;
    my $line = (grep { !/^</ } @children) ? '' : "\n";
    return join $line, "$start>", @children, "</$name>";
}

# An element whose text is some bytes to the last. Where XML cannot hold them, each "%" and
# each byte that it cannot hold is written as "%XX", and the attribute encoded="percent" says so.
sub exact_element {
    my ($name, $attributes, $bytes) = @_;
    return element($name, $attributes, text($bytes)) if $bytes !~ /[^\x20-\x7E]/ || clean($bytes) eq $bytes;
    $bytes =~ s/([^\x20-\x24\x26-\x7E])/sprintf '%%%02X', ord $1/ge;
    return element($name, [@{ $attributes || [] }, encoded => 'percent'], text($bytes));
}

sub document { return qq(<?xml version="1.0" encoding="UTF-8"?>\n$_[0]\n) }

1;
