# Read access to the files of a system whose root may be another folder than "/".
# Every path given and returned is one inside that system; symbolic links are
# followed inside it and never lead out. Failures leave their reason in $!.
package Linux::Tree;

use strict;
use warnings;
use Fcntl qw(O_RDONLY O_NONBLOCK S_ISDIR S_ISREG S_ISLNK);
use Errno qw(ELOOP EINVAL EFBIG ENOENT);

# Configurations name files that perl would otherwise wonder about.
no warnings 'newline';

my $MOST_LINKS = 40;
my $MOST_BYTES = 16 * 1024 * 1024;

sub new {
    my ($class, %options) = @_;
    my $root = defined $options{root} ? $options{root} : '/';
    $root =~ s{/+\z}{};
    return bless { root => $root }, $class;
}

# The folder that serves as "/".
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

# Resolves the links of all parts, the last one only if $follow. With
# $follow == 1 every part must exist; a missing last part is fine otherwise.
sub resolve {
    my ($self, $path, $follow) = @_;
    if (index($path, "\0") >= 0) {
        $! = ENOENT;
        return undef;
    }
    my @todo = grep { $_ ne '' && $_ ne '.' } split m{/+}, $path;
    my ($done, $links) = ('', 0);
    while (@todo) {
        my $part = shift @todo;
        if ($part eq '..') {
            $done =~ s{/[^/]*\z}{};
            next;
        }
        my $here = "$done/$part";
        my $last = !@todo;
        my @stat = lstat $self->{root} . $here;
        return undef if !@stat && !($last && !$follow);
        if (!@stat || !S_ISLNK($stat[2]) || ($last && !$follow)) {
            $done = $here;
            next;
        }
        if (++$links > $MOST_LINKS) {
            $! = ELOOP;
            return undef;
        }
        my $target = readlink $self->{root} . $here;
        return undef if !defined $target;
        $done = '' if $target =~ m{^/};
        unshift @todo, grep { $_ ne '' && $_ ne '.' } split m{/+}, $target;
    }
    return length $done ? $done : '/';
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
    $most = $MOST_BYTES if !defined $most;
    my $real = $self->real($path);
    return undef if !defined $real;
    sysopen my $file, $self->{root} . $real, O_RDONLY | O_NONBLOCK or return undef;
    my @stat = CORE::stat $file;
    if (!@stat || !S_ISREG($stat[2])) {
        $! = EINVAL;
        return undef;
    }
    my $bytes = '';
    while (my $got = sysread $file, $bytes, 65536, length $bytes) {
        next if length $bytes <= $most;
        $! = EFBIG;
        return undef;
    }
    return $bytes;
}

# The lines of a file without their ends; empty for a file that cannot be read.
sub read_lines {
    my ($self, $path, $most) = @_;
    my $bytes = $self->read_file($path, $most);
    return defined $bytes ? split(/\r?\n/, $bytes) : ();
}

# The sorted names in a folder without "." and ".."; an empty list with $! set
# where it cannot be read, with $! == 0 where there are none.
sub list {
    my ($self, $path) = @_;
    my $real = $self->real($path);
    return if !defined $real;
    opendir my $dir, $self->{root} . $real or return;
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
