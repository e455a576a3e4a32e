#!/usr/bin/env bash
# rclone.sh PATH-OF-SERVICE-TESTS: a store behind a real mover and a real server, on this machine.
set -euo pipefail
if ! command -v rclone >/dev/null; then
    echo "skipped: needs the package rclone"
    exit 77
fi
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server"; rm -rf "$work"' EXIT
mkdir "$work/served"
mkfifo "$work/said"
rclone --config "$work/rclone.conf" serve webdav --addr 127.0.0.1:0 "$work/served" 2>"$work/said" &
server=$!
exec 3<"$work/said"
port=
while [ -z "$port" ] && read -r -t 60 line <&3; do # it says when it listens, and to which port
    [[ $line =~ started\ on\ http://127.0.0.1:([0-9]+)/ ]] && port=${BASH_REMATCH[1]}
done
[ -n "$port" ] || { echo "the server did not start: $line"; exit 1; }
export RCLONE_CONFIG=$work/rclone.conf
rclone config create archive webdav url "http://127.0.0.1:$port" vendor other >/dev/null
cat >"$work/qzhsm.conf" <<EOF
[Store/cloud]
put = rclone rcat archive:{object}
get = rclone cat archive:{object} --offset {offset} --count {count}
remove = rclone deletefile archive:{object}
list = rclone lsf archive:
timeout = 60
EOF
QZHSM_CONFIG=$work/qzhsm.conf QZHSM_TEST_STORE=cloud "$1" --gtest_filter=Stores.GiveBackWhatWasPut
