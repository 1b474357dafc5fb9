# What the agent remembers of the archives it has made: their sizes, sums and the
# fingerprint of what is in them. Each is noted as soon as it is complete, so that
# a dump that was ended half way goes on where it was. The archives of a dump may
# be listed only after it has said that it is complete.
package Agent::Kept;

use strict;
use warnings;

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
        if ($word eq 'complete') { $self->{complete} = 1 }
        elsif (@values == 6)     { $self->remember(archive_of(@values)) }
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

# Notes a complete archive, { name, size, md5, unpacked }.
sub add {
    my ($self, $made, $fingerprint) = @_;
    my ($size, $changed) = $self->{private}->facts($made->{name}) or die "$made->{name} is gone\n";
    my $archive = { %$made, changed => $changed, fingerprint => $fingerprint };
    $self->remember($archive);
    my $handle = $self->{private}->open_append($FILE);
    Agent::Private::write_all($handle, line_of($archive), $FILE);
    close $handle or die "Cannot write $FILE: $!\n";
    return $archive;
}

# Removes whatever is below the folder but these archives.
sub retain {
    my ($self, $folder, @names) = @_;
    my %wanted = map { $_ => 1 } @names;
    $self->{private}->remove($_) for grep { !$wanted{$_} } $self->{private}->files_below($folder);
    delete $self->{archives}{$_} for grep { !$wanted{$_} } keys %{ $self->{archives} };
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
