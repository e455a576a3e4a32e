#!/usr/bin/env bash
# Stubbing and restoring by hand: what fails or is killed half-way, archived copies, lists.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
# shellcheck disable=SC2317 # called through $qzhsm
injected() { strace -f -qq -o /dev/null "${inject[@]/#/-einject=}" "${tool[@]}" "$@"; }
# with INJECTION... -- COMMAND...: the command with $qzhsm under these injections.
with() {
    local inject=() tool=("$qzhsm") qzhsm=injected
    while [ "$1" != -- ]; do inject+=("$1") && shift; done
    "${@:2}"
}
renew() { rm -f "$f" && fresh; }
on tmpfs

# Refused after the file was marked, or for a lock that cannot be had; half the text written, or none.
with fcntl:error=EINVAL -- refused "$f" 'Not stubbing open file' stub "$f" --meta m
with flock:error=ENOLCK -- refused "$f" 'Failed to lock .*/file: No locks available' stub "$f" --meta m
with flock:error=EBADF:when=1 -- expect 0 '^$' stub "$f" --meta m # NFS
for write in retval=9 error=EIO; do
    renew
    with write:$write:when=2 -- expect 0 '^$' stub "$f" --meta m
    expect 0 'stubs +1$' scan "$fs"
done
expect 0 '^$' backup "$f" -o "$work/saved"
ln -s file "$fs/link"
expect 1 'special file' stub "$fs/link" --meta m
expect 1 'special file' restore-stub "$fs/link" "$work/saved" --force
rm "$fs/link"

# A name that others swap for links never gets the file behind them stubbed.
cp "$work/data" "$fs/victim"
while cp "$work/part" "$fs/new"; mv -T "$fs/new" "$f"; ln -s victim "$fs/link"; do mv -T "$fs/link" "$f"; done 2>/dev/null &
swap=$!
# shellcheck disable=SC2016 # expanded later
unchanged "$fs/victim" eval 'for ((run = 0; run < 40; run++)); do "$plain" stub "$f" --meta m &>/dev/null; done'
kill -STOP $swap && pkill -KILL -P $swap # else what it is just running makes its file after all
kill -KILL $swap && wait $swap 2>/dev/null
rm -f "$fs"/{victim,new,link}
# Nor does a directory that becomes a link as it is looked for get a file made behind that.
mkdir "$fs/real" "$work/roots" && ln -s "$work/roots" "$fs/link" && chown -h 1 "$fs/link" && cd "$fs" || exit 1
act() { mv -T real gone && mv -T link real; }
# shellcheck disable=SC2097,SC2098 # the words come before it: strace gets "-P new" in front of the tool
plain=-P during '"new"' openat:delay_exit=500000 new "$plain" restore-stub real/new "$work/saved"
grep -q 'a symbolic link of another user' "$work/said" || fail "a swapped directory: $(<"$work/said")"
cd / && rm -r "$fs"/{real,gone}
[ ! -e "$work/roots/new" ] || fail "a file was made behind a link"

# No success before all is flushed.
for verb in "stub $f --meta m" "restore-stub $fs/new $work/saved" "backup $f -o $work/new"; do
    for flush in 1 2; do
        rm -f "$fs/new" && renew
        [[ $verb == stub* ]] || expect 0 '^$' stub "$f" --meta m
        # shellcheck disable=SC2086
        with fsync:error=EIO:when=$flush -- expect 1 'flush|write into' $verb
        [[ $flush != 1 || $verb != stub* ]] || [ -z "$(getfattr -d --absolute-names "$f")" ] || fail "text was left"
        [ ! -e "$fs/new" ] || fail "a failed restore left a file"
    done
done
rm "$f" && touch -d @1000000000 "$f"
for failure in write:error=ENOSPC:when=1..2 fsync:error=EIO:when=2 fsync:error=EIO:when=1; do
    with $failure -- refused "$f" 'No space|Failed to flush' restore-stub "$f" "$work/saved"
done

# Archived copies, in a directory of the same shape.
mkdir -p "$fs/tree/below" "$work/copies/below"
for file in one below/two; do cp "$work/data" "$fs/tree/$file"; done
echo small >"$fs/tree/small"
cp -p "$fs/tree/one" "$work/copies" && cp -p "$fs/tree/below/two" "$work/copies/below" && cp -p "$fs/tree/small" "$work/copies"
refused "$fs/tree/one" 'its modification time differs' stub "$fs/tree/one" --meta m --archived "$work/data"
ln "$fs/tree/one" "$fs/same"
refused "$fs/tree/one" 'itself, and no copy' stub "$fs/tree/one" --meta m --archived "$fs/same"
rm "$fs/same"
expect 1 'is one too many' stub "$fs/tree/one" "$fs/tree/below/two" --meta m --archived "$work/copies/one"
expect 0 '^$' recall "$fs/tree/one" --from "$work/data" # the first of them
printf changed | dd of="$work/copies/below/two" bs=1 seek=2999993 conv=notrunc status=none
touch -r "$fs/tree/below/two" "$work/copies/below/two"
refused "$fs/tree/below/two" 'its content differs' stub "$fs/tree" --meta m --archived-in "$work/copies"
cp -p "$fs/tree/below/two" "$work/copies/below"
mv "$work/copies/below" "$work/elsewhere" && ln -s ../elsewhere "$work/copies/below"
refused "$fs/tree/below/two" 'Not a directory' stub "$fs/tree" --meta m --archived-in "$work/copies"
rm "$work/copies/below" && mv "$work/elsewhere" "$work/copies/below"
expect 0 '^qzhsm: 1 stubbed, 2 left alone, 0 failed' stub "$fs/tree" --meta m --archived-in "$work/copies"
refused "$fs/tree/one" 'Not replacing the stub' stub "$fs/tree/one" --meta m
truncate -s 4096 "$fs/small" && cp "$work/part" "$fs/small" && truncate -s 4000 "$fs/small"
refused "$fs/small" 'it would free no room' stub "$fs/small" --meta m
expect 0 '^qzhsm: 0 stubbed, 2 left alone' stub "$fs/tree/one" "$fs/small" --meta m
expect 0 '^qzhsm: 1 stubbed, 1 left alone' stub "$fs/tree/one" "$fs/small" --meta m --force
rm "$work/copies/one"
expect 1 'copies/one: No such file' recall "$fs/tree" --from-dir "$work/copies"
same "$fs/tree/below/two" "$work/data"
cd "$fs" && mkdir "$work/copies/tree" && cp "$work/data" "$work/copies/tree/one"
expect 0 '^$' recall tree/one --from-dir "$work/copies"
same "$fs/tree/one" "$work/data"
cd /

# GlusterFS: killed at each attribute, a call gets through when it is repeated, and repair leads out.
wrapped '' '--fs GLUSTER_FS'
guid=versionGuid=0123456789abcdef0123456789abcdef
for ((number = 2; number <= 5; number++)); do
    for way in repair stub; do
        renew
        with setxattr:signal=KILL:when=$number -- expect 137 '' stub "$f" --meta $guid
        if [ $way = repair ]; then
            [ $number -lt 5 ] || refused "$f" "carries some of a stub.s" stub "$f" --meta "${guid/0/f}"
            expect 0 '^$' repair "$f"
            [ -z "$(getfattr -d -m - --absolute-names "$f")" ] || fail "repair left attributes"
        else
            with setxattr:error=ENOSPC:when=4 -- refused "$f" 'No space left' stub "$f" --meta $guid
            expect 0 '^$' stub "$f" --meta $guid
        fi
    done
done
setfattr -x trusted.glusterfs.csou.complete "$f"
with setxattr:error=ENOSPC:when=1 -- refused "$f" 'No space left' restore-stub "$f" "$work/saved"
expect 1 'GlusterFS moves its files. data .*code 38' archive --store x "$f"

qzhsm=$plain
# A file that could not be looked at after it was emptied keeps its text.
rm -rf "${fs:?}"/* && fresh
strace -qq -o /dev/null -e inject=write:error=EIO:when=2 -e inject=getxattr:error=EIO:when=8+ "$plain" stub "$f" --meta tape=9 2>/dev/null &&
    fail "a stub without text"
expect 0 '^$' repair "$f" && expect 0 '"state":"stub","metadata":"tape=9"' info --json "$f"

# Many workers do with few descriptors.
expect 0 '^$' store create "$work/fewer" && for ((i = 0; i < 100; i++)); do head -c 12000 "$work/data" >"$fs/n$i"; done
(ulimit -n 200 && expect 0 '^qzhsm: 100 archived, 1' archive --store "$work/fewer" -j 16 "$fs"; exit $failures) || fail "few descriptors"
finish
