# What the web servers have in common: the record of a site, and how the blocks of
# a server's configuration that are about one site become one record.
package Linux::Site;

use strict;
use warnings;
use Errno qw(ENOENT ENOTDIR);
use Exporter 'import';

our @EXPORT_OK = qw(new_block add_once is_host_name target_host join_blocks below is_packaged is_of_system);

# Folders of installed packages; what is served from there is not of a site.
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
        files => [], proxies => [], php_settings => {}, php_addresses => [], php_module => 0,
        php_user => undef, content => 0,
    };
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

# True for a path inside a folder or the folder itself.
sub below {
    my ($path, $folder) = @_;
    return $path eq $folder || index($path, $folder eq '/' ? '/' : "$folder/") == 0;
}

sub is_packaged { return $_[0] =~ $PACKAGED }

# True for a directory that is of the system as a whole, given without links on the way.
sub is_of_system { return $_[0] =~ $SYSTEM ? 1 : 0 }

# The sites that the blocks of one server make, in their order. Blocks are of one
# site when they share a name, and the first name or the document root.
sub join_blocks {
    my ($tree, $problems, @blocks) = @_;
    my (@sites, %by_name);
    for my $block (grep { $_->{content} } @blocks) {
        my ($site) = grep { same_site($_, $block) } map { @{ $by_name{$_} || [] } } keys_of($block);
        if ($site) { absorb($site, $block) }
        else       { push @sites, $site = $block }
        for my $key (keys_of($block)) {
            push @{ $by_name{$key} }, $site if !grep { $_ == $site } @{ $by_name{$key} || [] };
        }
    }
    push @sites, attach($problems, \%by_name, grep { !$_->{content} } @blocks);
    name_sites(@sites);
    return map { finish_roots($tree, $problems, $_) } @sites;
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
    return 1 if $site->{names}[0] eq $block->{names}[0];
    return 1 if !defined $site->{root} || !defined $block->{root};
    return $site->{root} eq $block->{root};
}

sub absorb {
    my ($site, $block, @names) = @_;
    add_once($site->{names}, @names ? @names : @{ $block->{names} });
    add_once($site->{$_}, @{ $block->{$_} }) for qw(roots logs config files proxies php_addresses);
    add_records($site->{$_}, @{ $block->{$_} }) for qw(listen redirects access);
    $site->{php_settings} = { %{ $block->{php_settings} }, %{ $site->{php_settings} } };
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
# single file in the place of a folder is one that the site needs besides.
sub finish_roots {
    my ($tree, $problems, $site) = @_;
    my (@kept, @real);
    my $own = $site->{root};
    add_once(my $roots = [], $own, @{ $site->{roots} });
    for my $root (@$roots) {
        my $is_own = defined $own && $root eq $own;
        next if !$is_own && is_packaged($root);
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
                text => "Document root $root is a folder of the system and is left out");
            next;
        }
        push @kept, $root;
        push @real, $real;
    }
    $site->{roots} = \@kept;
    return $site;
}

1;
