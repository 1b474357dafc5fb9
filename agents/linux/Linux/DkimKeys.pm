# The keys by which outgoing mail is signed (DKIM): those of OpenDKIM, rspamd and amavis. The
# records in the name server's zones go with them.
package Linux::DkimKeys;

use strict;
use warnings;

my $OPENDKIM = '/etc/opendkim.conf';
my $RSPAMD = '/var/lib/rspamd/dkim/$domain.$selector.key';
my @OF_RSPAMD = map {"/etc/rspamd/$_/dkim_signing.conf"} qw(local.d override.d);
my $DIRECTORY_OF_RSPAMD = '/etc/rspamd';
my @OF_AMAVIS = qw(/etc/amavis/conf.d/* /etc/amavisd/amavisd.conf /etc/amavisd.conf);

# The keys: { program, domain, selector, file }. What cannot be read is a problem.
sub all {
    my ($tree, $problems) = @_;
    my (%seen, @keys);
    for my $key (opendkim($tree, $problems), rspamd($tree), amavis($tree)) {
        next if $seen{"$key->{domain} $key->{selector} $key->{file}"}++;
        my $why = !$tree->exists($key->{file}) ? 'is not there'
            : $tree->may_name(delete $key->{named_by}, $key->{file}) ? undef : 'is not of who names it';
        push @keys, $key if !defined $why;
        $problems->add(severity => 'error', object => $key->{domain},
            text => "The key $key->{file} by which $key->{program} signs its mail $why:"
                . ' make a new one on the new host, with its record in the zone') if defined $why;
    }
    return @keys;
}

sub opendkim {
    my ($tree, $problems) = @_;
    my %is = map { /\A\s*(\w+)\s+(\S+)/ ? (lc $1 => $2) : () } $tree->read_lines($OPENDKIM);
    my @keys;
    if (defined $is{keyfile} && defined $is{domain}) {
        push @keys, map { key('opendkim', $_, $is{selector}, $is{keyfile}, $OPENDKIM) }
            split /,/, $is{domain};
    }
    return @keys if !defined $is{keytable};
    (my $table = $is{keytable}) =~ s/\A(?:re)?file://;
    my $text = $table =~ m{\A/} ? $tree->read_file($table) : undef;
    if (!defined $text) {
        $problems->add(severity => 'error', object => $table,
            text => 'The table of DKIM keys cannot be read: copy the keys by hand');
        return @keys;
    }
    my @entries = map { [/\A\s*[^\s#]\S*\s+([^\s:]+):([^\s:]+):(\S+)/] } split /\n/, $text;
    return (@keys, map { key('opendkim', @$_, $table) } grep {@$_} @entries);
}

sub key {
    my ($program, $domain, $selector, $file, $named_by) = @_;
    return { program => $program, domain => lc $domain, selector => defined $selector ? $selector : 'default',
        file => $file, named_by => $named_by };
}

# Its settings give one path for all domains, or blocks for some.
sub rspamd {
    my ($tree) = @_;
    my $text = join "\n", map { $tree->read_lines($_) } @OF_RSPAMD;
    $text =~ s/^\s*#.*$//mg;
    my @keys;
    while ($text =~ /"?([\w-]+(?:\.[\w-]+)+)"?\s*\{([^{}]*)\}/g) {
        my ($domain, $block) = ($1, $2);
        my %is = $block =~ /(\w+)\s*[=:]\s*"?([^";\n]+)"?/g;
        push @keys, expanded($tree, $is{path} || $RSPAMD, $domain, $is{selector});
    }
    my ($path) = $text =~ /^\s*path\s*[=:]\s*"?([^";\n]+)/m;
    return (@keys, map { expanded($tree, $_, undef, undef) } $RSPAMD, defined $path ? $path : ());
}

# The keys at a path in which $domain and $selector stand for any that are not given.
sub expanded {
    my ($tree, $template, $domain, $selector) = @_;
    my %value = (domain => $domain, selector => $selector);
    my (@names, @parts);
    for my $part (split /(\$domain|\$selector)/, $template) {
        my ($name) = $part =~ /\A\$(.*)/;
        push @names, defined $name && !defined $value{$name} ? $name : ();
        push @parts, !defined $name ? $part : defined $value{$name} ? $value{$name} : undef;
    }
    my $pattern = join '', map { defined $_ ? $_ : '*' } @parts;
    my $matches = join '', map { defined $_ ? quotemeta : '([^/]+)' } @parts;
    return map {
        my $file = $_;
        my %found = %value;
        @found{@names} = $file =~ /\A$matches\z/ if @names;
        defined $found{domain} ? key('rspamd', @found{qw(domain selector)}, $file, $DIRECTORY_OF_RSPAMD) : ()
    } $pattern =~ /\*/ ? $tree->glob($pattern) : $pattern;
}

sub amavis {
    my ($tree) = @_;
    my $word = qr/\s*['"]([^'"]+)['"]/;
    my @files = grep { $tree->is_of_root($_) } map { $tree->glob($_) } @OF_AMAVIS;
    my @entries = map { [/^[^#\n]*\bdkim_key\($word\s*,$word\s*,$word/] }
        map { $tree->read_lines($_) } @files;
    return map { key('amavis', @$_, '/etc') } grep {@$_} @entries;
}

1;
