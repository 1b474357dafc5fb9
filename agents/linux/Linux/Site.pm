# What the web servers have in common: the record of a site, and how the blocks of
# a server's configuration that are about one site become one record.
package Linux::Site;

use strict;
use warnings;
use Errno qw(ENOENT ENOTDIR);
use Exporter 'import';

our @EXPORT_OK = qw(
    new_block source_of add_once is_host_name target_host join_blocks below is_packaged is_of_system
);

# Directories of installed packages; what is served from there is not of a site.
my $PACKAGED = qr{\A/usr/(?!local/)[^/]};

# Directories that hold a whole system or what all of it shares, and file systems without files: no
# site's content, whatever a configuration says.
my $SYSTEM = qr{\A/(?:
    (?:bin|boot|etc|home|lib\w*|opt|root|sbin|tmp|usr|var)?
    | usr/(?:share|lib\w*|local)
    | var/(?:cache|lib|log|mail|spool|tmp)
    | (?:dev|proc|run|sys)(?:/.*)?
)\z}sx;

# An empty record. Blocks have besides: content (something is served here),
# settings and pools of PHP as they are configured, file and line.
sub new_block {
    my ($server, $file, $line) = @_;
    return {
        server => $server, file => $file, line => $line, names => [], root => undef, roots => [],
        listen => [], tls => undef, redirects => [], access => [], logs => [], config => [],
        files => [], proxies => [], programs => [], packaged => [], common => [], blocks => [],
        php_settings => {}, php_admin => {}, php_addresses => [], php_module => 0, module_settings => {},
        module_admin => {}, php_rules => [], php_user => undef, content => 0,
    };
}

# What tells of a record which directive of a configuration it is made of, with the
# definitions that this one uses, its names and its addresses. Without a directive it is the
# configuration itself.
sub source_of {
    my ($block, $configuration, $directive, @uses) = @_;
    return { configuration => $configuration, directive => $directive, uses => \@uses,
        names => [@{ $block->{names} }], listen => [@{ $block->{listen} }] };
}

# Adds values that are not in the list.
sub add_once {
    my ($list, @values) = @_;
    my %there = map { $_ => 1 } @$list;
    push @$list, grep { defined && !$there{$_}++ } @values;
    return;
}

# Adds records that are not in the list, compared by all their values.
sub add_records {
    my ($list, @records) = @_;
    my %there = map { record_key($_) => 1 } @$list;
    push @$list, grep { !$there{ record_key($_) }++ } @records;
    return;
}

sub record_key {
    my ($record) = @_;
    return join "\0", map { ($_, defined $record->{$_} ? $record->{$_} : "\0") } sort keys %$record;
}

sub is_host_name { return $_[0] =~ /\A(?:[a-z0-9_](?:[a-z0-9_-]*[a-z0-9_])?\.)*[a-z0-9_][a-z0-9_-]*\z/i }

# The host that a redirect leads to; undef where it stays or is not written out.
sub target_host {
    my ($to) = @_;
    return $to =~ m{\Ahttps?://([\w.-]+)(?:[:/\$?#]|\z)}i ? lc $1 : undef;
}

# True for a path inside a directory or the directory itself.
sub below {
    my ($path, $directory) = @_;
    return $path eq $directory || index($path, $directory eq '/' ? '/' : "$directory/") == 0;
}

sub is_packaged { return $_[0] =~ $PACKAGED }

# True for a directory that is of the system as a whole, given without links on the way.
sub is_of_system { return $_[0] =~ $SYSTEM ? 1 : 0 }

# The sites that the blocks of one server make, in their order. Blocks are of one
# site when they share a name, and the first name or what they serve. A block that
# serves several sites by their names is part of each of them.
sub join_blocks {
    my ($tree, $problems, @blocks) = @_;
    place_redirects($_) for @blocks;
    my (@sites, %by_name);
    my @content = grep { $_->{content} } @blocks;
    my @parts = give_up_names(@content);
    for my $block (@content) {
        my ($site) = grep { same_site($_, $block) } map { @{ $by_name{$_} || [] } } keys_of($block);
        if ($site) { absorb($site, $block) }
        else       { push @sites, $site = $block }
        for my $key (keys_of($block)) {
            push @{ $by_name{$key} }, $site if !grep { $_ == $site } @{ $by_name{$key} || [] };
        }
    }
    for my $part (@parts) {
        my ($name, $block) = @$part;
        absorb($_, $block, $name) for @{ $by_name{$name} };
    }
    push @sites, attach($problems, \%by_name, grep { !$_->{content} } @blocks);
    name_sites(@sites);
    return map { finish_roots($tree, $problems, $_) } @sites;
}

# A redirect says little without the names and addresses that it is for: sites have several.
sub place_redirects {
    my ($block) = @_;
    my @listens = map { join ':', grep {defined} @$_{qw(address port)} } @{ $block->{listen} };
    for my $redirect (@{ $block->{redirects} }) {
        $redirect->{server} = $block->{server};
        $redirect->{names}  = join ' ', @{ $block->{names} };
        $redirect->{listen} = join ' ', @listens;
    }
    return;
}

# Takes from blocks the names that are the first of others which serve something else: those
# are sites of their own. Gives [name, block as it was] for each.
sub give_up_names {
    my @blocks = @_;
    my (%first, @parts);
    push @{ $first{ $_->{names}[0] } }, $_ for grep { @{ $_->{names} } } @blocks;
    for my $block (@blocks) {
        my ($own, @others) = @{ $block->{names} };
        my %gone = map { $_ => 1 }
            grep { $first{$_} && !grep { serves_same($_, $block) } @{ $first{$_} } } @others;
        next if !%gone;
        my $whole = { %$block };
        push @parts, map { [$_ => $whole] } grep { $gone{$_} } @others;
        $block->{names} = [grep { !$gone{$_} } $own, @others];
    }
    return @parts;
}

# Whether two records serve the same directory, or hand on to the same servers.
sub serves_same {
    my ($one, $other) = @_;
    my @roots = map { $_->{root} } $one, $other;
    return 1 if defined $roots[0] && defined $roots[1] && $roots[0] eq $roots[1];
    return 0 if defined $roots[0] || defined $roots[1];
    my @targets = map { join "\0", sort map {@$_} @$_{qw(proxies php_addresses roots)} } $one, $other;
    return $targets[0] eq $targets[1];
}

# Under what a block can be found; those without a name by what they serve.
sub keys_of {
    my ($block) = @_;
    return @{ $block->{names} } if @{ $block->{names} };
    return "\0" . (defined $block->{root} ? $block->{root} : '');
}

sub same_site {
    my ($site, $block) = @_;
    return 1 if !@{ $site->{names} } && !@{ $block->{names} };
    return $site->{names}[0] eq $block->{names}[0] || serves_same($site, $block);
}

# Leaves of a record what is for some of its names.
sub keep_names {
    my ($record, @names) = @_;
    my %kept = map { $_ => 1 } @names;
    $record->{names} = [grep { $kept{$_} } @{ $record->{names} }];
    $record->{blocks} = [grep { grep { $kept{$_} } @{ $_->{names} } } @{ $record->{blocks} }];
    $record->{redirects} = [grep { grep { $kept{$_} } split / /, $_->{names} } @{ $record->{redirects} }];
    return;
}

# A copy whose lists are its own.
sub copy_of {
    my ($record) = @_;
    my %copy = %$record;
    $_ = [@$_] for grep { ref eq 'ARRAY' } values %copy;
    return \%copy;
}

sub absorb {
    my ($site, $block, @names) = @_;
    add_once($site->{names}, @names ? @names : @{ $block->{names} });
    add_once($site->{$_}, @{ $block->{$_} })
        for qw(roots logs config files proxies php_addresses blocks programs packaged common);
    add_records($site->{$_}, @{ $block->{$_} }) for qw(listen redirects access);
    for my $values (qw(php_settings php_admin module_settings module_admin)) {
        $site->{$values} = { %{ $block->{$values} }, %{ $site->{$values} } };
    }
    for my $one (qw(root tls php_user php_wrapper)) {
        $site->{$one} = $block->{$one} if !defined $site->{$one};
    }
    $site->{php_module} ||= $block->{php_module};
    return;
}

# Gives blocks that serve nothing of their own, as those that lead to https, to the
# sites that they are about; returns those that are about none.
sub attach {
    my ($problems, $by_name, @blocks) = @_;
    my @alone;
    for my $block (@blocks) {
        my @hosts = grep {defined} map { target_host($_->{to}) } @{ $block->{redirects} };
        my %seen;
        my @sites = grep { !$seen{$_}++ } map { @{ $by_name->{$_} || [] } } @{ $block->{names} };
        @sites = grep { !$seen{$_}++ } map { @{ $by_name->{$_} || [] } } @hosts if !@sites;
        if (!@sites && !@{ $block->{names} }) {
            # Usual for refusing requests that name no site.
            $problems->add(severity => 'info', object => $block->{file},
                text => "Line $block->{line}: has neither a name nor content and is left out");
            next;
        }
        my @new = grep { !$by_name->{$_} } @{ $block->{names} };
        for my $site (@sites) {
            my %of_site = map { $_ => 1 } @{ $site->{names} };
            my @names = grep { $of_site{$_} } @{ $block->{names} };
            push @names, @new if @sites == 1 || grep { $of_site{$_} } @hosts;
            absorb($site, $block, @names ? @names : @{ $site->{names} }[0]);
        }
        next if @sites;
        push @alone, $block;
        $by_name->{$_} = [$block] for @new;
    }
    return @alone;
}

# True if all that a block serves has become sites of the hosts of its open names.
sub is_spent {
    my ($block, @hosts) = @_;
    return @hosts && !defined $block->{root} && !grep { is_host_name($_) } @{ $block->{names} };
}

# The first name that is a plain one names the site.
sub name_sites {
    my @sites = @_;
    my %taken;
    for my $site (@sites) {
        my ($plain) = grep { is_host_name($_) } @{ $site->{names} };
        my $name = defined $plain ? $plain : $site->{names}[0];
        $name = default_name($site) if !defined $name;
        my $number = 2;
        my $base = $name;
        $name = $base . '-' . $number++ while $taken{$name};
        $taken{$name} = 1;
        $site->{name} = $name;
        $site->{names} = [$name] if !@{ $site->{names} };
    }
    return;
}

sub default_name {
    my ($site) = @_;
    my @ports = map { $_->{port} || () } @{ $site->{listen} };
    return 'default' if !@ports || grep { $_ == 80 || $_ == 443 } @ports;
    return "default-$ports[0]";
}

# Leaves the existing roots that are a site's and not inside another one; its own first. A
# single file in the place of a directory is one that the site needs besides.
sub finish_roots {
    my ($tree, $problems, $site) = @_;
    my (@kept, @real);
    my $own = $site->{root};
    add_once(my $roots = [], $own, @{ $site->{roots} });
    for my $root (@$roots) {
        my $is_own = defined $own && $root eq $own;
        if (!$is_own && is_packaged($root)) {
            push @{ $site->{packaged} }, $root;
            next;
        }
        my $real = $tree->real($root);
        if (!defined $real) {
            my $missing = $! == ENOENT || $! == ENOTDIR;
            $problems->add(severity => $missing ? 'warning' : 'error', object => $site->{name},
                text => "Document root $root " . ($missing ? 'does not exist' : "cannot be read: $!"));
            next if $missing;
            $real = $root;
        }
        next if grep { below($real, $_) } @real;
        if (!$is_own && $tree->is_file($real)) {
            add_once($site->{files}, $root);
            next;
        }
        if (is_of_system($real)) {
            $problems->add(severity => 'error', object => $site->{name},
                text => "Document root $root is a directory of the system and is left out");
            next;
        }
        push @kept, $root;
        push @real, $real;
    }
    $site->{roots} = \@kept;
    return $site;
}

1;
