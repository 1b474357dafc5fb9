# The zones that BIND on this host is the origin of, with their files.
package Linux::Zones;

use strict;
use warnings;
use Linux::HostProgram qw(answer_of);

my @MAIN = qw(/etc/bind/named.conf /etc/named.conf);
# Settings of other name servers.
my @NOT_READ = qw(/etc/powerdns /etc/pdns /etc/nsd /etc/knot);
my $DIRECTORY = '/var/cache/bind';
my $MOST_INCLUDED = 500;

# Zones that come with the package of the server.
my $USUAL = qr/\A(?:\.|localhost(?:\.localdomain)?)\z
    | (?:\A|\.)(?:0|127|255)\.in-addr\.arpa\z | \A[01.]+\.ip6\.arpa\z/x;

# The zones: { name, type ("primary" or "secondary"), file, files => [what there is of it: the
# file, journals, keys] }. What cannot be read is a problem.
sub all {
    my ($tree, $problems) = @_;
    $problems->add(severity => 'warning', object => $_, text => 'The zones of this name server are not'
        . ' described: its settings are in the archive of the settings; copy zones that lie elsewhere')
        for grep { $tree->is_dir($_) } @NOT_READ;
    my ($main) = grep { $tree->lstat($_) } @MAIN or return;
    my $self = bless { tree => $tree, problems => $problems, read => {} }, __PACKAGE__;
    my $text = answer_of($tree, ['named-checkconf', '-p', $main]);
    $text = $self->text_of($main) if !defined $text;
    my $statements = parsed(tokens($text));
    my ($options) = grep { $_->{words}[0] eq 'options' } @$statements;
    my $settings = values_of($options ? $options->{block} : []);
    my @in_views = map { @{ $_->{block} || [] } } grep { $_->{words}[0] eq 'view' } @$statements;
    return map { $self->zone($settings, $_) }
        grep { $_->{words}[0] eq 'zone' && defined $_->{words}[1] } @$statements, @in_views;
}

# The text of a file with those that it includes put in their places.
sub text_of {
    my ($self, $file) = @_;
    return '' if $self->{read}{$file}++ || keys %{ $self->{read} } > $MOST_INCLUDED;
    my $text = $self->{tree}->read_file($file);
    if (!defined $text) {
        $self->{problems}->add(severity => 'error', object => $file,
            text => "Cannot be read: $!; the zones in it are not in the dump, copy them by hand");
        return '';
    }
    $text =~ s{("(?:\\.|[^"])*")|/\*.*?\*/|(?://|\#)[^\n]*}{defined $1 ? $1 : ' '}gse;
    $text =~ s/\binclude\s+"([^"]+)"\s*;/$self->text_of($self->absolute($1))/ge;
    return $text;
}

sub absolute {
    my ($self, $path) = @_;
    return $path =~ m{\A/} ? $path : "$DIRECTORY/$path";
}

sub tokens { return [$_[0] =~ /("(?:\\.|[^"])*"|[{};]|[^\s{};"]+)/g] }

# Statements: { words, block => [statements] or undef }.
sub parsed {
    my ($tokens) = @_;
    my (@statements, @words, $block);
    while (defined(my $token = shift @$tokens)) {
        last if $token eq '}';
        if ($token eq '{') { $block = parsed($tokens) }
        elsif ($token eq ';') {
            push @statements, { words => [@words], block => $block } if @words;
            (@words, $block) = ();
        }
        else { push @words, $token =~ /\A"(.*)"\z/s ? $1 : $token }
    }
    return \@statements;
}

sub values_of {
    my ($statements) = @_;
    return { map { $_->{words}[0] => $_->{words}[1] } grep { @{ $_->{words} } > 1 } @{ $statements || [] } };
}

sub zone {
    my ($self, $settings, $statement) = @_;
    my $tree = $self->{tree};
    my $name = lc $statement->{words}[1];
    my $values = values_of($statement->{block});
    my $type = $values->{type} || '';
    $type = { master => 'primary', slave => 'secondary' }->{$type} || $type;
    return if $name =~ $USUAL || $type !~ /\A(?:primary|secondary)\z/;
    $name =~ s/(?<=.)\.\z//;
    my $directory = defined $settings->{directory} ? $settings->{directory} : $DIRECTORY;
    my ($key_directory) = grep {defined} $values->{'key-directory'}, $settings->{'key-directory'}, $directory;
    my ($file, $keys) = map { !defined $_ || m{\A/} ? $_ : "$directory/$_" } $values->{file}, $key_directory;
    my @files = defined $file ? map({"$file$_"} '', '.jnl', '.jbk', '.signed', '.signed.jnl') : ();
    push @files, $tree->glob("$keys/K$name.+*");
    $self->{problems}->add(severity => 'error', object => $name, text => 'Is a zone of the name server whose'
        . ' file is not there: ' . (defined $file ? $file : 'none is named') . '; copy the zone by hand')
        if $type eq 'primary' && (!defined $file || !$tree->exists($file));
    return { name => $name, type => $type, file => $file, files => [grep { $tree->exists($_) } @files] };
}

1;
