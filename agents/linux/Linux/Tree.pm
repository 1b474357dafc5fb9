# Read access to the files of a system whose root may be another directory than "/".
# Every path given and returned is one inside that system; symbolic links are
# followed inside it and never lead out. Failures leave their reason in $!.
#
# The owner of a site can put links into it, and root would follow them anywhere. So a
# link counts only if it is root's, or leads to what belongs to its owner or lies in a
# directory of the owner. Others are as if they could not be read, and refused() has them.
package Linux::Tree;

use strict;
use warnings;
use Agent::Directory qw(enter leave);
use Errno qw(EACCES ELOOP EINVAL EFBIG ENOENT);
use Fcntl qw(O_RDONLY O_NOFOLLOW O_NONBLOCK S_ISDIR S_ISREG S_ISLNK S_IWGRP S_IWOTH);

# Configurations name files that perl would otherwise wonder about.
no warnings 'newline';

my $MOST_LINKS = 40;
my $MOST_BYTES = 16 * 1024 * 1024;
# The most files of a directory that are open at the same time.
my $AT_A_TIME = 64;

sub new {
    my ($class, %options) = @_;
    my $root = defined $options{root} ? $options{root} : '/';
    $root =~ s{/+\z}{};
    return bless { root => $root, refused => {} }, $class;
}

# The directory that serves as "/".
sub root { return length $_[0]{root} ? $_[0]{root} : '/' }

# The path without ".", "..", doubled and final slashes; links are not looked at.
sub tidy {
    my ($self, $path) = @_;
    my @parts;
    for my $part (split m{/+}, $path) {
        next if $part eq '' || $part eq '.';
        if ($part eq '..') { pop @parts }
        else               { push @parts, $part }
    }
    return '/' . join '/', @parts;
}

# The path with all links resolved; undef when a part is missing.
sub real {
    my ($self, $path) = @_;
    return $self->resolve($path, 1);
}

# The links that a path leads through, each by its own path without links, and what
# the path ends at, if that is there.
sub trail {
    my ($self, $path) = @_;
    my @links;
    my $real = $self->resolve($path, 1, \@links);
    return (@links, defined $real ? $real : ());
}

# Links that were not followed: { path, owner (number), target }.
sub refused {
    my ($self) = @_;
    return map { $self->{refused}{$_} } sort keys %{ $self->{refused} };
}

# Resolves the links of all parts, the last one only if $follow. With
# $follow == 1 every part must exist; a missing last part is fine otherwise.
# Puts the links that were followed into the list, if there is one.
sub resolve {
    my ($self, $path, $follow, $followed) = @_;
    if (index($path, "\0") >= 0) {
        $! = ENOENT;
        return undef;
    }
    my @todo = grep { $_ ne '' && $_ ne '.' } split m{/+}, $path;
    # The parts that are done, who they belong to, and the links whose targets are not.
    my (@done, @owners, @open);
    my $links = 0;
    while (1) {
        while (@open && @todo <= $open[-1]{rest}) {
            $self->may_follow(pop @open, \@done, \@owners) or return undef;
        }
        last if !@todo;
        my $part = shift @todo;
        if ($part eq '..') {
            pop @done;
            pop @owners;
            next;
        }
        my $here = join '/', '', @done, $part;
        my @stat = lstat $self->{root} . $here;
        return undef if !@stat && !(!@todo && !$follow);
        if (!@stat || !S_ISLNK($stat[2]) || (!@todo && !$follow)) {
            push @done, $part;
            push @owners, @stat ? $stat[4] : -1;
            next;
        }
        my $target = $self->link_followed($here, ++$links);
        return undef if !defined $target;
        push @$followed, $here if $followed;
        # A second name of a link is of who could make it.
        my $owner = $stat[4] || $stat[3] == 1 ? $stat[4] : @owners ? $owners[-1] : 0;
        push @open, { path => $here, owner => $owner, target => $target, rest => scalar @todo } if $owner;
        @done = @owners = () if $target =~ m{^/};
        unshift @todo, grep { $_ ne '' && $_ ne '.' } split m{/+}, $target;
    }
    return join '/', '', @done ? @done : '';
}

sub link_followed {
    my ($self, $link, $number) = @_;
    return readlink $self->{root} . $link if $number <= $MOST_LINKS;
    $! = ELOOP;
    return undef;
}

# Whether the owner of a link may lead others to what it has led to.
sub may_follow {
    my ($self, $link, $done, $owners) = @_;
    return 1 if grep { $_ == $link->{owner} } @$owners;
    $self->{refused}{ $link->{path} } = { map { $_ => $link->{$_} } qw(path owner target) };
    $! = EACCES;
    return 0;
}

# Where the running system finds the object; a final link is resolved too. A path
# that is missing is only put below the root.
sub path {
    my ($self, $path) = @_;
    my $real = $self->real($path);
    return $self->{root} . (defined $real ? $real : $self->tidy($path));
}

sub stat {
    my ($self, $path) = @_;
    my $real = $self->real($path);
    return defined $real ? CORE::lstat($self->{root} . $real) : ();
}

sub lstat {
    my ($self, $path) = @_;
    my $real = $self->resolve($path, 0);
    return defined $real ? CORE::lstat($self->{root} . $real) : ();
}

sub exists { return scalar(my @stat = $_[0]->stat($_[1])) ? 1 : 0 }

sub is_dir {
    my ($self, $path) = @_;
    my @stat = $self->stat($path);
    return @stat && S_ISDIR($stat[2]) ? 1 : 0;
}

sub is_file {
    my ($self, $path) = @_;
    my @stat = $self->stat($path);
    return @stat && S_ISREG($stat[2]) ? 1 : 0;
}

sub is_link {
    my ($self, $path) = @_;
    my @stat = $self->lstat($path);
    return @stat && S_ISLNK($stat[2]) ? 1 : 0;
}

# True for what root owns and no other account may write.
sub is_of_root {
    my ($self, $path) = @_;
    my @stat = $self->stat($path);
    return @stat && $stat[4] == 0 && !($stat[2] & (S_IWGRP | S_IWOTH)) ? 1 : 0;
}

# True if what a file says may lead to another file: it is root's alone, or both have the same
# owner. So no account makes root pack what is another account's.
sub may_name {
    my ($self, $file, $other) = @_;
    return 1 if $self->is_of_root($file);
    my ($owner, $its) = map { ($self->stat($_))[4] } $file, $other;
    return defined $owner && defined $its && $owner == $its ? 1 : 0;
}

# Where a link points, as it is written in it.
sub link_target {
    my ($self, $path) = @_;
    my $real = $self->resolve($path, 0);
    return defined $real ? readlink $self->{root} . $real : undef;
}

# The bytes of a regular file of at most $most bytes (16 MiB unless given); undef
# for anything else, so that a pipe or a device in its place never blocks.
sub read_file {
    my ($self, $path, $most) = @_;
    return bytes_of($self->open_file($path), $most);
}

# Calls back with the name of each file of a directory that fits the pattern, and a reference to its
# bytes; the rest as read_file. For many files: the directory is looked for once for several of them.
sub read_each {
    my ($self, $directory, $pattern, $most, $do) = @_;
    my @names = grep { $_ =~ $pattern } $self->list($directory);
    while (my @some = splice @names, 0, $AT_A_TIME) {
        my %open = $self->open_some($directory, @some);
        for my $name (@some) {
            # A link leads elsewhere.
            my $bytes = bytes_of(delete $open{$name} || $self->open_file("$directory/$name"), $most);
            $do->($name, \$bytes) if defined $bytes;
        }
    }
    return;
}

sub bytes_of {
    my ($file, $most) = @_;
    return undef if !defined $file;
    $most = $MOST_BYTES if !defined $most;
    my $bytes = '';
    while (my $got = sysread $file, $bytes, 65536, length $bytes) {
        next if length $bytes <= $most;
        $! = EFBIG;
        return undef;
    }
    return $bytes;
}

# Opens a regular file; nothing else, since opening alone does something to devices.
sub open_file {
    my ($self, $path) = @_;
    my $real = $self->real($path);
    return undef if !defined $real;
    my ($directory, $name) = $real =~ m{\A(.*)/([^/]*)\z}s;
    my $file = enter($self->root, $directory) ? open_here($name) : undef;
    leave();
    return $file;
}

# { name => file } for those of the names in the directory that are regular files.
sub open_some {
    my ($self, $directory, @names) = @_;
    my $real = $self->real($directory);
    return if !defined $real;
    my %open;
    if (enter($self->root, $real)) {
        for my $name (@names) {
            my $file = open_here($name);
            $open{$name} = $file if defined $file;
        }
    }
    leave();
    return %open;
}

# Opens a regular file of the current directory.
sub open_here {
    my ($name) = @_;
    my $file;
    my $opened = is_regular(CORE::lstat $name) && sysopen($file, $name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK)
        && is_regular(CORE::stat $file);
    return $opened ? $file : undef;
}

sub is_regular {
    my @stat = @_ or return 0;
    return 1 if S_ISREG($stat[2]);
    $! = EINVAL;
    return 0;
}

# The lines of a file without their ends; empty for a file that cannot be read.
sub read_lines {
    my ($self, $path, $most) = @_;
    my $bytes = $self->read_file($path, $most);
    return defined $bytes ? split(/\r?\n/, $bytes) : ();
}

# The sorted names in a directory without "." and ".."; an empty list with $! set
# where it cannot be read, with $! == 0 where there are none.
sub list {
    my ($self, $path) = @_;
    my $real = $self->real($path);
    return if !defined $real;
    my $dir;
    my $opened = enter($self->root, $real) && opendir $dir, '.';
    leave();
    return if !$opened;
    my @names = sort grep { $_ ne '.' && $_ ne '..' } readdir $dir;
    $! = 0;
    return @names;
}

# The regular expression of a shell pattern for one part of a path.
sub pattern {
    my ($part) = @_;
    my $out = '';
    while ($part =~ /\G(?:\\(.)|(\*)|(\?)|(\[(?:[!^])?\]?[^\]]*\])|(.))/gs) {
        if    (defined $2) { $out .= '[^/]*' }
        elsif (defined $3) { $out .= '[^/]' }
        elsif (defined $4) { $out .= class_of($4) }
        else               { $out .= quotemeta(defined $1 ? $1 : $5) }
    }
    my $hidden = $part =~ /^\\?\./ ? '' : '(?!\.)';
    my $matches = eval { qr/\A$hidden$out\z/s };
    # A class such as [z-a] fits nothing in it: it stands for itself.
    return defined $matches ? $matches : qr/\A\Q$part\E\z/;
}

sub class_of {
    my ($class) = @_;
    my ($not, $members) = $class =~ /\A\[([!^]?)(.*)\]\z/s;
    $members =~ s/([\\\[\]^])/\\$1/g;
    return '[' . ($not ? '^' : '') . $members . ']';
}

# The sorted existing paths that a shell pattern names (*, ?, [...] and \).
sub glob {
    my ($self, $pattern) = @_;
    my @found = ('');
    for my $part (grep { $_ ne '' } split m{/+}, $pattern) {
        if ($part !~ /[*?\[\\]/) {
            @found = map {"$_/$part"} @found;
            next;
        }
        my $matches = pattern($part);
        my @next;
        for my $dir (@found) {
            push @next, map {"$dir/$_"} grep { $_ =~ $matches } $self->list($dir eq '' ? '/' : $dir);
        }
        @found = @next;
    }
    return grep { $self->lstat($_) } @found;
}

1;
