#!/usr/bin/env bash
# Makes the API reference, and looks for what doxygen leaves out without a warning: whatever lies in a
# namespace or file that has no comment. api_reference.sh DOXYGEN DOXYFILE HTML_DIR SOURCE_DIR
set -euo pipefail
doxygen=$1 doxyfile=$2 html=$3 source=$4

fail() {
    printf 'api_reference: %s\n' "$@" >&2
    exit 1
}

rm -rf "$html"
mkdir -p "$html"
cd "$source"
"$doxygen" "$doxyfile" || fail "doxygen warned"

find "$html" \( -name annotated.html -o -name 'namespacemembers*.html' -o -name 'globals*.html' \) \
    -exec cat {} + >"$html/../members"
published=$(cat src/libs/*/include/*/*.h | grep -oE 'KX(COMMON|UPDATER|GUARD)_EXPORT [^;{(:]*|define KX_LOG[A-Z_]*' |
    sed -E 's/ *$//; s/.*[ *&]([A-Za-z_0-9]+)$/\1/' | sort -u)
[ "$(wc -l <<<"$published")" -ge 25 ] || fail "found too few published names:" "$published"
for name in $published ErrorCode FileList; do
    grep -qw "$name" "$html/../members" || fail "$name is not in the reference"
done
! grep -rl "$source" "$html" || fail "these pages name a directory of this machine"
echo "$(wc -l <<<"$published") published names on $(find "$html" -name '*.html' | wc -l) pages"
