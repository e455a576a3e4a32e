#!/usr/bin/env bash
# FS_TYPE=... limits.sh QZHSM QZHSMD USERS: nobody who reads or holds files takes the recall service away from others.
# shellcheck source=tests/tools/qzhsmd/common.sh
. "$(dirname "$0")/common.sh"
users=$3

# Whoever holds a lease on a file, which takes whoever opens it 45 seconds to break, holds nobody else up.
echo other >"$fs/other"
start
# leases WORD FILE: by $leaser.
leases() {
    rm -f "$work/leased"
    "$users" "$@" >"$work/leased" &
    leaser=$!
    for ((i = 0; i < 100; i++)); do grep -q leased "$work/leased" 2>/dev/null && return; sleep 0.05; done
    fail "no lease"
}
leases lease "$fs/leased"
timeout -s KILL 5 cat "$fs/leased" 2>"$work/said" && fail "a leased file was opened"
grep -q 'Operation not permitted' "$work/said" || fail "to open a leased file: $(<"$work/said")"
[ "$(timeout -s KILL 5 cat "$fs/other")" = other ] || fail "a lease holds others up"
kill $leaser
stop

# Nor does whoever locks or leases a stub, whose readers wait for that in the queue.
archived "$fs"/{locked,shared,free,kept}
configure "rangePrograms = bash service_users" 'rangeFrom = 1M' 'workers = 1'
start
(exec 8<"$fs/locked" && flock -s 8 && exec sleep 60) &
locker=$!
while [ "$(cat /proc/$locker/comm)" != sleep ]; do sleep 0.01; done
leases share "$fs/shared"
readers=()
for file in locked shared; do
    cat "$fs/$file" >"$work/$file" &
    readers+=($!)
done
sleep 0.5
timeout -s KILL 5 cat "$fs/free" | cmp -s - "$work/data" || fail "a lock or a lease holds others up"
tells 'stubs in the queue +2' # but for the one that the worker just tries
pkill -KILL -P "$served" && sleep 1.5 # the next one knows who waits, and that none of them holds the file
kill $locker $leaser
wait "${readers[@]}"
for file in locked shared; do same "$work/$file" "$work/data"; done

# A worker that is killed takes no request along.
worker=$(pgrep -P "$served")
strace -qq -f -o /dev/null -p "$worker" -e inject=sendmsg:signal=SIGKILL:when=2 &
until grep -q 'TracerPid:.*[1-9]' "/proc/$worker/status"; do sleep 0.05; done
cp "$work/data" "$fs/told"
timeout 20 "$qzhsm" archive --store "$store" "$fs/told" || fail "a request that a worker had read is lost"
kill -0 "$worker" 2>/dev/null && fail "no worker was killed"
cmp "$fs/told" "$work/data" || fail "a file that the next worker was told of"

# Who truncates files by their paths, and does not come to run for a while, is not overtaken by whoever archives them.
for ((i = 0; i < 20; i++)); do head -c 65536 "$work/data" >"$fs/cut$i"; done
expect 0 '' archive --store "$store" "$fs"/cut*
taskset -c 0 sh -c 'while :; do :; done' & hog=$!
timeout 60 "$users" cut 100 "$fs"/cut* & cutter=$!
while kill -0 $cutter 2>/dev/null; do "$qzhsm" archive --store "$store" "$fs"/cut* &>/dev/null; done
kill $hog
wait $cutter || fail "files were not truncated"
for ((i = 0; i < 20; i++)); do cmp -s "$fs/cut$i" <(head -c 100 "$work/data") || fail "what was truncated to 100 bytes: $("$qzhsm" info "$fs/cut$i" | tail -n 1)"; done

# Nor is anything truncated for somebody who may not.
"$users" truncate "$fs/kept" || { [ $? -eq 77 ] && echo 'skipped: no landlock here'; } || fail "a file that must not be truncated was"
timeout -s KILL 5 cmp "$fs/kept" "$work/data" || fail "a stub that somebody tried to truncate"
stop

# Programs are known by their own name as by that of the thread which reads. Who must not cause recalls may truncate.
archived "$fs"/{refused,new,ranged}
configure 'refusePrograms = indexer bash' 'rangePrograms = player' 'rangeFrom = 0' 'bandwidth = 1'
start
fails "$fs/refused" timeout -s KILL 5 "$users" thread indexer pool
logged 'refused indexer ('
echo mine >"$fs/new" || fail "a refused program cannot truncate"
fails "$fs/refused" timeout -s KILL 5 "$users" thread other bash
[ "$(<"$fs/new")" = mine ] || fail "a refused program's own data"
timeout -s KILL 5 "$users" thread player opener "$fs/ranged" || fail "a thread waits for more than its range"
stop

# A recall whose reader was killed makes way for others.
for ((i = 0; i < 8; i++)); do cat "$work/data"; done >"$fs/large"
archived "$fs/small" && expect 0 '' archive --store "$store" "$fs/large"
configure 'bandwidth = 2M' 'workers = 1'
start
cat "$fs/large" >/dev/null &
reader=$!
logged "recalling $fs/large"
kill -KILL $reader && wait $reader 2>/dev/null
timeout -s KILL 6 cmp "$fs/small" "$work/data" & reader=$!
logged "recalling $fs/small"
sleep 0.3
[ "$(find "/proc/$served/fd" -lname "$store/*/*" | wc -l)" = 1 ] || fail "a recall that is left holds what it needs to read"
wait $reader || fail "a recall for a killed reader holds others up"
stop

# So does one that was waiting itself, and loses nothing by it.
archived "$fs"/{first,left,last}
start
cat "$fs/first" >/dev/null &
logged "recalling $fs/first"
cat "$fs/left" >/dev/null & reader=$!
sleep 0.2
cmp "$fs/last" "$work/data" & last=$!
sleep 0.2
kill -KILL $reader
wait $last || fail "the last of three"
logged "recalled $fs/left"
same "$fs/left" "$work/data"
stop

# A store that does not answer holds up the end of the service, and nobody else.
cat >"$work/get" <<'END'
#!/bin/sh
until [ -e "$0.go" ]; do sleep 0.05; done
cat "$1"
END
chmod +x "$work/get" && mkdir "$work/slow"
configure '[Store/slow]' "put = sh -c 'mkdir -p \"\${1%/*}\" && cat >\"\$1\"' - $work/slow/{object}" "get = $work/get $work/slow/{object}" "remove = rm $work/slow/{object}"
cp "$work/data" "$fs/hung" && expect 0 '' archive --store slow "$fs/hung"
start
timeout 10 cat "$fs/hung" >/dev/null 2>"$work/said" & reader=$!
logged "recalling $fs/hung"
kill -TERM "$served"
wait $reader
grep -q 'Input/output error' "$work/said" || fail "a reader at the end of the service: $(<"$work/said")"
touch "$work/get.go"
stop

# The bandwidth counts data, not holes, also where the text of the stub cannot be kept meanwhile.
for ((i = 0; i < 8; i++)); do cat "$work/data"; done >"$fs/unkept"
cp "$work/data" "$fs/sparse" && truncate -s 200M "$fs/sparse"
expect 0 '' archive --store "$store" "$fs"/{unkept,sparse}
for size in {4000..300..50}; do
    setfattr -n user.fill -v "$(head -c $size /dev/zero | tr '\0' x)" "$fs/unkept" 2>/dev/null && break
done
configure 'bandwidth = 2M' 'workers = 2'
start
timeout -s KILL 2 cat "$fs/unkept" >/dev/null 2>&1 && fail "24 MB came in 2 s"
timeout -s KILL 10 cat "$fs/sparse" >/dev/null || fail "holes are charged as data"
stop

# More readers than the service has descriptors: those that it has no room for get an I/O error, no other one, and the
# others their data, as soon as the limit that held them up is lifted.
head -c 9000 "$work/data" >"$work/small"
for ((i = 0; i < 240; i++)); do cp "$work/small" "$fs/many$i"; done
expect 0 '240 archived' archive --store "$store" "$fs"/many*
configure 'bandwidth = 1'
ulimit -n 400
start
readers=()
for ((i = 0; i < 240; i++)); do
    timeout -s KILL 20 cat "$fs/many$i" &>"$work/many$i" &
    readers+=($!)
done
logged 'too many others wait'
sleep 0.5
configure
kill -HUP "$served"
wait "${readers[@]}"
served_well=0
for ((i = 0; i < 240; i++)); do
    if cmp -s "$work/many$i" "$work/small"; then
        served_well=$((served_well + 1))
    else
        grep -q 'Input/output error' "$work/many$i" || fail "reader $i: $(<"$work/many$i")"
        cat "$fs/many$i" | cmp -s - "$work/small" || fail "reader $i, once more"
    fi
done
[ $served_well -gt 50 ] || fail "only $served_well were served"
stop
finish
