# What the .htaccess file of a document root says that the record of a site does not
# have: redirects, access rules and files of passwords. It is only named. What the
# file's author writes must not decide which other files of the host are packed.
package Linux::DirectoryRules;

use strict;
use warnings;
use Linux::Site qw(below);

my $NAME = '.htaccess';
my $MOST_BYTES = 1_000_000;

my $RULE = qr/\A\s*(redirect\w*|rewriterule|require|allow|deny|order|satisfy|authtype)\s/i;
my $FILE = qr/\A\s*auth(?:user|group)file\s+"?([^"\s]+)/i;

# Adds problems for a site that Apache serves.
sub note {
    my ($tree, $problems, $site) = @_;
    return if !defined $site->{root} || !$tree->exists("$site->{root}/$NAME");
    my $file = "$site->{root}/$NAME";
    my $text = $tree->read_file($file, $MOST_BYTES);
    if (!defined $text) {
        $problems->add(severity => 'warning', object => $site->{name}, text => "$file cannot be read: $!");
        return;
    }
    my @lines = split /\r?\n/, $text;
    my %rules = map { $_ =~ $RULE ? (lc $1 => 1) : () } @lines;
    $problems->add(severity => 'info', object => $site->{name}, text => "$file has rules of its own ("
        . join(', ', sort keys %rules) . '), which are in the archive with it and not listed here; files of'
        . ' this name in the directories below are not looked into') if %rules;
    for my $path (map { $_ =~ $FILE ? $1 : () } @lines) {
        my $real = $tree->real($path);
        next if defined $real && grep { below($real, $_) } map { $tree->real($_) || () } @{ $site->{roots} };
        $problems->add(severity => 'error', object => $site->{name},
            text => "$file names the file $path, which is not in the site's archive: copy it by hand");
    }
    return;
}

1;
