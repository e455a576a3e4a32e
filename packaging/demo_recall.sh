#!/usr/bin/env bash
# Stubs that come back when they are read: demo_recall.sh PATH-OF-QZHSM PATH-OF-QZHSMD PATH-OF-DEMO_MAP [DIRECTORY]
# On an ext4 of its own in a file, in a mount namespace of its own. As root.
set -euo pipefail
[ "$(id -u)" -eq 0 ] || {
    echo "demo recall mounts a file system of its own and serves it: run it as root (sudo ./dev demo recall)" >&2
    exit 1
}
[ -n "${QZHSM_DEMO_NAMESPACE:-}" ] || QZHSM_DEMO_NAMESPACE=1 exec unshare --mount "$0" "$@"
qzhsm=$(readlink -f "$1") qzhsmd=$(readlink -f "$2") map=$(readlink -f "$3")
dir=$(mktemp -d "${4:-${TMPDIR:-/tmp}}/qzhsm-demo.XXXXXX")
service=''
finish() {
    if [ -n "$service" ] && kill -TERM "$service" 2>/dev/null; then wait "$service" || true; fi
    cd /
    umount "$dir/data" 2>/dev/null || true
    rm -rf "$dir"
}
trap finish EXIT
cd "$dir"
mkdir run data kept
export QZHSM_CONFIG=$dir/conf
exec 2>&1

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }
# The command as it would be typed; what it is called with here has long paths.
show() { printf '$ %s\n' "$1"; }
run() {
    local shown="${*//"$dir/"/}"
    show "${shown//"$qzhsm"/qzhsm}"
    "$@"
}
fail() {
    say "$*"
    exit 1
}
configure() { printf '%s\n' '[Service]' "runtimeDirectory = $dir/run" "$@" >conf; }
# start: its first line tells that readers wait from now on.
start() {
    "$qzhsmd" data >said 2>log &
    service=$!
    until grep -q '^qzhsmd: serving' said; do
        kill -0 $service 2>/dev/null || fail "The service does not start: $(<log)"
        sleep 0.05
    done
}
timed() { # COMMAND...
    show "time $* >/dev/null"
    local began=${EPOCHREALTIME/./}
    "$@" >/dev/null
    echo "$(((${EPOCHREALTIME/./} - began) / 1000)) ms"
}
is_same() { cmp -s "$1" "kept/${2:-$(basename "$1")}" || fail "$1 differs from what was archived"; }
is_stub() { "$qzhsm" info --json "$1" | grep -q '"stub":true'; }
room() { df -h --output=used,avail,target data | sed "s|$dir/||"; }

configure
say "An ext4 with real files, and a store beside it"
truncate -s 600M image
mkfs.ext4 -q image
mount -o loop image data
cp "$(command -v bash)" data/program
for name in film map cut big song; do head -c $((48 << 20)) /dev/urandom >data/$name; done
mkdir data/notes
for ((i = 1; i <= 40; i++)); do
    { echo "needle $i" && head -c 60000 /dev/urandom | base64; } >"data/notes/$i.txt"
done
for name in sparse tarred; do # data between holes
    truncate -s 32M data/$name
    for at in 0 9 31; do head -c 300000 /dev/urandom | dd of=data/$name bs=1M seek=$at conv=notrunc status=none; done
done
cp -a data/. kept
run "$qzhsm" store create "$dir/store"
room

say "All of them become stubs"
run "$qzhsm" archive --store "$dir/store" -j 2 data
sync data
room
run ls -ls data/film data/notes/7.txt

say "The service starts"
show "qzhsmd data"
start
cat said

say "cat, grep -r, cp --sparse=always, tar -S, a program that maps the file, and a program that was a stub itself"
show "cat data/film | sha256sum"
sha256sum <data/film
is_same data/film
show "grep -rc '^needle' data/notes | wc -l"
[ "$(grep -rl '^needle' data/notes | tee found | wc -l)" -eq 40 ] || fail "grep did not find all"
wc -l <found
run cp --sparse=always data/sparse copied
is_same copied sparse
run tar -S -C data -cf copied.tar tarred
tar -xOf copied.tar tarred | cmp -s - kept/tarred || fail "tar saved something else"
show "demo_map data/map | sha256sum"
"$map" data/map | sha256sum | tee sum
[ "$(<sum)" = "$(sha256sum <kept/map)" ] || fail "The mapping differs"
run data/program -c 'echo "a program, recalled as it was started"'

say "What a user does wins: a stub that is overwritten is an ordinary file, and costs no recall"
echo "a new text" >data/cut
run "$qzhsm" info data/cut

say "At most 24 MiB a second from now on, and the worker is killed in the middle of a recall"
configure 'bandwidth = 24M' 'rangePrograms = head tail' 'rangeFrom = 1M'
kill -HUP $service
sleep 0.3
show "cat data/big | sha256sum &"
sha256sum <data/big >sum &
reader=$!
sleep 0.8
worker=$(pgrep -P $service -x qzhsmd)
show "kill -KILL $worker    # the worker"
kill -KILL "$worker"
sleep 0.3
! "$qzhsm" --help | grep -q '^ *status ' || run "$qzhsm" status
wait $reader || fail "The reader failed"
cat sum
[ "$(<sum)" = "$(sha256sum <kept/big)" ] || fail "The reader got something else"

say "The first and the last bytes of 48 MiB do not wait for the rest"
timed tail -c 1000 data/song
timed head -c 1000 data/song
is_stub data/song && echo "and data/song is still being recalled"
for end in head tail; do
    $end -c 1000 data/song | cmp -s - <($end -c 1000 kept/song) || fail "The $end differs"
done
timed cat data/song
is_same data/song

say "The log"
sed "s|$dir/||g" log | grep -v notes/ # grep -r has caused many

say "The service ends"
kill -TERM $service
wait $service || fail "It ended with an error"
service=''
(cd kept && find . -type f ! -name cut) | while read -r name; do is_same "data/$name" "$name"; done
say "Byte for byte the same."
