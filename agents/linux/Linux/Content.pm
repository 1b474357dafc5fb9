# The content of a dump: the archives for what was selected, and how each is made. An archive whose
# sources are as they were is taken over from the dump before; one that cannot be made is a problem and
# the others are made.
package Linux::Content;

use strict;
use warnings;
use base 'Linux::ContentLinks';
use Agent::Archive;
use Agent::Chain;
use Agent::Changes;
use Agent::Manifest;
use Agent::Problems qw(problem);
use Agent::Status;
use Agent::Tar;
use Errno qw(ENOENT);
use Linux::ContentPlan;
use Linux::Site qw(below);
use Linux::System;

our $DIRECTORY = 'content';

my $MOST_NOTES   = 50;
my $NOT_REUSABLE = '-';

# tree, problems, private, kept, status, inventory, options.
sub new {
    my ($class, %options) = @_;
    return bless {
        %options, packed => {}, made => {}, manifests => {}, owners => {}, bytes => 0,
    }, $class;
}

# What make() takes for a Linux::Selection, see Linux::ContentPlan.
sub plan {
    my ($self, $selection, $server) = @_;
    my $plan = Linux::ContentPlan->new(top => $DIRECTORY,
        map { $_ => $self->{$_} } qw(tree problems inventory options packed));
    return $plan->all($selection, $server);
}

# Makes all that is planned, and removes all other content.
sub make {
    my ($self, @plan) = @_;
    my ($status, $kept) = @$self{qw(status kept)};
    # What is not asked for any more makes room first.
    $kept->retain($DIRECTORY, map { $self->chain_of($_)->names } @plan);
    $status->set(done => 0, total => scalar @plan);
    for my $item (@plan) {
        $status->set(object => $item->{label});
        $self->make_one($item);
        $self->{bytes} = $self->bytes;
        delete $self->{archive};
        $status->set(done => $status->{done} + 1, bytes => $self->{bytes});
    }
    $kept->retain($DIRECTORY, keys %{ $self->{made} });
    $self->{private}->remove($_)
        for grep { !$self->{manifests}{$_} } $self->{private}->files_below($Agent::Manifest::DIRECTORY);
    return;
}

sub chain_of {
    my ($self, $item, $signature) = @_;
    return Agent::Chain->new(kept => $self->{kept}, private => $self->{private}, name => $item->{name},
        signature => $signature);
}

# Whether some of what was made follows earlier archives.
sub has_increments { return $_[0]{has_increments} }

# [uid, gid] of all that was packed, each pair once.
sub owners {
    my ($self) = @_;
    return map { [split / /] } sort keys %{ $self->{owners} };
}

# Bytes read so far.
sub bytes {
    my ($self) = @_;
    return $self->{bytes} + ($self->{archive} ? $self->{archive}{unpacked} : 0);
}

sub make_one {
    my ($self, $item) = @_;
    my $notes = { count => 0, packing => 0 };
    $self->attempt($item, sub {
        my $made = $item->{database} ? $self->dump_database($item) : $self->pack_item($item, $notes);
        $self->has_content($item, $item->{kind}, $made);
    });
    $self->attempt($item, sub {
        my $list = $self->{kept}->add($notes->{archive}->complete, $NOT_REUSABLE);
        $self->has_content($item, 'problems', $list);
    }) if $notes->{archive};
    for my $other (@{ $item->{with} || [] }) {
        my ($shared) = grep { $_->{kind} eq 'site' } @{ $other->{content} || [] };
        push @{ $item->{object}{content} }, $shared || ();
        $self->problem('error', $item->{label}, "Its files are packed with $other->{name}") if !$shared;
    }
    return;
}

# A failure is a problem of the item, unless the agent was stopped by a signal.
sub attempt {
    my ($self, $item, $step) = @_;
    return if eval { $step->(); 1 };
    my $error = $@;
    die $error if defined $Agent::Status::ended;
    chomp $error;
    return $self->problem('error', $item->{label}, ucfirst "$item->{kind} is not whole in the dump: $error");
}

sub has_content {
    my ($self, $item, $kind, $archive) = @_;
    push @{ $item->{object}{content} }, { %$archive, kind => $kind };
    my @increments = @{ $archive->{increments} || [] };
    $self->{has_increments} = 1 if @increments;
    $self->{made}{ $_->{name} } = 1 for $archive, @increments, grep {defined} map { $_->{gone} } @increments;
    return;
}

sub new_archive {
    my ($self, $name, $bytes) = @_;
    return Agent::Archive->new(
        private => $self->{private}, name => $name, bytes => $bytes, compress => $self->{options}{compress},
    );
}

sub dump_database {
    my ($self, $item) = @_;
    $self->chain_of($item)->drop_from(0);
    my $archive = $self->{archive} = $self->new_archive($item->{name}, $item->{database}{bytes});
    my $servers = $self->{inventory}->database_servers;
    my $error = $servers->dump($item->{database}, sub { $archive->put($_[0]); 1 });
    die "$error\n" if defined $error;
    # Nothing says cheaply whether a database has changed.
    return $self->{kept}->add($archive->complete, $NOT_REUSABLE);
}

sub pack_item {
    my ($self, $item, $notes) = @_;
    my @paths = grep { $self->is_there($_, $item->{label}) } @{ $item->{paths} };
    $item->{manifest} = $self->{options}{increments} ? Agent::Manifest->new($self->{private}) : undef;
    my ($tar, $found) = $self->scanned($item, $notes, @paths);
    $self->{owners}{$_} = 1 for keys %{ $found->{owners} };
    my $chain = $self->chain_of($item, $tar->signature);
    if (!$chain->holds($found->{fingerprint}, $item->{manifest})) {
        my $changes = $item->{manifest} ? $self->changes($item, $chain) : undef;
        if    (!$changes)           { $self->pack_whole($item, $notes, $chain, $tar, $found) }
        elsif ($changes->is_empty)  { $chain->renew_fingerprint($found->{fingerprint}) }
        else                        { $self->pack_increment($item, $notes, $chain, $tar, $found, $changes) }
    }
    $self->{manifests}{$_} = 1 for $chain->manifest_names;
    delete $item->{manifest};
    return $chain->content;
}

# What has changed since the archives that there are; undef where all must be packed anew.
sub changes {
    my ($self, $item, $chain) = @_;
    return undef if !$chain->can_be_followed;
    return Agent::Changes->find(manifest => $item->{manifest}, earlier => $chain->manifest,
        private => $self->{private}, worth => sub { $chain->is_worth($_[0]) });
}

sub pack_whole {
    my ($self, $item, $notes, $chain, $tar, $found) = @_;
    $chain->drop_from(0);
    my $archive = $self->packed($chain->next_name, $notes, $tar, $found->{bytes});
    return $self->append($item, $notes, $chain, $archive, $found->{fingerprint});
}

sub pack_increment {
    my ($self, $item, $notes, $chain, $tar, $found, $changes) = @_;
    my $gone = defined $changes->gone_path
        ? $chain->make_gone_list($self->{options}{compress}, $changes->gone_path) : undef;
    my $archive = $self->packed($chain->next_name, $notes, $tar, $changes->bytes, $changes);
    return $self->append($item, $notes, $chain, $archive, $found->{fingerprint}, $gone);
}

sub packed {
    my ($self, $name, $notes, $tar, $bytes, $changes) = @_;
    my $archive = $self->{archive} = $self->new_archive($name, $bytes);
    $notes->{packing} = 0;
    $tar->pack($archive, $changes);
    return $archive->complete;
}

# What was said while it was packed must be said again with the next dump.
sub append {
    my ($self, $item, $notes, $chain, $archive, $fingerprint, $gone) = @_;
    my $is_known = eval {
        $chain->append($archive, $notes->{packing} ? $NOT_REUSABLE : $fingerprint, $gone, $item->{manifest});
        1;
    };
    return if $is_known;
    my $error = $@;
    die $error if defined $Agent::Status::ended;
    chomp $error;
    return $self->problem('info', $item->{label}, 'What is in its archive cannot be kept for increments, so'
        . " that the next dump packs it whole: $error");
}

# Looks at all files of an object, and at those that links of a site lead to, until no link leads to
# more: (Agent::Tar, what its scan has found).
sub scanned {
    my ($self, $item, $notes, @paths) = @_;
    my %taken;
    while (1) {
        my (@said, @links);
        my $tar = $self->tar_of($item, \@paths, leads_out => sub { push @links, [@_] },
            manifest => $item->{manifest},
            note => sub { push @said, [@_] });
        my $found = $tar->scan;
        @links = grep { !$self->is_inside($tar, $_->[0]) } @links;
        my @more = grep { !$taken{$_}++ } map { $self->behind_link($item, @$_) } @links;
        if (@more) {
            push @paths, @more;
            push @{ $item->{site}{packed} }, @more;
            next;
        }
        $tar->{note} = sub { $self->note($item, $notes, @_) };
        $tar->{note}->(@$_) for @said;
        $self->note_links($item, $notes, @links);
        return ($tar, $found);
    }
}

sub tar_of {
    my ($self, $item, $paths, %options) = @_;
    my $tree = $self->{tree};
    my %seen;
    my @paths = grep { !$seen{$_}++ } map { $tree->trail($_) } @$paths;
    my @directories = grep { $tree->is_dir($_) } @paths;
    my @inside = map { my $kind = $_; map { $self->directories_inside($kind, $_) } @directories }
        @{ $item->{left_out} || [] };
    my @exclude = ($self->{private}->dir, $self->of_kernel($item, @directories),
        map { $tree->path($_) } @inside);
    return Agent::Tar->new(private => $self->{private}, top => $tree->root, paths => \@paths,
        exclude => \@exclude, %options);
}

# File systems of the kernel below some directories, as a home that is a jail has: to read them
# may never end.
sub of_kernel {
    my ($self, $item, @directories) = @_;
    $self->{of_kernel} ||= [Linux::System::kernel_directories()];
    my @tops = map { $self->{tree}->path($_) } @directories;
    my @found = grep { my $directory = $_; grep { below($directory, $_) } @tops } @{ $self->{of_kernel} };
    $self->problem('info', $item->{label}, "$_ is a file system of the kernel and is left out") for @found;
    return @found;
}

# The real directories of all sites or mailboxes.
sub directories_of {
    my ($self, $kind) = @_;
    my $directories = $self->{directories}{$kind} ||= [
        grep {defined} map { $self->{tree}->real($_) }
            map { $kind eq 'sites' ? $self->{inventory}->parts->directories_of($_) : $_->{path} }
                $self->{inventory}->$kind
    ];
    return @$directories;
}

# Those of directories_of() that lie in a directory. There may be thousands of both: with the sorted list no
# directory is compared with each of them.
sub directories_inside {
    my ($self, $kind, $directory) = @_;
    my $sorted = $self->{sorted}{$kind} ||= [sort map {"$_/"} $self->directories_of($kind)];
    my $start = $directory eq '/' ? '/' : "$directory/";
    my ($next, $end) = (0, scalar @$sorted);
    while ($next < $end) {
        my $middle = int(($next + $end) / 2);
        if ($sorted->[$middle] lt $start) { $next = $middle + 1 }
        else                              { $end = $middle }
    }
    my @inside;
    while ($next < @$sorted && index($sorted->[$next], $start) == 0) {
        push @inside, substr $sorted->[$next++], 0, -1;
    }
    return @inside;
}

sub is_there {
    my ($self, $path, $label) = @_;
    return 1 if $self->{tree}->exists($path);
    my $why = $!;
    # A link to nothing is packed as it is.
    return 1 if $why == ENOENT && $self->{tree}->lstat($path);
    $self->problem('error', $label, "$path is not packed: $why");
    return 0;
}

# Reports what was found about an object's files: the first of them as problems of
# the dump, all the others in a list of its own.
sub note {
    my ($self, $item, $notes, $severity, $path, $text) = @_;
    $notes->{packing}++;
    if (++$notes->{count} <= $MOST_NOTES) {
        return $self->problem($severity, $item->{label}, length $path ? "$path $text" : $text);
    }
    if (!$notes->{archive}) {
        (my $name = $item->{name}) =~ s{\A\Q$DIRECTORY\E/}{};
        $name =~ s{/}{-}g;
        my $gz = $name =~ s/\.gz\z// ? '.gz' : '';
        my $list = "$DIRECTORY/problems/$name.txt$gz";
        $notes->{archive} = $self->new_archive($list, 0);
        $self->problem('warning', $item->{label}, "More of its problems are listed in $list");
    }
    $notes->{archive}->put("$severity: $path $text\n");
    return;
}

1;
