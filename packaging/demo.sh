#!/usr/bin/env bash
# Turns real files into stubs and brings them back, by hand and out of a store: demo.sh PATH-OF-QZHSM [DIRECTORY]
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

say "A store does the moving: three files are archived, and their room is free"
mkdir album
for name in one two three; do head -c $((RANDOM * 100 + 4000000)) /dev/urandom >"album/$name.flac"; done
sums=$(sha256sum album/*)
run "$qzhsm" store create "$dir/store"
run du -sh album
run "$qzhsm" archive --store "$dir/store" album
run du -sh album
run "$qzhsm" info album/one.flac

say "Every stub's data is in the store, by its checksums"
run "$qzhsm" verify album
run "$qzhsm" store list --store "$dir/store"

say "They come back"
run "$qzhsm" recall album
run du -sh album
echo "$sums"
run sha256sum --check --quiet <<<"$sums" || exit 1

[ "$before" = "$after" ] || {
    say "The data differs"
    exit 1
}
say "Byte for byte the same."
