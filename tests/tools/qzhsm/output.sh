#!/usr/bin/env bash
# What the tool writes: names of any bytes, lists for programs and lines for people, on terminals and closed pipes,
# and how it tells of slips and of a lack of memory.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
store=$work/store
"$qzhsm" store create "$store"
on tmpfs
rm "$f"
for ((byte = 1; byte < 256; byte++)); do
    [ $byte = 47 ] || head -c 9000 "$work/data" >"$fs/$(printf '%bn' "\\x$(printf %x $byte)")"
done
all() { find "$fs" -type f -print0 | sort -z; }
lists() { # ARG...: the list that the tool writes has all names, unharmed
    cmp -s <(all) <("$qzhsm" "$@" 2>"$work/said" | sort -z) || fail "qzhsm $*: $(head -1 "$work/said")"
}
paths() { sed -z 's/^[^/]*//' | sort -z; }
lists archive -z --dry-run --store "$store" "$fs"
lists archive -z -j 2 --store "$store" "$fs"
lists scan --stubs -z "$fs"
cmp -s <(all) <(all | "$qzhsm" info -0z 2>/dev/null | paths) || fail 'info -z'
cmp -s <(all) <(all | "$qzhsm" stat -0z 2>/dev/null | paths) || fail 'stat -z'
decoded=$("$qzhsm" info --json "$fs"/$'\xffn' | sed 's/.*"pathBytes":"//; s/".*//; s/%/\\x/g')
[ "$(printf %b "$decoded")" = "$fs"/$'\xffn' ] || fail "JSON has $decoded"
[[ $("$qzhsm" scan --stubs --json "$fs" | grep -c pathBytes) = 128 ]] || fail 'names that are no UTF-8, in JSON'
# Progress, which a slow program shows, takes its own line away.
for form in '' --json; do
    said=$(script -qec "'$plain' scan $form --stubs '$fs'; '$plain' stub $fs/* --meta m" /dev/null | sed 's/\x1b\[K//g' | tr -d '\r\n')
    grep -qaP '[\x00-\x1f\x7f-\xff]' <<<"$said" && fail "controls on a terminal"
done
lists recall -z -j 2 "$fs"

# A reader who has had enough ends a list without a word, and no work.
exec 8> >(:) && wait $!
"$qzhsm" info "$fs"/* 2>"$work/said" >&8
[ $? -eq 1 ] && [ ! -s "$work/said" ] || fail "a closed pipe: $(head -1 "$work/said")"
timeout 20 "$qzhsm" scan -j 4 "$fs" 2>"$work/said" >&8
[ $? -eq 1 ] && [ ! -s "$work/said" ] || fail "a scan into a closed pipe: $(head -1 "$work/said")"
"$qzhsm" archive --json --store "$store" "$fs" 2>"$work/said" >&8
[ $? -eq 1 ] && grep -q '^qzhsm: 254 archived, 0 left alone, 0 failed' "$work/said" || fail "archiving into a closed pipe"
exec 8>&-
rm "$fs"/* && fresh && cp "$f" "$fs/g"

expect 0 '^qzhsm: 2 done, 0 left alone, 0 failed$' set-times --atime 5 --mtime 5 "$f" "$fs/g"
[ -z "$("$qzhsm" set-times -q --atime 5 --mtime 5 "$f" "$fs/g" 2>&1)$("$qzhsm" scan -q "$fs")" ] || fail "not quiet"
expect 1 '^qzhsm: 1 done, 0 left alone, 1 failed$' info "$f" "$fs/missing"
slow="strace -qq -o /dev/null -e inject=getxattr,lgetxattr:delay_enter=120000 '$plain'"
printf '%s\0' "$f" "$f" "$f" >"$work/list"
for run in "info $f $f $f" "info -0 <$work/list" "scan $f $f $f"; do
    [[ $(script -qec "$slow $run" /dev/null) == *'2 of 3 files, 1 left'* ]] || fail "no progress: $run"
done
[[ $(script -qec "$slow info -q $f $f $f" /dev/null) != *left* ]] || fail "progress although quiet"
[[ $(script -qec "$slow scan $fs" /dev/null) == *$'\r1 files, '* ]] || fail "no progress of a walk"

expect 2 'no verb "archve"; did you mean "archive"\?' archve --store "$store" "$f"
printf '%s\n' '[Lustre]' 'archiveTimout = 5' '[Focuss]' 'instance = I' '[Store/x]' 'directory = /x' >"$work/conf"
QZHSM_CONFIG=$work/conf expect 0 'conf:2: archiveTimout is ignored: .* did you mean "archiveTimeout"\?' info "$f"
QZHSM_CONFIG=$work/conf expect 0 'conf:4: instance is ignored: there is no section \[Focuss\]; did you' info "$f"
[ "$(QZHSM_CONFIG=$work/conf "$qzhsm" info "$f" 2>&1 | grep -c warning)" = 2 ] || fail "what is known was warned of"
QZHSM_CONFIG=$work/missing expect 0 'warning: QZHSM_CONFIG names .*missing' info "$f"
finish
