# shellcheck shell=bash
# What the service's tests share: FS_TYPE=... SCRIPT QZHSM QZHSMD PROGRAM.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/../qzhsm/common.sh"
grep -qw "$FS_TYPE" /proc/filesystems && command -v "mkfs.$FS_TYPE" >/dev/null ||
    { echo "skipped: no $FS_TYPE here" && exit 77; }
service=$2 store=$work/store run=$work/run
mkdir "$run"
export QZHSM_CONFIG=$work/conf
# configure LINE...: the section [Service].
# shellcheck disable=SC2120 # not every test has a line of its own
configure() { printf '%s\n' '[Service]' "runtimeDirectory = $run" "$@" >"$QZHSM_CONFIG"; }
configure
truncate -s 400M "$work/image" && mkfs."$FS_TYPE" -q "$work/image" && mount -o loop "$work/image" "$fs"
expect 0 '^$' store create "$store"

served=
start() {
    : >"$work/out"
    "$service" "$fs" >"$work/out" 2>"$work/log" &
    served=$!
    for ((i = 0; i < 400; i++)); do
        grep -q "^qzhsmd: serving $fs$" "$work/out" && return
        sleep 0.05
    done
    fail "the service does not start: $(<"$work/log")"
}
stop() {
    kill -TERM "$served"
    wait "$served"
    local got=$?
    [ $got -eq 0 ] || fail "the service ended with $got: $(<"$work/log")"
}
# archived FILE...: they hold the data, and are stubs.
archived() {
    local file
    for file in "$@"; do cp "$work/data" "$file" && touch -d @1000000000.5 "$file"; done
    expect 0 '' archive --store "$store" "$@"
}
# fails FILE [PROGRAM...]: to read it is an I/O error.
fails() {
    local said
    said=$("${@:2}" "$1" 2>&1 >/dev/null) && fail "no error, line ${BASH_LINENO[0]}"
    [[ $said == *'Input/output error'* ]] || fail "line ${BASH_LINENO[0]}: $said"
}
# logged TEXT: the service tells that, perhaps a moment later.
logged() {
    for ((i = 0; i < 60; i++)); do
        grep -q "$1" "$work/log" && return
        sleep 0.05
    done
    fail "the log lacks '$1'"
}
# tells PATTERN: `qzhsm status` does, perhaps a moment later.
tells() {
    for ((i = 0; i < 60; i++)); do
        grep -qE "$1" <<<"$("$qzhsm" status)" && return
        sleep 0.05
    done
    fail "the status lacks '$1': $("$qzhsm" status)"
}
# is_plain FILE: it is no stub any more, and has its time. Readers may be a flush ahead of that.
is_plain() {
    for ((i = 0; i < 60; i++)); do
        [ -z "$(getfattr -d --absolute-names "$1" | grep -E 'NkStubFile|TSTUB')" ] && break
        sleep 0.05
    done
    [ -z "$(getfattr -d --absolute-names "$1" | grep -E 'NkStubFile|TSTUB')" ] || fail "still a stub: $1"
    [ "$(stat -c %.9Y "$1")" = 1000000000.500000000 ] || fail "time of $1: $(stat -c %y "$1")"
}
