# How PostgreSQL writes names and texts, and how they are asked for.
package Linux::PostgreSqlText;

use strict;
use warnings;
use Exporter 'import';

our @EXPORT_OK = qw(hex_of identifier is_of_server literal text_of);

# SQL that gives the text of an expression in hexadecimal, as text_of() reads it.
sub hex_of { return "encode(textsend(($_[0])::text), 'hex')" }

sub text_of { return pack 'H*', $_[0] }

# A name as it stands in SQL.
sub identifier {
    my ($name) = @_;
    $name =~ s/"/""/g;
    return qq("$name");
}

# A text as it stands in SQL.
sub literal {
    my ($text) = @_;
    my $escaped = $text =~ s/\\/\\\\/g ? 'E' : '';
    $text =~ s/'/''/g;
    return "$escaped'$text'";
}

# A database that every server has is not made anew, only filled.
sub is_of_server { return $_[0]{name} eq 'postgres' }

1;
