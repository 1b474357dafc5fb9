# Reads the optional map of resellers: lines "reseller: user user ...", "#" starts
# a comment. A user belongs to the first reseller that names it.
package Linux::Resellers;

use strict;
use warnings;

our $FILE = '/etc/sondrel/resellers';

# { user => reseller }; empty without the file.
sub map_of {
    my ($tree, $problems) = @_;
    my %reseller_of;
    return \%reseller_of if !$tree->lstat($FILE);
    my $text = $tree->read_file($FILE);
    if (!defined $text) {
        $problems->add(severity => 'error', object => $FILE,
            text => "Cannot be read: $!; the clients in it stand outside of resellers");
        return \%reseller_of;
    }
    my $number = 0;
    for my $line (split /\r?\n/, $text) {
        $number++;
        $line =~ s/#.*//;
        next if $line !~ /\S/;
        my ($reseller, $users) = $line =~ /\A\s*([^\s:]+)\s*:(.*)\z/;
        if (!defined $reseller) {
            $problems->add(severity => 'error', object => $FILE,
                text => qq(Line $number: expected "reseller: user ...", the line is left out));
            next;
        }
        for my $user (grep {length} split /[\s,]+/, $users) {
            if (defined $reseller_of{$user} && $reseller_of{$user} ne $reseller) {
                $problems->add(severity => 'warning', object => $FILE,
                    text => "Line $number: $user already belongs to $reseller_of{$user}, and stays there");
                next;
            }
            $reseller_of{$user} = $reseller;
        }
    }
    return \%reseller_of;
}

1;
