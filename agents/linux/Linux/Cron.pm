# The jobs that cron runs for each account: its own table and the entries of the
# system's tables that run as that account.
package Linux::Cron;

use strict;
use warnings;
use Linux::System;

# Debian's and the Red Hat family's directory of the users' own tables.
my @SPOOLS = qw(/var/spool/cron/crontabs /var/spool/cron);
my @SPOOLS_OF_AT = qw(/var/spool/cron/atjobs /var/spool/at);
my $JOB_OF_AT = qr/\A[a-zA-Z=][0-9a-f]{13}\z/;
my $SYSTEM_TABLE  = '/etc/crontab';
my $SYSTEM_DIRECTORY = '/etc/cron.d';

# The names that cron reads in that directory: Debian's own, and that of the Red Hat family.
my $DEBIAN_NAME  = qr/\A[A-Za-z0-9_-]+\z/;
my $RED_HAT_NAME = qr/\A(?![.#]).*(?<!~)(?<!\.rpmsave)(?<!\.rpmorig)(?<!\.rpmnew)\z/s;

# { user => { crontab => path or undef, files => [system tables with jobs of the
# user], jobs => [{ when, command, file }] } }
sub all {
    my ($tree, $problems) = @_;
    my %cron;
    for my $spool (@SPOOLS) {
        for my $user (names_in($tree, $problems, $spool)) {
            my $table = "$spool/$user";
            next if !$tree->is_file($table);
            my $own = $cron{$user} ||= new_user();
            $own->{crontab} = $table;
            push @{ $own->{jobs} }, map { job($_, $table, 0) } lines_of($tree, $problems, $table);
        }
    }
    for my $table (system_tables($tree, $problems)) {
        add_system_job(\%cron, job($_, $table, 1)) for lines_of($tree, $problems, $table);
    }
    name_jobs_of_at($tree, $problems);
    return \%cron;
}

sub new_user { return { crontab => undef, files => [], jobs => [] } }

sub add_system_job {
    my ($cron, $job) = @_;
    return if !$job;
    my $own = $cron->{ delete $job->{user} } ||= new_user();
    push @{ $own->{jobs} }, $job;
    push @{ $own->{files} }, $job->{file} if !grep { $_ eq $job->{file} } @{ $own->{files} };
    return;
}

sub system_tables {
    my ($tree, $problems) = @_;
    my $is_red_hat = Linux::System::distribution($tree)->{family} eq 'redhat';
    my $read = $is_red_hat ? $RED_HAT_NAME : $DEBIAN_NAME;
    my @names = grep { $_ =~ $read } names_in($tree, $problems, $SYSTEM_DIRECTORY);
    return grep { $tree->is_file($_) } $SYSTEM_TABLE, map {"$SYSTEM_DIRECTORY/$_"} @names;
}

sub names_in {
    my ($tree, $problems, $directory) = @_;
    return if !$tree->is_dir($directory);
    my @names = $tree->list($directory);
    $problems->add(severity => 'error', object => $directory, text => unreadable("$!")) if !@names && $!;
    return @names;
}

sub unreadable { return "Cannot be read: $_[0]; the jobs in it are not in the dump, copy them by hand" }

# Jobs of "at" run once, and are no tables.
sub name_jobs_of_at {
    my ($tree, $problems) = @_;
    for my $spool (grep { $tree->is_dir($_) } @SPOOLS_OF_AT) {
        my @jobs = grep { $_ =~ $JOB_OF_AT && $tree->is_file("$spool/$_") } $tree->list($spool);
        $problems->add(severity => 'error', object => $spool,
            text => scalar(@jobs) . ' jobs of "at" are not in the dump: give them to the new host by hand')
            if @jobs;
    }
    return;
}

sub lines_of {
    my ($tree, $problems, $path) = @_;
    my $text = $tree->read_file($path);
    $problems->add(severity => 'error', object => $path, text => unreadable("$!")) if !defined $text;
    return defined $text ? split(/\n/, $text) : ();
}

# A line of a table as a job; nothing for settings and comments.
sub job {
    my ($line, $file, $names_user) = @_;
    $line =~ s/\A\s+//;
    return if $line eq '' || $line =~ /\A#/ || $line =~ /\A["']?\w+["']?\s*=/;
    my ($when, $rest) = $line =~ /\A(@\w+|\S+\s+\S+\s+\S+\s+\S+\s+\S+)\s+(.*)\z/ or return;
    my $user;
    ($user, $rest) = $rest =~ /\A(\S+)\s+(.*)\z/ or return if $names_user;
    return { when => $when, command => $rest, file => $file, $names_user ? (user => $user) : () };
}

1;
