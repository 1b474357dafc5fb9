# What an archive has, by its names: a file of the agent that says of each whether it is a folder, and a
# digest of what can be seen of it without reading it. By it a later archive leaves out what has not
# changed, and what has vanished is known. In constant memory: the host's sort brings the names together.
#
# tar's own listed-incremental format is not used: it takes what changed after a time, so that a change is
# lost once the clock was set back; a folder that was renamed comes without its files; and it cannot be
# asked for what changed while it was read (--newer), as Agent::Tar does.
package Agent::Manifest;

use strict;
use warnings;
use Agent::Archive;
use Agent::Process qw(stream);
use Digest::MD5 qw(md5_base64);
use Fcntl qw(O_RDONLY);

our $FOLDER = 'known';

my $HEADER = 'manifest 1';
my $END    = '//end';
my $PIECE  = 65536;
# In place of a digest: what nobody can be sure of counts as changed; and what tar says to have packed.
my $UNSURE = '?';
my $PACKED = '!';

# Begins an empty one, to be filled by found() and unsure(). private => Agent::Private.
sub new {
    my ($class, $private) = @_;
    my $self = bless { private => $private }, $class;
    $self->restart;
    return $self;
}

# Forgets all that it was told.
sub restart {
    my ($self) = @_;
    delete @$self{qw(seen sorted)};
    @$self{qw(buffer without)} = ('', {});
    $self->{seen} = $self->{private}->create("$FOLDER/seen");
    return;
}

# A path was seen: its type as find tells it, facts that change with it, and the bytes that it takes in
# an archive.
sub found {
    my ($self, $path, $type, $facts, $bytes) = @_;
    (my $digest = md5_base64($facts)) =~ tr{/}{-};
    return $self->add($path, $type, $digest, $bytes);
}

# A path may be in the archive in a state that is not known; it takes these bytes there.
sub unsure {
    my ($self, $path, $type, $bytes) = @_;
    return $self->add($path, $type, $UNSURE, $bytes);
}

# A path is in the archive, whether it was seen before or not.
sub packed {
    my ($self, $path, $type) = @_;
    return $self->add($path, $type, $PACKED, 0);
}

# A path was seen and is left out after all.
sub leave_out {
    my ($self, $path) = @_;
    $self->{without}{$path} = 1;
    return;
}

# Nobody knows what is in the archive: nothing is to be kept.
sub spoil {
    my ($self) = @_;
    $self->{spoilt} = 1;
    return;
}

sub is_spoilt { return $_[0]{spoilt} }

# No path has two slashes in a row, so that these end it; and lines sort by the path alone.
sub add {
    my ($self, $path, $type, $digest, $bytes) = @_;
    $self->{buffer} .= "$path//" . join(' ', $type, $digest, int $bytes) . "\0";
    $self->write_buffer if length $self->{buffer} >= $PIECE;
    return;
}

sub write_buffer {
    my ($self) = @_;
    $self->{seen}->write($self->{buffer});
    $self->{buffer} = '';
    return;
}

# The entries in the order of their names, each once: a function that gives { path, key, type, digest,
# bytes }, and undef after the last.
sub entries {
    my ($self) = @_;
    $self->write_buffer;
    # One that goes takes its file with it.
    delete $self->{sorted};
    my $sorted = $self->{sorted} = $self->{private}->create("$FOLDER/sorted");
    my $dir = $self->{private}->dir;
    my $result = stream(['sort', '-z', '-S', '16M', '-T', $dir, $self->{seen}->temporary_path],
        out => sub { $sorted->write($_[0]); 1 });
    die "sort has failed: $result->{err}\n" if $result->{status};
    return $self->entries_again;
}

# The same entries once more, without those that came after.
sub entries_again {
    my ($self) = @_;
    my $without = $self->{without};
    my $records = records_of($self->{sorted}->temporary_path);
    my $next = $records->();
    return sub {
        while (defined $next) {
            my $entry = $next;
            while (defined($next = $records->()) && $next->{key} eq $entry->{key}) {
                $entry = both($entry, $next);
            }
            $entry->{digest} = $UNSURE if $entry->{digest} eq $PACKED;
            return $entry if !$without->{ $entry->{path} };
        }
        return undef;
    };
}

# What was seen twice, and not alike, may be either.
sub both {
    my ($entry, $again) = @_;
    return $again if $entry->{digest} eq $PACKED;
    return $entry if $again->{digest} eq $PACKED || $again->{digest} eq $entry->{digest};
    return { %$again, digest => $UNSURE, type => $entry->{type} eq '?' ? $again->{type} : $entry->{type} };
}

sub records_of {
    my ($path) = @_;
    open my $handle, '<', $path or die "Cannot open $path: $!\n";
    binmode $handle;
    return sub { return entry_of(next_record($handle)) };
}

sub next_record {
    my ($handle) = @_;
    local $/ = "\0";
    my $record = readline $handle;
    return undef if !defined $record;
    # Half a record is none.
    return chomp $record ? $record : undef;
}

sub entry_of {
    my ($record) = @_;
    return undef if !defined $record;
    my $end = rindex $record, '//';
    my ($type, $digest, $bytes) = split / /, substr $record, $end + 2;
    return {
        path => substr($record, 0, $end), key => substr($record, 0, $end + 2), type => $type,
        digest => $digest, bytes => $bytes,
    };
}

# Writes it under a name below the agent directory; `label` must be given to read it again.
sub keep {
    my ($self, $name, $label) = @_;
    my $entries = $self->entries;
    my $file = Agent::Archive->new(private => $self->{private}, name => $name, compress => 0,
        bytes => -s $self->{sorted}->temporary_path);
    $file->put("$HEADER $label\0");
    my $buffer = '';
    while (my $entry = $entries->()) {
        $buffer .= $entry->{key} . join(' ', @$entry{qw(type digest)}, 0) . "\0";
        next if length $buffer < $PIECE;
        $file->put($buffer);
        $buffer = '';
    }
    $file->put("$buffer$END\0");
    $file->complete;
    return;
}

# Entries of a manifest that was kept under this name with this label, as entries() gives them; nothing
# where there is no whole one.
sub kept {
    my ($private, $name, $label) = @_;
    my ($size) = $private->facts($name) or return;
    my $handle = $private->open_own($name, O_RDONLY) or return;
    binmode $handle;
    my $end = "\0$END\0";
    return if $size < length $end;
    seek $handle, -length $end, 2 or return;
    read $handle, my ($last), length $end;
    seek $handle, 0, 0 or return;
    my $header = next_record($handle);
    return if $last ne $end || !defined $header || $header ne "$HEADER $label";
    return sub {
        my $record = next_record($handle);
        return !defined $record || $record eq $END ? undef : entry_of($record);
    };
}

# What is different from an earlier manifest, as kept() gives it: changed => sub { ($entry) } for what is
# new or changed, vanished => sub { ($path) } for what is gone, or in the way of what came in its place.
sub compare {
    my ($self, $earlier, %options) = @_;
    my $entries = $self->entries;
    my $old = $earlier->();
    while (my $entry = $entries->()) {
        while ($old && $old->{key} lt $entry->{key}) {
            $options{vanished}->($old->{path});
            $old = $earlier->();
        }
        if ($old && $old->{key} eq $entry->{key}) {
            my $was = $old;
            $old = $earlier->();
            next if $was->{digest} eq $entry->{digest} && $was->{digest} ne $UNSURE;
            # A folder is never replaced by what is none, nor the other way round.
            $options{vanished}->($was->{path}) if ($was->{type} eq 'd') != ($entry->{type} eq 'd');
        }
        $options{changed}->($entry);
    }
    for (; $old; $old = $earlier->()) { $options{vanished}->($old->{path}) }
    return;
}

1;
