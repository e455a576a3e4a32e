#!/usr/bin/env bash
# pair.sh QZHSM QZHSMD: the service's processes, where one of them dies, cannot be started, or is told to end.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/../qzhsm/common.sh"
service=$2 store=$work/store run=$work/run
mkdir "$run"
export QZHSM_CONFIG=$work/conf
configure() { printf '%s\n' '[Service]' "runtimeDirectory = $run" "$@" >"$QZHSM_CONFIG"; }
configure
truncate -s 100M "$work/image" && mkfs.ext4 -q "$work/image" && mount -o loop "$work/image" "$fs"
expect 0 '^$' store create "$store"
echo plain >"$fs/plain"

served=
# start [DIR...]: the service, and waits until its standby is there.
start() {
    "$service" "${@:-$fs}" >"$work/out" 2>"$work/log" &
    served=$!
    eventually 'the service starts' standby || finish
}
worker() { pgrep -P "$served"; }
standby() { pgrep -x qzhsmd-standby -s 0 >"$work/standby"; }
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
archived() {
    local file
    for file in "$@"; do cp "$work/data" "$file" && touch -d @1000000000 "$file"; done
    expect 0 '' archive --store "$store" "$@"
}
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
trap 'umount -R "$work"; rmdir "$work" "$group"' EXIT
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
finish
