# The settings of Postfix: asked from its own program, or read from its main file where that
# does not answer.
package Linux::Postfix;

use strict;
use warnings;
use Linux::HostProgram qw(answer_of);

our $MAIN = '/etc/postfix/main.cf';

# What a new host wants to know, in the document.
my @DESCRIBED = qw(myhostname mydomain myorigin mynetworks mydestination relayhost virtual_alias_domains
    virtual_mailbox_domains virtual_mailbox_base virtual_transport virtual_uid_maps virtual_gid_maps
    mailbox_transport mailbox_command home_mailbox mail_spool_directory recipient_delimiter
    message_size_limit smtpd_sasl_type smtpd_sasl_path);

# Parameters with maps, and what the maps are about.
my @MAPS = (
    [alias_maps => 'alias'], [virtual_alias_maps => 'virtual-alias'],
    [virtual_mailbox_maps => 'virtual-mailbox'], [transport_maps => 'transport'],
    [canonical_maps => 'canonical'], [sender_canonical_maps => 'sender-canonical'],
    [recipient_canonical_maps => 'recipient-canonical'], [smtpd_sender_login_maps => 'sender-login'],
    [sender_dependent_relayhost_maps => 'sender-relay'],
    [sender_dependent_default_transport_maps => 'sender-transport'], [smtp_generic_maps => 'generic'],
    [sender_bcc_maps => 'sender-copy'], [recipient_bcc_maps => 'recipient-copy'],
    [relocated_maps => 'relocated'], [relay_recipient_maps => 'relay-recipient'],
    [smtp_tls_policy_maps => 'tls-policy'], [smtp_sasl_password_maps => 'passwords'],
    [tls_server_sni_maps => 'certificates'],
    # Lists of domains: names, files with names, and maps.
    [mydestination => 'local-domain'], [virtual_alias_domains => 'virtual-alias-domain'],
    [virtual_mailbox_domains => 'virtual-mailbox-domain'], [relay_domains => 'relay-domain'],
);

my @FILES = qw(smtpd_tls_cert_file smtpd_tls_key_file smtpd_tls_eccert_file smtpd_tls_eckey_file
    smtpd_tls_dcert_file smtpd_tls_dkey_file smtpd_tls_chain_files smtpd_tls_CAfile
    smtpd_tls_dh1024_param_file smtp_tls_cert_file smtp_tls_key_file smtp_tls_chain_files);
my @OTHERS = qw(config_directory multi_instance_directories);

# undef where there is no Postfix. What cannot be read is a problem.
sub new {
    my ($class, $tree, $problems) = @_;
    return undef if !$tree->lstat($MAIN);
    my $self = bless { tree => $tree, problems => $problems }, $class;
    $self->{values} = $self->asked || $self->read_main;
    my @others = split /[\s,]+/, $self->value('multi_instance_directories');
    $problems->add(severity => 'error', object => $_, text => 'Is another instance of Postfix, which is'
        . ' not read: its mailboxes, aliases and maps are not in the dump; copy its settings by hand')
        for @others;
    return $self;
}

sub names { return (@DESCRIBED, @FILES, @OTHERS, map { $_->[0] } @MAPS) }

# { name => value } by postconf; undef where it gives no answer. Old ones do not know -x,
# by which it puts in place what a value refers to.
sub asked {
    my ($self) = @_;
    for my $options (['-x'], []) {
        my $answer = answer_of($self->{tree}, ['postconf', @$options, names()]);
        next if !defined $answer;
        return { $answer =~ /^(\w+) *= *(.*?) *$/mg };
    }
    return undef;
}

sub read_main {
    my ($self) = @_;
    my $text = $self->{tree}->read_file($MAIN);
    if (!defined $text) {
        $self->{problems}->add(severity => 'error', object => $MAIN,
            text => "Cannot be read, mailboxes and aliases named in it are not in the dump: $!");
        $text = '';
    }
    my %settings = (config_directory => '/etc/postfix');
    $settings{alias_maps} = 'hash:/etc/aliases' if $self->{tree}->lstat('/etc/aliases');
    $text =~ s/^\s*#.*\n?//mg;
    $text =~ s/\n[ \t]+/ /g;
    $settings{$1} = $2 while $text =~ /^(\w+)\s*=[ \t]*(.*?)\s*$/mg;
    return \%settings;
}

# The value of a parameter with all that it refers to put in place; '' where it has none.
sub value {
    my ($self, $name) = @_;
    my $settings = $self->{values};
    my $value = defined $settings->{$name} ? $settings->{$name} : '';
    for (1 .. 10) {
        last if $value !~ s/\$(?:\{(\w+)\}|\((\w+)\)|(\w+))/
            my ($used) = grep {defined} $1, $2, $3;
            defined $settings->{$used} ? $settings->{$used} : ''/gex;
    }
    return $value;
}

# { name, value } of the parameters that a new host wants to know and that have a value.
sub described {
    my ($self) = @_;
    return grep { length $_->{value} } map { +{ name => $_, value => $self->value($_) } } @DESCRIBED;
}

# The words of the parameters with maps: { kind, word, type, file }. A word without a type is
# a name, or the path of a file with names.
sub maps {
    my ($self) = @_;
    my (@maps, %seen);
    for my $parameter (@MAPS) {
        my ($name, $kind) = @$parameter;
        for my $word (words($self->value($name))) {
            my ($type, $file) = $word =~ /\A(?:proxy:)*(\w+):(.+)\z/s;
            # What other maps ask from may be set here, too.
            $file = $MAIN if defined $file && $file !~ m{\A/};
            ($type, $file) = ('names', $word) if $word =~ m{\A/};
            # The domains of virtual aliases are those in their maps, unless something else is said.
            next if defined $file && $file ne $MAIN && $seen{$file}++ && $kind =~ /-domain\z/;
            push @maps, { kind => $kind, word => $word, type => $type, file => $file };
        }
    }
    return @maps;
}

# The words of a value; those of maps that are made of maps as well.
sub words {
    my ($value) = @_;
    return map { /\A(?:proxy:)*(?:union|pipe)map:\{(.*)\}\z/s ? words($1) : $_ }
        $value =~ /\G[\s,]*((?:\w+:)*\{.*?\}+|[^\s,]+)/g;
}

# Certificates, keys and the like.
sub files {
    my ($self) = @_;
    my %seen;
    return grep { m{\A/} && !$seen{$_}++ } map { split /[\s,]+/, $self->value($_) } @FILES;
}

1;
