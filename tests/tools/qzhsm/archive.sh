#!/usr/bin/env bash
# Archiving into a store and back: what is refused, left alone, or fails at its very end.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
store=$work/store
expect 0 '^$' store create "$store"
mount -t tmpfs none "$fs"
for file in file other; do cp "$work/data" "$fs/$file"; done
printf small >"$fs/plain"
touch -d @1000000000.25 "$fs"/*

for age in soon 90; do expect 2 'older-than' archive --store "$store" --older-than $age "$fs"; done
expect 1 'is not a store' archive --store "$work" "$fs"
expect 0 '^$' archive --store "$store" --older-than 1d --exclude 'o*' "$f"
expect 0 'plain was left alone: it would free no room' archive --store "$store" "$fs/plain"
expect 0 '1 archived, 2 left alone, 0 failed' archive --store "$store" -j 2 "$fs"
[ "$(stat -c %.2Y "$f")" = 1000000000.25 ] || fail "archiving moved the time"
mkdir "$fs/twice"
for jobs in 2 1; do # what a run holds itself is nobody else's
    cp "$work/data" "$fs/twice/file"
    expect 0 '1 archived, 1 left alone' archive --store "$store" -j $jobs "$fs/twice" "$fs/twice/file"
    [ $jobs = 1 ] || rm "$fs/twice/file"
done
expect 0 '1 recalled, 1 left alone' recall "$fs/twice" "$fs/twice/file" && rm -r "$fs/twice"
expect 0 '2 whole, 0 left alone, 0 failed' verify "$fs"

cp -p "$fs/other" "$fs/copy"
setfattr -n user.NkStubFile -v 1 "$fs/copy" # a forged stub: its text is the other's
refused "$fs/copy" 'was not taken from this file' recall "$fs/copy"
rm "$fs/copy"
printf changed | dd of="$fs/other" bs=1 seek=1000000 conv=notrunc status=none
refused "$fs/other" 'there is data behind its stub text' recall "$fs/other"
expect 1 'data of one stub' recall "$fs" --from "$work/data"
expect 0 '2 recalled, 1 left alone, 0 failed' recall --force "$fs"
for file in file other; do same "$fs/$file" "$work/data"; done

exec 7<"$f"
refused "$f" 'is open elsewhere \(code 3\)' archive --store "$store" "$f"
exec 7<&-
# So is a file that is opened just as the tool looks whether it is, and the tool goes on.
act() { true <"$f" & }
during 'F_SETLEASE, F_WRLCK' fcntl:delay_exit=300000 archive --store "$store" "$f" "$fs/plain"
grep -q '1 left alone' "$work/said" || fail "opened while it was looked at: $(<"$work/said")"
expect 0 '^$' recall "$f"
# Refused after the file was marked: it is no stub, and keeps nothing of that.
injected() { strace -qq -o /dev/null -P "$f" -e inject="$1" "$plain" "${@:2}"; }
qzhsm=injected refused "$f" 'could not truncate' ftruncate:error=EIO archive --store "$store" "$f"
touch -d @1000000001 "$f" "$fs/other"
qzhsm=injected expect 1 '1 archived, 0 left alone, 1 failed, 2\.9 MiB$' ftruncate:error=EIO archive --store "$store" "$f" "$fs/other"
"$plain" verify --store "$store" &>"$work/list"
grep -q ' whole, 0 left alone, 0 failed' "$work/list" || fail "the store: $(<"$work/list")"

# A full disk is told as that. The last flush fails: the file is whole, and must not become a stub without a mark.
expect 0 '^$' archive --store "$store" "$f"
qzhsm=injected refused "$f" 'file: Failed to write: No space left' write:error=ENOSPC:when=1 recall "$f"
said=$(injected fsync:error=EIO:when=4 recall "$f" 2>&1)
[[ $said == *'may not be on the disk'* ]] || fail "the last flush's failure: $said"
same "$f" "$work/data"

# 10000 names of any bytes, there by a list and back by a walk: all verbs have their paths from one place.
mkdir "$fs/names" && for ((i = 0; i < 10000; i++)); do
    printf -v bytes '\\x%02x' $((i % 255 + 1)) $((RANDOM % 255 + 1)) $((RANDOM % 255 + 1)) $((RANDOM % 255 + 1))
    LC_ALL=C printf -v name '%b' "${bytes//\\x2f/_}"
    printf '%9000s' "$i" >"$fs/names/$name.$i"
done
find "$fs/names" -type f -print0 | sort -z >"$work/names"
[ "$(tr -dc '\0' <"$work/names" | wc -c)" = 10000 ] || fail "not every name is a file"
contents() { xargs -0 cat <"$work/names" | sha256sum; }
before=$(contents)
expect 0 '10000 archived, 0 left alone, 0 failed' archive --store "$store" -0 <"$work/names"
[ "$(contents)" != "$before" ] || fail "nothing was archived"
expect 0 '10000 recalled, 0 left alone, 0 failed' recall -j 2 "$fs/names"
[ "$(contents)" = "$before" ] || fail "not all came back"
# What its user does to a stub while it is recalled, or before the next recall, stays.
rm -rf "${fs:?}"/* && fresh
for act in 'echo mine >"$f"' 'printf mine | dd of="$f" bs=1 seek=1200000 conv=notrunc status=none'; do
    expect 0 '^$' archive --store "$store" "$f"
    feed
    eval "$act"
    before=$(sha256sum <"$f")
    ended 1 'was changed while it was recalled'
    [ "$before" = "$(sha256sum <"$f")" ] || fail "the recall went over: $act"
    refused "$f" 'was changed since it was stubbed|is not a stub' recall "$f"
    setfattr -x user.TSTUB "$f" 2>/dev/null
    setfattr -x user.NkStubFile "$f" && fresh
done
expect 0 '^$' archive --store "$store" "$f"
cp "$work/data" "$work/twin" && printf changed | dd of="$work/twin" bs=1 seek=2000000 conv=notrunc status=none
refused "$f" 'is not the data of the stub .*: the checksums differ' recall "$f" --from "$work/twin"
# half_recalled: by a recall that was killed.
half_recalled() { touch -d @1000000000 "$f" && expect 0 '^$' archive --store "$store" "$f" && "$@" && feed && ended 137 '^$' KILL; }
feed && ended 137 '^$' KILL
for act in 'echo mine >"$f"' 'echo mine >>"$f"' 'setfattr -x user.NkStubFile "$f"'; do
    eval "$act"
    for verb in repair recall; do
        refused "$f" 'header says 3000000 bytes, file has (5|3000005) |somebody has taken its mark off' $verb "$f"
    done
    expect 0 '^$|warning' recall --force "$f"
    same "$f" "$work/data"
    half_recalled true
done
expect 0 '^$' backup "$f" -o "$work/saved"
grep -q recalling "$work/saved" && fail "a saved stub says what was done to it"
expect 0 '^$' recall "$f"
half_recalled touch -d @1000 "$f"
expect 0 '^$' recall "$f"
[ "$(stat -c %Y "$f")" = 1000 ] || fail "the time that a stub's user set is lost in a recall that was killed"
touch -d @1000000000 "$f" && expect 0 '^$' archive --store "$store" "$f" && touch -d @1000 "$f" && expect 0 '^$' recall "$f"
[ "$(stat -c %Y "$f")" = 1000 ] || fail "the time that a stub's user set is lost"
ln "$f" "$fs/second" && expect 0 '1 archived' archive --store "$store" "$fs" && expect 0 '1 recalled, 1 left alone' recall "$fs"

# So does a change of mode or owner, and one of the same size, in the same second, just before the file becomes a stub.
for act in 'chmod 600:0 600' 'chown 1:1 755'; do
    rm -f "$fs"/* && fresh && chmod 4755 "$f" && expect 0 '^$' archive --store "$store" "$f"
    feed
    ${act%%:*} "$f"
    ended 0 '^$'
    [ "$(stat -c '%u %a' "$f")" = "${act#*:}" ] || fail "$act: $(stat -c '%u %a' "$f")"
done
rm "$f" && fresh && touch -d @1000000000.25 "$f"
act() { printf new | dd of="$f" bs=1 seek=5000 conv=notrunc status=none && touch -d @1000000000.75 "$f" && cp "$f" "$work/changed"; }
during '^getxattr(.*security.capability' getxattr:delay_enter=1000000:when=4 archive --store "$store" "$f" && fail "archived although it was changed"
same "$f" "$work/changed"

# A recall that fails leaves what its user wrote in the meantime.
# recalled_meanwhile COMMAND...: the recall of a damaged object, and in the middle of it the command.
recalled_meanwhile() {
    rm "$f" && cat "$work/data" "$work/data" >"$f" && touch -d @1000000000 "$f" && expect 0 '^$' archive --store "$store" "$f"
    object=$("$plain" info "$f" | grep -oE 'object=[0-9a-f-]+')
    printf damaged | dd of="$(ls "$store"/??/"${object#*=}")" bs=1 seek=5000000 conv=notrunc status=none
    meanwhile=("$@")
    act() {
        until [ "$(grep -c utimensat "$work/calls")" -ge 3 ]; do :; done
        sleep 0.3
        "${meanwhile[@]}"
    }
    during utimensat utimensat:delay_exit=1500000:when=3 recall "$f" && fail "recalled although it was changed"
}
recalled_meanwhile truncate -s 0 "$f"
[ ! -s "$f" ] && expect 0 '"state":"plain"' info --json "$f"
write_mine() { printf mine | dd of="$f" bs=1 seek=5500000 conv=notrunc status=none; }
recalled_meanwhile write_mine
[ "$(tail -c +5500001 "$f" | head -c 4)" = mine ] || fail "a recall that failed went over it: $(<"$work/said")"

# One that was cut off at its end is whole, and may be the last copy.
rm "$f" && fresh && expect 0 '^$' archive --store "$store" "$f"
{ strace -qq -o /dev/null -e inject=removexattr:signal=KILL:when=1 "$plain" recall "$f"; } &>/dev/null
mv "$store" "$work/away"
expect 1 '' recall "$f" && expect 0 '^$' repair "$f"
mv "$work/away" "$store" && same "$f" "$work/data" && [ -z "$(getfattr -m NkStub -d "$f")" ] || fail "what repair made of a whole file"

# Nobody's data is taken for what was looked at before.
half_recalled true
act() { cat "$work/data" "$work/data" 1<>"$f"; }
during ', 262144) = 262144' pread64:delay_enter=300000:when=4+ repair "$f" && fail "repaired what was replaced meanwhile"
same "$f" <(cat "$work/data" "$work/data")
: >"$fs/empty"
act() { echo mine >"$fs/empty"; }
during 'flock(' flock:delay_enter=1000000 restore-stub "$fs/empty" "$work/saved" && fail "restored over new data"
[ "$(<"$fs/empty")" = mine ] || fail "new data is gone"
rm "$fs/empty" "$f" && fresh && expect 0 '^$' archive --store "$store" "$f" && expect 0 '^$' recall "$f"

# Where its text cannot be kept, a recall that fails and is killed then has not given both up.
expect 0 '^$' archive --store "$store" "$f"
unflushed() { ASAN_OPTIONS=detect_leaks=0 strace -qq -o "$work/calls" -e inject=setxattr:error=ENOSPC -e inject=fsync:error=EIO:when=3 "$@" "$plain" recall "$f"; }
unflushed &>/dev/null
back=$(awk -F'[(,]' '/^write/ { count++; fd = $2 } /EIO/ { file = fd } /^write/ && fd == file { print count; exit }' "$work/calls")
{ unflushed -e inject=write:signal=KILL:when="$back"; } &>/dev/null
same "$f" "$work/data"
rm "$f" && fresh && expect 0 '^$' archive --store "$store" "$f" && expect 0 '^$' recall "$f"

# What nothing names is not left in the store, and what no record can hold is not put there.
before=$(ls "$store"/?? | wc -l)
strace -qq -o /dev/null -e inject=setxattr:error=EPERM "$plain" archive --store "$store" "$f" &>/dev/null && fail "archived without attributes"
touch -d 2300-01-01 "$f" && refused "$f" 'time that no record can hold' archive --store "$store" "$f"
[ "$(ls "$store"/?? | wc -l)" = "$before" ] || fail "objects are left in the store"

# A name that was in the way is told whatever other names it has.
rm -rf "${fs:?}"/* && fresh && expect 0 '^$' archive --store "$store" "$f" && ln "$f" "$fs/second"
head -c 12000 "$work/data" >"$fs/n1" && expect 0 '^$' archive --store "$store" "$fs/n1"
exec 7<"$f" && flock -n 7
expect 1 'is locked' recall "$fs"/n1 "$f" "$fs/second"
exec 7<&-

# A run that is interrupted leaves no part of an object, and does not go on.
rm -rf "${fs:?}"/* && fresh && cp "$f" "$fs/second"
act() { pkill -TERM -P $!; }
during 'fgetxattr(' fgetxattr:delay_enter=1000000:when=1 archive --store "$store" "$fs" && fail "an interrupted run is no success"
[ "$(grep -c interrupted "$work/said")" = 1 ] && grep -q 'Interrupted: the files' "$work/said" || fail "interrupted: $(<"$work/said")"
expect 0 '^files +2$' scan "$fs" && expect 0 '^stubs +0$' scan "$fs"

# What a mover has damaged is seen if it is read back, and does not stay.
rm -rf "${fs:?}"/* && fresh && mkdir "$work/moved"
printf '%s\n' 'case $1 in *-0) cat ;; *) tr a b ;; esac >"$1"' >"$work/put"
printf '%s\n' '[Store/moved]' "put = sh $work/put $work/moved/{object}" \
    "get = cat $work/moved/{object}" "remove = rm $work/moved/{object}" >>"$QZHSM_CONFIG"
refused "$f" 'checksum' archive --store moved --verify "$f"
[ -z "$(ls "$work/moved")" ] || fail "a damaged object stays: $(ls "$work/moved")"
sed -i 's/tr a b/cat/' "$work/put"
expect 0 '^$' archive --store moved --verify "$f"
expect 0 '^$' recall "$f" && same "$f" "$work/data"

# A store is no data of its own, and no path is no directory.
rm -rf "${fs:?}"/* && fresh
expect 0 '^$' store create "$fs/store"
expect 0 '^qzhsm: 1 archived, 1 left alone, 0 failed' archive --store "$fs/store" "$fs"
expect 1 'lies in the store' archive --store "$fs/store" "$fs/store/tmp"
expect 0 ' whole, 0 left alone, 0 failed|^$' verify --store "$fs/store"
expect 1 'Failed to open "": No such file' archive --store "$store" ''

finish
