#!/bin/sh
# systemdunits.sh KXUPDATE DIRECTORY: systemd finds nothing to say about the example units.
set -eu
kxupdate=$1
units=$2

if ! command -v systemd-analyze >/dev/null; then
    echo "systemd-analyze is not installed"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The program where it has been built: it is not installed in /usr/bin.
for unit in "$units"/*.service "$units"/*.timer; do
    sed "s|/usr/bin/kxupdate|$kxupdate|" "$unit" >"$work/${unit##*/}"
done
if grep '^ExecStart=/usr/bin' "$work"/*.service; then
    exit 1
fi

status=0
output=$(systemd-analyze verify --man=no "$work"/*.service "$work"/*.timer 2>&1) || status=$?
if [ "$status" -ne 0 ] || [ -n "$output" ]; then
    printf 'status %s\n%s\n' "$status" "$output"
    exit 1
fi
