# A dump: finds out what there is, makes the archives of what is asked for and
# describes it all in dump.xml, which is there only when the dump is complete.
package Linux::Dump;

use strict;
use warnings;
use Agent::Kept;
use Agent::Problems;
use Agent::Process;
use Agent::Status;
use Fcntl qw(LOCK_EX LOCK_NB);
use Linux::Content;
use Linux::DumpDocument;
use Linux::Inventory;
use Linux::Selection;
use Linux::SiteAnswers;
use Linux::System;

our $FILE = 'dump.xml';

my $LOCK = 'lock';
my $KEY  = 'key';

# Makes the dump that the options ask for; dies where there can be none. tree =>
# Linux::Tree, private => Agent::Private, options => what Agent::Options gave.
sub run {
    my (%given) = @_;
    my $lock = take_lock($given{private});
    my $problems = Agent::Problems->new;
    my $status = Agent::Status->new($given{private}, $problems, $given{options}{transport});
    my $self = bless { %given, problems => $problems, status => $status }, __PACKAGE__;
    return 1 if eval { $self->make; 1 };
    my $error = $@;
    $Agent::Status::ended = undef;
    $self->{status}->set(stage => 'failed');
    die $error;
}

# Holds off other dumps in the same directory while the returned handle is open.
sub take_lock {
    my ($private) = @_;
    my $handle = $private->open_append($LOCK);
    flock $handle, LOCK_EX | LOCK_NB or die "Another dump is still running in this directory\n";
    return $handle;
}

sub make {
    my ($self) = @_;
    my ($private, $status, $problems, $options) = @$self{qw(private status problems options)};
    local $Agent::Process::while_waiting = sub { $self->tick };
    Agent::Process::lower_priority();
    my $kept = Agent::Kept->new($private);
    $kept->begin;
    $private->remove($FILE);
    $problems->add(severity => 'info', object => 'content',
        text => 'The agent cannot send content by rsync; it makes archives') if $options->{transport};

    $status->set(stage => 'inventory');
    $self->{inventory} = Linux::Inventory->new(
        tree => $self->{tree}, problems => $problems, tick => sub { $status->tick },
        restrict_key => $self->key,
    );
    my $selection = Linux::Selection->new(%$self);
    # The inventory looks at all; this dump lacks nothing of what was not asked for.
    $problems->forget($selection->left_out);
    $self->ask_sites($selection);

    $status->set(stage => 'content');
    my $server = { facts => Linux::System::facts($self->{tree}) };
    my $content = $self->{content} = Linux::Content->new(%$self, kept => $kept);
    my @plan = $options->{content} ? $content->plan($selection, $server) : ();
    $content->make(@plan);

    $self->{inventory}->name_refused_links;
    $status->set(stage => 'document', object => undef);
    my $text = Linux::DumpDocument::text_of(%$self, selection => $selection, server => $server);
    $private->replace($FILE, $text);
    $kept->finish;
    $status->set(stage => 'finished');
    # The last word must be true: a status that cannot be written is a failure.
    $status->write;
    return;
}

sub ask_sites {
    my ($self, $selection) = @_;
    return if ($self->{options}{only} || '') eq 'mail';
    my %unassigned = $selection->unassigned;
    my @domains = map { @{ $_->{domains} } } $selection->clients, \%unassigned;
    Linux::SiteAnswers::ask(tree => $self->{tree}, problems => $self->{problems},
        sites => [grep {defined} map { $_->{site} } @domains],
        asking => sub { $self->{status}->set(object => $_[0]{name}) });
    $self->{status}->set(object => undef);
    return;
}

# What pg_dump protects its output with; always the same, for equal dumps to be equal.
sub key {
    my ($self) = @_;
    my $key = $self->{private}->read($KEY);
    return $key if defined $key && $key =~ /\A[0-9a-f]{32}\z/;
    open my $random, '<', '/dev/urandom' or die "Cannot open /dev/urandom: $!\n";
    read $random, my ($bytes), 16;
    $self->{private}->replace($KEY, $key = unpack 'H*', $bytes);
    return $key;
}

sub tick {
    my ($self) = @_;
    return $self->{status}->tick if !$self->{content};
    $self->{status}->set(bytes => $self->{content}->bytes);
    return;
}

1;
