# What an archive has, by its names: a file of the agent that says of each whether it is a directory, and a
# digest of what can be seen of it without reading it. By it a later archive leaves out what has not
# changed, and what has vanished is known. In constant memory: the host's sort brings the names together.
#
# tar's own listed-incremental format is not used: it takes what changed after a time, so that a change is
# lost once the clock was set back; a directory that was renamed comes without its files; and it cannot be
# asked for what changed while it was read (--newer), as Agent::Tar does.
package Agent::Manifest;

use strict;
use warnings;
use Agent::Archive;
use Agent::Process qw(stream);
use Digest::MD5 qw(md5_base64);
use Fcntl qw(O_RDONLY);

our $DIRECTORY = 'known';

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

# Forgets all that was added.
sub restart {
    my ($self) = @_;
    delete @$self{qw(seen sorted)};
    @$self{qw(buffer without)} = ('', {});
    $self->{seen} = $self->{private}->create("$DIRECTORY/seen");
    return;
}

# A path was seen: its type as find names it, facts that change with it, and the bytes that it takes in
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

# What is in the archive is not known: nothing may be kept.
sub spoil {
    my ($self) = @_;
    $self->{spoilt} = 1;
    return;
}

sub is_spoilt { return $_[0]{spoilt} }

sub add {
    my ($self, $path, $type, $digest, $bytes) = @_;
    $self->{buffer} .= record("$path//", $type, $digest, int $bytes) . "\0";
    $self->write_buffer if length $self->{buffer} >= $PIECE;
    return;
}

sub write_buffer {
    my ($self) = @_;
    $self->{seen}->write($self->{buffer});
    $self->{buffer} = '';
    return;
}

# The records in the order of their names, each once: a function that gives one after the other, and
# undef after the last. path_of() and facts_of() take one apart.
sub records {
    my ($self) = @_;
    $self->write_buffer;
    # One that goes takes its file with it.
    delete $self->{sorted};
    my $sorted = $self->{sorted} = $self->{private}->create("$DIRECTORY/sorted");
    my $dir = $self->{private}->dir;
    my $result = stream(['sort', '-z', '-S', '16M', '-T', $dir, $self->{seen}->temporary_path],
        out => sub { $sorted->write($_[0]); 1 });
    die "sort has failed: $result->{err}\n" if $result->{status};
    return $self->records_again;
}

# The same records once more, without those that came after.
sub records_again {
    my ($self) = @_;
    my $without = $self->{without};
    my $read = reader_of($self->{sorted}->temporary_path);
    my $next = $read->();
    return sub {
        while (defined $next) {
            my $record = $next;
            my $key = key_of($record);
            while (defined($next = $read->()) && has_key($next, $key)) { $record = both($record, $next) }
            # Most hosts have no such path, and most records no such mark.
            return $record if !%$without && index($record, " $PACKED ") < 0;
            return record($key, map { $_ eq $PACKED ? $UNSURE : $_ } facts_of($record))
                if !$without->{ path_of($record) };
        }
        return undef;
    };
}

# What was seen twice, and not alike, may be either.
sub both {
    my ($record, $again) = @_;
    my ($type, $digest) = facts_of($record);
    my ($again_type, $again_digest, $again_bytes) = facts_of($again);
    return $again if $digest eq $PACKED;
    return $record if $again_digest eq $PACKED || $again_digest eq $digest;
    return record(key_of($record), $type eq '?' ? $again_type : $type, $UNSURE, $again_bytes);
}

# --- One record: "path//type digest bytes". A manifest has one for each of a million files, so it stays
# a string. No path has two slashes in a row, so that these end it, and records sort by the path alone.

sub record { my ($key, @facts) = @_; return $key . join ' ', @facts }

# The path and the two slashes.
sub key_of { return substr $_[0], 0, 2 + rindex $_[0], '//' }

sub has_key { return substr($_[0], 0, length $_[1]) eq $_[1] }

sub path_of { return substr $_[0], 0, rindex $_[0], '//' }

# (type, digest, bytes)
sub facts_of { return split / /, substr $_[0], 2 + rindex $_[0], '//' }

sub reader_of {
    my ($path) = @_;
    open my $handle, '<', $path or die "Cannot open $path: $!\n";
    binmode $handle;
    return sub { return next_record($handle) };
}

sub next_record {
    my ($handle) = @_;
    local $/ = "\0";
    my $record = readline $handle;
    return undef if !defined $record;
    # Half a record is none.
    return chomp $record ? $record : undef;
}

# Writes it under a name below the agent directory; `label` must be given to read it again.
sub keep {
    my ($self, $name, $label) = @_;
    my $records = $self->records;
    my $file = Agent::Archive->new(private => $self->{private}, name => $name, compress => 0,
        bytes => -s $self->{sorted}->temporary_path);
    $file->put("$HEADER $label\0");
    my $buffer = '';
    while (defined(my $record = $records->())) {
        # The number of bytes at its end is of no use later.
        $buffer .= substr($record, 0, 1 + rindex $record, ' ') . "0\0";
        next if length $buffer < $PIECE;
        $file->put($buffer);
        $buffer = '';
    }
    $file->put("$buffer$END\0");
    $file->complete;
    return;
}

# Records of a manifest that was kept under this name with this label, as records() gives them; nothing
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
        return !defined $record || $record eq $END ? undef : $record;
    };
}

# What is different from an earlier manifest, as kept() gives it: changed => sub { ($path, $bytes) } for what
# is new or changed, vanished => sub { ($path) } for what is gone, or in the way of what came in its place.
sub compare {
    my ($self, $earlier, %options) = @_;
    my $records = $self->records;
    my $old = $earlier->();
    while (defined(my $record = $records->())) {
        my $key = key_of($record);
        # One with the same key has more behind it, and is greater.
        for (; defined $old && $old lt $key; $old = $earlier->()) { $options{vanished}->(path_of($old)) }
        my ($type, $digest, $bytes) = facts_of($record);
        if (defined $old && has_key($old, $key)) {
            my ($old_type, $old_digest) = facts_of($old);
            $old = $earlier->();
            next if $old_digest eq $digest && $old_digest ne $UNSURE;
            # A directory is never replaced by what is none, nor the other way round.
            $options{vanished}->(path_of($record)) if ($old_type eq 'd') != ($type eq 'd');
        }
        $options{changed}->(path_of($record), $bytes);
    }
    for (; defined $old; $old = $earlier->()) { $options{vanished}->(path_of($old)) }
    return;
}

1;
