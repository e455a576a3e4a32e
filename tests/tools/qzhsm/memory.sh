#!/usr/bin/env bash
# Whatever memory it lacks, the tool ends with a status and a line.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
store=$work/store
on tmpfs
cp "$f" "$fs/g"
expect 0 '^$' store create "$store"

# From too little memory to load on, until there is enough.
for ((kib = 6000, status = 127; status != 0 && kib < 400000; kib += kib < 10000 ? 50 : kib / 20)); do
    (ulimit -v $kib && exec timeout 20 "$plain" archive --keep -j 4 --store "$store" "$f" "$fs/g") &>"$work/said"
    status=$?
    [[ $status = [01] || $status = 12[67] ]] && [ -s "$work/said" ] || fail "status $status with $kib KiB: $(<"$work/said")"
done
finish
