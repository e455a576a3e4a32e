#!/usr/bin/env bash
# kills.sh PATH-OF-QZHSM: killed before each of its system calls, archiving and recalling leave nothing from which
# repair and recall do not lead to the whole file.
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
for verb in archive recall; do
    options=()
    [ $verb = recall ] || options=(--store "$work/store")
    for ((number = 1, status = 1; status != 0 && number < 300; number++)); do
        rm -f "$f" && cp -p "$work/data" "$f"
        [ $verb = archive ] || "$qzhsm" archive --store "$work/store" "$f"
        strace -qq -o /dev/null -e inject='!execve,exit_group':signal=KILL:when=$number \
            "$qzhsm" $verb "${options[@]}" "$f" 2>/dev/null
        status=$?
        "$qzhsm" repair "$f" &>"$work/said"
        "$qzhsm" recall "$f" &>>"$work/said"
        cmp -s "$f" "$work/data" && [ "$(stat -c %.9Y "$f")" = 1000000000.500000000 ] &&
            [ -z "$(getfattr -d --absolute-names "$f" | grep -E 'TSTUB|NkStubFile')" ] && continue
        echo "FAILED: $verb killed at call $number: $(stat -c '%s bytes, modified %y' "$f"): $(<"$work/said")"
        failures=$((failures + 1))
    done
    [ $number -gt 50 ] || { echo "FAILED: $verb was killed only $number times"; failures=1; }
done 2> >(grep -v Killed >&2)
exit $((failures != 0))
