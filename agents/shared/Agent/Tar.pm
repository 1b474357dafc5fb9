# Packs files and folders of a system, named by their paths from its root, into an
# archive whose members are "./" and those paths. scan() looks at everything first;
# pack() reads it, and what changed meanwhile again. All that cannot be packed, or
# that is not what it was, is told to `note`.
package Agent::Tar;

use strict;
use warnings;
use Agent::Process qw(run stream);
use Digest::MD5 qw(md5 md5_hex);
use Time::HiRes ();

my $PASSES    = 3;
my $END       = "\0" x 1024;
my $MADE_HOW  = 'posix 1';
my $LIST_NAME = 'list';
# How far the clock of a file system may be behind that of programs.
my $CLOCK_SECONDS = 0.05;

my $FACTS = '%i %y %m %U %G %n %s %b %T@ %C@\0%l\0%p\0';

# private => Agent::Private, top => the folder that is the system's "/", paths =>
# [paths in it], exclude => [folders that are left out, as the running system finds
# them], note => sub { ($severity, $object, $text) }.
sub new {
    my ($class, %options) = @_;
    my $self = bless { exclude => [], note => sub { }, %options }, $class;
    $self->{starts} = [map {".$_"} outermost(@{ $self->{paths} })];
    ($self->{before} = $self->{top}) =~ s{/*\z}{/};
    return $self;
}

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

# Looks at everything: { entries, bytes, fingerprint }. bytes is what an archive
# takes without compression at most. The same fingerprint comes again only when
# nothing has changed.
sub scan {
    my ($self, %options) = @_;
    my $begun = Time::HiRes::time() - $CLOCK_SECONDS;
    # It takes its file away, which is the next one's too.
    delete $self->{list};
    my $found = {
        entries => 0, bytes => 0, newest => 0, buffer => '', names => '',
        sum => md5(join "\0", $MADE_HOW, @{ $self->{starts} }),
        first => !defined $options{since}, list => $self->{private}->create($LIST_NAME),
    };
    my $lines = line_reader(sub { $self->find_has_said($_[0]) });
    my $result = stream([$self->find_command($options{since})],
        errors => $lines, out => sub { $self->take_records($found, $_[0]); 1 });
    $lines->("\n");
    # It ends with 1 after an unreadable folder, which it has named by then.
    die "find has failed: $result->{err}\n" if $result->{status} > 1;
    $found->{list}->write($found->{names});
    # What changes in this very moment may change again without a trace.
    $found->{sum} .= "$begun $$" if $found->{newest} >= $begun;
    @$self{qw(begun list)} = ($begun, $found->{list});
    return { entries => $found->{entries}, bytes => $found->{bytes}, fingerprint => md5_hex($found->{sum}) };
}

sub find_command {
    my ($self, $since) = @_;
    my @left_out = map { ('-o', '-samefile', $_) } grep { lstat $_ } @{ $self->{exclude} };
    splice @left_out, 0, 1, '(' if @left_out;
    push @left_out, ')', '-prune', '-o' if @left_out;
    my @only = defined $since ? ('-newerct', sprintf '@%.3f', $since) : ();
    my @starts = map {"$self->{before}$_"} @{ $self->{starts} };
    return ('find', @starts, @left_out, @only, '-printf', $FACTS);
}

sub take_records {
    my ($self, $found, $bytes) = @_;
    $found->{buffer} .= $bytes;
    my $taken = 0;
    while ($found->{buffer} =~ /\G([^\0]*)\0([^\0]*)\0([^\0]*)\0/g) {
        my ($facts, $target, $path) = ($1, $2, substr $3, length $self->{before});
        $taken = pos $found->{buffer};
        my ($type, $links, $size, $blocks, $changed) = (split / /, $facts)[1, 5, 6, 7, 9];
        $found->{entries}++;
        # Headers of a member; names and attributes of unusual length take more.
        $found->{bytes} += 2048 + length $path;
        $found->{bytes} += least($size, $blocks * 512) / $links if $type eq 'f';
        $found->{newest} = $changed if $changed > $found->{newest};
        $found->{sum} ^= md5("$facts\0$target\0$path");
        $found->{names} .= "$path\0";
        $self->check_link($path, $target) if $type eq 'l' && $found->{first};
    }
    substr($found->{buffer}, 0, $taken) = '';
    return if length $found->{names} < 65536;
    $found->{list}->write($found->{names});
    $found->{names} = '';
    return;
}

sub least { return $_[0] < $_[1] ? $_[0] : $_[1] }

# Says when what a link points to is not in the archive.
sub check_link {
    my ($self, $path, $target) = @_;
    my ($folder) = $path =~ m{\A\.(.*)/};
    my @parts;
    for my $part (split m{/+}, $target =~ m{\A/} ? $target : "$folder/$target") {
        next if $part eq '' || $part eq '.';
        if ($part eq '..') { pop @parts }
        else               { push @parts, $part }
    }
    my $to = join '/', '.', @parts;
    # A link on the way to the files has them packed under their own path.
    return if grep { $path eq $_ } @{ $self->{starts} };
    return if grep { $to eq $_ || index($to, "$_/") == 0 } @{ $self->{starts} };
    $self->{note}->('info', inside($path), "is a symbolic link to $target, which is not in this archive");
    return;
}

# The path as it is in the system.
sub inside { return substr $_[0], 1 }

sub find_has_said {
    my ($self, $line) = @_;
    my ($path, $why) = $line =~ /\Afind: ['`]\Q$self->{before}\E\.(.*)': (.*)\z/s;
    return $self->{note}->('warning', '', $line) if !defined $path;
    return $self->gone($path) if $why eq 'No such file or directory';
    return $self->{note}->('error', $path, "cannot be read: $why");
}

sub gone {
    my ($self, $path) = @_;
    return $self->{note}->('info', $path, 'was removed before it could be read');
}

# Packs what scan() has found into the archive, an Agent::Archive.
sub pack {
    my ($self, $archive) = @_;
    for my $pass (1 .. $PASSES) {
        $self->run_tar($archive, $pass == $PASSES);
        last if $pass == $PASSES;
        last if !$self->scan(since => $self->{begun})->{entries};
    }
    delete $self->{list};
    $archive->put($END);
    return;
}

# One run of tar without the blocks that end an archive: another may follow.
sub run_tar {
    my ($self, $archive, $last) = @_;
    my $held = '';
    my $lines = line_reader(sub { $self->tar_has_said($_[0], $last) });
    my $result = stream([$self->tar_command], errors => $lines, out => sub {
        $held .= $_[0];
        # Exactly these blocks come after the last member, with one block in a record.
        $archive->put(substr $held, 0, length($held) - length $END, '') if length $held > length $END;
        1;
    });
    $lines->("\n");
    return if $held eq $END && $result->{status} <= 2;
    my ($why) = $result->{err} =~ /([^\n]*)\n?\z/;
    die "tar has failed with status $result->{status}: $why\n";
}

my @options_here;

# Old versions do not know all of these.
sub tar_options {
    if (!@options_here) {
        my $help = run(['tar', '--help'], limit => 30)->{out};
        @options_here = grep { $help =~ /\s$_\b/ } qw(--acls --xattrs --sparse --no-unquote);
    }
    return @options_here;
}

sub tar_command {
    my ($self) = @_;
    return ('tar', '--create', '--file=-', '--format=posix', '--blocking-factor=1', tar_options(),
        '--pax-option=exthdr.name=%d/PaxHeaders/%f,delete=atime,delete=ctime',
        "--directory=$self->{top}", '--no-recursion', '--null',
        '--files-from=' . $self->{list}->temporary_path);
}

# What tar says about a file: severity and text; changes count in the last pass only.
my @SAYINGS = (
    [qr/file changed as we read it|File shrank by .*/ => 'changed'],
    [qr/File removed before we read it/ => 'gone'],
    [qr/(?:Warning: )?Cannot (?:f?stat|open)[^:]*: No such file or directory/ => 'gone'],
    [qr/socket ignored/ => 'info', 'is a socket, which cannot be packed'],
    [qr/(?:Warning: )?Cannot (?:open|read|stat|savedir)[^:]*: (.*)/ => 'error', 'cannot be read: '],
    [qr/(?:Warning: )?Read error at byte .*: (.*)/ => 'error', 'cannot be read: '],
);

sub tar_has_said {
    my ($self, $line, $last) = @_;
    return if $line =~ /\Atar: Exiting with failure status due to previous errors\z/;
    for my $saying (@SAYINGS) {
        my ($pattern, $what, $text) = @$saying;
        my ($path, $why) = $line =~ /\Atar: \.(.*): $pattern\z/ or next;
        return $self->gone($path) if $what eq 'gone';
        return $self->{note}->($what, $path, $text . (defined $why ? $why : '')) if $what ne 'changed';
        return if !$last;
        return $self->{note}->('warning', $path, "changed each of the $PASSES times it was read");
    }
    return $self->{note}->('warning', '', $line);
}

# Calls back with each whole line of what it is given in pieces.
sub line_reader {
    my ($callback) = @_;
    my $rest = '';
    return sub {
        $rest .= $_[0];
        while ($rest =~ s/\A([^\n]*)\n//) { $callback->($1) if length $1 }
        return;
    };
}

1;
