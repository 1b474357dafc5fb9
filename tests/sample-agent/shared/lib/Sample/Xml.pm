# Writing of small XML documents: what every agent needs.
package Sample::Xml;
use strict;
use warnings;
use Encode ();
use Exporter 'import';

our @EXPORT_OK = qw(representable text element replace_file);

# Whether XML 1.0 can hold these bytes at all.
sub representable {
    my ($bytes) = @_;
    my $text = eval { Encode::decode('UTF-8', my $copy = $bytes, Encode::FB_CROAK) };
    return defined $text && $text !~ /[^\t\n\r\x{20}-\x{D7FF}\x{E000}-\x{FFFD}\x{10000}-\x{10FFFF}]/;
}

# Bytes as they stand in a document, in text and in attribute values alike.
my %special = ('&' => '&amp;', '<' => '&lt;', '>' => '&gt;', '"' => '&quot;',
    "\t" => '&#9;', "\n" => '&#10;', "\r" => '&#13;');

sub text {
    my ($bytes) = @_;
    $bytes =~ s/([&<>"\t\n\r])/$special{$1}/g;
    return $bytes;
}

# element(NAME, [ATTRIBUTE => VALUE, ...], CONTENT...): the contents are XML already.
sub element {
    my ($name, $attributes, @content) = @_;
    my @rest = @$attributes;
    my $start = $name;
    while (my ($attribute, $value) = splice @rest, 0, 2) {
        $start .= sprintf ' %s="%s"', $attribute, text($value);
    }
    return @content ? "<$start>" . join('', @content) . "</$name>" : "<$start/>";
}

# A reader of the file sees the old document or the new one, never half of one.
sub replace_file {
    my ($path, $xml) = @_;
    open my $file, '>', "$path.new" or die "$path.new: $!\n";
    print $file qq(<?xml version="1.0" encoding="UTF-8"?>\n), $xml, "\n" or die "$path.new: $!\n";
    close $file or die "$path.new: $!\n";
    rename "$path.new", $path or die "$path: $!\n";
}

1;
