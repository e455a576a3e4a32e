#!/usr/bin/env bash
# FS_TYPE=... limits.sh QZHSM QZHSMD USERS: nobody who reads or holds files takes the recall service away from others.
# shellcheck source=tests/tools/qzhsmd/common.sh
. "$(dirname "$0")/common.sh"
users=$3

# Whoever holds a lease on a file, which takes whoever opens it 45 seconds to break, holds nobody else up.
echo other >"$fs/other"
start
"$users" lease "$fs/leased" >"$work/leased" &
leaser=$!
for ((i = 0; i < 100; i++)); do grep -q leased "$work/leased" && break; sleep 0.05; done
timeout -s KILL 5 cat "$fs/leased" 2>"$work/said" && fail "a leased file was opened"
grep -q 'Operation not permitted' "$work/said" || fail "to open a leased file: $(<"$work/said")"
[ "$(timeout -s KILL 5 cat "$fs/other")" = other ] || fail "a lease holds others up"
kill $leaser
stop
finish
