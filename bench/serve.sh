#!/usr/bin/env bash
# What the recall service costs, beside the same work without it on a file system of its own, in turns; medians.
# serve.sh PATH-OF-QZHSM PATH-OF-QZHSMD PATH-OF-SERVE_BENCH [OPTION...] [PART...]
set -euo pipefail
usage() {
    cat <<'END'
usage: ./dev bench serve [OPTION...] [PART...]

Parts: first open second files many memory (without one: all of them)
Options: --rounds N   how often each side is timed (5)
         --big MIB    stubs of 1, 8, 64, ... MiB up to this one for first bytes (4096)
         --files N    small files to grep and to create (20000)
         --stubs N    stubs of 64 KiB for 8 readers (1000)
         --recalls N  recalls after which memory is looked at (100000)
         --accesses N accesses to files that are no stubs (1000000)
         --keep       leave the directory, $QZHSM_BENCH_DIR/qzhsm-serve.XXXXXX

With $QZHSM_BENCH_JSON each comparison is added to that file, as a line of JSON with the nanoseconds of each round.
END
}
skip() { echo "serve: skipped: $*" && exit 0; }
[ "$(id -u)" -eq 0 ] || skip "mounting and serving file systems needs root"
[ -n "${QZHSM_SERVE_NAMESPACE:-}" ] || QZHSM_SERVE_NAMESPACE=1 exec unshare --mount "$0" "$@"
qzhsm=$(readlink -f "$1") qzhsmd=$(readlink -f "$2") bench=$(readlink -f "$3")
shift 3
rounds=5 big=4096 files=20000 stubs=1000 recalls=100000 accesses=1000000 keep='' parts=()
while [ $# -gt 0 ]; do
    case $1 in
    --rounds | --big | --files | --stubs | --recalls | --accesses)
        [[ ${2:-} =~ ^[1-9][0-9]*$ ]] || { usage >&2 && exit 2; }
        declare "${1#--}=$2"
        shift
        ;;
    --keep) keep=1 ;;
    first | open | second | files | many | memory) parts+=("$1") ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift
done
[ ${#parts[@]} -gt 0 ] || parts=(first open second files many memory)

dir=$(mktemp -d "${QZHSM_BENCH_DIR:-${TMPDIR:-/tmp}}/qzhsm-serve.XXXXXX")
served=$dir/served bare=$dir/bare store=$dir/store service=''
export QZHSM_CONFIG=$dir/conf
fail() {
    echo "serve: $*" >&2
    exit 1
}
stop() {
    [ -n "$service" ] || return 0
    kill -TERM "$service"
    wait "$service" || fail "the service ended badly: $(tail -n 3 "$dir/log")"
    service=''
}
finish() {
    if [ -n "$service" ] && kill -TERM "$service" 2>/dev/null; then wait "$service" || true; fi
    umount "$served" "$bare" 2>/dev/null || true
    [ -n "$keep" ] || rm -rf "$dir"
}
trap finish EXIT
mkdir "$served" "$bare" "$dir/run" "$dir/origin"
for side in served bare; do
    truncate -s $((big * 2 + 4096))M "$dir/$side.image"
    mkfs.ext4 -q -N 200000 "$dir/$side.image" && mount -o loop "$dir/$side.image" "$dir/$side" ||
        skip "no ext4 can be mounted here"
done
configure() { printf '%s\n' '[Service]' "runtimeDirectory = $dir/run" "$@" >"$QZHSM_CONFIG"; }
configure
"$qzhsm" store create "$store"

start() {
    "$qzhsmd" "$served" >"$dir/said" 2>"$dir/log" &
    service=$!
    until grep -q '^qzhsmd: serving' "$dir/said"; do
        kill -0 "$service" 2>/dev/null || {
            service=''
            grep -qE 'pre-content events|CAP_SYS_ADMIN' "$dir/log" && skip "$(<"$dir/log")"
            fail "$(<"$dir/log")"
        }
        sleep 0.02
    done
}
# archived PATH: it, or all in it, are stubs; "$dir/objects" lists their objects. The service is a fresh one.
archived() {
    local object
    stop
    "$qzhsm" archive --store "$store" "$1" >"$dir/said" 2>&1 || fail "$(<"$dir/said")"
    find "$1" -type f -exec head -q -c 4096 {} + | grep -ao ';object=[^;]*' | cut -d= -f2 |
        while read -r object; do echo "$store/${object:0:2}/$object"; done >"$dir/objects"
    start
}
is_stub() { getfattr -n user.NkStubFile "$1" >/dev/null 2>&1; }
settled() { while is_stub "$1"; do sleep 0.05; done; }
# origin NAME BYTES: a file, and a copy of it on both file systems.
origin() {
    [ -e "$dir/origin/$1" ] || head -c "$2" /dev/urandom >"$dir/origin/$1"
    cp "$dir/origin/$1" "$served/$1"
}
timed() { # COMMAND...: prints the nanoseconds
    local began=${EPOCHREALTIME/./}
    "$@" >/dev/null || fail "$*"
    echo $(((${EPOCHREALTIME/./} - began) * 1000))
}
median() { sort -n <<<"$1" | awk '{ all[NR] = $1 } END { print all[int((NR + 1) / 2)] }'; }

# in_turns NAME TEXT GOAL PREPARE OURS BARE: three functions, of which the last two print nanoseconds. Tells their medians.
in_turns() {
    local with='' without='' i
    for ((i = 0; i < rounds; i++)); do
        "$4"
        if ((i % 2)); then without+=$("$6")$'\n' with+=$("$5")$'\n'; else with+=$("$5")$'\n' without+=$("$6")$'\n'; fi
    done
    tell "$1" "$2" "$3" "${with%$'\n'}" "${without%$'\n'}"
}
# tell NAME TEXT GOAL NANOSECONDS NANOSECONDS: of each round a line
tell() {
    printf '{"name": "%s", "ours_ns": [%s], "bare_ns": [%s]}\n' "$1" "${4//$'\n'/, }" "${5//$'\n'/, }" \
        >>"${QZHSM_BENCH_JSON:-/dev/null}"
    awk -v text="$2" -v goal="$3" -v ours="$(median "$4")" -v bare="$(median "$5")" 'BEGIN {
        printf "%-58s %10.3f ms %10.3f ms %8.2f  %s\n", text, ours / 1e6, bare / 1e6, ours / bare,
            goal == "" ? "" : ours / bare <= goal ? "goal " goal : "MISSED: goal " goal }'
}
nothing() { :; }
printf '%-58s %13s %13s %8s\n' '' 'served' 'bare' 'ratio'

# --- The first bytes of a range, beside 4 MiB of the object; it is not in the page cache ---

# cold OBJECT...: they leave the page cache, as what was archived long ago has.
cold() {
    local each
    for each in "$@"; do "$bench" forget "$each" >/dev/null; done
}

part_first() {
    local size object at least read
    configure 'recall = range' 'rangeFrom = 0'
    origin least $((4 << 20))
    archived "$served/least" && least=$(<"$dir/objects") # that has 4 MiB to read
    for ((size = 1; size <= big; size *= 8)); do
        origin "first$size" $((size << 20))
        again() { archived "$served/first$size" && object=$(<"$dir/objects"); }
        ours() {
            cold "$object"
            "$bench" first "$served/first$size" "$dir/origin/first$size" "$at"
            settled "$served/first$size"
        }
        theirs() {
            read=$object
            [ "$size" -ge 4 ] || read=$least
            cold "$read" && "$bench" piece "$read"
        }
        for at in 0 -4096; do
            in_turns "first/from:$at/MiB:$size" "first 4 KiB of $size MiB, from $at; 4 MiB of an object" 1.5 again ours theirs
        done
        rm "$served/first$size" "$dir/origin/first$size"
    done
    rm "$served/least"
}

# --- Whole before open returns ---

part_open() {
    local size at list
    configure
    for size in 1 64; do
        origin "open$size" $((size << 20))
        again() { rm -f "$bare/open$size" && archived "$served/open$size" && object=$(<"$dir/objects"); }
        ours() { "$at" "$object" && "$bench" read "$served/open$size" "$dir/origin/open$size"; }
        theirs() { "$at" "$object" && "$bench" copy "$object" "$bare/open$size"; }
        flushed() { "$at" "$object" && timed sh -c 'cp "$0" "$1" && sync "$1" && cat "$1"' "$object" "$bare/open$size"; }
        at=cold
        in_turns "open/MiB:$size" "open, read, close $size MiB; copy of the object, and read" 1.2 again ours theirs
        in_turns "open/flushed/MiB:$size" "  the same; cp, sync, cat" '' again ours flushed
        at=nothing
        in_turns "open/cached/MiB:$size" "  the same as the first, the object cached" '' again ours theirs
    done
    tree() {
        rm -rf "$served/tree" && mkdir -p "$served/tree"
        for ((i = 0; i < 16; i++)); do cp "$dir/origin/open1" "$served/tree/$i"; done
        archived "$served/tree"
    }
    objects() { mapfile -t list <"$dir/objects" && "$at" "${list[@]}"; }
    ours() { objects && timed sh -c 'cat "$0"/*' "$served/tree"; }
    theirs() { objects && timed xargs cat <"$dir/objects"; }
    at=cold
    in_turns open/tree "cat of 16 stubs of 1 MiB; cat of their objects" 1.2 tree ours theirs
    at=nothing
    in_turns open/cached/tree "  the same, the objects cached" '' tree ours theirs
}

part_second() {
    configure
    origin second $((64 << 20))
    archived "$served/second"
    cp "$dir/origin/second" "$bare/second"
    cat "$served/second" >/dev/null && settled "$served/second"
    ours() { "$bench" read "$served/second"; }
    theirs() { "$bench" read "$bare/second"; }
    in_turns second "second access, 64 MiB" 1.05 nothing ours theirs
}

# --- Files that never were stubs ---

part_files() {
    local side
    configure
    stop
    start
    again() { for side in served bare; do rm -rf "$dir/$side/new" && mkdir "$dir/$side/new"; done; }
    ours() { "$bench" create "$served/new" "$files"; }
    theirs() { "$bench" create "$bare/new" "$files"; }
    in_turns files/create "$files files created and written" 1.8 again ours theirs
    again
    stop
    "$bench" create "$served/new" "$files" >/dev/null && "$bench" create "$bare/new" "$files" >/dev/null
    start
    grep_in() { timed sh -c '! grep -rq nothing "$0"' "$dir/$1/new"; }
    tell files/grep-first "grep -r over $files small files, first time" '' "$(grep_in served)" "$(grep_in bare)"
    ours() { grep_in served; }
    theirs() { grep_in bare; }
    in_turns files/grep "grep -r over $files small files, later" 1.1 nothing ours theirs
    rm -rf "$served/new" "$bare/new"
}

# --- Many stubs, many readers ---

fill_many() { # COUNT BYTES
    local i
    rm -rf "$served/many" && mkdir "$served/many"
    for ((i = 0; i < $1; i++)); do head -c "$2" /dev/urandom >"$served/many/$i"; done
}

part_many() {
    local time workers
    fill_many "$stubs" 65536
    again() {
        archived "$served/many"
        rm -rf "$bare/many" "$dir/links" && mkdir "$bare/many" "$dir/links"
        xargs ln -s -t "$dir/links" <"$dir/objects"
    }
    ours() { "$bench" many 8 "$served/many" | tee "$dir/time"; }
    theirs() { "$bench" many 8 "$dir/links" "$bare/many"; }
    for workers in 1 4 16; do
        configure "workers = $workers"
        in_turns "many/workers:$workers" "$stubs stubs of 64 KiB, 8 readers, $workers at once; copies" '' again ours theirs
        time=$(<"$dir/time")
        echo "  $((stubs * 1000000000 / time)) stubs a second in the last round"
    done
    rm -rf "$served/many" "$bare/many"
}

# --- What is left behind ---

worker() { pgrep -P "$service" -x qzhsmd; }
# What the worker holds: KiB of memory, descriptors of both processes (who share them), and marks on inodes.
holding() {
    local pid
    pid=$(worker)
    echo "$(awk '/^VmRSS/ { print $2 }' "/proc/$pid/status") $(find "/proc/$pid/fd" -type l | wc -l)" \
        "$(cat "/proc/$pid/fdinfo/"* 2>/dev/null | grep -c '^fanotify ino:' || true)"
}
recalled() { "$qzhsm" status --json | grep -o '"recalled":[0-9]*' | cut -d: -f2; }
# look TEXT: what it holds, after it has settled.
look() {
    sleep 0.5
    read -r memory descriptors marks < <(holding)
    printf '%-58s %10d KiB %6d descriptors %6d marks on files\n' "$1" "$memory" "$descriptors" "$marks"
}

part_memory() {
    local batch=1000 done=0 first_memory='' first_descriptors=0 i step
    recalls=$(((recalls + 999) / 1000 * 1000))
    step=$((recalls < 5000 ? 1000 : recalls / 5000 * 1000))
    configure
    fill_many $batch 16384 # a stub has two blocks
    stop
    start
    while [ $done -lt "$recalls" ]; do
        for ((i = 0; i < 100; i++)); do # what is recalled is closed a little later
            "$qzhsm" archive --store "$store" "$served/many" >"$dir/archived" 2>&1 && break
            sleep 0.1
        done
        "$bench" many 8 "$served/many" >/dev/null
        done=$((done + batch))
        for ((i = 0; i < 100; i++)); do [ "$(recalled)" -lt $done ] || break; sleep 0.1; done
        [ "$(recalled)" -eq $done ] || fail "$(recalled) recalls, not $done"
        ((done % step == 0)) || continue
        look "after $done recalls"
        [ -n "$first_memory" ] || first_memory=$memory first_descriptors=$descriptors
    done
    mkdir -p "$served/churn"
    for ((i = 1; i <= 4; i++)); do
        "$bench" churn "$served/churn" $((accesses / 4)) >/dev/null
        look "after $((accesses / 4 * i)) accesses to files that are no stubs"
    done
    rm -rf "$served/many" "$served/churn"
    look "after all files were removed"
    [ "$descriptors" -le "$first_descriptors" ] || fail "descriptors were left behind"
    [ "$marks" -le 1 ] || fail "marks were left behind"
    [ "$memory" -le $((first_memory + first_memory / 10)) ] || fail "memory grew from $first_memory to $memory KiB"
}

for part in "${parts[@]}"; do "part_$part"; done
stop
