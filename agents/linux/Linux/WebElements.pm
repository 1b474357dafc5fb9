# The configuration of web servers in the document of a dump: directives with their
# arguments, nested as they are in force, with all inclusions in place.
package Linux::WebElements;

use strict;
use warnings;
use Agent::Process qw(breathe);
use Agent::Xml qw(element exact_element);
use Linux::ConfigReader;

# What a server's configuration says outside of the blocks of its sites.
sub configuration {
    my ($configuration) = @_;
    my %id_of = map { $_->{directive} => $_->{id} } $configuration->{definitions}->all;
    my $writer = { id_of => \%id_of, left_out => $configuration->{of_sites} };
    return element('web-configuration', [
        (map { $_ => $configuration->{$_} } qw(name server file prefix)), uses => ids($configuration->{uses}),
    ], (map { element('module', [name => $_->{name}, file => $_->{file}]) } @{ $configuration->{modules} }),
        map { directive($writer, $_, '') } told($writer, $configuration->{directives}));
}

# The blocks of a site. What the main server of Apache serves by itself has none.
sub blocks {
    my ($site) = @_;
    breathe();
    return map {
        my $configuration = $_->{configuration};
        my $writer = { id_of => {}, left_out => $configuration->{of_sites} };
        element('block', [configuration => $configuration->{name}, uses => ids($_->{uses})],
            $_->{directive} ? directive($writer, $_->{directive}, '') : ())
    } @{ $site->{blocks} };
}

sub ids {
    my ($definitions) = @_;
    return @$definitions ? join ' ', map { $_->{id} } @$definitions : undef;
}

# Those of a list of directives that have an element here: blocks of sites have theirs.
sub told {
    my ($writer, $directives) = @_;
    return grep { $_->{name} ne $Linux::ConfigReader::INCLUDED && !$writer->{left_out}{$_} } @$directives;
}

# $above is the file of what is around.
sub directive {
    my ($writer, $directive, $above) = @_;
    my ($file, $raw, $block) = @$directive{qw(file raw block)};
    my @args = @{ $directive->{args} };
    return element('directive', [
        name => $directive->{name}, id => $writer->{id_of}{$directive},
        file => $file eq $above ? undef : $file, line => $directive->{line}, block => $block ? 'yes' : undef,
    ], (map { exact_element('arg', [], $_) } @args),
        (defined $raw && $raw ne join(' ', @args) ? exact_element('raw', [], $raw) : ()),
        (defined $directive->{text} ? exact_element('text', [], $directive->{text}) : ()),
        (map { directive($writer, $_, $file) } told($writer, $block || [])));
}

1;
