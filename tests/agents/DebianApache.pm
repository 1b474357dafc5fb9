# The sites of a Debian host whose Apache has modules, a log and sections for all sites.
package DebianApache;

use strict;
use warnings;
use Exporter 'import';
use Imitated qw(imitated problem_texts);
use Linux::Apache;

our @EXPORT_OK = qw(sites_of);

my %DEBIAN = (
    'etc/apache2/envvars' => <<'END',
if [ "${APACHE_CONFDIR##/etc/apache2-}" != "${APACHE_CONFDIR}" ] ; then
	SUFFIX="-${APACHE_CONFDIR##/etc/apache2-}"
else
	SUFFIX=
fi
export APACHE_RUN_USER=www-data
export APACHE_LOG_DIR=/var/log/apache2$SUFFIX
END
    'etc/apache2/apache2.conf' => <<'END',
ErrorLog ${APACHE_LOG_DIR}/error.log
IncludeOptional mods-enabled/*.load
IncludeOptional mods-enabled/*.conf
Include ports.conf
<Directory />
	Require all denied
</Directory>
<Directory /srv/a/private>
	Require ip 10.0.0.0/8
	AuthGroupFile /etc/apache2/groups
</Directory>
<Directory /srv/other>
	AuthUserFile /etc/apache2/others
</Directory>
IncludeOptional conf-enabled/*.conf
IncludeOptional sites-enabled/*.conf
IncludeOptional nowhere.conf
END
    'etc/apache2/ports.conf' => "Listen 80\n<IfModule ssl_module>\n\tListen 443\n</IfModule>\n",
    'etc/apache2/mods-enabled/ssl.load' => "LoadModule ssl_module /usr/lib/apache2/modules/mod_ssl.so\n",
    'etc/apache2/conf-enabled/more.conf' => "Alias /icons /usr/share/apache2/icons\n",
);

# What the agent finds of these virtual hosts on the host with further files: ({ name => site }, problems).
sub sites_of {
    my ($hosts, %more) = @_;
    my ($tree, $problems) = imitated(%DEBIAN, 'etc/apache2/sites-enabled/sites.conf' => $hosts, %more);
    my %sites = map { $_->{name} => $_ } Linux::Apache::sites($tree, $problems);
    return (\%sites, problem_texts($problems));
}

1;
