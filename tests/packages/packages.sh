#!/usr/bin/env bash
# Makes Debian packages of a build and checks them: packages.sh BUILD_DIR WORK_DIR
#
# The packages of a debug build differ from those of scripts/package in what the compiler made of the
# sources; files, places, dependencies and everything that cpack does are the same.
set -euo pipefail
build=$1 work=$2
examples=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../examples" && pwd)
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
names=(libkxupdater0 libkxguard0 libkxupdater-dev kxupdater-tools kxupdater-doc)

fail() {
    printf 'packages: %s\n' "$@" >&2
    exit 1
}
field() { dpkg-deb -f "$(echo "$work/$1"_*.deb)" "$2"; }
contents() { dpkg-deb -c "$(echo "$work/$1"_*.deb)" | awk '{ print $1, $6 }'; }

# depends PACKAGE PATTERN...: its Depends are these and no others.
depends() {
    local package=$1 found pattern missing
    mapfile -t found < <(field "$package" Depends | sed 's/, /\n/g')
    shift
    [ ${#found[@]} -eq $# ] || fail "$package depends on ${#found[@]} packages, not $#:" "${found[@]}"
    for pattern in "$@"; do
        missing=yes
        for dependency in "${found[@]}"; do
            # shellcheck disable=SC2053 # it is a pattern
            [[ $dependency != $pattern ]] || missing=
        done
        [ -z "$missing" ] || fail "$package does not depend on $pattern:" "${found[@]}"
    done
}

rm -rf "$work"
mkdir -p "$work"
(umask 077 && "$CPACK" -G DEB --config "$build/CPackConfig.cmake" -B "$work") >"$work/cpack.log" 2>&1 ||
    fail "cpack failed:" "$(cat "$work/cpack.log")"
rm -rf "$work/_CPack_Packages"
for name in "${names[@]}"; do
    ls "$work/$name"_*.deb >/dev/null || fail "there is no package $name"
done
[ "$(ls "$work"/*.deb | wc -l)" -eq ${#names[@]} ] || fail "more packages than expected:" "$work"/*.deb

lintian --allow-root --fail-on error "$work"/*.deb || fail "lintian found errors"

version=$(field libkxupdater0 Version)
depends libkxupdater0 "libc6 *" "libgcc-s1 *" "libstdc++6 *" "libqt6core6 (>= 6.4*)" \
    "libqt6network6 *" "libqt6statemachine6 *" "libqt6xml6 *"
# Only who asks for signatures gets libsodium, and a host's compiler needs nothing of it.
depends libkxguard0 "libkxupdater0 (= $version)" "libc6 *" "libgcc-s1 *" "libstdc++6 *" \
    "libqt6core6 (>= 6.4*)" "libqt6xml6 *" "libsodium23 *"
depends libkxupdater-dev "libkxupdater0 (= $version)" "libkxguard0 (= $version)" "qt6-base-dev (>= 6.4)"
depends kxupdater-tools "libkxupdater0 (= $version)" "libkxguard0 (= $version)" "libc6 *" "libgcc-s1 *" \
    "libstdc++6 *" "libqt6core6 (>= 6.4*)" "libqt6network6 *" "libsodium23 *"
[ -z "$(field kxupdater-doc Depends)" ] || fail "kxupdater-doc depends on $(field kxupdater-doc Depends)"
[ "$(field kxupdater-doc Architecture)" = all ] || fail "kxupdater-doc is not for all architectures"

# shlibs PACKAGE LIBRARY...: these it has, and tells the linker and other packages.
shlibs() {
    local package=$1
    shift
    [ "$(dpkg-deb -I "$work/$package"_*.deb triggers)" = "activate-noawait ldconfig" ] ||
        fail "$package does not trigger ldconfig"
    dpkg-deb -I "$work/$package"_*.deb shlibs >"$work/shlibs"
    [ "$(wc -l <"$work/shlibs")" -eq $# ] || fail "$package has other libraries:" "$(cat "$work/shlibs")"
    for library in "$@"; do
        grep -q "^lib$library 0 $package (>= $version)$" "$work/shlibs" ||
            fail "shlibs does not name lib$library:" "$(cat "$work/shlibs")"
    done
}
shlibs libkxupdater0 kxcommon kxupdater
shlibs libkxguard0 kxguard

for name in "${names[@]}"; do
    contents "$name" >"$work/contents"
    ! grep -vE '^(-rw-r--r--|-rwxr-xr-x|drwxr-xr-x|lrwxrwxrwx) \./' "$work/contents" ||
        fail "$name has entries with unusual permissions, see above"
    for file in copyright changelog.gz changelog.Debian.gz; do
        grep -q " ./usr/share/doc/$name/$file$" "$work/contents" || fail "$name has no $file"
    done
done
contents kxupdater-tools >"$work/contents"
for tool in kxpublish kxupdate; do
    for file in man/man1/$tool.1.gz bash-completion/completions/$tool zsh/vendor-completions/_$tool; do
        grep -q "/usr/share/$file$" "$work/contents" || fail "kxupdater-tools has no $file"
    done
done
documents=(docs/integration.md docs/states.svg README.md examples/consumer-cmake/CMakeLists.txt examples/launcher/CMakeLists.txt)
[ ! -d "$build/docs/api/html" ] || documents+=(api/html/index.html)
contents kxupdater-doc >"$work/contents"
for file in "${documents[@]}"; do
    grep -q "/usr/share/doc/kxupdater/$file$" "$work/contents" || fail "kxupdater-doc has no $file"
done

root=$work/root
for name in "${names[@]}"; do
    dpkg-deb -x "$work/$name"_*.deb "$root"
done
libdir=$(dirname "$(ls "$root"/usr/lib/*/libkxupdater.so)")
for file in "$root"/usr/bin/* "$libdir"/*.so.0; do
    ! readelf -d "$file" | grep -E 'R(UN)?PATH' || fail "$file has a run path"
    ! readelf -S "$file" | grep -F .symtab || fail "$file is not stripped"
done
for host in consumer-cmake launcher; do
    "$CMAKE_COMMAND" -G Ninja -S "$examples/$host" -B "$work/$host" \
        -DCMAKE_PREFIX_PATH="$root/usr" >"$work/host.log" 2>&1 &&
        "$CMAKE_COMMAND" --build "$work/$host" >>"$work/host.log" 2>&1 ||
        fail "the example $host was not built:" "$(cat "$work/host.log")"
done
export LD_LIBRARY_PATH=$libdir
output=$(timeout 60 "$work/consumer-cmake/consumer" 2>&1) || fail "the example host failed:" "$output"
[[ $output == *"waits for commands"* ]] || fail "the example host said:" "$output"
mkdir "$work/demo.old"
printf '#!/bin/sh\n' >"$work/demo.old/program" && chmod +x "$work/demo.old/program"
output=$(timeout 60 "$work/launcher/launcher" "$work/demo" program 2>&1) ||
    fail "the example launcher failed:" "$output"
for tool in kxupdate kxpublish; do
    "$root/usr/bin/$tool" --version >/dev/null || fail "$tool --version failed"
done
