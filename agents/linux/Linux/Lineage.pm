# What renews a certificate: the files that the programs for it (certbot, acme.sh, lego,
# dehydrated) keep of it, without which a new host cannot renew it.
package Linux::Lineage;

use strict;
use warnings;

# Where acme.sh of root is; that of an account is in the account's home.
my @ACME_SH = qw(/root/.acme.sh /etc/acme.sh);

sub new {
    my ($class, $tree) = @_;
    return bless { tree => $tree }, $class;
}

# For some files of certificates and keys: { program, name, paths => [what to pack], directories
# => [{ path, mode, uid, gid }: directories above these, whose modes protect keys] }. Each
# lineage once.
sub of {
    my ($self, @files) = @_;
    my $tree = $self->{tree};
    my (%seen, @found);
    for my $file (grep { defined && m{\A/} } @files) {
        # The settings may name a link to what the programs keep.
        for my $path ($file, $tree->trail($file)) {
            push @found, map { $_->($tree, $path) } \&certbot, \&lego, \&dehydrated, \&acme_sh;
        }
        push @found, $self->copied_by_acme_sh($file);
    }
    return grep { !$seen{"$_->{program} $_->{name} $_->{paths}[0]"}++ } @found;
}

# { path, mode, uid, gid } of those of some directories that are there.
sub directories {
    my ($tree, @paths) = @_;
    return map {
        my @stat = $tree->stat($_);
        my $mode = @stat ? sprintf '%04o', $stat[2] & 07777 : undef;
        @stat ? { path => $_, mode => $mode, uid => $stat[4], gid => $stat[5] } : ()
    } @paths;
}

sub there {
    my ($tree, @paths) = @_;
    return grep { $tree->lstat($_) } @paths;
}

sub certbot {
    my ($tree, $path) = @_;
    my ($top, $name) = $path =~ m{\A(.*)/(?:live|archive)/([^/]+)/[^/]+\z} or return;
    return if !$tree->is_file("$top/renewal/$name.conf");
    my %is = map { /\A\s*(\w+)\s*=\s*(\S+)/ ? ($1 => $2) : () } $tree->read_lines("$top/renewal/$name.conf");
    my @account;
    if (defined $is{account} && $is{account} =~ /\A\w+\z/) {
        @account = map { $tree->glob("$top/accounts/$_/$is{account}") } qw(*/directory */*);
    }
    my %seen;
    return {
        program => 'certbot', name => $name,
        paths => [there($tree, "$top/live/$name", "$top/archive/$name", "$top/renewal/$name.conf"),
            grep { !$seen{$_}++ } @account],
        directories => [directories($tree, map {"$top/$_"} qw(live archive accounts))],
    };
}

sub lego {
    my ($tree, $path) = @_;
    my ($top, $name) = $path =~ m{\A(.*)/certificates/([^/]+)\.(?:crt|key|pem)\z} or return;
    return if !$tree->is_dir("$top/accounts");
    my @own = map {"$top/certificates/$name.$_"} qw(crt key json pem issuer.crt);
    return {
        program => 'lego', name => $name, paths => [there($tree, @own, "$top/accounts")],
        directories => [directories($tree, $top, "$top/certificates")],
    };
}

sub dehydrated {
    my ($tree, $path) = @_;
    my ($top, $name) = $path =~ m{\A(.*)/certs/([^/]+)/[^/]+\z} or return;
    return if !$tree->is_dir("$top/accounts");
    return {
        program => 'dehydrated', name => $name,
        paths => [there($tree, "$top/certs/$name", "$top/accounts", "$top/domains.txt")],
        directories => [directories($tree, $top, "$top/certs")],
    };
}

sub acme_sh {
    my ($tree, $path) = @_;
    my ($top, $name) = $path =~ m{\A(.*/\.?acme\.sh)/([^/]+)/[^/]+\z} or return;
    return of_acme_sh($tree, $top, $name);
}

# It copies what it has renewed to where the server wants it, and notes the places.
sub copied_by_acme_sh {
    my ($self, $file) = @_;
    $self->{copied} ||= $self->read_acme_sh;
    return map { of_acme_sh($self->{tree}, @$_) } @{ $self->{copied}{$file} || [] };
}

# { path of a copy => [[directory of acme.sh, name there]] }
sub read_acme_sh {
    my ($self) = @_;
    my $tree = $self->{tree};
    my %copied;
    for my $settings (map { $tree->glob("$_/*/*.conf") } grep { $tree->is_dir($_) } @ACME_SH) {
        my ($top, $name) = $settings =~ m{\A(.*)/([^/]+)/[^/]+\z};
        push @{ $copied{$_} }, [$top, $name]
            for map { /\ALe_Real\w+='?(.+?)'?\s*\z/ ? $1 : () } $tree->read_lines($settings);
    }
    return \%copied;
}

sub of_acme_sh {
    my ($tree, $top, $name) = @_;
    return {
        program => 'acme.sh', name => $name,
        paths => [there($tree, "$top/$name", "$top/account.conf", "$top/ca")],
        directories => [directories($tree, $top)],
    };
}

1;
