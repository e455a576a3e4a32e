#!/usr/bin/env bash
# How the tool takes its command line, right and wrong.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
expect 2 'frob' frobnicate
expect 2 'meta' stub /tmp
expect 2 'PATH' info
expect 2 'from: standard input holds the paths' recall -0 --from -
expect 2 'PATH, or --store' verify
expect 2 'meta: it would lead nowhere' stub "$work/data" --meta ''
expect 2 'never negative' archive --store "$work" --larger-than -1 "$work/data"
expect 2 'older-than' store gc --store "$work" --older-than -1d "$work"
expect 1 'for Lustre only.*code 38' release /
expect 1 'stubFile not implemented \(code 38\)' --fs HADOOP_FS stub "$work/data" --meta m
for verb in info stub backup restore-stub recall stat set-times watch unwatch watched resubmit release hsm-state scan; do
    expect 0 "Usage: qzhsm $verb" "$verb" --help
done
expect 0 "^no +(yes|no) +3000000 +[0-9]+ +plain +$work/data$" info "$work/data"
printf '%s\0' "$work/data" "$work/missing" "$work/part" >"$work/paths"
[ "$("$qzhsm" stat -0 --json <"$work/paths" 2>/dev/null | grep -vc failed)" = 2 ] || fail "a missing path ended the list"
"$qzhsm" info / >/dev/full 2>/dev/null && fail "a full standard output went unnoticed"
finish
