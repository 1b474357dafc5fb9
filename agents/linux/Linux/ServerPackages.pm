# The installed packages that the servers and runtimes of the host are from, with their modules: what
# a new host needs before the sites run there. Applications have theirs at their sites.
package Linux::ServerPackages;

use strict;
use warnings;
use Linux::Packages;

# Programs and modules, as patterns, and what they are for.
my @PARTS = (
    [web => qw(/usr/sbin/nginx /usr/sbin/apache2 /usr/sbin/httpd /usr/sbin/caddy /usr/bin/caddy
        /usr/sbin/lighttpd /usr/lib/nginx/modules/*.so /usr/lib64/nginx/modules/*.so)],
    [php => qw(/usr/sbin/php-fpm* /usr/bin/php[0-9]* /usr/bin/php /usr/lib/php/[0-9]*/*.so
        /usr/lib64/php/modules/*.so /usr/lib64/php-zts/modules/*.so /opt/remi/php*/root/usr/sbin/php-fpm
        /opt/remi/php*/root/usr/lib64/php/modules/*.so)],
    [database => qw(/usr/sbin/mysqld /usr/sbin/mariadbd /usr/libexec/mysqld /usr/libexec/mariadbd
        /usr/lib/mysql/plugin/*.so /usr/lib64/mariadb/plugin/*.so /usr/lib/postgresql/*/bin/postgres
        /usr/bin/postgres /usr/pgsql-*/bin/postgres /usr/share/postgresql/*/extension/*.control
        /usr/share/pgsql/extension/*.control /usr/bin/redis-server /usr/bin/memcached /usr/bin/mongod)],
    [mail => qw(/usr/lib/postfix/sbin/master /usr/libexec/postfix/master /usr/lib/postfix/*.so
        /usr/sbin/dovecot /usr/lib/dovecot/modules/*.so /usr/lib/dovecot/modules/*/*.so
        /usr/lib64/dovecot/*.so
        /usr/lib/dovecot/imap /usr/lib/dovecot/pop3 /usr/lib/dovecot/lmtp /usr/lib/dovecot/managesieve
        /usr/sbin/exim4 /usr/sbin/exim /usr/sbin/opendkim /usr/bin/rspamd /usr/sbin/spamd
        /usr/sbin/amavisd-new)],
    [dns => qw(/usr/sbin/named /usr/sbin/pdns_server /usr/sbin/nsd /usr/sbin/knotd)],
    [ftp => qw(/usr/sbin/proftpd /usr/sbin/pure-ftpd /usr/sbin/vsftpd)],
    [runtime => qw(/usr/bin/python3 /usr/bin/python3.[0-9] /usr/bin/python3.[0-9][0-9]
        /usr/bin/ruby /usr/bin/ruby[0-9]* /usr/bin/node
        /usr/bin/nodejs /usr/bin/java /usr/bin/uwsgi /usr/bin/uwsgi-core /usr/bin/gunicorn)],
    [certificates => qw(/usr/bin/certbot /usr/bin/lego /usr/bin/dehydrated)],
    [jobs => qw(/usr/sbin/cron /usr/sbin/crond /usr/bin/supervisord)],
);

# The packages: { id, name, version, architecture, source, manager (see Linux::Packages), use }, sorted
# by use and name. modules => paths of modules that web servers have loaded.
sub all {
    my ($tree, @modules) = @_;
    my @parts = map {
        my ($use, @patterns) = @$_;
        map { [$use, $_] } map { $tree->glob($_) } @patterns;
    } @PARTS;
    push @parts, map { ['web', $_] } @modules;
    my $packages = Linux::Packages->new($tree);
    my %names = map { $_->[1] => [names_of($tree, $_->[1])] } @parts;
    my $owners = $packages->owning(map {@$_} values %names);
    my (%seen, @found);
    for my $part (@parts) {
        my ($use, $path) = @$part;
        for my $id (map { @{ $owners->{$_} || [] } } @{ $names{$path} }) {
            my $facts = $seen{$id}++ ? undef : $packages->facts($id);
            push @found, { %$facts, use => $use } if $facts;
        }
    }
    return sort { $a->{use} cmp $b->{use} || $a->{name} cmp $b->{name} } @found;
}

# The names that records may have for a file: links may lead to it, and /bin, /lib and the like may be
# links themselves.
sub names_of {
    my ($tree, $path) = @_;
    my $real = $tree->real($path);
    my @names = ($path, defined $real && $real ne $path ? $real : ());
    return map { my $short = $_; $short =~ s{\A/usr(?=/(?:s?bin|lib\w*)/)}{} ? ($_, $short) : $_ } @names;
}

1;
