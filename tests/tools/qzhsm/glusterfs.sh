#!/usr/bin/env bash
# The tool on GlusterFS's stubs: real "trusted." attributes, and what the volume would do is done here.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
on tmpfs
guid=versionGuid=0123456789abcdef0123456789abcdef
wrapped '' '--fs GLUSTER_FS'
refused "$f" 'versionGuid is too short' stub "$f" --meta versionGuid=0123
becomes_stub $guid setfattr -n trusted.glusterfs.cs.remote "$f"
expect 0 '^stubs +1$' scan "$fs"
refused "$f" 'is marked complete already' restore-stub "$f" "$work/saved"
setfattr -x trusted.glusterfs.csou.complete "$f"
expect 0 '^$' restore-stub "$f" "$work/saved"
expect 1 'No such file' restore-stub "$fs/missing" "$work/saved"
refused "$work/data" 'did not come back with its attributes' restore-stub "$work/data" "$work/saved"
expect 1 'special file' stub "$fs" --meta $guid
qzhsm=setpriv expect 1 CAP_SYS_ADMIN --bounding-set=-sys_admin "$work/qzhsm" info "$f"
truncate -s 0 "$f" && truncate -s 3000000 "$f" && touch -d @1000000000 "$f"
cp --preserve=xattr "$f" "$fs/other"
refused "$f" 'other is a stub or the copy of one' recall "$f" --from "$fs/other"
is_recalled
setfattr -n user.TSTUB -v "0s$(head -c 66 "$work/saved" | base64 -w0)" "$f"
expect 1 'its stub text is cut short' info "$f"
setfattr -n user.TSTUB -v corrupt "$f"
expect 1 'is not a stub, corrupt meta-data \(code 8\)' info "$f"
finish
