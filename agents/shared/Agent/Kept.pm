# What the agent remembers of the archives it has made: their sizes, sums and the
# fingerprint of what is in them. Each is noted as soon as it is complete, so that
# a dump that was ended half way goes on where it was. The archives of a dump may
# be listed only after it has said that it is complete.
package Agent::Kept;

use strict;
use warnings;
use IO::Handle ();

my $FILE   = 'state';
my $HEADER = "state 1";

sub new {
    my ($class, $private) = @_;
    my $self = bless { private => $private, archives => {}, complete => 0 }, $class;
    my $bytes = $private->read($FILE);
    my @lines = defined $bytes ? $bytes =~ /([^\n]*)\n/g : ();
    return $self if !@lines || shift @lines ne $HEADER;
    for my $line (@lines) {
        my ($word, @values) = split /\t/, $line;
        if    ($word eq 'complete')  { $self->{complete} = 1 }
        elsif ($word eq 'forgotten') { delete $self->{archives}{ $values[0] } if @values }
        elsif (@values == 6)         { $self->remember(archive_of(@values)) }
    }
    return $self;
}

my @FIELDS = qw(name size md5 unpacked changed fingerprint);

sub archive_of {
    my %archive;
    @archive{@FIELDS} = @_;
    return \%archive;
}

sub line_of {
    my ($archive) = @_;
    return join("\t", 'archive', @$archive{@FIELDS}) . "\n";
}

sub remember {
    my ($self, $archive) = @_;
    $self->{archives}{ $archive->{name} } = $archive;
    return;
}

sub complete { return $_[0]{complete} }

# Begins a dump: from now on it is not complete, with the archives so far.
sub begin {
    my ($self) = @_;
    $self->{complete} = 0;
    $self->save;
    return;
}

# The archive if it is still there as it was made; undef otherwise.
sub find {
    my ($self, $name) = @_;
    my $archive = $self->{archives}{$name} or return;
    my ($size, $changed) = $self->{private}->facts($name) or return;
    return $size == $archive->{size} && $changed == $archive->{changed} ? $archive : undef;
}

# The archive as it was made, whether it is still there or not; undef for one that was not made.
sub noted { return $_[0]{archives}{ $_[1] } }

# Notes a complete archive, { name, size, md5, unpacked }.
sub add {
    my ($self, $made, $fingerprint) = @_;
    my ($size, $changed) = $self->{private}->facts($made->{name}) or die "$made->{name} is gone\n";
    return $self->note({ %$made, changed => $changed, fingerprint => $fingerprint });
}

# Gives an archive that is noted another fingerprint.
sub renew {
    my ($self, $name, $fingerprint) = @_;
    return $self->note({ %{ $self->{archives}{$name} }, fingerprint => $fingerprint });
}

sub note {
    my ($self, $archive) = @_;
    $self->remember($archive);
    $self->append(line_of($archive));
    return $archive;
}

sub append {
    my ($self, $text, $settles) = @_;
    my $handle = $self->{private}->open_append($FILE);
    Agent::Private::write_all($handle, $text, $FILE);
    $handle->sync or die "Cannot write $FILE: $!\n" if $settles;
    close $handle or die "Cannot write $FILE: $!\n";
    return;
}

# Takes archives out of the notes, on the disk too: only then may they be removed, for one that is noted and
# not there was fetched.
sub forget {
    my ($self, @names) = @_;
    my @noted = grep { delete $self->{archives}{$_} } @names;
    $self->append(join('', map {"forgotten\t$_\n"} @noted), 1) if @noted;
    return;
}

# Removes whatever is below the directory but these archives.
sub retain {
    my ($self, $directory, @names) = @_;
    my %wanted = map { $_ => 1 } @names;
    $self->forget(grep { !$wanted{$_} } sort keys %{ $self->{archives} });
    $self->{private}->remove($_) for grep { !$wanted{$_} } $self->{private}->files_below($directory);
    return;
}

# The dump is complete with what has been added or retained.
sub finish {
    my ($self) = @_;
    $self->{complete} = 1;
    $self->save;
    return;
}

sub save {
    my ($self) = @_;
    my $text = "$HEADER\n";
    $text .= line_of($_) for $self->all;
    $text .= "complete\n" if $self->{complete};
    $self->{private}->replace($FILE, $text);
    return;
}

sub all { return map { $_[0]{archives}{$_} } sort keys %{ $_[0]{archives} } }

1;
