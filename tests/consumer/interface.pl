#!/usr/bin/perl
# Compares the binary interface of an installed copy with a list that is kept:
#
#   interface.pl check LIST PREFIX LIBDIR WORK_DIR    fails on every difference
#   interface.pl add LIST PREFIX LIBDIR WORK_DIR      writes the list anew; fails if a line is lost
#   interface.pl replace LIST PREFIX LIBDIR WORK_DIR  writes the list anew
#
# The list has a line for each thing that programs rely on:
#
#   symbol LIBRARY NAME                           what the library exports
#   meta CLASS KIND NUMBER ACCESS TYPE SIGNATURE  signals, slots and invokables, in order
#   virtual CLASS INDEX NAME                      virtual operations, by place in the table
#   base CLASS BASE OFFSET, size CLASS BYTES      of objects that programs make or derive from
#   value ENUM NAME NUMBER                        enumerators
#
# What follows " # " is for the reader. Tables, sizes and values come from the debugging information
# of a unit that includes every installed header: unlike the libraries' own tables it also names
# pure virtual operations.
use strict;
use warnings;
$| = 1; # differences come before the verdict

my ($command, $list, $prefix, $libdir, $work) = @ARGV;
die "usage: interface.pl check|add|replace LIST PREFIX LIBDIR WORK_DIR\n"
    unless defined $work and $command =~ /^(check|add|replace)$/;
my $compiler = $ENV{CXX} || "g++";
my @libraries = ("kxcommon", "kxupdater", "kxguard");

sub lines_of {
    my @command = @_;
    open(my $pipe, "-|", @command) or die "interface: cannot run $command[0]: $!\n";
    chomp(my @lines = <$pipe>);
    close($pipe) or die "interface: '@command' failed\n";
    return @lines;
}

sub write_lines {
    my ($path, @lines) = @_;
    open(my $file, ">", $path) or die "interface: cannot write '$path': $!\n";
    print $file map { "$_\n" } @lines;
    close($file) or die "interface: cannot write '$path': $!\n";
}

sub demangled {
    my @names = @_;
    write_lines("$work/names", @names);
    my %texts;
    @texts{@names} = lines_of("sh", "-c", 'exec c++filt <"$1"', "sh", "$work/names");
    return \%texts;
}

# --- symbols
my (@symbols, @classes);
for my $library (@libraries) {
    my %names;
    for (lines_of("nm", "-D", "--defined-only", "$prefix/$libdir/lib$library.so")) {
        my ($type, $name) = /^[0-9a-f]* *([A-Za-z]) (\S+)$/ or die "interface: nm said '$_'\n";
        $names{$name} = $type;
    }
    my @sorted = sort keys %names;
    my $texts = demangled(@sorted);
    my %classes_with_code;
    for my $name (@sorted) {
        $classes_with_code{$1} = 1 if $names{$name} eq "T" and $texts->{$name} =~ /^(\S+)::~?\w+\(/;
    }
    for my $name (@sorted) {
        # A class of inline operations alone has its table in each program that needs one; whether
        # here too is the optimiser's choice.
        next if $texts->{$name} =~ /^(?:vtable|typeinfo(?: name)?) for (.*)$/
            and not $classes_with_code{$1};
        push @symbols, "symbol $library $name # $texts->{$name}";
        push @classes, $1 if $texts->{$name} =~ /^(.*)::staticMetaObject$/;
    }
}

# --- methods of meta-objects
chomp(my @headers = sort { $a cmp $b } glob("$prefix/include/{kxcommon,kxupdater,kxguard}/*.h"));
die "interface: no headers under '$prefix/include'\n" unless @headers;
write_lines("$work/headers.inc", map { "#include \"$_\"" } @headers);
write_lines("$work/classes.inc", map { "&$_\::staticMetaObject," } @classes);
$ENV{PKG_CONFIG_PATH} = "$prefix/$libdir/pkgconfig";
my @flags = split " ", join " ", lines_of("pkg-config", "--cflags", "--libs", "kxguard");
(my $source = __FILE__) =~ s/\.pl$/.cpp/;
lines_of($compiler, "-std=c++17", "-g", "-gdwarf-5", "-fno-eliminate-unused-debug-types",
    "-femit-class-debug-always", "-I$work", "-c", $source, "-o", "$work/interface.o", @flags);
lines_of($compiler, "$work/interface.o", "-o", "$work/interface", @flags,
    "-Wl,-rpath,$prefix/$libdir");
my @methods = lines_of("$work/interface");

# --- tables, bases, sizes, values
my (@layout, @virtuals, %types);
my @stack; # the entries from the unit down to the one that is being read

sub scope {
    return join "::", grep { defined } map { $_->{name} } @stack[1 .. $#stack - 1];
}

sub finish_entry {
    my $entry = $stack[-1];
    return unless @stack > 2 and ($stack[1]{name} // "") =~ /^(common|updater|guard)$/;
    my ($tag, $name, $scope) = (@$entry{"tag", "name"}, scope());
    if ($tag =~ /^(class|structure)_type$/ and defined $name) {
        return if $entry->{declaration} or $name =~ /[<]|^QPrivateSignal$/;
        push @layout, "size $scope\::$name $entry->{byte_size}";
    } elsif ($tag eq "inheritance") {
        push @layout, "base $scope $entry->{type} $entry->{data_member_location}";
    } elsif ($tag eq "enumerator") {
        my $value = $entry->{const_value};
        push @layout, "value $scope $name " . ($value =~ /^0x/ ? hex $value : $value);
    } elsif ($tag eq "subprogram" and defined $entry->{virtuality}) {
        # A destructor has two places, which the numbers of the others leave free.
        my $index = $entry->{vtable_elem_location} // "~";
        push @virtuals, [$scope, $index, $entry->{linkage_name}];
    }
}

# Classes and enumerations are finished when their own attributes are complete, that is when the
# next entry begins.
for (lines_of("readelf", "--debug-dump=info", "-W", "$work/interface.o")) {
    if (/^ *<(\d+)><[0-9a-f]+>: Abbrev Number: \d+(?: \(DW_TAG_(\w+)\))?/) {
        my ($depth, $tag) = ($1, $2);
        finish_entry() if @stack and not $stack[-1]{finished}++;
        $#stack = $depth - 1;
        # An entry without a tag ends a list of children.
        push @stack, { tag => $tag } if defined $tag;
    } elsif (@stack and /^ *<[0-9a-f]+> +DW_AT_(\w+) *: (?:\(\w+\) *)?(.*)$/) {
        my ($attribute, $value) = ($1, $2);
        $value =~ s/^\(offset: 0x[0-9a-f]+\): //;
        $value =~ s/^<0x[0-9a-f]+>, //;
        $value =~ s/^.*\(DW_OP_constu: (\d+)\)$/$1/;
        $value =~ s/\t.*//;
        $stack[-1]{$attribute} = $value;
    }
}
die "interface: found no virtual operations in the debugging information\n" unless @virtuals;

my $texts = demangled(map { $_->[2] } @virtuals);
my @found = (@symbols, @methods, (map { "virtual @$_ # $texts->{$_->[2]}" } @virtuals), @layout);

# --- comparison
sub without_texts {
    my %lines;
    for (@_) {
        my ($line) = /^(.*?)(?: ?#.*)?$/;
        $lines{$line} = $_ unless $line eq "";
    }
    return \%lines;
}

my @kept;
if (open(my $file, "<", $list)) {
    chomp(@kept = <$file>);
} elsif ($command ne "replace") {
    die "interface: cannot read '$list': $!\n";
}
my ($kept, $found) = (without_texts(@kept), without_texts(@found));
my @gone = map { $kept->{$_} } grep { not exists $found->{$_} } sort keys %$kept;
my @new = map { $found->{$_} } grep { not exists $kept->{$_} } sort keys %$found;
print map { "gone or moved: $_\n" } @gone;
print map { "new: $_\n" } @new;

if (@gone and $command ne "replace") {
    die "interface: programs built against an earlier version break. Put it back as it was; or, if\n"
        . "that is wanted, raise the major version and run: scripts/update-abi --break\n";
}
if ($command ne "check") {
    my $about = "# What programs rely on, on amd64; kept by scripts/update-abi. See interface.pl.";
    write_lines("$list.new", $about, @found);
    rename("$list.new", $list) or die "interface: cannot replace '$list': $!\n";
} elsif (@new) {
    die "interface: what is published once must stay. If it is meant to, run: scripts/update-abi\n";
}
print scalar(@found), " lines\n";
