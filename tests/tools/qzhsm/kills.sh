#!/usr/bin/env bash
# kills.sh PATH-OF-QZHSM: killed before each system call that changes something, archiving, recalling, stubbing and
# restoring leave nothing from which repair and the next call do not lead to the whole file.
set -uo pipefail
if [ "$(id -u)" -ne 0 ] || ! command -v strace >/dev/null; then
    echo "skipped: mounting file systems for the test needs root, and strace"
    exit 77
fi
[ -n "${QZHSM_TEST_NAMESPACE:-}" ] || QZHSM_TEST_NAMESPACE=1 exec unshare --mount --propagation private "$0" "$@"
qzhsm=$1 failures=0
work=$(mktemp -d)
trap 'umount "$work/fs"; rm -rf "$work"' EXIT
mkdir "$work/fs"
truncate -s 64M "$work/image" && mkfs.ext4 -q "$work/image" && mount -o loop "$work/image" "$work/fs" || exit 1
f=$work/fs/file
head -c 2000000 /dev/urandom >"$work/data"
truncate -s 3000000 "$work/data"
touch -d @1000000000.5 "$work/data"
"$qzhsm" store create "$work/store"
run() { # VERB [strace's OPTION...]
    local options=("$f")
    case $1 in
    archive) options+=(--store "$work/store") ;;
    stub) options+=(--meta m) ;;
    restore-stub*) options+=("$work/saved") ;;
    esac
    strace -qq -o "$work/calls" "${@:2}" "$qzhsm" "${1%-over}" "${options[@]}"
}
whole() { # VERB: a restored stub has no times of the file
    cmp -s "$f" "$work/data" && ! getfattr -d --absolute-names "$f" | grep -qE 'TSTUB|NkStubFile' &&
        [[ $1 == restore* || $(stat -c %.9Y "$f") = 1000000000.500000000 ]]
}
before() {
    rm -f "$f" && cp -p "$work/data" "$f"
    case $1 in
    recall) "$qzhsm" archive --store "$work/store" "$f" ;;
    restore-stub*)
        "$qzhsm" stub --meta m "$f" && "$qzhsm" backup "$f" -o "$work/saved"
        rm "$f"
        [ "$1" = restore-stub ] || : >"$f"
        ;;
    esac
}
again() { # VERB: what comes next, whatever was left
    case $1 in
    archive | recall) "$qzhsm" recall "$f" ;;
    stub) "$qzhsm" recall "$f" --from "$work/data" ;;
    restore-stub*) "$qzhsm" restore-stub "$f" "$work/saved" ;;
    esac
}
leads_out() {
    # It gets through, or says what does. What is a stub already, or whole, is refused.
    { again "$1" || { "$qzhsm" repair "$f" && again "$1"; }; } &>"$work/said"
    [[ $1 != restore* ]] || "$qzhsm" recall "$f" --from "$work/data" &>>"$work/said"
    whole "$1"
}
for verb in archive recall stub restore-stub restore-stub-over; do
    before $verb
    run $verb -e trace='!execve,exit_group'
    # Before the file is named nothing can have happened to it, and what only looks leaves what was there before.
    # strace counts the calls of each name.
    mapfile -t calls < <(awk -F'(' -v f="\"$f\"" '{ ++count[$1] } index($0, f) { on = 1 }
        on && $1 ~ /^(openat|mkdirat|renameat|unlinkat|p?write(64)?|ftruncate|fallocate|(set|remove)xattr|fsync|syncfs|utimensat|fchmodat|close)$/ { print $1, count[$1] }' "$work/calls")
    for call in "${calls[@]}"; do
        before $verb
        run $verb -e inject="${call% *}:signal=KILL:when=${call#* }" 2>/dev/null && continue
        leads_out $verb && continue
        echo "FAILED: $verb killed at $call: $(stat -c '%s bytes, modified %y' "$f"): $(<"$work/said")"
        failures=$((failures + 1))
    done
    [ ${#calls[@]} -gt 15 ] || { echo "FAILED: $verb was killed only ${#calls[@]} times"; failures=1; }
done 2> >(grep -v Killed >&2)
exit $((failures != 0))
