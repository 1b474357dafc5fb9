# The accounts of the system, from its own files; accounts kept elsewhere (a
# directory service) are asked for one by one when something belongs to them.
package Linux::Users;

use strict;
use warnings;

my $NOBODY = 65534;

sub new {
    my ($class, $tree) = @_;
    my $self = bless { tree => $tree, names => {}, uids => {}, groups => {}, all_groups => [] }, $class;
    $self->read_groups;
    $self->read_accounts;
    ($self->{first_uid}) = map { /^\s*UID_MIN\s+(\d+)/ ? $1 : () } $tree->read_lines('/etc/login.defs');
    $self->{first_uid} = 1000 if !defined $self->{first_uid};
    return $self;
}

sub read_groups {
    my ($self) = @_;
    for my $line ($self->{tree}->read_lines('/etc/group')) {
        my ($name, undef, $gid, $members) = split /:/, $line;
        next if !is_id($gid) || $name !~ /\A[^+-]/;
        $self->{groups}{$gid} = $name if !exists $self->{groups}{$gid};
        my @members = grep {length} split /[,\s]+/, defined $members ? $members : '';
        push @{ $self->{all_groups} }, { name => $name, gid => $gid, members => \@members };
    }
    return;
}

sub read_accounts {
    my ($self) = @_;
    for my $line ($self->{tree}->read_lines('/etc/passwd')) {
        my ($name, undef, $uid, $gid, undef, $home, $shell) = split /:/, $line;
        next if !is_id($uid) || !is_id($gid) || $name !~ /\A[^+-]/;
        $self->keep($name, $uid, $gid, $home, $shell);
    }
    return;
}

sub is_id { return defined $_[0] && $_[0] =~ /\A\d+\z/ }

# The first account wins where several have the same name or number.
sub keep {
    my ($self, $name, $uid, $gid, $home, $shell) = @_;
    my $account = { name => $name, uid => $uid, gid => $gid, group => $self->group_of($gid),
        home => defined $home && length $home ? $home : '/', shell => defined $shell ? $shell : '' };
    $self->{names}{$name} = $account if !$self->{names}{$name};
    $self->{uids}{$uid}   = $account if !$self->{uids}{$uid};
    return $account;
}

# All accounts, sorted by number: { name, uid, gid, group, home, shell }.
sub all {
    my ($self) = @_;
    return sort { $a->{uid} <=> $b->{uid} || $a->{name} cmp $b->{name} } values %{ $self->{names} };
}

# True for an account of the system's own files that has a password. Nobody but root may find that out.
sub has_password {
    my ($self, $name) = @_;
    $self->{with_password} ||= { map { /\A([^:]+):[^:!*]/ ? ($1 => 1) : () }
        $self->{tree}->read_lines('/etc/shadow') };
    return $self->{with_password}{$name} ? 1 : 0;
}

sub is_live { return $_[0]{tree}->root eq '/' }

sub by_name {
    my ($self, $name) = @_;
    return $self->{names}{$name} if exists $self->{names}{$name};
    my @entry = $self->is_live ? getpwnam $name : ();
    return undef if !@entry;
    return $self->keep(@entry[0, 2, 3, 7, 8]);
}

sub by_uid {
    my ($self, $uid) = @_;
    return $self->{uids}{$uid} if exists $self->{uids}{$uid};
    my @entry = $self->is_live ? getpwuid $uid : ();
    return $self->{uids}{$uid} = undef if !@entry;
    return $self->keep(@entry[0, 2, 3, 7, 8]);
}

# Name of an account, its number where it has none.
sub name_of {
    my ($self, $uid) = @_;
    my $account = $self->by_uid($uid);
    return $account ? $account->{name} : $uid;
}

sub group_of {
    my ($self, $gid) = @_;
    return $self->{groups}{$gid} if defined $self->{groups}{$gid};
    my $name = $self->is_live ? getgrgid $gid : undef;
    return $self->{groups}{$gid} = defined $name ? $name : $gid;
}

# The groups of the host's own file, sorted by number: { name, gid, members => [accounts that
# have it besides their own group] }.
sub groups {
    my ($self) = @_;
    return sort { $a->{gid} <=> $b->{gid} || $a->{name} cmp $b->{name} } @{ $self->{all_groups} };
}

# The groups that an account is a member of, besides its own group.
sub memberships {
    my ($self, $name) = @_;
    if (!$self->{memberships}) {
        for my $group ($self->groups) {
            push @{ $self->{memberships}{$_} }, $group for @{ $group->{members} };
        }
    }
    return @{ $self->{memberships}{$name} || [] };
}

# Distinguishes an account of the system or of a service from one of a person.
sub is_system {
    my ($self, $account) = @_;
    return $account->{uid} < $self->{first_uid} || $account->{uid} == $NOBODY ? 1 : 0;
}

# Distinguishes a group of persons from one of the system or of a service.
sub is_of_persons {
    my ($self, $group) = @_;
    return $group->{gid} >= $self->{first_uid} && $group->{gid} != $NOBODY ? 1 : 0;
}

1;
