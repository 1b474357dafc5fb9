# A site that a package of rpm has brought, by the records that rpm itself has made.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Dumped;
use File::Temp qw(tempdir);
use Imitated qw(imitated output_of write_file);
use Test::More;
use Independent;

sub lay_out {
    # Debian's rpm keeps its records in homes; systems that are made of its packages keep them here.
    my $home = $ENV{HOME} = tempdir(CLEANUP => 1);
    my ($tree) = imitated(
        'etc/passwd' => "root:x:0:0:root:/root:/bin/sh\n",
        'etc/nginx/nginx.conf' =>
            "http { server { listen 80; server_name blog.test; root /usr/share/blog; } }\n",
        'var/lib/rpm/' => undef,
    );
    (my $root = $tree->root) =~ s{/\z}{};

    write_file("$home/.rpmmacros", "%_dbpath /var/lib/rpm\n%_topdir $home/build\n");
    write_file("$home/blog.spec", <<'END');
Name: blog
Version: 1.2
Release: 3
Summary: A blog
License: none
BuildArch: noarch
%description
A blog.
%install
mkdir -p %{buildroot}/usr/share/blog %{buildroot}/etc/blog %{buildroot}/var/lib/blog/cache
echo front > %{buildroot}/usr/share/blog/index.php
echo inner > %{buildroot}/usr/share/blog/inner.php
echo setting > %{buildroot}/etc/blog/blog.conf
%files
%dir /usr/share/blog
/usr/share/blog/index.php
/usr/share/blog/inner.php
%dir /etc/blog
%config /etc/blog/blog.conf
%dir /var/lib/blog
%dir /var/lib/blog/cache
END
    output_of('rpmbuild', '-bb', "$home/blog.spec");
    output_of('rpm', "--root=$root", '--initdb');
    output_of('rpm', "--root=$root", '--install', '--nodeps', '--noscripts',
        glob "$home/build/RPMS/noarch/*.rpm");
    write_file("$root/usr/share/blog/inner.php", 'changed');
    write_file("$root/etc/blog/local.conf", 'made');
    write_file("$root/var/lib/blog/posts/first", 'a post');
    return $tree;
}

test 'A site that a package of rpm has brought is named and packed without what installing brings' => sub {
    my $tree = lay_out();
    my $dump = Dumped->new($tree, '', '--dump-all');
    is $dump->errors, '', 'the description is valid';
    is_deeply [map { $dump->found("string(//site/package/\@$_)") } qw(name version architecture manager
        changed)],
        ['blog', '1.2-3', 'noarch', 'rpm', 1], 'the package is named with its version and what was changed';
    is_deeply [grep { !/nginx/ } @{ $dump->members('blog.test') }],
        [map {"./$_"} qw(etc/blog/blog.conf etc/blog/local.conf usr/share/blog/inner.php
            var/lib/blog/posts/first)],
        'configuration, state and what was changed are packed, and nothing else of the package';
    is_deeply [grep {/\Aerror/} @{ $dump->problems_of('blog.test') }], [], 'no error is named';
};

run_tests;
