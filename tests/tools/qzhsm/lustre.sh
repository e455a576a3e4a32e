#!/usr/bin/env bash
# lustre.sh PATH-OF-QZHSM DIRECTORY-OF-LUSTRE-LIBRARY: the tool on Lustre's stubs.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
on tmpfs
wrapped "PATH='$(dirname "$0")/../../support/lustre':\$PATH" '--fs LUSTRE_FS'
refused "$f" 'The Lustre library is not loaded: .*Function not implemented \(code -1\)' stub "$f" --meta m
expect 0 'LoadFunctions failed, error=liblustreapi.so.1: cannot open' info "$f"
export LD_LIBRARY_PATH=$2
refused "$f" 'Lustre did not release .*0x00000000' release "$f"
LFS_FAIL=3 expect 1 'lfs told no state of' stub "$f" --meta m
setfattr -x user.TSTUB "$f"
becomes_stub tape=1
comes_back
expect 0 '^{"path":.*,"state":".*released' hsm-state --json "$f"
expect 0 '^$' release "$f"
refused "$f" 'Nothing but Lustre recalls .*\(code 38\)' recall "$f" --from "$work/data"
refused "$f" 'it carries stub text' restore-stub "$f" "$work/saved" --force
LFS_FAIL=2 expect 1 'lfs told no state of' info "$f"
LFS_FAIL=2 expect 1 'lfs told no state of' restore-stub "$fs/fresh" "$work/saved"
[ ! -e "$fs/fresh" ] || fail "a failed restore left a file"
cp "$work/data" "$fs/released" # the path may hold the word
setfattr -n user.TSTUB -v text "$fs/released"
expect 0 '^no ' info "$fs/released"
: >"$fs/empty"
expect 1 'an empty file could not be restored' stub "$fs/empty" --meta m
expect 1 'would not take this path' stub "$fs/\$(touch pwned)" --meta m
finish
