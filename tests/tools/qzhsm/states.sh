#!/usr/bin/env bash
# What info and scan say of each state that a file can be in, and of one that cannot be looked at.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
on tmpfs
text() { # META: the stub text of $f with this metadata
    cp --remove-destination "$work/data" "$work/other" && "$qzhsm" stub "$work/other" --meta "$1" && head -c 300 "$work/other" | tr -d '\0' | base64 -w0
}
mark() { setfattr -n user.NkStubFile -v 1 "$1"; }
cp "$work/data" "$fs/whole" && mark "$fs/whole"
: >"$fs/lost" && mark "$fs/lost"
truncate -s 3000000 "$fs/emptied" && mark "$fs/emptied" && setfattr -n user.TSTUB -v "0s$(text kept)" "$fs/emptied"
cp "$work/data" "$fs/half" && mark "$fs/half" && setfattr -n user.TSTUB -v "0s$(text 'tape=2;recalling=1')" "$fs/half"
cp "$work/data" "$fs/leftover" && setfattr -n user.TSTUB -v "0s$(text 'left;recalling=1')" "$fs/leftover"
expect 0 '^$' stub "$f" --meta tape=1
cp --sparse=always "$f" "$fs/copy"
cp "$work/data" "$fs/changed" && "$qzhsm" stub "$fs/changed" --meta m && truncate -s 4000000 "$fs/changed"
cp "$work/data" "$fs/plain"
truncate -s 3000000 "$fs/sparse"
"$qzhsm" backup "$f" -o "$work/other.stub" # of any stub

while read -r name stub misfit state; do
    expect 0 "^\{.*\"stub\":$stub,.*\"state\":\"$state\"" info --json "$fs/$name"
    expect 0 "  $state  .*$fs/$name$" info "$fs/$name"
    "$qzhsm" scan "$fs" >"$work/said"
    [ $? -eq 1 ] || fail "scan is content"
    grep -qE "does not fit: $fs/$name: ($state|header says)" "$work/said"
    [ $? -eq "$misfit" ] || fail "scan on $name: $(<"$work/said")"
done <<'EOF'
whole true 0 marked and whole
lost true 0 marked and empty
emptied true 0 emptied
half true 0 half recalled
leftover false 0 plain with leftover stub text
copy false 0 copy of a stub
changed true 0 changed stub
file true 1 stub
plain false 1 plain
sparse false 1 plain
EOF
expect 0 'of 3000000 bytes: tape=1$' info "$f"
expect 0 '"state":"half recalled","metadata":"tape=2","recorded":3000000,"kept":true}' info --json "$fs/half"
expect 0 '^files +1$' scan "$f"
mkdir "$fs/mounts" && touch "$fs/mounts/data" && mount --bind "$work/data" "$fs/mounts/data"
expect 0 'data was left out: it lies on another file system' scan "$fs/mounts"
umount "$fs/mounts/data" && rm -r "$fs/mounts"
expect 1 '^\{"files":20,"stubs":12,"misfits":14,' scan --json "$fs" "$fs"
for ((i = 1; i < 40; i++)); do
    deep=$fs/deep/$((i / 8))/$i
    mkdir -p "$deep" && cp -a "$fs/lost" "$f" "$deep" && : >"$deep/empty"
done
expect 1 '^\{"files":127,"stubs":84,"misfits":46,' scan -j 3 --json "$fs"
cmp -s <("$qzhsm" scan --json --stubs "$fs" 2>/dev/null | grep path | sort) <("$qzhsm" scan -j 3 --json --stubs "$fs" 2>/dev/null | grep path | sort) || fail 'scan -j'
rm -r "$fs/deep"
[ "$("$qzhsm" scan --stubs "$fs" 2>/dev/null | wc -l)" = 6 ] || fail "the list of stubs"

for case in whole:'qzhsm repair' emptied:'qzhsm repair' file:'is a stub already' lost:'nothing on it tells'; do
    refused "$fs/${case%%:*}" "${case#*:}" stub "$fs/${case%%:*}" --meta m
done
# What users write into a file on its way, or over a stub's text, does not make it a whole one.
printf 'a line\n' >"$fs/emptied"
printf 'over it' | dd of="$f" conv=notrunc status=none
refused "$fs/emptied" 'somebody has written to it on its way to a stub' repair "$fs/emptied"
refused "$f" 'nothing on it tells whether its data is its own' repair "$f"
refused "$f" 'Not replacing the stub .*: File exists \(code 17\)' restore-stub "$f" "$work/other.stub"
refused "$fs/lost" 'marked and empty, and nothing on it tells where its data is' repair "$fs/lost"
expect 1 'marked and empty: it names no object' verify "$f"
cp "$work/data" "$fs/part" && "$qzhsm" stub "$fs/part" --meta m && head -c 8192 "$work/data" | dd of="$fs/part" conv=notrunc status=none
refused "$fs/part" 'nothing on it tells whether its data is its own' repair "$fs/part"
# A file that nobody has written to is whole, holes and all, whatever a kill left on it.
truncate -s 3000000 "$fs/hollow" && printf 'a line\n' | dd of="$fs/hollow" conv=notrunc status=none && touch -d @5 "$fs/hollow"
mark "$fs/hollow" && setfattr -n user.TSTUB -v "0s$(text 'a=1;stubbing=5000000000')" "$fs/hollow"
expect 0 '^$' repair "$fs/hollow"
expect 0 '"state":"plain"' info --json "$fs/hollow"
# The text may have reached the file before its size: a stub to be completed.
base64 -d <<<"$(text b=1)" >"$fs/short" && mark "$fs/short" && setfattr -n user.TSTUB -v "0s$(text 'b=1;stubbing=1')" "$fs/short"
expect 0 '^$' repair "$fs/short"
expect 0 '"state":"stub","metadata":"b=1","recorded":3000000' info --json "$fs/short"
# Another back-end's stub text is none of ours.
cp "$work/data" "$fs/foreign" && setfattr -n user.TSTUB -v "0s$(text c=1)" "$fs/foreign"
refused "$fs/foreign" 'is not a stub' recall "$fs/foreign"
unchanged "$fs/foreign" expect 0 '^$' repair "$fs/foreign"
# What is emptied is recalled in two attempts, and never loses the only text.
: >"$fs/zero" && mark "$fs/zero" && setfattr -n user.TSTUB -v "0s$(text 'd=1;stubbing=1000000000000000000')" "$fs/zero"
zero() { strace -qq -o /dev/null ${2:+-P "$2"} -e inject="$1" "$plain" recall "$fs/zero" --from "$work/data" >"$work/said" 2>&1; }
# What the library refuses keeps its data, holes and all, where there was no room for its text.
truncate -s 3000000 "$fs/holey" && head -c 100000 "$work/data" | dd of="$fs/holey" conv=notrunc status=none && cp --sparse=always "$fs/holey" "$fs/twin"
opened=$(strace -e trace=openat "$plain" stub "$fs/twin" --force --meta m 2>&1 | grep openat | grep -n 'O_WRONLY) ' | head -n 1)
cp "$fs/holey" "$work/holey"
strace -qq -o /dev/null -e inject=setxattr:error=ENOSPC:when=1 -e inject=openat:error=ENFILE:when="${opened%%:*}" "$plain" stub "$fs/holey" --force --meta m &>"$work/said" && fail "stubbed unopened"
same "$fs/holey" "$work/holey"
expect 0 '"state":"plain"' info --json "$fs/holey"
zero setxattr:error=ENOSPC && fail "recalled without its text"
getfattr -n user.TSTUB --absolute-names "$fs/zero" >/dev/null || fail "the only text is gone: $(<"$work/said")"
zero read:error=EIO:when=2 "$work/data" && fail "recalled half"
expect 0 '"state":"half recalled"' info --json "$fs/zero"
# A source that ends early is no data.
zero read:retval=0:when=3 "$work/data" && fail "recalled what ended early"
grep -q 'changed its length while it was read' "$work/said" || fail "a source that ends early: $(<"$work/said")"
expect 0 '^$' recall "$fs/zero" --from "$work/data"
same "$fs/zero" "$work/data"

# What could not be looked at is no plain file, and advice on it would be a guess.
injected() { strace -qq -o /dev/null ${target:+-P "$target"} -e inject="$1" "$plain" "${@:2}"; }
qzhsm=injected target=
expect 1 'attribute user.NkStubFile of .*: Input/output error' getxattr:error=EIO info "$f"
expect 1 'attribute user.NkStubFile of .*: Input/output error' fgetxattr,lgetxattr:error=EIO scan "$fs"
target=$f
[ -z "$(injected pread64:error=EIO stub "$f" --meta m 2>&1 | grep -E "repair|setfattr")" ] || fail "advice without a look"
target=$fs/leftover
expect 1 'Input/output error' fsync:error=EIO recall "$fs/leftover"
target=$fs
expect 1 'Failed to stat .*: Input/output error' newfstatat:error=EIO scan "$fs"
qzhsm=$plain
mkdir -p "$fs/deep/$(printf 'd/%.0s' {1..1001})"
expect 1 'd lies more than 1000 directories deep' scan "$fs/deep" && rm -r "$fs/deep"
expect 1 'No such file or directory \(code 4\)' scan "$fs" "$fs/missing"
expect 1 'watches nothing \(code 38\)' watch "$fs"
expect 1 'watches nothing \(code 38\)' --fs HADOOP_FS unwatch "$fs"
finish
