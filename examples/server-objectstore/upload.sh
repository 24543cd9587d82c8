#!/usr/bin/env bash
# Brings a server tree of kxpublish to an object store, or to anything else that rclone writes to.
#
#   upload.sh [--prune] SERVERTREE REMOTE:PATH
#
#   SERVERTREE    directory that kxpublish wrote, with a version on offer
#   REMOTE:PATH   where the base URL leads, as rclone calls it, for example s3:updates.example.org
#   --prune       deletes at the end what SERVERTREE has lost: versions that are no longer published
#
# Clients see the new version when all of it is there: version.xml is copied last. A run that was cut
# off is simply started again. Options of rclone come through its environment, RCLONE_BWLIMIT=10M.
# Exit status 0 when the store offers what SERVERTREE offered at the start, 2 for a wrong call. After
# any other, clients are offered what they were offered before, unless the line "offers version" came.
set -euo pipefail

usage() { sed -n '2,13s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"; }
die() {
    printf 'upload: %s\n' "$1" >&2
    exit "${2:-1}"
}
prune=
case "${1-}" in
-h | --help) usage && exit 0 ;;
--prune) prune=yes && shift ;;
esac
if [ $# -ne 2 ] || [ "${1#-}" != "$1" ]; then
    usage >&2
    exit 2
fi
tree=${1%/} store=${2%/}
command -v rclone >/dev/null || die "rclone is not installed: apt install rclone"
[ -f "$tree/packages/version.xml" ] || die "no version is on offer in '$tree', see 'kxpublish promote'"

# What is published or promoted while this runs waits for the next run.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -p "$tree/packages/version.xml" "$work/version.xml"
version=$(sed -n 's|.*<version>\(.*\)</version>.*|\1|p' "$work/version.xml")
[ -n "$version" ] || die "'$tree/packages/version.xml' names no version"
compgen -G "$tree/packages/*-v$version/*/*/index.xml" >/dev/null ||
    die "version $version is on offer in '$tree', but not published there"
# Rules of rclone, of which the first that fits counts. Hidden names are the publisher's lock and builds
# in the making.
printf '%s\n' '- .*' '- .*/**' | tee "$work/files" "$work/others" "$work/versions" >"$work/beside"
for directory in "$tree"/packages/*-v*/; do
    name=$(basename "$directory")
    echo "+ /$name/*/*/files/**" >>"$work/files"
    printf '%s\n' "- /$name/*/*/files/**" "+ /$name/**" >>"$work/others"
    echo "+ /$name/**" >>"$work/versions"
done
printf '%s\n' '- /version.xml' '+ /*' >>"$work/beside"
printf '%s\n' '- **' | tee -a "$work/files" "$work/others" "$work/versions" >>"$work/beside"

# By content: times say nothing here, and size alone would keep a file that was cut.
copy=(rclone copy --checksum --fast-list "$tree/packages" "$store/packages")
forever="Cache-Control: public, max-age=31536000, immutable"

# 1. Files, which nobody asks for yet.
"${copy[@]}" --filter-from "$work/files" \
    --header-upload "$forever, no-transform" --header-upload "Content-Type: application/octet-stream"
# 2. Manifests and what else belongs to a version.
"${copy[@]}" --filter-from "$work/others" --header-upload "$forever"
# 3. All of it is there, and as it is here.
rclone check --one-way --checksum --fast-list "$tree/packages" "$store/packages" \
    --filter-from "$work/versions"
# 4. What lies beside version.xml, and then version.xml itself: now clients are offered the version.
"${copy[@]}" --filter-from "$work/beside" --header-upload "Cache-Control: no-cache"
rclone copyto --ignore-times "$work/version.xml" "$store/packages/version.xml" \
    --header-upload "Cache-Control: no-cache" --header-upload "Content-Type: application/xml"
rclone cat "$store/packages/version.xml" | cmp - "$work/version.xml" ||
    die "'$store/packages/version.xml' is not what was copied"
echo "upload: $store offers version $version"

# 5. Last of all the old ones, which clients may have been fetching until now. A tree that has
# vanished meanwhile, with its disk, has not lost its versions.
[ -n "$prune" ] || exit 0
[ -f "$tree/packages/version.xml" ] || die "'$tree' is gone, nothing is deleted"
rclone lsf --dirs-only "$store/packages" >"$work/stored"
while IFS= read -r name; do
    name=${name%/}
    case $name in
    .* | *-v"$version") continue ;;
    *-v*) [ ! -e "$tree/packages/$name" ] || continue ;;
    *) continue ;;
    esac
    rclone purge "$store/packages/$name"
    echo "upload: deleted $name"
done <"$work/stored"
