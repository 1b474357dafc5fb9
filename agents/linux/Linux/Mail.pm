# The mailboxes of the host: those that the settings of the mail servers lead to,
# the accounts' own, and those in folders where they usually lie.
package Linux::Mail;

use strict;
use warnings;
use Agent::Process qw(breathe);
use Errno qw(ENOENT ENOTDIR);

my $DOVECOT = '/etc/dovecot/dovecot.conf';
my $POSTFIX = '/etc/postfix/main.cf';
my @USUAL_FOLDERS = qw(/var/mail/vhosts /var/vmail /home/vmail /srv/vmail /var/spool/vmail /var/mail/virtual
    /var/lib/vmail /srv/mail);
my @SPOOLS = qw(/var/mail /var/spool/mail);
# Settings of other mail servers.
my @NOT_READ = qw(/etc/exim4 /etc/exim /etc/courier /etc/cyrus);
my $DEEPEST = 7;
my $MOST_INCLUDED = 500;

# The mailboxes: { address, user, domain (undef for an account's own), path, format
# ('maildir' or 'mbox'), owner (account), because }. No path comes twice.
sub all {
    my ($tree, $problems, $users) = @_;
    my $self = bless {
        tree => $tree, problems => $problems, users => $users, found => [], seen => {}, folders => {},
    }, __PACKAGE__;
    $self->from_postfix;
    $self->from_dovecot;
    $self->problem('info', $_, 'Is not read; mailboxes are searched for in the usual folders')
        for grep { $tree->is_dir($_) } @NOT_READ;
    $self->from_accounts("Maildir", 'the usual folder in a home');
    $self->from_folder($_, $_, 0) for grep { $tree->is_dir($_) } @USUAL_FOLDERS;
    my %seen;
    $self->from_spool($_)
        for grep { $tree->is_dir($_) && !$seen{ $tree->real($_) }++ } @SPOOLS, $self->{own_spool} || ();
    return sort { $a->{address} cmp $b->{address} || $a->{path} cmp $b->{path} } @{ $self->{found} };
}

sub problem {
    my ($self, $severity, $object, $text) = @_;
    $self->{problems}->add(severity => $severity, object => $object, text => $text);
    return;
}

# Takes the path in as a mailbox if it is one that was not found before.
sub take {
    my ($self, $format, $path, $user, $domain, $because) = @_;
    my $real = $self->{tree}->real($path);
    return if !defined $real || $self->{seen}{$real};
    return if $format eq 'maildir' && !$self->is_maildir($real);
    $self->{seen}{$real} = 1;
    my @stat = $self->{tree}->stat($real);
    push @{ $self->{found} }, {
        address => defined $domain ? "$user\@$domain" : $user, user => $user, domain => $domain,
        path => $path, format => $format, because => $because,
        owner => $self->{users}->name_of($stat[4]), uid => $stat[4], gid => $stat[5],
    };
    return 1;
}

sub is_maildir {
    my ($self, $path) = @_;
    return $self->{tree}->is_dir("$path/cur") && $self->{tree}->is_dir("$path/new");
}

# The names of the folders in a folder; that it cannot be read is a problem.
sub folders_in {
    my ($self, $folder) = @_;
    breathe();
    return @{ $self->{folders}{$folder} } if $self->{folders}{$folder};
    my $tree = $self->{tree};
    my @names = $tree->list($folder);
    $self->problem('error', $folder, "Cannot be read, mailboxes in it are not found: $!")
        if !@names && $! && $! != ENOENT && $! != ENOTDIR;
    return @{ $self->{folders}{$folder} = [grep { $tree->is_dir("$folder/$_") } @names] };
}

sub accounts_with_home {
    my ($self) = @_;
    return grep { $_->{home} ne '/' && $self->{tree}->is_dir($_->{home}) } $self->{users}->all;
}

sub from_accounts {
    my ($self, $name, $because) = @_;
    $self->take('maildir', "$_->{home}/$name", $_->{name}, undef, $because) for $self->accounts_with_home;
    return;
}

# Files named like accounts, and Maildirs.
sub from_spool {
    my ($self, $spool) = @_;
    my $tree = $self->{tree};
    for my $name ($tree->list($spool)) {
        my $path = "$spool/$name";
        if ($tree->is_dir($path)) {
            $self->from_folder($spool, $path, 1);
            next;
        }
        next if !$tree->is_file($path) || !($tree->stat($path))[7];
        if ($self->{users}->by_name($name)) {
            $self->take('mbox', $path, $name, undef, 'named like the account');
        }
        else { $self->problem('info', $path, 'Is named like no account and is not taken as a mailbox') }
    }
    return;
}

# Maildirs at any depth of a folder; the first part of the path that looks like a
# domain is one, the last part is the user.
sub from_folder {
    my ($self, $top, $folder, $depth) = @_;
    # Links may lead here again, and again.
    my $real = $self->{tree}->real($folder);
    return if !defined $real || $self->{searched}{$real}++;
    if ($depth && $self->is_maildir($folder)) {
        my @parts = split m{/}, substr $folder, 1 + length $top;
        my ($domain) = grep {/\.[^.]/} @parts;
        pop @parts if @parts > 1 && $parts[-1] =~ /\A(?:Maildir|maildir|mail|\.maildir)\z/;
        my $user = $parts[-1];
        $user =~ s/@.*//s;
        $domain = undef if defined $domain && $domain eq $user;
        return $self->take('maildir', $folder, $user, $domain, "found in $top");
    }
    if ($depth > $DEEPEST) {
        return $self->problem('warning', $folder, 'Is not searched for mailboxes any deeper');
    }
    $self->from_folder($top, "$folder/$_", $depth + 1) for $self->folders_in($folder);
    return;
}

# --- Postfix ---

sub from_postfix {
    my ($self) = @_;
    my $tree = $self->{tree};
    my $text = $self->settings_file($POSTFIX);
    return if !defined $text;
    my $settings = postfix_settings($text);
    my $base = postfix_value($settings, 'virtual_mailbox_base');
    ($self->{own_spool}) = postfix_value($settings, 'mail_spool_directory') =~ m{\A(/.*?)/*\z};
    for my $map (split /[\s,]+/, postfix_value($settings, 'virtual_mailbox_maps')) {
        my ($type, $path) = $map =~ m{\A(?:proxy:)?(\w+):(/.*)\z} or next;
        if ($type !~ /\A(?:hash|texthash|lmdb|btree|cdb|dbm|sdbm)\z/) {
            $self->problem('info', $path,
                "Mailboxes are named in a $type map, which is not read; they are searched for in folders");
            next;
        }
        my $lines = $self->settings_file($path);
        $self->problem('info', $path, 'The map is not there as a text; mailboxes are searched for in folders')
            if !$tree->lstat($path);
        next if !defined $lines;
        for my $line (grep { !/\A\s*(?:#|\z)/ } split /\n/, $lines) {
            my ($address, $place) = $line =~ m{\A(\S+)\s+(\S.*?)\s*\z} or next;
            my ($user, $domain) = $address =~ /\A(.*)@([^@]+)\z/ or next;
            my $full = $place =~ m{\A/} && $base eq '' ? $place : "$base/$place";
            my $format = $full =~ s{/+\z}{} ? 'maildir' : 'mbox';
            next if $format eq 'mbox' && !$tree->is_file($full);
            $self->take($format, $full, length $user ? $user : '*', lc $domain, "named in $path");
        }
    }
    $self->from_folder($base, $base, 0) if $base =~ m{\A/.} && $tree->is_dir($base);
    my $home_mailbox = postfix_value($settings, 'home_mailbox');
    $self->from_accounts($home_mailbox, "home_mailbox in $POSTFIX") if $home_mailbox =~ s{/+\z}{};
    return;
}

# A file's text; where it is there and cannot be read, that is a problem.
sub settings_file {
    my ($self, $path) = @_;
    my $text = $self->{tree}->read_file($path);
    return $text if defined $text;
    $self->problem('warning', $path, "Cannot be read, mailboxes named in it are not found: $!")
        if $self->{tree}->lstat($path);
    return;
}

sub postfix_settings {
    my ($text) = @_;
    my %settings = (config_directory => '/etc/postfix');
    $text =~ s/^\s*#.*\n?//mg;
    $text =~ s/\n[ \t]+/ /g;
    $settings{$1} = $2 while $text =~ /^(\w+)\s*=[ \t]*(.*?)\s*$/mg;
    return \%settings;
}

sub postfix_value {
    my ($settings, $name) = @_;
    my $value = defined $settings->{$name} ? $settings->{$name} : '';
    for (1 .. 10) {
        last if $value !~ s/\$(?:\{(\w+)\}|\((\w+)\)|(\w+))/
            my ($used) = grep {defined} $1, $2, $3;
            defined $settings->{$used} ? $settings->{$used} : ''/gex;
    }
    return $value;
}

# --- Dovecot ---

sub from_dovecot {
    my ($self) = @_;
    my $settings = $self->dovecot_settings($DOVECOT, {});
    my $values = sub { map { @{ $settings->{$_} || [] } } @_ };
    my @homes  = ((map {/(?:\A|\s)home=(\S+)/} $values->(qw(args default_fields))), $values->('mail_home'));
    my @maildirs = grep {/\Amaildir:/i} $values->('mail_location');
    my @places = ((map { (/\Amaildir:([^:]+)/i, /:INBOX=([^:]+)/) } @maildirs), $values->('mail_path'));
    $self->note_other_formats($values);
    for my $file (map {m{(?:\A|[\s=])(/\S+)\z}} $values->(qw(args passwd_file_path))) {
        push @homes, $self->passwd_file($file, @places);
    }
    for my $place (map { tidy_template($_) } @places) {
        if ($place =~ s{\A(?:~|%h)(?:/|\z)}{}) {
            $self->from_accounts($place, "mail_location in $DOVECOT");
            $self->from_template("$_/$place") for grep {/%/} map { tidy_template($_) } @homes;
        }
        else { $self->from_template($place) }
    }
    return;
}

# Mail that is not in Maildirs; of mboxes only those of accounts are found elsewhere.
sub note_other_formats {
    my ($self, $values) = @_;
    my @others = map { /\A(\w+):([^:]+)/ && lc $1 ne 'maildir' ? [$1, $2] : () } $values->('mail_location');
    for my $driver (grep { lc $_ ne 'maildir' } $values->('mail_driver')) {
        push @others, map { [$driver, $_] } $values->('mail_path');
    }
    for my $other (@others) {
        my ($format, $place) = @$other;
        my $in_home = tidy_template($place) =~ m{\A(?:~|%h)(?:/|\z)};
        my $text = "Mail at $place is in the format $format and is no mailbox of the dump";
        $text .= "; it is in the archive of a client's home" if $in_home;
        $self->problem($in_home ? 'info' : 'warning', $DOVECOT, $text);
    }
    return;
}

# { name => [values] } whatever section they stand in.
sub dovecot_settings {
    my ($self, $file, $read, $settings) = @_;
    $settings ||= {};
    return $settings if $read->{$file}++ || keys %$read > $MOST_INCLUDED;
    my $text = $self->settings_file($file);
    return $settings if !defined $text;
    my ($folder) = $file =~ m{\A(.*)/};
    for my $line (split /\n/, $text) {
        if (my ($pattern) = $line =~ /\A\s*!include(?:_try)?\s+(\S+)/) {
            $pattern = "$folder/$pattern" if $pattern !~ m{\A/};
            $self->dovecot_settings($_, $read, $settings) for $self->{tree}->glob($pattern);
        }
        elsif (my ($name, $value) = $line =~ /\A\s*(\w+)\s*=\s*(.*?)\s*\z/) {
            push @{ $settings->{$name} }, $value =~ /\A"(.*)"\z/ ? $1 : $value;
        }
    }
    return $settings;
}

# The forms in which Dovecot writes parts of an address, as %u, %n, %d and %h.
sub tidy_template {
    my ($template) = @_;
    my %letter = (user => 'u', username => 'n', domain => 'd', home => 'h');
    $template =~ s/%\{\s*(?:user\s*\|\s*)?(user(?:name)?|domain|home)\s*(?:\|[^}]*)?\}/%$letter{$1}/g;
    $template =~ s/%[LU]([und])/%$1/g;
    return $template;
}

# Mailboxes of the users that a password file gives a home of their own.
sub passwd_file {
    my ($self, $file, @places) = @_;
    my $text = $self->settings_file($file);
    return if !defined $text;
    for my $line (split /\n/, $text) {
        my ($name, undef, undef, undef, undef, $home) = split /:/, $line;
        next if !defined $home || $home !~ m{\A/} || $name !~ /\A([^#@]+)(?:@(.+))?\z/;
        my ($user, $domain) = ($1, defined $2 ? lc $2 : undef);
        for my $place (map { tidy_template($_) } @places) {
            my $path = $place;
            $path =~ s{\A(?:~|%h)(?=/|\z)}{$home} or next;
            $self->take('maildir', $path, $user, $domain, "home in $file");
        }
    }
    return;
}

# All mailboxes that a path with %u, %n and %d may mean.
sub from_template {
    my ($self, $template) = @_;
    return if $template !~ m{\A/};
    if ($template =~ /%(?![und])/) {
        $self->problem('info', $DOVECOT, "Mailboxes at $template are searched for in usual folders only");
        return;
    }
    my @found = ({ path => '' });
    for my $part (grep {length} split m{/+}, $template) {
        @found = map { $self->matching($part, $_) } @found;
    }
    for my $mailbox (@found) {
        my ($user, $domain) = @$mailbox{qw(n d)};
        ($user, $domain) = split /@/, $mailbox->{u}, 2 if defined $mailbox->{u};
        next if !defined $user;
        $self->take('maildir', $mailbox->{path}, $user, $domain, "mail_location in $DOVECOT");
    }
    return;
}

# One part of a template: the folders it may mean, with what its letters stand for.
sub matching {
    my ($self, $part, $at) = @_;
    return { %$at, path => "$at->{path}/$part" } if $part !~ /%/;
    my @letters = $part =~ /%([und])/g;
    my $pattern = join '(.+)', map {quotemeta} split /%[und]/, $part, -1;
    my @found;
    for my $name ($self->folders_in($at->{path} eq '' ? '/' : $at->{path})) {
        my @values = $name =~ /\A$pattern\z/s or next;
        my %next = (%$at, path => "$at->{path}/$name");
        @next{@letters} = @values;
        push @found, \%next;
    }
    return @found;
}

# --- Whose they are ---

# Sets client, site, sure and reason of each mailbox from the sites and the clients.
sub assign {
    my ($mailboxes, $clients, $sites) = @_;
    my %client = map { $_->{name} => 1 } @$clients;
    # Services own mailboxes of others.
    my %person = map { $_->{name} => 1 } grep { !$_->{system} } @$clients;
    my (%site_of, %below);
    for my $site (@$sites) {
        for my $name (map {lc} @{ $site->{names} }) {
            $site_of{$name} ||= $site;
            $below{$1} ||= $site if $name =~ /\A[^.]+\.(.+\..+)\z/;
        }
    }
    for my $mailbox (@$mailboxes) {
        my ($domain, $holder) = @$mailbox{qw(domain owner)};
        my $site = defined $domain ? $site_of{$domain} : undef;
        my $near = defined $domain ? $below{$domain} : undef;
        my ($owner, $sure, $reason) =
              !defined $domain   ? ($mailbox->{user}, 'certain', "it is that account's own")
            : $site              ? ($site->{owner}, 'certain', "the site $site->{name} has its domain")
            : $person{$holder}   ? ($holder, 'likely', 'the folder belongs to that account')
            : $near              ? ($near->{owner}, 'likely', "the site $near->{name} is below its domain")
            :                      ();
        next if !defined $owner || !$client{$owner};
        @$mailbox{qw(client sure reason)} = ($owner, $sure, $reason);
        $mailbox->{site} = $site->{name} if $site;
    }
    return;
}

1;
