# shellcheck shell=bash
# What the tool's tests share: SCRIPT PATH-OF-QZHSM [ARG...]. All that a test makes lies in $work, a tmpfs that
# vanishes with it; $work/data is what the files hold, and $work/part its beginning.
set -uo pipefail
[ "$(id -u)" -eq 0 ] && unshare --mount true || { echo "skipped: mounting file systems needs root"; exit 77; }
[ -n "${QZHSM_TEST_NAMESPACE:-}" ] || QZHSM_TEST_NAMESPACE=1 exec unshare --mount "$0" "$@"
plain=$1 qzhsm=$1 failures=0 work=$(mktemp -d) fs=$work/fs f=$fs/file
mount -t tmpfs none "$work" && mkdir "$fs"
trap 'umount -R "$work"; rmdir "$work"' EXIT
# No recall service of this machine is asked.
export QZHSM_CONFIG=$work/conf
printf '[Service]\nruntimeDirectory = /proc/none\n' >"$QZHSM_CONFIG"
head -c 3000000 /dev/urandom >"$work/data" && head -c 2500000 "$work/data" >"$work/part"

fail() { echo "FAILED: $*" && failures=$((failures + 1)); }
finish() { exit $((failures > 0)); }
fresh() { cp "$work/data" "$f" && touch -d @1000000000 "$f"; }
# on TYPE: a fresh file system at $fs with a fresh $f.
on() {
    umount "$fs" 2>/dev/null
    mount -t "$1" -o size=32m none "$fs" || fail "cannot mount $1"
    fresh
}
# wrapped VARIABLES ARG...: from now on $qzhsm is the tool with these variables and arguments.
wrapped() {
    printf '#!/bin/sh\n%s exec "%s" %s "$@"\n' "$1" "$plain" "$2" >"$work/qzhsm"
    chmod +x "$work/qzhsm" && qzhsm=$work/qzhsm
}
same() { cmp -s "$1" "$2" || fail "$1 does not hold what $2 holds, line ${BASH_LINENO[0]}"; }
# The sum comes first: on ramfs reading a hole fills it.
fingerprint() { sha256sum <"$1"; stat -c '%s %Y %b' "$1"; getfattr -d -m - --absolute-names "$1"; }
# unchanged FILE COMMAND...: the command leaves the file's bytes, size, times and attributes alone.
unchanged() {
    local file=$1 before
    before=$(fingerprint "$file")
    "${@:2}"
    [ "$before" = "$(fingerprint "$file")" ] || fail "changed $file: ${*:2}"
}
# expect STATUS PATTERN ARG...: runs the tool; the pattern must be in what it prints.
expect() {
    local output
    output=$("$qzhsm" "${@:3}" 2>&1)
    local got=$?
    [ "$got" -eq "$1" ] && grep -qE -- "$2" <<<"$output" ||
        fail "qzhsm ${*:3}: status $got, not $1 with '$2': $output"
}
refused() { unchanged "$1" expect 1 "${@:2}"; }

# becomes_stub META [COMMAND...]: a fresh $f becomes a stub, and is saved. The command does what others do to it.
becomes_stub() {
    fresh
    expect 0 '^$' stub "$f" --meta "$1" --ref-time 1000000000
    [ "$(stat -c %X "$f")" = 1000000000 ] || fail "stubbing moved the access time"
    "${@:2}"
    expect 0 '"stub":true,"managed":(true|false),"logical":3000000,' info --json "$f"
    refused "$f" 'Not replacing the stub .*: File exists \(code 17\)' stub "$f" --meta "$1"
    expect 0 '^$' backup "$f" -o "$work/saved"
}
comes_back() {
    expect 0 '^$' restore-stub "$fs/again" "$work/saved"
    expect 0 '^stubs +2$' scan "$fs"
}
is_recalled() {
    refused "$f" 'part has 2500000 bytes, but the stub .* records 3000000' recall "$f" --from "$work/part"
    expect 0 '^$' recall "$f" --from "$work/data"
    same "$f" "$work/data"
    [ "$(stat -c %Y "$f")" = 1000000000 ] || fail "recall: the time differs"
}
# during TEXT INJECTION ARG...: runs the tool, held up at a system call that names TEXT, and act() meanwhile; its status.
during() {
    : >"$work/calls"
    # Leaks cannot be looked for beside strace.
    ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=0 strace -qq -o "$work/calls" -e inject="$2" "$plain" "${@:3}" &>"$work/said" &
    local traced=$!
    until grep -q "$1" "$work/calls"; do kill -0 $traced || break; done
    act
    wait $traced
}
# feed: starts a recall of $f that reads what descriptor 9 writes. A pipe holds 64 KiB: once all of this is gone
# the recall has written the second of two whole pieces, and waits for more of a third.
feed() {
    rm -f "$work/pipe" && mkfifo "$work/pipe" && exec 9<>"$work/pipe"
    "$qzhsm" recall "$f" --from - <"$work/pipe" 2>"$work/said" 9>&- &
    recall=$!
    timeout 10 cat "$work/part" >&9 || fail "a recall of $f reads no more: $(cat "$work/said")"
}
# ended STATUS PATTERN [SIGNAL]: that recall gets the signal, or the rest, and ends like this.
ended() {
    if [ $# -eq 3 ]; then kill -"$3" $recall; else timeout 10 tail -c +2500001 "$work/data" >&9; fi
    exec 9>&-
    wait $recall 2>/dev/null
    local got=$?
    [ "$got" -eq "$1" ] && grep -qE -- "$2" <<<"$(cat "$work/said")" ||
        fail "fed recall of $f: status $got, not $1 with '$2': $(cat "$work/said")"
}
