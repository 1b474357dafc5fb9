# International domain names: their form with xn--, in which servers usually have them.
package Linux::Idn;

use strict;
use warnings;
use Agent::Perl;

# Parameters of Punycode, by RFC 3492.
my ($BASE, $TMIN, $TMAX, $SKEW, $DAMP, $FIRST_BIAS, $FIRST_N) = (36, 1, 26, 38, 700, 72, 128);

# Dots that writing systems have besides the usual one.
my $DOT = qr/[.\x{3002}\x{ff0e}\x{ff61}]/;

# The forms of a domain name (bytes) under which it may be known, in lower case and with xn--;
# the first one is that of today's rules. There are two where the older rules replace letters
# that the newer ones keep, as the German sharp s.
sub forms {
    my ($name) = @_;
    return lc $name if $name !~ /[^\x00-\x7f]/;
    my $text = $name;
    # What is no UTF-8 is no international name.
    return lc $name if !utf8::decode($text);
    $text = composed(lc $text);
    (my $older = $text) =~ s/\x{df}/ss/g;
    $older =~ s/\x{3c2}/\x{3c3}/g;
    $older =~ s/[\x{200c}\x{200d}]//g;
    my %seen;
    return grep { !$seen{$_}++ } map { ascii($_) } $text, $older;
}

# Letters and their accents as one character each, wide ones as the usual ones. Some hosts lack
# the module, and with it only these rarer forms.
sub composed {
    my ($text) = @_;
    return $text if Agent::Perl::missing('Unicode::Normalize');
    return lc Unicode::Normalize::NFKC($text) if $text =~ /[\x{ff01}-\x{ff5e}]/;
    return Unicode::Normalize::NFC($text);
}

sub ascii {
    my ($text) = @_;
    return join '.', map { /[^\x00-\x7f]/ ? 'xn--' . punycode($_) : as_bytes($_) } split $DOT, $text, -1;
}

sub as_bytes {
    my ($text) = @_;
    utf8::downgrade($text);
    return $text;
}

# RFC 3492, 6.3.
sub punycode {
    my ($label) = @_;
    my @points = map {ord} split //, $label;
    my $output = join '', map {chr} grep { $_ < $FIRST_N } @points;
    my $basic = my $handled = length $output;
    $output .= '-' if $basic;
    my ($n, $delta, $bias) = ($FIRST_N, 0, $FIRST_BIAS);
    while ($handled < @points) {
        my ($next) = sort { $a <=> $b } grep { $_ >= $n } @points;
        $delta += ($next - $n) * ($handled + 1);
        $n = $next;
        for my $point (@points) {
            $delta++ if $point < $n;
            next if $point != $n;
            $output .= variable_length($delta, $bias);
            $bias = adapted($delta, $handled + 1, $handled == $basic);
            $delta = 0;
            $handled++;
        }
        $delta++;
        $n++;
    }
    return $output;
}

sub variable_length {
    my ($rest, $bias) = @_;
    my $digits = '';
    for (my $k = $BASE;; $k += $BASE) {
        my $threshold = $k <= $bias ? $TMIN : $k >= $bias + $TMAX ? $TMAX : $k - $bias;
        return $digits . digit($rest) if $rest < $threshold;
        $digits .= digit($threshold + ($rest - $threshold) % ($BASE - $threshold));
        $rest = int(($rest - $threshold) / ($BASE - $threshold));
    }
}

sub digit { return substr 'abcdefghijklmnopqrstuvwxyz0123456789', $_[0], 1 }

sub adapted {
    my ($delta, $points, $is_first) = @_;
    $delta = $is_first ? int($delta / $DAMP) : int($delta / 2);
    $delta += int($delta / $points);
    my $k = 0;
    while ($delta > ($BASE - $TMIN) * $TMAX / 2) {
        $delta = int($delta / ($BASE - $TMIN));
        $k += $BASE;
    }
    return $k + int(($BASE - $TMIN + 1) * $delta / ($delta + $SKEW));
}

1;
