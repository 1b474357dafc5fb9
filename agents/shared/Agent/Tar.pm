# Packs files and directories of a system, named by their paths from its root, into an
# archive whose members are "./" and those paths. scan() looks at everything first;
# pack() reads it, and what changed meanwhile again. All that cannot be packed, or
# that is not what it was, goes to `note`.
#
# An account that may change the files cannot make it read others: the programs begin in the
# directory that holds what they pack, and from there they follow no link.
package Agent::Tar;

use strict;
use warnings;
use Agent::Directory qw(enter leave);
use Agent::Process qw(run stream);
use Agent::TarMessages qw(find_message line_reader tar_message unquoted);
use Digest::MD5 qw(md5 md5_hex);
use Fcntl qw(S_IWGRP S_IWOTH);
use Time::HiRes ();

my $PASSES       = 3;
my $END          = "\0" x 1024;
my $MADE_HOW     = 'posix 2';
my $MOST_FOREIGN = 1000;
my $MOST_NAMES   = 1000;
# How far the clock of a file system may be behind that of programs.
my $CLOCK_SECONDS = 0.05;

my $FACTS = '%D:%i %d %y %m %U %G %n %s %b %T@ %C@\0%l\0%p\0';

# private => Agent::Private, top => the directory that is the system's "/", paths =>
# [paths in it without links on the way], exclude => [directories that are left out, as the
# running system finds them], note => sub { ($severity, $object, $text) }, leads_out => sub {
# ($link, $target) }, called by the first scan for links to what is not in the archive; manifest =>
# Agent::Manifest, if wanted, which gets what is in the archive.
sub new {
    my ($class, %options) = @_;
    my $self = bless { exclude => [], note => sub { }, leads_out => sub { }, %options }, $class;
    ($self->{before} = $self->{top}) =~ s{/+\z}{};
    $self->{starts} = [outermost(@{ $self->{paths} })];
    $self->{parts} = [$self->parts];
    return $self;
}

# The same for what would be packed in the same way.
sub signature {
    my ($self) = @_;
    return md5_hex(join "\0", $MADE_HOW, @{ $self->{starts} }, '', sort @{ $self->{exclude} });
}

# The paths that are packed, with all below them.
sub starts { return @{ $_[0]{starts} } }

# The paths that do not lie below another one of them.
sub outermost {
    my %given = map { $_ => 1 } @_;
    my @kept;
    for my $path (sort keys %given) {
        my $above = $path;
        my $covered;
        while (!$covered && $above =~ s{/[^/]*\z}{}) { $covered = $given{$above} }
        push @kept, $path if !$covered;
    }
    return @kept;
}

# What is packed by one run from one directory: { directory, names => [as the programs are given them] }.
# All that only root could move is packed from the root of the system.
sub parts {
    my ($self) = @_;
    my (@parts, %part);
    for my $start (@{ $self->{starts} }) {
        my ($directory, $name) = $start =~ m{\A(.*)/([^/]*)\z}s;
        ($directory, $name) = ('', substr $start, 1) if $self->is_fixed($directory);
        my $part = $part{$directory};
        # The arguments of a program have a limit.
        push @parts, $part = $part{$directory} = { directory => $directory, names => [] }
            if !$part || @{ $part->{names} } >= $MOST_NAMES;
        push @{ $part->{names} }, "./$name";
    }
    return @parts;
}

# Whether a directory and all above it are root's, and no other account may write there.
sub is_fixed {
    my ($self, $directory) = @_;
    my $path = $self->{before};
    for my $part (grep {length} split m{/}, $directory) {
        $path .= "/$part";
        if (!exists $self->{fixed}{$path}) {
            my @stat = lstat $path;
            $self->{fixed}{$path} = @stat && -d _ && !$stat[4] && !($stat[2] & (S_IWGRP | S_IWOTH));
        }
        return 0 if !$self->{fixed}{$path};
    }
    return 1;
}

# Looks at everything: { entries, bytes, fingerprint }. bytes is what an archive
# takes without compression at most. The same fingerprint comes again only when
# nothing has changed. owners has "uid gid" of all that was found as its keys.
sub scan {
    my ($self, %options) = @_;
    my $begun = Time::HiRes::time() - $CLOCK_SECONDS;
    $self->{manifest}->restart if $self->{manifest} && !defined $options{since};
    my $found = {
        begun => $begun,
        entries => 0, bytes => 0, newest => 0, sum => md5(join "\0", $MADE_HOW, @{ $self->{starts} }),
        first => !defined $options{since}, ids => {},
    };
    $self->scan_part($_, $found, $options{since}) for @{ $self->{parts} };
    # What changes in this very moment may change again without a trace.
    $found->{sum} .= "$begun $$" if $found->{newest} >= $begun;
    $self->{begun} = $begun;
    return {
        entries => $found->{entries}, bytes => $found->{bytes}, fingerprint => md5_hex($found->{sum}),
        owners => $found->{ids},
    };
}

sub scan_part {
    my ($self, $part, $found, $since) = @_;
    my $before = $found->{entries};
    @$found{qw(part buffer owners foreign)} = ($part, '', [], {});
    $self->in_directory($part, sub {
        my @stat = lstat '.';
        $found->{owners} = [$stat[4]];
        my $lines = line_reader(sub { $self->find_has_said($part, $_[0]) });
        my $result = stream([$self->find_command($part, $since)],
            errors => $lines, out => sub { $self->take_records($found, $_[0]); 1 });
        $lines->("\n");
        # It ends with 1 after an unreadable directory, which it has named by then.
        die "find has failed: $result->{err}\n" if $result->{status} > 1;
    });
    $part->{entries} = $found->{entries} - $before;
    $self->leave_out_foreign($found) if $found->{first};
    return;
}

# Does something in the directory that a part is packed from, if that is there.
sub in_directory {
    my ($self, $part, $do) = @_;
    my $done = eval { enter($self->{top}, $part->{directory}) ? $do->() : $self->no_directory($part); 1 };
    my $error = $@;
    leave();
    die $error if !$done;
    return;
}

sub no_directory {
    my ($self, $part) = @_;
    my $why = "$!";
    $self->{note}->('error', $part->{directory} . substr($_, 1), "cannot be read: $why")
        for @{ $part->{names} };
    return;
}

sub find_command {
    my ($self, $part, $since) = @_;
    my @left_out = map { ('-o', '-samefile', $_) } grep { lstat $_ } @{ $self->{exclude} };
    splice @left_out, 0, 1, '(' if @left_out;
    push @left_out, ')', '-prune', '-o' if @left_out;
    my @only = defined $since ? ('-newerct', time_text($since)) : ();
    return ('find', @{ $part->{names} }, @left_out, @only, '-printf', $FACTS);
}

sub time_text { return sprintf '@%.3f', $_[0] }

sub take_records {
    my ($self, $found, $bytes) = @_;
    $found->{buffer} .= $bytes;
    my $taken = 0;
    while ($found->{buffer} =~ /\G([^\0]*)\0([^\0]*)\0([^\0]*)\0/g) {
        my ($facts, $target, $name) = ($1, $2, $3);
        $taken = pos $found->{buffer};
        my %is;
        @is{qw(file depth type mode uid gid links size blocks modified changed)} = split / /, $facts;
        my $path = $found->{part}{directory} . substr $name, 1;
        $found->{entries}++;
        $found->{ids}{"$is{uid} $is{gid}"} = 1;
        # Headers of a member; names and attributes of unusual length take more.
        my $bytes = 2048 + length $path;
        $bytes += least($is{size}, $is{blocks} * 512) / $is{links} if $is{type} eq 'f';
        $found->{bytes} += $bytes;
        $found->{newest} = $is{changed} if $is{changed} > $found->{newest};
        $found->{sum} ^= md5("$facts\0$target\0$path");
        $self->tell_manifest($found->{begun}, $path, \%is, $target, $bytes) if $self->{manifest};
        next if !$found->{first};
        $self->check_link($path, $target) if $is{type} eq 'l';
        note_foreign($found, \%is, $name);
    }
    substr($found->{buffer}, 0, $taken) = '';
    return;
}

# The device and the blocks may change while a file stays as it is.
sub tell_manifest {
    my ($self, $begun, $path, $is, $target, $bytes) = @_;
    # What changes in this very moment may change again without a trace.
    return $self->{manifest}->unsure($path, $is->{type}, $bytes) if $is->{changed} >= $begun;
    my $facts = join ' ', @$is{qw(type mode uid gid links size modified changed)};
    return $self->{manifest}->found($path, $is->{type}, "$facts\0$target", $bytes);
}

sub least { return $_[0] < $_[1] ? $_[0] : $_[1] }

# The owner of a directory may have given a second name there to another account's file
# that only that account may read.
sub note_foreign {
    my ($found, $is, $name) = @_;
    my ($owners, $depth) = ($found->{owners}, $is->{depth});
    $owners->[$depth + 1] = $is->{uid} if $is->{type} eq 'd';
    return if $is->{type} ne 'f' || $is->{links} == 1 || oct($is->{mode}) & 4;
    # The directory of a name with more than one part, which only root could move.
    my $owner = !$depth && $found->{part}{directory} eq '' ? 0 : $owners->[$depth];
    return if $is->{uid} == $owner;
    my $file = $found->{foreign}{ $is->{file} } ||= { %$is, names => [] };
    push @{ $file->{names} }, $name;
    die "Too many files of others have names there\n" if keys %{ $found->{foreign} } > $MOST_FOREIGN;
    return;
}

sub leave_out_foreign {
    my ($self, $found) = @_;
    my $part = $found->{part};
    for my $file (map { $found->{foreign}{$_} } sort keys %{ $found->{foreign} }) {
        next if @{ $file->{names} } == $file->{links};
        push @{ $part->{without} }, @{ $file->{names} };
        my @paths = map { $part->{directory} . substr $_, 1 } @{ $file->{names} };
        $self->{manifest} && $self->{manifest}->leave_out($_) for @paths;
        my $text = "is left out: it is a further name of a file of another account ($file->{uid})"
            . ' that lies elsewhere too';
        $self->{note}->('error', $_, $text) for @paths;
    }
    return;
}

# Calls back when what a link points to is not in the archive.
sub check_link {
    my ($self, $path, $target) = @_;
    my ($directory) = $path =~ m{\A(.*)/}s;
    my @parts;
    for my $part (split m{/+}, $target =~ m{\A/} ? $target : "$directory/$target") {
        next if $part eq '' || $part eq '.';
        if ($part eq '..') { pop @parts }
        else               { push @parts, $part }
    }
    my $to = join '/', '', @parts;
    # A link on the way to the files has them packed under their own path.
    return if grep { $path eq $_ } @{ $self->{starts} };
    return if grep { $to eq $_ || index($to, "$_/") == 0 } @{ $self->{starts} };
    $self->{leads_out}->($path, $target);
    return;
}

sub find_has_said {
    my ($self, $part, $line) = @_;
    my ($path, $why) = find_message($line);
    return $self->{note}->('warning', '', $line) if !defined $path;
    return $self->gone($part->{directory} . $path) if $why eq 'No such file or directory';
    return $self->{note}->('error', $part->{directory} . $path, "cannot be read: $why");
}

sub gone {
    my ($self, $path) = @_;
    return $self->{note}->('info', $path, 'was removed before it could be read');
}

# Packs what scan() has found into the archive, an Agent::Archive. Only what an Agent::Changes has, if that is
# given; it may be more.
sub pack {
    my ($self, $archive, $changes) = @_;
    my $since;
    my @parts = @{ $self->{parts} };
    if ($changes) {
        $_->{unchanged} = $changes->unchanged($_->{directory}, @{ $_->{names} }) for @parts;
        @parts = grep { $_->{unchanged} } @parts;
    }
    for my $pass (1 .. $PASSES) {
        $self->run_tar($archive, $_, $since, $pass == $PASSES)
            for defined $since ? grep { $_->{entries} } @{ $self->{parts} } : @parts;
        last if $pass == $PASSES;
        $since = $self->{begun};
        last if !$self->scan(since => $since)->{entries};
    }
    $archive->put($END);
    return;
}

# One run of tar without the blocks that end an archive: another may follow. With
# $since it packs what has changed after that time.
sub run_tar {
    my ($self, $archive, $part, $since, $last) = @_;
    $self->in_directory($part, sub {
        my $held = '';
        my $lines = line_reader(sub { $self->tar_has_said($part, $_[0], $last) });
        my $result = stream([$self->tar_command($part, $since)], errors => $lines, out => sub {
            $held .= $_[0];
            # Exactly these blocks come after the last member, with one block in a record.
            $archive->put(substr $held, 0, length($held) - length $END, '') if length $held > length $END;
            1;
        });
        $lines->("\n");
        return if $held eq $END && $result->{status} <= 2;
        my ($why) = $result->{err} =~ /([^\n]*)\n?\z/;
        die "tar has failed with status $result->{status}: $why\n";
    });
    return;
}

my @options_here;

# Old versions do not know all of these.
sub tar_options {
    if (!@options_here) {
        my $help = run(['tar', '--help'], limit => 30)->{out};
        @options_here = grep { $help =~ /\s$_\b/ } qw(--acls --xattrs --sparse);
    }
    return @options_here;
}

sub tar_command {
    my ($self, $part, $since) = @_;
    my @without = map {"--exclude=$_"} @{ $part->{without} || [] }, $self->excluded($part);
    push @without, '--exclude-from=' . $part->{unchanged}->temporary_path
        if $part->{unchanged} && !defined $since;
    unshift @without, '--anchored', '--no-wildcards' if @without;
    return ('tar', '--create', '--file=-', '--format=posix', '--blocking-factor=1', tar_options(),
        '--pax-option=exthdr.name=%d/PaxHeaders/%f,delete=atime,delete=ctime', transform($part),
        ($self->{manifest} ? '--verbose' : ()), @without,
        (defined $since ? '--newer=' . time_text($since) : ()), @{ $part->{names} });
}

# Directories that are left out, as a part has them.
sub excluded {
    my ($self, $part) = @_;
    my $start = "$self->{before}$part->{directory}/";
    return map { index($_, $start) == 0 ? './' . substr $_, length $start : () } @{ $self->{exclude} };
}

# Puts the directory that a part is packed from before its names.
sub transform {
    my ($part) = @_;
    (my $directory = $part->{directory}) =~ s/([\\&,])/\\$1/g;
    return length $directory ? "--transform=flags=rhS;s,^\\.,.$directory," : ();
}

sub tar_has_said {
    my ($self, $part, $line, $last) = @_;
    return $self->has_packed($part, $1) if $line =~ m{\A\.(/.*)\z};
    return if $line =~ /\Atar: Exiting with failure status due to previous errors\z/;
    # Of --newer, where --verbose is with it.
    return if $line =~ /\Atar: Option --after-date: Treating date /;
    # An old file in a later pass.
    return if $line =~ /: file is unchanged; not dumped\z/;
    my ($path, $what, $text) = tar_message($line);
    if (!defined $path) {
        $self->{manifest}->spoil if $self->{manifest};
        return $self->{note}->('warning', '', $line);
    }
    $self->{manifest}->unsure($part->{directory} . unquoted($path), '?', 0) if $self->{manifest};
    $path = $part->{directory} . $path;
    return $self->gone($path) if $what eq 'gone';
    return $self->{note}->($what, $path, $text) if $what ne 'changed';
    return if !$last;
    return $self->{note}->('warning', $path, "changed each of the $PASSES times it was read");
}

# With --verbose tar names all that it packs, directories with a slash at the end.
sub has_packed {
    my ($self, $part, $quoted) = @_;
    my $path = $part->{directory} . unquoted($quoted);
    my $type = $path =~ s{/\z}{} ? 'd' : 'f';
    return $self->{manifest}->packed($path, $type);
}

1;
