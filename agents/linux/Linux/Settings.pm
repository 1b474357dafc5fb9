# What the administrator of the source host has set for the agent: the file /etc/sondrel/agent.conf with
# lines "name value"; "#" starts a comment.
package Linux::Settings;

use strict;
use warnings;

our $FILE = '/etc/sondrel/agent.conf';

# What may be set, each "yes" or "no", and what holds where nothing is.
my %DEFAULT = ('ask-sites' => 1);

# { name => 1 or 0 } of all that may be set. What cannot be read or understood becomes a problem, and
# then nothing is done that the file may forbid.
sub of {
    my ($tree, $problems) = @_;
    my %settings = %DEFAULT;
    return \%settings if !$tree->lstat($FILE);
    my ($text, @wrong) = text_of($tree);
    my $number = 0;
    for my $line (split /\r?\n/, $text) {
        $number++;
        $line =~ s/#.*//s;
        next if $line !~ /\S/;
        my ($name, $value) = $line =~ /\A\s*(\S+)\s+(yes|no)\s*\z/;
        if (defined $name && defined $DEFAULT{$name}) { $settings{$name} = $value eq 'yes' ? 1 : 0 }
        else                                          { push @wrong, "Line $number is not understood" }
    }
    return \%settings if !@wrong;
    my $expected = join ', ', map {"$_ yes or $_ no"} sort keys %DEFAULT;
    $problems->add(severity => 'warning', object => $FILE, text => "$_; what the file may forbid is not done:"
        . " correct it ($expected), and dump again") for @wrong;
    return { map { $_ => 0 } keys %settings };
}

# The text of the file, and what is wrong where it is empty for that reason.
sub text_of {
    my ($tree) = @_;
    return ('', 'Is not read, since others than root may change it') if !$tree->is_of_root($FILE);
    my $text = $tree->read_file($FILE);
    return defined $text ? $text : ('', "Cannot be read: $!");
}

1;
