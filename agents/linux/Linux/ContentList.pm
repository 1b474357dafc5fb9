# The list of the files of the last dump that are still here, as the tool that
# fetches and removes them wants it.
package Linux::ContentList;

use strict;
use warnings;
use Agent::Kept;
use Agent::Xml qw(element document);
use Digest::MD5 ();
use Linux::Dump;

# The document. Dies where the last dump is not complete.
sub text_of {
    my ($private) = @_;
    my $lock = Linux::Dump::take_lock($private);
    my $kept = Agent::Kept->new($private);
    die "There is no complete dump here: make one first\n" if !$kept->complete;
    my @files;
    for my $archive ($kept->all) {
        next if !$private->facts($archive->{name});
        $kept->find($archive->{name}) or die "$archive->{name} has changed since: make a new dump\n";
        push @files, $archive;
    }
    my $dump = $private->read($Linux::Dump::FILE);
    push @files, {
        name => $Linux::Dump::FILE, size => length $dump, unpacked => length $dump,
        md5 => Digest::MD5::md5_hex($dump),
    } if defined $dump;
    my @elements = map {
        element('file', [size => $_->{size}, md5sum => $_->{md5}], Agent::Xml::text($_->{name}))
    } @files;
    my @sums = map { $_ => sum($_, @files) } qw(size unpacked);
    return document(element('contentlist', \@sums, @elements));
}

# What does not become smaller by packing still needs the room of its file.
sub sum {
    my ($what, @files) = @_;
    my $sum = 0;
    $sum += $_->{$what} > $_->{size} ? $_->{$what} : $_->{size} for @files;
    return $sum;
}

1;
