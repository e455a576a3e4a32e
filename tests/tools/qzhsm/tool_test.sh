#!/usr/bin/env bash
# tool_test.sh PATH-OF-QZHSM PATH-OF-DRIVER-EMULATOR DIRECTORY-OF-LUSTRE-LIBRARY: the tool on a file system with
# attributes and on one without, and on each other back-end, good input and bad.
set -uo pipefail
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: mounting file systems for the test needs root"
    exit 77
fi
if [ -z "${QZHSM_TEST_NAMESPACE:-}" ]; then
    QZHSM_TEST_NAMESPACE=1 exec unshare --mount "$0" "$@" # mounts vanish with the test
fi
qzhsm=$1
emulator=$2
lustre_library=$(readlink -f "$3")
lustre_commands=$(readlink -f "$(dirname "$0")/../../support/lustre")
work=$(mktemp -d)
trap 'umount "$work"/* 2>/dev/null; rm -rf "$work"' EXIT
failures=0

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}
# expect STATUS PATTERN ARG...: runs the tool; the pattern must be in what it prints.
expect() {
    local status=$1 pattern=$2 output got
    shift 2
    output=$("$qzhsm" "$@" 2>&1)
    got=$?
    [ "$got" -eq "$status" ] || fail "qzhsm $*: status $got, not $status: $output"
    grep -qE -- "$pattern" <<<"$output" || fail "qzhsm $*: no '$pattern' in: $output"
}
# unchanged FILE COMMAND...: the command must leave the file's bytes, size, times and attributes alone.
# The sum comes first: on ramfs reading a hole fills it.
fingerprint() { sha256sum <"$1"; stat -c '%s %Y %b' "$1"; getfattr -d --absolute-names "$1"; }
unchanged() {
    local file=$1 before
    shift
    before=$(fingerprint "$file")
    "$@"
    [ "$before" = "$(fingerprint "$file")" ] || fail "changed $file: $*"
}

head -c 3000000 /dev/urandom >"$work.data"
trap 'umount "$work"/* 2>/dev/null; rm -rf "$work" "$work.data"' EXIT
for type in tmpfs ramfs; do
    dir=$work/$type
    mkdir "$dir"
    mount -t "$type" -o size=32m none "$dir"
    f=$dir/file
    cp "$work.data" "$f"
    touch -d @1000000000 "$f"
    echo '-- the way there and back'
    expect 0 "^no +$([ $type = tmpfs ] && echo yes || echo no) +3000000" info "$f"
    expect 0 '^$' stub "$f" --meta 'tape=1' --ref-time 1000000000
    [ "$(stat -c %X "$f")" = 1000000000 ] || fail "stubbing moved the access time"
    expect 0 '^yes .* 3000000' info "$f"
    expect 0 '"stub":true,.*"logical":3000000' info --json "$f"
    unchanged "$f" expect 1 'File exists \(code 17\)' stub "$f" --meta again
    unchanged "$f" expect 1 'setfattr -x' stub "$f" --meta again
    expect 0 '^$' backup "$f" -o "$work/saved"
    cmp -s <("$qzhsm" backup "$f" --snapshot) "$work/saved" || fail "backup differs from --snapshot"
    expect 0 '^$' restore-stub "$dir/again" "$work/saved"
    expect 0 '^yes' info "$dir/again"
    expect 0 '^stubs +2$' scan "$dir"
    truncate -s 4000000 "$dir/again"
    expect 0 'does not fit: .*/again: header says 3000000 bytes, file has 4000000' scan "$dir"
    rm "$dir/again"

    echo '-- recalls that fail leave the stub'
    unchanged "$f" expect 1 'is the stub itself' recall "$f" --from "$f"
    unchanged "$f" expect 1 'No such file or directory \(code 4\)' recall "$f" --from "$dir/missing"
    unchanged "$f" expect 1 'Is a directory' recall "$f" --from "$dir"
    cp "$work.data" "$dir/plain"
    unchanged "$dir/plain" expect 1 'plain is not a stub \(code 8\)' recall "$dir/plain" --from "$work.data"
    rm "$dir/plain"
    { cat "$work.data"; sleep 3; } | timeout -s TERM 1 "$qzhsm" recall "$f" --from - 2>"$work/said"
    grep -q 'the stub was put back as it was' "$work/said" || fail "no word of putting back: $(cat "$work/said")"
    expect 0 '^yes .* 3000000' info "$f"
    cmp -s <("$qzhsm" backup "$f") "$work/saved" || fail "the stub is not as it was"
    { head -c 2500000 "$work.data"; sleep 3; } | timeout -s KILL 1 "$qzhsm" recall "$f" --from - 2>/dev/null
    expect 0 '^yes .* 3000000' info "$f"
    touch -d @1000000000 "$f" # a killed recall has no time to put times back

    echo '-- the recall'
    expect 0 '^$' recall "$f" --from "$work.data"
    cmp "$f" "$work.data" || fail "the data differs"
    [ "$(stat -c %Y "$f")" = 1000000000 ] || fail "the time differs"
    expect 0 '^no' info "$f"
    expect 0 '^$' stub "$f" --meta m
    { head -c 2500000 "$work.data"; sleep 2; tail -c +2500001 "$work.data"; } | "$qzhsm" recall "$f" --from - &
    sleep 1
    expect 1 'Another recall of .* is under way \(code 3\)' recall "$f" --from "$work.data"
    wait
    cmp "$f" "$work.data" || fail "the data differs"
    expect 0 '^$' stub "$f" --meta m
    head -c 100 "$work.data" >"$dir/short"
    unchanged "$f" expect 1 'short has 100 bytes, but the stub .* records 3000000' recall "$f" --from "$dir/short"
    "$qzhsm" backup "$f" >"$work/copy"
    unchanged "$f" expect 1 'copy of one: it holds no data' recall "$f" --from "$work/copy"
    unchanged "$work/copy" expect 1 'is a copy of a stub' stub "$work/copy" --meta m
    echo appended >>"$f"
    unchanged "$f" expect 1 'changed since it was stubbed' recall "$f" --from "$work.data"
    truncate -s 3000000 "$f"
    expect 0 'warning: .* has 100 bytes' recall "$f" --from "$dir/short" --force
    cmp "$f" "$dir/short" || fail "a shorter recall left more than its data"

    echo '-- bad input changes nothing'
    unchanged "$f" expect 1 'not be shorter' stub "$f" --meta "$(head -c 200 /dev/zero | tr '\0' m)"
    cp "$work.data" "$f"
    unchanged "$f" expect 1 'modified file .* \(code 3\)' stub "$f" --meta m --ref-time 5
    unchanged "$f" expect 1 'Message too long' stub "$f" --meta "$(head -c 4096 /dev/zero | tr '\0' m)"
    unchanged "$f" expect 1 'is not a stub. \(code 8\)' backup "$f"
    unchanged "$f" expect 1 'corrupt metadata' restore-stub "$f" "$work.data"
    unchanged "$f" expect 1 'holds data' restore-stub "$f" "$work/saved"
    : >"$dir/empty"
    unchanged "$dir/empty" expect 1 'not be shorter' stub "$dir/empty" --meta m
    unchanged "$dir/empty" expect 1 'corrupt metadata' restore-stub "$dir/empty" "$dir/short"
    expect 1 'corrupt metadata' restore-stub "$dir/new" "$dir/short"
    [ ! -e "$dir/new" ] || fail "a failed restore left a file"
    expect 1 'special file' stub "$dir" --meta m
    expect 1 'special file' restore-stub "$dir" "$work/saved"
    [ -z "$(getfattr -d "$dir" 2>/dev/null)" ] || fail "the directory was marked"
    expect 1 'No such file or directory \(code 4\)' stub "$dir/missing" --meta m
    mount -o remount,ro "$dir"
    unchanged "$f" expect 1 'Read-only file system \(code (30|-1)\)' stub "$f" --meta m
    mount -o remount,rw "$dir"
    printf '%s\0' "$f" "$dir/missing" "$dir/empty" >"$work/paths"
    [ "$("$qzhsm" stat -0 --json <"$work/paths" 2>/dev/null | wc -l)" = 2 ] || fail "a missing path ended the list"
    umount "$dir"
done

echo '-- a mark that is not ours stays'
mkdir "$work/marked"
mount -t tmpfs none "$work/marked"
: >"$work/marked/file"
setfattr -n user.NkStubFile -v other "$work/marked/file"
unchanged "$work/marked/file" expect 1 'File exists \(code 17\)' restore-stub "$work/marked/file" "$work/saved"
umount "$work/marked"

echo '-- a full file system in the middle of a recall'
mkdir "$work/full"
mount -t tmpfs -o size=2m none "$work/full"
truncate -s 3000000 "$work/full/file"
expect 0 '^$' stub "$work/full/file" --meta m
before=$(fingerprint "$work/full/file")
expect 1 'No space left on device \(code -1\)' recall "$work/full/file" --from "$work.data"
[ "$before" = "$(fingerprint "$work/full/file")" ] || fail "the stub is not as it was after a full disk"
umount "$work/full"

echo '-- stubs that the driver keeps'
expect 1 'FSF driver is not loaded \(code -1\)' --fs qzfs info "$work.data"
mkdir "$work/driver"
mount -t tmpfs none "$work/driver"
f=$work/driver/file
export QZHSM_EMULATOR_STATE=$work/watched
plain=$qzhsm
qzhsm=$work/qzhsm.driver
# A sanitizer's library has to come before the emulator.
sanitizer=$(ldd "$plain" | awk '/lib[a-z]*san\./ { print $3; exit }')
printf '#!/bin/sh\nLD_PRELOAD="%s" exec "%s" --fs "${fs:-qzfs}" "$@"\n' "$sanitizer $emulator" "$plain" >"$qzhsm"
chmod +x "$qzhsm"
printf short >"$f"
touch -d @1000000000 "$f"
expect 1 'QZHSM_CREATE_STUB\(.*Invalid argument \(code 6\)' stub "$f" --meta m
expect 0 '^$' watch "$work/driver"
expect 0 '^yes' watched "$work/driver"
expect 0 '^$' resubmit
unchanged "$f" expect 1 'Metadata of 2048 bytes: the driver takes at most 2047' stub "$f" --meta "$(printf %2048s x)"
expect 1 'Path of 2048 bytes' stub "$(printf %2048s x)" --meta m
unchanged "$f" expect 1 'Device or resource busy \(code 3\)' stub "$f" --meta m --ref-time 5
expect 0 '^$' stub "$f" --meta m
expect 0 '^yes +yes +5 ' info "$f"
unchanged "$f" expect 1 'Not replacing the stub .*file: File exists \(code 17\)' stub "$f" --meta again
expect 0 '^$' backup "$f" -o "$work/saved"
expect 0 '^$' restore-stub "$work/driver/again" "$work/saved"
expect 0 '^stubs +2$' scan "$work/driver"
rm "$work/driver/again"
: >"$work/driver/again"
QZHSM_EMULATOR_FAIL=16:5:1 expect 1 'QZHSM_RESTORE_STUB\) failed: Input/output error' restore-stub "$work/driver/again" "$work/saved"
expect 0 '^no ' info "$work/driver/again"
printf 12345 >"$work/five"
QZHSM_EMULATOR_FAIL=8:5:1 unchanged "$f" expect 1 'still a stub, to be recalled again' recall "$f" --from "$work/five"
QZHSM_EMULATOR_FAIL=6:200:1 unchanged "$f" expect 1 'in transparent mode: .*\(code 8\)' recall "$f" --from "$work/five"
expect 0 '^$' recall "$f" --from "$work/five"
[ "$(cat "$f")" = 12345 ] || fail "the data differs"
[ "$(stat -c %Y "$f")" = 1000000000 ] || fail "the time differs"
long=$work/driver/$(printf %248s x | tr ' ' n)
cp "$work.data" "$long"
unchanged "$long" expect 1 'a name of 248 bytes cannot be recalled' stub "$long" --meta m
rm "$long"
cp "$work.data" "$f"
expect 0 '^$' stub "$f" --meta "$(printf %2047s m)"
cat "$work.data" "$work.data" >"$work/long"
unchanged "$f" expect 1 'has 6000000 bytes, but the stub .* records 3000000' recall "$f" --from "$work/long"
expect 1 'has more than the 3000000 bytes' recall "$f" --from - <"$work/long"
QZHSM_EMULATOR_FAIL=4:5:-1 expect 1 'still a stub' recall "$f" --from "$work.data"
[ -z "$(find "$work/driver" -name '*.stubdata.*')" ] || fail "stub data was saved where nothing needs it"
QZHSM_EMULATOR_FAIL=1:5:-1 expect 1 'QZHSM_STAT.* failed: Input/output error' backup "$f"
cp "$work.data" "$work/driver/other"
expect 0 '^$' stub "$work/driver/other" --meta m
unchanged "$f" expect 1 'other is a stub or' recall "$f" --from "$work/driver/other"
rm "$work/driver/other"
ln -s "$f" "$work/link"
{ head -c 2500000 "$work.data"; sleep 2; tail -c +2500001 "$work.data"; } | "$qzhsm" recall "$f" --from - 2>"$work/said" &
sleep 1
expect 0 '^$' recall "$work/link" --from "$work.data"
printf user | dd of="$f" bs=1 seek=5 conv=notrunc status=none
unchanged "$f" wait
grep -q 'has ceased to be a stub' "$work/said" || fail "a late recall wrote on: $(cat "$work/said")"
for fs in qzfs qzfs_extent; do
    export fs
    cp "$work.data" "$f"
    expect 0 '^$' stub "$f" --meta m
    expect 0 '^$' recall "$f" --from "$work.data"
    cmp "$f" "$work.data" || fail "the data differs on $fs"
    expect 0 '^$' stub "$f" --meta m
    expect 0 'warning' recall "$f" --from "$work/five" --force
    [ "$(cat "$f")" = 12345 ] || fail "a shorter recall left more than its data on $fs"
done
[ "$(ls -A "$work/driver")" = "$(printf 'again\nfile')" ] || fail "left behind: $(ls -A "$work/driver")"
qzhsm=$plain
umount "$work/driver"

echo '-- Lustre'
mkdir "$work/lustre"
mount -t tmpfs none "$work/lustre"
f=$work/lustre/file
cp "$work.data" "$f"
touch -d @1000000000 "$f"
qzhsm=$work/qzhsm.lustre
printf '#!/bin/sh\nPATH="%s:$PATH" exec "%s" --fs LUSTRE_FS "$@"\n' "$lustre_commands" "$plain" >"$qzhsm"
chmod +x "$qzhsm"
unchanged "$f" expect 1 'The Lustre library is not loaded: .*Function not implemented \(code -1\)' stub "$f" --meta m
expect 0 'LoadFunctions failed, error=liblustreapi.so.1: cannot open' info "$f"
export LD_LIBRARY_PATH=$lustre_library
expect 0 '^no ' info "$f"
unchanged "$f" expect 1 'Lustre did not release .*0x00000000' release "$f"
LUSTRE_FAIL=request:5 unchanged "$f" expect 1 'Input/output error \(code -1\)' stub "$f" --meta m
LFS_FAIL=3 expect 1 'lfs told no state of' stub "$f" --meta m
cmp -s "$f" "$work.data" || fail "the data of a refused release differs"
setfattr -x user.TSTUB "$f"
expect 0 '^$' stub "$f" --meta 'tape=1'
expect 0 '^yes +yes +3000000' info "$f"
expect 0 'released exists archived' hsm-state "$f"
expect 0 '^{"path":.*,"state":".*released' hsm-state --json "$f"
expect 0 '^$' release "$f"
expect 0 '^$' backup "$f" -o "$work/saved"
expect 0 '^$' restore-stub "$work/lustre/again" "$work/saved"
expect 0 '^stubs +2$' scan "$work/lustre"
unchanged "$f" expect 1 'File exists' stub "$f" --meta again
unchanged "$f" expect 1 'Nothing but Lustre recalls .*\(code 38\)' recall "$f" --from "$work.data"
unchanged "$f" expect 1 'it carries stub text' restore-stub "$f" "$work/saved" --force
LFS_FAIL=2 expect 1 'lfs told no state of' info "$f"
LFS_FAIL=2 unchanged "$f" expect 1 'lfs told no state of' hsm-state "$f"
LFS_FAIL=2 expect 1 'lfs told no state of' restore-stub "$work/lustre/fresh" "$work/saved"
[ ! -e "$work/lustre/fresh" ] || fail "a failed restore left a file"
cp "$work.data" "$work/lustre/released"
unchanged "$work/lustre/released" expect 1 'did not release' release "$work/lustre/released"
setfattr -n user.TSTUB -v text "$work/lustre/released"
expect 0 '^no ' info "$work/lustre/released"
: >"$work/lustre/empty"
expect 1 'an empty file could not be restored' stub "$work/lustre/empty" --meta m
touch "$work/lustre/a b" "$work/lustre/\$(touch pwned)"
expect 1 'would not take this path' stub "$work/lustre/a b" "$work/lustre/\$(touch pwned)" --meta m
unset LD_LIBRARY_PATH
umount "$work/lustre"

echo '-- GlusterFS'
cp "$work.data" "$work/long-meta"
"$plain" stub "$work/long-meta" --meta "$(printf %4030s m)" || fail "cannot make a long stub text"
"$plain" backup "$work/long-meta" >"$work/cut"
mkdir "$work/gluster"
mount -t tmpfs none "$work/gluster"
f=$work/gluster/file
cp "$work.data" "$f"
touch -d @1000000000 "$f"
qzhsm=$work/qzhsm.gluster
printf '#!/bin/sh\nexec "%s" --fs GLUSTER_FS "$@"\n' "$plain" >"$qzhsm"
chmod +x "$qzhsm"
guid=versionGuid=0123456789abcdef0123456789abcdef
expect 0 '^no ' info "$f"
unchanged "$f" expect 1 'versionGuid is too short' stub "$f" --meta versionGuid=0123
expect 0 '^$' stub "$f" --meta "$guid"
unchanged "$f" expect 1 'File exists' stub "$f" --meta "$guid"
expect 0 '^no ' info "$f" # the volume has not done its part
setfattr -n trusted.glusterfs.cs.remote "$f"
expect 0 '^yes +yes +3000000' info "$f"
expect 0 '^$' backup "$f" -o "$work/saved"
unchanged "$f" expect 1 'is marked complete already' restore-stub "$f" "$work/saved"
expect 0 '^stubs +1$' scan "$work/gluster"
setfattr -x trusted.glusterfs.csou.complete "$f"
expect 0 '^$' restore-stub "$f" "$work/saved"
expect 1 'No such file' restore-stub "$work/gluster/missing" "$work/saved"
: >"$work/gluster/plain"
unchanged "$work/gluster/plain" expect 1 'did not come back with its attributes' restore-stub "$work/gluster/plain" "$work/saved"
unchanged "$work/gluster" expect 1 'special file' stub "$work/gluster" --meta "$guid"
said=$(setpriv --bounding-set=-sys_admin "$qzhsm" info "$f" 2>&1) && fail "stubs that are not to be seen are denied"
[[ $said == *CAP_SYS_ADMIN* ]] || fail "no word of the capability: $said"
[ ! -e "$work/gluster/missing" ] || fail "a file was made"
truncate -s 0 "$f"
truncate -s 3000000 "$f"
touch -d @1000000000 "$f"
unchanged "$f" expect 1 'five has 5 bytes, but the stub .* records 3000000' recall "$f" --from "$work/five"
expect 0 '^$' recall "$f" --from "$work.data"
cmp "$f" "$work.data" || fail "the data differs"
[ "$(stat -c %Y "$f")" = 1000000000 ] || fail "the time differs"
setfattr -n user.TSTUB -v "0s$(head -c 66 "$work/cut" | base64 -w0)" "$f"
expect 1 'its stub text is cut short' info "$f"
setfattr -n user.TSTUB -v corrupt "$f"
expect 1 'is not a stub, corrupt meta-data \(code 8\)' info "$f"
qzhsm=$plain
umount "$work/gluster"

echo '-- a user who may not read'
cp "$work.data" "$work/private"
chmod 000 "$work/private"
said=$(setpriv --bounding-set=-dac_override,-dac_read_search "$qzhsm" info "$work/private" 2>&1)
[[ $said == *'Permission denied'* ]] || fail "a stub that may not be read is taken for a plain file"

echo '-- wrong usage'
expect 2 'ERB|subcommand' ""
expect 2 'frob' frobnicate
expect 2 'meta' stub /tmp
expect 2 'excludes' --fs qzfs --kind 2 info /
expect 2 'PATH' info
expect 2 'kind' --kind x info /
expect 1 'for Lustre only.*code 38' release /
expect 1 'for Lustre only.*code 38' hsm-state /
expect 1 'stubFile not implemented \(code 38\)' --fs HADOOP_FS stub "$work.data" --meta m
for verb in info stub backup restore-stub recall stat set-times watch unwatch watched resubmit release hsm-state scan; do
    expect 0 'Usage: qzhsm' "$verb" --help
    expect 0 "$verb" --help
done
"$qzhsm" info / >/dev/full 2>/dev/null && fail "a full standard output went unnoticed"

if [ "$failures" -ne 0 ]; then
    exit 1
fi
echo "all as expected"
