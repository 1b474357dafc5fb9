# Mail servers as installed: the agent finds what Postfix and Dovecot report, and packs mail that
# Dovecot can read after it was unpacked.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Agent::Options;
use Agent::Private;
use Agent::Problems;
use Agent::Process qw(run start finish);
use File::Path qw(mkpath);
use File::Temp qw(tempdir);
use Imitated qw(problem_texts);
use Linux::Dump;
use Linux::Mail;
use Linux::Tree;
use Linux::Users;
use Test::More;
use Independent;
use Time::HiRes ();

my $VMAIL = 5000;
my $SECRET = 'passphrase-of-info';

sub write_file {
    my ($path, $text, $mode) = @_;
    mkpath($path =~ m{\A(.*)/});
    open my $file, '>', $path or die "$path: $!\n";
    print $file $text;
    close $file or die "$path: $!\n";
    chmod defined $mode ? $mode : 0644, $path or die $!;
    return;
}

sub ran {
    my ($argv, %options) = @_;
    my $result = run($argv, limit => 60, %options);
    die "@$argv: $result->{status} $result->{err}" if $result->{status};
    return $result->{out};
}

sub own_directories {
    # The private world's own copies, in the place of links to the machine's.
    for my $server (qw(postfix dovecot)) {
        unlink "/etc/$server" or die "/etc/$server: $!\n";
        ran(['cp', '-a', "/mnt/etc.orig/$server", "/etc/$server"]);
    }
    # The machine's own mail is not read.
    ran(['mount', '-t', 'tmpfs', 'own', $_]) for qw(/var/mail /home);
    open my $accounts, '>>', '/etc/passwd' or die $!;
    print $accounts "vmail:x:${VMAIL}:${VMAIL}::/mnt/mail:/bin/false\nalice:x:31001:31001::/home/alice:/bin/sh\n";
    close $accounts or die $!;
    mkpath("/mnt/mail");
    chown $VMAIL, $VMAIL, '/mnt/mail' or die $!;
    for my $open (qw(/mnt/control /mnt/index)) {
        mkpath($open);
        chmod 01777, $open or die $!;
    }
    mkpath('/home/alice');
    chown 31001, 31001, '/home/alice' or die $!;
    return;
}

sub configure_postfix {
    write_file('/etc/postfix/main.cf', <<'END');
compatibility_level = 3.6
place = /mnt/mail
myhostname = mail.a.test
mydestination = $myhostname, localhost
virtual_mailbox_domains = a.test, /etc/postfix/domains
virtual_mailbox_base = ${place?{$place}:{/wrong}}/virtual
virtual_mailbox_maps = hash:/etc/postfix/boxes
virtual_alias_maps = hash:/etc/postfix/virtual, regexp:/etc/postfix/patterns
virtual_alias_domains =
transport_maps = hash:/etc/postfix/built
smtp_sasl_password_maps = hash:/etc/postfix/passwords
smtpd_tls_cert_file = /etc/postfix/own.pem
smtpd_tls_key_file = ${config_directory}/own.key
END
    write_file('/etc/postfix/domains', "b.test\n# none\nc.test\n");
    write_file('/etc/postfix/boxes', "box\@a.test  a/box/\n");
    write_file('/etc/postfix/virtual',
        "# comment\nsales\@a.test  info\@a.test,\n    alice\n\@b.test info\@a.test\n");
    write_file('/etc/postfix/patterns', "if /x/\n/^list-(.*)\@a\\.test\$/  info\@a.test\nendif\n");
    write_file('/etc/postfix/built', "c.test  smtp:[relay.test]\n");
    write_file('/etc/postfix/passwords', "[relay.test] user:relay-passphrase\n", 0600);
    unlink '/etc/aliases';
    write_file('/etc/aliases',
        "root: alice\n\"two words\": alice\nteam: :include:/etc/postfix/team,\n  alice\n");
    write_file('/etc/postfix/team', "alice\n");
    mkpath('/mnt/mail/virtual/a/box/' . $_) for qw(cur new tmp);
    ran(['postmap', "hash:/etc/postfix/$_"]) for qw(boxes virtual built passwords);
    unlink '/etc/postfix/built' or die $!;
    return;
}

sub configure_dovecot {
    write_file('/etc/dovecot/dovecot.conf', <<"END");
protocols =
log_path = /mnt/dovecot.log
ssl = no
ssl_cert = </etc/dovecot/own.pem
ssl_key = </etc/dovecot/own.key
first_valid_uid = 1000
mail_location = maildir:~/Maildir:CONTROL=/mnt/control/%u:INDEX=/mnt/index/%u
plugin {
  sieve = file:~/sieve;active=~/.dovecot.sieve
}
userdb {
  driver = passwd-file
  args = username_format=%u /etc/dovecot/users
}
userdb {
  driver = passwd
}
passdb {
  driver = passwd-file
  args = username_format=%u /etc/dovecot/users
}
END
    write_file("/etc/dovecot/own.$_", 'x') for qw(pem key);
    write_file('/etc/dovecot/users', "info\@a.test:{PLAIN}$SECRET:${VMAIL}:${VMAIL}::/mnt/mail/a.test/info::"
        . "userdb_quota_rule=*:storage=5M\nbig\@a.test:{PLAIN}x:${VMAIL}:${VMAIL}::/mnt/mail/a.test/big::"
        . "userdb_mail=mdbox:~/mdbox\n-x\@a.test:{PLAIN}x:${VMAIL}:${VMAIL}::/mnt/mail/a.test/x::\n", 0640);
    chown 0, scalar getgrnam 'dovecot', '/etc/dovecot/users' or die $!;
    return;
}

sub with_dovecot {
    my ($block) = @_;
    my $server = start(['/usr/sbin/dovecot', '-F']);
    my $deadline = Time::HiRes::time() + 20;
    my $is_up;
    while (!$is_up && Time::HiRes::time() < $deadline) {
        $is_up = -S '/run/dovecot/auth-userdb' or Time::HiRes::sleep(0.02);
    }
    my $done = $is_up && eval { $block->(); 1 };
    my $error = $@;
    kill 'TERM', $server->{pid};
    finish($server);
    diag ran(['cat', '/mnt/dovecot.log']) if !$done;
    die $error if $is_up && !$done;
    ok $is_up, 'Dovecot answers questions about users';
    return;
}

sub deliver {
    my ($to, $text) = @_;
    ran(['/usr/lib/dovecot/dovecot-lda', '-d', $to], stdin => "From: x\@x.test\nSubject: $text\n\n$text\n");
    return;
}

sub looked_at {
    my $tree = Linux::Tree->new;
    my $problems = Agent::Problems->new;
    my $mail = Linux::Mail::all($tree, $problems, Linux::Users->new($tree));
    return ($mail, $problems);
}

my @EVERYBODY = qw(-x@a.test alice big@a.test info@a.test);
my %ARCHIVE = (
    'info@a.test' => 'content/mailboxes/info=40a.test.tar.gz',
        'big@a.test' => 'content/mailboxes/big=40a.test.tar.gz',
);

my $set_up = once(sub {
    own_directories();
    configure_postfix();
    configure_dovecot();
    return 1;
});

# What the agent finds of the mail while Dovecot runs, and a dump of it.
my $dumped = once(sub {
    $set_up->();
    my ($mail, $problems);
    my $private = Agent::Private->new(tempdir(CLEANUP => 1));
    with_dovecot(sub {
        deliver($_, "to $_") for @EVERYBODY;
        write_file('/mnt/mail/a.test/info/.dovecot.sieve', "keep;\n");
        chown $VMAIL, $VMAIL, '/mnt/mail/a.test/info/.dovecot.sieve';
        ($mail, $problems) = looked_at();
        open my $none, '<', '/dev/null' or die $!;
        my $options = Agent::Options::parse(['--migration-mode', '--dump-all', '--only-mail'], $none);
        Linux::Dump::run(tree => Linux::Tree->new, private => $private, options => $options);
    });
    return { mail => $mail, problems => $problems, private => $private };
});

test 'A running Dovecot names the mailboxes' => sub {
    my ($mail, $problems) = @{ $dumped->() }{qw(mail problems)};
    my %mailbox = map { $_->{address} => $_ } @{ $mail->{mailboxes} };
    is_deeply [sort keys %mailbox], [sort @EVERYBODY, 'box@a.test'], 'all mailboxes are found';
    is_deeply [@{ $mailbox{'info@a.test'} }{qw(path format home quota uid owner)}],
        ['/mnt/mail/a.test/info/Maildir', 'maildir', '/mnt/mail/a.test/info', '*:storage=5M', $VMAIL,
            'vmail'],
        'a mailbox has the path, format, home, quota and account that Dovecot names';
    is $mailbox{'big@a.test'}{format}, 'mdbox', 'a user with a format of its own has it';
    is $mailbox{'info@a.test'}{because}, 'Dovecot names the user',
        'the reason says that Dovecot names the user';
    is_deeply [map {"$_->{path} $_->{format}"} $mailbox{'box@a.test'}], ['/mnt/mail/virtual/a/box maildir'],
        'a mailbox behind settings that only Postfix understands is found';
    is_deeply problem_texts($problems), [], 'no problem is named';
};

test 'The maps of Postfix are described also where a text is gone' => sub {
    $set_up->();
    my ($mail) = looked_at();
    my %entries = map { my $map = $_; ("$map->{kind} $map->{file}" => [map {
        join ' ', grep {defined} @$_{qw(line from to)} } @{ $map->{entries} }]) } @{ $mail->{maps} };
    is_deeply \%entries, {
        'alias /etc/aliases' => ['1 root alice', '2 two words alice',
            '3 team :include:/etc/postfix/team, alice'],
        'virtual-alias /etc/postfix/virtual' => ['2 sales@a.test info@a.test, alice',
            '4 @b.test info@a.test'],
        'virtual-alias /etc/postfix/patterns' => ['2 /^list-(.*)@a\.test$/ info@a.test'],
        'virtual-mailbox /etc/postfix/boxes' => ['1 box@a.test a/box/'],
        'transport /etc/postfix/built' => ['1 c.test smtp:[relay.test]'],
        'passwords /etc/postfix/passwords' => [],
        'local-domain /etc/postfix/main.cf' => ['mail.a.test', 'localhost'],
        'virtual-mailbox-domain /etc/postfix/main.cf' => ['a.test'],
        'virtual-mailbox-domain /etc/postfix/domains' => ['1 b.test', '3 c.test'],
    }, 'the maps are described, also one whose text is gone';
    for my $asked (['sales@a.test', 'virtual', 'info@a.test, alice'], ['@b.test', 'virtual', 'info@a.test'],
        ['c.test', 'built', 'smtp:[relay.test]']) {
        my ($key, $map, $value) = @$asked;
        chomp(my $answer = ran(['postmap', '-q', $key, "hash:/etc/postfix/$map"]));
        (my $described = $value) =~ s/\s+/ /g;
        $answer =~ s/\s+/ /g;
        is $described, $answer, "Postfix itself finds the same for $key";
    }
};

test 'Certificates and keys and files of users are known' => sub {
    $set_up->();
    my ($mail) = looked_at();
    my %files = map { $_->{name} => $_->{files} } @{ $mail->{servers} };
    is_deeply \%files, { postfix => [qw(/etc/postfix/own.pem /etc/postfix/own.key)],
        dovecot => [qw(/etc/dovecot/own.pem /etc/dovecot/own.key /etc/dovecot/users)] },
        'certificates, keys and files of users are known';
};

test 'Files of Dovecot lead to the same mailboxes while it does not run' => sub {
    $dumped->();
    my ($mail) = looked_at();
    my %there = map { $_->{address} => $_->{path} } @{ $mail->{mailboxes} };
    is_deeply \%there, {
        alice => '/home/alice/Maildir', 'box@a.test' => '/mnt/mail/virtual/a/box',
        'info@a.test' => '/mnt/mail/a.test/info/Maildir', '-x@a.test' => '/mnt/mail/a.test/x/Maildir',
        'big@a.test' => '/mnt/mail/a.test/big/mdbox',
    }, 'while Dovecot does not run its files lead to the same mailboxes';
};

test 'A description of mail has what a new host needs and no password' => sub {
    my $document = $dumped->()->{private}->read('dump.xml');
    unlike $document, qr/relay-passphrase|\Q$SECRET/, 'no password is in the document';
    like $document, qr{<setting name="virtual_mailbox_base">/mnt/mail/virtual</setting>},
        'a setting that a new host needs is in the document';
};

test 'Unpacked mail is read by Dovecot' => sub {
    my $private = $dumped->()->{private};
    # Mounted over the files that are there, until this test ends.
    my @places = qw(/mnt/mail /mnt/control /mnt/index);
    ran(['mount', '-t', 'tmpfs', '-o', 'mode=755', 'own', $_]) for @places;
    chown $VMAIL, $VMAIL, '/mnt/mail' or die $!;
    my $done = eval {
        ran(['tar', '-xpf', $private->dir . "/$ARCHIVE{$_}", '-C', '/']) for sort keys %ARCHIVE;
        ok -f '/mnt/mail/a.test/info/.dovecot.sieve', 'a script beside the mail is in the archive';
        ok -d '/mnt/control/info@a.test', 'lists at a place of their own are in the archive';
        with_dovecot(sub {
            for my $user (sort keys %ARCHIVE) {
                like ran(['doveadm', 'fetch', '-u', $user, 'hdr.subject', 'all']),
                    qr/\Ahdr.subject: to \Q$user\E\n/,
                    "the unpacked mail of $user is read by Dovecot";
            }
        });
        1;
    };
    my $error = $@;
    ran(['umount', '-l', $_]) for @places;
    die $error if !$done;
};

run_tests;
