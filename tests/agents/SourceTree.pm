# A tree in a directory of its own, gone after the test, and all that a copy of it must have too.
package SourceTree;

use strict;
use warnings;
use Exporter 'import';
use File::Temp qw(tempdir);
use Imitated qw(output_of write_file);

our @EXPORT_OK = qw(listing unpack_archive);

# A directory without files, which other accounts may enter.
sub new {
    my ($class) = @_;
    my $top = tempdir(CLEANUP => 1);
    chmod 0755, $top or die $!;
    return bless { top => $top }, $class;
}

sub top { return $_[0]{top} }

# Writes a file of the tree, and makes the directories above it; gives its path on this host.
sub fill {
    my ($self, $path, $bytes) = @_;
    write_file("$self->{top}/$path", $bytes);
    return "$self->{top}/$path";
}

# Gives a file of the tree an extended attribute, for which perl has no function.
sub set_attribute {
    my ($self, $path, $value) = @_;
    my $code = 'import os,sys; os.setxattr(sys.argv[1], "trusted.note", sys.argv[2].encode())';
    output_of('python3', '-c', $code, "$self->{top}/$path", $value);
    return;
}

# Unpacks an archive into a directory as root does on a new host.
sub unpack_archive {
    my ($archive, $to) = @_;
    output_of(qw(tar -x -p --acls --xattrs --xattrs-include=* --numeric-owner -f), $archive, '-C', $to);
    return;
}

# One line for each path below a directory: all that a copy must have too, and which names are of one file.
sub listing {
    my ($from) = @_;
    my $script = <<'PYTHON';
import hashlib, os, stat, sys
top, files = os.fsencode(sys.argv[1]), {}
for where, directories, names in os.walk(top):
    directories.sort()
    for name in sorted(directories + names):
        path = os.path.join(where, name)
        it = os.lstat(path)
        what = [os.path.relpath(path, top), oct(it.st_mode), it.st_uid, it.st_gid, it.st_mtime_ns]
        if stat.S_ISREG(it.st_mode):
            what += [it.st_size, hashlib.md5(open(path, "rb").read()).hexdigest(), it.st_nlink,
                     files.setdefault(it.st_ino, what[0])]
        if stat.S_ISLNK(it.st_mode):
            what.append(os.readlink(path))
        else:
            what.append([(key, os.getxattr(path, key)) for key in sorted(os.listxattr(path))])
        print(what)
PYTHON
    return [split /\n/, output_of('python3', '-c', $script, $from)];
}

1;
