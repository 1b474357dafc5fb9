# What the records of the system's package manager say: which packages there are, which files are
# theirs and which of these are not as they came. Only records are read, of dpkg as files, of rpm by
# its program; on a system with neither nothing belongs to a package.
package Linux::Packages;

use strict;
use warnings;
use Agent::Process qw(run stream which breathe);

my $INFO   = '/var/lib/dpkg/info';
my $STATUS = '/var/lib/dpkg/status';
# Files in /etc that scripts of packages have made: "package path", one a line.
my $REGISTRY = '/var/lib/ucf/registry';
my @RPM      = qw(/var/lib/rpm /usr/lib/sysimage/rpm);

my $MOST_BYTES    = 64 * 1024 * 1024;
my $LIMIT_SECONDS = 120;
my $PIECE         = 65536;

# tree => Linux::Tree.
sub new {
    my ($class, $tree) = @_;
    my $manager = $tree->is_file($STATUS) ? 'dpkg'
        : (grep { $tree->is_dir($_) } @RPM) && which('rpm') ? 'rpm' : undef;
    return bless { tree => $tree, manager => $manager, changed => {} }, $class;
}

# The packages that have each of some paths, links not followed: { path => [ids] }. One look through
# the records for all of them.
sub owning {
    my ($self, @paths) = @_;
    my (%wanted, %owners);
    for my $path (@paths) { push @{ $wanted{$_} }, $path for names_of($path) }
    $self->each_list(sub {
        my ($id, $text) = @_;
        for my $path (grep { $wanted{$_} } split /\n/, $$text) {
            push @{ $owners{$_} }, $id for @{ $wanted{$path} };
        }
    }) if @paths;
    return \%owners;
}

# Records may have a path as it was before /lib and its like became links into /usr.
sub names_of {
    my ($path) = @_;
    return ($path, "/usr$path") if $path =~ m{\A/(?:s?bin|lib\w*)/};
    return ($path, $1) if $path =~ m{\A/usr(/(?:s?bin|lib\w*)/.*)\z}s;
    return $path;
}

# { id, name, version, architecture, source, manager } of a package; undef where it is not installed.
sub facts {
    my ($self, $id) = @_;
    my $facts = $self->all_facts->{$id} or return undef;
    return { manager => $self->{manager}, map { $_
        => $facts->{$_} } qw(id name version architecture source) };
}

# The packages that are parts of the same application: those of one source, and those that depend on
# the package. Ids, the package's own first.
sub family {
    my ($self, $id) = @_;
    my $all = $self->all_facts;
    my $own = $all->{$id} or return $id;
    return $id, sort grep {
        my $other = $all->{$_};
        $_ ne $id && ($other->{source} eq $own->{source} || $other->{needs}{ $own->{name} });
    } keys %$all;
}

# All paths of some packages: { path => 1 }.
sub paths_of {
    my ($self, @ids) = @_;
    my %paths = map { $_ => 1 } map { $self->paths_in_records($_) } @ids;
    delete @paths{ '', '/', '/.' };
    return \%paths;
}

sub paths_in_records {
    my ($self, $id) = @_;
    return split /\n/, run($self->rpm('-ql', $id), limit => $LIMIT_SECONDS)->{out}
        if $self->{manager} eq 'rpm';
    my $text = $self->{tree}->read_file("$INFO/$id.list", $MOST_BYTES);
    return defined $text ? split /\n/, $text : ();
}

# Those of some paths that packages other than these have too.
sub shared {
    my ($self, $paths, @ids) = @_;
    my %own = map { $_ => 1 } @ids;
    my %shared;
    $self->each_list(sub {
        my ($id, $text) = @_;
        return if $own{$id};
        $shared{$_} = 1 for grep { $paths->{$_} } split /\n/, $$text;
    });
    return \%shared;
}

# Files in /etc that are of the packages though not among their paths.
sub made_in_etc {
    my ($self, @ids) = @_;
    my %names = map { my $facts = $self->all_facts->{$_}; $facts ? ($facts->{name} => 1) : () } @ids;
    return map { m{\A(\S+)\s+(/etc/.+?)\s*\z} && $names{$1} ? $2 : () } $self->{tree}->read_lines($REGISTRY);
}

# Files of a package that are not as they came: { path => 1 }. A file whose sum the records do not
# have counts as changed.
sub changed {
    my ($self, $id) = @_;
    return $self->{changed}{$id} ||= $self->{manager} eq 'rpm' ? $self->changed_by_rpm($id)
        : $self->changed_by_dpkg($id);
}

# Calls back with the id of each package and a reference to its paths, each with a line end.
sub each_list {
    my ($self, $do) = @_;
    return if !defined $self->{manager};
    return $self->each_list_of_rpm($do) if $self->{manager} eq 'rpm';
    $self->{tree}->read_each($INFO, qr/.\.list\z/s, $MOST_BYTES, sub {
        my ($name, $text) = @_;
        breathe();
        $do->(substr($name, 0, -length '.list'), $text);
    });
    return;
}

sub each_list_of_rpm {
    my ($self, $do) = @_;
    my ($id, $text, $rest) = ('', '', '');
    stream($self->rpm('-qa', '--queryformat', '[%{=NAME}\t%{FILENAMES}\n]'), limit => $LIMIT_SECONDS, out
        => sub {
        $rest .= $_[0];
        while ($rest =~ s/\A([^\n\t]*)\t([^\n]*\n)//) {
            my ($of, $path) = ($1, $2);
            if ($of ne $id) {
                $do->($id, \$text) if length $text;
                ($id, $text) = ($of, '');
            }
            $text .= $path;
        }
        return 1;
    });
    $do->($id, \$text) if length $text;
    return;
}

sub rpm {
    my ($self, @arguments) = @_;
    my $root = $self->{tree}->root;
    return ['rpm', ($root eq '/' ? () : "--root=$root"), @arguments];
}

sub all_facts {
    my ($self) = @_;
    return $self->{facts} ||= !defined $self->{manager} ? {}
        : $self->{manager} eq 'rpm' ? $self->facts_of_rpm : $self->facts_of_dpkg;
}

sub facts_of_dpkg {
    my ($self) = @_;
    my $text = $self->{tree}->read_file($STATUS, $MOST_BYTES);
    my %has_list = map { $_ => 1 } $self->{tree}->list($INFO);
    my %facts;
    for my $paragraph (split /\n\n+/, defined $text ? $text : '') {
        my %entry = map { /\A([\w-]+):\s*(.*)\z/s ? ($1 => $2) : () } split /\n(?! )/, $paragraph;
        next if !defined $entry{Package} || ($entry{Status} || '') !~ /\binstalled\z/;
        my ($name, $architecture) = @entry{qw(Package Architecture)};
        my ($source) = ($entry{Source} || $name) =~ /\A(\S+)/;
        my $needs = join ',', grep {defined} @entry{ 'Depends', 'Pre-Depends' };
        my $facts = { name => $name, version => $entry{Version}, architecture => $architecture,
            source => $source, needs => { map { /\A\s*([^\s:(]+)/ ? ($1 => 1) : () } split /[,|]/, $needs },
            settings => { map { /\A\s*(\S+)\s+([0-9a-f]{32})/ ? ($1 => $2) : () }
                split /\n/, $entry{Conffiles} || '' } };
        # Packages that may be there for several architectures have it in the names of their records.
        my ($id) = grep { $has_list{"$_.list"} } $name, "$name:$architecture" or next;
        $facts{$id} = { %$facts, id => $id };
    }
    return \%facts;
}

sub facts_of_rpm {
    my ($self) = @_;
    my $format = '%{NAME}\t%{VERSION}-%{RELEASE}\t%{ARCH}\t%{SOURCERPM}\t[%{REQUIRENAME} ]\n';
    my $answer = run($self->rpm('-qa', '--queryformat', $format), limit => $LIMIT_SECONDS);
    my %facts;
    for my $line (split /\n/, $answer->{out}) {
        my ($name, $version, $architecture, $source, $needs) = split /\t/, $line;
        $source =~ s/-[^-]+-[^-]+\.rpm\z//;
        $facts{$name} = { id => $name, name => $name, version => $version, architecture => $architecture,
            source => $source, needs => { map { $_ => 1 } split / /, defined $needs ? $needs : '' } };
    }
    return \%facts;
}

sub changed_by_dpkg {
    my ($self, $id) = @_;
    my $tree = $self->{tree};
    my $sums = $tree->read_file("$INFO/$id.md5sums", $MOST_BYTES);
    my %sum = map { /\A([0-9a-f]{32})\s+(.+)\z/ ? ("/$2" => $1) : () } split /\n/, defined $sums ? $sums : '';
    %sum = (%sum, %{ ($self->all_facts->{$id} || {})->{settings} || {} });
    my %changed;
    for my $path (keys %{ $self->paths_of($id) }) {
        my @stat = $tree->lstat($path);
        next if !@stat || !-f _;
        my $is = defined $sum{$path} ? $self->sum_of($path) : undef;
        $changed{$path} = 1 if !defined $is || $is ne $sum{$path};
    }
    return \%changed;
}

# The MD5 sum of a file's bytes; undef where it cannot be read.
sub sum_of {
    my ($self, $path) = @_;
    # The scout does without: it looks at no content.
    require Digest::MD5;
    breathe();
    my $file = $self->{tree}->open_file($path) or return undef;
    my $sum = Digest::MD5->new;
    while (sysread $file, my ($bytes), $PIECE) { $sum->add($bytes) }
    return $sum->hexdigest;
}

# rpm prints a line for each file that differs: what differs, a letter for its kind, the path.
sub changed_by_rpm {
    my ($self, $id) = @_;
    my $answer = run($self->rpm('-V', '--nodeps', '--noscripts', $id), limit => $LIMIT_SECONDS);
    my @lines = grep { !/\A(?:missing|\.{8,9} )/ } split /\n/, $answer->{out};
    return { map { m{\A..5\S*\s+(?:[a-z]\s+)?(/.*)\z} ? ($1 => 1) : () } @lines };
}

1;
