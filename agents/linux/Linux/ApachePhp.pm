# The settings of PHP that rules of Apache make for a document root (php_value and the like).
package Linux::ApachePhp;

use strict;
use warnings;
use Exporter 'import';
use Linux::Tree;

our @EXPORT_OK = qw(set_php);

# Sets module_settings and module_admin of a record: the settings of PHP that rules make for its
# document root; those of sections count more, and those of the administrator most.
sub set_php {
    my ($block, @rules) = @_;
    my @fit = grep { all_cover($block->{root}, @{ $_->{sections} }) } @rules;
    my ($settings, $admin) = @$block{qw(module_settings module_admin)} = ({}, {});
    for my $rule ((grep { !@{ $_->{sections} } } @fit), (grep { @{ $_->{sections} } } @fit)) {
        my $name = $rule->{name};
        next if $admin->{$name} && !$rule->{admin};
        $settings->{$name} = $rule->{value};
        $admin->{$name} = 1 if $rule->{admin};
    }
    return;
}

sub all_cover {
    my ($root, @sections) = @_;
    return !grep { !covers($_, $root) } @sections;
}

# True if a section holds for all scripts of a document root.
sub covers {
    my ($section, $root) = @_;
    my ($name, @args) = ($section->{name}, @{ $section->{args} });
    my $is_expression = $name =~ s/match\z// || (@args && $args[0] eq '~' && shift @args) ? 1 : 0;
    my $word = $args[0];
    return 0 if $name =~ /\A(?:if|elseif|else|limit|limitexcept)\z/ || !defined $word;
    return is_like('/index.php', $is_expression ? $word : "$word*", $is_expression) if $name eq 'location';
    return is_like('index.php', $word, $is_expression) if $name eq 'files';
    return 1 if $name ne 'directory';
    return 0 if !defined $root;
    return is_like("$root/", $word, 1) if $is_expression;
    $word =~ s{(?<=.)/\z}{};
    return 1 if $word eq '/';
    for (my $path = $root; length $path; $path =~ s{/[^/]*\z}{}) {
        return 1 if is_like($path, $word, 0);
    }
    return 0;
}

# Whether a text fits a pattern of the shell, part by part of its path, or holds what an
# expression means; one that perl does not know fits nothing.
sub is_like {
    my ($text, $pattern, $is_expression) = @_;
    if ($is_expression) {
        no warnings 'regexp';
        return eval { $text =~ /$pattern/ } ? 1 : 0;
    }
    my @texts = split m{/}, $text, -1;
    my @patterns = split m{/}, $pattern, -1;
    return @texts == @patterns && !grep { $texts[$_] !~ Linux::Tree::pattern($patterns[$_]) } 0 .. $#texts;
}

1;
