# The archives of one object: a whole one, the base, and increments in their order, each with a list of what
# had vanished since the one before. Unpacked in order, each after its list was removed, they are the object.
#
# An increment follows only what was fetched. Who fetches removes a file here when it is complete and on
# disk there; so an archive that is noted and not here was fetched, and nothing else here removes one without
# taking it out of the notes first.
package Agent::Chain;

use strict;
use warnings;
use Agent::Archive;
use Agent::Manifest;
use Agent::Process qw(stream);

# What was made in one go is fetched in one go.
my $NO_FINGERPRINT = '-';

# kept => Agent::Kept, private => Agent::Private, name => the base's name below the agent directory,
# signature => what must be alike for an increment.
sub new {
    my ($class, %options) = @_;
    my $self = bless { %options, links => [] }, $class;
    my ($stem, $ending) = $self->{name} =~ /\A(.*?)(\.tar(?:\.gz)?)\z/s;
    @$self{qw(stem ending)} = ($stem, $ending);
    my $kept = $self->{kept};
    if (!defined $stem) {
        # A dump of a database: it stays whole.
        push @{ $self->{links} }, grep { $_->{archive} } { archive => $kept->noted($self->{name}) };
        return $self;
    }
    while (my $archive = $kept->noted($self->name_of(scalar @{ $self->{links} }))) {
        my $gone = $kept->noted($self->gone_name_of(scalar @{ $self->{links} }));
        push @{ $self->{links} }, { archive => $archive, gone => $gone };
    }
    return $self;
}

# Nothing else makes a name with this sign before a full stop.
sub name_of {
    my ($self, $number) = @_;
    return $number ? "$self->{stem}=.$number$self->{ending}" : $self->{name};
}

sub gone_name_of {
    my ($self, $number) = @_;
    (my $name = $self->name_of($number)) =~ s/\.tar(\.gz)?\z/'.gone' . ($1 || '')/es;
    return $name;
}

sub manifest_name_of {
    my ($self, $number) = @_;
    (my $name = $self->name_of($number)) =~ s{\A[^/]*}{$Agent::Manifest::DIRECTORY};
    return $name;
}

# Names of all its files, below the agent directory.
sub names {
    my ($self) = @_;
    return map { $_->{name} } map { grep {defined} $_->{archive}, $_->{gone} } @{ $self->{links} };
}

# What says by which files it can be followed.
sub manifest_names { return map { $_[0]->manifest_name_of($_) } 0 .. $#{ $_[0]{links} } }

# The base with its `increments`, each { %archive, gone => list or undef }.
sub content {
    my ($self) = @_;
    my ($base, @increments) = @{ $self->{links} };
    @increments = map { { %{ $_->{archive} }, gone => $_->{gone} } } @increments;
    return { %{ $base->{archive} }, increments => \@increments };
}

sub files_of {
    my ($link) = @_;
    return grep {defined} @$link{qw(archive gone)};
}

sub is_fetched {
    my ($self, $link) = @_;
    return !grep { $self->{private}->facts($_->{name}) } files_of($link);
}

# Whether it is the object with that fingerprint: all of it is here, or was fetched if that is enough.
sub holds {
    my ($self, $fingerprint, $may_be_fetched) = @_;
    my @links = @{ $self->{links} };
    return 0 if !@links || $links[-1]{archive}{fingerprint} ne $fingerprint;
    return @links == 1 && $self->{kept}->find($self->{name}) ? 1 : 0 if !$may_be_fetched;
    for my $file (map { files_of($_) } @links) {
        return 0 if $self->{private}->facts($file->{name}) && !$self->{kept}->find($file->{name});
    }
    return 1;
}

# Takes away what was not fetched, from the first such archive on. Returns whether the rest can be
# followed by an increment.
sub can_be_followed {
    my ($self) = @_;
    my $links = $self->{links};
    my $fetched = 0;
    $fetched++ while $fetched < @$links && $self->is_fetched($links->[$fetched]);
    $self->drop_from($fetched);
    return 0 if !@$links || $self->weight >= $links->[0]{archive}{unpacked} / 2;
    return defined $self->manifest ? 1 : 0;
}

# What the last archive has, as Agent::Manifest::kept() gives it.
sub manifest {
    my ($self) = @_;
    my $last = $#{ $self->{links} };
    my ($name, $label) = ($self->manifest_name_of($last), $self->label_of($last));
    return scalar Agent::Manifest::kept($self->{private}, $name, $label);
}

sub label_of {
    my ($self, $number) = @_;
    return "$self->{links}[$number]{archive}{md5} $self->{signature}";
}

# Bytes of all increments, unpacked.
sub weight {
    my ($self) = @_;
    my $weight = 0;
    $weight += $_->{archive}{unpacked} for @{ $self->{links} }[1 .. $#{ $self->{links} }];
    return $weight;
}

# Whether an increment of these bytes is worth it.
sub is_worth {
    my ($self, $bytes) = @_;
    return $self->weight + $bytes < $self->{links}[0]{archive}{unpacked} / 2;
}

# Takes archives away, from one of this number on.
sub drop_from {
    my ($self, $number) = @_;
    my @names = map { $_->{name} } map { files_of($_) } splice @{ $self->{links} }, $number;
    $self->{kept}->forget(@names);
    $self->{private}->remove($_) for @names;
    return;
}

# The object is still what the archives are, though it looks otherwise now.
sub renew_fingerprint {
    my ($self, $fingerprint) = @_;
    $self->{links}[-1]{archive} = $self->{kept}->renew($self->name_of($#{ $self->{links} }), $fingerprint);
    return;
}

# Name of the archive that comes next.
sub next_name { return $_[0]->name_of(scalar @{ $_[0]{links} }) }

# Puts a complete archive, and the list of what vanished before it, if any, at the end; and what is
# known of it by an Agent::Manifest, if that is given. Dies where that cannot be kept; the archive is at
# the end then, too, and cannot be followed.
sub append {
    my ($self, $archive, $fingerprint, $gone, $manifest) = @_;
    my ($kept, $number) = ($self->{kept}, scalar @{ $self->{links} });
    # The list first: without it the archive is wrong.
    my $list = $gone ? $kept->add($gone, $NO_FINGERPRINT) : undef;
    push @{ $self->{links} }, { archive => $kept->add($archive, $fingerprint), gone => $list };
    # Those before the last but one are followed by nothing any more.
    $self->{private}->remove($self->manifest_name_of($_)) for grep { $_ >= 0 } $number - 2;
    return if !$manifest || $manifest->is_spoilt;
    $manifest->keep($self->manifest_name_of($number), $self->label_of($number));
    return;
}

# Makes the list for the archive that comes next of a file with paths, each ended by a null byte: what
# lies in a directory comes before it.
sub make_gone_list {
    my ($self, $compress, $path) = @_;
    my $name = $self->gone_name_of(scalar @{ $self->{links} });
    my $list = Agent::Archive->new(private => $self->{private}, name => $name, bytes => -s $path,
        compress => $compress);
    my $result = stream(['sort', '-z', '-r', '-S', '16M', '-T', $self->{private}->dir, $path],
        out => sub { $list->put($_[0]); 1 });
    die "sort has failed: $result->{err}\n" if $result->{status};
    return $list->complete;
}

1;
