#!/bin/sh
# systemdunits.sh KXUPDATE DIRECTORY: systemd finds nothing to say about the example units, and that for
# recovery does what it is for.
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

fail() {
    printf '%s\n' "$@"
    exit 1
}

# Enabled, it comes with the boot and with each start of the application's service.
install -D -m 644 "$units/kxupdate-recover@.service" "$work/root/etc/systemd/system/kxupdate-recover@.service"
systemctl --quiet --root="$work/root" enable kxupdate-recover@hello.service 2>"$work/log" ||
    fail "systemctl enable failed:" "$(cat "$work/log")"
for wanting in multi-user.target hello.service; do
    [ -L "$work/root/etc/systemd/system/$wanting.wants/kxupdate-recover@hello.service" ] ||
        fail "$wanting does not want kxupdate-recover@hello.service"
done

# Its command, for an application that a kill has left moved aside.
mkdir "$work/conf" "$work/app.old"
printf 'app = %s\n' "$work/app" >"$work/conf/hello.conf"
printf 'program' >"$work/app.old/hello"
command=$(sed -n "s|^ExecStart=||p" "$work/kxupdate-recover@.service" |
    sed "s|/etc/kxupdate/%i.conf|$work/conf/hello.conf|")
sh -c "$command" >"$work/log" 2>&1 || fail "'$command' failed:" "$(cat "$work/log")"
[ "$(cat "$work/app/hello")" = program ] || fail "'$command' did not bring the application back"
[ ! -e "$work/app.old" ] || fail "'$command' left the backup"
