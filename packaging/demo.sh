#!/usr/bin/env bash
# Turns a real file into a stub and brings it back: demo.sh PATH-OF-QZHSM [DIRECTORY]
set -euo pipefail
qzhsm=$(readlink -f "$1")
dir=$(mktemp -d "${2:-${TMPDIR:-/tmp}}/qzhsm-demo.XXXXXX")
trap 'rm -rf "$dir"' EXIT
cd "$dir"

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }
run() {
    printf '$ %s\n' "${*/#$qzhsm/qzhsm}"
    "$@"
}
sum() { sha256sum "$1" | cut -d' ' -f1; }

say "A file of 32 MiB on $(df --output=fstype . | tail -n 1), and its copy in the archive"
head -c 33554432 /dev/urandom >film.mov
touch -d '2024-05-01 12:00:00 UTC' film.mov
cp film.mov archived-copy
before=$(sum film.mov)
run ls -ls --time-style=+%F film.mov
echo "sha256 $before"

say "It becomes a stub: the size stays, the data goes"
run "$qzhsm" stub film.mov --meta "versionGuid=0f3a;tape=A00017"
run ls -ls --time-style=+%F film.mov
run "$qzhsm" info film.mov
run head -n 1 film.mov | tr -d '\0'

say "Its stub data is saved, the file is lost, and the stub is put back"
run "$qzhsm" backup film.mov -o film.stub
run rm film.mov
run "$qzhsm" restore-stub film.mov film.stub
run "$qzhsm" set-times film.mov --atime "$(stat -c %X archived-copy)" --mtime "$(date -d '2024-05-01 12:00:00 UTC' +%s)"
run "$qzhsm" info film.mov

say "A recall that fails half-way leaves the stub as it was"
head -c 16777216 archived-copy >half
run timeout -s TERM 1 "$qzhsm" recall film.mov --from <(cat half; sleep 5) || echo "(exit status $?)"
run "$qzhsm" info film.mov

say "The recall"
run "$qzhsm" recall film.mov --from archived-copy
run ls -ls --time-style=+%F film.mov
after=$(sum film.mov)
echo "sha256 $after"
run "$qzhsm" info film.mov
run "$qzhsm" scan .

[ "$before" = "$after" ] || {
    say "The data differs"
    exit 1
}
say "Byte for byte the same."
