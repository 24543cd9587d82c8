#!/usr/bin/env bash
# The entry of examples/autostart, as a desktop reads and starts it: desktop.sh BIN ENTRY
set -euo pipefail
bin=$1 entry=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    printf 'desktop: %s\n' "$@" >&2
    exit 1
}

said=$(desktop-file-validate "$entry" 2>&1) && [ -z "$said" ] || fail "the entry is not valid:" "$said"

# The program tells where it runs; it stands in the backup, as a kill in the swap leaves it.
data=$work/.local/share/demo-app
mkdir -p "$data/current.old/bin"
mkfifo "$work/told"
printf '#!/bin/sh\necho "$0" >"$HOME/told"\n' >"$data/current.old/bin/demo-app"
chmod +x "$data/current.old/bin/demo-app"
env HOME="$work" PATH="$bin:$PATH" gio launch "$entry" >"$work/log" 2>&1 &
told=$(timeout 60 cat "$work/told") || fail "the program was not started:" "$(cat "$work/log")"
wait $! || fail "gio launch failed:" "$(cat "$work/log")"
[ "$told" = "$data/current/bin/demo-app" ] || fail "another program was started: $told"
[ ! -e "$data/current.old" ] || fail "the backup is still there"
