# The content of a dump: which archives there are for what was selected, and how
# each is made. An archive whose sources are as they were is taken over from the
# dump before; one that cannot be made is a problem and the others are made.
package Linux::Content;

use strict;
use warnings;
use Agent::Archive;
use Agent::Chain;
use Agent::Changes;
use Agent::Manifest;
use Agent::Private;
use Agent::Status;
use Agent::Tar;
use Errno qw(ENOENT ENOTDIR);
use Linux::Site qw(below is_of_system);
use Linux::System;

our $FOLDER = 'content';

my $MOST_NOTES   = 50;
my $NOT_REUSABLE = '-';

# What a new host may want to look up: servers' settings and the accounts.
my @SETTINGS = qw(/etc/nginx /etc/apache2 /etc/httpd /etc/php /etc/php.ini /etc/php.d /etc/php-fpm.conf
    /etc/php-fpm.d /etc/opt/remi /etc/opt/rh /etc/sysconfig/httpd /usr/local/nginx/conf /opt/nginx/conf
    /usr/local/openresty/nginx/conf /usr/local/apache2/conf /usr/local/etc/php /usr/local/etc/php-fpm.conf
    /usr/local/etc/php-fpm.d /etc/mysql /etc/my.cnf /etc/my.cnf.d /etc/postgresql /etc/postfix
    /etc/dovecot /etc/exim4 /etc/exim /etc/aliases /etc/mailname /etc/crontab /etc/anacrontab /etc/cron.d
    /etc/cron.hourly /etc/cron.daily /etc/cron.weekly /etc/cron.monthly /etc/logrotate.d
    /etc/hosts /etc/hostname /etc/passwd /etc/group /etc/os-release /etc/sondrel
    /etc/letsencrypt /etc/dehydrated /root/.acme.sh
    /etc/courier /etc/cyrus.conf /etc/imapd.conf /etc/mail /etc/sasldb2 /etc/bind /etc/named.conf /etc/named
    /etc/powerdns /etc/pdns /etc/nsd /etc/knot /etc/opendkim /etc/opendkim.conf /etc/dkimkeys /etc/rspamd
    /var/lib/rspamd/dkim /etc/amavis /etc/proftpd /etc/proftpd.conf /etc/pure-ftpd /etc/vsftpd.conf
    /etc/vsftpd);

# tree, problems, private, kept, status, inventory, options.
sub new {
    my ($class, %options) = @_;
    return bless {
        %options, used => {}, packed => {}, made => {}, manifests => {}, owners => {}, bytes => 0,
    }, $class;
}

# What is to be made for a Linux::Selection: [{ kind, name, label, object, ... }].
# `server` is the object that stands for the host itself.
sub plan {
    my ($self, $selection, $server) = @_;
    my @plan;
    push @plan, $self->settings_of($server) if $self->{options}{server};
    for my $part ($selection->clients) {
        push @plan, $self->client($part->{client}) if $part->{whole};
        push @plan, $self->objects(%$part);
    }
    push @plan, $self->objects($selection->unassigned);
    my $only = $self->{options}{only};
    return @plan if !defined $only;
    return grep { $_->{kind} eq 'settings' || ($_->{kind} eq 'mailbox') == ($only eq 'mail') } @plan;
}

sub objects {
    my ($self, %part) = @_;
    my @plan;
    for my $domain (@{ $part{domains} }) {
        push @plan, $self->site($domain, \%part) if $domain->{site} && ($self->{options}{only}
            || '') ne 'mail';
        push @plan, $self->objects(databases => $domain->{databases}, mailboxes => $domain->{mailboxes});
    }
    push @plan, map { $self->database($_) } @{ $part{databases} || [] };
    push @plan, map { $self->mailbox($_) } @{ $part{mailboxes} || [] };
    return @plan;
}

# A name below the content folder that no other archive of this dump has.
sub name_for {
    my ($self, $folder, $text, $ending) = @_;
    my $base = "$FOLDER/$folder/" . Agent::Private::safe_name($text);
    my $name = $base;
    my $number = 2;
    # Nothing else makes this sign before a digit and a dash.
    $name = $base . '=-' . $number++ while $self->{used}{"$name$ending"}++;
    return $name . $ending . ($self->{options}{compress} ? '.gz' : '');
}

sub item {
    my ($self, $kind, $label, $object, $name, %more) = @_;
    return { kind => $kind, label => $label, object => $object, name => $name, %more };
}

sub settings_of {
    my ($self, $server) = @_;
    my $name = $self->name_for('server', 'settings', '.tar');
    my @paths = grep { $self->{tree}->exists($_) } @SETTINGS, $self->files_of_servers,
        $self->{inventory}->files_of_others;
    return $self->item('settings', 'server', $server, $name, paths => \@paths);
}

# Files of web servers in other places than the usual ones, and of PHP where these have versions.
sub files_of_servers {
    my ($self) = @_;
    my @files = map { @{ $_->{files} } } $self->{inventory}->configurations;
    @files = grep { my $file = $_; !grep { below($file, $_) } @SETTINGS } @files;
    return (@files, $self->{tree}->glob('/opt/remi/php*/root/etc'));
}

sub client {
    my ($self, $client) = @_;
    my $cron = $client->{cron} || { files => [] };
    my @pools = map { $_->{php} ? $_->{php}{pool_file} : undef } @{ $client->{sites} };
    my @units = map { ($_->{file}, @{ $_->{needs} }) } @{ $client->{units} || [] };
    my @paths = grep {defined} $cron->{crontab}, @{ $cron->{files} }, @pools,
        grep { $self->{tree}->exists($_) } @units;
    my $home = $self->home_of($client);
    push @paths, $home if defined $home;
    return if !@paths;
    my $name = $self->name_for('clients', $client->{name}, '.tar');
    return $self->item('client', $client->{name}, $client, $name,
        paths => \@paths, left_out => ['sites', 'mailboxes']);
}

# The home of a person's account, which may hold what its sites need besides their
# document roots.
sub home_of {
    my ($self, $client) = @_;
    return if $client->{system} || !defined $client->{home};
    my $real = $self->{tree}->real($client->{home});
    return if !defined $real || is_of_system($real) || !$self->{tree}->is_dir($real);
    my $owner = ($self->{tree}->stat($real))[4];
    return $client->{home} if $owner == $client->{uid};
    $self->problem('error', $client->{name}, "The home $client->{home} belongs to "
        . $self->{inventory}->users->name_of($owner)
        . ', so that only the sites in it are packed: copy by hand what else is needed');
    return;
}

sub site {
    my ($self, $domain, $part) = @_;
    my $site = $domain->{site};
    $self->{inventory}->parts->describe($site);
    my (@paths, @with);
    for my $path (@{ $site->{packed} }) {
        my $real = $self->{tree}->real($path);
        $real = $path if !defined $real;
        if (is_of_system($real)) {
            $self->problem('error', $domain->{name}, "$path is a directory of the system and is not packed");
            next;
        }
        my $other = $self->{packed}{$real} ||= $domain;
        if ($other == $domain) { push @paths, $path, @{ $site->{ways}{$path} || [] } }
        else                   { push @with, $other }
    }
    push @paths, @{ $site->{config} }, @{ $site->{files} || [] }, values %{ $site->{tls} || {} };
    push @paths, map { @{ $_->{paths} } } @{ $site->{lineages} || [] };
    push @paths, map { @{ $_->{files} } } @{ $domain->{zones} };
    push @paths, map { $_->{file} } @{ $domain->{mail_keys} };
    push @paths, $site->{php}{pool_file} if $site->{php};
    push @paths, $self->files_of_jobs($part);
    my $home = $part && $part->{whole} ? $self->home_of($part->{client}) : undef;
    $self->name_beside($domain, $home);
    my %seen;
    return $self->item('site', $domain->{name}, $domain, $self->name_for('sites', $domain->{name}, '.tar'),
        paths => [grep { defined && m{\A/} } @paths], with => [grep { !$seen{$_}++ } @with], home => $home,
        site => $site, left_out => ['mailboxes']);
}

# Files with jobs and units of an account of which only some domains are packed, once for all of them.
sub files_of_jobs {
    my ($self, $part) = @_;
    return if !$part || $part->{whole} || $part->{has_jobs}++;
    my @files = ((map { $_->{file} } @{ $part->{jobs} || [] }),
        map { ($_->{file}, @{ $_->{needs} }) } @{ $part->{units} || [] });
    my %seen;
    return grep { !$seen{$_}++ && $self->{tree}->exists($_) } @files;
}

# Names what an application may need and no archive has.
sub name_beside {
    my ($self, $domain, $home) = @_;
    my $real = defined $home ? $self->{tree}->real($home) : undef;
    for my $beside (@{ $domain->{site}{beside} || [] }) {
        next if defined $real && below($beside->{directory}, $real);
        $self->problem('error', $domain->{name}, "$beside->{directory} is not packed, though $beside->{text}:"
            . ' copy what the site needs by hand, or dump the whole client if it is in the client\'s home');
    }
    return;
}

sub database {
    my ($self, $database) = @_;
    my ($kind, $server, $name) = @$database{qw(kind server name)};
    my %servers = map { $_->{server} => 1 } grep { $_->{kind} eq $kind } $self->{inventory}->databases;
    my $folder = 'databases' . (keys %servers > 1 ? '/' . Agent::Private::safe_name($server) : '');
    return $self->item('database', "$kind $name", $database, $self->name_for($folder, "$kind-$name", '.sql'),
        database => $database);
}

sub mailbox {
    my ($self, $mailbox) = @_;
    return $self->item('mailbox', $mailbox->{address}, $mailbox,
        $self->name_for('mailboxes', $mailbox->{address}, '.tar'),
        paths => [$mailbox->{path}, @{ $mailbox->{besides} }], left_out => ['sites']);
}

sub problem {
    my ($self, $severity, $object, $text) = @_;
    $self->{problems}->add(severity => $severity, object => $object, text => $text);
    return;
}

# Makes all that is planned, and removes all other content.
sub make {
    my ($self, @plan) = @_;
    my ($status, $kept) = @$self{qw(status kept)};
    # What is not asked for any more makes room first.
    $kept->retain($FOLDER, map { $self->chain_of($_)->names } @plan);
    $status->set(done => 0, total => scalar @plan);
    for my $item (@plan) {
        $status->set(object => $item->{label});
        $self->make_one($item);
        $self->{bytes} = $self->bytes;
        delete $self->{archive};
        $status->set(done => $status->{done} + 1, bytes => $self->{bytes});
    }
    $kept->retain($FOLDER, keys %{ $self->{made} });
    $self->{private}->remove($_)
        for grep { !$self->{manifests}{$_} } $self->{private}->files_below($Agent::Manifest::FOLDER);
    return;
}

sub chain_of {
    my ($self, $item, $signature) = @_;
    return Agent::Chain->new(kept => $self->{kept}, private => $self->{private}, name => $item->{name},
        signature => $signature);
}

# Tells if some of what was made follows earlier archives.
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

# A failure is a problem of the item, unless the agent is told to end.
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

# What has changed since the archives that there are; undef where all is to be packed anew.
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

# Tells if a link leads into its archive by a way that has links itself.
sub is_inside {
    my ($self, $tar, $link) = @_;
    my $real = $self->{tree}->real($link);
    return defined $real && grep { below($real, $_) } $tar->starts;
}

sub tar_of {
    my ($self, $item, $paths, %options) = @_;
    my $tree = $self->{tree};
    my %seen;
    my @paths = grep { !$seen{$_}++ } map { $tree->trail($_) } @$paths;
    my @folders = grep { $tree->is_dir($_) } @paths;
    my @inside = map { my $kind = $_; map { $self->folders_inside($kind, $_) } @folders }
        @{ $item->{left_out} || [] };
    my @exclude = ($self->{private}->dir, $self->of_kernel($item, @folders), map { $tree->path($_) } @inside);
    return Agent::Tar->new(private => $self->{private}, top => $tree->root, paths => \@paths,
        exclude => \@exclude, %options);
}

# What a link of a site leads to, if it is to be packed with the site: not the system's, not what
# holds many things, and of the account that made the link where that was not root.
sub behind_link {
    my ($self, $item, $link) = @_;
    my $tree = $self->{tree};
    my $real = $item->{site} ? $tree->real($link) : undef;
    return if !defined $real || !$self->{inventory}->parts->is_place($real);
    return if defined $item->{home} && below($real, $tree->real($item->{home}));
    my ($maker) = ($tree->lstat($link))[4];
    my ($owner) = ($tree->stat($real))[4];
    return $maker && $maker != $owner ? () : $real;
}

# Says of links that lead out of their archive what is there.
sub note_links {
    my ($self, $item, $notes, @links) = @_;
    my $tree = $self->{tree};
    my %real = map { $_->[0] => $tree->real($_->[0]) } @links;
    my $brought = $self->{inventory}->parts->brought_by_packages(grep {defined} values %real);
    for my $link (sort { $a->[0] cmp $b->[0] } @links) {
        my ($path, $target) = @$link;
        # Those of enabled units and of parts of servers' settings; packages make them anew.
        next if $item->{kind} eq 'settings' && defined $real{$path} && $brought->{ $real{$path} };
        my $real = $real{$path};
        my ($severity, $text) = !defined $real ? $self->of_broken_link($path)
            : $brought->{$real} ? ('warning', 'is not packed: install there what it belongs to')
            : $self->of_link($item, $path, $real);
        $self->note($item, $notes, $severity, $path, "is a symbolic link to $target, which $text");
    }
    return;
}

sub of_broken_link {
    my ($self, $path) = @_;
    my $is_there = defined $self->{tree}->real($path) || $! != ENOENT && $! != ENOTDIR;
    return $is_there ? ('error',
        "cannot be followed ($!) and is in no archive with it: copy it by hand if it is needed")
        : ('info', 'is not there');
}

sub of_link {
    my ($self, $item, $path, $real) = @_;
    my $home = defined $item->{home} ? $self->{tree}->real($item->{home}) : undef;
    return ('info', 'is in the archive of the client') if defined $home && below($real, $home);
    return ('info', 'is of a site and in its archive') if grep { below($real, $_) } keys %{ $self->{packed} };
    return ('error', 'is of a site that is not in this dump: dump that site, too')
        if grep { below($real, $_) } $self->folders_of('sites');
    # Such as "..": it is there when the link is.
    return ('warning', 'is above it: only those parts of it are packed that belong to what was asked for')
        if below($path, $real);
    return ('error', 'is not packed: copy it by hand');
}

# File systems of the kernel below some folders, as a home that is a jail has: to read them
# may never end.
sub of_kernel {
    my ($self, $item, @folders) = @_;
    $self->{of_kernel} ||= [Linux::System::kernel_folders()];
    my @tops = map { $self->{tree}->path($_) } @folders;
    my @found = grep { my $folder = $_; grep { below($folder, $_) } @tops } @{ $self->{of_kernel} };
    $self->problem('info', $item->{label}, "$_ is a file system of the kernel and is left out") for @found;
    return @found;
}

# The real folders of all sites or mailboxes.
sub folders_of {
    my ($self, $kind) = @_;
    my $folders = $self->{folders}{$kind} ||= [
        grep {defined} map { $self->{tree}->real($_) }
            map { $kind eq 'sites' ? $self->{inventory}->parts->directories_of($_) : $_->{path} }
                $self->{inventory}->$kind
    ];
    return @$folders;
}

# Those of folders_of() that lie in a folder. There may be thousands of both: with the sorted list no folder
# is compared with each of them.
sub folders_inside {
    my ($self, $kind, $folder) = @_;
    my $sorted = $self->{sorted}{$kind} ||= [sort map {"$_/"} $self->folders_of($kind)];
    my $start = $folder eq '/' ? '/' : "$folder/";
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

# Tells what was found about an object's files: the first of them as problems of
# the dump, all the others in a list of its own.
sub note {
    my ($self, $item, $notes, $severity, $path, $text) = @_;
    $notes->{packing}++;
    if (++$notes->{count} <= $MOST_NOTES) {
        return $self->problem($severity, $item->{label}, length $path ? "$path $text" : $text);
    }
    if (!$notes->{archive}) {
        (my $name = $item->{name}) =~ s{\A\Q$FOLDER\E/}{};
        $name =~ s{/}{-}g;
        my $gz = $name =~ s/\.gz\z// ? '.gz' : '';
        my $list = "$FOLDER/problems/$name.txt$gz";
        $notes->{archive} = $self->new_archive($list, 0);
        $self->problem('warning', $item->{label}, "More of its problems are listed in $list");
    }
    $notes->{archive}->put("$severity: $path $text\n");
    return;
}

1;
