# What the web servers of the host answer for its sites, to be compared with what they answer after a
# move. Only servers of root are asked, on addresses of this host, one request at a time, within limits.
package Linux::SiteAnswers;

use strict;
use warnings;
use Digest::MD5 qw(md5_hex);
use Linux::Http;
use Linux::Idn;
use Linux::Listeners;
use Linux::Pages;
use Linux::Settings;
use Linux::Site qw(is_host_name);
use Time::HiRes ();

# Seconds for one request, for all requests of one site, and for all sites.
our %LIMIT = (request => 5, site => 20, all => 300);

my $MOST_PAGES = 5;
my $MOST_NAMED = 3;
my $NO_COMPARISON = 'what it answers cannot be compared with the new host';

# Asks for "/" of each name of each site, then for pages that "/" links to, and puts into each site
# answers => [{ name, address, port, tls (1 or 0), path, status, location, title, size, sum, whole }].
# tree => Linux::Tree, problems => Agent::Problems, sites => [sites], asking => sub { ($site) } called
# before each. What does not answer is a problem and nothing worse.
sub ask {
    my (%given) = @_;
    my $self = bless { asking => sub { }, %given }, __PACKAGE__;
    return if $self->{tree}->root ne '/' || !Linux::Settings::of(@$self{qw(tree problems)})->{'ask-sites'};
    $self->{listeners} = Linux::Listeners->new($self->{tree});
    $self->{own} = own_addresses($self->{tree});
    $self->{until} = Time::HiRes::time() + $LIMIT{all};
    my @late;
    for my $step (\&ask_names, \&ask_pages) {
        for my $site (@{ $self->{sites} }) {
            if (Time::HiRes::time() >= $self->{until}) { push @late, $site->{name} }
            else {
                $self->{asking}->($site);
                $step->($self, $site);
            }
        }
    }
    $self->name_late(@late);
    return;
}

sub name_late {
    my ($self, @names) = @_;
    my %seen;
    @names = grep { !$seen{$_}++ } @names;
    return if !@names;
    $self->{problems}->add(severity => 'info', object => 'web servers', text => "After $LIMIT{all} seconds "
        . @names . ' sites were not asked, or not for all of their pages, so that their answers cannot be'
        . ' compared with the new host: ' . named(@names));
    return;
}

sub named {
    my @names = @_;
    my $more = @names - $MOST_NAMED;
    return join ', ', @names if $more <= 0;
    return join(', ', @names[0 .. $MOST_NAMED - 1]) . " and $more more";
}

sub ask_names {
    my ($self, $site) = @_;
    my @targets = $self->targets($site);
    my (@failed, $page);
    $site->{answers} = [];
    for my $target (@targets) {
        my ($answer, $why) = $self->get($site, { %$target, path => '/' });
        push @failed, "$target->{name} at $target->{address}, port $target->{port}, $why" if !$answer;
        next if !$answer || $page && ($page->{tls} || !$target->{tls});
        my @paths = Linux::Pages::links($answer, $target, $MOST_PAGES);
        $page = { %$target, paths => \@paths } if @paths;
    }
    $self->{pages}{ $site->{name} } = $page;
    my $plain = grep { names_of($_, $site) } @{ $site->{blocks} };
    $self->problem('info', $site, 'Was not asked for its pages, since no server of root\'s listens at its'
        . " addresses: $NO_COMPARISON. Dump again while it runs if you want that") if $plain && !@targets;
    $self->problem('warning', $site, 'Asked for its pages, ' . named(@failed) . ": $NO_COMPARISON."
        . ' See whether the site works here') if @failed;
    return;
}

sub ask_pages {
    my ($self, $site) = @_;
    my $page = delete $self->{pages}{ $site->{name} } or return;
    $self->get($site, { %$page, path => $_ }) for @{ $page->{paths} };
    return;
}

# Adds the answer to the site. Gives what Linux::Http::get gives.
sub get {
    my ($self, $site, $request) = @_;
    my $left = $LIMIT{site} - ($self->{spent}{ $site->{name} } || 0);
    for my $limit ($LIMIT{request}, $self->{until} - Time::HiRes::time()) {
        $left = $limit if $left > $limit;
    }
    return (undef, 'was not asked for want of time') if $left <= 0;
    my $begun = Time::HiRes::time();
    my ($answer, $why) = Linux::Http::get(%$request, limit => $left);
    $self->{spent}{ $site->{name} } += Time::HiRes::time() - $begun;
    return (undef, $why) if !$answer;
    push @{ $site->{answers} }, {
        (map { $_ => $request->{$_} } qw(name address port tls path)),
        (map { $_ => $answer->{$_} } qw(status location whole)),
        title => Linux::Pages::title($answer), size => length $answer->{body},
        sum => md5_hex($answer->{body}),
    };
    return $answer;
}

# Where to ask a site, under which names: [{ name, address, family, port, tls }].
sub targets {
    my ($self, $site) = @_;
    my (@targets, %seen);
    for my $block (@{ $site->{blocks} }) {
        my @names = names_of($block, $site);
        for my $listen (grep { defined $_->{port} && $_->{port} =~ /\A[0-9]{1,5}\z/ } @{ $block->{listen} }) {
            next if $listen->{tls} && !Linux::Http::speaks_tls();
            my @addresses = $self->addresses_of($listen);
            for my $name (@names) {
                my @new = grep { !$seen{"$name $_->{address} $listen->{port}"}++ } @addresses;
                push @targets, map {
                    +{ %$_, name => $name, port => $listen->{port}, tls => $listen->{tls} ? 1 : 0 }
                } @new;
            }
        }
    }
    return @targets;
}

# The names of a block that are the site's and no patterns, as a browser sends them.
sub names_of {
    my ($block, $site) = @_;
    my %of_site = map { $_ => 1 } @{ $site->{names} };
    return grep { is_host_name($_) && /[a-z0-9]/ && length $_ < 254 }
        map { (Linux::Idn::forms($_))[0] } grep { $of_site{$_} } @{ $block->{names} };
}

# The addresses of this host at which a server of root's takes what comes to an address and a port of a
# configuration: { address, family }. What listens there must be root's, or the agent's own account's.
sub addresses_of {
    my ($self, $listen) = @_;
    my @there = $self->{listeners}->at_port($listen->{port});
    my ($address, @asked) = (lc $listen->{address});
    $address =~ s/\A\[(.*)\]\z/$1/;
    $address = '127.0.0.1' if $address eq 'localhost';
    if ($address eq '*' || $address eq '0.0.0.0') {
        @asked = (grep { $_->{address} eq '0.0.0.0' || $_->{address} eq '::' } @there) ? '127.0.0.1'
            : $address eq '*' ? map { $_->{address} } @there : ();
    }
    elsif ($address eq '::') { @asked = '::1' }
    else                     { @asked = $address }
    return grep { $self->may_ask($_, @there) } map { with_family($_) } @asked;
}

sub with_family {
    my ($address) = @_;
    return { address => $address, family => 4 }
        if $address =~ /\A[0-9]{1,3}(?:\.[0-9]{1,3}){3}\z/ && !grep { $_ > 255 } split /\./, $address;
    return defined Linux::Http::hex_of_6($address) ? { address => $address, family => 6 } : ();
}

sub may_ask {
    my ($self, $asked, @there) = @_;
    my $key = key_of($asked);
    return 0 if !$self->{own}{$key} && $key !~ /\A127\./;
    my @takers = grep {
        $_->{address} eq '::' || $_->{address} eq ($asked->{family} == 4 ? '0.0.0.0' : '::')
            || key_of(with_family($_->{address})) eq $key
    } @there;
    return @takers && !grep { $_->{uid} && $_->{uid} != $> } @takers;
}

# The same for all ways to write an address.
sub key_of {
    my ($asked) = @_;
    return $asked->{family} == 6 ? Linux::Http::hex_of_6($asked->{address})
        : join '.', map { $_ + 0 } split /\./, $asked->{address};
}

# The addresses of the host by key_of(). A server may listen at one that is not, or not any more.
sub own_addresses {
    my ($tree) = @_;
    my (%own, $last);
    for my $line ($tree->read_lines('/proc/net/fib_trie')) {
        if    ($line =~ /\|-- ([0-9.]+)\s*\z/)       { $last = $1 }
        elsif ($line =~ m{/32 host LOCAL\b} && $last) { $own{$last} = 1 }
    }
    $own{ (split ' ', $_)[0] } = 1 for grep {/\A[0-9a-f]{32} /} $tree->read_lines('/proc/net/if_inet6');
    return \%own;
}

sub problem {
    my ($self, $severity, $site, $text) = @_;
    $self->{problems}->add(severity => $severity, object => $site->{name}, text => $text);
    return;
}

1;
