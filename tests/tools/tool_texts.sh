#!/usr/bin/env bash
# What a tool says of itself: the man page is sound, and knows every command and option that --help
# shows; so do the completions, which are loaded into the real shells.
#
#   tool_texts.sh PROGRAM TEXTS
set -euo pipefail
program=$1
name=$(basename "$program")
man=$2/$name.1
bash_script=$2/$name.bash
zsh_script=$2/_$name

fail() {
    echo "$name: $*" >&2
    exit 1
}

warnings=$(groff -man -Tutf8 -ww "$man" 2>&1 >/dev/null)
[ -z "$warnings" ] || fail "warnings in the man page: $warnings"
page=$(groff -man -Tascii -P-c -rLL=400n "$man" | col -b)

zsh -n "$zsh_script" || fail "zsh cannot read its completions"
# The completion system finds the script by its first line.
zsh -fc "fpath=('$(dirname "$zsh_script")' \$fpath); autoload -U compinit; compinit -D -u
    [[ \${_comps[$name]} == _$name ]]" || fail "zsh does not find the completions"

source "$bash_script"
# What bash offers for the words given, the last of which is unfinished.
offers() {
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    "_$name" 2>/dev/null
    printf '%s\n' "${COMPREPLY[@]}"
}

commands=$("$program" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z]\+\) .*/\1/p')
[ -n "$commands" ] || fail "no commands in --help"
offered=$(offers "$name" '')
count=0
for command in $commands; do
    grep -qx "$command" <<<"$offered" || fail "bash does not offer $command"
    grep -q "'$command:" "$zsh_script" || fail "zsh does not offer $command"
    grep -q "$name $command \[options\]" <<<"$page" || fail "the man page lacks $command"
    section=$(sed -n "/^        $command)/,/^            ;;/p" "$zsh_script")
    offered_options=$(offers "$name" "$command" '--')
    for option in $("$program" "$command" --help | sed -n 's/^  \(-., \)\?\(--[a-z-]\+\).*/\2/p'); do
        grep -qx -e "$option" <<<"$offered_options" || fail "bash: $command lacks $option"
        grep -q -e "[*']$option[=[]" <<<"$section" || fail "zsh: $command lacks $option"
        grep -q -e "$option" <<<"$page" || fail "the man page lacks $option"
        count=$((count + 1))
    done
done
[ $count -gt 10 ] || fail "only $count options were compared"

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
mkdir "$directory/some dir"
case $name in
kxpublish) words=(add --out) ;;
kxupdate) words=(update --app) ;;
esac
[ "$(offers "$name" "${words[@]}" "$directory/so")" = "$directory/some dir" ] ||
    fail "bash does not complete a directory"
echo "$name: $count options agree"
