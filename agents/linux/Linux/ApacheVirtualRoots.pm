# Apache's sites with a directory for each host (VirtualDocumentRoot): methods of Linux::Apache. The
# object has { tree, problems } and `block`, the record of the virtual host, whose names are known.
package Linux::ApacheVirtualRoots;

use strict;
use warnings;
use Linux::Site qw(add_once is_host_name);

# One directory for each host: what they are for the names that are known, and a
# record for each host that a directory shows.
sub add_directories {
    my ($self, $pattern) = @_;
    my $block = $self->{block};
    my @exact = grep { is_host_name($_) } @{ $block->{names} };
    my @known = grep { $self->{tree}->is_dir($_) }
        map { $self->directory(host_directory($pattern, $_)) } @exact;
    $block->{root} = $known[0];
    add_once($block->{roots}, @known);
    my %taken = map { $_ => 1 } @known;
    my ($before, $after) = $pattern =~ /\A([^%]*)%0([^%]*)\z/;
    if (!defined $before) {
        my $object = defined $exact[0] ? $exact[0] : $block->{file};
        my $text = "The directory $pattern ($block->{file}) depends on the request;"
            . ' only those of its names are taken: copy others by hand';
        $self->{problems}->add(severity => 'error', object => $object, text => $text);
        return;
    }
    (my $glob = $self->directory("$before\x01$after")) =~ s/([*?\[\\])/\\$1/g;
    $glob =~ s/\x01/*/;
    my $matches = join '([^/]+)', map { quotemeta } split /\x01/, $self->directory("$before\x01$after"), -1;
    my @hosts;
    for my $directory (grep { !$taken{$_} && $self->{tree}->is_dir($_) } $self->{tree}->glob($glob)) {
        my ($host) = $directory =~ /\A$matches\z/ or next;
        push @hosts, $self->host_block(lc $host, $directory) if is_host_name($host) && $host =~ /\./;
    }
    return @hosts;
}

sub host_block {
    my ($self, $host, $root) = @_;
    my $block = $self->{block};
    my $copy = Linux::Site::copy_of($block);
    return { %$copy, names => [$host], root => $root, content => 1, roots => [] };
}

# Fills a directory pattern with a host: %0 all of it, %N its part N, %-N counted from
# the end, with "+" that part and all on that side of it; %N.M letter M of a part.
sub host_directory {
    my ($pattern, $host) = @_;
    my @parts = split /\./, $host;
    $pattern =~ s{%(?:(-?\d+)(\+?)(?:\.(-?\d+)(\+?))?|(%))}
        {defined $5 ? '%' : piece(piece_of_list(\@parts, '.', $1, $2), $3, $4)}ge;
    return $pattern;
}

sub piece {
    my ($text, $number, $open) = @_;
    return $text if !defined $number;
    return piece_of_list([split //, $text], '', $number, $open);
}

sub piece_of_list {
    my ($list, $glue, $number, $open) = @_;
    return join $glue, @$list if $number == 0;
    my $at = $number > 0 ? $number - 1 : @$list + $number;
    # The server, too, writes "_" for a part that the host does not have.
    return '_' if $at < 0 || $at > $#$list;
    my @taken = !$open ? $at : $number > 0 ? ($at .. $#$list) : (0 .. $at);
    return join $glue, @$list[@taken];
}

1;
