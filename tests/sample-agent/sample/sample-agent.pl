#!/usr/bin/perl
# A migration agent for a source that is nothing but a tree of directories:
#
#     SOURCE/domains/NAME/...   SOURCE/clients/NAME/...   SOURCE/resellers/NAME/...
#
# SOURCE is the first line of the file "source-tree" next to this script. Mail
# is what lies in an object's directory "mail"; everything else is hosting.
#
#   --get-status          says that the agent is in place
#   --migration-mode      dumps nothing, unless objects are asked for:
#   --dump-all            all of them, or those named by
#   --dump-domains=-      (and clients, resellers) one line of names, separated
#                         by commas, on standard input for each such option
#   --only-mail, --only-hosting, --no-content   dump less
#   --get-content-list    lists the files of the dump that are still here
#
# A dump is the document dump.xml and one content file for each source file, as
# content/domains/NAME/...; dumping-status.xml tells how far it has got.
use strict;
use warnings;
use Digest::MD5;
use File::Basename qw(dirname);
use File::Copy qw(copy);
use File::Find ();
use File::Path qw(make_path remove_tree);
use FindBin;
use lib "$FindBin::RealBin/lib";
use Sample::Xml qw(representable text element replace_file);

my $here = $FindBin::RealBin;
my @kinds = qw(domains clients resellers);
umask 022;

sub first_line {
    my ($path) = @_;
    open my $file, '<', $path or die "$path: $!\n";
    my $line = <$file> // die "$path is empty\n";
    chomp $line;
    return $line;
}

# Paths, relative to the directory, of all plain files below it.
sub files_below {
    my ($directory) = @_;
    my @found;
    return () unless -d $directory;
    File::Find::find({
        no_chdir => 1,
        wanted => sub {
            push @found, substr $_, 1 + length $directory if -f $_ && !-l $_;
        },
    }, $directory);
    return sort @found;
}

sub directories_in {
    my ($directory) = @_;
    opendir my $listing, $directory or return ();
    return sort grep { !/^\.\.?$/ && -d "$directory/$_" } readdir $listing;
}

sub input_line {
    my $line = <STDIN> // die "a line is missing on standard input\n";
    chomp $line;
    return $line;
}

# Names of the objects to dump, by kind.
sub selection {
    my ($source, %given) = @_;
    return map { $_ => [directories_in("$source/$_")] } @kinds if $given{'--dump-all'};
    # The lists come in this order, whichever of them are there.
    my %names = map { $_ => $given{"--dump-$_=-"} ? [split /,/, input_line()] : [] } @kinds;
    for my $kind (@kinds) {
        -d "$source/$kind/$_" or die "no such object: $kind/$_\n" for @{ $names{$kind} };
    }
    return %names;
}

sub save_status {
    my ($done, $total) = @_;
    replace_file("$here/dumping-status.xml",
        element('dumping-status', [done => $done, total => $total]));
}

sub dump_objects {
    my %given = map { $_ => 1 } @_;
    my $source = first_line("$here/source-tree");
    my @transport;
    if ($given{'--content-transport=rsync'}) {
        my ($host, $login, $password, $port) = map { input_line() } 1 .. 4;
        @transport = element('transport', [name => 'rsync', host => $host, login => $login, port => $port]);
    }
    my %names = selection($source, %given);
    my @objects = map { my $kind = $_; map { [$kind, $_] } @{ $names{$kind} } } @kinds;

    remove_tree("$here/content");
    my ($done, @described) = (0);
    for my $object (@objects) {
        save_status($done++, scalar @objects);
        my ($kind, $name) = @$object;
        my @files = files_below("$source/$kind/$name");
        @files = grep { m{^mail/} } @files if $given{'--only-mail'};
        @files = grep { !m{^mail/} } @files if $given{'--only-hosting'};
        @files = () if $given{'--no-content'};
        my @content;
        for my $file (@files) {
            my $path = "content/$kind/$name/$file";
            if (!representable($path)) {
                warn "left out, XML cannot name it: $path\n";
                next;
            }
            make_path(dirname("$here/$path"));
            copy("$source/$kind/$name/$file", "$here/$path") or die "$path: $!\n";
            push @content, element('file', [size => -s "$here/$path"], text($path));
        }
        push @described, element(substr($kind, 0, -1), [name => $name], @content);
    }
    my @options = map { element('option', [], text($_)) } @_;
    replace_file("$here/dump.xml", element('dump', [agent => 'sample'], @options, @transport, @described));
    save_status($done, scalar @objects);
}

sub print_content_list {
    my ($total, @entries) = (0);
    my @names = map { "content/$_" } files_below("$here/content");
    for my $name (@names, grep { -f "$here/$_" } 'dump.xml') {
        open my $file, '<:raw', "$here/$name" or die "$name: $!\n";
        my $size = -s $file;
        $total += $size;
        my $sum = Digest::MD5->new->addfile($file)->hexdigest;
        push @entries, element('file', [size => $size, md5sum => $sum], text($name));
    }
    # Content files are plain copies: they take the room that they are long.
    print element('contentlist', [size => $total, unpacked => $total], @entries), "\n";
}

my %given = map { $_ => 1 } @ARGV;
if ($given{'--get-status'}) {
    print element('agentstatus', [], element('statusfile', [], 'dumping-status.xml')), "\n";
} elsif ($given{'--get-content-list'}) {
    print_content_list();
} elsif ($given{'--migration-mode'}) {
    dump_objects(@ARGV);
} else {
    die "usage: $0 --get-status | --get-content-list | --migration-mode ...\n";
}
