#!/usr/bin/env bash
# driver.sh PATH-OF-QZHSM PATH-OF-DRIVER-EMULATOR: the tool on the filter driver's stubs.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
export QZHSM_EMULATOR_STATE=$work/watched
# A sanitizer's library has to come before the emulator.
preload="LD_PRELOAD='$(ldd "$plain" | awk '/lib[a-z]*san\./ { print $3; exit }') $2'"
wrapped "$preload" '--fs qzfs'
on tmpfs
expect 1 'not watched' stub "$f" --meta m
expect 0 '^$' watch "$fs"
expect 0 '^yes' watched "$fs"
expect 0 '^$' resubmit
refused "$f" 'Metadata of 2048 bytes: the driver takes at most 2047' stub "$f" --meta "$(printf %2048s x)"
expect 1 'Path of 2048 bytes' stub "$(printf %2048s x)" --meta m

becomes_stub "$(printf %2047s m)"
comes_back
expect 1 'a name of 248 bytes cannot be recalled' restore-stub "$fs/$(printf %0248d 1)" "$work/saved"
refused "$fs/again" 'Not replacing the stub' restore-stub "$fs/again" "$work/saved" --force
refused "$f" 'again is a stub or' recall "$f" --from "$fs/again"
: >"$fs/again"
setfattr -x user.nkfsdm.stub "$fs/again" # no stub any more
QZHSM_EMULATOR_FAIL=16:5:1 refused "$fs/again" 'QZHSM_RESTORE_STUB\) failed: Input/output error' restore-stub "$fs/again" "$work/saved"
QZHSM_EMULATOR_FAIL=1:5:-1 expect 1 'QZHSM_STAT.* failed: Input/output error' backup "$f"
QZHSM_EMULATOR_FAIL=8:5:1 refused "$f" 'still a stub, to be recalled again' recall "$f" --from "$work/data"
QZHSM_EMULATOR_FAIL=4:5:-1 expect 1 'still a stub' recall "$f" --from "$work/data"
expect 1 'has more than the 3000000 bytes' recall "$f" --from - < <(cat "$work"/{data,data})

# A recall that comes late must not write over what was written since.
feed
expect 0 '^$' recall "$f" --from "$work/data"
printf user | dd of="$f" bs=1 seek=5 conv=notrunc status=none
unchanged "$f" ended 1 'has ceased to be a stub'

"$plain" store create "$work/store"
for name in qzfs qzfs_extent; do
    wrapped "$preload" "--fs $name"
    becomes_stub m
    is_recalled
    expect 0 '^$' stub "$f" --meta m
    expect 0 'warning' recall "$f" --from "$work/part" --force
    same "$f" "$work/part"
    fresh
    expect 0 '^$' archive --store "$work/store" "$f"
    expect 0 '"stub":true' info --json "$f"
    expect 0 '^$' recall "$f"
    same "$f" "$work/data"
    [ "$(stat -c %Y "$f")" = 1000000000 ] || fail "recall from the store: the time differs"
done
[ "$(ls -A "$fs")" = $'again\nfile' ] || fail "left behind: $(ls -A "$fs")"
finish
