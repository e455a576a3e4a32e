#!/usr/bin/env bash
# lustre.sh PATH-OF-QZHSM DIRECTORY-OF-LUSTRE-LIBRARY: the tool on Lustre's stubs.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
f=$fs/released # a word that the path may hold
on tmpfs
lfs=$(dirname "$0")/../../support/lustre
wrapped "PATH='$work:$lfs':\$PATH" '--fs LUSTRE_FS'
refused "$f" 'The Lustre library is not loaded: .*Function not implemented \(code -1\)' stub "$f" --meta m
expect 0 'LoadFunctions failed, error=liblustreapi.so.1: cannot open' info "$f"
export LD_LIBRARY_PATH=$2
refused "$f" 'Lustre did not release .*0x00000000' release "$f"
becomes_stub tape=1
comes_back
expect 0 '^{"path":.*,"state":".*released' hsm-state --json "$f"
printf '#!/bin/sh\necho "$2: "\n' >"$work/lfs" && chmod +x "$work/lfs"
expect 1 'lfs told no state of' hsm-state --json "$f"
rm "$work/lfs"
expect 0 "^$f: \(0x0000000d\) released" hsm-state "$f"
expect 0 '^$' release "$f"
refused "$f" 'Nothing but Lustre recalls .*\(code 38\)' recall "$f" --from "$work/data"
refused "$f" 'it carries stub text' restore-stub "$f" "$work/saved" --force
LFS_FAIL=2 expect 1 'lfs told no state of' restore-stub "$fs/fresh" "$work/saved"
[ ! -e "$fs/fresh" ] || fail "a failed restore left a file"
touch -d @1000000000 "$fs/empty"
LFS_FAIL=2 refused "$fs/empty" 'lfs told no state of' restore-stub "$fs/empty" "$work/saved"
expect 1 'an empty file could not be restored' stub "$fs/empty" --meta m
expect 1 'would not take this path' stub "$fs/\$(touch pwned)" --meta m
printf '#!/bin/sh\nsetfattr -x user.TSTUB "$2" 2>/dev/null\nexec "%s/lfs" "$@"\n' "$lfs" >"$work/lfs" && chmod +x "$work/lfs"
cp "$work/data" "$fs/bare"
expect 1 'which has no stub text' stub "$fs/bare" --meta m
expect 0 '^no ' info "$fs/bare"
finish
