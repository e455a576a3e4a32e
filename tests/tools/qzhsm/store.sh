#!/usr/bin/env bash
# What becomes of a store's objects: sent once, confirmed for files that were moved, cleared when nothing names them.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
store=$work/store
expect 0 '^$' store create "$store"
truncate -s 64M "$work/image" && mkfs.ext4 -q "$work/image" && mount -o loop "$work/image" "$fs" && fresh
# objects COUNT: the store has so many. unneeded PATTERN ARG...: what a clearing of it tells.
objects() {
    local list
    list=$("$qzhsm" store list --store "$store" --json)
    [ "$(grep -c '"path"' <<<"$list")" = "$1" ] || fail "not $1 objects, line ${BASH_LINENO[0]}: $list"
}
unneeded() { expect 0 "$1" store gc --store "$store" --older-than 0s "${@:2}"; }

mkdir -m 777 "$work/all" && expect 0 '^$' store create "$work/all/store"
refused "$f" 'is not trusted where stubs name it: others may write into' archive --store "$work/all/store" "$f"
# Nor what is not his, and nobody stops root by a name.
mkdir "$work/hers" && cp "$work/data" "$work/his.file" && chmod 666 "$work/his.file" && chown 1 "$work/hers"
her() { setpriv --reuid 1 --regid 1 --clear-groups "$qzhsm" "$@"; }
her store create "$work/hers/store" && her archive --store "$work/hers/store" "$work/his.file" &>"$work/said" && fail "archived what is not hers"
same "$work/his.file" "$work/data"
mkdir -m 1777 "$fs/all" && cp "$f" "$fs/all/file" && touch "$fs/all/qzhsm-store.json" && chown 1 "$fs/all/qzhsm-store.json"
expect 0 '1 to be archived' archive --dry-run --store "$store" "$fs/all/file"
rm -r "$fs/all" "$work/his.file"
mkdir "$work/his" && chown 1 "$work/his" && expect 1 'it belongs to user 1,' store create "$work/his"

# A file that was put before is not sent again while it is the same.
cd "$fs" && expect 0 '^$' archive --keep --store "$store" ./file && cd /
expect 0 "000  $fs/file\$" store list --store "$store"
sed -i s/mode/mood/ "$store"/??/*.json && expect 1 '"failed":".*its own checksum' store list --json --store "$store"
sed -i s/mood/mode/ "$store"/??/*.json
same "$f" "$work/data"
sleep 1.1 # objects of this second are no older than none
for _ in first second; do
    expect 0 '^$' archive --store "$store" "$f"
    objects 1
    expect 0 '^$' recall "$f"
    same "$f" "$work/data"
    unneeded '0 not in use|^$' "$fs"
done
# The object may have suffered since.
printf damage | dd of="$(echo "$store"/??/*[!n])" bs=1 seek=9 conv=notrunc status=none
expect 0 '^$' archive --store "$store" "$f"
objects 2
expect 0 '^$' recall "$f"
same "$f" "$work/data"
unneeded '' --remove "$fs" && objects 1
printf changed | dd of="$f" bs=1 seek=9 conv=notrunc status=none
touch -d @1000000000 "$f" # its old time hides the change
cp "$f" "$work/changed"
expect 0 '^$' archive --store "$store" "$f"
objects 2
expect 0 '^$' recall "$f"
same "$f" "$work/changed"
cp "$work/data" "$f" && touch -d @1000000000 "$f" && expect 0 '^$' archive --store "$store" "$f"

# A stub that was copied is somebody's claim, until it is confirmed; for another owner, with force alone.
cp -p --preserve=all --sparse=always "$f" "$work/copy"
refused "$work/copy" 'was not taken from this file' recall "$work/copy"
chown 1 "$work/copy"
refused "$work/copy" 'belonged to user 0' adopt "$work/copy"
expect 0 '^$' adopt --force "$work/copy"
# One that lost its mark, as in a backup without attributes, is a stub again.
mkdir "$work/tree" && cp -p --sparse=always "$f" "$work/tree/bare" && cp "$work/data" "$work/tree/plain"
expect 0 '1 adopted, 1 left alone' adopt "$work/tree" && expect 0 '"state":"stub"' info --json "$work/tree/bare"
expect 0 '^$' recall "$work/tree/bare" && same "$work/tree/bare" "$work/data" && rm -r "$work/tree"
# One that lost its holes on the way is confirmed by force too.
cp -p --preserve=all --sparse=never "$f" "$work/filled" && expect 1 'it is changed stub' adopt "$work/filled"
expect 0 '^$' adopt --force "$work/filled" && expect 0 'warning' recall --force "$work/filled"
same "$work/filled" "$work/data"
for file in one two; do cp -p --preserve=all --sparse=always "$f" "$work/$file"; done
act() { expect 0 '^$' adopt "$work/two"; } # at the same time
during 'renameat(' renameat:delay_enter=1000000 adopt "$work/one"
for file in one two; do expect 0 '^$' recall "$work/$file" && rm "$work/$file"; done
for file in "$f" "$work/copy"; do expect 0 '^$' recall "$file" && same "$file" "$work/data"; done
[ "$(stat -c %u "$work/copy")" = 1 ] || fail "recalling an adopted stub changed its owner"
rm "$work/copy" && touch -d @1000000000 "$f" && expect 0 '^$' archive --store "$store" "$f"

# Only what nothing names is taken away.
objects 3
sleep 1.1
mkdir "$fs/one" "$fs/two" && mv "$f" "$fs/one"
unneeded '0 not in use, 4 left alone' "$work" # the mount, and objects: another file system tells nothing
unneeded 'in use elsewhere' --json --other-file-systems "$fs/two"
unneeded '2 not in use, 1 left alone' "$fs/two"
expect 0 'stored too lately' store gc --store "$store" --json "$fs/two"
# Not while somebody may be adopting one.
flock "$store/qzhsm-store.json" timeout 1 "$qzhsm" store gc --store "$store" --older-than 0s --remove "$fs/two" &>/dev/null
[ $? -eq 124 ] || fail "a clearing waited for nobody"
objects 3
# Nor does an object get its name while it is cleared; one that a file names stays, with a record or without.
flock "$store/qzhsm-store.json" timeout 1 "$qzhsm" archive --store "$store" "$work/part" &>/dev/null
[ $? -eq 124 ] || fail "an object got its name"
same "$work/part" <(head -c 2500000 "$work/data")
object=$("$qzhsm" info "$fs/one/file" | grep -oE 'object=[0-9a-f-]+')
record=$(ls "$store"/??/"${object#*=}.json")
mv "$record" "$work/record" && touch -d '40 days ago' "${record%.json}"
expect 0 '"skipped":"it is in use"' store gc --remove --json --store "$store" "$fs/one"
mv "$work/record" "$record"
mkdir "$store/tmp/left" && touch "$store/tmp/left/object"
unneeded '1 files that a process left' "$fs/two" --remove
objects 1
expect 0 '^$' verify "$fs/one/file"
rm "$fs/one/file"
unneeded '^[0-9a-f-]{36} +3000000  .*fs/file$' --other-file-systems "$fs" --remove
objects 0
# A stub that has lost its text, or an object whose note gives way to one, is no sign that nobody needs it.
rm -rf "$store" "${fs:?}"/* && expect 0 '^$' store create "$store" && fresh && expect 0 '^$' archive --store "$store" "$f"
printf 'over it' | dd of="$f" conv=notrunc status=none
sleep 1.1
unneeded '0 removed, 1 left alone|^$' --remove "$fs"
objects 1

rm "$f" && fresh && expect 0 '^$' archive --keep --store "$store" "$f"
act() { unneeded '1 removed, 1 left alone' --remove "$fs" && objects 1; } # the lost stub's
sleep 1.1
during 'TSTUB", "QZHSM' setxattr:delay_enter=2000000:when=1 archive --store "$store" "$f" || fail "archive beside gc: $(<"$work/said")"
expect 0 '^$' recall "$f"
same "$f" "$work/data"

# Nor is the object of a file that somebody works on: it names it nowhere for a moment.
rm "$f" && fresh && expect 0 '^$' archive --keep --store "$store" "$f" && setfattr -x user.NkObject "$f"
sleep 1.1
exec 7<"$f" && flock -n 7 && unneeded '' --remove "$fs" && objects 1
exec 7<&- && unneeded '' --remove "$fs" && objects 0

# What a record calls a hole is compared as well.
rm "$f" && truncate -s 4M "$f" && head -c 4M /dev/urandom >>"$f" && expect 0 '^$' archive --store "$store" "$f"
sed -i -e 's/"holes":\[\[0,4194304\]\]/"holes":[[0,8388608]]/' -e 's/,"check.*"//' "$store"/??/*.json
refused "$f" 'is damaged' recall "$f" && expect 1 'is damaged' verify "$f"
sed -i 's/"holes":\[\[0,8388608\]\]/"holes":[[0,4194304]]/' "$store"/??/*.json

# A file system that keeps times less exactly takes the stub, and the data.
truncate -s 64M "$work/old" && mkfs.ext4 -q -I 128 "$work/old" && mkdir "$work/coarse" && mount -o loop "$work/old" "$work/coarse"
rm "$f" && cp "$work/data" "$f" && touch -d @1000000000.25 "$f" && expect 0 '^$' archive --store "$store" "$f" && cp -a "$f" "$work/coarse"
expect 0 '^$' adopt "$work/coarse/file" && expect 0 '^$' recall "$work/coarse/file"
same "$work/coarse/file" "$work/data"
umount "$work/coarse"

# What was restored from a backup has its data once it is confirmed, whatever its time.
rm "$f" && fresh && setfattr -n security.capability -v 0x0100000200040000000000000000000000000000 "$f"
expect 0 '^$' archive --store "$store" "$f" && expect 0 '^$' backup "$f" -o "$work/saved" && rm "$f"
expect 0 '^$' restore-stub "$f" "$work/saved" && expect 0 '^$' adopt "$f"
expect 0 '' adopt "$work/data" "$f"
expect 0 '^$' recall "$f"
same "$f" "$work/data"
[ "$(stat -c %Y "$f")" = 1000000000 ] || fail "time of an adopted stub"

# Nor are those removed whose stubs may lie on a file system that is mounted below.
mkdir "$fs/mounted" && mount -t tmpfs none "$fs/mounted"
expect 1 'Nothing is removed: there are other file systems below' store gc --store "$store" --older-than 0s --remove "$fs"
expect 0 '' store gc --store "$store" --older-than 0s --remove "$fs" "$fs/mounted"
umount "$fs/mounted" && rmdir "$fs/mounted"

# What somebody has written into a half recalled file is not recalled over: the stub's text, or a hole.
for at in 100 1500000; do
    expect 0 '^$' archive --store "$store" "$f"
    strace -qq -o /dev/null -e inject=fsync:signal=KILL:when=2 "$plain" recall "$f" &>/dev/null
    printf mine | dd of="$f" bs=1 seek=$at conv=notrunc status=none
    expect 1 'is half recalled, and holds what is not its data' recall "$f"
    [ "$(tail -c +$((at + 1)) "$f" | head -c 4)" = mine ] || fail "what a user wrote at $at is gone"
    expect 0 '^$' recall --force "$f"
    same "$f" "$work/data"
done

# Capabilities that cannot be read are no missing ones, and those that a kill took come back.
setfattr -n security.capability -v 0x0100000200040000000000000000000000000000 "$f" && expect 0 '^$' archive --store "$store" "$f"
strace -qq -o /dev/null -e inject=getxattr:error=EIO:when=3 "$plain" recall "$f" &>/dev/null && fail "unread capabilities"
strace -qq -o /dev/null -e inject=fsync:signal=KILL:when=2 "$plain" recall "$f" &>/dev/null
expect 0 '"state":"half recalled"' info --json "$f"
setfattr -x security.capability "$f" 2>/dev/null
expect 0 '^$' recall "$f"
capable() { getfattr --absolute-names -e hex -n security.capability "$f" | grep -q =0x01000002 || fail "capabilities are lost, line ${BASH_LINENO[0]}"; }
capable
expect 0 '^$' archive --store "$store" "$f"
strace -qq -o /dev/null -e inject=fsync:error=EIO:when=2 "$plain" recall "$f" &>/dev/null && fail "recalled unflushed"
expect 0 '"state":"stub"' info --json "$f"
capable
chmod g+w "$f" && expect 0 'has lost its capabilities: others than root may write it' recall "$f"
chmod g-w "$f" && expect 0 '^$' archive --store "$store" "$f"

# Another back-end's stub has the size of the data, and not the data; its object is not cleared.
setfattr -x user.NkStubFile "$f" && truncate -s 0 "$f" && truncate -s 3000000 "$f"
sleep 1.1
unneeded "another back-end's stub" --json "$fs"

# A file system is told by its UUID, on whatever device it lies.
truncate -s 320M "$work/xfs" && mkfs.xfs -q "$work/xfs" && mkdir "$work/other" && mount -o loop "$work/xfs" "$work/other"
cp "$work/data" "$work/other/file" && expect 0 '^$' archive --store "$store" "$work/other/file"
umount "$work/other" && truncate -s 64M "$work/between" && loop=$(losetup -f --show "$work/between")
mount -o loop "$work/xfs" "$work/other" && expect 0 '^$' recall "$work/other/file"
umount "$work/other" && losetup -d "$loop"

finish
