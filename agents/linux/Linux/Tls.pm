# What a certificate says, asked from openssl where it is installed.
package Linux::Tls;

use strict;
use warnings;
use Agent::Process qw(run which);
use Time::Local qw(timegm);

my $LIMIT = 10;
my %MONTH;
@MONTH{qw(Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec)} = 0 .. 11;

# { subject, issuer, names => [...], from, until } with times in seconds since
# 1970; undef where it cannot be found out, with the reason as second value.
sub facts {
    my ($tree, $certificate) = @_;
    return (undef, 'openssl is not installed') if !which('openssl');
    my $text = $tree->read_file($certificate);
    return (undef, "cannot be read: $!") if !defined $text;
    my @argv = qw(openssl x509 -noout -text -nameopt RFC2253);
    my $asked = run(\@argv, stdin => $text, limit => $LIMIT, most => 1_000_000);
    return (undef, 'openssl cannot read it as a certificate') if $asked->{status};
    return parsed($asked->{out});
}

sub parsed {
    my ($text) = @_;
    my %facts = (names => []);
    $facts{subject} = $1 if $text =~ /^\s*Subject: *(.*?)\s*$/m;
    $facts{issuer}  = $1 if $text =~ /^\s*Issuer: *(.*?)\s*$/m;
    $facts{from}    = seconds($1) if $text =~ /^\s*Not Before *: (.*)$/m;
    $facts{until}   = seconds($1) if $text =~ /^\s*Not After *: (.*)$/m;
    my ($names) = $text =~ /Subject Alternative Name:[^\n]*\n([^\n]*)/;
    $facts{names} = [$names =~ /(?:DNS|IP Address):([^,\s]+)/g] if defined $names;
    # Certificates of old name their only host here.
    my ($host) = defined $facts{subject} ? $facts{subject} =~ /(?:\A|,)CN=([^,]+)/ : ();
    $facts{names} = [$host] if !@{ $facts{names} } && defined $host;
    return \%facts;
}

# "Jan  2 03:04:05 2030 GMT"
sub seconds {
    my ($text) = @_;
    my ($month, $day, $hour, $minute, $second, $year) = $text =~ /\A(\w{3}) +(\d+) (\d+):(\d+):(\d+) (\d{4})/
        or return undef;
    return timegm($second, $minute, $hour, $day, $MONTH{$month}, $year);
}

1;
