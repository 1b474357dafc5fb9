# Reads Apache's configuration into a list of directives: included files, macros,
# definitions and conditions of the start are already worked out. A mistake in a
# file is named as a problem; what can be read before and after it is kept.
package Linux::ApacheConfig;

use strict;
use warnings;
use base 'Linux::ConfigReader';

# What <IfVersion> is compared with: a late one of the series that hosts have.
my @VERSION = (2, 4, 99);

# Modules that distributions build in.
my $BUILT_IN = qr/\A(?:(?:http_)?core|mod_(?:http|so|watchdog|log_config|logio|version|unixd)
    |(?:core|http|so|watchdog|log_config|logio|version|unixd)_module|prefork|event|worker)\z/x;

# Sections that the running server decides about, or that hold other directives.
my %SECTION = map { $_ => 1 } qw(
    virtualhost directory directorymatch location locationmatch files filesmatch limit limitexcept proxy
    proxymatch if elseif else ifmodule ifdefine ifversion iffile ifdirective ifsection macro requireall
    requireany requirenone perl authnprovideralias authzprovideralias mdomainset
);

sub new {
    my ($class, %self) = @_;
    return $class->SUPER::new(%self, defines => {}, modules => {}, macros => {});
}

# The directives of the main file: { name in lower case, args, raw, block => [...] or
# undef, file, line }. `raw` is the rest of the line, with its quotes. Modules are named that
# are built into the server, where that is known.
sub load {
    my ($self, $main, @built_in) = @_;
    $self->begin($main) if !defined $self->{base};
    $self->{modules}{$_} = 1 for @built_in;
    return $self->expand($self->parsed($main), $main);
}

# What is known before the main file is read: where relative paths start, and the
# definitions of the start, of its script and of the command line.
sub begin {
    my ($self, $main, $base, @defines) = @_;
    ($self->{base}) = defined $base ? $base : $main =~ m{\A(.*)/};
    $self->{base} =~ s{/conf\z}{} if !defined $base;
    my ($script) = map {"$_/envvars"} $main =~ m{\A(.*?)(?:/conf)?/[^/]*\z};
    $self->read_environment($_) for $script, '/etc/sysconfig/httpd';
    $self->{environment} = { %{ $self->{defines} } };
    $self->{defines}{$_} = '' for @defines;
    return;
}

# The variables that the start script gives the server.
sub environment { return $_[0]{environment} }

# The start script gives the server the variables of this file.
sub read_environment {
    my ($self, $file) = @_;
    for my $line ($self->{tree}->read_lines($file)) {
        next if $line !~ /\A\s*(?:export\s+)?(\w+)=(["']?)(.*?)\2\s*\z/;
        my ($name, $value) = ($1, $3);
        $value =~ s/\$\{?(\w+)\}?/defined $self->{defines}{$1} ? $self->{defines}{$1} : ''/ge;
        $self->{defines}{$name} = $value;
        next if $name ne 'OPTIONS' && $name ne 'APACHE_ARGUMENTS';
        $self->{defines}{$1} = '' while $value =~ /-D\s*(\w+)/g;
    }
    return;
}

sub expand {
    my ($self, $directives, @stack) = @_;
    return map { $self->expand_one($_, @stack) } @$directives;
}

sub expand_one {
    my ($self, $raw, @stack) = @_;
    my $name = $raw->{name};
    my $directive = with_raw($raw, $self->defined_text($raw->{raw}));
    my ($first, $second) = @{ $directive->{args} };
    if (!$raw->{block}) {
        return $self->included($directive, @stack) if $name =~ /\Ainclude(?:optional)?\z/;
        return $self->used($directive, @stack) if $name eq 'use';
        $self->take_over($name, $raw->{args}[0], $first, $second) if defined $first;
        return $directive;
    }
    if ($name eq 'macro') {
        $self->{macros}{ lc $first } = { %$raw, args => [@{ $raw->{args} }] } if defined $first;
        return;
    }
    if ($name =~ /\Aif(?:module|define|version|file|directive|section)\z/) {
        return $self->holds($directive) ? $self->expand($raw->{block}, @stack) : ();
    }
    return { %$directive, block => [$self->expand($raw->{block}, @stack)] };
}

# What changes how the rest is read. $plain is the first word before definitions.
sub take_over {
    my ($self, $name, $plain, $first, $second) = @_;
    $second = '' if !defined $second;
    if    ($name eq 'define')     { $self->{defines}{$plain} = $second }
    elsif ($name eq 'undefine')   { delete $self->{defines}{$plain} }
    elsif ($name eq 'serverroot') { $self->{base} = $first }
    elsif ($name eq 'loadmodule') {
        $self->{modules}{$first} = 1;
        $self->{modules}{$1} = 1 if $second =~ m{([^/]+)\.so\z};
    }
    return;
}

# Whether a condition of the start is met.
sub holds {
    my ($self, $directive) = @_;
    my ($test, @more) = @{ $directive->{args} };
    return 1 if !defined $test;
    my $not = $test =~ s/\A!\s*//;
    my $is = $directive->{name} eq 'ifmodule' ? $self->has_module($test)
        : $directive->{name} eq 'ifdefine'    ? exists $self->{defines}{$test}
        : $directive->{name} eq 'iffile'      ? $self->{tree}->lstat($self->absolute($test))
        : $directive->{name} eq 'ifversion'   ? version_fits($test, @more)
        :                                       1;
    return $not ? !$is : $is;
}

# Modules have a name in code (ssl_module) and one of a source file (mod_ssl.c).
# Where no module is loaded at all they are built in, and nothing is known of them.
sub has_module {
    my ($self, $name) = @_;
    my $loaded = $self->{modules};
    return 1 if !%$loaded;
    (my $file = $name) =~ s/\.c\z//;
    (my $code = $file) =~ s/\Amod_(.*)/$1_module/;
    return 1 if grep { $loaded->{$_} } $name, $file, $code;
    return $file =~ $BUILT_IN;
}

sub version_fits {
    my ($operator, $version) = @_;
    ($operator, $version) = ('=', $operator) if !defined $version;
    return 1 if $version !~ /\A\d+(?:\.\d+)*\z/;
    my @asked = split /\./, $version;
    my $order = 0;
    for my $place (0 .. $#VERSION) {
        $order ||= $VERSION[$place] <=> $asked[$place] if defined $asked[$place];
    }
    return $operator =~ /\A(?:=|==|~)\z/ ? $order == 0
        : $operator eq '>'  ? $order > 0
        : $operator eq '>=' ? $order >= 0
        : $operator eq '<'  ? $order < 0
        : $operator eq '<=' ? $order <= 0
        :                     1;
}

# A copy of a directive with another rest of its line; itself where that is the same.
sub with_raw {
    my ($directive, $raw) = @_;
    return $directive if $raw eq $directive->{raw};
    return { %$directive, raw => $raw, args => [words($directive->{name}, $raw)] };
}

sub defined_text {
    my ($self, $text) = @_;
    $text =~ s/\$\{(\w+)\}/defined $self->{defines}{$1} ? $self->{defines}{$1} : "\${$1}"/ge;
    return $text;
}

# The lines of a macro with its parameters filled in.
sub used {
    my ($self, $directive, @stack) = @_;
    my ($name, @values) = @{ $directive->{args} };
    my $macro = defined $name ? $self->{macros}{ lc $name } : undef;
    my $wrong = !$macro ? ', which is not defined'
        : @stack > $Linux::ConfigReader::MOST_DEPTH ? ' within itself' : '';
    if ($wrong) {
        $name = '' if !defined $name;
        $self->problem('error', @$directive{qw(file line)}, "uses the macro $name$wrong");
        return;
    }
    my (undef, @parameters) = @{ $macro->{args} };
    my %value_of;
    @value_of{@parameters} = map { defined $_ ? $_ : '' } @values[0 .. $#parameters];
    # A longer name first: it may begin with a shorter one.
    my $any = join '|', map { quotemeta } sort { length $b <=> length $a } @parameters;
    return $self->expand(filled($macro->{block}, \%value_of, $any), @stack, "macro $name");
}

sub filled {
    my ($directives, $value_of, $any) = @_;
    return $directives if !%$value_of;
    return [map {
        (my $raw = $_->{raw}) =~ s/($any)/$value_of->{$1}/g;
        my $directive = with_raw($_, $raw);
        my $block = $directive->{block} ? filled($directive->{block}, $value_of, $any) : undef;
        $block ? +{ %$directive, block => $block } : $directive;
    } @$directives];
}

sub included {
    my ($self, $directive, @stack) = @_;
    return if !@{ $directive->{args} };
    my @files = $self->included_files($directive->{args}[0]);
    @files = grep { $self->{tree}->lstat($_) } @files if $directive->{name} eq 'includeoptional';
    return $self->directives_of($directive, \@files, @stack);
}

# A directory stands for all the files in it and below.
sub included_files {
    my ($self, $word) = @_;
    return map { $self->{tree}->is_dir($_) ? $self->files_below($self->{tree}->tidy($_), 0) : $_ }
        $self->matching($word);
}

sub files_below {
    my ($self, $dir, $depth) = @_;
    return if $depth > $Linux::ConfigReader::MOST_DEPTH;
    return map { $self->{tree}->is_dir("$dir/$_") ? $self->files_below("$dir/$_", $depth + 1) : "$dir/$_" }
        $self->{tree}->list($dir);
}

sub parse {
    my ($self, $file, $text) = @_;
    my @blocks = ([]);
    my @openings;
    my $number = 0;
    my $next = 1;
    # A backslash at the end of a line continues it, and lines keep their numbers.
    while ($text =~ /\G((?:[^\\\n]++|\\(?!\r?\n)|\\\r?\n)*+)(?:\n|\z)/gc) {
        my $line = $1;
        $number = $next;
        $next += 1 + ($line =~ tr/\n//);
        $line =~ s/\\\r?\n//g;
        $line =~ s/\A\s+|\s+\z//g;
        last if $line eq '' && (pos($text) || 0) >= length $text;
        next if $line eq '' || $line =~ /\A#/;
        if ($line =~ m{\A</\s*(\w+)\s*>}) {
            $self->close_section(lc $1, \@blocks, \@openings, $file, $number);
            next;
        }
        my $directive = $self->directive($line, $file, $number) or next;
        push @{ $blocks[-1] }, $directive;
        next if !$directive->{block};
        push @blocks, $directive->{block};
        push @openings, $directive;
    }
    $self->problem('error', $file, $_->{line}, "the section <$_->{name}> is not closed") for @openings;
    return $blocks[0];
}

sub directive {
    my ($self, $line, $file, $number) = @_;
    my $is_section = $line =~ s/\A<\s*//;
    if ($is_section && $line !~ s/>\s*\z//) {
        $self->problem('error', $file, $number, 'the section has no ">"');
    }
    if ($line !~ /\A([A-Za-z_]\w*)(?:\s+|\z)(.*)\z/s) {
        $self->problem('error', $file, $number, 'cannot be understood: ' . substr $line, 0, 80);
        return;
    }
    my ($name, $rest) = (lc $1, $2);
    if ($is_section && !$SECTION{$name}) {
        $self->problem('warning', $file, $number, "the section <$name> is not known");
    }
    return { name => $name, args => [words($name, $rest)], raw => $rest, file => $file, line => $number,
        block => $is_section ? [] : undef };
}

# Closing what was not opened is a mistake; closing an outer section closes the inner,
# whose content then counts as the outer's.
sub close_section {
    my ($self, $name, $blocks, $openings, $file, $number) = @_;
    if (!grep { $_->{name} eq $name } @$openings) {
        $self->problem('error', $file, $number, "</$name> closes nothing");
        return;
    }
    while (my $opening = pop @$openings) {
        pop @$blocks;
        return if $opening->{name} eq $name;
        $self->problem('error', $file, $opening->{line}, "the section <$opening->{name}> is not closed");
        push @{ $blocks->[-1] }, splice @{ $opening->{block} };
    }
    return;
}

# Cuts the rest of a directive's line into words as the server does: quotes hold words
# together, and a backslash before the quote or another one is left out.
sub words {
    my ($name, $line) = @_;
    return rewrite_words($line) if $name =~ /\Arewrite(?:rule|cond)\z/;
    my @words;
    while ($line =~ /\G\s*(?:"((?:[^"\\]++|\\.)*+)"?|'((?:[^'\\]++|\\.)*+)'?|(\S+))/gc) {
        my ($word, $quote) = defined $1 ? ($1, '"') : defined $2 ? ($2, q{'}) : ($3, '');
        $word =~ s/\\([\\$quote])/$1/g if length $quote;
        $word =~ s/\\\\/\\/g           if !length $quote;
        push @words, $word;
    }
    return @words;
}

# The rewriting module cuts its lines itself, and leaves every backslash to its expressions.
sub rewrite_words {
    my ($line) = @_;
    my @words;
    while ($line =~ /\G\s*(?:"([^"]*)"?|'([^']*)'?|((?:\\\s|\S)+))/gc) {
        push @words, grep {defined} $1, $2, $3;
    }
    return @words;
}

1;
