# The aliases and maps of the mail server with their entries: who gets the mail of an address,
# which way mail goes, who may send as whom.
package Linux::MailMaps;

use strict;
use warnings;
use Agent::Problems qw(problem);
use Linux::HostProgram qw(answer_of);
use Linux::Postfix;

my $ALIASES = '/etc/aliases';
my $NIS = '/etc/yp.conf';

# Kept as a text beside the file that the server reads, or as a text only.
my $WITH_TEXT = qr/\A(?:hash|btree|lmdb|cdb|dbm|sdbm|texthash|cidr|names|regexp|pcre)\z/;
my $BUILT = qr/\A(?:hash|btree|lmdb|cdb|dbm|sdbm)\z/;
my $PATTERNS = qr/\A(?:regexp|pcre)\z/;
my $IN_DATABASE = qr/\A(?:mysql|pgsql|sqlite)\z/;
my $ELSEWHERE = qr/\A(?:ldap|memcache|tcp|socketmap|nis|nisplus|netinfo)\z/;
# These have secrets, which are in the archives only.
my $SECRET = qr/\Apasswords\z/;

# The maps: { kind, type, file, entries => [{ from, to, line }] }, each file once for each
# kind, with those of Postfix (a Linux::Postfix or undef) and the host's own aliases.
sub all {
    my ($tree, $problems, $postfix) = @_;
    my $self = bless { tree => $tree, problems => $problems }, __PACKAGE__;
    my @words = $postfix ? $postfix->maps : ();
    push @words, { kind => 'alias', type => 'hash', file => $ALIASES }
        if !$postfix && $tree->lstat($ALIASES);
    my @names = grep { !defined $_->{type} } @words;
    return ($self->names_of(@names), map { $self->map_of($_) } grep { defined $_->{type} } @words);
}

# Names that stand in the main file itself.
sub names_of {
    my ($self, @words) = @_;
    my (%of, @kinds);
    for my $word (grep { $_->{kind} =~ /-domain\z/ && $_->{word} !~ /[:\/{]/ } @words) {
        push @kinds, $word->{kind} if !$of{ $word->{kind} };
        push @{ $of{ $word->{kind} } }, { from => $word->{word} };
    }
    return map { +{ kind => $_, type => 'names', file => $Linux::Postfix::MAIN, entries => $of{$_} } } @kinds;
}

sub map_of {
    my ($self, $map) = @_;
    my ($kind, $type, $file) = @$map{qw(kind type file)};
    # Postfix asks NIS for aliases unless told otherwise, also where there is none.
    return if $type eq 'nis' && !$self->{tree}->lstat($NIS);
    my $what = $self->what($kind);
    return if $file eq $Linux::Postfix::MAIN && $type !~ $ELSEWHERE && $type !~ $IN_DATABASE;
    if ($type =~ $IN_DATABASE) {
        $self->problem('warning', $file, "The $what are in a $type database and not described: see that the"
            . ' dump has that database, and that the mail server of the new host reaches it');
        my @needs = $self->database_of($file);
        return { kind => $kind, type => $type, file => $file, entries => [], needs => \@needs };
    }
    if ($type =~ $ELSEWHERE) {
        $self->problem('error', $file, "The $what are asked from $type and are not in the dump: give the mail"
            . ' server of the new host the same answers');
        return { kind => $kind, type => $type, file => $file, entries => [] };
    }
    return if $type !~ $WITH_TEXT;
    my $text = $self->text_of($kind, $type, $file, $what);
    return if !defined $text;
    my @entries = $kind =~ $SECRET ? () : $kind eq 'alias' ? aliases($text) : entries($type, $text);
    return { kind => $kind, type => $type, file => $file, entries => \@entries, 
        needs => [$self->{tree}->is_of_root($file) ? included(@entries) : ()] };
}

sub what {
    my ($self, $kind) = @_;
    return 'passwords of other mail servers' if $kind eq 'passwords';
    (my $what = $kind) =~ tr/-/ /;
    return $what . ($what =~ /(?:alias|mailbox)\z/ ? 'es' : $what =~ /[sy]\z/ ? ' entries' : 's');
}

# The text of a map; what the server's program prints of one that is there without its text.
sub text_of {
    my ($self, $kind, $type, $file, $what) = @_;
    my $text = $self->{tree}->read_file($file);
    return $text if defined $text;
    if ($self->{tree}->lstat($file)) {
        $self->problem('error', $file, "Cannot be read, the $what in it are not described: $!");
        return;
    }
    my $asked = $type =~ $BUILT
        ? answer_of($self->{tree}, [$kind eq 'alias' ? 'postalias' : 'postmap', '-s', "$type:$file"]) : undef;
    if (defined $asked) {
        $asked =~ s/\0//g;
        $asked =~ s/^(\S+)\t/$1: /mg if $kind eq 'alias';
        return $asked;
    }
    my @built = grep { $self->{tree}->lstat("$file.$_") } qw(db lmdb cdb pag);
    return $self->problem('error', $file, "The map is there as $file.$built[0] only, the $what in it are not"
        . " described: write its text by postmap -s $type:$file") if @built;
    return $self->problem('warning', $file, "The map of $what is named in the settings, but is not there:"
        . ' see whether it is still needed');
}

# Lines "name: target, target"; a line that begins with blanks goes on with the one before.
sub aliases {
    my ($text) = @_;
    return map { $_->{text} =~ /\A\s*(?:"([^"]*)"|([^\s:#][^:]*?))\s*:\s*(.*?)\s*\z/s
        ? { from => defined $1 ? $1 : $2, to => $3, line => $_->{line} } : () } whole_lines($text);
}

# Lines "key value".
sub entries {
    my ($type, $text) = @_;
    my $key = $type =~ $PATTERNS ? qr{!?([^\w\s\\])(?:\\.|(?!\g{-1}).)*\g{-1}\w*} : qr/("(?:\\.|[^"])*"|\S+)/;
    my @entries;
    for my $line (whole_lines($text)) {
        next if $type =~ $PATTERNS && $line->{text} =~ /\A(?:if|endif)\b/;
        push @entries, { from => $+{key}, to => $+{to}, line => $line->{line} }
            if $line->{text} =~ /\A(?<key>$key)(?:\s+(?<to>.*?))?\s*\z/s;
    }
    return @entries;
}

# { text, line }: lines with those that go on with them, without comments.
sub whole_lines {
    my ($text) = @_;
    my (@lines, $number);
    for my $line (split /\r?\n/, $text) {
        $number++;
        next if $line =~ /\A\s*(?:#|\z)/;
        if ($line =~ /\A\s+(\S.*)/ && @lines) { $lines[-1]{text} .= " $1" }
        else                                  { push @lines, { text => $line, line => $number } }
    }
    return @lines;
}

# Files that entries name for their targets. What another account writes into a map must not
# decide which other files are packed: this is for maps of root.
sub included {
    my (@entries) = @_;
    return map { defined $_->{to} ? $_->{to} =~ m{:include:\s*"?(/[^\s",]+)}g : () } @entries;
}

# The file of an SQLite database, from the settings of the map.
sub database_of {
    my ($self, $file) = @_;
    return if !$self->{tree}->is_of_root($file);
    return map {m{\A\s*dbpath\s*=\s*(/\S+)} ? $1 : ()} $self->{tree}->read_lines($file);
}

1;
