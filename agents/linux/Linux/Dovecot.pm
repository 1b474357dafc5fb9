# The settings of Dovecot (2.0 to 2.4) and its users: asked from its own programs, or read from
# its files where they do not answer.
package Linux::Dovecot;

use strict;
use warnings;
use Linux::HostProgram qw(answer_of);

our $MAIN = '/etc/dovecot/dovecot.conf';

my $MOST_INCLUDED = 500;
my $USERS_AT_ONCE = 200;

my @DESCRIBED = qw(protocols mail_location mail_driver mail_path mail_inbox_path mail_home mail_uid mail_gid
    mail_privileged_group mail_access_groups first_valid_uid first_valid_gid auth_mechanisms
    auth_username_format);
# The last of these names are those of 2.4.
my @FILES = qw(ssl_cert ssl_key ssl_ca ssl_dh ssl_alt_cert ssl_alt_key ssl_server_cert_file
    ssl_server_key_file ssl_server_dh_file ssl_server_ca_file ssl_server_alt_cert_file
    ssl_server_alt_key_file);
# Sieve scripts for all users.
my @SCRIPTS = qw(sieve_before sieve_after sieve_global sieve_global_dir sieve_default);

# undef where there is no Dovecot. What cannot be read is a problem.
sub new {
    my ($class, $tree, $problems) = @_;
    return undef if !$tree->lstat($MAIN);
    my $self = bless { tree => $tree, problems => $problems }, $class;
    my $answer = answer_of($tree, ['doveconf', '-n', '-P']);
    $answer = answer_of($tree, ['doveconf', '-n']) if !defined $answer;
    $self->{settings} = new_block();
    if (defined $answer) { $self->read_text($answer, '/etc/dovecot', {}, $self->{settings}) }
    else                 { $self->read_file($MAIN, {}, $self->{settings}) }
    return $self;
}

# { values => { name => value }, blocks => [{ type, name, block }] }
sub new_block { return { values => {}, blocks => [] } }

sub read_file {
    my ($self, $file, $read, @into) = @_;
    return if $read->{$file}++ || keys %$read > $MOST_INCLUDED;
    my $text = $self->{tree}->read_file($file);
    my ($directory) = $file =~ m{\A(.*)/};
    return $self->read_text($text, $directory, $read, @into) if defined $text;
    $self->{problems}->add(severity => 'error', object => $file,
        text => "Cannot be read, mailboxes that it leads to may be missing: $!")
        if $self->{tree}->lstat($file);
    return;
}

# The last of several values counts, as it does for Dovecot.
sub read_text {
    my ($self, $text, $directory, $read, @into) = @_;
    $text =~ s/\\\r?\n\s*/ /g;
    for my $line (split /\r?\n/, $text) {
        $line =~ s/(?:\A|\s)#.*//s;
        if (my ($pattern) = $line =~ /\A\s*!include(?:_try)?\s+(\S+)/) {
            $pattern = "$directory/$pattern" if $pattern !~ m{\A/};
            $self->read_file($_, $read, @into) for $self->{tree}->glob($pattern);
        }
        elsif ($line =~ /\A\s*\}/) { pop @into if @into > 1 }
        elsif (my ($type, $name) = $line =~ /\A\s*([\w-]+)(?:\s+([^{]*?))?\s*\{\s*\z/) {
            push @into, block_of($into[-1], $type, unquoted(defined $name ? $name : ''));
        }
        elsif (my ($key, $value) = $line =~ m{\A\s*([\w/-]+)\s*=\s*(.*?)\s*\z}) {
            $into[-1]{values}{$key} = unquoted($value);
        }
    }
    return;
}

sub unquoted { return $_[0] =~ /\A"(.*)"\z/ || $_[0] =~ /\A'(.*)'\z/ ? $1 : $_[0] }

# The block of that name, which may be opened several times; each of some unnamed ones is one
# more.
sub block_of {
    my ($in, $type, $name) = @_;
    my $is_new = $type =~ /\A(?:passdb|userdb)\z/ && $name eq '';
    my ($there) = $is_new ? () : grep { $_->{type} eq $type && $_->{name} eq $name } @{ $in->{blocks} };
    push @{ $in->{blocks} }, $there = { type => $type, name => $name, block => new_block() } if !$there;
    return $there->{block};
}

# All blocks of one of these types, at any depth: { type, name, block }.
sub blocks {
    my ($self, @types) = @_;
    my (@found, @todo);
    @todo = @{ $self->{settings}{blocks} };
    while (my $block = shift @todo) {
        push @found, $block if grep { $_ eq $block->{type} } @types;
        push @todo, @{ $block->{block}{blocks} };
    }
    return @found;
}

sub value { return $_[0]{settings}{values}{ $_[1] } }

# { name, value } of what a new host wants to know.
sub described {
    my ($self) = @_;
    return map { +{ name => $_, value => $self->value($_) } }
        grep { defined $self->value($_) && length $self->value($_) } @DESCRIBED;
}

# Where mailboxes are: { format, path, inbox, control, index, shared (name of a namespace that
# is of no single user) } with templates as the settings have them.
sub locations {
    my ($self) = @_;
    my @locations = location_of($self->{settings}{values});
    for my $namespace ($self->blocks('namespace')) {
        my %values = %{ $namespace->{block}{values} };
        my $is_of_user = !defined $values{type} || $values{type} eq 'private';
        my @own = location_of({ %values, mail_location => $values{location} });
        $_->{shared} = $namespace->{name} for $is_of_user ? () : @own;
        push @locations, @own;
    }
    push @locations, map { location_of($_->{block}{values}) } $self->blocks(qw(protocol local remote));
    push @locations, map { parsed_location($_) } map { $self->fields($_, 'mail') } $self->blocks('userdb');
    my %seen;
    my $key = sub { join "\0", map { defined $_ ? $_ : '' } @{ $_[0] }{qw(format path inbox shared)} };
    return grep { !$seen{ $key->($_) }++ } @locations;
}

# The location that some settings make, if they do.
sub location_of {
    my ($values) = @_;
    return parsed_location($values->{mail_location}) if defined $values->{mail_location};
    return if !defined $values->{mail_path};
    my $format = defined $values->{mail_driver} ? lc $values->{mail_driver} : 'maildir';
    return {
        format => $format, path => tidy_template($values->{mail_path}),
        map { defined $values->{"mail_${_}_path"} ? ($_ => tidy_template($values->{"mail_${_}_path"})) : () }
            qw(inbox control index),
    };
}

# "maildir:~/Maildir:INBOX=...:CONTROL=..."
sub parsed_location {
    my ($text) = @_;
    my ($format, $path, @more) = split /:/, $text;
    return if !defined $path || $path eq '';
    my %more = map { /\A(INBOX|CONTROL|INDEX)=(.+)\z/ ? (lc $1 => tidy_template($2)) : () } @more;
    return { format => lc $format, path => tidy_template($path), %more };
}

# The values of a field that a database of users gives to all of them.
sub fields {
    my ($self, $userdb, $name) = @_;
    my $values = $userdb->{block}{values};
    my @texts = grep {defined} @$values{qw(args default_fields override_fields)};
    my @inner = map { $_->{block}{values} }
        grep { $_->{type} =~ /\A(?:(?:default_|override_)?fields)\z/ } @{ $userdb->{block}{blocks} };
    return (map { /(?:\A|\s)$name=(\S+)/g } @texts), grep {defined} map { $_->{$name} } @inner;
}

# Templates of the homes of users.
sub homes {
    my ($self) = @_;
    my %seen;
    return grep { !$seen{$_}++ } map { tidy_template($_) } grep {defined} $self->value('mail_home'),
        map { $self->fields($_, 'home') } $self->blocks('userdb');
}

# The files of users and passwords.
sub user_files {
    my ($self) = @_;
    my @of = map { $_->{block}{values} } $self->blocks(qw(passdb userdb));
    my @values = ($self->value('passwd_file_path'), map { $_->{passwd_file_path} } @of);
    push @values, map { $_->{args} } grep { ($_->{driver} || '') eq 'passwd-file' } @of;
    my %seen;
    return grep { !$seen{$_}++ } map { m{(?:\A|[\s=])(/\S+)\z} ? $1 : () } grep {defined} @values;
}

# What users are asked from besides files and the accounts of the host: { driver, file }.
sub databases {
    my ($self) = @_;
    return map {
        my $values = $_->{block}{values};
        my ($file) = defined $values->{args} ? $values->{args} =~ m{(?:\A|\s)(/\S+)\z} : ();
        +{ driver => defined $values->{driver} ? $values->{driver} : $_->{name}, file => $file }
    } $self->blocks('userdb');
}

# Where the scripts of a user are: templates.
sub scripts {
    my ($self) = @_;
    my @values = map { @$_{qw(sieve sieve_dir)} } map { $_->{block}{values} } $self->blocks('plugin');
    push @values, map { @$_{qw(path active_path sieve_script_path sieve_script_active_path)} }
        map { $_->{block}{values} } $self->blocks('sieve_script');
    my @parts = map { split /;/ } grep {defined} @values;
    s/\A(?:file:|active=)// for @parts;
    return map { tidy_template($_) } grep {m{\A[~%/]}} @parts;
}

# Certificates, keys, files of users and passwords, and scripts for all users.
sub files {
    my ($self) = @_;
    my @blocks = ($self->{settings}, map { $_->{block} } $self->blocks(qw(local local_name remote protocol)));
    my @scripts = map { @{ $_->{block}{values} }{@SCRIPTS} } $self->blocks('plugin');
    my %seen;
    return grep { !$seen{$_}++ } map { m{\A(?:<\s*|file:)?(/[^;]+)} ? $1 : () } grep {defined} @scripts,
        map({ @{ $_->{values} }{@FILES} } @blocks), $self->user_files;
}

# The users that Dovecot knows, in files, databases or directories: { users => [{ user, uid, gid,
# home, mail, quota }], complete => 1 if it has named all of them }. What is unknown is undef.
sub users {
    my ($self) = @_;
    my @argv = ('doveadm', 'user', '*');
    my $answer = answer_of($self->{tree}, \@argv);
    my $is_complete = defined $answer ? 1 : 0;
    # Some databases cannot list their users.
    $answer = answer_of($self->{tree}, \@argv, partly => 1) if !$is_complete;
    my @names = grep {length} split /\r?\n/, defined $answer ? $answer : '';
    return { users => [$self->details(@names)], complete => $is_complete };
}

sub details {
    my ($self, @names) = @_;
    my ($answer, @users) = ('');
    while (my @some = splice @names, 0, $USERS_AT_ONCE) {
        # It fails where one of them is not there any more.
        my @argv = ('doveadm', 'user', '-u', '--', @some);
        $answer = answer_of($self->{tree}, \@argv, partly => 1) if defined $answer;
        my %known = map { $_->{user} => $_ } users_in(defined $answer ? $answer : '');
        push @users, map { $known{$_} || { user => $_ } } @some;
    }
    return @users;
}

sub users_in {
    my ($text) = @_;
    my @users;
    for my $line (split /\r?\n/, $text) {
        if ($line =~ /\Auserdb: (.+)\z/) { push @users, { user => $1 } }
        elsif (@users && $line =~ /\A\s+(\w+)\s*: (.*)\z/) {
            my ($field, $value) = ($1, $2);
            next if $field eq 'user';
            $users[-1]{ $field eq 'quota_rule' ? 'quota' : $field } = $value;
        }
    }
    return @users;
}

# The forms in which Dovecot writes parts of an address, as %u, %n, %d and %h.
sub tidy_template {
    my ($template) = @_;
    my %letter = (user => 'u', username => 'n', domain => 'd', home => 'h');
    $template =~ s/%\{\s*(?:user\s*\|\s*)?(user(?:name)?|domain|home)\s*(?:\|[^}]*)?\}/%$letter{$1}/g;
    $template =~ s/%[LU]([und])/%$1/g;
    return $template;
}

# A template for one user; undef where it needs a home that is not known, or has forms that
# are not understood.
sub expanded {
    my ($template, $name, $home) = @_;
    my ($user, $domain) = $name =~ /\A(.*)@([^@]+)\z/s ? ($1, $2) : ($name, '');
    my %value = (u => $name, n => $user, d => $domain, h => $home);
    $template =~ s{\A~(?=/|\z)}{%h};
    my $is_known = 1;
    $template =~ s/%(.?)/defined $value{$1} ? $value{$1} : ($is_known = 0)/gse;
    return $is_known && $template =~ m{\A/} ? $template : undef;
}

1;
