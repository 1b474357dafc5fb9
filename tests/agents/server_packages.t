# The packages of servers and their modules, compared with what dpkg says of this machine.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Process qw(run);
use Imitated qw(imitated);
use Linux::ServerPackages;
use Linux::Tree;
use Test::More;
use Independent;

my $MODULE = '/usr/lib/apache2/modules/mod_ssl.so';

sub packages { return Linux::ServerPackages::all(Linux::Tree->new, $MODULE) }

test 'The packages of programs and modules are found with what they are for' => sub {
    my %is = map { $_->{name} => $_ } packages();
    my %use = (
        nginx => 'web', 'apache2-bin' => 'web', 'dovecot-core' => 'mail', 'dovecot-imapd' => 'mail',
            'dovecot-lmtpd' => 'mail',
        postfix => 'mail', 'python3-minimal' => 'runtime',
    );
    is_deeply { map { $_ => $is{$_} ? $is{$_}{use} : undef } keys %use }, \%use,
        'the packages of programs and modules are found, with what they are for';
};

test 'Each package is as dpkg has it' => sub {
    my @packages = packages();
    for my $package (@packages) {
        my $said = run(['dpkg-query', '-W', '-f', '${Version} ${Architecture}', $package->{id}])->{out};
        is "$package->{version} $package->{architecture}", $said, "$package->{id} is as dpkg has it";
    }
    ok !grep({ $_->{name} =~ /\A(?:libc6|bash|cmake)\z/ } @packages),
        'packages of other programs are left out';
};

test 'What no package has brought has none' => sub {
    is_deeply [Linux::ServerPackages::all((imitated('usr/sbin/nginx' => 'x'))[0])], [],
        'a program that no package has brought has no package';
};

run_tests;
