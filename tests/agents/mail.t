# Where the mail of a host is: mailboxes by the settings of mail servers and in the usual places, and the
# maps that lead to them.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin, map {"$FindBin::Bin/../../agents/$_"} qw(shared linux);
use Imitated qw(imitated problem_texts);
use Linux::Mail;
use Linux::MailOwners;
use Linux::Users;
use Test::More;
use Independent;

my $ACCOUNTS = "root:x:0:0::/root:/bin/sh\nvmail:x:5000:5000::/var/vmail:/bin/false\n"
    . "alice:x:1001:1001::/home/alice:/bin/sh\nbob:x:1002:1002::/home/bob:/bin/sh\n";

sub maildir { return map { ("$_[0]/cur/" => undef, "$_[0]/new/" => undef) } 1 }

# The addresses and paths that are found, and the problems.
sub found {
    my %files = ('etc/passwd' => $ACCOUNTS, @_);
    my ($tree, $problems) = imitated(%files);
    my @mailboxes = @{ Linux::Mail::all($tree, $problems, Linux::Users->new($tree))->{mailboxes} };
    return ({ map { $_->{address} => $_->{path} } @mailboxes }, problem_texts($problems), @mailboxes);
}

test 'A host without mail has no mailboxes' => sub {
    is_deeply [found()], [{}, []], 'a host without mail has no mailboxes and no problems';
};

test 'An account has its usual directory' => sub {
    my ($mailboxes) = found(maildir('home/alice/Maildir'), maildir('home/bob/other'));
    is_deeply $mailboxes, { alice => '/home/alice/Maildir' },
        'the usual directory of an account is its mailbox, and no other';
};

test 'The usual directories are searched' => sub {
    my $mailboxes;
    ($mailboxes) = found(
        maildir('var/mail/vhosts/a.test/info'), maildir('var/vmail/b.test/sales/Maildir'),
            'var/vmail/b.test/empty/' => undef,
        maildir('var/vmail/deep/c.test/x/y/user'),
    );
    is_deeply $mailboxes, {
        'info@a.test' => '/var/mail/vhosts/a.test/info', 'sales@b.test' => '/var/vmail/b.test/sales/Maildir',
        'user@c.test' => '/var/vmail/deep/c.test/x/y/user',
    }, 'mailboxes at all depths of the usual directories are found';
};

test 'A file that is named like an account is its mailbox' => sub {
    my $mailboxes;
    ($mailboxes) = found('var/mail/alice' => "From x\n", 'var/mail/bob' => '', 'var/mail/nobody-here' => 'x');
    is_deeply $mailboxes, { alice => '/var/mail/alice' },
        'a file named like an account is its mailbox unless it is empty';
};

test 'Maildirs may be where the files of accounts are' => sub {
    my $mailboxes;
    my $problems;
    ($mailboxes, $problems) = found(
        maildir('var/mail/alice'), maildir('var/mail/c.test/info'), 'var/mail/stranger' => 'From x',
        'var/spool/mail' => \'../mail', maildir('data/spool/bob'),
        'etc/postfix/main.cf' => "mail_spool_directory = /data/spool/\n"
            . "virtual_mailbox_maps = hash:/etc/postfix/none\n",
    );
    is_deeply $mailboxes, { alice => '/var/mail/alice', 'info@c.test' => '/var/mail/c.test/info',
        bob => '/data/spool/bob' },
        'Maildirs are found where the files of accounts usually are and where the mail server has them';
    is_deeply $problems, [
        'warning /etc/postfix/none: The map of virtual mailboxes is named in the settings, but is not there:'
            . ' see whether it'
            . ' is still needed',
        'error /var/mail/stranger: Is named like no account and is not in the dump: copy it by hand if it is'
            . ' a mailbox that'
            . ' is still needed',
    ], 'a missing map and a mailbox without an account are named' or diag explain $problems;
};

test 'The directory of all mailboxes is searched for those that no map in a file names' => sub {
    my $mailboxes;
    ($mailboxes) = found(
        'etc/postfix/main.cf' => "virtual_mailbox_base = /data\n"
            . "virtual_mailbox_maps = hash:\$config_directory/boxes mysql:/x\n",
        'etc/postfix/boxes' => "all\@a.test a.test/catch-all/\n", maildir('data/a.test/catch-all'),
        maildir('data/a.test/info'),
    );
    is_deeply $mailboxes, { 'all@a.test' => '/data/a.test/catch-all', 'info@a.test' => '/data/a.test/info' },
        'mailboxes that a map names and others in the directory of all are found';
};

test 'Mail servers whose settings or mailboxes are not read are named' => sub {
    my $problems;
    (undef, $problems) = found('etc/exim4/exim4.conf' => 'x');
    is_deeply $problems, ['warning /etc/exim4: Is not read; mailboxes are searched for in the usual'
        . ' directories only: compare'
        . ' them with those that the server delivers to'],
        'a mail server whose settings are not read is a warning';
    (undef, $problems) = found('etc/imapd.conf' => 'x');
    is_deeply $problems, ['error /etc/imapd.conf: The mailboxes of Cyrus are not in the dump: copy them by'
        . ' IMAP'],
        'a mail server whose mailboxes are not read is an error';
};

test 'Directories that lead back to themselves are searched once' => sub {
    my $mailboxes;
    ($mailboxes) = found(maildir('var/mail/eve/x/y'),
        map { ("var/mail/eve/$_" => \'.', "var/mail/eve/x/$_" => \'..') } 'a' .. 'm');
    is_deeply $mailboxes, { y => '/var/mail/eve/x/y' },
        'the mailbox in directories that lead back to themselves is found once';
};

test 'Mail in a format that is not known is missing from the dump' => sub {
    my $problems;
    (undef, $problems) = found('etc/dovecot/dovecot.conf' => "mail_location = cydir:/data/%d/%n\n");
    is_deeply $problems, ['error /etc/dovecot/dovecot.conf: Mail at /data/%d/%n is in the format cydir and'
        . ' is not in the dump'
        . ' as mailboxes: copy it by doveadm backup'],
        'mail in a format that is not known is an error';
    (undef, $problems) = found('etc/dovecot/dovecot.conf' => "!include conf.d/*.conf\n",
        'etc/dovecot/conf.d/1.conf' => "mail_location = cydir:/data/%d/%n\n",
        'etc/dovecot/conf.d/2.conf' => "mail_location = maildir:/data/%d/%n\n");
    is_deeply $problems, [], 'a format that a later setting overrides is no problem';
};

test 'Mail in each format of Dovecot is found' => sub {
    my $problems;
    for my $other (
        ["mail_location = mdbox:/data/%d/%n\n", 'mdbox', 'data/a.test/info/storage/', '/data/a.test/info',
            []],
        ["mail_driver = sdbox\nmail_path = %{home}/mail\n", 'sdbox', 'home/alice/mail/mailboxes/',
            '/home/alice/mail', []],
        ["mail_driver = mdbox\nmail_path = ~/mail\nmail_control_path=/var/control/%{user}\n", 'mdbox',
            'home/alice/mail/storage/', '/home/alice/mail', ['/var/control/alice']],
        ["mail_location = mbox:~/mail\n", 'mbox', 'home/alice/mail/', '/home/alice/mail', []],
        ["mail_location = mbox:~/mail:INBOX=/inboxes/%u\n", 'mbox', 'home/alice/mail/', '/inboxes/alice',
            ['/home/alice/mail']],
    ) {
        my ($settings, $format, $directory, $path, $besides) = @$other;
        (undef, $problems, my @found) = found('etc/dovecot/dovecot.conf' => $settings, $directory => undef,
            'inboxes/alice' => 'From x', 'var/control/alice/' => undef);
        is_deeply [map { [@$_{qw(format path besides)}] } @found], [[$format, $path, $besides]],
            "mail in $format is found";
        is_deeply $problems, [], "mail in $format is no problem";
    }
    (undef, $problems, my @both) = found(maildir('data/me/all'), maildir('data/me/in'),
        'etc/dovecot/dovecot.conf' => "mail_location = maildir:/data/%n/all:INBOX=/data/%n/in\n");
    is_deeply [map { ($_->{path}, @{ $_->{besides} }) } @both], ['/data/me/all', '/data/me/in'],
        'an inbox with a place of its own is found with the rest of the mail';
    is_deeply $problems, [], 'Maildirs are no problem';
};

test 'The maps of Postfix are read' => sub {
    my ($mailboxes, $problems);
    ($mailboxes, $problems) = found(
        'etc/postfix/main.cf' => "# virtual_mailbox_base = /wrong\nhome_mailbox = .mail/\nwhere = /data\n"
            . "virtual_mailbox_base = \${where}/mail\nvirtual_mailbox_maps = hash:/etc/postfix/boxes,\n"
            . "    mysql:/etc/postfix/sql.cf\n",
        'etc/postfix/boxes' => "# comment\nInfo\@A.test  a/info/\nfile\@a.test  a/file\n\@b.test b/all/\n"
            . "gone\@a.test a/gone/\n",
        maildir('data/mail/a/info'), 'data/mail/a/file' => 'From', maildir('data/mail/b/all'),
        maildir('home/bob/.mail'),
    );
    is_deeply $mailboxes, {
        'Info@a.test' => '/data/mail/a/info', 'file@a.test' => '/data/mail/a/file',
            '*@b.test' => '/data/mail/b/all',
        bob => '/home/bob/.mail',
    }, 'mailboxes that the maps name are found';
    is_deeply $problems, ['warning /etc/postfix/sql.cf: The virtual mailboxes are in a mysql database and'
        . ' not described: see'
        . ' that the dump has that database, and that the mail server of the new host reaches it'],
        'a map in a database is named';
};

test 'Mailboxes are found where the settings of Dovecot say' => sub {
    my $mailboxes;
    for my $template ('maildir:/data/%d/%n', 'maildir:/data/%Ld/%Ln:LAYOUT=fs',
        'maildir:/data/%{user|domain}/%{user | username}') {
        ($mailboxes) = found(
            'etc/dovecot/dovecot.conf' => "!include conf.d/*.conf\n!include_try absent.conf\n",
            'etc/dovecot/conf.d/10-mail.conf' => "mail_location = $template\n",
            maildir('data/a.test/info'), maildir('data/b.test/x'), 'data/b.test/no/' => undef,
        );
        is_deeply $mailboxes, { 'info@a.test' => '/data/a.test/info', 'x@b.test' => '/data/b.test/x' },
            "mailboxes at $template are found";
    }
    ($mailboxes) = found('etc/dovecot/dovecot.conf' => "mail_location = maildir:/data/%u\n",
        maildir('data/me@a.test'));
    is_deeply $mailboxes, { 'me@a.test' => '/data/me@a.test' },
        'a mailbox whose directory has the whole address for its name is found';
};

test 'Homes of mail users are found where the settings of Dovecot say' => sub {
    my $mailboxes;
    ($mailboxes) = found(
        'etc/dovecot/dovecot.conf' => "mail_location = maildir:~/box\nuserdb {\n  driver = static\n"
            . "  args = uid=5000 home=/data/%d/%n\n}\n",
        maildir('data/a.test/info/box'), maildir('home/alice/box'),
    );
    is_deeply $mailboxes, { 'info@a.test' => '/data/a.test/info/box', alice => '/home/alice/box' },
        'mail in homes at one place for all users is found, and that of accounts';
    ($mailboxes) = found(
        'etc/dovecot/dovecot.conf' =>
            "mail_location = maildir:~/box\npassdb {\n  driver = passwd-file\n"
            . "  args = scheme=CRYPT /etc/dovecot/users\n}\n",
        'etc/dovecot/users' => "info\@A.test:{X}secret:5000:5000::/data/one::\nno-home\@a.test:x\n",
        maildir('data/one/box'),
    );
    is_deeply $mailboxes, { 'info@a.test' => '/data/one/box' },
        'mail in a home that a file of passwords names is found';
};

test 'Settings of Dovecot that lead nowhere are named or left out' => sub {
    my ($mailboxes, $problems);
    ($mailboxes, $problems) = found('etc/dovecot/dovecot.conf' => "mail_location = maildir:/data/%1n/%n\n");
    like $problems->[0], qr{\Aerror .*/data/%1n/%n are searched for},
        'a place that is not understood is an error';
    ($mailboxes) = found('etc/dovecot/dovecot.conf' => "!include dovecot.conf\nmail_location = mbox:~/x\n");
    is_deeply $mailboxes, {}, 'a file that includes itself is read once';
};

test 'No mailbox is found twice' => sub {
    my ($same) = found(
        'etc/dovecot/dovecot.conf' => "mail_location = maildir:/var/vmail/%d/%n\n",
            maildir('var/vmail/a.test/info'),
        'srv/mail' => \'../var/vmail',
    );
    is_deeply $same, { 'info@a.test' => '/var/vmail/a.test/info' },
        'a mailbox that two paths lead to is found once';
};

# { address => the files beside it }
sub besides {
    my (undef, undef, @found) = found(@_);
    return { map { $_->{address} => [sort @{ $_->{besides} }] } @found };
}

test 'Scripts in the home of an account belong to its mail' => sub {
    is_deeply besides(maildir('home/alice/Maildir'), 'home/alice/.dovecot.sieve' => 'x',
        'home/alice/sieve/a' => 'x',
        'home/alice/.forward' => 'x', 'home/alice/private' => 'x'),
        { alice => [map {"/home/alice/$_"} qw(.dovecot.sieve .forward sieve)] },
        'scripts in the home are beside the mailbox, and nothing else there is';
};

test 'A home that a user has only for mail belongs to the mailbox' => sub {
    is_deeply besides(maildir('var/vmail/a.test/info/Maildir'), 'var/vmail/a.test/info/.dovecot.sieve' => 'x',
        maildir('var/vmail/a.test/sales')), { 'info@a.test' => ['/var/vmail/a.test/info'],
        'sales@a.test' => [] },
        'a home that a user has only for mail is beside the mailbox';
    my $STATIC = "mail_location = maildir:/var/vmail/%d/%n\nuserdb {\n  driver = static\n"
        . "  args = uid=5000 home=/data/homes/%d\n}\n";
    is_deeply besides('etc/dovecot/dovecot.conf' => $STATIC, 'data/homes/a.test/x' => 'x',
        map { maildir("var/vmail/a.test/$_") } qw(info sales)), { 'info@a.test' => [], 'sales@a.test' => [] },
        'a home that several users share is beside none of their mailboxes';
};

test 'Lists and scripts may have places of their own' => sub {
    is_deeply besides('etc/dovecot/dovecot.conf' =>
        "mail_location = maildir:/data/%d/%n:CONTROL=/control/%d/%n:INDEX=/gone/%u\n"
        . "plugin {\n  sieve = file:/scripts/%u;active=/scripts/%u.active\n}\n", maildir('data/a.test/info'),
        'control/a.test/info/' => undef, 'scripts/info@a.test/x' => 'x',
        'scripts/info@a.test.active' => \'info@a.test/x'),
        { 'info@a.test' => ['/control/a.test/info', '/scripts/info@a.test', '/scripts/info@a.test.active'] },
        'lists and scripts at places of their own are beside the mailbox';
};

# Settings in the syntax of Dovecot 2.4.
my $NEW = <<'END';
dovecot_config_version = 2.4.0
mail_driver = maildir
mail_home = /data/homes/%{user | domain}/%{user | username | lower}
mail_path = ~/mail
mail_control_path = /control/%{user}
ssl_server_cert_file = /etc/new.pem
ssl_server {
  key_file = x
}
userdb static {
  fields {
    uid = 5000
    home = /data/other/%{user | domain}/%{user | username}
  }
}
passdb passwd-file {
  passwd_file_path = /etc/dovecot/users
}
sieve_script personal {
  driver = file
  path = ~/sieve
  active_path = ~/.active
}
namespace shared {
  type = public
  mail_path = /data/public
}
END

test 'Settings of Dovecot 2.4 are understood' => sub {
    my ($new, $said, @new) = found('etc/dovecot/dovecot.conf' => $NEW, maildir('data/homes/a.test/info/mail'),
        'control/info@a.test/' => undef, maildir('data/other/b.test/x/mail'), maildir('data/one/mail'),
        'etc/dovecot/users' => "own\@c.test:x:5000:5000::/data/one::\n", 'data/public/.All/cur/' => undef);
    is_deeply $new, { 'info@a.test' => '/data/homes/a.test/info/mail',
        'x@b.test' => '/data/other/b.test/x/mail',
        'own@c.test' => '/data/one/mail', 'namespace shared' => '/data/public' },
        'the mailboxes of the settings of Dovecot 2.4 are found';
    is_deeply $said, [], 'no problem is named';
    is_deeply [map { @{ $_->{besides} } } grep { $_->{address} eq 'info@a.test' } @new],
        ['/control/info@a.test', '/data/homes/a.test/info'],
        'lists and the home are beside the mailbox of the settings of Dovecot 2.4';
};

# The files that maps need, and the problems.
sub needs_of_maps {
    my ($owner, %files) = @_;
    my ($tree, $problems) = imitated('etc/passwd' => $ACCOUNTS, %files);
    chown $owner, $owner, $tree->path('/etc/aliases') or die $!;
    my $mail = Linux::Mail::all($tree, $problems, Linux::Users->new($tree));
    return [map { @{ $_->{needs} } } @{ $mail->{maps} }];
}

test 'Aliases of root name further files and those of others do not' => sub {
    my @ALIASES = ('etc/aliases' => "team: :include:/etc/shadow\n", 'etc/shadow' => 'x');
    is_deeply needs_of_maps(0, @ALIASES), ['/etc/shadow'], 'the file that aliases of root include is needed';
    is_deeply needs_of_maps(1001, @ALIASES), [],
        'the file that aliases of another account include is not needed';
};

test 'Maps in NIS are a problem only where there is NIS' => sub {
    my $problems;
    my @NIS = ('etc/postfix/main.cf' => "alias_maps = hash:/etc/aliases, nis:mail.aliases\n",
        'etc/aliases' => '');
    (undef, $problems) = found(@NIS);
    is_deeply $problems, [], 'a map in NIS is no problem where there is no NIS';
    (undef, $problems) = found(@NIS, 'etc/yp.conf' => 'x');
    like $problems->[0], qr{\Aerror /etc/postfix/main.cf: The aliases are asked from nis},
        'a map in NIS is an error where there is NIS';
};

test 'Virtual aliases that another server is asked for are named' => sub {
    my $problems;
    for my $case (['mysql', 'warning'], ['ldap', 'error'], ['socketmap', 'error']) {
        my ($type, $severity) = @$case;
        (undef, $problems) = found('etc/postfix/main.cf' =>
            "virtual_alias_maps = proxy:$type:/etc/postfix/x.cf\n");
        like $problems->[0], qr{\A$severity /etc/postfix/x.cf: The virtual aliases },
            "virtual aliases in $type are a problem of severity $severity";
    }
    (undef, $problems) = found('etc/postfix/main.cf' =>
        "virtual_alias_maps = ldap:people inline:{a=b} static:x\n");
    is @$problems, 1, 'only the map that another server is asked for is a problem';
    like $problems->[0], qr{\Aerror /etc/postfix/main.cf: The virtual aliases are asked from ldap },
        'the map whose settings are in the main file is named with that file';
};

test 'Maps of maps are read and maps without a text are named' => sub {
    my ($mailboxes, $problems);
    ($mailboxes, $problems) = found('etc/postfix/main.cf' => "virtual_mailbox_base = /data\n"
        . "virtual_mailbox_maps = unionmap:{hash:/etc/postfix/boxes, proxy:mysql:/etc/postfix/sql.cf}\n",
        'etc/postfix/boxes' => "a\@a.test a/\n", maildir('data/a'));
    is_deeply [$mailboxes, scalar @$problems], [{ 'a@a.test' => '/data/a' }, 1],
        'the map in a file is read, and only the one in a database is a problem';
    (undef, $problems) = found('etc/postfix/main.cf' => "alias_maps = hash:/etc/postfix/a\n",
        'etc/postfix/a.db' => 'x');
    like $problems->[0], qr{\Aerror /etc/postfix/a: The map is there as /etc/postfix/a.db only},
        'a map without its text is an error';
};

test 'Users that only a running Dovecot knows are named' => sub {
    my $problems;
    (undef, $problems) = found('etc/dovecot/dovecot.conf' =>
        "userdb {\n  driver = sql\n  args = /etc/dovecot/sql.ext\n}\n");
    like $problems->[0], qr{\Aerror /etc/dovecot/sql.ext: Dovecot's users are asked from sql, and doveadm does not name them},
        'users that only a running Dovecot knows are an error';
};

test 'A mailbox belongs to the owner of its domain or of its directory' => sub {
    my @sites = ({ name => 'a.test', names => ['www.a.test', 'A.test'], owner => 'alice' },
        { name => 'shop.b.test', names => ['shop.b.test'], owner => 'bob' },
        { name => 'root.test', names => ['root.test'], owner => undef });
    my @clients = map { { name => $_, system => 0 } } qw(alice bob);
    my @mine = map { my ($user, $domain, $owner) = @$_; { user => $user, domain => $domain,
        owner => $owner } }
        ['info', 'a.test', 'vmail'], ['info', 'b.test', 'vmail'], ['info', 'c.test', 'bob'],
            ['info', 'd.test', 'vmail'],
        ['alice', undef, 'alice'], ['root', undef, 'root'], ['info', 'root.test', 'vmail'];
    Linux::MailOwners::assign(\@mine, \@clients, \@sites);
    is_deeply [map { join ' ', map { defined $_ ? $_ : '-' } @$_{qw(client sure site)} } @mine],
        ['alice certain a.test', 'bob likely -', 'bob likely -', '- - -', 'alice certain -', '- - -',
            '- - -'],
        'each mailbox has the client, the certainty and the site of its domain or directory';
};

run_tests;
