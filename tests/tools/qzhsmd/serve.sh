#!/usr/bin/env bash
# FS_TYPE=... serve.sh QZHSM QZHSMD STRESS USERS: programs that read stubs on a served file system get their data, or an I/O error.
# shellcheck source=tests/tools/qzhsmd/common.sh
. "$(dirname "$0")/common.sh"
stress=$3 users=$4

"$service" /proc >"$work/out" 2>&1
[ $? -eq 1 ] || fail "serving /proc: $(<"$work/out")"
mkdir "$work/tmpfs" && mount -t tmpfs none "$work/tmpfs"
"$service" "$work/tmpfs" >"$work/out" 2>&1
[ $? -eq 1 ] && grep -q 'no pre-content events' "$work/out" || fail "serving tmpfs: $(<"$work/out")"
configure 'workers = 0'
"$service" "$fs" >"$work/out" 2>&1
[ $? -eq 1 ] && grep -q "$QZHSM_CONFIG: \[Service\] workers makes no sense: 0" "$work/out" || fail "a wrong value: $(<"$work/out")"
configure

# Programs of each sort.
archived "$fs"/{cat,grep,cp,tar,gone,cut,new,torn}
cp -p "$(command -v ls)" "$fs/program" && expect 0 '' archive --store "$store" "$fs/program"
start
"$service" "$fs" >"$work/out" 2>&1
[ $? -eq 1 ] && grep -q 'served already' "$work/out" || fail "a second service: $(<"$work/out")"
mkdir "$work/other" && printf '[Service]\nruntimeDirectory = %s\n' "$work/other" >"$work/other/conf"
QZHSM_CONFIG=$work/other/conf "$service" "$fs" >"$work/out" 2>&1
[ $? -eq 1 ] && grep -q 'served already, by process' "$work/out" || fail "one of other locks: $(<"$work/out")"
ls "$work/other"/*.sock &>/dev/null && fail "a socket of nobody's is left"
cat "$fs/cat" | cmp -s - "$work/data" || fail "cat"
[ "$(grep -ac e "$fs/grep")" = "$(grep -ac e "$work/data")" ] || fail "grep"
cp --sparse=always "$fs/cp" "$work/cp" && same "$work/cp" "$work/data"
tar -S -C "$fs" -cf "$work/tar" tar && tar -C "$work" -xOf "$work/tar" tar | cmp -s - "$work/data" || fail "tar -S"
"$fs/program" "$fs" >/dev/null || fail "a program that was a stub does not run"
for file in cat grep cp tar; do is_plain "$fs/$file"; done

# What is archived while it is served is a stub like any other, though the kernel no longer asked for it; to look at
# stubs is not to recall them.
cat "$fs/cat" >/dev/null
expect 0 '' archive --store "$store" "$fs/cat"
expect 0 '"state":"stub"' info --json "$fs/cat"
expect 0 '' verify "$fs/cat"
expect 0 '"stubs":[1-9]' scan --json "$fs"
tells 'stubs recalled +5$'
cmp -s "$fs/cat" "$work/data" || fail "a stub made while it is served"
expect 0 '' archive --store "$store" "$fs/cat"
expect 0 '' recall "$fs/cat"
same "$fs/cat" "$work/data"
tells 'stubs recalled +6$'
expect 0 'qzhsmd_recalled_total 6' status --metrics

mkdir "$fs/many" && for ((i = 0; i < 300; i++)); do head -c 20000 "$work/data" >"$fs/many/$i"; done
expect 0 '^qzhsm: 300 archived, 0 left alone, 0 failed' archive --store "$store" "$fs/many"
rm -r "$fs/many"

# A recall by hand is not held up by the worker that follows one which was killed in the middle of it.
archived "$f"
feed
kill -KILL "$(pgrep -P "$served")"
ended 0 '^$'
same "$f" "$work/data"

# Whoever holds a file that the service has to look at holds nobody else up.
: >"$fs/held" && echo other >"$fs/other"
"$users" hold "$fs/held" >"$work/held" & holder=$!
for ((i = 0; i < 100; i++)); do grep -q held "$work/held" && break; sleep 0.05; done
grep -q held "$work/held" || fail "no file is held"
cat "$fs/held" >/dev/null & reader=$!
sleep 0.3
[ "$(timeout -s KILL 5 cat "$fs/other")" = other ] || fail "whoever holds a file holds others up"
kill $holder
wait $reader
rm "$fs"/{held,other}

# What users do wins.
echo mine >"$fs/new"
[ "$(<"$fs/new")" = mine ] && [ -z "$(getfattr -d --absolute-names "$fs/new")" ] || fail "a stub that was truncated: $(getfattr -d --absolute-names "$fs/new"; tail -n 4 "$work/log")"
truncate -s 1000 "$fs/cut" && cmp -s "$fs/cut" <(head -c 1000 "$work/data") || fail "a stub that was cut"

# A stub that is copied to a served file system is one, and not yet whose data it names.
cp "$work/data" "$work/elsewhere" && expect 0 '' archive --store "$store" "$work/elsewhere" && cp -a "$work/elsewhere" "$fs/copied"
fails "$fs/copied" cat
rm "$fs/copied"

# What cannot be served is an I/O error, and stays a stub.
mkdir "$work/away" && mv "$store"/?? "$work/away"
fails "$fs/gone" cat
mv "$work/away"/?? "$store"
cmp -s "$fs/gone" "$work/data" || fail "the objects are there again"
for object in "$store"/??/????????-*[0-9a-f]; do printf damaged | dd of="$object" bs=1 seek=2000000 conv=notrunc status=none; done
fails "$fs/torn" cat
logged 'wrong checksum'
stop
expect 0 '"state":"stub"' info --json "$fs/torn"
expect 1 'No recall service is running' status
rm -rf "$store" && expect 0 '^$' store create "$store"

# Who must not cause recalls gets an error at once; readers of a range do not wait for the rest.
archived "$fs"/{refused,range}
configure && start
configure 'refusePrograms = head' 'rangePrograms = tail dd' 'rangeFrom = 1M' 'bandwidth = 4M' && kill -HUP "$served"
for ((i = 0; i < 100; i++)); do grep -q 'read again' "$work/log" && break; sleep 0.05; done
pkill -KILL -P "$served" && expect 0 "" status # the next worker reads it again before it answers
fails "$fs/refused" head -c 1
logged 'refused head'
tail -c 1000 "$fs/range" | cmp -s - <(tail -c 1000 "$work/data") || fail "the tail of a range"
cmp -s "$fs/range" "$work/data" || fail "the whole behind a range"
is_plain "$fs/range"

# What was brought before something failed is gone on with, not forgotten: it was seen, and what is missing is no zeros.
stop
for name in old seen touched; do for _ in 1 2 3; do cat "$work/data"; done >"$fs/$name"; done
cp "$fs/seen" "$work/seen" && touch -d @1000000000.5 "$fs"/{old,seen,touched} && expect 0 '' archive --store "$store" "$fs"/{old,seen,touched}
object=$("$plain" info "$fs/seen" | grep -oE 'object=[0-9a-f-]+') && object=$(ls "$store"/??/"${object#*=}")
cp "$object" "$work/whole" && printf damaged | dd of="$object" bs=1 seek=8500000 conv=notrunc status=none
exec 8>>"$fs/old"
configure 'rangePrograms = tail dd' 'rangeFrom = 1M' 'bandwidth = 4M' && start
cmp -s <(dd if="$fs/seen" bs=1000 count=1 status=none) <(head -c 1000 "$work/seen") || fail "the first piece"
for _ in 1 2; do fails "$fs/seen" tail -c 1; done
expect 0 '"state":"half recalled"' info --json "$fs/seen"
cp "$work/whole" "$object"
stop && printf mine | dd of="$fs/seen" bs=1 seek=5000000 conv=notrunc status=none && start
fails "$fs/seen" cat # what was written into it past the service is not recalled over
logged 'seen is half recalled, and holds what is not its data'
stop && dd if="$work/seen" of="$fs/seen" bs=4 skip=1250000 seek=1250000 count=1 conv=notrunc status=none && start
echo over >"$fs/seen" && [ "$(<"$fs/seen")" = over ] || fail "what was half recalled, and truncated"
cp "$work/seen" "$fs/seen" && touch -d @1000000000.5 "$fs/seen" && expect 0 '' archive --store "$store" "$fs/seen"
cmp -s "$fs/seen" "$work/seen" || fail "what was archived again"

# Any name is a stub's; and nobody has to read what is logged.
archived "$fs/a.sock.lock"
cmp -s "$fs/a.sock.lock" "$work/data" &
sleep 0.3 && pkill -KILL -P "$served"
wait $! || fail "a reader of a worker that was killed"
stop
"$service" "$fs" >"$work/out" 2> >(:) &
served=$!
for ((i = 0; i < 400; i++)); do grep -q serving "$work/out" && break; sleep 0.05; done
archived "$fs/a.sock.lock" && pkill -KILL -P "$served"
cmp -s "$fs/a.sock.lock" "$work/data" && kill -0 "$served" || fail "the service needs a reader of its log"
stop && start
# Who is not root may look; to make stubs he would have to tell the service.
chmod 755 "$work" && cp "$work/data" "$fs/his" && chown 65534 "$fs/his"
as_user() { setpriv --reuid=65534 --clear-groups "$plain" "$@"; }
qzhsm=as_user expect 0 '"state":"plain"' info --json "$fs/his"
qzhsm=as_user expect 1 'Failed to reach the recall service at .*: Permission denied' stub "$fs/his" --meta m
same "$fs/his" "$work/data"
setpriv --reuid=65534 --clear-groups "$service" "$fs" >"$work/out" 2>&1
[ $? -eq 1 ] && grep -q 'CAP_SYS_ADMIN' "$work/out" || fail "who may not serve: $(<"$work/out")"

# A time that is set meanwhile makes no part the whole.
head -c 1000 "$work/seen" | cmp -s - <(dd if="$fs/touched" bs=1000 count=1 status=none) || fail "the first piece"
touch -c -d @1000000000.5 "$fs/touched" # opens nothing
for _ in 1 2; do fails "$fs/touched" cat; done
expect 0 '"state":"changed stub"' info --json "$fs/touched"

# So is what comes through a descriptor from before.
cat "$fs/old" >/dev/null 2>&1 &
sleep 0.7
echo mine >&8
exec 8>&-
wait $!
stop
[ "$(tail -c 5 "$fs/old")" = mine ] || fail "an old descriptor's write is lost"
rm "$fs"/{old,seen,touched,his,a.sock.lock}

# Killed again and again, the worker or who watches over it.
processes() { for process in $(pgrep -x qzhsmd -r S,R,D); do grep -q "$fs" "/proc/$process/cmdline" && echo "$process"; done; }
rm -f "$fs"/?*[^d]
for ((i = 0; i < 50; i++)); do head -c $((RANDOM % 60 * 50000 + 20000)) /dev/urandom >"$fs/f$i"; done
mkdir "$work/copy" && cp -a "$fs"/f* "$work/copy"
for rules in 'recall = open' $'recall = range\nrangeFrom = 0'; do
    cp -a "$work/copy/." "$fs" && expect 0 '50 archived' archive --store "$store" "$fs"
    configure "$rules" && start
    "$stress" "$fs" "$work/copy" 4 >"$work/said" 2>&1 &
    stressed=$!
    kills=0
    while kill -0 $stressed 2>/dev/null; do
        sleep 0.0$((RANDOM % 50 + 10))
        mapfile -t processes < <(processes)
        [ ${#processes[@]} -eq 2 ] && kill -KILL "${processes[RANDOM % 2]}" && kills=$((kills + 1))
    done 2>/dev/null
    wait $stressed || fail "wrong bytes: $(<"$work/said")"
    grep -q ' 0 refused' "$work/said" && [ $kills -gt 1 ] || fail "$kills kills: $(<"$work/said")"
    for ((i = 0; i < 30; i++)); do same "$fs/f$i" "$work/copy/f$i"; done
    for process in $(processes); do kill -TERM "$process"; done
    for ((i = 0; i < 100; i++)); do [ -n "$(processes)" ] || break; sleep 0.05; done
done 2> >(grep -v Killed >&2)
finish
