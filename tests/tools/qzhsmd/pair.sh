#!/usr/bin/env bash
# pair.sh QZHSM QZHSMD MANAGER: the service's processes, where one of them dies, cannot be started, or is told to end.
export FS_TYPE=ext4
# shellcheck source=tests/tools/qzhsmd/common.sh
. "$(dirname "$0")/common.sh"
manager=$3
echo plain >"$fs/plain"

# start [DIR...]: the service, and waits until its standby is there.
start() {
    "$service" "${@:-$fs}" >"$work/out" 2>"$work/log" &
    served=$!
    eventually 'the service starts' standby || finish
}
# alive NAME: the service's processes of that name, one a line, if there are any.
alive() {
    local process status=1
    for process in $(pgrep -r S,R,D,T -x "$1"); do
        grep -q "$fs" "/proc/$process/cmdline" && echo "$process" && status=0
    done
    return $status
}
worker() { alive qzhsmd | grep -vx "$served"; }
standby() { alive qzhsmd-standby >"$work/standby"; }
# kill_all NAME...: at once, before one can take another's place.
kill_all() {
    local processes
    mapfile -t processes < <(for name in "$@"; do alive "$name"; done)
    [ ${#processes[@]} -eq 0 ] || { kill -STOP "${processes[@]}" && kill -KILL "${processes[@]}"; }
}
# eventually WHAT COMMAND...
eventually() {
    for ((i = 0; i < 200; i++)); do
        "${@:2}" 2>/dev/null && return
        sleep 0.05
    done
    fail "not so within 10 s: $1: $(<"$work/log")"
    return 1
}
# ends: the service does, with status 0, and nothing is left of it.
ends() {
    timeout 10 tail --pid="$served" -f /dev/null || fail "the service does not end, line ${BASH_LINENO[0]}"
    wait "$served"
    local got=$?
    [ $got -eq 0 ] || fail "the service ended with $got, line ${BASH_LINENO[0]}: $(<"$work/log")"
    eventually 'the standby ends' eval '! standby'
}
stop() { kill -TERM "$served" && ends; }
# refuses FILE: who opens the stub gets an I/O error, and does not wait; others read.
refuses() {
    local said
    said=$(timeout 10 cat "$fs/$1" 2>&1 >/dev/null)
    [[ $said == *'Input/output error'* ]] || fail "$1, line ${BASH_LINENO[0]}: $said"
    [ "$(timeout 10 cat "$fs/plain")" = plain ] || fail "a plain file, line ${BASH_LINENO[0]}"
}
reads() { timeout 10 cmp -s "$fs/$1" "$work/data" || fail "$1 cannot be read, line ${BASH_LINENO[0]}: $(<"$work/log")"; }

# A worker or its threads cannot be started: readers of stubs get an error, all others go on, signals are heeded.
group=/sys/fs/cgroup/pids/qzhsmd-test.$$
[ -d /sys/fs/cgroup/pids ] || group=/sys/fs/cgroup/qzhsmd-test.$$
mkdir "$group" && [ -f "$group/pids.max" ] || { echo 'skipped: no limit for processes here' && exit 77; }
trap 'kill_all qzhsmd qzhsmd-standby; umount -R "$work"; rmdir "$work" "$group"' EXIT
archived "$fs"/{threads,processes}
start
for process in "$served" "$(worker)" "$(<"$work/standby")"; do echo "$process" >"$group/cgroup.procs"; done
limits=(threads 3 processes 2)
for ((at = 0; at < 4; at += 2)); do
    echo "${limits[at + 1]}" >"$group/pids.max"
    kill -KILL "$(worker)"
    refuses "${limits[at]}"
    echo max >"$group/pids.max"
    eventually "a worker is started" eval "worker >/dev/null"
    reads "${limits[at]}"
done
echo 2 >"$group/pids.max"
kill -KILL "$(worker)"
stop

# A worker that crashes again and again, if not at once.
archived "$fs/crash"
configure 'bandwidth = 100K' && start
(refuses crash; exit $failures) & reader=$!
for ((crash = 0; crash < 5; crash++)); do
    sleep 1.1
    kill -SEGV "$(worker)"
done
wait $reader || failures=$((failures + 1))
stop

# A worker that dies after it was told to end.
configure && start
kill -STOP "$(worker)" && kill -TERM "$served" && sleep 0.2 && kill -KILL "$(worker)"
ends

# The program, its library and its configuration lie on the file system that is served. The supervisor and the worker may die at
# once, or one after the other.
archived "$fs"/{own,both}
cp "$service" "$QZHSM_CONFIG" "$(ldd "$service" | awk '/libqzhsm/ { print $3 }')" "$fs"
LD_LIBRARY_PATH=$fs service=$fs/qzhsmd QZHSM_CONFIG=$fs/conf start
served=$(<"$work/standby")
kill_all qzhsmd
reads both
eventually 'there is another standby' eval 'standby && [ "$(<"$work/standby")" != "$served" ]'
kill -KILL "$(worker)"
reads own
[ "$(timeout 10 cat "$fs/plain")" = plain ] || fail "a plain file"
kill -TERM "$served"
eventually 'all processes end' eval '! alive qzhsmd && ! standby' >/dev/null

# The numbers of two file systems, and of the subvolumes of one.
mkdir "$work/other" && truncate -s 120M "$work/image2"
if mkfs.btrfs -q "$work/image2" >/dev/null && mount -o loop "$work/image2" "$work/other"; then
    btrfs -q subvolume create "$work/other/one" && btrfs -q subvolume create "$work/other/two"
    start "$fs" "$work/other/one"
    timeout 5 "$service" "$work/other/two" >"$work/said" 2>&1
    [ $? -eq 1 ] && grep -q 'served already' "$work/said" || fail "the same btrfs: $(<"$work/said")"
    [ "$("$qzhsm" status | grep -c 'stubs recalled')" = 1 ] || fail "status: $("$qzhsm" status)"
    stop
else
    echo 'skipped: no btrfs here'
fi

# A service that starts while tools run, and the other way round: nobody waits, and the tool tells what it stubs.
cat >"$work/put" <<'END'
#!/bin/sh
mkdir -p "$(dirname "$1")" && cat >"$1" && : >"$0.began"
until [ -e "$0.go" ]; do sleep 0.05; done
END
chmod +x "$work/put"
configure '[Store/slow]' "put = $work/put $work/slow/{object}" "get = cat $work/slow/{object}" "remove = rm $work/slow/{object}"
# slow FILE: a run that archives it waits for its store.
slow() {
    rm -f "$work"/put.*
    cp "$work/data" "$1" && touch -d @1000000000 "$1"
    "$qzhsm" archive --store slow "$1" 2>"$work/said" & archive=$!
    eventually 'an archiving run waits for its store' [ -e "$work/put.began" ]
}
goes_on() {
    touch "$work/put.go"
    wait $archive || fail "archive: $(<"$work/said")"
    expect 0 '"state":"stub"' info --json "$1"
    reads "${1##*/}"
}
slow "$fs/late"
start
cat "$fs/late" >/dev/null # from now on the kernel does not ask about it
goes_on "$fs/late"
stop

# Under a service manager, when all processes die: who waits goes on waiting, although a tool runs, and what is no
# longer named is let go.
archived "$fs/parked"
cp "$work/data" "$fs/ignored"
umount "$work/other" 2>/dev/null
mkfs.ext4 -qF "$work/image2" && mount -o loop "$work/image2" "$work/other"
"$manager" "$work/ready" "$work/again" "$service" "$fs" "$work/other" >"$work/out" 2>"$work/log" & served=$!
eventually 'the group is parked' eval '[ -e "$work/ready" ] && standby'
slow "$fs/later"
cat "$fs/ignored" >/dev/null # the kernel does not ask about it, whoever runs
kill_all qzhsmd qzhsmd-standby
expect 1 'The recall service at .* has died' archive --store "$store" "$fs/ignored"
reads ignored
timeout 20 cmp "$fs/parked" "$work/data" & reader=$!
touch "$work/again"
wait $reader || fail "a reader from before: $(<"$work/log")"
goes_on "$fs/later"
grep -q "no longer serving $work/other" "$work/log" && [ "$(cat /proc/$served/fdinfo/* | grep -c '^fanotify sdev')" = 1 ] ||
    fail "what is no longer named is marked: $(cat /proc/$served/fdinfo/* | grep fanotify)"
stop
finish
