# One file of the dump's content while it is made: compressed if asked for, with
# its MD5 sum and sizes counted on the way, in constant memory. It never takes the
# last room of the file system. It is there only after complete(), and then complete.
package Agent::Archive;

use strict;
use warnings;
use Agent::Process qw(run start finish);
use Digest::MD5 ();
use Errno qw(EAGAIN EINTR);
use Fcntl qw(F_GETFL F_SETFL O_NONBLOCK);
use IO::Select;

my $PIECE       = 65536;
my $CHECK_BYTES = 32 * 1024 * 1024;
my $MOST_SPARED = 64 * 1024 * 1024;

# What the host has said last of the room in a directory, and what was written there since.
my %told;
my $TOLD_SECONDS = 5;
my $AMPLE = 1024 * 1024 * 1024;

# private => Agent::Private, name => the file's name below it, compress => 0 or 1.
# Dies where there is no room for `bytes`, which are what it will need at most.
sub new {
    my ($class, %options) = @_;
    my $self = bless {
        %options, md5 => Digest::MD5->new, size => 0, unpacked => 0, checked => 0, waiting => '',
    }, $class;
    $self->check_room($options{bytes} || 0);
    $self->{file} = $self->{private}->create($self->{name});
    $self->start_gzip if $self->{compress};
    return $self;
}

sub start_gzip {
    my ($self) = @_;
    # No time and no name in it: the same content makes the same file.
    my $gzip = start(['gzip', '-c', '-n'], stdin => 'pipe');
    fcntl $gzip->{in}, F_SETFL, O_NONBLOCK | fcntl $gzip->{in}, F_GETFL, 0;
    @$self{qw(gzip pid)} = ($gzip, $$);
    return;
}

# Bytes that may be written without taking what the host itself needs; undef when
# the host does not say.
sub room {
    my ($dir) = @_;
    my $answer = run(['stat', '-f', '-c', '%a %b %S', $dir], limit => 30);
    my ($free, $all, $block) = $answer->{out} =~ /\A(\d+) (\d+) (\d+)$/ or return;
    my $spared = $all * $block / 100;
    $spared = $MOST_SPARED if $spared > $MOST_SPARED;
    return int($free * $block - $spared);
}

# Dies where there is no room for these bytes. The host is not asked again within seconds where far more was
# free than is needed: a dump has thousands of files, most of them small.
sub check_room {
    my ($self, $needed) = @_;
    my $dir = $self->{private}->dir;
    my $told = $told{$dir};
    return if $told && time - $told->{at} <= $TOLD_SECONDS && time >= $told->{at}
        && $told->{room} - $told->{written} - $needed > $AMPLE;
    my $room = room($dir);
    $told{$dir} = { room => $room, at => time, written => 0 } if defined $room;
    return if !defined $room || $room >= $needed && $room > 0;
    $room = 0 if $room < 0;
    die "No room: $needed bytes are needed and $room may be used\n" if $needed;
    die "No room is left\n";
}

sub put {
    my ($self, $bytes) = @_;
    $self->{unpacked} += length $bytes;
    return $self->store($bytes) if !$self->{gzip};
    $self->{waiting} .= $bytes;
    local $SIG{PIPE} = 'IGNORE';
    $self->exchange while length $self->{waiting};
    return;
}

# Gives gzip what it takes and takes what it gives; false after its last byte.
sub exchange {
    my ($self) = @_;
    my $gzip = $self->{gzip};
    my $reading = IO::Select->new($gzip->{out});
    my $writing = IO::Select->new(length $self->{waiting} ? $gzip->{in} : ());
    my ($readable, $writable) = IO::Select::select($reading, $writing);
    if (@{ $writable || [] }) {
        my $wrote = syswrite $gzip->{in}, $self->{waiting}, $PIECE;
        die "gzip has failed: $!\n" if !defined $wrote && $! != EAGAIN && $! != EINTR;
        substr($self->{waiting}, 0, $wrote) = '' if $wrote;
    }
    return 1 if !@{ $readable || [] };
    my $got = sysread $gzip->{out}, my ($bytes), $PIECE;
    return 1 if !defined $got && $! == EINTR;
    $self->store($bytes) if $got;
    return $got;
}

sub store {
    my ($self, $bytes) = @_;
    $self->{file}->write($bytes);
    $self->{md5}->add($bytes);
    $self->{size} += length $bytes;
    $told{ $self->{private}->dir }{written} += length $bytes if $told{ $self->{private}->dir };
    return if $self->{size} - $self->{checked} < $CHECK_BYTES;
    $self->{checked} = $self->{size};
    # Nothing else can be done while the disk takes what has come together.
    $self->{file}->settle;
    $self->check_room(0);
    return;
}

# The file's { name, size, md5, unpacked }.
sub complete {
    my ($self) = @_;
    if (my $gzip = $self->{gzip}) {
        close delete $gzip->{in};
        1 while $self->exchange;
        my $status = finish(delete $self->{gzip});
        die "gzip has failed with status $status\n" if $status;
    }
    $self->{file}->settle;
    $self->{file}->keep;
    return {
        name => $self->{name}, size => $self->{size}, unpacked => $self->{unpacked},
        md5 => $self->{md5}->hexdigest,
    };
}

sub DESTROY {
    my ($self) = @_;
    my $gzip = delete $self->{gzip};
    # Without its pipes it ends at once.
    finish($gzip) if $gzip && $self->{pid} == $$;
    return;
}

1;
