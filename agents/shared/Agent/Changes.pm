# What is different between an earlier manifest of an object and one of now: what an increment must have,
# and what it must not read again.
package Agent::Changes;

use strict;
use warnings;
use Agent::Manifest;

# manifest => Agent::Manifest of now, earlier => what Agent::Manifest::kept() gave, private => Agent::Private,
# worth => sub { ($bytes) }, which is true if an increment of so many bytes is worth it. Gives undef if it
# is not.
sub find {
    my ($class, %options) = @_;
    my $self = bless { %options, bytes => 0, files => 0, entered => {}, gone => undef }, $class;
    my $buffer = '';
    my $not_worth = "no\n";
    my $gone = $self->{private}->create("$Agent::Manifest::DIRECTORY/gone");
    my $done = eval {
        $self->{manifest}->compare($self->{earlier},
            changed => sub { $self->changed(@_); $self->{worth}->($self->{bytes}) or die $not_worth },
            vanished => sub { $gone->write(".$_[0]\0"); $self->{gone} = $gone });
        1;
    };
    return $self if $done;
    return undef if $@ eq $not_worth;
    die $@;
}

sub changed {
    my ($self, $path, $bytes) = @_;
    $self->{bytes} += $bytes;
    # Each directory above must be gone through; where one is noted, those above it are, too.
    do { return if $self->{entered}{$path}++ } while $path =~ s{/[^/]*\z}{} && length $path;
    return;
}

# Bytes that an archive of the changes takes at most.
sub bytes { return $_[0]{bytes} }

sub is_empty { return !%{ $_[0]{entered} } && !$_[0]{gone} }

# The file with what has vanished, as Agent::Chain takes it; undef where nothing has.
sub gone_path { return $_[0]{gone} ? $_[0]{gone}->temporary_path : undef }

# For one run of tar that begins in a directory with these names: a file with what it leaves out, one name
# in a line. undef where there is nothing to pack. Names that cannot be in such a file are packed again.
sub unchanged {
    my ($self, $directory, @names) = @_;
    my %start = map { $directory . substr($_, 1) => 1 } @names;
    return if !grep { $self->{entered}{$_} } keys %start;
    my $file = $self->{private}->create("$Agent::Manifest::DIRECTORY/unchanged" . $self->{files}++);
    my $records = $self->{manifest}->records_again;
    while (defined(my $record = $records->())) {
        my $path = Agent::Manifest::path_of($record);
        next if $self->{entered}{$path};
        (my $above = $path) =~ s{/[^/]*\z}{};
        next if !$start{$path} && !$self->{entered}{$above} || index($path, "$directory/") != 0;
        $file->write('.' . substr($path, length $directory) . "\n") if $path !~ /\n|\s\z/;
    }
    return $file;
}

1;
