# The accounts of FTP servers that are no accounts of the host: virtual users of ProFTPD,
# Pure-FTPd and vsftpd.
package Linux::FtpAccounts;

use strict;
use warnings;
use Agent::Problems qw(problem);

my @OF_PROFTPD = qw(/etc/proftpd/proftpd.conf /etc/proftpd.conf);
my @OF_PURE_FTPD = qw(/etc/pure-ftpd/pureftpd.passwd /etc/pureftpd.passwd);
my @DATABASES_OF_PURE_FTPD = map {"/etc/pure-ftpd/auth/*$_"} qw(mysql pgsql ldap);
my @OF_VSFTPD = qw(/etc/vsftpd.conf /etc/vsftpd/vsftpd.conf);
my $OF_INTEREST = qr/\A\s*(Include|AuthUserFile|SQLConnectInfo|LDAPServer)\s+"?(\S+?)"?(?:\s|\z)/i;
my $MOST_INCLUDED = 200;

# The accounts: { server, name, uid, gid, home, file }. Their passwords are in the files only.
# What is not read is a problem.
sub all {
    my ($tree, $problems) = @_;
    my $self = bless { tree => $tree, problems => $problems, read => {} }, __PACKAGE__;
    my @accounts = map { $self->accounts_in('pure-ftpd', $_) } grep { $tree->lstat($_) } @OF_PURE_FTPD;
    $self->elsewhere($_) for map { $tree->glob($_) } @DATABASES_OF_PURE_FTPD;
    push @accounts, $self->proftpd($_) for grep { $tree->lstat($_) } @OF_PROFTPD;
    $self->vsftpd($_) for grep { $tree->lstat($_) } @OF_VSFTPD;
    return @accounts;
}

sub elsewhere {
    my ($self, $file) = @_;
    return $self->problem('warning', $file, 'FTP accounts are in a database or directory and not described:'
        . ' see that the dump has the database, and that the FTP server of the new host reaches it');
}

# Lines as those of /etc/passwd.
sub accounts_in {
    my ($self, $server, $file) = @_;
    my $text = $self->{tree}->read_file($file);
    return $self->problem('error', $file, "Cannot be read: $!; the FTP accounts in it are not in the dump")
        if !defined $text;
    return map {
        my ($name, undef, $uid, $gid, undef, $home) = split /:/;
        defined $home && $name =~ /\A[^#]/ ? { server => $server, name => $name, home => $home, file => $file,
            uid => $uid =~ /\A\d+\z/ ? $uid : undef, gid => $gid =~ /\A\d+\z/ ? $gid : undef } : ()
    } split /\n/, $text;
}

sub proftpd {
    my ($self, $file) = @_;
    return if $self->{read}{$file}++ || keys %{ $self->{read} } > $MOST_INCLUDED;
    my @accounts;
    for my $line ($self->{tree}->read_lines($file)) {
        my ($name, $value) = $line =~ $OF_INTEREST or next;
        if    (lc $name eq 'authuserfile') { push @accounts, $self->accounts_in('proftpd', $value) }
        elsif (lc $name eq 'include') {
            $value .= '/*' if $self->{tree}->is_dir($value);
            push @accounts, map { $self->proftpd($_) } $self->{tree}->glob($value);
        }
        else { $self->elsewhere($file) }
    }
    return @accounts;
}

# Its virtual users are in what PAM asks, usually a database file.
sub vsftpd {
    my ($self, $file) = @_;
    return if !grep {/\A\s*guest_enable\s*=\s*YES/i} $self->{tree}->read_lines($file);
    return $self->problem('warning', $file, 'vsftpd has virtual users, which are not described: what PAM asks'
        . ' for them is in the archive of the settings if it is in /etc/vsftpd; set them up by it');
}

1;
