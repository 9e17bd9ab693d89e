#!/bin/bash
# The installed completion script offers a folder's keys as the untrusted
# text they are: no key runs a command, each comes back quoted for the shell.
# Usage: CompletionTest.sh PREFIX
work=$(mktemp -d "${TMPDIR:-/tmp}/completion.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" && mkdir store || exit 1
for key in '$(touch INJECTED)x' '`touch INJECTED`y' 'with space' 'other' 'back\slash'; do
    printf x >"store/$key"
done
PATH=$1/bin:$PATH
source "$1/share/bash-completion/completions/loginstorage" || exit 1

status=0
# Completes "loginstorage rm store CURRENT" and compares the replies, sorted.
expect() {
    local cur=$1 got want
    shift
    COMP_WORDS=(loginstorage rm store "$cur")
    COMP_CWORD=3
    _loginstorage
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sort)
    want=$(printf '%s\n' "$@" | sort)
    if [[ $got != "$want" ]]; then
        printf 'completing %q: got\n%s\nwanted\n%s\n' "$cur" "$got" "$want"
        status=1
    fi
}
expect '' '\$\(touch\ INJECTED\)x' '\`touch\ INJECTED\`y' 'other' 'with\ space'
expect 'w' 'with\ space'
expect '$(' '\$\(touch\ INJECTED\)x'
expect '\$\(' '\$\(touch\ INJECTED\)x'
if [[ -e INJECTED ]]; then
    echo "a key ran a command"
    status=1
fi
exit $status
