# How MySQL and MariaDB write names, accounts and roles, and what their answers mean.
package Linux::MySqlText;

use strict;
use warnings;
use Exporter 'import';

our @EXPORT_OK = qw($QUOTED $TEXT $ROLES account comment grantee identifier name pattern roles unescaped);

# A name in backticks, a text, a role by its name or name and host, and a list of these,
# as parts of longer expressions.
our $QUOTED = qr/`(?:[^`]|``)*`/;
our $TEXT = qr/'(?:[^'\\]|\\.|'')*'/s;
my $ROLE = qr/(?:$QUOTED|[^`'\s,\@]+)(?:\@(?:$QUOTED|$TEXT))?/;
our $ROLES = qr/$ROLE(?:, *$ROLE)*/;

my %ESCAPED = (n => "\n", t => "\t", 0 => "\0");

# A field of an answer as the server has it.
sub unescaped {
    my ($field) = @_;
    $field =~ s/\\(.)/defined $ESCAPED{$1} ? $ESCAPED{$1} : $1/gse;
    return $field;
}

# A name as it stands in SQL.
sub identifier {
    my ($name) = @_;
    $name =~ s/`/``/g;
    return "`$name`";
}

# An account, or a role, as it stands in SQL.
sub account {
    my ($user) = @_;
    return identifier($user->{name}) if $user->{role};
    return identifier($user->{name}) . '@' . identifier($user->{host});
}

# What an identifier or a text of SQL stands for.
sub name {
    my ($quoted) = @_;
    $quoted =~ s/``/`/g if $quoted =~ s/\A`(.*)`\z/$1/s;
    $quoted =~ s/''/'/g if $quoted =~ s/\A'(.*)'\z/$1/s;
    return $quoted;
}

# The roles in a list of them, each as it is written there.
sub roles {
    my ($list) = @_;
    return $list =~ /\G(?:, *)?($ROLE)/g;
}

# Name and host of an account as information_schema has it; nothing for what is none.
sub grantee { return $_[0] =~ /\A'(.*)'\@'([^']*)'\z/s }

# What a name of a database in a grant stands for, where it may hold wildcards.
sub pattern {
    my ($text) = @_;
    my $out = '';
    while ($text =~ /\G(?:\\(.)|(%)|(_)|(.))/gs) {
        $out .= defined $2 ? '.*' : defined $3 ? '.' : quotemeta(defined $1 ? $1 : $4);
    }
    return qr/\A$out\z/s;
}

# Lines of SQL that do nothing.
sub comment {
    my ($text) = @_;
    return join '', map {"-- $_\n"} split /[\r\n]+/, $text;
}

1;
