# A tree whose directories /site and /people/alice/app are dumped with increments into one archive and its
# increments, by an agent that remembers what it has dumped, and a host that fetches them.
package IncrementalDumps;

use strict;
use warnings;
use Agent::Kept;
use Agent::Private;
use Agent::Problems;
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use Imitated qw(output_of rest);
use Linux::Content;
use Linux::Tree;
use SourceTree qw(listing unpack_archive);
use Test::More;

our @ISA = ('SourceTree');

my @PACKED = qw(site people/alice/app);

# What Linux::Content asks of others where no links lead out.
package NoInventory;
sub parts { return $_[0] }
sub brought_by_packages { return {} }

package NoStatus;
sub set { return }

package IncrementalDumps;

# The tree has the directories, without files. That of alice is packed from another directory than the root of
# the system, since its owner is not root.
sub new {
    my ($class) = @_;
    my $self = $class->SUPER::new;
    mkpath([map {"$self->{top}/$_"} @PACKED]);
    output_of('chown', '-R', '1234:1234', "$self->{top}/people/alice");
    $self->{fetched} = tempdir(CLEANUP => 1);
    $self->{private} = Agent::Private->new(tempdir(CLEANUP => 1));
    return $self;
}

# The same with a site that is large enough for increments of small files, whose first archive was fetched.
sub begun {
    my ($class) = @_;
    my $self = $class->new;
    $self->fill('site/large', 'x' x 400_000);
    $self->fill('site/docs/page', 'a page');
    rest();
    $self->dumped;
    $self->fetch;
    return $self;
}

# Of the agent.
sub private { return $_[0]{private} }

# Those of the last dump.
sub problems { return $_[0]{problems} }

# Dumps the directories, and gives what dump.xml is made of. The options are those of a dump.
sub dumped {
    my ($self, %options) = @_;
    $self->{problems} = Agent::Problems->new;
    my $kept = Agent::Kept->new($self->{private});
    $kept->begin;
    my $object = {};
    my $content = Linux::Content->new(tree => Linux::Tree->new(root => $self->{top}),
        problems => $self->{problems}, private => $self->{private}, kept => $kept,
        status => (bless { done => 0 }, 'NoStatus'), inventory => (bless {}, 'NoInventory'),
        options => { increments => 1, compress => 1, %options });
    $content->make({ kind => 'mailbox', label => 'site', object => $object,
        name => 'content/sites/site.tar.gz', paths => [map {"/$_"} @PACKED] });
    $kept->finish;
    return $object->{content}[0];
}

# Writes a file and dumps what has changed, once another change must change its times.
sub dumped_after {
    my ($self, $path, $bytes) = @_;
    $self->fill($path, $bytes);
    rest();
    return $self->dumped;
}

# Moves all archives from the agent to the host that fetches.
sub fetch {
    my ($self) = @_;
    for my $name ($self->{private}->files_below('content')) {
        my ($directory) = $name =~ m{\A(.*)/};
        mkpath("$self->{fetched}/$directory");
        output_of('mv', $self->{private}->dir . "/$name", "$self->{fetched}/$name");
    }
    return;
}

# A new directory with what was fetched, unpacked in order with the tools that every host has.
sub restored {
    my ($self, $content) = @_;
    my $to = tempdir(CLEANUP => 1);
    unpack_archive($self->checked($content), $to);
    for my $increment (@{ $content->{increments} }) {
        output_of('sh', '-c', 'cd "$1" && gzip -dc "$2" | xargs -0 -r rm -df --', 'sh', $to,
            $self->checked($increment->{gone})) if $increment->{gone};
        unpack_archive($self->checked($increment), $to);
    }
    return $to;
}

# The path of a fetched file, whose sum must be the one that the dump gives.
sub checked {
    my ($self, $archive) = @_;
    my $path = "$self->{fetched}/$archive->{name}";
    my ($sum) = output_of('md5sum', $path) =~ /\A\\?(\w+)/;
    $sum eq $archive->{md5} or die "$archive->{name} has another sum than the dump gives\n";
    return $path;
}

sub members {
    my ($self, $archive) = @_;
    return [sort split /\n/, output_of('tar', '-tf', "$self->{fetched}/$archive->{name}")];
}

# Expects that what was fetched of the content is the tree once it is unpacked.
sub is_tree {
    my ($self, $content, $what) = @_;
    my $copy = $self->restored($content);
    my $all_of = sub {
        my ($top) = @_;
        return [map { @{ listing("$top/$_") } } @PACKED];
    };
    return is_deeply $all_of->($copy), $all_of->($self->{top}), $what;
}

# Dumps and fetches; expects that base and increments are the tree, and gives the content.
sub follows {
    my ($self, $what) = @_;
    rest();
    my $content = $self->dumped;
    $self->fetch;
    $self->is_tree($content, "$what: base and increments are the tree when they are unpacked");
    return $content;
}

# Expects a whole archive without increments that was made by the last dump.
sub is_whole {
    my ($self, $content, $what) = @_;
    my $made = -e $self->{private}->dir . "/$content->{name}" ? 1 : 0;
    return is_deeply [$content->{increments}, $made], [[], 1], $what;
}

1;
