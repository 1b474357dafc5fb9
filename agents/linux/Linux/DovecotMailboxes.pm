# The mailboxes that Dovecot knows, or that its settings lead to: methods of Linux::Mail, which has
# { tree, problems, dovecot => Linux::Dovecot } and takes them.
package Linux::DovecotMailboxes;

use strict;
use warnings;
use Linux::Dovecot;

# The users that Dovecot itself names, which may be in a database or a directory.
sub from_dovecot_users {
    my ($self) = @_;
    my $dovecot = $self->{dovecot};
    my $known = $dovecot->users;
    $self->note_databases if !$known->{complete};
    my @locations = grep { !defined $_->{shared} } $dovecot->locations;
    for my $user (@{ $known->{users} }) {
        my @own = Linux::Dovecot::location_of({ %$user, mail_location => $user->{mail} });
        @own = @locations if !@own;
        my %more = (quota => $user->{quota});
        $self->take_location($_, $user->{user}, $user->{home}, 'Dovecot names the user', %more)
            for grep { $self->is_known_format($_) } @own;
    }
    return;
}

# Users of databases can only be asked from Dovecot.
sub note_databases {
    my ($self) = @_;
    for my $database (grep { $_->{driver} =~ /\A(?:sql|ldap|dict|lua)\z/ } $self->{dovecot}->databases) {
        my $place = defined $database->{file} ? $database->{file} : $Linux::Dovecot::MAIN;
        $self->problem('error', $place, "Dovecot's users are asked from $database->{driver}, and doveadm does"
            . ' not name them: mailboxes outside of the usual directories are not in the dump.'
            . ' Dump again while Dovecot runs');
    }
    return;
}

sub from_dovecot_settings {
    my ($self) = @_;
    my $dovecot = $self->{dovecot};
    my @homes = $dovecot->homes;
    my $because = "mail_location in $Linux::Dovecot::MAIN";
    my @locations = grep { $self->is_known_format($_) } $dovecot->locations;
    $self->from_user_file($_, @locations) for $dovecot->user_files;
    for my $location (@locations) {
        if (defined $location->{shared}) {
            $self->take_shared($location, $because);
            next;
        }
        my $at = { %$location };
        if ($at->{path} =~ s{\A(?:~|%h)(?=/|\z)}{~}) {
            $self->from_accounts($at->{format}, $at->{path}, $because, %$at);
            $self->from_template($at, $_, $because) for grep {/%/} @homes;
        }
        else { $self->from_template($at, undef, $because) }
    }
    return;
}

sub is_known_format {
    my ($self, $location) = @_;
    return 1 if $self->knows_format($location->{format});
    $self->problem('error', $Linux::Dovecot::MAIN, "Mail at $location->{path} is in the format"
        . " $location->{format} and is not in the dump as mailboxes: copy it by doveadm backup");
    return 0;
}

# Mail of a namespace that is of no single user.
sub take_shared {
    my ($self, $location, $because) = @_;
    return if $location->{path} =~ /%|\A~/ || !$self->{tree}->is_dir($location->{path});
    $self->take($location->{format}, $location->{path}, "namespace $location->{shared}", undef, $because,
        shared => $location->{shared});
    return;
}

# Mailboxes of the users that a file gives a home of their own.
sub from_user_file {
    my ($self, $file, @locations) = @_;
    my $text = $self->{tree}->read_file($file);
    if (!defined $text) {
        $self->problem('error', $file, "Cannot be read, mailboxes named in it are not found: $!")
            if $self->{tree}->lstat($file);
        return;
    }
    for my $line (split /\n/, $text) {
        my ($name, undef, undef, undef, undef, $home, undef, $more) = split /:/, $line, 8;
        next if !defined $home || $home !~ m{\A/} || $name !~ /\A[^#@]+(?:@.+)?\z/;
        my %more = defined $more ? $more =~ /(?:\A|\s)userdb_(mail|quota_rule)=(\S+)/g : ();
        my @own = defined $more{mail} ? Linux::Dovecot::parsed_location($more{mail}) : ();
        @own = grep { $_->{path} =~ m{\A(?:~|%h)} } @locations if !@own;
        $self->take_location($_, $name, $home, "home in $file", quota => $more{quota_rule})
            for grep { $self->is_known_format($_) } @own;
    }
    return;
}

# All mailboxes that a location with %u, %n and %d in its path, or in the home that its path
# begins with, may mean.
sub from_template {
    my ($self, $location, $home, $because) = @_;
    my $template = $location->{path};
    $template =~ s{\A~}{$home} if defined $home;
    return if $template !~ m{\A/};
    if ($template =~ /%(?![und])/) {
        $self->problem('error', $Linux::Dovecot::MAIN, "Mailboxes at $template are searched for in usual"
            . ' directories only: look there for more, and copy them by hand');
        return;
    }
    my @found = ({ path => '' });
    for my $part (grep {length} split m{/+}, $template) {
        @found = map { $self->matching($part, $_) } @found;
    }
    for my $mailbox (@found) {
        my $name = $mailbox->{u};
        $name = join '@', grep {defined} @$mailbox{qw(n d)} if !defined $name;
        next if $name eq '' || !defined $mailbox->{u} && !defined $mailbox->{n};
        my $own = defined $home ? Linux::Dovecot::expanded($home, $name, undef) : undef;
        $self->take_location({ %$location, path => $mailbox->{path} }, $name, $own, $because);
    }
    return;
}

# One part of a template: the directories it may mean, with what its letters stand for.
sub matching {
    my ($self, $part, $at) = @_;
    return { %$at, path => "$at->{path}/$part" } if $part !~ /%/;
    my @letters = $part =~ /%([und])/g;
    my $pattern = join '(.+)', map {quotemeta} split /%[und]/, $part, -1;
    my @found;
    for my $name ($self->directories_in($at->{path} eq '' ? '/' : $at->{path})) {
        my @values = $name =~ /\A$pattern\z/s or next;
        my %next = (%$at, path => "$at->{path}/$name");
        @next{@letters} = @values;
        push @found, \%next;
    }
    return @found;
}

1;
