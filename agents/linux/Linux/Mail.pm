# The mailboxes of the host: those that the mail servers know or their settings lead to, the
# accounts' own, and those in directories where they usually lie.
package Linux::Mail;

use strict;
use warnings;
use base 'Linux::DovecotMailboxes';
use Agent::Problems qw(problem);
use Agent::Process qw(breathe);
use Errno qw(ENOENT ENOTDIR);
use Linux::Dovecot;
use Linux::MailMaps;
use Linux::Postfix;
use Linux::Site qw(below);

my @USUAL_DIRECTORIES = qw(/var/mail/vhosts /var/vmail /home/vmail /srv/vmail /var/spool/vmail
    /var/mail/virtual /var/lib/vmail /srv/mail);
my @SPOOLS = qw(/var/mail /var/spool/mail);
# Settings of other mail servers.
my @NOT_READ = qw(/etc/exim4 /etc/exim /etc/courier);
my @OF_CYRUS = qw(/etc/cyrus.conf /etc/imapd.conf);
my $DEEPEST = 7;
# What is packed as it lies; how a directory of each is known.
my %PART_OF = (maildir => 'cur', sdbox => 'mailboxes', dbox => 'mailboxes', mdbox => 'storage');
# What belongs to the mail of an account in its home.
my @IN_HOME = qw(.dovecot.sieve .dovecot.svbin .dovecot.lda-dupes sieve .sieve .forward .procmailrc
    .mailfilter .vacation.msg .subscriptions);

# { mailboxes, maps (of Linux::MailMaps), servers => [{ name, settings => [{ name, value }],
# files => [what a new host needs besides /etc] }] }. A mailbox is { address, user, domain (undef
# for an account's own), path, format ('maildir', 'mbox', 'sdbox' or 'mdbox'), owner (account),
# uid, gid, home and quota (undef where they are not known), besides => [further paths of it],
# because }. No path comes twice.
sub all {
    my ($tree, $problems, $users) = @_;
    my $self = bless {
        tree => $tree, problems => $problems, users => $users, found => [], seen => {}, directories => {},
    }, __PACKAGE__;
    $self->{postfix} = Linux::Postfix->new($tree, $problems);
    $self->{dovecot} = Linux::Dovecot->new($tree, $problems);
    my @maps = Linux::MailMaps::all($tree, $problems, $self->{postfix});
    $self->from_dovecot_users if $self->{dovecot};
    $self->from_postfix(@maps) if $self->{postfix};
    $self->from_dovecot_settings if $self->{dovecot};
    $self->note_other_servers;
    $self->from_accounts('maildir', '~/Maildir', 'the usual directory in a home');
    $self->from_directory($_, $_, 0) for grep { $tree->is_dir($_) } @USUAL_DIRECTORIES;
    my %seen;
    $self->from_spool($_)
        for grep { $tree->is_dir($_) && !$seen{ $tree->real($_) }++ } @SPOOLS, $self->{own_spool} || ();
    $self->find_what_is_beside;
    my @mailboxes = sort { $a->{address} cmp $b->{address} || $a->{path} cmp $b->{path} } @{ $self->{found} };
    return { mailboxes => \@mailboxes, maps => \@maps, servers => [$self->servers] };
}

sub note_other_servers {
    my ($self) = @_;
    my $tree = $self->{tree};
    $self->problem('warning', $_, 'Is not read; mailboxes are searched for in the usual directories only:'
        . ' compare them with those that the server delivers to') for grep { $tree->is_dir($_) } @NOT_READ;
    $self->problem('error', $_, 'The mailboxes of Cyrus are not in the dump: copy them by IMAP')
        for grep { $tree->is_file($_) } @OF_CYRUS;
    return;
}

# What the mail servers need besides their own directories in /etc.
sub servers {
    my ($self) = @_;
    return map {
        my $server = $self->{$_};
        +{ name => $_, settings => [$server->described], files => [$server->files] }
    } grep { $self->{$_} } qw(postfix dovecot);
}

# Takes the path as a mailbox if it is one: the mailbox, also where it was found before. more
# => what is known of it besides.
sub take {
    my ($self, $format, $path, $user, $domain, $because, %more) = @_;
    my $real = $self->{tree}->real($path);
    # The top of what users share need not be a mailbox itself.
    return if !defined $real || !defined $more{shared} && !$self->is_mailbox($format, $real);
    my $known = $self->{seen}{$real};
    if ($known) {
        defined $known->{$_} or $known->{$_} = $more{$_} for keys %more;
        return $known;
    }
    my @stat = $self->{tree}->stat($real);
    push @{ $self->{found} }, $self->{seen}{$real} = {
        address => defined $domain ? "$user\@$domain" : $user, user => $user, domain => $domain,
        path => $path, format => $format eq 'dbox' ? 'sdbox' : $format, because => $because,
        owner => $self->{users}->name_of($stat[4]), uid => $stat[4], gid => $stat[5], besides => [], %more,
    };
    return $self->{seen}{$real};
}

# Whether mailboxes of a format of Dovecot's can be taken.
sub knows_format { return $PART_OF{ $_[1] } || $_[1] eq 'mbox' }

sub is_mailbox {
    my ($self, $format, $path) = @_;
    return $self->is_maildir($path) if $format eq 'maildir';
    return $self->{tree}->is_dir("$path/$PART_OF{$format}") if $PART_OF{$format};
    return $self->{tree}->exists($path);
}

sub is_maildir {
    my ($self, $path) = @_;
    return $self->{tree}->is_dir("$path/cur") && $self->{tree}->is_dir("$path/new");
}

# The names of the directories in a directory; that it cannot be read is a problem.
sub directories_in {
    my ($self, $directory) = @_;
    breathe();
    return @{ $self->{directories}{$directory} } if $self->{directories}{$directory};
    my $tree = $self->{tree};
    my @names = $tree->list($directory);
    $self->problem('error', $directory, "Cannot be read, mailboxes in it are not found: $!")
        if !@names && $! && $! != ENOENT && $! != ENOTDIR;
    return @{ $self->{directories}{$directory} = [grep { $tree->is_dir("$directory/$_") } @names] };
}

sub accounts_with_home {
    my ($self) = @_;
    return grep { $_->{home} ne '/' && $self->{tree}->is_dir($_->{home}) } $self->{users}->all;
}

# A location in the home of each account. inbox and the like are templates.
sub from_accounts {
    my ($self, $format, $template, $because, %more) = @_;
    for my $account ($self->accounts_with_home) {
        $self->take_location({ %more, format => $format, path => $template }, $account->{name},
            $account->{home}, $because);
    }
    return;
}

# The mailbox of one user at a location of Dovecot's, if it is there.
sub take_location {
    my ($self, $location, $name, $home, $because, %more) = @_;
    my %at = map { $_ => Linux::Dovecot::expanded($location->{$_}, $name, $home) }
        grep { defined $location->{$_} } qw(path inbox control index);
    return if !defined $at{path};
    my ($user, $domain) = $name =~ /\A(.+)@([^@]+)\z/s ? ($1, lc $2) : ($name, undef);
    my @order = $location->{format} eq 'mbox' ? qw(inbox path control index) : qw(path inbox control index);
    my ($main, @places) = grep { defined && $self->has_something($_) } @at{@order};
    return if !defined $main;
    my @what = ($location->{format}, $main, $user, $domain, $because, home => $home, %more);
    my $mailbox = $self->take(@what) or return;
    my %there = map { $_ => 1 } @{ $mailbox->{besides} };
    push @{ $mailbox->{besides} }, grep { !$there{$_}++ && !below($_, $mailbox->{path}) } @places;
    return $mailbox;
}

# True for what is there and is not an empty file.
sub has_something {
    my ($self, $path) = @_;
    my @stat = $self->{tree}->stat($path);
    return @stat && ($stat[7] || $self->{tree}->is_dir($path));
}

# Files named like accounts, and Maildirs.
sub from_spool {
    my ($self, $spool) = @_;
    my $tree = $self->{tree};
    for my $name ($tree->list($spool)) {
        my $path = "$spool/$name";
        if ($tree->is_dir($path)) {
            $self->from_directory($spool, $path, 1);
            next;
        }
        next if !$tree->is_file($path) || !($tree->stat($path))[7];
        if ($self->{users}->by_name($name)) {
            $self->take('mbox', $path, $name, undef, 'named like the account');
        }
        else {
            $self->problem('error', $path, 'Is named like no account and is not in the dump:'
                . ' copy it by hand if it is a mailbox that is still needed');
        }
    }
    return;
}

# Maildirs at any depth of a directory; the first part of the path that looks like a
# domain is one, the last part is the user.
sub from_directory {
    my ($self, $top, $directory, $depth) = @_;
    # Links may lead here again, and again.
    my $real = $self->{tree}->real($directory);
    return if !defined $real || $self->{searched}{$real}++;
    if ($depth && $self->is_maildir($directory)) {
        my @parts = split m{/}, substr $directory, 1 + length $top;
        my ($domain) = grep {/\.[^.]/} @parts;
        pop @parts if @parts > 1 && $parts[-1] =~ /\A(?:Maildir|maildir|mail|\.maildir)\z/;
        my $user = $parts[-1];
        $user =~ s/@.*//s;
        $domain = undef if defined $domain && $domain eq $user;
        return $self->take('maildir', $directory, $user, $domain, "found in $top");
    }
    if ($depth > $DEEPEST) {
        return $self->problem('error', $directory,
            'Is not searched for mailboxes any deeper: copy those in it by hand');
    }
    $self->from_directory($top, "$directory/$_", $depth + 1) for $self->directories_in($directory);
    return;
}

# --- Postfix ---

sub from_postfix {
    my ($self, @maps) = @_;
    my ($tree, $postfix) = @$self{qw(tree postfix)};
    my $base = $postfix->value('virtual_mailbox_base');
    ($self->{own_spool}) = $postfix->value('mail_spool_directory') =~ m{\A(/.*?)/*\z};
    for my $map (grep { $_->{kind} eq 'virtual-mailbox' } @maps) {
        $self->from_virtual_mailbox($base, $map->{file}, $_) for @{ $map->{entries} };
    }
    $self->from_directory($base, $base, 0) if $base =~ m{\A/.} && $tree->is_dir($base);
    my $home_mailbox = $postfix->value('home_mailbox');
    return if $home_mailbox eq '';
    my $format = $home_mailbox =~ s{/+\z}{} ? 'maildir' : 'mbox';
    $self->from_accounts($format, "~/$home_mailbox", "home_mailbox in $Linux::Postfix::MAIN");
    return;
}

sub from_virtual_mailbox {
    my ($self, $base, $file, $entry) = @_;
    my ($user, $domain) = $entry->{from} =~ /\A(.*)@([^@]+)\z/ or return;
    return if !defined $entry->{to} || !length $entry->{to};
    my $full = $entry->{to} =~ m{\A/} && $base eq '' ? $entry->{to} : "$base/$entry->{to}";
    my $format = $full =~ s{/+\z}{} ? 'maildir' : 'mbox';
    return if $format eq 'mbox' && !$self->{tree}->is_file($full);
    $self->take($format, $full, length $user ? $user : '*', lc $domain, "named in $file");
    return;
}

# --- What lies beside mail ---

# Adds what belongs to each mailbox and does not lie in it: scripts, lists, and the whole home
# of a user that has it for mail only.
sub find_what_is_beside {
    my ($self) = @_;
    my %is_home = map { $_->{home} => 1 } $self->{users}->all;
    my @scripts = $self->{dovecot} ? $self->{dovecot}->scripts : ();
    my (%mailboxes_in, %has_home);
    for my $mailbox (@{ $self->{found} }) {
        my $above = $mailbox->{path};
        $mailboxes_in{$above}++ while $above =~ s{/[^/]*\z}{};
        my $home = $self->home_of($mailbox);
        $has_home{$home}++ if defined $home;
    }
    for my $mailbox (@{ $self->{found} }) {
        my $home = $mailbox->{home};
        my $name = $mailbox->{address};
        my @more = map { Linux::Dovecot::expanded($_, $name, $home) } @scripts;
        if (defined $home && $is_home{$home}) { push @more, map {"$home/$_"} @IN_HOME }
        elsif (defined $home && $has_home{$home} == 1 && ($mailboxes_in{$home} || 0) <= 1) {
            # A home of its own lies deeper than the directories of the system.
            push @more, $home if $home =~ m{\A/[^/]+/[^/]+/} && !below($home, $mailbox->{path});
        }
        my %seen = map { $_ => 1 } @{ $mailbox->{besides} };
        push @{ $mailbox->{besides} }, grep {
            defined && !$seen{$_}++ && !below($_, $mailbox->{path}) && $self->{tree}->lstat($_)
        } @more;
    }
    return;
}

# The home of a mailbox's user, as far as it is known; a directory around "Maildir" is one.
sub home_of {
    my ($self, $mailbox) = @_;
    my $account = defined $mailbox->{domain} ? undef : $self->{users}->by_name($mailbox->{user});
    $mailbox->{home} = $account->{home} if !defined $mailbox->{home} && $account;
    $mailbox->{home} = $1 if !defined $mailbox->{home}
        && $mailbox->{path} =~ m{\A(/.+)/(?:Maildir|maildir|mail|\.maildir)\z};
    $mailbox->{home} =~ s{(?<=.)/+\z}{} if defined $mailbox->{home};
    return $mailbox->{home};
}

1;
