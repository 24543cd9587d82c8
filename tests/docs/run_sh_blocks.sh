#!/usr/bin/env bash
# Runs the shell code of the documents, so that what people paste works.
#
#   run_sh_blocks.sh BIN DOCUMENT...
#
# The blocks marked "sh" of one document are one script: they run in order in an empty directory,
# with the tools of BIN on the path, and every command has to succeed. Port 8080 becomes a free one.
# A block marked "sh not-run: REASON" is left out. Shell code that is not marked at all is an error:
# nobody would notice when it goes stale.
set -euo pipefail
bin=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ran=0

fail() {
    echo "$*" >&2
    exit 1
}

for document in "$@"; do
    name=$(basename "$document")
    unmarked=$(awk '/^```/ { inside = !inside; shell = inside && /^```sh/; next }
        !shell && /^ *(sudo |\$ )?(kxpublish|kxupdate|apt|apt-get|systemctl|rclone|rsync|curl|cmake|ctest) [a-z-]/ && (inside || /^    /) {
            print FILENAME ":" FNR ": " $0 }
        ' "$document")
    [ -z "$unmarked" ] || fail "shell code outside of a block marked 'sh':"$'\n'"$unmarked"
    unreasoned=$(grep -nE '^```(sh not-run:? *$|bash|shell|console|sh +[^n ])' "$document" || true)
    [ -z "$unreasoned" ] || fail "$name: neither 'sh' nor 'sh not-run: REASON': $unreasoned"

    script=$work/$name.sh
    awk '/^```sh$/ { inside = 1; printf "# line %d\n", FNR; next }
        /^```$/ { inside = 0 }
        inside { print }' "$document" >"$script"
    [ -s "$script" ] || continue
    port=$(perl -MIO::Socket::INET -e \
        'print IO::Socket::INET->new(LocalAddr => "127.0.0.1", Listen => 1)->sockport')
    sed -i "s/\b8080\b/$port/g" "$script"
    mkdir "$work/$name"
    echo "== $name: $(grep -c '^# line' "$script") blocks"
    # A session of its own: what the document leaves running ends with it.
    status=0
    (cd "$work/$name" && exec env HOME="$work/$name" PATH="$bin:$PATH" XDG_RUNTIME_DIR= \
        setsid --wait bash -c 'trap "trap : TERM; kill -- -$$" EXIT
            set -euo pipefail; set -x; . "$1"' bash "$script") \
        </dev/null >"$work/log" 2>&1 || status=$?
    if [ $status -ne 0 ]; then
        tail -n 60 "$work/log" >&2
        fail "$name: exit status $status; the last line above that begins with '+' failed"
    fi
    ran=$((ran + 1))
done
[ $ran -gt 0 ] || fail "no document has a block marked 'sh'"
echo "$ran documents ran."
