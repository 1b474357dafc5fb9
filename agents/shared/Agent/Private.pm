# The agent directory and what is written into it. Whatever account the agent runs
# as, its files belong to the owner of that directory with mode 0600, its directories
# with mode 0700. Nothing is written through a link: a file appears under its name
# only when it is complete, and directories must be real ones.
package Agent::Private;

use strict;
use warnings;
use Digest::MD5 ();
use Errno qw(ENOENT EINTR);
use Fcntl qw(O_RDONLY O_WRONLY O_CREAT O_EXCL O_APPEND O_NOFOLLOW O_NONBLOCK S_ISDIR S_ISREG);
use IO::Handle ();

my $LONGEST_NAME = 180;

# Takes the directory over; dies where that is not possible.
sub new {
    my ($class, $dir) = @_;
    my $self = bless { dir => $dir, safe => {} }, $class;
    my @stat = lstat $dir or die "Cannot find the agent directory $dir: $!\n";
    @$self{qw(uid gid)} = @stat[4, 5];
    die "The agent directory $dir belongs to another account\n" if $> && $> != $self->{uid};
    $self->take_directory($dir);
    return $self;
}

sub dir { return $_[0]{dir} }

sub path { return "$_[0]{dir}/$_[1]" }

# A file name that stands for any bytes, a different one for different bytes. It is
# never special to a shell or a program.
sub safe_name {
    my ($text) = @_;
    utf8::encode($text) if utf8::is_utf8($text);
    my $name = $text;
    $name =~ s/([^A-Za-z0-9._-]|\A[.-])/sprintf '=%02X', ord $1/ge;
    $name = substr($name, 0, $LONGEST_NAME - 34) . '==' . Digest::MD5::md5_hex($text)
        if length $name > $LONGEST_NAME;
    return length $name ? $name : '=';
}

# Gives a directory to the owner of the agent directory, closed to other accounts.
sub take_directory {
    my ($self, $path) = @_;
    my @stat = lstat $path;
    die "$path is not a directory of its own\n" if !@stat || !S_ISDIR($stat[2]);
    my $owned = $stat[4] == $self->{uid} && $stat[5] == $self->{gid};
    $owned || $> || chown $self->{uid}, $self->{gid}, $path or die "Cannot change the owner of $path: $!\n";
    ($stat[2] & 07777) == 0700 || chmod 0700, $path or die "Cannot change the mode of $path: $!\n";
    return;
}

# The directories below the agent directory that a file's name asks for, from the outermost on.
sub directories_above {
    my ($self, $name) = @_;
    my $path = $self->{dir};
    my @parts = split m{/}, $name;
    pop @parts;
    return map { $path .= "/$_"; "$path" } @parts;
}

# Makes the directories that the file's name asks for, below the agent directory.
sub make_directories {
    my ($self, $name) = @_;
    for my $path ($self->directories_above($name)) {
        next if $self->{safe}{$path};
        mkdir $path, 0700 or lstat $path or die "Cannot make $path: $!\n";
        $self->take_directory($path);
        $self->{safe}{$path} = 1;
    }
    return;
}

# A new file: write() to it, then keep() it under its name or drop() it.
sub create {
    my ($self, $name) = @_;
    $self->make_directories($name);
    my $path = $self->path($name);
    unlink "$path.new" or $! == ENOENT or die "Cannot remove $path.new: $!\n";
    # With O_EXCL nothing that is there is opened, and no link followed.
    sysopen my $handle, "$path.new", O_WRONLY | O_CREAT | O_EXCL, 0600
        or die "Cannot make $path.new: $!\n";
    my $file = bless { handle => $handle, path => $path, pid => $$ }, 'Agent::Private::File';
    $self->hand_over($handle, "$path.new");
    return $file;
}

sub hand_over {
    my ($self, $handle, $path) = @_;
    binmode $handle;
    $> || chown $self->{uid}, $self->{gid}, $handle or die "Cannot change the owner of $path: $!\n";
    chmod 0600, $handle or die "Cannot change the mode of $path: $!\n";
    return;
}

# Readers of the file see the old bytes or the new ones.
sub replace {
    my ($self, $name, $bytes) = @_;
    my $file = $self->create($name);
    $file->write($bytes);
    $file->settle;
    $file->keep;
    return;
}

# Path of a file below real directories of the agent; dies where a link would lead out.
sub inner_path {
    my ($self, $name) = @_;
    for my $directory ($self->directories_above($name)) {
        my @stat = lstat $directory or last;
        die "$directory is not a directory of its own\n" if !S_ISDIR($stat[2]);
    }
    return $self->path($name);
}

# A file of this directory, opened for reading or appending; undef where it is not
# there. Dies for anything that is not a plain file of the right owner.
sub open_own {
    my ($self, $name, $flags) = @_;
    my $path = $self->inner_path($name);
    if (!sysopen my $handle, $path, $flags | O_NOFOLLOW | O_NONBLOCK, 0600) {
        return if $! == ENOENT;
        die "Cannot open $path: $!\n";
    }
    else {
        my @stat = stat $handle;
        my $own = $stat[4] == $self->{uid} || $stat[4] == $>;
        die "$path is not a plain file of the agent\n" if !S_ISREG($stat[2]) || $stat[3] != 1 || !$own;
        return $handle;
    }
}

sub open_append {
    my ($self, $name) = @_;
    my $handle = $self->open_own($name, O_WRONLY | O_APPEND | O_CREAT);
    $self->hand_over($handle, $self->path($name));
    return $handle;
}

# The bytes of a file; undef where it is not there.
sub read {
    my ($self, $name) = @_;
    my $handle = $self->open_own($name, O_RDONLY) or return;
    binmode $handle;
    local $/;
    my $bytes = <$handle>;
    return defined $bytes ? $bytes : '';
}

# Size and time of change of a plain file; nothing where there is none.
sub facts {
    my ($self, $name) = @_;
    my @stat = lstat $self->inner_path($name);
    return @stat && S_ISREG($stat[2]) ? @stat[7, 9] : ();
}

sub remove {
    my ($self, $name) = @_;
    my $path = $self->inner_path($name);
    unlink $path or $! == ENOENT or die "Cannot remove $path: $!\n";
    return;
}

# The names of all that lies below a directory and is not a directory itself.
sub files_below {
    my ($self, $directory) = @_;
    opendir my $listing, $self->inner_path("$directory/.") or return ();
    my @names = grep { !/\A\.\.?\z/ } readdir $listing;
    closedir $listing;
    return map {
        my $name = "$directory/$_";
        my @stat = lstat $self->path($name);
        @stat && S_ISDIR($stat[2]) ? $self->files_below($name) : $name;
    } sort @names;
}

# A write may take fewer bytes than it was given.
sub write_all {
    my ($handle, $bytes, $path) = @_;
    my $done = 0;
    while ($done < length $bytes) {
        my $wrote = syswrite $handle, $bytes, length($bytes) - $done, $done;
        next if !defined $wrote && $! == EINTR;
        die "Cannot write $path: $!\n" if !defined $wrote;
        $done += $wrote;
    }
    return;
}

# A file that is not there under its name yet; gone unless it is kept.
package Agent::Private::File;

use strict;
use warnings;

sub write {
    my ($self, $bytes) = @_;
    Agent::Private::write_all($self->{handle}, $bytes, $self->{path});
    return;
}

# Where other programs find the bytes before the file is kept.
sub temporary_path { return "$_[0]{path}.new" }

# Has the bytes on the disk, for what must hold after a power cut too.
sub settle {
    my ($self) = @_;
    $self->{handle}->sync or die "Cannot write $self->{path}: $!\n";
    return;
}

sub keep {
    my ($self) = @_;
    my $path = $self->{path};
    close $self->{handle} or die "Cannot write $path: $!\n";
    rename "$path.new", $path or die "Cannot rename $path.new: $!\n";
    delete $self->{handle};
    return;
}

sub drop {
    my ($self) = @_;
    # A forked child must not take its parent's file away.
    return if !$self->{handle} || $self->{pid} != $$;
    close delete $self->{handle};
    unlink "$self->{path}.new";
    return;
}

sub DESTROY {
    my ($self) = @_;
    local ($@, $!, $?);
    $self->drop;
    return;
}

1;
