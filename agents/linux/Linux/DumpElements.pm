# Elements that several parts of dump.xml have, from records as the inventory has them.
package Linux::DumpElements;

use strict;
use warnings;
use Agent::Xml qw(element text);
use Exporter 'import';
use POSIX ();

our @EXPORT_OK = qw(contents cron_job each_as time_text unit with_yes_or_no words yes_or_no zones_and_keys);

# A time in seconds as the document has it.
sub time_text { return POSIX::strftime('%Y-%m-%dT%H:%M:%SZ', gmtime $_[0]) }

sub yes_or_no { return $_[0] ? 'yes' : 'no' }

# The words as one attribute; none without any.
sub words { return @_ ? join ' ', @_ : undef }

# The hash with some of its values, where they are known, as the document has them.
sub with_yes_or_no {
    my ($values, @names) = @_;
    return { %$values, map { $_ => yes_or_no($values->{$_}) } grep { defined $values->{$_} } @names };
}

# One element for each value, or for each hash with these attributes.
sub each_as {
    my ($name, $attributes, @values) = @_;
    return map { element($name, [], text($_)) } @values if !@$attributes;
    return map { my $value = $_; element($name, [map { $_ => $value->{$_} } @$attributes]) } @values;
}

# The archives of an object.
sub contents {
    my ($object) = @_;
    return map {
        element('content', [kind => $_->{kind}, attributes_of($_)],
            map { increment($_) } @{ $_->{increments} || [] })
    } @{ $object->{content} || [] };
}

sub increment {
    my ($increment) = @_;
    my $gone = $increment->{gone};
    return element('increment', [attributes_of($increment)],
        $gone ? element('gone', [attributes_of($gone)]) : ());
}

sub attributes_of {
    my ($archive) = @_;
    return (file => $archive->{name}, size => $archive->{size}, md5sum => $archive->{md5},
        unpacked => $archive->{unpacked});
}

sub cron_job {
    my ($job) = @_;
    return element('cron', [map { $_ => $job->{$_} } qw(when file)], text($job->{command}));
}

sub unit {
    my ($unit) = @_;
    return element('unit', [
        (map { $_ => $unit->{$_} } qw(name file user)),
        enabled => yes_or_no($unit->{enabled}), 'drop-in' => yes_or_no($unit->{drop_in}),
        (map { $_ => $unit->{$_} } qw(description program directory)),
    ], each_as('when', [], @{ $unit->{when} }), each_as('needs', [], @{ $unit->{needs} }));
}

sub zones_and_keys {
    my ($zones, $keys) = @_;
    return (each_as('zone', [qw(name type file)], @$zones),
        each_as('mail-key', [qw(program domain selector file)], @$keys));
}

1;
