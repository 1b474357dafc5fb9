# A configuration with any damage is read to its end, quickly and without a warning of
# perl.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Test::More;
use Independent;
use Agent::Problems;
use Imitated qw(imitated);
use Linux::Php;
use Linux::Sites;

my %whole = (
    'etc/nginx/nginx.conf' => <<'END',
http { map $host $m { default x; ~^(.*)$ "y z"; } include e*;
upstream u { server unix:/x; }
server { listen [::]:443 ssl default_server; server_name .a.test ~^(?<n>.+)$ 'q.test'; set $s "v{"; root /srv/$n/${m};
location ~ \.php$ { fastcgi_pass u; if ($a = b) { return 301 https://$host; } } # c }
rewrite ^/a\ b$ /c permanent; content_by_lua_block { if "}" then -- }
end } auth_basic_user_file p; alias x; root; } }
END
    'etc/apache2/apache2.conf' => <<'END',
Define A "/srv"
LoadModule php_module libphp8.2.so
Include ${A}/*/x[a-b].conf
<Macro M $a>
<VirtualHost *:80 [::1]>
 ServerName "$a"
 ServerAlias *.b.test \
  c.test
 DocumentRoot ${A}/$a
 VirtualDocumentRoot /srv/%2.1+/%0%%
 <IfModule !mod_x.c>
  RewriteCond %{HTTPS} !=on
  RewriteRule ^/?(.*) https://%{HTTP_HOST}/$1 [R=301,L]
  Redirect 301 /a
  Alias /x
  SSLEngine
 </IfModule>
 <FilesMatch "\.php$">
  SetHandler "proxy:unix:/x|fcgi://y"
  php_value a 'b
 </FilesMatch>
</VirtualHost>
</Macro>
Use M m.test
END
    'etc/php/8.2/fpm/pool.d/p.conf' =>
        "[p]\nuser = \nlisten = \$pool\nphp_value[a] = \"b ; c\nphp_flag[\n[]\n= x\n",
    'etc/passwd' => "root:x:0:0:root:/root:/bin/sh\nann:x:4101:4101::/srv:/bin/sh\n",
);

my ($tree) = imitated(%whole, 'srv/a/' => undef, 'srv/m.test/' => undef);

sub write_damaged {
    my ($file, $text) = @_;
    open my $out, '>', $tree->path("/$file") or die $!;
    print $out $text;
    close $out;
    return;
}

# Reads the sites after a change of a file; gives what went wrong.
sub trouble_with {
    my ($file, $text) = @_;
    write_damaged($file, $text);
    my @trouble;
    local $SIG{__WARN__} = sub { push @trouble, "warns @_" };
    local $SIG{ALRM} = sub { die "takes too long\n" };
    alarm 10;
    eval { Linux::Sites::all($tree, Agent::Problems->new); 1 } or push @trouble, "dies $@";
    alarm 0;
    return @trouble;
}

# The text is cut at each place; each of the other changes is made at every fifth, at different places.
my $STEP = 5;

my @DAMAGES = (
    ['cut off', sub { my ($text, $at) = @_; return substr $text, 0, $at }],
    ['without its beginning', sub { my ($text, $at) = @_; return substr $text, $at }],
    ['without a character', sub { my ($text, $at) = @_; substr($text, $at, 1) = ''; return $text }],
    map {
        my $character = $_;
        [sprintf('with byte %02x', ord $character),
            sub { my ($text, $at) = @_; substr($text, $at, 1) = $character; return $text }]
    } "\0", "\xff", '{', '}', '"', '\\', "\n", '$',
);

for my $file (sort keys %whole) {
    for my $number (0 .. $#DAMAGES) {
        my ($name, $change) = @{ $DAMAGES[$number] };
        test "$file $name is read in time and without trouble" => sub {
            my @trouble;
            for my $at (grep { !$number || ($_ + $number) % $STEP == 0 } 0 .. length($whole{$file}) - 1) {
                push @trouble, map {"at $at: $_"} trouble_with($file, $change->($whole{$file}, $at));
            }
            write_damaged($file, $whole{$file});
            is_deeply \@trouble, [], "$file $name is read in time, without an error or a warning";
        };
    }
}

run_tests;
