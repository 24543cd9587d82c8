#!/usr/bin/env bash
# One step of the consumer tests: consumer.sh STEP BUILD_DIR WORK_DIR LIBDIR
#
#   install     installs the build under a prefix, and moves the prefix
#   cmake       builds and runs the example hosts for CMake's find_package
#   pkgconfig   builds and runs them by pkg-config and the bare compiler
#   qmake       builds and runs the example host for qmake
#   symbols     compares what the libraries export with what the installed headers publish
#   interface   compares the binary interface with interface.txt
set -euo pipefail
step=$1 build=$2 work=$3 libdir=$4
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
examples=$here/../../examples
prefix=$work/moved
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH

fail() {
    printf 'consumer: %s\n' "$@" >&2
    exit 1
}

install_and_move() {
    rm -rf "$work"
    "$CMAKE_COMMAND" --install "$build" --prefix "$work/first place" >/dev/null
    mv "$work/first place" "$prefix"
    # A path of the build or of the first place would make the package work on this machine only.
    if grep -rIlE "$build|$work/first" "$prefix"; then
        fail "these installed files name a directory of the build machine"
    fi
    if readelf -d "$prefix/$libdir"/*.so | grep -E 'R(UN)?PATH' | grep -vF '[$ORIGIN]'; then
        fail "the run path of an installed library is not \$ORIGIN alone"
    fi
    for library in kxcommon kxupdater kxguard; do
        readelf -d "$prefix/$libdir/lib$library.so" | grep -qE "SONAME.*\[lib$library\.so\.[0-9]+\]" ||
            fail "lib$library.so has no versioned soname"
    done
}

# run HOST: it is ready when it has said so and ended.
run() {
    local output
    output=$(timeout 60 "$1") || fail "$1 ended with status $?:" "$output"
    [[ $output =~ ^"Builds for windows x"(64|86)$'\nThe updater waits for commands.'$ ]] ||
        fail "$1 said:" "$output"
}

# launch LAUNCHER: it starts a program whose directory an interrupted install has moved aside.
launch() {
    local output demo=$1.demo
    rm -rf "$demo" "$demo.old" && mkdir "$demo.old"
    printf '#!/bin/sh\necho "Started with $1."\n' >"$demo.old/program"
    chmod +x "$demo.old/program"
    output=$(timeout 60 "$1" "$demo" program something) || fail "$1 ended with status $?:" "$output"
    [ "$output" = "Started with something." ] || fail "$1 said:" "$output"
}

with_cmake() {
    rm -rf "$work/cmake"
    # A host needs what the libraries need at run time only, and not what they are built with.
    ! grep -lE 'sodium|PkgConfig' "$prefix/$libdir"/cmake/kxupdater/*.cmake ||
        fail "hosts would need libsodium's development files, see above"
    "$CMAKE_COMMAND" -G Ninja -S "$examples/consumer-cmake" -B "$work/cmake/consumer" \
        -DCMAKE_PREFIX_PATH="$prefix"
    "$CMAKE_COMMAND" --build "$work/cmake/consumer"
    run "$work/cmake/consumer/consumer"
    "$CMAKE_COMMAND" -G Ninja -S "$examples/launcher" -B "$work/cmake/launcher" \
        -DCMAKE_PREFIX_PATH="$prefix"
    "$CMAKE_COMMAND" --build "$work/cmake/launcher"
    launch "$work/cmake/launcher/launcher"
}

with_pkgconfig() {
    export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
    pkg-config --exists --print-errors "kxupdater >= 0.1"
    read -ra flags <<<"$(pkg-config --cflags --libs kxupdater)"
    "$CXX" -std=c++17 "$examples/consumer-cmake/main.cpp" -o "$work/consumer" "${flags[@]}" \
        -Wl,-rpath,"$(pkg-config --variable=libdir kxupdater)"
    run "$work/consumer"
    read -ra flags <<<"$(pkg-config --cflags --libs "kxguard >= 0.1")"
    "$CXX" -std=c++17 "$examples"/launcher/{main,start_unix}.cpp -o "$work/launcher" "${flags[@]}" \
        -Wl,-rpath,"$(pkg-config --variable=libdir kxguard)"
    launch "$work/launcher"
}

with_qmake() {
    export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
    rm -rf "$work/qmake" && mkdir "$work/qmake"
    (cd "$work/qmake" && qmake6 QMAKE_CXX="$CXX" "$examples/consumer-qmake/consumer.pro" && make)
    run "$work/qmake/consumer"
}

symbols() {
    local published exported line name known
    # The names that the headers mark for export: classes, and functions before their parenthesis.
    published=$(find "$prefix/include" -name '*.h' ! -name '*_export.h' -exec cat {} + | tr '\n' ' ' |
        grep -oE 'KX(COMMON|UPDATER|GUARD)_EXPORT [^;{(:]*' |
        sed -E 's/ *$//; s/.*[ *&]([A-Za-z_0-9]+|operator.*)$/\1/' | sort -u)
    [ "$(wc -l <<<"$published")" -ge 15 ] || fail "found too few published names:" "$published"
    exported=$(nm -D --defined-only -C "$prefix/$libdir"/libkx{common,updater,guard}.so |
        grep -E '^[0-9a-f]+ ' | cut -d' ' -f3- |
        sed -E 's/^(non-virtual thunk to|typeinfo for|typeinfo name for|vtable for) //' | sort -u)

    while read -r line; do
        known=
        for name in $published; do
            if [[ $line =~ ^(common|common::http|common::logger|updater|guard)::$name(::|\(|\[|$) ]]; then
                known=yes
                break
            fi
        done
        [ -n "$known" ] || fail "exported, but not published by a header: $line"
    done <<<"$exported"
    for name in $published; do
        [ "$name" != IMessage ] || continue # has inline members only
        grep -qE "::$name(::|\(|\[|$)" <<<"$exported" ||
            fail "published by a header, but not exported: $name"
    done
    echo "$(wc -l <<<"$exported") symbols of $(wc -l <<<"$published") published names"
}

interface() {
    mkdir -p "$work/interface"
    perl "$here/interface.pl" check "$here/interface.txt" "$prefix" "$libdir" "$work/interface"
}

case $step in
install) install_and_move ;;
cmake) with_cmake ;;
pkgconfig) with_pkgconfig ;;
qmake) with_qmake ;;
symbols) symbols ;;
interface) interface ;;
*) fail "unknown step '$step'" ;;
esac
