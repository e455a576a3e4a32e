#!/usr/bin/env bash
# A round trip with the filter driver's back-end under an emulated driver, whose requests are shown as they go by:
# demo_driver.sh PATH-OF-QZHSM PATH-OF-EMULATOR [DIRECTORY]
set -euo pipefail
qzhsm=$(readlink -f "$1")
emulator=$(readlink -f "$2")
dir=$(mktemp -d "${3:-${TMPDIR:-/tmp}}/qzhsm-demo.XXXXXX")
trap 'rm -rf "$dir"' EXIT
export QZHSM_EMULATOR_STATE=$dir/.watched QZHSM_EMULATOR_TRACE=1
mkdir "$dir/data"
cd "$dir/data"
exec 2>&1

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }
run() {
    printf '$ %s\n' "$*"
    "$@"
}
qzhsm() { LD_PRELOAD=$emulator "$qzhsm" --fs "${fs:-qzfs}" "$@"; }
sum() { sha256sum "$1" | cut -d' ' -f1; }

if ! setfattr -n user.probe -v 1 . 2>/dev/null; then
    echo "The emulator keeps stubs as user attributes, which $(df --output=fstype . | tail -n 1) does not have: name another directory." >&2
    exit 1
fi
say "A file of 3 MiB on $(df --output=fstype . | tail -n 1), on a file system that the driver watches"
head -c 3145728 /dev/urandom >film.mov
touch -d '2024-05-01 12:00:00 UTC' film.mov
cp film.mov ../archived-copy
before=$(sum film.mov)
echo "sha256 $before"
run qzhsm watch .
run qzhsm watched .

say "It becomes a stub: the driver compares time and size, and gives the data up"
run qzhsm stub film.mov --meta "versionGuid=0f3a;tape=A00017"
run ls -ls --time-style=+%F film.mov
run qzhsm info film.mov

say "Its stub data is saved, the file is lost, and the stub is put back"
run qzhsm backup film.mov -o ../film.stub
run rm film.mov
run qzhsm restore-stub film.mov ../film.stub
run qzhsm info film.mov

say "A driver that refuses: the text says what was asked, the code why"
QZHSM_EMULATOR_FAIL=6:200:1 run qzhsm recall film.mov --from ../archived-copy || echo "(exit status $?)"

say "The recall, past the driver: a nameless file carries the access"
run qzhsm recall film.mov --from ../archived-copy
after=$(sum film.mov)
echo "sha256 $after"
run qzhsm info film.mov

say "The same in extents"
fs=qzfs_extent
run qzhsm stub film.mov --meta "versionGuid=0f3a;tape=A00017"
run qzhsm recall film.mov --from ../archived-copy
run qzhsm unwatch .

[ "$before" = "$after" ] && [ "$before" = "$(sum film.mov)" ] && [ "$(ls -A)" = film.mov ] || {
    say "The data differs, or something is left behind"
    exit 1
}
say "Byte for byte the same, and nothing left behind."
